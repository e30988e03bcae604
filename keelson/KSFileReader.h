// Positioned, block-wise access to one file through a descriptor that stays open for the
// object's life. KSFileReader reads; KSFileReaderWriter also writes, and serialises its
// file-system calls on the object's own lock. Failures are never thrown: each call answers
// whether it worked and leaves a library error code in error().
//
// Threads: a KSFileReader is used by one thread at a time. A KSFileReaderWriter may be shared:
// actualFileSize, writeData, sync and truncateToLength take its lock; readers of a shared writer
// must keep their own order with the writes (the logger does).
#pragma once

#include <QString>

#include <atomic>
#include <cstdint>
#include <memory>

// Library error codes stored by the reader and writer, besides those of ConvertUnixErrorCore.
enum KSFileError : int32_t {
    kKSErrorNoMemory = 8, // the buffer could not be allocated
    kKSErrorNoStatus = 9, // the file's status could not be read at open
    kKSErrorNoPath = 10, // no path, or one that has no file-system form
    kKSErrorNotSupported = 12,
};

// What was being done when errno was set; decides the code of some errors.
enum KSFileOperation : int { kKSOperationOther = 0, kKSOperationOpen = 1, kKSOperationRead = 2, kKSOperationWrite = 3 };

// Converts an errno value into a library error code.
int32_t ConvertUnixErrorCore(int operation, int error);

class KSFileReader {
public:
    // Opens the file read-only. Null on failure, with the code written through `error` when given
    // (0 on success).
    static std::unique_ptr<KSFileReader> open(const QString &path, int32_t *error = nullptr);
    virtual ~KSFileReader();
    KSFileReader(const KSFileReader &) = delete;
    KSFileReader &operator=(const KSFileReader &) = delete;

    static constexpr uint32_t blockSize() { return 4096; }
    // The open mode: 0 read only, 2 read and write.
    virtual int readType() const { return 0; }

    const QString &filePath() const { return m_filePath; }
    // The size as last known: at open, by actualFileSize, grown by writes, set by truncation.
    uint64_t fileSize() const { return m_fileSize.load(std::memory_order_relaxed); }
    int32_t error() const { return m_error.load(std::memory_order_relaxed); }

    // Reads the size from the file system and stores it; on failure logs and keeps the old one.
    virtual uint64_t actualFileSize();
    // Reads exactly `length` bytes at `offset`. False without an error code when the range passes
    // the known end of the file.
    bool readDataTo(void *buffer, uint64_t length, uint64_t offset);
    // Reads up to one block at `offset` into the internal buffer, which the next call reuses.
    // Null on failure; `length` receives the byte count (0 at the very end of the file).
    const char *readDataFrom(uint64_t offset, uint64_t *length);
    const char *readBlock(uint64_t block, uint64_t *length) { return readDataFrom(block * blockSize(), length); }

protected:
    KSFileReader() = default;
    // Opens `path` with the mode of readType(); 0 or the error code.
    int32_t openFile(const QString &path);
    template <typename T> static std::unique_ptr<T> openAs(const QString &path, int32_t *error)
    {
        std::unique_ptr<T> file(new T);
        const int32_t code = file->openFile(path);
        if (error)
            *error = code;
        if (code != 0)
            file.reset();
        return file;
    }
    void setError(int32_t code) { m_error.store(code, std::memory_order_relaxed); }
    void setFileSize(uint64_t size) { m_fileSize.store(size, std::memory_order_relaxed); }
    // Reads the size from the descriptor; errno on failure, else 0.
    int statSize(uint64_t *size) const;

    int m_fd = -1;

private:
    QString m_filePath;
    std::atomic<uint64_t> m_fileSize {0};
    char *m_buffer = nullptr;
    std::atomic<int32_t> m_error {0};
};

// Reads a whole file that must be a regular file of at most `limit` bytes, without blocking on a
// FIFO or opening anything else for long (a device, a socket, a link to /dev/zero). Returns 0, or
// an errno (EINVAL for an item that is not a regular file, EFBIG for one over the limit) with the
// reason for the user in *reason.
int ReadRegularFile(const QString &path, qint64 limit, QByteArray *contents, QString *reason = nullptr);
