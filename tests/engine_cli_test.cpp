// analyze and backup through the real binary: texts, exit statuses, the recorded backup time,
// a device ejected or a run cancelled or killed in the middle of a copy, a backup too big for its
// device, an unprivileged user, and FAT and exFAT devices.
#include "backup/BUTouchedFolders.h"
#include "keelson/KSDayIndex.h"
#include "keelson/KSUserDefaults.h"
#include "tests/EngineTestHelpers.h"

#include <QDeadlineTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QThread>

#include <csignal>
#include <cstdlib>

using namespace tanner::test;

namespace {

QString Text(const QByteArray &bytes)
{
    return QString::fromUtf8(bytes);
}

// Runs a tool without letting it talk; true when it succeeds.
bool Quietly(const QString &program, const QStringList &args)
{
    QProcess process;
    process.start(program, args);
    return process.waitForFinished(60000) && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

class CommandLineTest : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        if (IsSkipped())
            return;
        m_env = m_home.environment();
        m_env.insert(QStringLiteral("TANNER_VOLUMES_ROOT"), m_volumes.path());
    }
    ProcessResult tanner(const QStringList &args) { return RunTanner(args, m_env); }
    // The backup folder is the source alone (the first run also adds the home folder).
    void useSource()
    {
        ASSERT_EQ(tanner({QStringLiteral("folders"), QStringLiteral("add"), source()}).exitCode, 0);
        ASSERT_EQ(tanner({QStringLiteral("folders"), QStringLiteral("remove"), QStringLiteral("home")}).exitCode, 0);
    }
    // Starts a backup and freezes it while it writes the temporary file of a copy.
    void startFrozenInCopy(QProcess &process)
    {
        process.setProcessEnvironment(m_env);
        process.start(QStringLiteral(TANNER_BINARY), {QStringLiteral("backup"), QStringLiteral("Dev")});
        ASSERT_TRUE(process.waitForStarted());
        const QDeadlineTimer deadline(60000);
        while (!deadline.hasExpired()) {
            QStringList partial = QDir(device(QStringLiteral("Docs")))
                                      .entryList({QStringLiteral(".tanner-partial-*")}, QDir::Files | QDir::Hidden);
            partial.removeAll(QLatin1String(kRunMarkName)); // the run's own mark, not a copy
            if (!partial.isEmpty()) {
                ::kill(pid_t(process.processId()), SIGSTOP);
                break;
            }
            QThread::usleep(200);
        }
        ASSERT_FALSE(deadline.hasExpired()) << "the copy never started";
        ASSERT_FALSE(QFile::exists(device(QStringLiteral("Docs/big.bin")))) << "the copy ended too soon";
    }
    void makeBigSource()
    {
        WriteTree(source(), {{"a.txt", "a"}, {"z-after.txt", "z"}});
        QFile big(source(QStringLiteral("big.bin")));
        // Allocated, not sparse: a sparse file's holes would be skipped in no time.
        ASSERT_TRUE(big.open(QIODevice::WriteOnly) && big.resize(qint64(768) << 20));
        ASSERT_EQ(::posix_fallocate(big.handle(), 0, qint64(768) << 20), 0);
    }

    ScopedXdgHome m_home;
    QProcessEnvironment m_env;
};

} // namespace

TEST_F(CommandLineTest, AnalyzeBackupAndRecordTheTime)
{
    mountDevice();
    useSource();
    WriteTree(source(), {{"a.txt", "alpha"}, {"sub/b.txt", "beta"}});
    WriteTree(device(), {{"Docs/old.txt", "old"}});

    ProcessResult result = tanner({QStringLiteral("analyze"), QStringLiteral("Dev")});
    EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_TRUE(
        Text(result.out)
            .startsWith(QStringLiteral(
                "Delete\tfile\t%1/Docs/old.txt\nCopy\tfolder\t%2/sub\nCopy\tfile\t%2/a.txt\nCopy\tfile\t%2/sub/b.txt\n"
                "4 actions, 0.01 KB to copy\nAnalysis complete: 3 to copy (9 bytes), 0 to update, 1 to delete. It fits "
                "on "
                "Dev: ")
                            .arg(device(), source())))
        << result.out.toStdString();

    result = tanner({QStringLiteral("backup"), QStringLiteral("Dev"), QStringLiteral("--json")});
    EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
    const QJsonObject json = QJsonDocument::fromJson(result.out).object();
    EXPECT_EQ(json[u"target"].toString(), QStringLiteral("Dev"));
    EXPECT_EQ(json[u"status"].toString(), QStringLiteral("Backup succeeded"));
    EXPECT_TRUE(json[u"error"].isNull());
    EXPECT_EQ(json[u"totalBytes"].toInt(), 9);
    const QJsonArray transactions = json[u"transactions"].toArray();
    ASSERT_EQ(transactions.size(), 4);
    EXPECT_EQ(transactions[0][u"action"].toString(), QStringLiteral("Delete"));
    EXPECT_TRUE(transactions[0][u"rootPath"].isNull());
    EXPECT_EQ(transactions[3][u"path"].toString(), source(QStringLiteral("sub/b.txt")));
    EXPECT_EQ(transactions[3][u"fileSize"].toInt(), 4);
    EXPECT_TRUE(transactions[3][u"done"].toBool());
    EXPECT_TRUE(transactions[3][u"error"].isNull());

    auto settings = OpenSettingsFile(m_home.settingsFile());
    EXPECT_EQ(ReadIntegerDictionary(*settings, QStringLiteral("twbackup.dates")).value(QStringLiteral("Dev")),
        DayIndexForToday());
    EXPECT_TRUE(ReadIntegerDictionary(*settings, QStringLiteral("twbackup.times")).contains(QStringLiteral("Dev")));
    EXPECT_EQ(ReadStringList(*settings, QStringLiteral("twbackup.recent")), (QStringList {"Dev"}));

    result = tanner({QStringLiteral("analyze"), QStringLiteral("Dev")});
    EXPECT_EQ(Text(result.out), QStringLiteral("The backup device is up to date\n"));

    WriteTree(device(), {{"stray", "x"}});
    result = tanner({QStringLiteral("backup"), QStringLiteral("Dev")});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_TRUE(Text(result.err).contains(QStringLiteral("\n  stray\n")));
    LazyUnmount(device());
    m_mounted.clear();
    result = tanner({QStringLiteral("analyze"), QStringLiteral("Dev")});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(Text(result.err).contains(QStringLiteral("because I can't examine the contents of the disk.")));
}

TEST_F(CommandLineTest, InterruptedCopies)
{
    mountDevice(qint64(1) << 30);
    useSource();
    makeBigSource();

    // Killed in the middle of a copy: no partial file under the real name, and the next backup
    // removes the temporary one.
    {
        QProcess process;
        startFrozenInCopy(process);
        ::kill(pid_t(process.processId()), SIGKILL);
        process.waitForFinished();
        const ProcessResult analysis = tanner({QStringLiteral("analyze"), QStringLiteral("Dev")});
        EXPECT_TRUE(Text(analysis.out)
                        .contains(QStringLiteral("Delete\tfile\t") + device(QStringLiteral("Docs/.tanner-partial-"))));
        EXPECT_FALSE(analysis.out.contains(kRunMarkName)) << "the run's mark is the program's own, not a row";
        EXPECT_EQ(tanner({QStringLiteral("backup"), QStringLiteral("Dev")}).exitCode, 0);
        EXPECT_TRUE(QDir(device(QStringLiteral("Docs")))
                        .entryList({QStringLiteral(".tanner-*")}, QDir::Hidden | QDir::Files)
                        .isEmpty());
        QFile::remove(device(QStringLiteral("Docs/big.bin")));
        QFile::remove(device(QStringLiteral("Docs/z-after.txt")));
    }
    // Cancelled: the copy stops at its next chunk and takes its temporary file with it; nothing
    // after it starts.
    {
        QProcess process;
        startFrozenInCopy(process);
        ::kill(pid_t(process.processId()), SIGINT);
        ::kill(pid_t(process.processId()), SIGCONT);
        ASSERT_TRUE(process.waitForFinished(60000));
        EXPECT_EQ(process.exitCode(), 130);
        EXPECT_TRUE(Text(process.readAllStandardOutput()).endsWith(QStringLiteral("Backup canceled\n")));
        EXPECT_FALSE(QFile::exists(device(QStringLiteral("Docs/big.bin"))));
        EXPECT_TRUE(QDir(device(QStringLiteral("Docs")))
                        .entryList({QStringLiteral(".tanner-*")}, QDir::Hidden | QDir::Files)
                        .isEmpty());
        EXPECT_FALSE(QFile::exists(device(QStringLiteral("Docs/z-after.txt"))));
    }
    // Ejected: the copy stops at once, and nothing lands in the folder left behind.
    {
        QProcess process;
        startFrozenInCopy(process);
        ASSERT_TRUE(LazyUnmount(device()));
        m_mounted.clear();
        ::kill(pid_t(process.processId()), SIGCONT);
        ASSERT_TRUE(process.waitForFinished(60000));
        EXPECT_EQ(process.exitCode(), 2);
        EXPECT_TRUE(Text(process.readAllStandardOutput()).contains(QStringLiteral("1 backup action failed")));
        EXPECT_TRUE(Text(process.readAllStandardError())
                        .contains(QStringLiteral("serious error occurred. The device \"Dev\" has been ejected.")));
        EXPECT_TRUE(QDir(device()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden).isEmpty());
    }
}

// What the user may not read (a file or folder that became root's after a sudo, a file set to mode
// 000 by mistake) fails its row with the reason, and its copy on the device is kept, with all of an
// unreadable folder's mirror; the run never calls that a success.
TEST_F(CommandLineTest, UnreadableSourcesFailTheirRowsAndKeepTheirCopies)
{
    if (QProcess::execute(QStringLiteral("setpriv"), {QStringLiteral("--reuid=nobody"), QStringLiteral("true")}) != 0)
        GTEST_SKIP() << "setpriv cannot run a program as nobody here";
    mountDevice(64 << 20, QStringLiteral("mode=0777"));
    const Tree tree = {{"open.txt", "o"}, {"secret.txt", "s"}, {"mistake.txt", "m"}, {"private/inner.txt", "i"},
        {"private/deeper/more.txt", "d"}};
    WriteTree(source(), tree);
    // Everything the user runs in must be theirs to read and write.
    for (const QString &path : {m_home.path(), m_sources.path()})
        QProcess::execute(QStringLiteral("chown"), {QStringLiteral("-R"), QStringLiteral("nobody:nogroup"), path});
    ::chmod(FileNameToBytes(m_volumes.path()).constData(), 0755);
    auto asNobody = [this](const QStringList &args) {
        QProcess process;
        process.setProcessEnvironment(m_env);
        process.start(QStringLiteral("setpriv"),
            QStringList {QStringLiteral("--reuid=nobody"), QStringLiteral("--regid=nogroup"),
                QStringLiteral("--clear-groups"), QStringLiteral(TANNER_BINARY)}
                + args);
        process.waitForFinished(60000);
        return ProcessResult {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
    };
    ASSERT_EQ(asNobody({QStringLiteral("folders"), QStringLiteral("add"), source()}).exitCode, 0);
    ASSERT_EQ(asNobody({QStringLiteral("folders"), QStringLiteral("remove"), QStringLiteral("home")}).exitCode, 0);
    ProcessResult result = asNobody({QStringLiteral("backup"), QStringLiteral("Dev")});
    ASSERT_EQ(result.exitCode, 0) << result.out.toStdString() << result.err.toStdString();

    for (const char *name : {"secret.txt", "private"}) {
        const QByteArray path = FileNameToBytes(source(QString::fromUtf8(name)));
        ASSERT_EQ(::chown(path.constData(), 0, 0), 0);
        ASSERT_EQ(::chmod(path.constData(), 0700), 0);
    }
    ASSERT_EQ(::chmod(FileNameToBytes(source(QStringLiteral("mistake.txt"))).constData(), 0), 0);
    Tree expected = tree;
    expected.insert(QStringLiteral("private/"), {});
    expected.insert(QStringLiteral("private/deeper/"), {});
    for (int run = 0; run < 2; ++run) {
        result = asNobody({QStringLiteral("backup"), QStringLiteral("Dev")});
        const QString out = Text(result.out);
        EXPECT_NE(result.exitCode, 0) << out.toStdString();
        EXPECT_TRUE(out.endsWith(QStringLiteral("3 backup actions failed\n"))) << out.toStdString();
        for (const char *name : {"secret.txt", "mistake.txt"}) {
            EXPECT_TRUE(out.contains(source(QString::fromUtf8(name))
                + QStringLiteral("\tThe file can't be read at the source (Permission denied). Its copy on the device "
                                 "is kept.")))
                << out.toStdString();
        }
        EXPECT_TRUE(out.contains(source(QStringLiteral("private"))
            + QStringLiteral("\tThe folder can't be read at the source (Permission denied). Its copy on the device is "
                             "kept.")))
            << out.toStdString();
        EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))), expected);
    }
}

// A user at the limit of their processes: no helper thread and not even the job's own thread can
// be started. The analysis and the backup must still run, on the one thread there is.
TEST_F(CommandLineTest, BacksUpWithNoThreadToSpare)
{
    if (QProcess::execute(QStringLiteral("setpriv"), {QStringLiteral("--reuid=nobody"), QStringLiteral("true")}) != 0)
        GTEST_SKIP() << "setpriv cannot run a program as nobody here";
    mountDevice(64 << 20, QStringLiteral("mode=0777"));
    Tree tree = {{"sub/inner.txt", "i"}};
    for (int i = 0; i < 1100; ++i) // more than one block of a large folder
        tree.insert(QStringLiteral("f%1.txt").arg(i), QByteArray::number(i));
    WriteTree(source(), tree);
    for (const QString &path : {m_home.path(), m_sources.path()})
        QProcess::execute(QStringLiteral("chown"), {QStringLiteral("-R"), QStringLiteral("nobody:nogroup"), path});
    ::chmod(FileNameToBytes(m_volumes.path()).constData(), 0755);
    // The leak checker stops the program with a thread of its own at exit, which it cannot have.
    QProcessEnvironment env = m_env;
    env.insert(
        QStringLiteral("ASAN_OPTIONS"), env.value(QStringLiteral("ASAN_OPTIONS")) + QStringLiteral(":detect_leaks=0"));
    auto asNobody = [&env](const QStringList &args) {
        QProcess process;
        process.setProcessEnvironment(env);
        process.start(QStringLiteral("setpriv"),
            QStringList {QStringLiteral("--reuid=nobody"), QStringLiteral("--regid=nogroup"),
                QStringLiteral("--clear-groups"), QStringLiteral("prlimit"), QStringLiteral("--nproc=1:1"),
                QStringLiteral(TANNER_BINARY)}
                + args);
        process.waitForFinished(60000);
        return ProcessResult {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
    };
    ASSERT_EQ(asNobody({QStringLiteral("folders"), QStringLiteral("add"), source()}).exitCode, 0);
    ASSERT_EQ(asNobody({QStringLiteral("folders"), QStringLiteral("remove"), QStringLiteral("home")}).exitCode, 0);
    const ProcessResult result = asNobody({QStringLiteral("backup"), QStringLiteral("Dev")});
    EXPECT_EQ(result.exitCode, 0) << result.out.toStdString() << result.err.toStdString();
    EXPECT_TRUE(Text(result.out).endsWith(QStringLiteral("Backup succeeded\n"))) << result.out.toStdString();
    tree.insert(QStringLiteral("sub/"), {});
    EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))), tree);
}

TEST_F(CommandLineTest, FatAndExfatDevicesStayUpToDate)
{
    struct Kind {
        const char *name;
        QStringList make;
        std::function<bool(const QString &image, const QString &mountPoint)> mount;
    };
    QString loop;
    const QList<Kind> kinds = {
        {"fusefat", {QStringLiteral("mkfs.vfat")},
            [](const QString &image, const QString &mountPoint) {
                return Quietly(
                    QStringLiteral("fusefat"), {QStringLiteral("-o"), QStringLiteral("rw+"), image, mountPoint});
            }},
        {"exfat-fuse", {QStringLiteral("mkfs.exfat")},
            [&loop](const QString &image, const QString &mountPoint) {
                QProcess losetup;
                losetup.start(QStringLiteral("losetup"), {QStringLiteral("-f"), QStringLiteral("--show"), image});
                losetup.waitForFinished();
                loop = Text(losetup.readAllStandardOutput()).trimmed();
                return !loop.isEmpty() && Quietly(QStringLiteral("mount.exfat-fuse"), {loop, mountPoint});
            }},
    };
    useSource();
    WriteTree(source(), {{"odd.txt", "odd second"}, {"folder/even.txt", "even second"}});
    SetModificationTime(source(QStringLiteral("odd.txt")), 1600000001);
    SetModificationTime(source(QStringLiteral("folder/even.txt")), 1600000002);
    int tested = 0;
    for (const Kind &kind : kinds) {
        SCOPED_TRACE(kind.name);
        const QString image = m_sources.path() + QStringLiteral("/device.img");
        QFile file(image);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.resize(64 << 20));
        file.close();
        QDir().mkpath(device());
        if (!Quietly(kind.make[0], {image}) || !kind.mount(image, device())) {
            std::cout << "[ NOT HERE ] " << kind.name << ": cannot make or mount the file system here\n";
            continue;
        }
        ++tested;
        m_mounted.prepend(device());
        ProcessResult result = tanner({QStringLiteral("backup"), QStringLiteral("Dev")});
        EXPECT_EQ(result.exitCode, 0) << result.out.toStdString() << result.err.toStdString();
        result = tanner({QStringLiteral("analyze"), QStringLiteral("Dev")});
        EXPECT_EQ(Text(result.out), QStringLiteral("The backup device is up to date\n")) << result.err.toStdString();
        EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))).value(QStringLiteral("folder/even.txt")),
            QByteArray("even second"));
        Quietly(QStringLiteral("umount"), {device()});
        m_mounted.clear();
        if (!loop.isEmpty())
            Quietly(QStringLiteral("losetup"), {QStringLiteral("-d"), loop});
        QFile::remove(image);
    }
    if (tested == 0)
        GTEST_SKIP() << "no FAT or exFAT file system can be made or mounted here";
}

// A FAT device's limits are named as what they are. Dates it cannot store are written as its
// nearest ones and compared so: such files are copied once, and a later change still shows. A file
// of 4 GiB fails alone; a sparse file is counted whole, as FAT writes its holes out.
TEST_F(CommandLineTest, FatDeviceLimitsAreNamed)
{
    useSource();
    WriteTree(source(), {{"1970.txt", "old"}, {"2200.txt", "late"}});
    SetModificationTime(source(QStringLiteral("1970.txt")), 86400);
    SetModificationTime(source(QStringLiteral("2200.txt")), 7258118400);
    if (!MountFuseImage(QStringLiteral("fusefat"), m_sources.path() + QStringLiteral("/device.img"), 2, device()))
        GTEST_SKIP() << "fusefat cannot make or mount a FAT image here";
    m_mounted.prepend(device());
    ProcessResult result = tanner({QStringLiteral("backup"), QStringLiteral("Dev")});
    EXPECT_EQ(result.exitCode, 0) << result.out.toStdString() << result.err.toStdString();
    result = tanner({QStringLiteral("analyze"), QStringLiteral("Dev")});
    EXPECT_EQ(Text(result.out), QStringLiteral("The backup device is up to date\n")) << result.err.toStdString();
    // 1980-01-01 and 2107-12-31 in any zone.
    EXPECT_LT(std::abs(ModificationTime(device(QStringLiteral("Docs/1970.txt"))) - 315532800), 86400);
    EXPECT_LT(std::abs(ModificationTime(device(QStringLiteral("Docs/2200.txt"))) - 4354732800), 86400);
    SetModificationTime(source(QStringLiteral("1970.txt")), 1700000000);
    EXPECT_TRUE(Text(tanner({QStringLiteral("analyze"), QStringLiteral("Dev")}).out)
                    .startsWith(QStringLiteral("Copy\tfile\t%1\n").arg(source(QStringLiteral("1970.txt")))));
    SetModificationTime(source(QStringLiteral("1970.txt")), 86400);

    auto sparse = [this](const char *name, qint64 size) {
        QFile file(source(QString::fromLatin1(name)));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.resize(size) && file.seek(size - 4096));
        ASSERT_EQ(file.write(QByteArray(4096, 'd')), 4096);
    };
    sparse("huge.bin", qint64(4) << 30);
    result = tanner({QStringLiteral("backup"), QStringLiteral("Dev")});
    EXPECT_EQ(result.exitCode, 1) << result.out.toStdString() << result.err.toStdString();
    EXPECT_TRUE(Text(result.out)
                    .contains(QStringLiteral("Copy\tfile\t%1\t%2\n")
                                  .arg(source(QStringLiteral("huge.bin")), BUError::fileTooBig().failureReason)))
        << result.out.toStdString();
    QFile::remove(source(QStringLiteral("huge.bin")));

    // FAT has no holes: the space check counts the file whole and stops before the first change.
    sparse("holes.bin", 3 << 20);
    result = tanner({QStringLiteral("backup"), QStringLiteral("Dev")});
    EXPECT_EQ(result.exitCode, 2) << result.out.toStdString();
    EXPECT_TRUE(Text(result.err).contains(QStringLiteral("The backup needs 3.1"))) << result.err.toStdString();
    EXPECT_TRUE(Text(result.err).contains(QStringLiteral("Nothing was changed on the device.")))
        << result.err.toStdString();
    EXPECT_FALSE(QFile::exists(device(QStringLiteral("Docs/holes.bin"))));
}

// A run killed after it changed a folder's contents leaves that folder with the run's time and
// nothing else for the next analysis to find there: the next backup still gives every mirror
// folder its source's time and mode back.
TEST_F(CommandLineTest, AKilledRunsFolderTimesComeBack)
{
    mountDevice(qint64(1) << 30);
    useSource();
    makeBigSource();
    WriteTree(source(), {{"aa/f.txt", "f"}, {"sub/inner.txt", "i"}});
    ASSERT_EQ(::chmod(FileNameToBytes(source(QStringLiteral("aa"))).constData(), 0750), 0);
    SetModificationTime(source(QStringLiteral("aa")), 1500000000);
    SetModificationTime(source(QStringLiteral("sub")), 1500000002);
    SetModificationTime(source(), 1500000004);
    {
        QProcess process;
        startFrozenInCopy(process);
        ::kill(pid_t(process.processId()), SIGKILL);
        process.waitForFinished();
    }
    ASSERT_NE(ModificationTime(device(QStringLiteral("Docs/aa"))), 1500000000) << "the run changed the folder";
    const ProcessResult result = tanner({QStringLiteral("backup"), QStringLiteral("Dev")});
    EXPECT_EQ(result.exitCode, 0) << result.out.toStdString() << result.err.toStdString();
    EXPECT_EQ(ModificationTime(device(QStringLiteral("Docs/aa"))), 1500000000);
    EXPECT_EQ(Mode(device(QStringLiteral("Docs/aa"))), 0750U);
    EXPECT_EQ(ModificationTime(device(QStringLiteral("Docs/sub"))), 1500000002);
    EXPECT_EQ(ModificationTime(device(QStringLiteral("Docs"))), 1500000004);
    EXPECT_EQ(Text(tanner({QStringLiteral("analyze"), QStringLiteral("Dev")}).out),
        QStringLiteral("The backup device is up to date\n"));
    EXPECT_TRUE(QDir(device(QStringLiteral("Docs")))
                    .entryList({QStringLiteral(".tanner-*")}, QDir::Hidden | QDir::Files)
                    .isEmpty());
}

// For a user who is not root: a read-only source folder gets a read-only mirror, and later runs
// still add, replace and remove inside it; a mode-000 folder to delete goes as well.
TEST_F(CommandLineTest, ReadOnlyFoldersStayWritableForTheBackupAlone)
{
    if (QProcess::execute(QStringLiteral("setpriv"), {QStringLiteral("--reuid=nobody"), QStringLiteral("true")}) != 0)
        GTEST_SKIP() << "setpriv cannot run a program as nobody here";
    mountDevice(64 << 20, QStringLiteral("mode=0777"));
    WriteTree(source(), {{"ro/a.txt", "a"}, {"ro/inner/c.txt", "c"}, {"gone/f.txt", "f"}});
    for (const QString &path : {m_home.path(), m_sources.path()})
        QProcess::execute(QStringLiteral("chown"), {QStringLiteral("-R"), QStringLiteral("nobody:nogroup"), path});
    ::chmod(FileNameToBytes(m_volumes.path()).constData(), 0755);
    auto chmodSource = [this](const char *relative, mode_t mode) {
        ASSERT_EQ(::chmod(FileNameToBytes(source(QString::fromUtf8(relative))).constData(), mode), 0);
    };
    chmodSource("ro/inner", 0555);
    chmodSource("ro", 0555);
    auto asNobody = [this](const QStringList &args) {
        QProcess process;
        process.setProcessEnvironment(m_env);
        process.start(QStringLiteral("setpriv"),
            QStringList {QStringLiteral("--reuid=nobody"), QStringLiteral("--regid=nogroup"),
                QStringLiteral("--clear-groups"), QStringLiteral(TANNER_BINARY)}
                + args);
        process.waitForFinished(60000);
        return ProcessResult {process.exitCode(), process.readAllStandardOutput(), process.readAllStandardError()};
    };
    ASSERT_EQ(asNobody({QStringLiteral("folders"), QStringLiteral("add"), source()}).exitCode, 0);
    ASSERT_EQ(asNobody({QStringLiteral("folders"), QStringLiteral("remove"), QStringLiteral("home")}).exitCode, 0);
    ProcessResult result = asNobody({QStringLiteral("backup"), QStringLiteral("Dev")});
    ASSERT_EQ(result.exitCode, 0) << result.out.toStdString() << result.err.toStdString();
    EXPECT_EQ(Mode(device(QStringLiteral("Docs/ro"))), 0555U);
    EXPECT_EQ(Mode(device(QStringLiteral("Docs/ro/inner"))), 0555U);

    // Root changes the read-only folders, and the mirror of "gone" is closed to everyone.
    chmodSource("ro", 0755);
    chmodSource("ro/inner", 0755);
    QFile::remove(source(QStringLiteral("ro/a.txt")));
    WriteTree(source(), {{"ro/b.txt", "b"}, {"ro/inner/c.txt", "changed"}});
    SetModificationTime(source(QStringLiteral("ro/inner/c.txt")), QDateTime::currentSecsSinceEpoch() + 100);
    QProcess::execute(QStringLiteral("chown"), {QStringLiteral("-R"), QStringLiteral("nobody:nogroup"), source()});
    chmodSource("ro/inner", 0555);
    chmodSource("ro", 0555);
    QDir(source(QStringLiteral("gone"))).removeRecursively();
    ASSERT_EQ(::chmod(FileNameToBytes(device(QStringLiteral("Docs/gone"))).constData(), 0), 0);
    result = asNobody({QStringLiteral("backup"), QStringLiteral("Dev")});
    EXPECT_EQ(result.exitCode, 0) << result.out.toStdString() << result.err.toStdString();
    EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))),
        (Tree {{"ro/", {}}, {"ro/b.txt", "b"}, {"ro/inner/", {}}, {"ro/inner/c.txt", "changed"}}));
    EXPECT_EQ(Mode(device(QStringLiteral("Docs/ro"))), 0555U);
    EXPECT_EQ(Mode(device(QStringLiteral("Docs/ro/inner"))), 0555U);
    result = asNobody({QStringLiteral("analyze"), QStringLiteral("Dev")});
    EXPECT_EQ(Text(result.out), QStringLiteral("The backup device is up to date\n"));
}

TEST_F(CommandLineTest, AFailedActionIsListedAndCounted)
{
    mountDevice();
    useSource();
    WriteTree(source(), {{"a.txt", "a"}});
    // Removing a folder never crosses into another file system mounted inside it.
    WriteTree(device(), {{"Docs/old/inner/", {}}});
    ASSERT_TRUE(MountTmpfs(device(QStringLiteral("Docs/old/inner"))));
    m_mounted.prepend(device(QStringLiteral("Docs/old/inner")));
    WriteTree(device(QStringLiteral("Docs/old/inner")), {{"kept.txt", "k"}});

    const ProcessResult result = tanner({QStringLiteral("backup"), QStringLiteral("Dev")});
    EXPECT_EQ(result.exitCode, 1) << result.err.toStdString();
    EXPECT_TRUE(Text(result.out)
                    .contains(QStringLiteral("Delete\tfolder\t%1\t%2\n")
                                  .arg(device(QStringLiteral("Docs/old")), BUError::otherFileSystem().failureReason)));
    EXPECT_TRUE(Text(result.out).endsWith(QStringLiteral("1 backup action failed\n")));
    EXPECT_TRUE(QFile::exists(device(QStringLiteral("Docs/old/inner/kept.txt"))));
    EXPECT_EQ(Mode(device(QStringLiteral("Docs/old/inner"))), 0755u) << "nothing changed on the other file system";
    EXPECT_TRUE(QFile::exists(device(QStringLiteral("Docs/a.txt"))));
    auto settings = OpenSettingsFile(m_home.settingsFile());
    EXPECT_FALSE(ReadIntegerDictionary(*settings, QStringLiteral("twbackup.dates")).contains(QStringLiteral("Dev")));
}

TEST_F(CommandLineTest, RefusesToEmptyMostOfTheDeviceWithoutYes)
{
    mountDevice();
    useSource();
    Tree files;
    for (int i = 0; i < 12; ++i)
        files.insert(QStringLiteral("f%1.txt").arg(i).toUtf8(), "x");
    WriteTree(source(), files);
    ASSERT_EQ(tanner({QStringLiteral("backup"), QStringLiteral("Dev")}).exitCode, 0);

    // The source folder emptied (or a disk not mounted under it): all of its mirror would go.
    QDir(source()).removeRecursively();
    QDir().mkpath(source());
    ProcessResult result = tanner({QStringLiteral("backup"), QStringLiteral("Dev")});
    EXPECT_EQ(result.exitCode, 2);
    const QString err = Text(result.err);
    EXPECT_TRUE(err.contains(QStringLiteral("The backup folder \"%1\" is empty, so this backup would delete "
                                            "everything in its mirror on \"Dev\".")
                                 .arg(source())))
        << err.toStdString();
    EXPECT_TRUE(err.contains(QStringLiteral("Most go from \"Docs\" (12)."))) << err.toStdString();
    EXPECT_TRUE(err.contains(QStringLiteral("--yes")));
    EXPECT_TRUE(QFile::exists(device(QStringLiteral("Docs/f3.txt"))));

    result = tanner({QStringLiteral("backup"), QStringLiteral("Dev"), QStringLiteral("--yes")});
    EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_FALSE(QFile::exists(device(QStringLiteral("Docs/f3.txt"))));
}

TEST_F(CommandLineTest, ABackupThatCannotFitChangesNothing)
{
    mountDevice(2 << 20);
    useSource();
    WriteTree(source(), {{"old.bin", QByteArray(1200000, 'o')}});
    ASSERT_EQ(tanner({QStringLiteral("backup"), QStringLiteral("Dev")}).exitCode, 0);

    // Too big by the sizes alone, but the Delete that goes first makes room.
    QFile::remove(source(QStringLiteral("old.bin")));
    WriteTree(source(), {{"new.bin", QByteArray(1500000, 'n')}});
    ProcessResult result = tanner({QStringLiteral("backup"), QStringLiteral("Dev")});
    EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_TRUE(QFile::exists(device(QStringLiteral("Docs/new.bin"))));

    WriteTree(source(), {{"huge.bin", QByteArray(3000000, 'h')}});
    QFile::remove(source(QStringLiteral("new.bin")));
    result = tanner({QStringLiteral("backup"), QStringLiteral("Dev")});
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(Text(result.out).endsWith(QStringLiteral("Backup to Dev failed.\n"))) << result.out.toStdString();
    const QString error = Text(result.err);
    EXPECT_TRUE(error.contains(QStringLiteral("The backup needs 1."))
        && error.contains(QStringLiteral("on the device \"Dev\", which has only "))
        && error.contains(QStringLiteral("KB free.")))
        << error.toStdString();
    EXPECT_TRUE(QFile::exists(device(QStringLiteral("Docs/new.bin")))); // not even the Delete
    EXPECT_EQ(QDir(device(QStringLiteral("Docs"))).entryList(QDir::Files | QDir::Hidden), QStringList {"new.bin"});
}
