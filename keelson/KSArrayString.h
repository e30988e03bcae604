// An entry array that pairs every record with an owned string (which may be absent, "nil") and
// offers case-insensitive sorted insertion and search. Single-threaded.
#pragma once

#include "keelson/KSArray.h"

#include <QString>

class KSArrayString : public KSArray {
public:
    // (string of a, record of a or null, string of b, record of b or null, context) -> -1, 0, 1.
    using StringCompareBlock = std::function<int(
        const QString &a, const void *recordA, const QString &b, const void *recordB, void *context)>;
    using StringBlock = std::function<void(const QString *string, void *record, std::size_t index, bool *stop)>;

    static std::unique_ptr<KSArrayString> create(std::size_t recordSize, std::size_t initialAllocation = 0);
    ~KSArrayString() override;

    std::size_t entryLength() const override { return stride - 8; }
    void *entryAtIndex(std::size_t index) override;
    void getEntry(void *destination, std::size_t index) const override;
    // Null for nil, and beyond the count.
    const QString *stringAtIndex(std::size_t index) const;
    const QString *stringAndEntry(void *destination, std::size_t index) const;
    void enumerateEntriesAndStringsUsingBlock(const StringBlock &block);

    void enumerateEntriesUsingBlock(const EntryBlock &) override { }
    void setCount(std::size_t) override { }
    void sortEntriesWithContext(void *, const CompareBlock &) override { }

    std::size_t addEntry(const void *record) override;
    std::size_t addEntry(const void *record, const QString *string);
    bool insertEntry(const void *record, std::size_t index) override;
    bool insertEntry(const void *record, const QString *string, std::size_t index);
    // Inserts at the sorted place (before an equal string); KSNotFound for an empty string.
    std::size_t insertEntryWithSortedString(const void *record, const QString &string);
    // A null string deletes the entry; index = count inserts.
    bool replaceEntry(const void *record, const QString *string, std::size_t index);
    void replaceEntryAtIndex(std::size_t index, const void *record) override;
    void deleteEntryAtIndex(std::size_t index) override;
    void deleteAllEntries() override;
    // A null block sorts by CaseInsensitiveCompare of the strings (nil as empty).
    void sortStringEntriesWithContext(void *context, const StringCompareBlock &block);
    // Sorted: binary search, the insertion point when not found. Unsorted: a scan, count when not
    // found. An empty string is never found (index KSNotFound).
    bool findString(const QString &string, bool isSorted, std::size_t *index) const;
    // Copies records and strings from a raw block laid out like this array's.
    bool copyEntries(const void *source, std::size_t used) override;
    std::unique_ptr<KSArray> copy() const override;

private:
    KSArrayString() = default;
    QString *stringSlot(std::size_t index) const;
    void setStringSlot(std::size_t index, QString *string);
    void releaseString(std::size_t index);
};
