// An entry array keyed by character positions (cps): each stored entry is a signed 32-bit cp
// followed by the caller's record, in cp order, and the last stored entry is the end marker whose
// cp is maxCp. The text engine finds the run covering a position by binary search and shifts the
// positions after an edit. Indices are the caller's (0 to count - 1); the marker sits at count.
#pragma once

#include "keelson/KSArray.h"

class KSArrayCP : public KSArray {
public:
    enum Options : unsigned {
        kFirstOfEqualCps = 1, // equal cps resolve to the first of their run
        kShiftMovesStartAt = 2, // a shift at a cp also moves entries that start exactly there
    };
    using CpBlock = std::function<void(int32_t cp, void *record, std::size_t index, bool *stop)>;

    // The record size must be even (0 is allowed: cps only). Null on failure.
    static std::unique_ptr<KSArrayCP> create(
        std::size_t recordSize, std::size_t initialAllocation, int32_t maxCp, unsigned options);

    std::size_t count() const override { return usedCount - 1; }
    std::size_t entryLength() const override { return stride - 4; }
    unsigned options() const { return optionBits; }

    void *entryAtIndex(std::size_t index) override;
    void getEntry(void *destination, std::size_t index) const override;
    int32_t cpGetEntry(void *destination, std::size_t index) const;
    // The cp of a stored entry, the marker's index allowed; beyond it 0xFFFFFFFF.
    int32_t cpAtIndex(std::size_t index) const;
    int32_t maxCp() const;
    void setMaxCp(int32_t cp);

    std::size_t indexOfCp(int32_t cp, int32_t *actualCp = nullptr) const;
    std::size_t indexOfCpSafe(int32_t cp) const;
    std::size_t indexOfCpAfter(int32_t cp) const;
    int32_t cpAfterCp(int32_t cp, std::size_t *index) const;
    void enumerateEntriesAndCPsUsingBlock(const CpBlock &block);

    // cp order is fixed: plain enumeration, sorting and unkeyed insertion are not supported.
    void enumerateEntriesUsingBlock(const EntryBlock &) override { }
    void sortEntriesWithContext(void *, const CompareBlock &) override { }
    std::size_t addEntry(const void *) override { return KSNotFound; }
    bool insertEntry(const void *, std::size_t) override { return false; }

    // The caller keeps the cp order.
    bool insertEntry(const void *record, std::size_t index, int32_t cp);
    // Opens a gap of `number` uninitialised entries at the index; the caller fills it.
    bool insertEntries(std::size_t number, std::size_t index);
    void replaceEntryAtIndex(std::size_t index, const void *record) override;
    void replaceCp(int32_t cp, std::size_t index);
    void adjustCpsAfter(int32_t cp, int32_t delta, std::size_t startingIndex);
    void deleteEntryAtIndex(std::size_t index) override;
    void deleteEntries(std::size_t number, std::size_t index);
    void deleteAllEntries() override;
    void setCount(std::size_t newCount) override;
    void setCount(std::size_t newCount, int32_t maxCp);
    // Raw stored entries, marker included.
    bool copyEntries(const void *source, std::size_t used) override;
    std::unique_ptr<KSArray> copy() const override;

private:
    KSArrayCP() = default;
    int32_t storedCp(std::size_t storedIndex) const;
    void setStoredCp(std::size_t storedIndex, int32_t cp);
    void makeMarker(std::size_t storedIndex, int32_t cp);
    std::size_t indexOfCpCore(int32_t cp) const;

    unsigned optionBits = 0;
};
