#include "backup/BUFileCopier.h"

#include "keelson/KSStrings.h"

#include <QRandomGenerator>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t kBufferSize = 1 << 20; // per read and write
constexpr int64_t kWindowSize = 8 << 20; // written back and dropped from the cache as a unit

BUError _ReadError(int errorNumber)
{
    return BUError::sourceRead(errorNumber);
}

BUError _WriteError(int errorNumber)
{
    return BUError::deviceWrite(errorNumber);
}

// sync_file_range answers these where a file system has no write-back of its own to start.
bool _WriteBackUnsupported(int errorNumber)
{
    return errorNumber == EINVAL || errorNumber == ESPIPE || errorNumber == ENOSYS || errorNumber == EOPNOTSUPP;
}

int _OpenSource(const QByteArray &path)
{
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    // Reading for a backup should not mark every file as just used; only the owner may ask that.
    int fd = ::open(path.constData(), flags | O_NOATIME);
    if (fd < 0 && errno == EPERM)
        fd = ::open(path.constData(), flags);
    return fd;
}

} // namespace

bool IsTemporaryName(const char *name)
{
    return std::strncmp(name, kTemporaryNamePrefix, sizeof kTemporaryNamePrefix - 1) == 0;
}

BUFileCopier::BUFileCopier() : m_buffer(static_cast<char *>(std::aligned_alloc(4096, kBufferSize)), std::free)
{
}

BUFileCopier::~BUFileCopier() = default;

bool BUFileCopier::writeAll(int out, const char *data, std::size_t size, BUError *error)
{
    while (size > 0) {
        const ssize_t written = ::write(out, data, size);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            *error = _WriteError(errno);
            return false;
        }
        data += written;
        size -= std::size_t(written);
    }
    return true;
}

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

bool BUFileCopier::copyFile(
    const QByteArray &sourcePath, int folderFd, const QByteArray &name, const BUVolumeKind &kind, BUError *error)
{
    BUError ignored;
    if (!error)
        error = &ignored;
    if (!m_buffer) {
        *error = BUError::cocoa(kWriteUnknownError, ENOMEM);
        return false;
    }
    const int in = _OpenSource(sourcePath);
    if (in < 0) {
        *error = _ReadError(errno);
        return false;
    }
    struct stat status;
    BUItemAttributes attributes;
    if (::fstat(in, &status) != 0 || !ReadItemAttributes(in, &attributes, nullptr)) {
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
    ::fcntl(in, F_SETFL, ::fcntl(in, F_GETFL) & ~O_NONBLOCK);
    ::posix_fadvise(in, 0, 0, POSIX_FADV_SEQUENTIAL);

    QByteArray temporary;
    int out = -1;
    for (int attempt = 0; out < 0 && attempt < 16; ++attempt) {
        temporary = QByteArray(kTemporaryNamePrefix)
            + QByteArray::number(QRandomGenerator::global()->generate64(), 16).rightJustified(16, '0');
        out = ::openat(folderFd, temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (out < 0 && errno != EEXIST)
            break;
    }
    if (out < 0) {
        *error = _WriteError(errno);
        ::close(in);
        return false;
    }
    auto discard = [&] {
        ::close(out);
        ::unlinkat(folderFd, temporary.constData(), 0);
        ::close(in);
        return false;
    };
    // Reserving the space first finds a full device before any data is written.
    if (status.st_size > 0 && ::fallocate(out, 0, 0, status.st_size) != 0
        && (errno == ENOSPC || errno == EDQUOT || errno == EFBIG)) {
        *error = _WriteError(errno);
        return discard();
    }

    bool streaming = status.st_size >= kWindowSize;
    int64_t written = 0, windowStart = 0, previousStart = -1;
    for (;;) {
        if (deviceGone && deviceGone()) {
            *error = _WriteError(ENODEV);
            return discard();
        }
        const ssize_t count = ::read(in, m_buffer.get(), kBufferSize);
        if (count < 0) {
            if (errno == EINTR)
                continue;
            *error = _ReadError(errno);
            return discard();
        }
        if (count == 0)
            break;
        if (!writeAll(out, m_buffer.get(), std::size_t(count), error))
            return discard();
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
    if (streaming) {
        const int64_t start = previousStart >= 0 ? previousStart : 0;
        if (written > start && !waitForWriteBack(out, in, start, written - start, &streaming, error))
            return discard();
    }
    if (written < status.st_size && ::ftruncate(out, written) != 0) {
        *error = _WriteError(errno); // the source shrank: drop the reserved tail
        return discard();
    }
    BUError attributeError;
    if (!WriteItemAttributes(out, attributes, kind, 0, &attributeError)) {
        *error = _WriteError(attributeError.code);
        return discard();
    }
    if (::close(out) != 0) {
        out = -1;
        *error = _WriteError(errno);
        ::unlinkat(folderFd, temporary.constData(), 0);
        ::close(in);
        return false;
    }
    ::close(in);
    if (!kind.holdsOwnership) {
        // FUSE file systems may write their cached data, and with it a new time, at close.
        const timespec times[2] = {attributes.accessed, attributes.modified};
        ::utimensat(folderFd, temporary.constData(), times, AT_SYMLINK_NOFOLLOW);
    }
    if (::renameat(folderFd, temporary.constData(), folderFd, name.constData()) != 0) {
        *error = _WriteError(errno);
        ::unlinkat(folderFd, temporary.constData(), 0);
        return false;
    }
    return true;
}
