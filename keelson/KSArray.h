// Growable arrays of fixed-size plain records ("entries") kept in one block and copied byte-wise:
// no per-entry objects, growth by a quarter (at least 10 entries), an in-place sort that needs one
// temporary record. Single-threaded objects without locks.
//
// Out-of-range reads clamp (pointer forms) or zero-fill (copy forms) and never fault; insertions
// answer false or KSNotFound, leaving the array unchanged, when the index is out of range or
// memory runs out. Operations a subclass does not support answer the same way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

inline constexpr std::size_t KSNotFound = 0x7fffffffffffffffULL;

class KSArray {
public:
    using EntryBlock = std::function<void(void *entry, std::size_t index, bool *stop)>;
    // Answers -1, 0 or 1 as an ordering of the two entries.
    using CompareBlock = std::function<int(const void *a, const void *b, void *context)>;

    // Null for a stride of 0 or an odd stride, for use-all with no entries, or when memory runs
    // out. Without use-all there is room for max(initialAllocation, 10) entries and the count is 0;
    // with it, allocation and count are both initialAllocation, the contents undefined.
    static std::unique_ptr<KSArray> create(
        std::size_t entrySize, std::size_t initialAllocation = 0, bool useAllEntries = false);
    virtual ~KSArray();
    KSArray(const KSArray &) = delete;
    KSArray &operator=(const KSArray &) = delete;

    virtual std::size_t count() const { return usedCount; }
    virtual std::size_t entryLength() const { return stride; }
    std::size_t capacity() const { return allocatedCount; }

    void *firstEntry();
    void *lastEntry();
    virtual void *entryAtIndex(std::size_t index);
    virtual void getEntry(void *destination, std::size_t index) const;
    virtual void enumerateEntriesUsingBlock(const EntryBlock &block);

    virtual std::size_t addEntry(const void *entry);
    virtual bool insertEntry(const void *entry, std::size_t index);
    virtual void replaceEntryAtIndex(std::size_t index, const void *entry);
    virtual void deleteEntryAtIndex(std::size_t index);
    virtual void deleteAllEntries();
    virtual void setCount(std::size_t newCount);
    // Shell sort with gaps 2^k - 1; not stable.
    virtual void sortEntriesWithContext(void *context, const CompareBlock &block);
    // Sets the count and copies that many stored entries from a raw block (growing when needed).
    virtual bool copyEntries(const void *source, std::size_t used);
    virtual std::unique_ptr<KSArray> copy() const;

protected:
    KSArray() = default;
    bool initialise(std::size_t entryStride, std::size_t initialAllocation, bool useAllEntries);
    // Opens an empty slot at a stored index, growing by max(count / 4, 10) when full.
    bool insertSlot(std::size_t storedIndex);
    bool reserveStored(std::size_t storedCount);
    unsigned char *stored(std::size_t storedIndex) const { return entries + storedIndex * stride; }
    void moveDown(std::size_t storedIndex, std::size_t number);
    void shellSort(const std::function<int(const unsigned char *, const unsigned char *)> &compare);

    std::uint64_t usedCount = 0;
    std::uint64_t allocatedCount = 0;
    std::uint64_t stride = 0;
    unsigned char *entries = nullptr;
};
