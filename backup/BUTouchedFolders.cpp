#include "backup/BUTouchedFolders.h"

#include "backup/BUDeviceRoot.h"
#include "keelson/KSLog.h"
#include "keelson/KSStrings.h"

#include <QHashFunctions>

#include <algorithm>
#include <bit>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

void RestoreMirrorTree(int mirrorFd,
    const std::function<bool(const QByteArray &, BUItemAttributes *)> &sourceAttributes, const BUVolumeKind &kind)
{
    // Walked down and back up holding only the folder at hand, whatever the depth: going up goes
    // through "..", and each parent must be the folder that was come from.
    struct Level {
        QByteArray relative; // below the mirror; empty for the mirror itself
        dev_t device;
        ino_t inode;
        std::vector<QByteArray> subfolders; // still to restore, the next one last
    };
    auto enter = [](int fd, QByteArray relative, std::vector<Level> *levels) {
        struct stat status;
        const int listed = ::openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        DIR *folder = listed >= 0 ? ::fdopendir(listed) : nullptr;
        if (!folder || ::fstat(fd, &status) != 0) {
            if (folder)
                ::closedir(folder);
            else if (listed >= 0)
                ::close(listed);
            return false;
        }
        Level level {std::move(relative), status.st_dev, status.st_ino, {}};
        while (const dirent *entry = ::readdir(folder)) {
            if (entry->d_name[0] != '.' && (entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN))
                level.subfolders.emplace_back(entry->d_name);
        }
        ::closedir(folder);
        std::reverse(level.subfolders.begin(), level.subfolders.end());
        levels->push_back(std::move(level));
        return true;
    };
    std::vector<Level> levels;
    if (!enter(mirrorFd, QByteArray(), &levels))
        return;
    int current = mirrorFd; // the folder of the last level; the mirror's is the caller's
    while (!levels.empty()) {
        Level &level = levels.back();
        if (!level.subfolders.empty()) {
            const QByteArray name = std::move(level.subfolders.back());
            level.subfolders.pop_back();
            const int fd = OpenItemAt(current, name.constData(), O_RDONLY | O_DIRECTORY);
            if (fd < 0)
                continue; // a link, a file, another file system
            if (!enter(fd, level.relative.isEmpty() ? name : level.relative + '/' + name, &levels)) {
                ::close(fd);
                continue;
            }
            if (current != mirrorFd)
                ::close(current);
            current = fd;
            continue;
        }
        // Everything below it is done: the folder itself, then up to its parent.
        const QByteArray relative = std::move(level.relative);
        levels.pop_back();
        if (levels.empty())
            break; // the mirror itself is the caller's to restore
        BUItemAttributes attributes;
        BUError error;
        if (sourceAttributes(relative, &attributes) && !WriteItemAttributes(current, attributes, kind, 0, &error))
            LogString("Can't set the attributes of %@. %@", FileNameFromBytes(relative), error.failureReason);
        int parent = mirrorFd;
        if (levels.size() > 1) {
            parent = OpenParentIfUnmoved(current, levels.back().device, levels.back().inode);
            if (parent < 0) {
                LogString(
                    "Can't set the attributes of the folders that hold %@: it was moved.", FileNameFromBytes(relative));
                break;
            }
        }
        ::close(current);
        current = parent;
    }
    if (current != mirrorFd)
        ::close(current);
}
