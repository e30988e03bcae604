#include "keelson/KSFileReader.h"

#include "keelson/KSLog.h"
#include "keelson/KSStrings.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// The table is written with the names of the errors, not their numbers: it was drawn up with
// the macOS numbering, where 35 is EAGAIN, 62 ELOOP, 63 ENAMETOOLONG, 95 EMULTIHOP and 97 ENOLINK
// (<sys/errno.h> of macOS), and Linux gives those errors other numbers (11, 40, 36, 72, 67) while
// its own 35, 62, 63, 95 and 97 are EDEADLK, ETIME, ENOSR, EOPNOTSUPP and EAFNOSUPPORT. The
// numbers below 35 are the same on both systems.
int32_t ConvertUnixErrorCore(int operation, int error)
{
    switch (error) {
    case 0:
        return 0;
    case EPERM:
    case EACCES:
    case EROFS:
    case ENOLINK:
        return 11;
    case ENOENT:
        switch (operation) {
        case kKSOperationOpen:
            return 4;
        case kKSOperationRead:
            return 13;
        case kKSOperationWrite:
            return 3;
        default:
            return 10;
        }
    case EINTR:
    case EBUSY:
    case EAGAIN: // also EWOULDBLOCK
        return 2;
    case EEXIST:
        return 4;
    case ENOTDIR:
    case EISDIR:
    case ELOOP:
    case ENAMETOOLONG:
    case EMULTIHOP:
        return 10;
    case EFBIG:
        return 1;
    case ENOSPC:
        return 3;
    case ERANGE:
        return 12;
    default:
        switch (operation) {
        case kKSOperationRead:
            return 13;
        case kKSOperationWrite:
            return 16;
        default:
            return 9;
        }
    }
}

std::unique_ptr<KSFileReader> KSFileReader::open(const QString &path, int32_t *error)
{
    return openAs<KSFileReader>(path, error);
}

KSFileReader::~KSFileReader()
{
    if (m_fd >= 0)
        ::close(m_fd);
    std::free(m_buffer);
}

int32_t KSFileReader::openFile(const QString &path)
{
    const QByteArray bytes = FileNameToBytes(path);
    if (bytes.isEmpty() || bytes.contains('\0'))
        return kKSErrorNoPath;
    const int mode = readType() == 2 ? O_RDWR : O_RDONLY;
    do
        m_fd = ::open(bytes.constData(), mode | O_CLOEXEC);
    while (m_fd < 0 && errno == EINTR);
    if (m_fd < 0)
        return ConvertUnixErrorCore(kKSOperationOpen, errno);
    uint64_t size = 0;
    if (statSize(&size) != 0)
        return kKSErrorNoStatus;
    m_buffer = static_cast<char *>(AllocateMemory(blockSize()));
    if (!m_buffer)
        return kKSErrorNoMemory;
    setFileSize(size);
    m_filePath = path;
    return 0;
}

int KSFileReader::statSize(uint64_t *size) const
{
    struct stat status;
    if (::fstat(m_fd, &status) != 0)
        return errno;
    *size = uint64_t(status.st_size);
    return 0;
}

uint64_t KSFileReader::actualFileSize()
{
    uint64_t size = 0;
    if (const int failure = statSize(&size))
        LogString("actualFileSize: Can't get size of file %@: %d", m_filePath, failure);
    else
        setFileSize(size);
    return fileSize();
}

bool KSFileReader::readDataTo(void *buffer, uint64_t length, uint64_t offset)
{
    if (offset + length > fileSize() || offset + length < offset)
        return false;
    char *to = static_cast<char *>(buffer);
    uint64_t done = 0;
    while (done < length) {
        const ssize_t count = ::pread(m_fd, to + done, length - done, off_t(offset + done));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0) {
            // A read that ends early has no errno of its own: it counts as an input/output error.
            setError(ConvertUnixErrorCore(kKSOperationRead, count < 0 ? errno : EIO));
            return false;
        }
        done += uint64_t(count);
    }
    return true;
}

const char *KSFileReader::readDataFrom(uint64_t offset, uint64_t *length)
{
    const uint64_t count = std::min<uint64_t>(fileSize() - offset, blockSize());
    uint64_t done = 0;
    while (done < count) {
        const ssize_t read = ::pread(m_fd, m_buffer + done, count - done, off_t(offset + done));
        if (read < 0 && errno == EINTR)
            continue;
        if (read <= 0) {
            setError(ConvertUnixErrorCore(kKSOperationRead, read < 0 ? errno : EIO));
            *length = 0;
            return nullptr;
        }
        done += uint64_t(read);
    }
    *length = count;
    return m_buffer;
}

int ReadRegularFile(const QString &path, qint64 limit, QByteArray *contents, QString *reason)
{
    contents->clear();
    auto failure = [reason](int code, const QString &text) {
        if (reason)
            *reason = text.isEmpty() ? QString::fromLocal8Bit(std::strerror(code)) : text;
        return code;
    };
    const int fd = ::open(FileNameToBytes(path).constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0)
        return failure(errno, {});
    struct stat info { };
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        const int code = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
        ::close(fd);
        return failure(code, code == EINVAL ? QStringLiteral("It is not a regular file.") : QString());
    }
    const QString tooLarge = QStringLiteral("It is larger than %1 bytes.").arg(limit);
    if (info.st_size > limit) {
        ::close(fd);
        return failure(EFBIG, tooLarge);
    }
    contents->reserve(qsizetype(info.st_size));
    char buffer[65536];
    for (;;) {
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            const int code = errno;
            ::close(fd);
            contents->clear();
            return failure(code, {});
        }
        if (got == 0)
            break;
        if (contents->size() + got > limit) { // it grew while it was read
            ::close(fd);
            contents->clear();
            return failure(EFBIG, tooLarge);
        }
        contents->append(buffer, qsizetype(got));
    }
    ::close(fd);
    return 0;
}
