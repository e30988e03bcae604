#include "backup/BUFreeSpace.h"

#include "keelson/FormatString.h"
#include "keelson/KSStrings.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr int kMaxDepth = 512;

qint64 _RoundUp(qint64 bytes, qint64 block)
{
    return block > 0 ? (bytes + block - 1) / block * block : bytes;
}

// The bytes an item's removal gives back: its blocks and, for a folder, everything inside it. A
// file with other links keeps its blocks.
qint64 _FreedByRemoving(int parentFd, const char *name, int depth)
{
    struct stat status;
    if (::fstatat(parentFd, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return 0;
    if (!S_ISDIR(status.st_mode))
        return status.st_nlink > 1 ? 0 : qint64(status.st_blocks) * 512;
    qint64 bytes = qint64(status.st_blocks) * 512;
    const int fd = ::openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 || depth >= kMaxDepth) {
        if (fd >= 0)
            ::close(fd);
        return bytes;
    }
    DIR *folder = ::fdopendir(fd);
    if (!folder) {
        ::close(fd);
        return bytes;
    }
    while (const dirent *entry = ::readdir(folder)) {
        const char *child = entry->d_name;
        if (child[0] == '.' && (child[1] == 0 || (child[1] == '.' && child[2] == 0)))
            continue;
        bytes += _FreedByRemoving(::dirfd(folder), child, depth + 1);
    }
    ::closedir(folder);
    return bytes;
}

// The path of a copy's target below the device root, as the backup forms it.
QByteArray _TargetBelowRoot(const BUTransaction &transaction)
{
    const QString path = transaction.path();
    const QString &root = transaction.rootPath();
    if (root.isNull() || !path.startsWith(root))
        return {};
    qsizetype start = root.size();
    while (start < path.size() && path[start] == u'/')
        ++start;
    return FileNameToBytes(path.mid(start));
}

QByteArray _DeleteBelowRoot(const BUTransaction &transaction, const QString &deviceRoot)
{
    const QString path = transaction.path();
    if (!path.startsWith(deviceRoot + u'/'))
        return {};
    return FileNameToBytes(path.mid(deviceRoot.size() + 1));
}

} // namespace

bool DeviceSpaceNeeds(
    const BUTransactionList &transactions, const QString &deviceRoot, int deviceFd, BUSpaceNeeds *needs)
{
    struct statvfs device;
    if (deviceFd < 0 || ::fstatvfs(deviceFd, &device) != 0)
        return false;
    const qint64 block = qint64(device.f_frsize ? device.f_frsize : device.f_bsize);
    // The blocks a file system keeps back for the administrator are open to a backup run as root.
    needs->available = qint64(::geteuid() == 0 ? device.f_bfree : device.f_bavail) * block;

    // First by the sizes the analysis read: nearly every backup fits by these alone.
    qint64 plain = 0;
    for (const BUTransaction &transaction : transactions) {
        if (transaction.action() == BUTransaction::kCopy)
            plain += transaction.isFolder() ? block : _RoundUp(qint64(transaction.fileSize()), block);
    }
    needs->needed = plain;
    if (plain <= needs->available)
        return true;

    // Then by the blocks: a sparse source takes only its data, and what the run removes first
    // makes room.
    qint64 needed = 0, freed = 0;
    for (const BUTransaction &transaction : transactions) {
        if (transaction.action() == BUTransaction::kDelete) {
            const QByteArray relative = _DeleteBelowRoot(transaction, deviceRoot);
            if (!relative.isEmpty())
                freed += _FreedByRemoving(deviceFd, relative.constData(), 0);
            continue;
        }
        if (transaction.action() != BUTransaction::kCopy)
            continue;
        if (transaction.isFolder()) {
            needed += block;
            continue;
        }
        qint64 data = qint64(transaction.fileSize());
        struct stat source;
        if (::lstat(FileNameToBytes(transaction.path()).constData(), &source) == 0 && S_ISREG(source.st_mode))
            data = std::min<qint64>(data, qint64(source.st_blocks) * 512);
        needed += _RoundUp(data, block);
        if (transaction.replacesItem()) {
            const QByteArray relative = _TargetBelowRoot(transaction);
            if (!relative.isEmpty())
                freed += _FreedByRemoving(deviceFd, relative.constData(), 0);
        }
    }
    needs->needed = std::max<qint64>(0, needed - freed);
    return true;
}

QString DeviceSpaceShortfall(
    const BUTransactionList &transactions, const QString &deviceName, const QString &deviceRoot, int deviceFd)
{
    BUSpaceNeeds needs;
    if (!DeviceSpaceNeeds(transactions, deviceRoot, deviceFd, &needs) || needs.needed <= needs.available)
        return QString();
    return FormatString("The backup needs %@ on the device \"%@\", which has only %@ free. Nothing was changed on "
                        "the device.",
        FileSizeString(needs.needed), deviceName, FileSizeString(needs.available));
}
