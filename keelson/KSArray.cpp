#include "keelson/KSArray.h"

#include "keelson/KSLog.h"

#include <cstdlib>
#include <cstring>

std::unique_ptr<KSArray> KSArray::create(std::size_t entrySize, std::size_t initialAllocation, bool useAllEntries)
{
    std::unique_ptr<KSArray> array(new KSArray);
    if (!array->initialise(entrySize, initialAllocation, useAllEntries))
        return nullptr;
    return array;
}

KSArray::~KSArray()
{
    std::free(entries);
}

bool KSArray::initialise(std::size_t entryStride, std::size_t initialAllocation, bool useAllEntries)
{
    if (entryStride == 0 || entryStride % 2 != 0)
        return false;
    if (useAllEntries && initialAllocation == 0)
        return false;
    stride = entryStride;
    allocatedCount = useAllEntries ? initialAllocation : std::max<std::size_t>(initialAllocation, 10);
    usedCount = useAllEntries ? initialAllocation : 0;
    if (allocatedCount > SIZE_MAX / stride)
        return false;
    entries = static_cast<unsigned char *>(AllocateMemory(allocatedCount * stride));
    return entries != nullptr;
}

bool KSArray::reserveStored(std::size_t storedCount)
{
    if (storedCount <= allocatedCount)
        return true;
    if (storedCount > SIZE_MAX / stride)
        return false;
    // realloc moves a large block by remapping its pages: no copy, and no moment with both the
    // old and the new block resident.
    auto *block = static_cast<unsigned char *>(ReallocateMemory(entries, storedCount * stride));
    if (!block)
        return false;
    entries = block;
    allocatedCount = storedCount;
    return true;
}

bool KSArray::insertSlot(std::size_t storedIndex)
{
    if (storedIndex > usedCount)
        return false;
    if (usedCount == allocatedCount && !reserveStored(usedCount + std::max<std::size_t>(usedCount / 4, 10)))
        return false;
    std::memmove(stored(storedIndex + 1), stored(storedIndex), (usedCount - storedIndex) * stride);
    ++usedCount;
    return true;
}

void KSArray::moveDown(std::size_t storedIndex, std::size_t number)
{
    std::memmove(stored(storedIndex), stored(storedIndex + number), (usedCount - storedIndex - number) * stride);
    usedCount -= number;
}

void *KSArray::firstEntry()
{
    return count() == 0 ? nullptr : entryAtIndex(0);
}

void *KSArray::lastEntry()
{
    return count() == 0 ? nullptr : entryAtIndex(count() - 1);
}

void *KSArray::entryAtIndex(std::size_t index)
{
    if (usedCount == 0)
        return entries;
    return stored(std::min<std::size_t>(index, usedCount - 1));
}

void KSArray::getEntry(void *destination, std::size_t index) const
{
    if (index < usedCount)
        std::memcpy(destination, stored(index), stride);
    else
        std::memset(destination, 0, stride);
}

void KSArray::enumerateEntriesUsingBlock(const EntryBlock &block)
{
    bool stop = false;
    for (std::size_t i = 0; i < usedCount && !stop; ++i)
        block(stored(i), i, &stop);
}

std::size_t KSArray::addEntry(const void *entry)
{
    const std::size_t index = count();
    return insertEntry(entry, index) ? index : KSNotFound;
}

bool KSArray::insertEntry(const void *entry, std::size_t index)
{
    if (!insertSlot(index))
        return false;
    if (entry)
        std::memcpy(stored(index), entry, stride);
    return true;
}

void KSArray::replaceEntryAtIndex(std::size_t index, const void *entry)
{
    if (index < usedCount && entry)
        std::memcpy(stored(index), entry, stride);
}

void KSArray::deleteEntryAtIndex(std::size_t index)
{
    if (index < usedCount)
        moveDown(index, 1);
}

void KSArray::deleteAllEntries()
{
    usedCount = 0;
}

void KSArray::setCount(std::size_t newCount)
{
    usedCount = std::min<std::uint64_t>(newCount, allocatedCount);
}

void KSArray::shellSort(const std::function<int(const unsigned char *, const unsigned char *)> &compare)
{
    const std::size_t n = usedCount;
    if (n < 2)
        return;
    auto *temporary = static_cast<unsigned char *>(AllocateMemory(stride));
    if (!temporary)
        return;
    std::size_t power = 1;
    while (power * 2 <= n)
        power *= 2;
    for (std::size_t gap = power - 1; gap >= 1; gap /= 2) {
        for (std::size_t i = 0; i + gap < n; ++i) {
            for (std::ptrdiff_t j = std::ptrdiff_t(i); j >= 0; j -= std::ptrdiff_t(gap)) {
                unsigned char *a = stored(std::size_t(j));
                unsigned char *b = stored(std::size_t(j) + gap);
                if (compare(a, b) != 1)
                    break;
                std::memcpy(temporary, a, stride);
                std::memcpy(a, b, stride);
                std::memcpy(b, temporary, stride);
            }
        }
    }
    std::free(temporary);
}

void KSArray::sortEntriesWithContext(void *context, const CompareBlock &block)
{
    shellSort([&](const unsigned char *a, const unsigned char *b) { return block(a, b, context); });
}

bool KSArray::copyEntries(const void *source, std::size_t used)
{
    if (!reserveStored(used))
        return false;
    if (used > 0)
        std::memcpy(entries, source, used * stride);
    usedCount = used;
    return true;
}

std::unique_ptr<KSArray> KSArray::copy() const
{
    auto duplicate = create(stride, allocatedCount);
    if (duplicate && !duplicate->copyEntries(entries, usedCount))
        return nullptr;
    return duplicate;
}
