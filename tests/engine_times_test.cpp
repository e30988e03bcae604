// Times as the devices really keep them: an edit or a change of mode made within the same second as
// the copy is seen wherever both file systems keep finer steps, and a device that keeps coarser
// ones (ext4 with small inodes, FAT, exFAT) still analyses as up to date after every backup.
#include "tests/EngineTestHelpers.h"

using namespace tanner::test;

namespace {

void SetTimes(const QString &path, qint64 seconds, long nanoseconds)
{
    const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(::utimensat(AT_FDCWD, FileNameToBytes(path).constData(), times, AT_SYMLINK_NOFOLLOW), 0);
}

} // namespace

TEST(TimeSteps, AProbeFileTellsTheStepItsTimeWasKeptIn)
{
    const int64_t written = 1000000001123456789;
    EXPECT_EQ(TimeStepFromProbe(written, written), 1);
    EXPECT_EQ(TimeStepFromProbe(written, 1000000001123456700), 100);
    EXPECT_EQ(TimeStepFromProbe(written, 1000000001120000000), 10000000);
    EXPECT_EQ(TimeStepFromProbe(written, 1000000001000000000), 1000000000);
    EXPECT_EQ(TimeStepFromProbe(written, 1000000000000000000), 2000000000);
    EXPECT_EQ(TimeStepFromProbe(written, 1000000002000000000), 0) << "rounded up: no step explains it";

    BUVolumeKind fat = VolumeKindForFileSystem(QStringLiteral("vfat"));
    EXPECT_EQ(ComparableTime(1000000001999999999, fat), ComparableTime(1000000000000000000, fat));
    BUVolumeKind fine;
    fine.timeStep = 1;
    EXPECT_LT(ComparableTime(1000000001100000000, fine), ComparableTime(1000000001600000000, fine));
}

TEST_F(DeviceTest, EditsWithinTheSecondOfACopyAreSeenWhereTheDeviceKeepsThem)
{
    struct Case {
        const char *kind;
        bool keepsFractions; // of a second
    };
    const Case cases[]
        = {{"tmpfs", true}, {"ext4", true}, {"ext4-128", false}, {"fusefat", false}, {"exfat-fuse", false}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.kind);
        TearDown();
        SetUp();
        if (!mountDeviceOfKind(QString::fromLatin1(c.kind)))
            continue;
        const QString note = source(QStringLiteral("note.txt"));
        WriteTree(source(), {{"note.txt", "v1"}, {"other.txt", "o"}});
        SetTimes(note, 1700000000, 100000000);
        backupAndExpectMirror(); // then a second analysis lists nothing, whatever the device keeps

        WriteTree(source(), {{"note.txt", "version 2 longer"}});
        SetTimes(note, 1700000000, 600000000); // later within the same second
        analyze();
        EXPECT_EQ(transactionLines(),
            c.keepsFractions ? QStringList {QStringLiteral("Copy file Docs/note.txt")} : QStringList());
        if (!c.keepsFractions) {
            unmountDevice();
            continue;
        }
        backupAndExpectMirror();
        // A change of mode right after the backup: its change time is later, to the nanosecond.
        ASSERT_EQ(::chmod(FileNameToBytes(note).constData(), 0600), 0);
        analyze();
        EXPECT_EQ(transactionLines(), QStringList {QStringLiteral("Update file Docs/note.txt")});
        backupAndExpectMirror();
        EXPECT_EQ(Mode(device(QStringLiteral("Docs/note.txt"))), 0600u);
        unmountDevice();
    }
}

// Whether a device ignores case is asked of the device: NTFS through its FUSE driver keeps README
// and Readme apart, as ext4 does; FAT and exFAT, whose driver has the same type as NTFS's, do not.
TEST_F(DeviceTest, TheDeviceIsAskedWhetherItIgnoresCase)
{
    struct Case {
        const char *kind;
        bool ignoresCase;
    };
    const Case cases[] = {{"ntfs-3g", false}, {"ext4", false}, {"exfat-fuse", true}, {"fusefat", true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.kind);
        TearDown();
        SetUp();
        if (!mountDeviceOfKind(QString::fromLatin1(c.kind)))
            continue;
        WriteTree(source(), {{"README", "upper"}, {"Readme", "mixed"}});
        WriteTree(device(), {{".tanner-probe-a", "left by a killed run"}});
        analyze();
        RecordingReceiver receiver;
        backup(receiver);
        ASSERT_TRUE(receiver.complete.has_value());
        EXPECT_EQ(g_failedTransactions, c.ignoresCase ? 1 : 0) << failures(receiver).toStdString();
        if (!c.ignoresCase) {
            EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))), (Tree {{"README", "upper"}, {"Readme", "mixed"}}));
            analyze();
            EXPECT_EQ(transactionLines(), QStringList()) << "up to date";
        }
        EXPECT_FALSE(QFileInfo::exists(device(QStringLiteral(".tanner-probe-a")))) << "the probe is gone";
        unmountDevice();
    }
}

// A file dated 2200 on a device whose dates end in 2038 (ext4 with 128-byte inodes) is copied
// once, then counts as up to date: its copy holds the latest date the device can.
TEST_F(DeviceTest, ADateTheDeviceCannotHoldSettlesAfterOneCopy)
{
    for (const char *kind : {"ext4-128", "ext4", "tmpfs"}) {
        SCOPED_TRACE(kind);
        TearDown();
        SetUp();
        if (!mountDeviceOfKind(QString::fromLatin1(kind)))
            continue;
        WriteTree(source(), {{"future.txt", "f"}, {"past.txt", "p"}});
        SetTimes(source(QStringLiteral("future.txt")), 7258118400, 0); // 2200
        SetTimes(source(QStringLiteral("past.txt")), -2208988800, 0); // 1900
        analyze();
        EXPECT_EQ(g_transactions.size(), 3);
        RecordingReceiver receiver;
        backup(receiver);
        ASSERT_TRUE(receiver.complete.has_value());
        EXPECT_EQ(g_failedTransactions, 0) << failures(receiver).toStdString();
        analyze();
        EXPECT_EQ(transactionLines(), QStringList());
        unmountDevice();
    }
}
