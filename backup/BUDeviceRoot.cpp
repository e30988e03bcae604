#include "backup/BUDeviceRoot.h"

#include "backup/BUDevices.h"
#include "keelson/KSLog.h"
#include "keelson/KSStrings.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/openat2.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

namespace {

int _OpenBeneathOnce(int folderFd, const char *relative, int flags);

// A path longer than one open takes (PATH_MAX) is opened a part at a time, each part beneath the
// folder the last one opened, so that depth is limited by nothing but the file system; at most two
// descriptors are open at once.
int _OpenBeneath(int folderFd, const char *relative, int flags)
{
    constexpr std::size_t kPart = 2048;
    std::size_t length = std::strlen(relative);
    int base = folderFd;
    auto closeBase = [&base, folderFd] {
        if (base != folderFd) {
            const int saved = errno;
            ::close(base);
            errno = saved;
        }
    };
    while (length >= kPart) {
        std::size_t cut = kPart - 1;
        while (cut > 0 && relative[cut] != '/')
            --cut;
        if (cut == 0) {
            closeBase();
            errno = ENAMETOOLONG;
            return -1;
        }
        const QByteArray part(relative, qsizetype(cut));
        const int next = _OpenBeneathOnce(base, part.constData(), O_PATH | O_DIRECTORY);
        closeBase();
        if (next < 0)
            return -1;
        base = next;
        relative += cut + 1;
        length -= cut + 1;
    }
    const int fd = _OpenBeneathOnce(base, relative, flags);
    closeBase();
    return fd;
}

int _OpenBeneathOnce(int folderFd, const char *relative, int flags)
{
    open_how how = {};
    how.flags = uint64_t(flags | O_CLOEXEC | O_NOFOLLOW);
    // RESOLVE_NO_XDEV: the device ends at its own file system; another one mounted inside a
    // mirror folder is never a way in.
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS | RESOLVE_NO_XDEV;
    for (int attempt = 0;; ++attempt) {
        const long fd = ::syscall(SYS_openat2, folderFd, relative, &how, sizeof how);
        // EAGAIN: a rename raced with the lookup; the kernel asks for a retry.
        if (fd >= 0 || errno != EAGAIN || attempt == 8)
            return int(fd);
    }
}

// The names in an open folder, in listing order, without "." and "..".
bool _ListFolder(int folderFd, QList<QByteArray> *names)
{
    const int copy = ::openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (copy < 0)
        return false;
    DIR *folder = ::fdopendir(copy);
    if (!folder) {
        ::close(copy);
        return false;
    }
    errno = 0;
    while (const dirent *entry = ::readdir(folder)) {
        const char *n = entry->d_name;
        if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0)))
            continue;
        names->append(QByteArray(n));
    }
    const bool complete = errno == 0;
    ::closedir(folder);
    return complete;
}

int _OpenFolderIgnoringCase(int folderFd, const QByteArray &wanted)
{
    const QByteArray name = NameIgnoringCase(folderFd, wanted, true);
    if (name.isEmpty()) {
        errno = ENOENT;
        return -1;
    }
    return _OpenBeneath(folderFd, name.constData(), O_RDONLY | O_DIRECTORY);
}

BUError _FolderError(int errorNumber)
{
    return errorNumber == EXDEV ? BUError::otherFileSystem() : BUError::posix(errorNumber);
}

// Gives the owner of a device folder full access when it lacks it (a mirror of a read-only or
// mode-000 source folder, for a user who is not root); the end of the run gives the folder its
// source's mode back. False when nothing changed.
bool _OpenUpFolder(int fd)
{
    struct stat status;
    if (::fstat(fd, &status) != 0 || !S_ISDIR(status.st_mode) || (status.st_mode & S_IRWXU) == S_IRWXU)
        return false;
    return ::fchmod(fd, (status.st_mode & 07777) | S_IRWXU) == 0;
}

uint64_t _MountId(int fd, const char *path)
{
    struct statx status;
    const int flags = AT_NO_AUTOMOUNT | AT_SYMLINK_NOFOLLOW | (*path ? 0 : AT_EMPTY_PATH);
    if (::statx(fd, path, flags, STATX_MNT_ID, &status) != 0 || !(status.stx_mask & STATX_MNT_ID))
        return 0;
    return status.stx_mnt_id;
}

} // namespace

BUDeviceRoot::~BUDeviceRoot()
{
    close();
}

void BUDeviceRoot::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    if (m_mountTableFd >= 0)
        ::close(m_mountTableFd);
    m_fd = m_mountTableFd = -1;
}

bool BUDeviceRoot::open(const QString &name, BUError *error)
{
    close();
    m_name = name;
    m_path = DeviceRootPath(name);
    m_checked = false;
    m_wholeFileSystem = false;
    auto fail = [this, error](int errorNumber) {
        close();
        if (error)
            *error = BUError::posix(errorNumber);
        return false;
    };
    if (name.isEmpty() || name.contains(u'/') || name == u"." || name == u"..")
        return fail(ENOENT);
    m_fd = ::open(FileNameToBytes(m_path).constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (m_fd < 0)
        return fail(errno);
    struct statx status;
    if (::statx(m_fd, "", AT_EMPTY_PATH, STATX_INO | STATX_MNT_ID, &status) != 0)
        return fail(errno);
    // A folder under the volumes root with nothing mounted on it is the left-over mount point of
    // an ejected device, not the device: writing there would fill the system disk.
    if ((status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) && !(status.stx_attributes & STATX_ATTR_MOUNT_ROOT))
        return fail(ENODEV);
    m_device = (uint64_t(status.stx_dev_major) << 32) | status.stx_dev_minor;
    m_inode = status.stx_ino;
    m_mountId = (status.stx_mask & STATX_MNT_ID) ? status.stx_mnt_id : 0;
    const std::optional<BUMountEntry> entry = MountEntryForDevice(name);
    m_kind = VolumeKindForFileSystem(entry ? entry->fileSystemType : QString());
    m_wholeFileSystem = entry && entry->wholeFileSystem;
    m_mountTableFd = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    return true;
}

QString BUDeviceRoot::relativePath(const QString &devicePath) const
{
    if (m_path.isEmpty() || devicePath.size() <= m_path.size() + 1 || !devicePath.startsWith(m_path)
        || devicePath[m_path.size()] != u'/')
        return QString();
    return devicePath.mid(m_path.size() + 1);
}

int BUDeviceRoot::openFolder(const QString &relative, bool caseFallback, BUError *error) const
{
    const QByteArray path = FileNameToBytes(relative);
    // A new open file: a duplicate would share the listing position of the root descriptor.
    int fd = path.isEmpty() ? ::openat(m_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                            : _OpenBeneath(m_fd, path.constData(), O_RDONLY | O_DIRECTORY);
    if (fd < 0 && errno == ENOENT && caseFallback) {
        fd = ::openat(m_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (const QByteArray &component : path.split('/')) {
            if (fd < 0)
                break;
            int next = _OpenBeneath(fd, component.constData(), O_RDONLY | O_DIRECTORY);
            if (next < 0 && errno == ENOENT)
                next = _OpenFolderIgnoringCase(fd, component);
            const int saved = errno;
            ::close(fd);
            fd = next;
            errno = saved;
        }
    }
    if (fd < 0 && error)
        *error = _FolderError(errno);
    return fd;
}

int BUDeviceRoot::openParent(const QString &relative, QByteArray *name, bool caseFallback, BUError *error) const
{
    const qsizetype slash = relative.lastIndexOf(u'/');
    *name = FileNameToBytes(relative.mid(slash + 1));
    if (name->isEmpty() || *name == "." || *name == "..") {
        if (error)
            *error = BUError::posix(EINVAL);
        return -1;
    }
    return openFolder(slash < 0 ? QString() : relative.left(slash), caseFallback, error);
}

bool BUDeviceRoot::lockForBackup()
{
    // A file system without locks (some FUSE ones) cannot tell: the backup goes on.
    return m_fd >= 0 && (::flock(m_fd, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK);
}

bool BUDeviceRoot::backupIsRunning() const
{
    // A lock through an open file of its own, which the root's lock would not conflict with.
    const int fd = m_fd >= 0 ? ::openat(m_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
    if (fd < 0)
        return false;
    const bool held = ::flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    ::close(fd);
    return held;
}

bool BUDeviceRoot::isStillMounted()
{
    if (m_fd < 0)
        return false;
    bool changed = !m_checked;
    if (m_mountTableFd >= 0) {
        pollfd watch = {m_mountTableFd, POLLPRI, 0};
        if (::poll(&watch, 1, 0) > 0 && (watch.revents & (POLLPRI | POLLERR)))
            changed = true;
    } else {
        changed = true; // no way to hear of changes: ask every time
    }
    if (changed) {
        m_checked = true;
        // Still one of the devices, and the mount at the device's path is the one opened: a device
        // that was ejected and replaced by another of the same name is not written to.
        m_mounted = MountedDrives().contains(m_name)
            && (m_mountId == 0 || _MountId(AT_FDCWD, FileNameToBytes(m_path).constData()) == m_mountId);
    }
    return m_mounted;
}

int OpenParentIfUnmoved(int folderFd, dev_t device, ino_t inode)
{
    const int parent = ::openat(folderFd, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct stat status;
    if (parent >= 0 && ::fstat(parent, &status) == 0 && status.st_dev == device && status.st_ino == inode)
        return parent;
    if (parent >= 0)
        ::close(parent);
    return -1;
}

QByteArray NameIgnoringCase(int folderFd, const QByteArray &wanted, bool folder)
{
    QList<QByteArray> names;
    if (!_ListFolder(folderFd, &names))
        return QByteArray();
    const QString wantedName = FileNameFromBytes(wanted);
    for (const QByteArray &name : std::as_const(names)) {
        if (CaseInsensitiveCompare(FileNameFromBytes(name), wantedName) != KSOrderedSame)
            continue;
        struct stat status;
        if (::fstatat(folderFd, name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0
            && (folder ? S_ISDIR(status.st_mode) : S_ISREG(status.st_mode)))
            return name;
    }
    return QByteArray();
}

bool RemoveItemAt(int folderFd, const char *name, BUError *error)
{
    auto failWith = [error](const BUError &value) {
        if (error)
            *error = value;
        return false;
    };
    auto fail = [&failWith](int errorNumber) { return failWith(BUError::posix(errorNumber)); };
    // Unlinking asks nothing of the item itself, so nothing of it is changed first: an old copy
    // may share its inode with names outside the device (a snapshot of hard links), whose modes
    // and flags are not the device's to change. What stands in the way is cleared: a folder its
    // owner may not change is opened up, and an immutable or append-only item loses the flag.
    auto unlinkItem = [](int parentFd, const char *child) {
        if (::unlinkat(parentFd, child, 0) == 0)
            return true;
        if (errno == EACCES && _OpenUpFolder(parentFd) && ::unlinkat(parentFd, child, 0) == 0)
            return true;
        if (errno != EPERM)
            return false;
        struct statx status;
        if (::statx(parentFd, child, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE, &status) != 0
            || S_ISDIR(status.stx_mode) || !(status.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND))) {
            errno = EPERM;
            return false;
        }
        ClearImmutableFlags(parentFd, child);
        return ::unlinkat(parentFd, child, 0) == 0;
    };
    if (unlinkItem(folderFd, name))
        return true;
    if (errno != EISDIR && errno != EPERM)
        return fail(errno);
    // A folder: walked down and back up holding only the folder being emptied, whatever the depth.
    // Going up goes through "..", and each parent must be the folder that was come from.
    struct Level {
        QByteArray name; // in its parent
        dev_t device;
        ino_t inode;
        QList<QByteArray> names; // what it held when listed, the next to remove first
    };
    std::vector<Level> levels;
    int current = -1;
    auto enter = [&](int parentFd, const QByteArray &child, int unlinkError) {
        // Another file system mounted here is never entered. A folder is the device's own (no
        // other name shares it): it loses its flags and is opened up to its owner, so that what it
        // holds can go.
        struct statx before;
        if (::statx(
                parentFd, child.constData(), AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE | STATX_MODE, &before)
            != 0)
            return fail(errno);
        if (before.stx_attributes & STATX_ATTR_MOUNT_ROOT)
            return failWith(BUError::otherFileSystem());
        if (!S_ISDIR(before.stx_mode))
            return fail(unlinkError);
        if (before.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND))
            ClearImmutableFlags(parentFd, child.constData());
        int fd = OpenItemAt(parentFd, child.constData(), O_RDONLY | O_DIRECTORY);
        if (fd < 0 && errno == EACCES
            && ::fchmodat(parentFd, child.constData(), (before.stx_mode & 07777) | S_IRWXU, AT_SYMLINK_NOFOLLOW) == 0)
            fd = OpenItemAt(parentFd, child.constData(), O_RDONLY | O_DIRECTORY);
        if (fd < 0)
            return failWith(_FolderError(errno == ENOTDIR ? unlinkError : errno));
        _OpenUpFolder(fd);
        struct statx status;
        if (::statx(fd, "", AT_EMPTY_PATH, STATX_TYPE | STATX_INO, &status) != 0) {
            const int saved = errno;
            ::close(fd);
            return fail(saved);
        }
        Level level {child, makedev(status.stx_dev_major, status.stx_dev_minor), ino_t(status.stx_ino), {}};
        if (!_ListFolder(fd, &level.names)) {
            const int saved = errno;
            ::close(fd);
            return fail(saved);
        }
        std::reverse(level.names.begin(), level.names.end());
        if (current >= 0 && current != folderFd)
            ::close(current);
        current = fd;
        levels.push_back(std::move(level));
        return true;
    };
    auto finish = [&](bool ok) {
        if (current >= 0)
            ::close(current);
        return ok;
    };
    if (!enter(folderFd, QByteArray(name), errno))
        return false;
    while (!levels.empty()) {
        Level &level = levels.back();
        if (!level.names.isEmpty()) {
            const QByteArray child = level.names.takeLast();
            if (unlinkItem(current, child.constData()))
                continue;
            if (errno != EISDIR && errno != EPERM)
                return finish(fail(errno));
            const int fd = current;
            current = -1; // enter() leaves it open as the parent: closed below
            const bool entered = enter(fd, child, errno);
            ::close(fd);
            if (!entered)
                return finish(false);
            continue;
        }
        // Empty: climb to its parent and remove it there.
        const QByteArray emptied = level.name;
        levels.pop_back();
        int parent = folderFd;
        if (!levels.empty()) {
            parent = OpenParentIfUnmoved(current, levels.back().device, levels.back().inode);
            if (parent < 0)
                return finish(fail(ESTALE)); // moved while it was being removed
        }
        ::close(current);
        current = parent == folderFd ? -1 : parent;
        if (::unlinkat(parent, emptied.constData(), AT_REMOVEDIR) != 0)
            return finish(fail(errno));
    }
    return finish(true);
}

void GiveUserFilePermissions(int folderFd, const char *name, const QString &path)
{
    struct statx status;
    mode_t permissions = 0;
    bool directory = false;
    const bool read
        = ::statx(folderFd, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE | STATX_MODE, &status) == 0;
    if (read) {
        // Another file system mounted inside the device is none of the device's business, and an
        // inode with other names may be seen through them, outside the device.
        if ((status.stx_attributes & STATX_ATTR_MOUNT_ROOT) || (!S_ISDIR(status.stx_mode) && status.stx_nlink > 1))
            return;
        permissions = status.stx_mode & 07777;
        directory = S_ISDIR(status.stx_mode);
    } else {
        LogString("Can't get permissions for %@. %@", path, SystemErrorText(errno));
    }
    if (!read || (permissions & 0666) != 0666) {
        // glibc changes the item itself, never a link's target, for AT_SYMLINK_NOFOLLOW.
        if (::fchmodat(folderFd, name, permissions | 0666, AT_SYMLINK_NOFOLLOW) != 0) {
            LogString("Can't change permissions of %@. %@", path, SystemErrorText(errno));
            return;
        }
    }
    if (!directory)
        return;
    const int fd = OpenItemAt(folderFd, name, O_RDONLY | O_DIRECTORY);
    if (fd < 0)
        return;
    QList<QByteArray> names;
    _ListFolder(fd, &names);
    for (auto it = names.crbegin(); it != names.crend(); ++it)
        GiveUserFilePermissions(fd, it->constData(), path + u'/' + FileNameFromBytes(*it));
    ::close(fd);
}

void ClearImmutableFlags(int folderFd, const char *name)
{
    struct statx status;
    if (::statx(folderFd, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE, &status) != 0
        || !(status.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)))
        return;
    if (!S_ISREG(status.stx_mode) && !S_ISDIR(status.stx_mode))
        return;
    const int fd = OpenItemAt(folderFd, name, O_RDONLY | O_NONBLOCK);
    if (fd < 0)
        return;
    int flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0) {
        flags &= ~(FS_IMMUTABLE_FL | FS_APPEND_FL);
        ::ioctl(fd, FS_IOC_SETFLAGS, &flags); // needs CAP_LINUX_IMMUTABLE; best effort
    }
    ::close(fd);
}

int OpenItemAt(int folderFd, const char *name, int flags)
{
    // A path of the caller's own (a test's temporary folder) is taken as it is.
    if (folderFd == AT_FDCWD)
        return ::openat(folderFd, name, flags | O_NOFOLLOW | O_CLOEXEC);
    return _OpenBeneath(folderFd, name, flags);
}

void BUDeviceRoot::probe()
{
    if (m_fd < 0)
        return;
    static constexpr char kProbeName[] = ".tanner-probe-a";
    static constexpr char kProbeOtherCase[] = ".TANNER-PROBE-A";
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    int probe = ::openat(m_fd, kProbeName, kFlags, 0600);
    // One left by a run killed at that moment is the program's own: it goes.
    if (probe < 0 && errno == EEXIST && ::unlinkat(m_fd, kProbeName, 0) == 0)
        probe = ::openat(m_fd, kProbeName, kFlags, 0600);
    if (probe < 0)
        return;
    // An odd second in 2001, inside every file system's dates, with every digit of its nanoseconds.
    const timespec written = {1000000001, 123456789};
    const timespec times[2] = {written, written};
    probeDates(probe);
    const bool timed = ::futimens(probe, times) == 0;
    ::close(probe);
    // Looked up again: a FUSE driver may answer from what it was told until then.
    struct stat kept, other;
    const bool found = ::fstatat(m_fd, kProbeName, &kept, AT_SYMLINK_NOFOLLOW) == 0;
    const bool otherCase = found && ::fstatat(m_fd, kProbeOtherCase, &other, AT_SYMLINK_NOFOLLOW) == 0;
    const bool otherCaseAbsent = found && !otherCase && errno == ENOENT;
    ::unlinkat(m_fd, kProbeName, 0);
    if (!found)
        return;
    if (otherCase && other.st_ino == kept.st_ino)
        m_kind.ignoresCase = true;
    else if (otherCaseAbsent)
        m_kind.ignoresCase = false;
    if (!timed)
        return;
    const int64_t step = TimeStepFromProbe(int64_t(written.tv_sec) * 1000000000 + written.tv_nsec,
        int64_t(kept.st_mtim.tv_sec) * 1000000000 + kept.st_mtim.tv_nsec);
    if (step > 0)
        m_kind.timeStep = std::max<int64_t>(step, m_kind.twoSecondTimes ? 2000000000 : 1);
    // A FAT family disk through a FUSE driver: its dates run from 1980 to 2107 like FAT's own, and
    // it has no holes.
    if (m_kind.ignoresCase && !m_kind.holdsOwnership) {
        m_kind.datesFrom1980 = true;
        m_kind.keepsHoles = false;
    }
}

void BUDeviceRoot::probeDates(int probe)
{
    // The year 2200 and the year 1800: what the device keeps of them is where its dates end.
    for (const int64_t seconds : {int64_t(7258118400), int64_t(-5364662400)}) {
        const timespec times[2] = {{seconds, 0}, {seconds, 0}};
        struct stat kept;
        if (::futimens(probe, times) != 0 || ::fstat(probe, &kept) != 0 || kept.st_mtim.tv_sec == seconds)
            continue;
        // Only an end that lies beyond today's dates is one; a date wrapped around is not.
        constexpr int64_t kThisCentury = 1000000000; // 2001
        if (seconds > 0 && kept.st_mtim.tv_sec > kThisCentury && kept.st_mtim.tv_sec < seconds)
            m_kind.latestSeconds = kept.st_mtim.tv_sec;
        else if (seconds < 0 && kept.st_mtim.tv_sec > seconds && kept.st_mtim.tv_sec < kThisCentury)
            m_kind.earliestSeconds = kept.st_mtim.tv_sec;
    }
}
