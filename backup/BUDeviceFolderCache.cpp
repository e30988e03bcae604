#include "backup/BUDeviceFolderCache.h"

#include "backup/BUDeviceRoot.h"
#include "keelson/KSStrings.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Deeper folders are resolved again for every item: a watch each would be many watches, and the
// walk up holds a descriptor per level.
constexpr qsizetype kMaxWatchedLevels = 64;
constexpr uint32_t kMovedOrGone = IN_MOVE_SELF | IN_DELETE_SELF | IN_UNMOUNT | IN_Q_OVERFLOW;

bool _SameItem(const struct stat &status, dev_t device, ino_t inode)
{
    return status.st_dev == device && status.st_ino == inode;
}

} // namespace

BUDeviceFolderCache::BUDeviceFolderCache(const BUDeviceRoot &device) : m_device(device)
{
    startWatching();
}

BUDeviceFolderCache::~BUDeviceFolderCache()
{
    closeFolder();
    if (m_events >= 0)
        ::close(m_events);
}

void BUDeviceFolderCache::startWatching()
{
    if (m_events >= 0)
        ::close(m_events); // and every watch with it
    m_events = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    m_levels.clear();
}

void BUDeviceFolderCache::closeFolder()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
    m_cached = false;
}

void BUDeviceFolderCache::forgetFolder()
{
    closeFolder();
}

bool BUDeviceFolderCache::somethingMoved()
{
    // Removing a watch of our own queues IN_IGNORED for it, which says nothing moved.
    bool moved = false;
    char buffer[4096];
    for (;;) {
        const ssize_t got = ::read(m_events, buffer, sizeof buffer);
        if (got <= 0)
            break; // EAGAIN: nothing more
        for (ssize_t at = 0; at + ssize_t(sizeof(inotify_event)) <= got;) {
            inotify_event event;
            std::memcpy(&event, buffer + at, sizeof event);
            if (event.mask & kMovedOrGone)
                moved = true;
            at += ssize_t(sizeof event) + ssize_t(event.len);
        }
    }
    return moved;
}

int BUDeviceFolderCache::openParent(const QString &relative, QByteArray *name, bool caseFallback, BUError *error)
{
    const qsizetype slash = relative.lastIndexOf(u'/');
    const QByteArray folder = slash < 0 ? QByteArray() : FileNameToBytes(QStringView(relative).left(slash));
    if (m_events >= 0 && somethingMoved()) {
        closeFolder();
        startWatching();
    }
    if (m_cached && folder == m_folder) {
        *name = FileNameToBytes(QStringView(relative).mid(slash + 1));
        if (!name->isEmpty() && *name != "." && *name != "..")
            return m_fd;
    }
    closeFolder();
    m_fd = m_device.openParent(relative, name, caseFallback, error);
    if (m_fd >= 0 && m_events >= 0) {
        const QList<QByteArray> components = folder.isEmpty() ? QList<QByteArray>() : folder.split('/');
        m_cached = components.size() <= kMaxWatchedLevels && watchDownTo(components);
        m_folder = folder;
    }
    return m_fd;
}

// Watches every folder from the top of the device down to m_fd, keeping the watches of the
// folders the last one shared with it, then checks that each watched folder is the item its name
// gives in the folder above, up to the device root. Checked after the watches are in place, so a
// move after the check is heard of.
bool BUDeviceFolderCache::watchDownTo(const QList<QByteArray> &components)
{
    const qsizetype count = components.size();
    qsizetype kept = 0;
    while (kept < qsizetype(m_levels.size()) && kept < count && m_levels[std::size_t(kept)].name == components[kept])
        ++kept;
    while (qsizetype(m_levels.size()) > kept) {
        ::inotify_rm_watch(m_events, m_levels.back().watch);
        m_levels.pop_back();
    }
    // Handles of the new levels, found by going up from the folder: what is really above it.
    std::vector<int> handles(std::size_t(count - kept + 1), -1);
    auto handle = [&](qsizetype level) -> int & { return handles[std::size_t(level - kept + 1)]; };
    bool ok = true;
    if (count > kept)
        handle(count - 1) = m_fd;
    for (qsizetype level = count - 1; ok && level >= kept; --level) {
        handle(level - 1) = ::openat(handle(level), "..", O_PATH | O_DIRECTORY | O_CLOEXEC);
        ok = handle(level - 1) >= 0;
    }
    for (qsizetype level = kept; ok && level < count; ++level) {
        struct stat status;
        const QByteArray path = "/proc/self/fd/" + QByteArray::number(handle(level));
        const int watch = ::inotify_add_watch(m_events, path.constData(), IN_MOVE_SELF | IN_DELETE_SELF | IN_ONLYDIR);
        ok = watch >= 0 && ::fstat(handle(level), &status) == 0;
        if (watch >= 0)
            m_levels.push_back({components[level], watch, ok ? status.st_dev : 0, ok ? status.st_ino : 0});
    }
    // The folder above the first new level is the device root or the last level kept.
    struct stat above;
    const int aboveFd = count > kept ? handle(kept - 1) : -1;
    if (ok && aboveFd >= 0) {
        struct stat root;
        ok = ::fstat(aboveFd, &above) == 0;
        if (ok && kept == 0)
            ok = ::fstat(m_device.fd(), &root) == 0 && _SameItem(above, root.st_dev, root.st_ino);
        else if (ok)
            ok = _SameItem(above, m_levels[std::size_t(kept - 1)].device, m_levels[std::size_t(kept - 1)].inode);
    }
    for (qsizetype level = kept; ok && level < count; ++level) {
        struct stat status;
        const Level &watched = m_levels[std::size_t(level)];
        ok = ::fstatat(handle(level - 1), components[level].constData(), &status, AT_SYMLINK_NOFOLLOW) == 0
            && _SameItem(status, watched.device, watched.inode);
    }
    for (std::size_t i = 0; i + 1 < handles.size(); ++i) {
        if (handles[i] >= 0)
            ::close(handles[i]);
    }
    if (ok && count > 0 && kept == count) {
        // Back up to a folder already watched: the one resolved must be that one.
        struct stat status;
        ok = ::fstat(m_fd, &status) == 0 && _SameItem(status, m_levels.back().device, m_levels.back().inode);
    }
    if (ok && somethingMoved())
        ok = false;
    if (!ok)
        startWatching(); // nothing watched is trusted; the next item resolves its folder again
    return ok;
}
