#include "backup/BUFileCopier.h"

#include "backup/BUDeviceRoot.h"
#include "keelson/KSStrings.h"

#include <QRandomGenerator>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

constexpr std::size_t kBufferSize = 1 << 20; // per read and write
constexpr int64_t kWindowSize = 8 << 20; // written back and dropped from the cache as a unit
constexpr int64_t kLargeFileSize = 1 << 20; // reserved before it is written, read ahead

BUError _ReadError(int errorNumber)
{
    return BUError::sourceRead(errorNumber);
}

BUError _WriteError(int errorNumber)
{
    return BUError::deviceWrite(errorNumber);
}

// An error of writing data up to `end`. FAT's FUSE driver answers a full device, and a file grown to
// 4 GiB, with EPERM: on a file system that keeps no permissions the facts say which it was. Such a
// file system has no holes: reaching `end` takes the space from what the file holds up to there.
BUError _DataWriteError(int errorNumber, int out, int64_t end, int64_t fileSize, const BUVolumeKind &kind)
{
    if ((errorNumber == EPERM || errorNumber == EACCES) && !kind.holdsOwnership) {
        struct statvfs space;
        struct stat written;
        if (::fstatvfs(out, &space) == 0 && ::fstat(out, &written) == 0
            && int64_t(space.f_bavail) * int64_t(space.f_frsize) < end - int64_t(written.st_blocks) * 512)
            return BUError::deviceWrite(ENOSPC);
        if (kind.filesUnder4GiB && fileSize >= kFatFileSizeLimit)
            return BUError::fileTooBig();
    }
    if (errorNumber == EFBIG && kind.filesUnder4GiB)
        return BUError::fileTooBig();
    return _WriteError(errorNumber);
}

// sync_file_range answers these where a file system has no write-back of its own to start.
bool _WriteBackUnsupported(int errorNumber)
{
    return errorNumber == EINVAL || errorNumber == ESPIPE || errorNumber == ENOSYS || errorNumber == EOPNOTSUPP;
}

// O_NONBLOCK keeps the open from waiting on a FIFO swapped in since the analysis; on a regular
// file it changes nothing, so it stays set.
int _OpenSource(int folderFd, const QByteArray &name)
{
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    // Reading for a backup should not mark every file as just used; only the owner may ask that.
    int fd = ::openat(folderFd, name.constData(), flags | O_NOATIME);
    if (fd < 0 && errno == EPERM)
        fd = ::openat(folderFd, name.constData(), flags);
    return fd;
}

// After an EIO from an in-kernel copy: whether reading the source is what fails.
bool _SourceFailed(int in)
{
    char byte;
    const off_t position = ::lseek(in, 0, SEEK_CUR);
    return position >= 0 && ::pread(in, &byte, 1, position) < 0;
}

// Creates a file under a fresh temporary name in the folder; false with errno.
bool _CreateTemporary(int folderFd, QByteArray *temporary, int *out)
{
    for (int attempt = 0; attempt < 16; ++attempt) {
        *temporary = QByteArray(kTemporaryNamePrefix)
            + QByteArray::number(QRandomGenerator::global()->generate64(), 16).rightJustified(16, '0');
        *out = ::openat(folderFd, temporary->constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (*out >= 0)
            return true;
        if (errno != EEXIST)
            return false;
    }
    return false;
}

// Puts a finished copy in the place of the old file of its name in one step: until that instant the
// old data stays readable under the name. Where the rename over it is refused (after an immutable
// flag is cleared), the copy fails and the old one stays as it is: moving it aside first would
// leave it, for a moment or for good, under a name the next run deletes.
bool _ReplaceWith(int folderFd, const QByteArray &temporary, const QByteArray &name, BUError *error)
{
    int result = ::renameat(folderFd, temporary.constData(), folderFd, name.constData());
    if (result != 0 && errno == EPERM) {
        ClearImmutableFlags(folderFd, name.constData());
        result = ::renameat(folderFd, temporary.constData(), folderFd, name.constData());
    }
    if (result == 0)
        return true;
    *error = _WriteError(errno);
    ::unlinkat(folderFd, temporary.constData(), 0);
    return false;
}

// Renames a finished copy from its temporary name to its own, which must be free unless the copy
// replaces the file there.
bool _PutInPlace(int folderFd, const QByteArray &temporary, const QByteArray &name, bool replace, BUError *error)
{
    if (replace)
        return _ReplaceWith(folderFd, temporary, name, error);
    int result = ::renameat2(folderFd, temporary.constData(), folderFd, name.constData(), RENAME_NOREPLACE);
    if (result != 0 && errno == EINVAL) {
        // A file system that cannot refuse to replace (some FUSE ones) is asked first.
        struct stat existing;
        if (::fstatat(folderFd, name.constData(), &existing, AT_SYMLINK_NOFOLLOW) == 0)
            errno = EEXIST;
        else
            result = ::renameat(folderFd, temporary.constData(), folderFd, name.constData());
    }
    if (result == 0)
        return true;
    *error = _WriteError(errno);
    ::unlinkat(folderFd, temporary.constData(), 0);
    return false;
}

// Gives the complete unnamed file `out` its name in the folder, which must be free, and closes it.
bool _LinkUnnamed(int out, int folderFd, const QByteArray &name, BUError *error)
{
    char path[40];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", out);
    if (::linkat(AT_FDCWD, path, folderFd, name.constData(), AT_SYMLINK_FOLLOW) != 0) {
        *error = _WriteError(errno);
        ::close(out);
        return false;
    }
    if (::close(out) == 0)
        return true;
    *error = _WriteError(errno);
    ::unlinkat(folderFd, name.constData(), 0); // never a name for data that may not be whole
    return false;
}

} // namespace

bool IsTemporaryName(const char *name)
{
    return std::strncmp(name, kTemporaryNamePrefix, sizeof kTemporaryNamePrefix - 1) == 0;
}

BUFileCopier::BUFileCopier()
    : m_buffer(static_cast<char *>(std::aligned_alloc(4096, kBufferSize)), std::free),
      // An unnamed file gets its name through its entry in /proc.
      m_unnamedFiles(::access("/proc/self/fd", X_OK) == 0)
{
}

BUFileCopier::~BUFileCopier() = default;

bool BUFileCopier::waitForWriteBack(int out, int in, int64_t start, int64_t length, bool *streaming, BUError *error)
{
    if (*streaming
        && ::sync_file_range(
               out, start, length, SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER)
            != 0) {
        if (!_WriteBackUnsupported(errno)) {
            *error = _WriteError(errno); // a write-back failure: EIO, ENOSPC
            return false;
        }
        *streaming = false;
    }
    ::posix_fadvise(out, start, length, POSIX_FADV_DONTNEED);
    ::posix_fadvise(in, start, length, POSIX_FADV_DONTNEED);
    if (progress)
        progress(start + length);
    return true;
}

ssize_t BUFileCopier::transfer(int in, int out, std::size_t length, bool *readFailed)
{
    *readFailed = false;
    for (;;) {
        ssize_t count = -1;
        switch (m_method) {
        case Method::RangeCopy:
            // One call per chunk inside the kernel, and a shared extent where the file system
            // offers one; only between files of the same file system.
            count = ::copy_file_range(in, nullptr, out, nullptr, length, 0);
            if (count < 0 && (errno == EXDEV || errno == EINVAL || errno == EOPNOTSUPP || errno == ENOSYS)) {
                m_method = Method::Splice;
                continue;
            }
            break;
        case Method::Splice:
            count = ::sendfile(out, in, nullptr, length);
            if (count < 0 && (errno == EINVAL || errno == ENOSYS)) {
                m_method = Method::ReadWrite;
                continue;
            }
            break;
        case Method::ReadWrite:
            count = ::read(in, m_buffer.get(), std::min(length, kBufferSize));
            if (count < 0) {
                *readFailed = true;
                break;
            }
            for (ssize_t done = 0; done < count;) {
                const ssize_t put = ::write(out, m_buffer.get() + done, std::size_t(count - done));
                if (put < 0 && errno != EINTR)
                    return -1;
                done += std::max<ssize_t>(put, 0);
            }
            break;
        }
        if (count < 0 && errno == EINTR)
            continue;
        return count;
    }
}

bool BUFileCopier::skipHole(int in, int out, int64_t *position, int64_t *end)
{
    const off_t data = ::lseek(in, *position, SEEK_DATA);
    if (data < 0)
        return false; // ENXIO: no data after the position
    const off_t hole = ::lseek(in, data, SEEK_HOLE);
    if (hole < 0 || ::lseek(in, data, SEEK_SET) < 0 || ::lseek(out, data, SEEK_SET) < 0)
        return false;
    *position = data;
    *end = std::min<int64_t>(*end, hole);
    return true;
}

bool BUFileCopier::copyFile(int sourceFolderFd, const QByteArray &sourceName, int folderFd, const QByteArray &name,
    const BUVolumeKind &kind, BUError *error, bool replace)
{
    BUError ignored;
    if (!error)
        error = &ignored;
    m_stoppedByCancel = false;
    if (!m_buffer) {
        *error = BUError::cocoa(kWriteUnknownError, ENOMEM);
        return false;
    }
    const int in = _OpenSource(sourceFolderFd, sourceName);
    if (in < 0) {
        *error = _ReadError(errno);
        return false;
    }
    struct stat status;
    BUItemAttributes attributes;
    if (::fstat(in, &status) != 0 || !ReadItemAttributesWithStatus(in, status, &attributes, nullptr)) {
        *error = _ReadError(errno);
        ::close(in);
        return false;
    }
    if (!S_ISREG(status.st_mode)) {
        // Swapped for a FIFO or a device since the analysis: never read from one.
        *error = {BUErrorDomain::Cocoa, kReadUnknownError, QStringLiteral("It is not a regular file")};
        ::close(in);
        return false;
    }
    if (kind.filesUnder4GiB && status.st_size >= kFatFileSizeLimit) {
        *error = BUError::fileTooBig(); // known before anything is written
        ::close(in);
        return false;
    }
    const bool large = status.st_size >= kLargeFileSize;
    if (large)
        ::posix_fadvise(in, 0, 0, POSIX_FADV_SEQUENTIAL);
    // A copier writes to one device; each source file system gets the fastest way that works
    // from it, found by its first file.
    auto known
        = std::find_if(m_methods.begin(), m_methods.end(), [&](const auto &m) { return m.first == status.st_dev; });
    if (known == m_methods.end())
        known = m_methods.insert(m_methods.end(), {status.st_dev, Method::RangeCopy});
    m_method = known->second;

    // A small file is written into an unnamed file of the folder and linked in under its name when
    // it is complete: a temporary name would be added to the folder and taken out again, which
    // costs a flat folder of many small files a fifth of its copy time. A big file keeps a
    // temporary name while it is written, which the next analysis finds if the run is killed. So
    // does every file that replaces an old copy: only a rename can put it there in one step.
    QByteArray temporary;
    int out = -1;
    if (m_unnamedFiles && kind.holdsOwnership && !large && !replace) {
        out = ::openat(folderFd, ".", O_WRONLY | O_TMPFILE | O_CLOEXEC, 0600);
        if (out < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
            m_unnamedFiles = false; // this file system has none
        } else if (out < 0) {
            *error = _WriteError(errno);
            ::close(in);
            return false;
        }
    }
    const bool unnamed = out >= 0;
    if (!unnamed && !_CreateTemporary(folderFd, &temporary, &out)) {
        *error = _WriteError(errno);
        ::close(in);
        return false;
    }
    auto discard = [&] {
        ::close(out);
        if (!unnamed)
            ::unlinkat(folderFd, temporary.constData(), 0);
        ::close(in);
        return false;
    };
    // Reserving the space of a big file first finds a full device before its data is written; a
    // small one finds it at its first write just as soon, and so does a big one where reserving
    // would cost a second write (the write fails with the same error, and the copy is discarded).
    // A sparse file (a disk image, a database) keeps its holes: only its data is written, and
    // nothing is reserved for the holes.
    const bool sparse = status.st_blocks * 512 < status.st_size;
    if (large && kind.reservesSpaceCheaply && !sparse && ::fallocate(out, 0, 0, status.st_size) != 0
        && (errno == ENOSPC || errno == EDQUOT || errno == EFBIG)) {
        *error = _WriteError(errno);
        return discard();
    }

    // The size read at the start is what is copied, with the times read at the start; the source
    // is checked against them at the end.
    bool streaming = status.st_size >= kWindowSize;
    // written: the position reached in both files, holes included.
    int64_t written = 0, windowStart = 0, previousStart = -1;
    while (written < status.st_size) {
        if (written > 0 && deviceGone && deviceGone()) {
            *error = _WriteError(ENODEV);
            return discard();
        }
        if (written > 0 && cancelled && cancelled()) {
            m_stoppedByCancel = true;
            *error = BUError::cocoa(kUserCancelledError, ECANCELED);
            return discard();
        }
        int64_t end = status.st_size;
        if (sparse && !skipHole(in, out, &written, &end)) {
            if (errno != ENXIO) {
                *error = _ReadError(errno);
                return discard();
            }
            written = status.st_size; // nothing but a hole up to the end
            break;
        }
        const std::size_t chunk = std::size_t(std::min<int64_t>(end - written, kWindowSize));
        bool readFailed;
        const ssize_t count = transfer(in, out, chunk, &readFailed);
        if (count < 0) {
            // copy_file_range and sendfile do not say which side failed: the device's errors
            // are the ones a write gives.
            const int errorNumber = errno;
            *error = (readFailed || (errorNumber == EIO && _SourceFailed(in)))
                ? _ReadError(errorNumber)
                : _DataWriteError(errorNumber, out, written + int64_t(chunk), status.st_size, kind);
            return discard();
        }
        if (count == 0)
            break; // the source shrank
        written += count;
        if (streaming && written - windowStart >= kWindowSize) {
            // Start this window's write-back, then wait for the one before it: the device stays
            // busy while at most two windows of this file sit in the page cache.
            if (::sync_file_range(out, windowStart, written - windowStart, SYNC_FILE_RANGE_WRITE) != 0
                && !_WriteBackUnsupported(errno)) {
                *error = _WriteError(errno);
                return discard();
            }
            if (previousStart >= 0
                && !waitForWriteBack(out, in, previousStart, windowStart - previousStart, &streaming, error))
                return discard();
            previousStart = windowStart;
            windowStart = written;
        }
    }
    known->second = m_method;
    if (sparse && ::ftruncate(out, status.st_size) != 0) {
        *error = _WriteError(errno); // a hole at the end
        return discard();
    }
    if (streaming) {
        const int64_t start = previousStart >= 0 ? previousStart : 0;
        if (written > start && !waitForWriteBack(out, in, start, written - start, &streaming, error))
            return discard();
    }
    // A file written to while it was read gives a copy that is neither its old nor its new
    // content, and whose times could pass it as up to date: it is not kept.
    struct stat after;
    if (::fstat(in, &after) != 0) {
        *error = _ReadError(errno);
        return discard();
    }
    if (written != status.st_size || after.st_size != status.st_size || after.st_mtim.tv_sec != status.st_mtim.tv_sec
        || after.st_mtim.tv_nsec != status.st_mtim.tv_nsec || after.st_ctim.tv_sec != status.st_ctim.tv_sec
        || after.st_ctim.tv_nsec != status.st_ctim.tv_nsec) {
        *error = BUError::sourceChanged();
        return discard();
    }
    BUError attributeError;
    if (!WriteItemAttributes(out, attributes, kind, 0, &attributeError, true)) {
        *error = attributeError.domain == BUErrorDomain::Cocoa ? attributeError : _WriteError(attributeError.code);
        return discard();
    }
    ::close(in);
    if (unnamed)
        return _LinkUnnamed(out, folderFd, name, error);
    if (::close(out) != 0) {
        *error = _WriteError(errno);
        ::unlinkat(folderFd, temporary.constData(), 0);
        return false;
    }
    if (kind.holdsOwnership)
        return _PutInPlace(folderFd, temporary, name, replace, error);
    // FUSE file systems may write their cached data, and with it a new time, at close; FAT's gives
    // a renamed file the time of the rename. The times are set before and after it.
    const timespec times[2] = {StorableTime(attributes.accessed, kind), StorableTime(attributes.modified, kind)};
    ::utimensat(folderFd, temporary.constData(), times, AT_SYMLINK_NOFOLLOW);
    if (!_PutInPlace(folderFd, temporary, name, replace, error))
        return false;
    ::utimensat(folderFd, name.constData(), times, AT_SYMLINK_NOFOLLOW);
    return true;
}
