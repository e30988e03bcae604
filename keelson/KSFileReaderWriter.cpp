#include "keelson/KSFileReaderWriter.h"

#include "keelson/KSLog.h"

#include <cerrno>
#include <unistd.h>

std::unique_ptr<KSFileReaderWriter> KSFileReaderWriter::open(const QString &path, int32_t *error)
{
    return openAs<KSFileReaderWriter>(path, error);
}

uint64_t KSFileReaderWriter::actualFileSize()
{
    uint64_t size = 0;
    int failure;
    {
        std::lock_guard lock(m_lock);
        failure = statSize(&size);
        if (!failure)
            setFileSize(size);
    }
    if (failure)
        LogString("[KSFileReaderWriter actualFileSize]: Can't get size of file %@: %d", filePath(), failure);
    return fileSize();
}

bool KSFileReaderWriter::writeData(const void *, uint64_t)
{
    setError(kKSErrorNotSupported);
    return false;
}

bool KSFileReaderWriter::writeData(const void *data, uint64_t length, uint64_t offset)
{
    const char *from = static_cast<const char *>(data);
    int failure = 0;
    {
        std::lock_guard lock(m_lock);
        uint64_t done = 0;
        while (done < length) {
            const ssize_t count = ::pwrite(m_fd, from + done, length - done, off_t(offset + done));
            if (count < 0 && errno == EINTR)
                continue;
            if (count <= 0) {
                failure = count < 0 ? errno : EIO;
                break;
            }
            done += uint64_t(count);
        }
        if (!failure && offset + length > fileSize())
            setFileSize(offset + length);
    }
    if (failure) {
        setError(ConvertUnixErrorCore(kKSOperationWrite, failure));
        return false;
    }
    return true;
}

bool KSFileReaderWriter::sync()
{
    int failure = 0;
    {
        std::lock_guard lock(m_lock);
        if (::fsync(m_fd) != 0)
            failure = errno;
    }
    if (failure)
        setError(ConvertUnixErrorCore(kKSOperationWrite, failure));
    return failure == 0;
}

bool KSFileReaderWriter::truncateToLength(uint64_t length)
{
    int failure = 0;
    {
        std::lock_guard lock(m_lock);
        int result;
        do
            result = ::ftruncate(m_fd, off_t(length));
        while (result != 0 && errno == EINTR);
        if (result == 0)
            setFileSize(length);
        else
            failure = errno;
    }
    if (failure)
        setError(ConvertUnixErrorCore(kKSOperationWrite, failure));
    return failure == 0;
}
