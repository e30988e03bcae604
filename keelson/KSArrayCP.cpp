#include "keelson/KSArrayCP.h"

#include <cstring>

std::unique_ptr<KSArrayCP> KSArrayCP::create(
    std::size_t recordSize, std::size_t initialAllocation, int32_t maxCp, unsigned options)
{
    std::unique_ptr<KSArrayCP> array(new KSArrayCP);
    if (!array->initialise(recordSize + 4, initialAllocation + 1, false))
        return nullptr;
    array->optionBits = options;
    array->usedCount = 1;
    array->makeMarker(0, maxCp);
    return array;
}

int32_t KSArrayCP::storedCp(std::size_t storedIndex) const
{
    int32_t cp;
    std::memcpy(&cp, stored(storedIndex), sizeof cp);
    return cp;
}

void KSArrayCP::setStoredCp(std::size_t storedIndex, int32_t cp)
{
    std::memcpy(stored(storedIndex), &cp, sizeof cp);
}

void KSArrayCP::makeMarker(std::size_t storedIndex, int32_t cp)
{
    setStoredCp(storedIndex, cp);
    std::memset(stored(storedIndex) + 4, 0, stride - 4);
}

void *KSArrayCP::entryAtIndex(std::size_t index)
{
    const std::size_t n = count();
    return stored(n == 0 ? 0 : std::min(index, n - 1)) + 4;
}

void KSArrayCP::getEntry(void *destination, std::size_t index) const
{
    cpGetEntry(destination, index);
}

int32_t KSArrayCP::cpGetEntry(void *destination, std::size_t index) const
{
    if (index >= count()) {
        if (destination)
            std::memset(destination, 0, stride - 4);
        return 0;
    }
    if (destination)
        std::memcpy(destination, stored(index) + 4, stride - 4);
    return storedCp(index);
}

int32_t KSArrayCP::cpAtIndex(std::size_t index) const
{
    return index < usedCount ? storedCp(index) : int32_t(0xFFFFFFFF);
}

int32_t KSArrayCP::maxCp() const
{
    return storedCp(usedCount - 1);
}

void KSArrayCP::setMaxCp(int32_t cp)
{
    setStoredCp(usedCount - 1, cp);
}

std::size_t KSArrayCP::indexOfCpCore(int32_t cp) const
{
    if (count() == 0)
        return 0;
    if (cp > maxCp())
        return count() - 1;
    std::size_t lo = 0, hi = usedCount, result = KSNotFound;
    while (lo < hi) {
        const std::size_t mid = (lo + hi) / 2;
        const int32_t midCp = storedCp(mid);
        if (midCp == cp) {
            result = mid;
            break;
        }
        if (midCp < cp)
            lo = mid + 1;
        else
            hi = mid;
    }
    if (result == KSNotFound)
        result = lo - 1; // all ones below the first entry; callers start at the lowest cp
    if ((optionBits & kFirstOfEqualCps) && result != std::size_t(-1)) {
        while (result > 0 && storedCp(result - 1) == storedCp(result))
            --result;
    }
    return result;
}

std::size_t KSArrayCP::indexOfCp(int32_t cp, int32_t *actualCp) const
{
    const std::size_t index = indexOfCpCore(cp);
    if (actualCp && index < usedCount)
        *actualCp = storedCp(index);
    return index;
}

std::size_t KSArrayCP::indexOfCpSafe(int32_t cp) const
{
    if (storedCp(0) < cp && cp < maxCp())
        return indexOfCpCore(cp);
    return cp == storedCp(0) ? 0 : KSNotFound;
}

std::size_t KSArrayCP::indexOfCpAfter(int32_t cp) const
{
    if (storedCp(0) > cp)
        return 0;
    if (maxCp() < cp)
        return KSNotFound;
    if (count() == 0)
        return 0;
    std::size_t index = indexOfCpCore(cp);
    if (index == std::size_t(-1))
        index = 0;
    while (index < usedCount - 1 && storedCp(index) < cp)
        ++index;
    return index;
}

int32_t KSArrayCP::cpAfterCp(int32_t cp, std::size_t *index) const
{
    std::size_t found = indexOfCpAfter(cp);
    if (found == count())
        found = KSNotFound;
    if (index)
        *index = found;
    return found == KSNotFound ? int32_t(0xFFFFFFFF) : storedCp(found);
}

void KSArrayCP::enumerateEntriesAndCPsUsingBlock(const CpBlock &block)
{
    bool stop = false;
    for (std::size_t i = 0; i < count() && !stop; ++i)
        block(storedCp(i), stride > 4 ? stored(i) + 4 : nullptr, i, &stop);
}

bool KSArrayCP::insertEntry(const void *record, std::size_t index, int32_t cp)
{
    if (index > count() || !insertSlot(index))
        return false;
    setStoredCp(index, cp);
    if (record && stride > 4)
        std::memcpy(stored(index) + 4, record, stride - 4);
    return true;
}

bool KSArrayCP::insertEntries(std::size_t number, std::size_t index)
{
    if (index > count())
        return false;
    if (number == 0)
        return true;
    if (usedCount + number > allocatedCount) {
        const std::size_t shortfall = usedCount + number - allocatedCount;
        const std::size_t growth = std::max(shortfall, std::max<std::size_t>(allocatedCount / 4, 10));
        if (!reserveStored(allocatedCount + growth))
            return false;
    }
    std::memmove(stored(index + number), stored(index), (usedCount - index) * stride);
    usedCount += number;
    return true;
}

void KSArrayCP::replaceEntryAtIndex(std::size_t index, const void *record)
{
    if (index < count() && record && stride > 4)
        std::memcpy(stored(index) + 4, record, stride - 4);
}

void KSArrayCP::replaceCp(int32_t cp, std::size_t index)
{
    if (index < usedCount)
        setStoredCp(index, cp);
}

void KSArrayCP::adjustCpsAfter(int32_t cp, int32_t delta, std::size_t startingIndex)
{
    if (delta == 0)
        return;
    const int32_t threshold = (optionBits & kShiftMovesStartAt) ? cp : cp + 1;
    std::size_t index = startingIndex;
    if (index == KSNotFound) {
        index = indexOfCpAfter(threshold);
        if (index == KSNotFound)
            return;
    }
    for (std::size_t i = usedCount; i-- > index;) {
        const int32_t old = storedCp(i);
        if (i != usedCount - 1 && old < threshold)
            break;
        setStoredCp(i, int32_t(uint32_t(old) + uint32_t(delta)));
    }
}

void KSArrayCP::deleteEntryAtIndex(std::size_t index)
{
    if (index < count())
        moveDown(index, 1);
}

void KSArrayCP::deleteEntries(std::size_t number, std::size_t index)
{
    if (index > count())
        return;
    number = std::min(number, count() - index);
    if (number > 0)
        moveDown(index, number);
}

void KSArrayCP::deleteAllEntries()
{
    if (count() == 0)
        return;
    const int32_t cp = maxCp();
    usedCount = 1;
    makeMarker(0, cp);
}

void KSArrayCP::setCount(std::size_t newCount)
{
    setCount(newCount, maxCp());
}

void KSArrayCP::setCount(std::size_t newCount, int32_t cp)
{
    if (newCount > count())
        return;
    usedCount = newCount + 1;
    makeMarker(newCount, cp);
}

bool KSArrayCP::copyEntries(const void *source, std::size_t used)
{
    if (used == 0)
        return false; // the marker must survive
    return KSArray::copyEntries(source, used);
}

std::unique_ptr<KSArray> KSArrayCP::copy() const
{
    auto duplicate = create(stride - 4, allocatedCount - 1, 0, optionBits);
    if (duplicate && !duplicate->copyEntries(entries, usedCount))
        return nullptr;
    return duplicate;
}
