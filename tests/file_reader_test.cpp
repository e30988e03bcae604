// The file reader and writer: positioned reads and writes, the known size, and the library error
// codes that failures leave behind.
#include "keelson/KSFileReaderWriter.h"
#include "tests/support/TestSupport.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <vector>

using namespace tanner::test;

TEST(ConvertUnixErrorCore, FollowsTheTableByErrorNameNotByNumber)
{
    // Results for the operations other, open, read and write.
    struct Row {
        std::vector<int> errors;
        int32_t other, open, read, write;
    };
    const Row rows[] = {
        {{0}, 0, 0, 0, 0},
        {{EPERM, EACCES, EROFS, ENOLINK}, 11, 11, 11, 11},
        {{ENOENT}, 10, 4, 13, 3},
        {{EINTR, EBUSY, EAGAIN}, 2, 2, 2, 2},
        {{EEXIST}, 4, 4, 4, 4},
        {{ENOTDIR, EISDIR, ELOOP, ENAMETOOLONG, EMULTIHOP}, 10, 10, 10, 10},
        {{EFBIG}, 1, 1, 1, 1},
        {{ENOSPC}, 3, 3, 3, 3},
        {{ERANGE}, 12, 12, 12, 12},
        // Linux's own 35, 62, 63, 95 and 97 are other errors than the table's.
        {{EDEADLK, ETIME, ENOSR, EOPNOTSUPP, EAFNOSUPPORT, EIO}, 9, 9, 13, 16},
    };
    for (const Row &row : rows) {
        for (const int error : row.errors) {
            SCOPED_TRACE(error);
            EXPECT_EQ(ConvertUnixErrorCore(kKSOperationOther, error), row.other);
            EXPECT_EQ(ConvertUnixErrorCore(kKSOperationOpen, error), row.open);
            EXPECT_EQ(ConvertUnixErrorCore(kKSOperationRead, error), row.read);
            EXPECT_EQ(ConvertUnixErrorCore(kKSOperationWrite, error), row.write);
        }
    }
}

TEST(FileReader, OpenFailuresAndReadsAtTheEnd)
{
    QTemporaryDir dir;
    int32_t code = -1;
    EXPECT_EQ(KSFileReader::open(dir.filePath(QStringLiteral("missing")), &code), nullptr);
    EXPECT_EQ(code, 4) << "a missing file is the open conversion of ENOENT";
    EXPECT_EQ(KSFileReader::open(QString(), &code), nullptr);
    EXPECT_EQ(code, kKSErrorNoPath);
    EXPECT_EQ(KSFileReaderWriter::open(dir.path(), &code), nullptr);
    EXPECT_EQ(code, 10) << "a folder cannot be opened for writing (EISDIR)";

    QByteArray content(4096 + 100, 'x');
    content[4096] = 'y';
    WriteTree(dir.path(), {{QStringLiteral("data"), content}});
    auto reader = KSFileReader::open(dir.filePath(QStringLiteral("data")), &code);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(reader->fileSize(), 4196u);

    char buffer[8];
    EXPECT_FALSE(reader->readDataTo(buffer, 8, 4190)) << "passes the known end";
    EXPECT_EQ(reader->error(), 0);
    EXPECT_TRUE(reader->readDataTo(buffer, 1, 4096));
    EXPECT_EQ(buffer[0], 'y');

    uint64_t length = 99;
    const char *block = reader->readBlock(1, &length);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(length, 100u);
    EXPECT_EQ(block[0], 'y');
    block = reader->readDataFrom(4196, &length);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(length, 0u) << "at the very end: the buffer with nothing in it";

    // The file shrank behind the reader's back: the read fails with the read code of EIO.
    ASSERT_TRUE(QFile::resize(dir.filePath(QStringLiteral("data")), 10));
    EXPECT_EQ(reader->readDataFrom(0, &length), nullptr);
    EXPECT_EQ(reader->error(), 13);
    EXPECT_EQ(reader->actualFileSize(), 10u);
}

TEST(FileReaderWriter, WritesGrowTheSizeTruncationSetsIt)
{
    QTemporaryDir dir;
    WriteTree(dir.path(), {{QStringLiteral("log"), "abc"}});
    auto writer = KSFileReaderWriter::open(dir.filePath(QStringLiteral("log")));
    ASSERT_NE(writer, nullptr);
    EXPECT_FALSE(writer->writeData("z", 1));
    EXPECT_EQ(writer->error(), kKSErrorNotSupported);

    EXPECT_TRUE(writer->writeData("XY", 2, 1));
    EXPECT_EQ(writer->fileSize(), 3u) << "a write inside the file leaves the size";
    EXPECT_TRUE(writer->writeData("end", 3, 10));
    EXPECT_EQ(writer->fileSize(), 13u);
    EXPECT_TRUE(writer->sync());
    EXPECT_TRUE(writer->truncateToLength(2));
    EXPECT_EQ(writer->fileSize(), 2u);
    QFile file(dir.filePath(QStringLiteral("log")));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), QByteArray("aX"));
}

TEST(FileReaderWriter, AFullDeviceGivesTheWriteCodeOfENOSPC)
{
    TANNER_REQUIRE_MOUNTS();
    QTemporaryDir dir;
    ASSERT_TRUE(MountTmpfs(dir.path(), 64 * 1024));
    WriteTree(dir.path(), {{QStringLiteral("log"), ""}});
    auto writer = KSFileReaderWriter::open(dir.filePath(QStringLiteral("log")));
    ASSERT_NE(writer, nullptr);
    const QByteArray chunk(16 * 1024, 'q');
    bool failed = false;
    for (int i = 0; i < 8 && !failed; ++i)
        failed = !writer->writeData(chunk.constData(), uint64_t(chunk.size()), writer->fileSize());
    EXPECT_TRUE(failed);
    EXPECT_EQ(writer->error(), 3);
    EXPECT_LE(writer->fileSize(), 64u * 1024) << "the size counts only whole writes";
    writer.reset();
    LazyUnmount(dir.path());
}
