#include "backup/BUSourceFolders.h"

#include "backup/BUFolderReading.h"
#include "keelson/KSStrings.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

namespace {

// Opens the folder at relative below folderFd without following a link: -1 with errno when a
// component is a link, is not a folder or leads out of folderFd.
long _OpenBelow(int folderFd, const char *relative)
{
    open_how how = {};
    how.flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    long below = -1;
    // EAGAIN: a rename raced with the lookup; the kernel asks for a retry.
    for (int attempt = 0; attempt < 8; ++attempt) {
        below = ::syscall(SYS_openat2, folderFd, relative, &how, sizeof how);
        if (below >= 0 || errno != EAGAIN)
            break;
    }
    return below;
}

// The path of the folder root holds, without a closing slash ("" for "/").
QByteArray _RootPrefix(const QString &root)
{
    QByteArray prefix = FileNameToBytes(root);
    while (prefix.endsWith('/'))
        prefix.chop(1);
    return prefix;
}

} // namespace

int _OpenSourceFolder(const QByteArray &path, const QString &root)
{
    const QByteArray prefix = _RootPrefix(root);
    if (path == prefix || (prefix.isEmpty() && path == "/"))
        return OpenLongPath(AT_FDCWD, path.constData(), O_PATH | O_DIRECTORY);
    if (root.isEmpty() || !path.startsWith(prefix + '/') || path.size() <= prefix.size() + 1) {
        errno = EINVAL;
        return -1;
    }
    qsizetype slash = path.indexOf('/', prefix.size() + 1);
    int fd = OpenLongPath(AT_FDCWD, (slash < 0 ? path : path.left(slash)).constData(), O_PATH | O_DIRECTORY);
    // The rest a part of at most kPathPart bytes at a time, each below the last.
    while (fd >= 0 && slash >= 0) {
        const qsizetype start = slash + 1;
        qsizetype end = path.size();
        if (end - start >= qsizetype(kPathPart)) {
            end = path.lastIndexOf('/', start + qsizetype(kPathPart) - 1);
            if (end <= start) {
                ::close(fd);
                errno = ENAMETOOLONG;
                return -1;
            }
        }
        const QByteArray part = path.mid(start, end - start);
        const long below = _OpenBelow(fd, part.constData());
        const int saved = errno;
        ::close(fd);
        errno = saved;
        fd = int(below);
        slash = end < path.size() ? end : -1;
    }
    return fd;
}

int FolderCache::open(const QByteArray &path, const QString &root)
{
    const int held = find(path);
    if (held >= 0)
        return held;
    // The copies go down the tree: a folder below the backup folder is usually the subfolder of
    // one still open, and is opened from it rather than from its path.
    const QByteArray prefix = _RootPrefix(root);
    const qsizetype up = path.lastIndexOf('/');
    if (up > prefix.size() + 1 && path.startsWith(prefix + '/')) {
        const int parent = find(path.left(up));
        if (parent >= 0)
            return keep(path, int(_OpenBelow(parent, path.constData() + up + 1)));
    }
    return keep(path, _OpenSourceFolder(path, root));
}

QByteArray _PathThrough(int folderFd, const QByteArray &name)
{
    return "/proc/self/fd/" + QByteArray::number(folderFd) + '/' + name;
}
