// The read-write form of KSFileReader. See KSFileReader.h for the threads.
#pragma once

#include "keelson/KSFileReader.h"

#include <mutex>

class KSFileReaderWriter : public KSFileReader {
public:
    // Opens an existing file for reading and writing; null on failure (see KSFileReader::open).
    static std::unique_ptr<KSFileReaderWriter> open(const QString &path, int32_t *error = nullptr);

    int readType() const override { return 2; }
    uint64_t actualFileSize() override;

    // There is no current position to write at: always fails with kKSErrorNotSupported.
    bool writeData(const void *data, uint64_t length);
    // Writes all bytes at `offset`; the known size grows when the write passes it.
    bool writeData(const void *data, uint64_t length, uint64_t offset);
    // Flushes the file to the disk.
    bool sync();
    bool truncateToLength(uint64_t length);

private:
    friend class KSFileReader;
    KSFileReaderWriter() = default;
    std::mutex m_lock;
};
