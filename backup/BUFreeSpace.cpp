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

qint64 _CountItems(int parentFd, const char *name, int depth, qint64 *bytes)
{
    struct stat status;
    if (::fstatat(parentFd, name, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return 0;
    *bytes += qint64(status.st_blocks) * 512;
    if (!S_ISDIR(status.st_mode) || depth >= kMaxDepth)
        return 1;
    const int fd = ::openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    DIR *folder = fd >= 0 ? ::fdopendir(fd) : nullptr;
    if (!folder) {
        if (fd >= 0)
            ::close(fd);
        return 1;
    }
    qint64 items = 1;
    while (const dirent *entry = ::readdir(folder)) {
        const char *child = entry->d_name;
        if (child[0] == '.' && (child[1] == 0 || (child[1] == '.' && child[2] == 0)))
            continue;
        items += _CountItems(::dirfd(folder), child, depth + 1, bytes);
    }
    ::closedir(folder);
    return items;
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

bool DeviceSpaceNeeds(const BUTransactionList &transactions, const QString &deviceRoot, int deviceFd,
    BUSpaceNeeds *needs, QSet<uint32_t> *oldCopyFirst, const BUVolumeKind *kind)
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
    // makes room. The run is followed in its order: a replaced copy gives its space back only once
    // the new one has taken its place, so where the free space at that point cannot hold the new
    // one, the old one must go first.
    qint64 needed = 0, freed = 0;
    qint64 free = needs->available;
    for (qsizetype row = 0; row < transactions.size(); ++row) {
        const BUTransaction &transaction = transactions.at(row);
        if (transaction.action() == BUTransaction::kDelete) {
            const QByteArray relative = _DeleteBelowRoot(transaction, deviceRoot);
            const qint64 bytes = relative.isEmpty() ? 0 : _FreedByRemoving(deviceFd, relative.constData(), 0);
            freed += bytes;
            free += bytes;
            continue;
        }
        if (transaction.action() != BUTransaction::kCopy)
            continue;
        if (transaction.isFolder()) {
            needed += block;
            free -= block;
            continue;
        }
        qint64 data = qint64(transaction.fileSize());
        if (kind && kind->filesUnder4GiB && data >= kFatFileSizeLimit)
            continue; // never copied: it fails alone
        struct stat source;
        if ((!kind || kind->keepsHoles) && ::lstat(FileNameToBytes(transaction.path()).constData(), &source) == 0
            && S_ISREG(source.st_mode))
            data = std::min<qint64>(data, qint64(source.st_blocks) * 512);
        const qint64 blocks = _RoundUp(data, block);
        needed += blocks;
        qint64 old = 0;
        if (transaction.replacesItem()) {
            const QByteArray relative = _TargetBelowRoot(transaction);
            if (!relative.isEmpty())
                old = _FreedByRemoving(deviceFd, relative.constData(), 0);
            freed += old;
            if (old > 0 && free < blocks && oldCopyFirst)
                oldCopyFirst->insert(uint32_t(row));
        }
        free += old - blocks;
    }
    needs->needed = std::max<qint64>(0, needed - freed);
    return true;
}

qint64 ItemsAndBytesOfDeviceItem(const QString &path, qint64 *bytes)
{
    return _CountItems(AT_FDCWD, FileNameToBytes(path).constData(), 0, bytes);
}

QString DeviceSpaceShortfall(const BUTransactionList &transactions, const QString &deviceName,
    const QString &deviceRoot, int deviceFd, QSet<uint32_t> *oldCopyFirst, const BUVolumeKind *kind)
{
    BUSpaceNeeds needs;
    if (!DeviceSpaceNeeds(transactions, deviceRoot, deviceFd, &needs, oldCopyFirst, kind)
        || needs.needed <= needs.available)
        return QString();
    return FormatString("The backup needs %@ on the device \"%@\", which has only %@ free. Nothing was changed on "
                        "the device.",
        FileSizeString(needs.needed), deviceName, FileSizeString(needs.available));
}
