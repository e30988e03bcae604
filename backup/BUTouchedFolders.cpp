#include "backup/BUTouchedFolders.h"

#include <QHashFunctions>

#include <algorithm>
#include <bit>

namespace {

uint32_t _Hash(QStringView path)
{
    return uint32_t(qHash(path)) & 0x3FFFFFFFU;
}

} // namespace

QString TouchedFolders::path(const Folder &folder) const
{
    QString path = m_relativeOf(folder.row);
    if (folder.hash & kHolding)
        path.truncate(std::max<qsizetype>(path.lastIndexOf(u'/'), 0));
    return path;
}

void TouchedFolders::add(QStringView relative, uint32_t row, bool holding, bool rootKnown)
{
    if (m_slots.size() < 2 * (m_folders.size() + 1))
        rehash(std::bit_ceil(std::max<std::size_t>(64, 4 * m_folders.size())));
    const uint32_t hash = _Hash(relative);
    const uint32_t flags = (holding ? kHolding : 0) | (rootKnown ? kRootKnown : 0);
    const std::size_t mask = m_slots.size() - 1;
    for (std::size_t slot = hash & mask;; slot = (slot + 1) & mask) {
        const uint32_t held = m_slots[slot];
        if (held == 0) {
            m_folders.push_back({row, hash | flags});
            m_slots[slot] = uint32_t(m_folders.size());
            return;
        }
        Folder &folder = m_folders[held - 1];
        if ((folder.hash & kHashBits) == hash && path(folder) == relative) {
            if (rootKnown && !(folder.hash & kRootKnown))
                folder = {row, hash | flags};
            return;
        }
    }
}

void TouchedFolders::rehash(std::size_t count)
{
    m_slots.assign(count, 0);
    const std::size_t mask = count - 1;
    for (std::size_t i = 0; i < m_folders.size(); ++i) {
        std::size_t slot = (m_folders[i].hash & kHashBits) & mask;
        while (m_slots[slot] != 0)
            slot = (slot + 1) & mask;
        m_slots[slot] = uint32_t(i + 1);
    }
}
