#include "backup/BUTouchedFolders.h"

#include <QHashFunctions>

#include <algorithm>
#include <bit>

void TouchedFolders::add(const QByteArray &relative, const QString &sourceRoot)
{
    if (m_slots.size() < 2 * (m_folders.size() + 1))
        rehash(std::bit_ceil(std::max<std::size_t>(64, 4 * m_folders.size())));
    const std::size_t mask = m_slots.size() - 1;
    for (std::size_t slot = std::size_t(qHash(QByteArrayView(relative))) & mask;; slot = (slot + 1) & mask) {
        const uint32_t held = m_slots[slot];
        if (held == 0) {
            m_folders.push_back({m_paths.size(), uint32_t(relative.size()), rootIndex(sourceRoot)});
            m_paths += relative;
            m_slots[slot] = uint32_t(m_folders.size());
            return;
        }
        Folder &folder = m_folders[held - 1];
        if (path(folder) == relative) {
            if (folder.root == kNoRoot)
                folder.root = rootIndex(sourceRoot);
            return;
        }
    }
}

const QString &TouchedFolders::sourceRoot(std::size_t index) const
{
    static const QString none;
    const uint32_t root = m_folders[index].root;
    return root == kNoRoot ? none : m_roots[qsizetype(root)];
}

uint32_t TouchedFolders::rootIndex(const QString &root)
{
    if (root.isNull())
        return kNoRoot;
    // A root per backup folder at most: the transactions share them.
    const qsizetype found = m_roots.indexOf(root);
    if (found >= 0)
        return uint32_t(found);
    m_roots.append(root);
    return uint32_t(m_roots.size() - 1);
}

void TouchedFolders::rehash(std::size_t count)
{
    m_slots.assign(count, 0);
    const std::size_t mask = count - 1;
    for (std::size_t i = 0; i < m_folders.size(); ++i) {
        std::size_t slot = std::size_t(qHash(path(m_folders[i]))) & mask;
        while (m_slots[slot] != 0)
            slot = (slot + 1) & mask;
        m_slots[slot] = uint32_t(i + 1);
    }
}
