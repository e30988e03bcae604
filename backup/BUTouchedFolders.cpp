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
    const int listed = ::openat(mirrorFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *folder = listed >= 0 ? ::fdopendir(listed) : nullptr;
    if (!folder) {
        if (listed >= 0)
            ::close(listed);
        return;
    }
    std::vector<QByteArray> subfolders;
    while (const dirent *entry = ::readdir(folder)) {
        if (entry->d_name[0] != '.' && (entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN))
            subfolders.emplace_back(entry->d_name);
    }
    ::closedir(folder);
    std::function<void(int, const QByteArray &)> restore = [&](int parentFd, const QByteArray &relative) {
        const QByteArray name = relative.mid(relative.lastIndexOf('/') + 1);
        const int fd = OpenItemAt(parentFd, name.constData(), O_RDONLY | O_DIRECTORY);
        if (fd < 0)
            return; // a link, a file, another file system
        const int inner = ::openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (DIR *list = inner >= 0 ? ::fdopendir(inner) : nullptr) {
            std::vector<QByteArray> names;
            while (const dirent *entry = ::readdir(list)) {
                if (entry->d_name[0] != '.' && (entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN))
                    names.emplace_back(entry->d_name);
            }
            ::closedir(list);
            for (const QByteArray &child : names)
                restore(fd, relative + '/' + child);
        } else if (inner >= 0) {
            ::close(inner);
        }
        BUItemAttributes attributes;
        BUError error;
        if (sourceAttributes(relative, &attributes) && !WriteItemAttributes(fd, attributes, kind, 0, &error))
            LogString("Can't set the attributes of %@. %@", FileNameFromBytes(relative), error.failureReason);
        ::close(fd);
    };
    for (const QByteArray &name : subfolders)
        restore(mirrorFd, name);
}
