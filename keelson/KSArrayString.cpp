#include "keelson/KSArrayString.h"

#include "keelson/KSStrings.h"

#include <cstring>

std::unique_ptr<KSArrayString> KSArrayString::create(std::size_t recordSize, std::size_t initialAllocation)
{
    std::unique_ptr<KSArrayString> array(new KSArrayString);
    if (!array->initialise(recordSize + 8, initialAllocation, false))
        return nullptr;
    return array;
}

KSArrayString::~KSArrayString()
{
    deleteAllEntries();
}

QString *KSArrayString::stringSlot(std::size_t index) const
{
    QString *string;
    std::memcpy(&string, stored(index), sizeof string);
    return string;
}

void KSArrayString::setStringSlot(std::size_t index, QString *string)
{
    std::memcpy(stored(index), &string, sizeof string);
}

void KSArrayString::releaseString(std::size_t index)
{
    delete stringSlot(index);
    setStringSlot(index, nullptr);
}

void *KSArrayString::entryAtIndex(std::size_t index)
{
    if (stride == 8)
        return nullptr;
    return static_cast<unsigned char *>(KSArray::entryAtIndex(index)) + 8;
}

void KSArrayString::getEntry(void *destination, std::size_t index) const
{
    stringAndEntry(destination, index);
}

const QString *KSArrayString::stringAtIndex(std::size_t index) const
{
    return index < usedCount ? stringSlot(index) : nullptr;
}

const QString *KSArrayString::stringAndEntry(void *destination, std::size_t index) const
{
    if (index >= usedCount) {
        if (destination)
            std::memset(destination, 0, stride - 8);
        return nullptr;
    }
    if (destination)
        std::memcpy(destination, stored(index) + 8, stride - 8);
    return stringSlot(index);
}

void KSArrayString::enumerateEntriesAndStringsUsingBlock(const StringBlock &block)
{
    bool stop = false;
    for (std::size_t i = 0; i < usedCount && !stop; ++i)
        block(stringSlot(i), stride > 8 ? stored(i) + 8 : nullptr, i, &stop);
}

std::size_t KSArrayString::addEntry(const void *record)
{
    return addEntry(record, nullptr);
}

std::size_t KSArrayString::addEntry(const void *record, const QString *string)
{
    const std::size_t index = usedCount;
    return insertEntry(record, string, index) ? index : KSNotFound;
}

bool KSArrayString::insertEntry(const void *record, std::size_t index)
{
    return insertEntry(record, nullptr, index);
}

bool KSArrayString::insertEntry(const void *record, const QString *string, std::size_t index)
{
    if (!insertSlot(index))
        return false;
    setStringSlot(index, string ? new QString(*string) : nullptr);
    if (record && stride > 8)
        std::memcpy(stored(index) + 8, record, stride - 8);
    return true;
}

std::size_t KSArrayString::insertEntryWithSortedString(const void *record, const QString &string)
{
    std::size_t index;
    findString(string, true, &index);
    if (index == KSNotFound)
        return KSNotFound;
    return insertEntry(record, &string, index) ? index : KSNotFound;
}

bool KSArrayString::replaceEntry(const void *record, const QString *string, std::size_t index)
{
    if (!string) {
        if (index >= usedCount)
            return false;
        deleteEntryAtIndex(index);
        return true;
    }
    if (index == usedCount)
        return insertEntry(record, string, index);
    if (index > usedCount)
        return false;
    releaseString(index);
    setStringSlot(index, new QString(*string));
    if (record && stride > 8)
        std::memcpy(stored(index) + 8, record, stride - 8);
    return true;
}

void KSArrayString::replaceEntryAtIndex(std::size_t index, const void *record)
{
    if (index < usedCount && record && stride > 8)
        std::memcpy(stored(index) + 8, record, stride - 8);
}

void KSArrayString::deleteEntryAtIndex(std::size_t index)
{
    if (index >= usedCount)
        return;
    releaseString(index);
    moveDown(index, 1);
}

void KSArrayString::deleteAllEntries()
{
    for (std::size_t i = 0; i < usedCount; ++i)
        releaseString(i);
    usedCount = 0;
}

void KSArrayString::sortStringEntriesWithContext(void *context, const StringCompareBlock &block)
{
    static const QString empty;
    const bool hasRecord = stride > 8;
    shellSort([&](const unsigned char *a, const unsigned char *b) {
        QString *sa, *sb;
        std::memcpy(&sa, a, sizeof sa);
        std::memcpy(&sb, b, sizeof sb);
        const QString &stringA = sa ? *sa : empty;
        const QString &stringB = sb ? *sb : empty;
        if (!block)
            return int(CaseInsensitiveCompare(stringA, stringB));
        return block(stringA, hasRecord ? a + 8 : nullptr, stringB, hasRecord ? b + 8 : nullptr, context);
    });
}

bool KSArrayString::findString(const QString &string, bool isSorted, std::size_t *index) const
{
    std::size_t found = KSNotFound;
    bool result = false;
    if (string.isEmpty()) {
        // never found
    } else if (isSorted) {
        std::size_t lo = 0, hi = usedCount;
        while (lo < hi) {
            const std::size_t mid = (lo + hi) / 2;
            const QString *entry = stringSlot(mid);
            const int order = entry ? CaseInsensitiveCompare(string, *entry) : KSOrderedDescending;
            if (order == KSOrderedAscending) {
                hi = mid;
            } else if (order == KSOrderedSame) {
                found = mid;
                result = true;
                break;
            } else {
                lo = mid + 1;
            }
        }
        if (!result)
            found = lo;
    } else {
        found = usedCount;
        for (std::size_t i = 0; i < usedCount; ++i) {
            const QString *entry = stringSlot(i);
            if (entry && CaseInsensitiveCompare(string, *entry) == KSOrderedSame) {
                found = i;
                result = true;
                break;
            }
        }
    }
    if (index)
        *index = found;
    return result;
}

bool KSArrayString::copyEntries(const void *source, std::size_t used)
{
    deleteAllEntries();
    if (used == 0)
        return true;
    if (!reserveStored(used))
        return false;
    const auto *from = static_cast<const unsigned char *>(source);
    for (std::size_t i = 0; i < used; ++i) {
        QString *string;
        std::memcpy(&string, from + i * stride, sizeof string);
        std::memcpy(stored(i) + 8, from + i * stride + 8, stride - 8);
        setStringSlot(i, string ? new QString(*string) : nullptr);
        usedCount = i + 1;
    }
    return true;
}

std::unique_ptr<KSArray> KSArrayString::copy() const
{
    auto duplicate = create(stride - 8, allocatedCount);
    if (duplicate && !duplicate->copyEntries(entries, usedCount))
        return nullptr;
    return duplicate;
}
