// Whatever stops a backup, the device keeps for every item its old copy or its new one: a replaced
// copy is written whole beside the old one and takes its place in one step, and only a device that
// cannot hold both sees the old one go first. One bad item fails its own row and the run goes on.
// The faults come from real mounts: the fault-injecting pass-through file system on the source or
// the device, a full tmpfs, a FAT stick through its FUSE driver, and the program killed outright.
#include "backup/BUBackupFolderChecks.h"
#include "tests/EngineTestHelpers.h"

#include <QFileInfo>
#include <QThread>

#include <csignal>
#include <sys/mount.h>
#include <sys/wait.h>

using namespace tanner::test;

namespace {

QByteArray ReadAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

// Sources seen through the fault-injecting file system: the real files live in `real`, the
// backup folder is the mount's "Docs", and `rules` says what fails.
class FaultySourceTest : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        if (IsSkipped())
            return;
        m_real = m_images.path() + QStringLiteral("/real");
        m_rules = m_images.path() + QStringLiteral("/rules");
        QDir().mkpath(m_real + QStringLiteral("/Docs"));
        setRules({});
        const QString reason = MountFaultFs(m_real, m_sources.path(), m_rules);
        if (!reason.isEmpty())
            GTEST_SKIP() << reason.toStdString();
        m_mounted.append(m_sources.path()); // unmounted last, after the device
    }
    void setRules(const QStringList &lines)
    {
        QFile file(m_rules);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(lines.join(u'\n').toUtf8() + '\n');
    }
    // Backs up thesis.doc ("old"), then edits it at the source so that the next analysis lists a
    // Copy over the device's copy.
    void prepareAnUpdate(const QByteArray &edited)
    {
        WriteTree(source(), {{"thesis.doc", "old"}, {"notes.txt", "n"}});
        backupAndExpectMirror();
        WriteTree(source(), {{"thesis.doc", edited}});
        SetModificationTime(source(QStringLiteral("thesis.doc")), 2000000000);
        analyze();
        ASSERT_EQ(transactionLines(), QStringList {QStringLiteral("Copy file Docs/thesis.doc")});
    }
    QString m_real;
    QString m_rules;
};

} // namespace

TEST_F(FaultySourceTest, AFailedUpdateLeavesTheOldCopy)
{
    mountDevice(8 << 20);
    struct Case {
        const char *what;
        QStringList rules;
        QString reason;
    };
    const QList<Case> cases = {
        {"an unreadable sector in the edited source", {QStringLiteral("read EIO /Docs/thesis.doc")},
            QStringLiteral("Input/output error")},
        {"the source cannot be opened any more", {QStringLiteral("open EACCES /Docs/thesis.doc")},
            QStringLiteral("Permission denied")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        setRules({});
        QFile::remove(device(QStringLiteral("Docs/thesis.doc")));
        prepareAnUpdate(QByteArray(3 << 20, 'n'));
        setRules(c.rules);
        RecordingReceiver receiver;
        backup(receiver);
        ASSERT_TRUE(receiver.complete.has_value());
        EXPECT_FALSE(receiver.complete->error.has_value()) << receiver.complete->error->toStdString();
        EXPECT_EQ(failures(receiver).trimmed(), source(QStringLiteral("thesis.doc")) + QStringLiteral(": ") + c.reason);
        EXPECT_EQ(ReadAll(device(QStringLiteral("Docs/thesis.doc"))), QByteArray("old"));
        EXPECT_TRUE(TemporaryFiles(device()).isEmpty());
        setRules({});
        analyze();
        EXPECT_EQ(transactionLines(), QStringList {QStringLiteral("Copy file Docs/thesis.doc")}) << "tried again";
    }
}

// Cancel and a device that fills up stop the copy of the new version; the old one is still there,
// whole, under its name.
TEST_F(FaultySourceTest, AnUpdateStoppedOnTheWayLeavesTheOldCopy)
{
    mountDevice(64 << 20);
    for (const bool cancel : {true, false}) {
        SCOPED_TRACE(cancel ? "Cancel" : "the device fills up");
        setRules({});
        QFile::remove(device(QStringLiteral("Docs/thesis.doc")));
        // Progress, and with it the Cancel, comes once a few windows of the file are written.
        prepareAnUpdate(QByteArray(40 << 20, 'n'));
        if (cancel)
            setRules({QStringLiteral("slow 5 /Docs/thesis.doc")});
        else
            WriteTree(source(), {{"thesis.doc", QByteArray(80 << 20, 'g')}}); // past the free space
        RecordingReceiver receiver;
        receiver.cancelOnFirstProgress = cancel;
        backup(receiver);
        ASSERT_TRUE(receiver.complete.has_value());
        if (cancel)
            EXPECT_TRUE(receiver.complete->cancel);
        else
            EXPECT_TRUE(receiver.complete->error.value_or(QString()).startsWith(u"The device is full."));
        EXPECT_TRUE(ReadAll(device(QStringLiteral("Docs/thesis.doc"))) == "old");
        EXPECT_TRUE(TemporaryFiles(device()).isEmpty());
    }
}

// Where the device cannot hold the new copy beside the old one, the old one goes first and its row
// says so; where it can, the row says nothing.
TEST_F(DeviceTest, TheOldCopyGoesFirstOnlyWhenTheDeviceCannotHoldBoth)
{
    for (const qint64 deviceSize : {qint64(40) << 20, qint64(5) << 20}) {
        SCOPED_TRACE(deviceSize);
        TearDown();
        SetUp();
        mountDevice(deviceSize);
        WriteTree(source(), {{"big.bin", QByteArray(3 << 20, 'o')}});
        backupAndExpectMirror();
        WriteTree(source(), {{"big.bin", QByteArray(3 << 20, 'n')}});
        SetModificationTime(source(QStringLiteral("big.bin")), 2000000000);
        analyze();
        RecordingReceiver receiver;
        backup(receiver);
        ASSERT_TRUE(receiver.complete.has_value());
        EXPECT_FALSE(receiver.complete->error.has_value()) << receiver.complete->error->toStdString();
        EXPECT_EQ(ReadAll(device(QStringLiteral("Docs/big.bin"))), QByteArray(3 << 20, 'n'));
        const QString note = g_outcomes.note(0);
        if (deviceSize > (8 << 20))
            EXPECT_EQ(note, QString());
        else
            EXPECT_EQ(note, QStringLiteral("The old copy was removed first, because the device could not hold both."));
    }
}

// A run killed in the middle of replacing a big file leaves the old copy and the temporary file of
// the new one; the next analysis lists the temporary file for removal and the next backup is exact.
TEST_F(FaultySourceTest, AKilledRunLeavesTheOldCopy)
{
    mountDevice(64 << 20);
    prepareAnUpdate(QByteArray(8 << 20, 'n'));
    setRules({QStringLiteral("slow 40 /Docs/thesis.doc")});
    ScopedXdgHome home;
    QProcessEnvironment environment = home.environment();
    environment.insert(QStringLiteral("TANNER_VOLUMES_ROOT"), m_volumes.path());
    ASSERT_EQ(RunTanner({QStringLiteral("folders"), QStringLiteral("add"), source()}, environment).exitCode, 0);
    ASSERT_EQ(
        RunTanner({QStringLiteral("folders"), QStringLiteral("remove"), QStringLiteral("home")}, environment).exitCode,
        0);
    QProcess run;
    run.setProcessEnvironment(environment);
    run.start(
        QStringLiteral(TANNER_BINARY), {QStringLiteral("backup"), QStringLiteral("Dev"), QStringLiteral("--yes")});
    ASSERT_TRUE(run.waitForStarted());
    bool writing = false;
    for (int i = 0; i < 400 && !writing; ++i) {
        QThread::msleep(25);
        writing = !TemporaryFiles(device()).isEmpty();
    }
    ASSERT_TRUE(writing) << "the copy of the new version never started";
    ::kill(pid_t(run.processId()), SIGKILL);
    run.waitForFinished();
    EXPECT_EQ(ReadAll(device(QStringLiteral("Docs/thesis.doc"))), QByteArray("old"));

    setRules({});
    const BUAnalysisReport report = analyze();
    ASSERT_FALSE(report.error.has_value()) << report.error->toStdString();
    const QStringList lines = transactionLines();
    EXPECT_TRUE(lines.contains(QStringLiteral("Copy file Docs/thesis.doc"))) << lines.join(u'\n').toStdString();
    EXPECT_EQ(lines.filter(QStringLiteral("Delete file Docs/.tanner-partial-")).size(), 1)
        << lines.join(u'\n').toStdString();
    backupAndExpectMirror();
}

// A name the device cannot hold, a device folder that refuses the program, and a source file
// deleted while the backup runs each fail their own row with what happened; everything else is
// backed up and the run ends without a serious error.
TEST_F(DeviceTest, OneBadItemFailsItsRowAndTheRunGoesOn)
{
    struct Case {
        const char *what;
        QString kind; // the device's
        Tree tree;
        std::function<void()> before; // between the analysis and the backup
        QString failed; // the row's path below the source
        QString reason;
    };
    const QList<Case> cases = {
        {"a name FAT cannot hold", QStringLiteral("fusefat"), {{"Agenda: Q3?.txt", "a"}, {"ok.txt", "o"}}, [] {},
            QStringLiteral("Agenda: Q3?.txt"), QStringLiteral("The device can't hold the name \"Agenda: Q3?.txt\".")},
        {"a name exFAT cannot hold", QStringLiteral("exfat-fuse"), {{"mail:2,S", "m"}, {"ok.txt", "o"}}, [] {},
            QStringLiteral("mail:2,S"), QStringLiteral("The device can't hold the name \"mail:2,S\".")},
        {"a source file deleted during the run", QStringLiteral("tmpfs"), {{"busy.tmp", "b"}, {"ok.txt", "o"}},
            [this] { ASSERT_TRUE(QFile::remove(source(QStringLiteral("busy.tmp")))); }, QStringLiteral("busy.tmp"),
            QStringLiteral("The file no longer exists at the source.")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TearDown();
        SetUp();
        if (!mountDeviceOfKind(c.kind))
            continue;
        WriteTree(source(), c.tree);
        analyze();
        c.before();
        RecordingReceiver receiver;
        backup(receiver);
        ASSERT_TRUE(receiver.complete.has_value());
        EXPECT_FALSE(receiver.complete->error.has_value()) << receiver.complete->error->toStdString();
        EXPECT_EQ(failures(receiver).trimmed(), source(c.failed) + QStringLiteral(": ") + c.reason);
        EXPECT_EQ(ReadAll(device(QStringLiteral("Docs/ok.txt"))), QByteArray("o"));
        unmountDevice();
    }
}

// A device folder that refuses to take new files (the device seen through the fault-injecting
// file system) fails the copies into it alone.
TEST_F(DeviceTest, ADeviceFolderThatRefusesFailsOnlyItsItems)
{
    const QString real = m_images.path() + QStringLiteral("/device");
    const QString rules = m_images.path() + QStringLiteral("/rules");
    QDir().mkpath(real + QStringLiteral("/Docs/locked"));
    QFile file(rules);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("create EACCES /Docs/locked/*\n");
    file.close();
    const QString reason = MountFaultFs(real, device(), rules);
    if (!reason.isEmpty())
        GTEST_SKIP() << reason.toStdString();
    m_mounted.prepend(device());
    WriteTree(source(), {{"locked/a.txt", "a"}, {"locked/b.txt", "b"}, {"open/c.txt", "c"}, {"d.txt", "d"}});
    analyze();
    RecordingReceiver receiver;
    backup(receiver);
    ASSERT_TRUE(receiver.complete.has_value());
    EXPECT_FALSE(receiver.complete->error.has_value()) << receiver.complete->error->toStdString();
    EXPECT_EQ(g_failedTransactions, 2) << failures(receiver).toStdString();
    EXPECT_TRUE(failures(receiver).contains(
        QStringLiteral("You don't have permission to write in the folder \"%1\" on the device.")
            .arg(device(QStringLiteral("Docs/locked")))));
    EXPECT_EQ(ReadAll(real + QStringLiteral("/Docs/open/c.txt")), QByteArray("c"));
    EXPECT_EQ(ReadAll(real + QStringLiteral("/Docs/d.txt")), QByteArray("d"));
}

// A backup folder that /etc/fstab names as a mount point, with nothing mounted there, is refused;
// mounted, it is backed up. The table's escapes and comments are read as the system reads them.
TEST_F(DeviceTest, ABackupFolderWhoseDiskIsNotMountedIsRefused)
{
    EXPECT_EQ(FstabMountPoints("# comment\nUUID=1 / ext4 defaults 0 1\n/dev/sdb1 /mnt/My\\040Archive ext4 noauto 0 "
                               "0\n/swapfile none swap sw 0 0\n  \n/dev/sdc1\t/srv/share/ nfs rw 0 0\n"),
        (QStringList {QStringLiteral("/"), QStringLiteral("/mnt/My Archive"), QStringLiteral("/srv/share")}));

    mountDevice();
    WriteTree(source(), {{"a.txt", "a"}});
    const QString table = m_images.path() + QStringLiteral("/fstab");
    QFile file(table);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(
        "/dev/disk/by-label/Archive " + FileNameToBytes(source()).replace(" ", "\\040") + " ext4 defaults 0 2\n");
    file.close();
    if (::mount(FileNameToBytes(table).constData(), "/etc/fstab", nullptr, MS_BIND, nullptr) != 0)
        GTEST_SKIP() << "cannot put a table of file systems in place of /etc/fstab here";
    const BUAnalysisReport refused = analyze();
    ::umount2("/etc/fstab", MNT_DETACH);
    EXPECT_EQ(refused.error.value_or(QString()),
        QStringLiteral("I can't backup to \"Dev\" because the backup folder \"%1\" is where a disk is mounted (as "
                       "/etc/fstab says), and that disk is not mounted.")
            .arg(source()));
    EXPECT_TRUE(g_transactions.isEmpty());

    ASSERT_TRUE(MountTmpfs(source(), 1 << 20));
    m_mounted.prepend(source());
    WriteTree(source(), {{"on-the-disk.txt", "d"}});
    ASSERT_EQ(::mount(FileNameToBytes(table).constData(), "/etc/fstab", nullptr, MS_BIND, nullptr), 0);
    const BUAnalysisReport mounted = analyze();
    ::umount2("/etc/fstab", MNT_DETACH);
    EXPECT_FALSE(mounted.error.has_value());
    EXPECT_EQ(transactionLines(),
        (QStringList {QStringLiteral("Copy folder Docs"), QStringLiteral("Copy file Docs/on-the-disk.txt")}));
}

// A power cut the moment the program says "Backup succeeded": the FAT driver's disk (a loop
// device here) is imaged at once, below its page cache, and the image must hold the backup.
TEST_F(DeviceTest, AFatStickHoldsTheBackupWhenThePowerGoesAtTheEnd)
{
    const QString image = m_images.path() + QStringLiteral("/stick.img");
    QFile file(image);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.resize(32 << 20));
    file.close();
    QProcess losetup;
    losetup.start(QStringLiteral("losetup"), {QStringLiteral("-f"), QStringLiteral("--show"), image});
    if (QProcess::execute(QStringLiteral("mkfs.vfat"), {image}) != 0 || !losetup.waitForFinished()
        || losetup.exitCode() != 0)
        GTEST_SKIP() << "mkfs.vfat or a loop device is not available here";
    const QString loop = QString::fromLocal8Bit(losetup.readAllStandardOutput()).trimmed();
    QDir().mkpath(device());
    if (QProcess::execute(QStringLiteral("fusefat"), {QStringLiteral("-o"), QStringLiteral("rw+"), loop, device()})
        != 0) {
        QProcess::execute(QStringLiteral("losetup"), {QStringLiteral("-d"), loop});
        GTEST_SKIP() << "fusefat is not available here";
    }
    m_mounted.prepend(device());
    Tree tree; // few names: the FAT driver cannot grow a folder past its first cluster
    for (int i = 0; i < 8; ++i)
        tree.insert(QStringLiteral("f%1.txt").arg(i), QByteArray::number(i).repeated(100));
    WriteTree(source(), tree);

    ScopedXdgHome home;
    QProcessEnvironment environment = home.environment();
    environment.insert(QStringLiteral("TANNER_VOLUMES_ROOT"), m_volumes.path());
    ASSERT_EQ(RunTanner({QStringLiteral("folders"), QStringLiteral("add"), source()}, environment).exitCode, 0);
    ASSERT_EQ(
        RunTanner({QStringLiteral("folders"), QStringLiteral("remove"), QStringLiteral("home")}, environment).exitCode,
        0);
    const ProcessResult result = RunTanner({QStringLiteral("backup"), QStringLiteral("Dev")}, environment);
    const QString cut = m_images.path() + QStringLiteral("/after-the-cut.img");
    ASSERT_TRUE(QFile::copy(image, cut)); // the disk as the power cut leaves it
    EXPECT_EQ(result.exitCode, 0) << result.out.toStdString() << result.err.toStdString();
    EXPECT_TRUE(result.out.endsWith("Backup succeeded\n")) << result.out.toStdString();

    const QString replugged = m_images.path() + QStringLiteral("/replugged");
    QDir().mkpath(replugged);
    ASSERT_EQ(
        QProcess::execute(QStringLiteral("fusefat"), {QStringLiteral("-o"), QStringLiteral("ro"), cut, replugged}), 0);
    m_mounted.prepend(replugged);
    EXPECT_EQ(ReadTree(replugged + QStringLiteral("/Docs")), tree);
    unmountDevice();
    QProcess::execute(QStringLiteral("losetup"), {QStringLiteral("-d"), loop});
}

// exFAT has no holes: a sparse file takes its whole size there, and the space check counts it so,
// stopping before the first change instead of filling the device part-way.
TEST_F(DeviceTest, ASparseFileTakesItsWholeSizeOnADeviceWithoutHoles)
{
    if (!mountDeviceOfKind(QStringLiteral("exfat-fuse")))
        GTEST_SKIP() << "exfat-fuse cannot make or mount an exFAT image here";
    WriteTree(source(), {{"a.txt", "a"}});
    QFile image(source(QStringLiteral("disk.img")));
    ASSERT_TRUE(image.open(QIODevice::WriteOnly) && image.resize(48 << 20) && image.seek(1 << 20));
    image.write(QByteArray(4096, 'd'));
    image.close();
    analyze();
    RecordingReceiver receiver;
    backup(receiver);
    ASSERT_TRUE(receiver.complete.has_value());
    EXPECT_TRUE(receiver.complete->error.value_or(QString()).startsWith(u"The backup needs 50.3"))
        << receiver.complete->error.value_or(QString()).toStdString();
    EXPECT_TRUE(receiver.statuses.isEmpty()) << "nothing was changed";
    EXPECT_FALSE(QFileInfo::exists(device(QStringLiteral("Docs"))));
}
