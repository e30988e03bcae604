// The backup at the edges of the device: names and file systems outside the mirrors, folders and
// sources that move while it runs, items in the way, files torn while copied, data the device
// never took, and two backups of one device. After each run the device and what lies outside it
// are walked and compared with what must be there.
#include "backup/BUFileCopier.h"
#include "backup/BUTouchedFolders.h"
#include "tests/EngineTestHelpers.h"

#include <QDirIterator>
#include <QThread>

#include <atomic>
#include <cstring>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <thread>

using namespace tanner::test;

namespace {

QByteArray Bytes(const QString &path)
{
    return FileNameToBytes(path);
}

bool SetFlags(const QString &path, int add)
{
    const int fd = ::open(Bytes(path).constData(), O_RDONLY | O_NONBLOCK);
    int flags = 0;
    const bool ok = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags |= add, true)
        && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    if (fd >= 0)
        ::close(fd);
    return ok;
}

qsizetype EntryCount(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System).size();
}

// The failure texts of the run by the transaction lines that failed ("Copy file Docs/a"), and how
// many transactions below a path prefix succeeded.
struct Outcome {
    QMap<QString, QString> failures;
    qsizetype succeededBelow(const QStringList &lines, const QString &prefix) const
    {
        qsizetype count = 0;
        for (qsizetype row = 0; row < lines.size(); ++row) {
            if (lines[row].contains(prefix) && g_outcomes.isDone(row) && !g_outcomes.failed(row))
                ++count;
        }
        return count;
    }
};

Outcome Outcomes(const QStringList &lines)
{
    Outcome outcome;
    for (qsizetype row = 0; row < lines.size(); ++row) {
        if (g_outcomes.failed(row))
            outcome.failures.insert(lines[row], g_outcomes.errorText(row));
    }
    return outcome;
}

const QString kOtherFileSystem = BUError::otherFileSystem().failureReason;

} // namespace

// A snapshot of hard links beside the mirror shares its files' inodes: replacing, updating and
// deleting mirror files must leave every snapshot name as it was.
TEST_F(DeviceTest, NamesOutsideTheMirrorKeepTheirFiles)
{
    mountDevice();
    WriteTree(device(),
        {{"Docs/replaced.txt", "old"}, {"Docs/updated.txt", "same"}, {"Docs/gone.txt", "gone"},
            {"Docs/gonefolder/f", "f"}, {".snapshot/gonefolder/", {}}});
    for (const char *file : {"replaced.txt", "updated.txt", "gone.txt", "gonefolder/f"}) {
        const QString mirror = device(QStringLiteral("Docs/") + QLatin1String(file));
        ASSERT_EQ(::chmod(Bytes(mirror).constData(), 0600), 0);
        ASSERT_EQ(::link(Bytes(mirror).constData(),
                      Bytes(device(QStringLiteral(".snapshot/") + QLatin1String(file))).constData()),
            0);
    }
    ASSERT_TRUE(SetFlags(device(QStringLiteral("Docs/gone.txt")), FS_APPEND_FL));
    SetModificationTime(device(QStringLiteral("Docs/replaced.txt")), 1500000000);
    SetModificationTime(device(QStringLiteral("Docs/updated.txt")), 1500000000);
    const QStringList snapshot = TreeState(device(QStringLiteral(".snapshot")));
    QThread::sleep(1); // the source's attribute change comes after the device's
    WriteTree(source(), {{"replaced.txt", "new content"}, {"updated.txt", "same"}});
    SetModificationTime(source(QStringLiteral("replaced.txt")), 1600000000);
    SetModificationTime(source(QStringLiteral("updated.txt")), 1500000000);
    ASSERT_EQ(::chmod(Bytes(source(QStringLiteral("updated.txt"))).constData(), 0644), 0);

    analyze();
    ASSERT_EQ(transactionLines(),
        (QStringList {"Delete folder Docs/gonefolder", "Delete file Docs/gone.txt", "Update file Docs/updated.txt",
            "Copy file Docs/replaced.txt"}));
    RecordingReceiver receiver;
    backup(receiver);
    ASSERT_TRUE(receiver.complete.has_value());
    EXPECT_FALSE(receiver.complete->error.has_value()) << receiver.complete->error->toStdString();
    EXPECT_EQ(g_failedTransactions, 0);

    EXPECT_EQ(TreeState(device(QStringLiteral(".snapshot"))), snapshot);
    EXPECT_EQ(
        ReadTree(device(QStringLiteral("Docs"))), (Tree {{"replaced.txt", "new content"}, {"updated.txt", "same"}}));
    EXPECT_EQ(Mode(device(QStringLiteral("Docs/updated.txt"))), 0644U);
    struct stat status = {};
    ASSERT_EQ(::lstat(Bytes(device(QStringLiteral("Docs/updated.txt"))).constData(), &status), 0);
    EXPECT_EQ(status.st_nlink, 1U) << "a fresh copy, not the shared inode";
    EXPECT_EQ(Mode(device(QStringLiteral(".snapshot/updated.txt"))), 0600U);
}

// A file system mounted or bound inside a mirror folder is never walked, emptied or written: what
// the backup would do there fails with the reason, and the rest of the run goes on.
TEST_F(DeviceTest, OtherFileSystemsInsideAMirrorAreNotEntered)
{
    mountDevice();
    const QString outside = m_sources.path() + QStringLiteral("/outside");
    const Tree sentinel {{"keep/me.txt", "sentinel"}, {"top.txt", "top"}};
    WriteTree(outside, sentinel);
    const Tree sentinelRead = ReadTree(outside);
    WriteTree(device(), {{"Docs/old.txt", "old"}, {"Docs/mnt/", {}}, {"Docs/sub/", {}}});
    ASSERT_TRUE(MountTmpfs(device(QStringLiteral("Docs/mnt"))));
    m_mounted.prepend(device(QStringLiteral("Docs/mnt")));
    WriteTree(device(QStringLiteral("Docs/mnt")), sentinel);
    ASSERT_TRUE(BindMount(outside, device(QStringLiteral("Docs/sub"))));
    m_mounted.prepend(device(QStringLiteral("Docs/sub")));
    const QStringList before = TreeState(outside);
    WriteTree(source(), {{"new.txt", "new"}, {"sub/a.txt", "a"}, {"sub/deep/b.txt", "b"}});

    const BUAnalysisReport report = analyze();
    ASSERT_FALSE(report.error.has_value()) << report.error->toStdString();
    const QStringList lines = transactionLines();
    EXPECT_EQ(lines,
        (QStringList {"Delete folder Docs/mnt", "Delete file Docs/old.txt", "Copy folder Docs/sub/deep",
            "Copy file Docs/new.txt", "Copy file Docs/sub/a.txt", "Copy file Docs/sub/deep/b.txt"}));
    RecordingReceiver receiver;
    backup(receiver);
    ASSERT_TRUE(receiver.complete.has_value());
    EXPECT_FALSE(receiver.complete->error.has_value()) << receiver.complete->error->toStdString();
    const Outcome outcome = Outcomes(lines);
    EXPECT_EQ(outcome.failures,
        (QMap<QString, QString> {{"Delete folder Docs/mnt", kOtherFileSystem},
            {"Copy folder Docs/sub/deep", kOtherFileSystem}, {"Copy file Docs/sub/a.txt", kOtherFileSystem},
            {"Copy file Docs/sub/deep/b.txt", kOtherFileSystem}}));

    EXPECT_EQ(TreeState(outside), before);
    EXPECT_EQ(ReadTree(device(QStringLiteral("Docs/mnt"))), sentinelRead);
    EXPECT_EQ(ReadTree(device(QStringLiteral("Docs/sub"))), sentinelRead);
    LazyUnmount(device(QStringLiteral("Docs/sub")));
    LazyUnmount(device(QStringLiteral("Docs/mnt")));
    m_mounted.removeAll(device(QStringLiteral("Docs/sub")));
    m_mounted.removeAll(device(QStringLiteral("Docs/mnt")));
    EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))), (Tree {{"mnt/", {}}, {"new.txt", "new"}, {"sub/", {}}}));
}

// A source folder swapped for a link after the analysis leads nowhere: nothing of the link's
// target reaches the device.
TEST_F(DeviceTest, ASourceFolderSwappedForALinkIsNotFollowed)
{
    mountDevice();
    const QString outside = m_sources.path() + QStringLiteral("/outside");
    WriteTree(outside, {{"f.txt", "secret"}});
    WriteTree(source(), {{"sub/f.txt", "mine"}, {"a.txt", "a"}});
    QDir().mkpath(device(QStringLiteral("Docs")));
    analyze();
    ASSERT_EQ(
        transactionLines(), (QStringList {"Copy folder Docs/sub", "Copy file Docs/a.txt", "Copy file Docs/sub/f.txt"}));
    ASSERT_EQ(::rename(Bytes(source(QStringLiteral("sub"))).constData(),
                  Bytes(source(QStringLiteral("sub.moved"))).constData()),
        0);
    ASSERT_EQ(::symlink(Bytes(outside).constData(), Bytes(source(QStringLiteral("sub"))).constData()), 0);

    RecordingReceiver receiver;
    backup(receiver);
    ASSERT_TRUE(receiver.complete.has_value());
    const Outcome outcome = Outcomes(transactionLines());
    EXPECT_TRUE(outcome.failures.contains(QStringLiteral("Copy file Docs/sub/f.txt")));
    const Tree copied = ReadTree(device(QStringLiteral("Docs")));
    EXPECT_EQ(copied.value(QStringLiteral("a.txt")), "a");
    EXPECT_FALSE(copied.contains(QStringLiteral("sub/f.txt"))) << copied.value(QStringLiteral("sub/f.txt")).data();
}

// The device is a folder of a bigger file system, mounted on its own; a mirror folder moved out of
// it during the run (through the bigger file system), or a folder above the one being filled,
// receives nothing after it left.
class MovingFolders : public DeviceTest {
protected:
    void moveOutDuringRun(const QString &filled, const QString &moved);
};

void MovingFolders::moveOutDuringRun(const QString &filled, const QString &moved)
{
    const QString big = m_sources.path() + QStringLiteral("/big");
    ASSERT_TRUE(MountTmpfs(big, 256 << 20));
    m_mounted.prepend(big);
    QDir().mkpath(big + QStringLiteral("/device/Docs"));
    ASSERT_TRUE(BindMount(big + QStringLiteral("/device"), device()));
    m_mounted.prepend(device());
    Tree files;
    for (int i = 0; i < 3000; ++i)
        files.insert(filled + QStringLiteral("/f%1").arg(i, 4, 10, QLatin1Char('0')), QByteArray::number(i));
    WriteTree(source(), files);
    analyze();
    const QStringList lines = transactionLines();
    ASSERT_EQ(lines.size(), 3000 + filled.count(u'/') + 1);

    const QString inside = big + QStringLiteral("/device/Docs/") + filled;
    const QString away = big + QStringLiteral("/away");
    const QString landedIn = away + inside.mid(big.size() + QStringLiteral("/device/Docs/").size() + moved.size());
    std::atomic<bool> wasMoved {false};
    std::thread mover([&] {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < 20000 && EntryCount(inside) < 20)
            QThread::usleep(200);
        const QString from = big + QStringLiteral("/device/Docs/") + moved;
        wasMoved = ::rename(Bytes(from).constData(), Bytes(away).constData()) == 0;
    });
    RecordingReceiver receiver;
    backup(receiver);
    mover.join();
    ASSERT_TRUE(wasMoved);
    ASSERT_TRUE(receiver.complete.has_value());
    const qsizetype landed = EntryCount(landedIn);
    EXPECT_EQ(landed, Outcomes(lines).succeededBelow(lines, QStringLiteral("Copy file Docs/") + filled + u'/'))
        << "only the copies made before the move are there";
    EXPECT_LT(landed, 3000);
    EXPECT_FALSE(QFileInfo::exists(device(QStringLiteral("Docs/") + moved)));
    EXPECT_EQ(EntryCount(big), 2) << "nothing else appeared outside the device";
}

TEST_F(MovingFolders, AFolderMovedOutOfTheDeviceReceivesNothingMore)
{
    moveOutDuringRun(QStringLiteral("sub"), QStringLiteral("sub"));
}

TEST_F(MovingFolders, AFolderWhoseParentMovedOutOfTheDeviceReceivesNothingMore)
{
    moveOutDuringRun(QStringLiteral("sub/deeper"), QStringLiteral("sub"));
}

// Folder after folder, the analysis and the run hold a bounded number of descriptors.
TEST_F(DeviceTest, DescriptorsStayBoundedOverARun)
{
    mountDevice();
    Tree files;
    for (int i = 0; i < 300; ++i)
        files.insert(QStringLiteral("d%1/e/f.txt").arg(i), QByteArray::number(i));
    WriteTree(source(), files);
    struct LowDescriptorLimit {
        rlimit saved {};
        LowDescriptorLimit()
        {
            ::getrlimit(RLIMIT_NOFILE, &saved);
            rlimit low = saved;
            low.rlim_cur = 128;
            ::setrlimit(RLIMIT_NOFILE, &low);
        }
        ~LowDescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &saved); }
    } limit;
    backupAndExpectMirror();
}

// A link, a FIFO or a device node where the source has a folder is replaced by the folder; a
// folder to delete that holds immutable and append-only items goes all the same.
TEST_F(DeviceTest, ItemsInTheWayOfFoldersAndDeletesAreCleared)
{
    mountDevice();
    const QString outside = m_sources.path() + QStringLiteral("/outside");
    WriteTree(outside, {{"x.txt", "outside"}});
    const QStringList before = TreeState(outside);
    WriteTree(device(), {{"Docs/old/locked.txt", "i"}, {"Docs/old/append.txt", "a"}, {"Docs/old/inner/f", "f"}});
    ASSERT_EQ(::symlink(Bytes(outside).constData(), Bytes(device(QStringLiteral("Docs/link"))).constData()), 0);
    ASSERT_EQ(::mkfifo(Bytes(device(QStringLiteral("Docs/fifo"))).constData(), 0644), 0);
    ASSERT_EQ(::mknod(Bytes(device(QStringLiteral("Docs/node"))).constData(), S_IFCHR | 0644, makedev(1, 3)), 0);
    ASSERT_TRUE(SetFlags(device(QStringLiteral("Docs/old/locked.txt")), FS_IMMUTABLE_FL));
    ASSERT_TRUE(SetFlags(device(QStringLiteral("Docs/old/append.txt")), FS_APPEND_FL));
    ASSERT_TRUE(SetFlags(device(QStringLiteral("Docs/old/inner")), FS_IMMUTABLE_FL));
    WriteTree(source(), {{"link/x.txt", "mine"}, {"fifo/y.txt", "y"}, {"node/z.txt", "z"}});

    analyze();
    RecordingReceiver receiver;
    backup(receiver);
    ASSERT_TRUE(receiver.complete.has_value());
    EXPECT_FALSE(receiver.complete->error.has_value()) << receiver.complete->error->toStdString();
    EXPECT_EQ(Outcomes(transactionLines()).failures, (QMap<QString, QString> {}));
    EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))),
        (Tree {{"fifo/", {}}, {"fifo/y.txt", "y"}, {"link/", {}}, {"link/x.txt", "mine"}, {"node/", {}},
            {"node/z.txt", "z"}}));
    EXPECT_EQ(TreeState(outside), before);
    analyze();
    EXPECT_EQ(transactionLines(), QStringList {});
}

// A file rewritten while it is copied leaves no copy that could pass as up to date: the copy fails
// with the reason, nothing is left in the folder, and the next analysis still lists the copy. The
// source changes from the copier's own report of its first window, so no timing is involved.
TEST_F(DeviceTest, AFileChangedWhileItIsCopiedIsNotKept)
{
    mountDevice(512 << 20);
    WriteTree(source(), {{"big.bin", QByteArray(64 << 20, 'a')}});
    QDir().mkpath(device(QStringLiteral("Docs")));
    const int sourceFolder = ::open(Bytes(source()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int deviceFolder
        = ::open(Bytes(device(QStringLiteral("Docs"))).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(sourceFolder, 0);
    ASSERT_GE(deviceFolder, 0);

    BUFileCopier copier;
    bool changed = false;
    copier.progress = [&](int64_t) {
        if (std::exchange(changed, true))
            return;
        const int fd = ::open(Bytes(source(QStringLiteral("big.bin"))).constData(), O_WRONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(::pwrite(fd, "bbbb", 4, (64 << 20) - 4), 4);
        ::close(fd);
    };
    BUError error;
    EXPECT_FALSE(copier.copyFile(sourceFolder, "big.bin", deviceFolder, "big.bin", BUVolumeKind(), &error));
    ::close(sourceFolder);
    ::close(deviceFolder);
    ASSERT_TRUE(changed) << "the copy reported no window";
    EXPECT_EQ(error.failureReason, QStringLiteral("The file changed while it was copied"));
    EXPECT_TRUE(QDir(device(QStringLiteral("Docs")))
                    .entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot)
                    .isEmpty());
    analyze();
    EXPECT_EQ(transactionLines(), QStringList {"Copy file Docs/big.bin"});
}

// The device's data goes to a loop device whose backing store fills up: the write-back fails, and
// no transaction whose data the device could not hold is counted done.
TEST_F(DeviceTest, WhatTheDeviceCouldNotWriteBackIsNotDone)
{
    const QString backing = m_sources.path() + QStringLiteral("/backing");
    ASSERT_TRUE(MountTmpfs(backing, 24 << 20));
    m_mounted.prepend(backing);
    if (!MountExt4Image(backing + QStringLiteral("/disk.img"), 96, device()))
        GTEST_SKIP() << "no loop device for an ext4 image";
    m_mounted.prepend(device());
    Tree files;
    QByteArray data(768 << 10, '\0');
    for (int i = 0; i < 48; ++i) {
        for (qsizetype at = 0; at < data.size(); at += 8)
            std::memcpy(data.data() + at, &at, sizeof at), data[at] = char(i);
        files.insert(QStringLiteral("f%1").arg(i, 2, 10, QLatin1Char('0')), data);
    }
    WriteTree(source(), files);
    QDir().mkpath(device(QStringLiteral("Docs")));
    ::rmdir(Bytes(device(QStringLiteral("lost+found"))).constData());
    const BUAnalysisReport report = analyze();
    ASSERT_FALSE(report.error.has_value()) << report.error->toStdString();
    const QStringList lines = transactionLines();
    ASSERT_EQ(lines.size(), 48);
    RecordingReceiver receiver;
    backup(receiver);
    ASSERT_TRUE(receiver.complete.has_value());
    EXPECT_TRUE(receiver.complete->error.has_value());
    const qsizetype succeeded = Outcomes(lines).succeededBelow(lines, QStringLiteral("Copy file"));
    EXPECT_GT(g_failedTransactions, 0);
    EXPECT_EQ(g_finishedTransactions - g_failedTransactions, succeeded);
    // 36 files would need every byte of the backing store, the file system's own blocks aside.
    EXPECT_LT(succeeded, 32) << "done: data that never reached the disk";
}

// One backup of a device at a time: a second one, from this process or another, is refused at
// once, at the analysis and at the backup, and nothing of the device changes.
TEST_F(DeviceTest, OneBackupOfADeviceAtATime)
{
    mountDevice();
    WriteTree(source(), {{"a.txt", "a"}});
    WriteTree(device(), {{"Docs/old.txt", "old"}});
    analyze();
    ASSERT_EQ(g_transactions.size(), 2);
    const QString refused = QStringLiteral("Another backup of the device \"Dev\" is running.");
    {
        BUDeviceRoot running;
        ASSERT_TRUE(running.open(QStringLiteral("Dev"), nullptr));
        ASSERT_TRUE(running.lockForBackup());
        RecordingReceiver receiver;
        backup(receiver);
        ASSERT_TRUE(receiver.complete.has_value());
        EXPECT_EQ(receiver.complete->error.value_or(QString()), refused);
        EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))), (Tree {{"old.txt", "old"}}));
        EXPECT_EQ(analyze().error.value_or(QString()), refused);
    }
    analyze();
    RecordingReceiver receiver;
    backup(receiver);
    ASSERT_TRUE(receiver.complete.has_value());
    EXPECT_FALSE(receiver.complete->error.has_value());
    EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))), (Tree {{"a.txt", "a"}}));
}

// A sparse file keeps its holes on the device: a 600 MiB file holding 32 KiB fits a 64 MiB
// device, byte for byte.
TEST_F(DeviceTest, ASparseFileIsCopiedWithItsHoles)
{
    mountDevice(64 << 20);
    const QByteArray path = Bytes(source(QStringLiteral("disk.img")));
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0);
    const QByteArray data(16 << 10, 'd');
    ASSERT_EQ(::pwrite(fd, data.constData(), std::size_t(data.size()), 0), data.size());
    ASSERT_EQ(::pwrite(fd, data.constData(), std::size_t(data.size()), off_t(300) << 20), data.size());
    ASSERT_EQ(::ftruncate(fd, off_t(600) << 20), 0);
    ::close(fd);
    QDir().mkpath(device(QStringLiteral("Docs")));
    analyze();
    ASSERT_EQ(transactionLines(), QStringList {"Copy file Docs/disk.img"});
    RecordingReceiver receiver;
    backup(receiver);
    ASSERT_TRUE(receiver.complete.has_value());
    EXPECT_FALSE(receiver.complete->error.has_value()) << receiver.complete->error->toStdString();
    EXPECT_EQ(g_failedTransactions, 0);

    struct stat status = {};
    ASSERT_EQ(::stat(Bytes(device(QStringLiteral("Docs/disk.img"))).constData(), &status), 0);
    EXPECT_EQ(status.st_size, off_t(600) << 20);
    EXPECT_LE(status.st_blocks * 512, 1 << 20) << "the holes stay holes";
    QFile copy(device(QStringLiteral("Docs/disk.img"))), original(FileNameFromBytes(path));
    ASSERT_TRUE(copy.open(QIODevice::ReadOnly) && original.open(QIODevice::ReadOnly));
    while (!original.atEnd())
        ASSERT_EQ(copy.read(8 << 20), original.read(8 << 20)) << "at " << original.pos();
    EXPECT_TRUE(copy.atEnd());
}

// An extended attribute bigger than the device's file system keeps beside a file fails that one
// file, in words that name the attribute; the run goes on.
TEST_F(DeviceTest, AnAttributeTheDeviceCannotHoldFailsItsItemAlone)
{
    ASSERT_TRUE(MountTmpfs(source()));
    m_mounted.prepend(source());
    WriteTree(source(), {{"big.txt", "b"}, {"plain.txt", "p"}});
    const QByteArray value(20 << 10, 'v');
    ASSERT_EQ(::lsetxattr(Bytes(source(QStringLiteral("big.txt"))).constData(), "user.big", value.constData(),
                  std::size_t(value.size()), 0),
        0);
    if (!MountExt4Image(m_sources.path() + QStringLiteral("/disk.img"), 32, device()))
        GTEST_SKIP() << "no loop device for an ext4 image";
    m_mounted.prepend(device());
    ::rmdir(Bytes(device(QStringLiteral("lost+found"))).constData());
    QDir().mkpath(device(QStringLiteral("Docs")));
    analyze();
    const QStringList lines = transactionLines();
    ASSERT_EQ(lines, (QStringList {"Copy file Docs/big.txt", "Copy file Docs/plain.txt"}));
    RecordingReceiver receiver;
    backup(receiver);
    ASSERT_TRUE(receiver.complete.has_value());
    EXPECT_FALSE(receiver.complete->error.has_value()) << receiver.complete->error->toStdString();
    const QMap<QString, QString> failures = Outcomes(lines).failures;
    ASSERT_EQ(failures.keys(), QStringList {"Copy file Docs/big.txt"});
    EXPECT_TRUE(failures.first().contains(QStringLiteral("\"user.big\""))) << failures.first().toStdString();
    EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))), (Tree {{"plain.txt", "p"}}));
}

// What a run killed on the way leaves: its mark in the mirror, and folders with the run's times.
// The mark is the program's own: no analysis lists it, and a mirror holding nothing else is up to
// date. The next backup brings every folder's times back, however deep, with few descriptors,
// and takes the mark away.
TEST_F(DeviceTest, AKilledRunsMarkIsNoItemAndItsFoldersComeBack)
{
    mountDevice(128 << 20);
    constexpr int kDepth = 400; // "d/d/...": far more levels than descriptors below
    auto below = [](const QString &top, int levels) { return top + QStringLiteral("/d").repeated(levels); };
    ASSERT_TRUE(QDir().mkpath(below(source(), kDepth)));
    WriteTree(source(), {{"keep.txt", "k"}});
    backupAndExpectMirror();

    const QString mirror = device(QStringLiteral("Docs"));
    WriteFileBytes(Bytes(mirror) + '/' + kRunMarkName, QByteArray());
    for (int level = 0; level <= kDepth; ++level)
        SetModificationTime(below(mirror, level), 1600000000);
    ClearTransactions();
    BUAnalysisReport report = analyze();
    EXPECT_FALSE(report.extra.has_value());
    // Nothing but the mark tells of the killed run: the mirror folder gets an Update, no row names the mark.
    EXPECT_EQ(transactionLines(), QStringList {QStringLiteral("Update folder Docs")});
    rlimit saved;
    ::getrlimit(RLIMIT_NOFILE, &saved);
    rlimit low = saved;
    low.rlim_cur = 128;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    RecordingReceiver receiver;
    backup(receiver);
    ::setrlimit(RLIMIT_NOFILE, &saved);
    ASSERT_TRUE(receiver.complete.has_value());
    EXPECT_FALSE(receiver.complete->error.has_value()) << receiver.complete->error->toStdString();
    EXPECT_EQ(g_failedTransactions, 0) << failures(receiver).toStdString();
    QList<int> wrong;
    for (int level = 0; level <= kDepth; ++level) {
        if (ModificationTime(below(mirror, level)) != ModificationTime(below(source(), level)))
            wrong.append(level);
    }
    EXPECT_TRUE(wrong.isEmpty()) << wrong.size() << " levels keep the killed run's time, the first at "
                                 << wrong.value(0);
    EXPECT_FALSE(QFileInfo::exists(mirror + u'/' + QLatin1String(kRunMarkName)));
    EXPECT_EQ(MirrorDifferences(source(), mirror), QStringList());
    analyze();
    EXPECT_EQ(transactionLines(), QStringList()) << "the run left no mark behind";
}
