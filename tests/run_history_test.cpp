// Runs on record: real backups through the real binary (a success, a failed action, a cancel, a
// device ejected in the middle of a copy) found in the program's log, in `history --json` and in
// the text a problem report gathers, each read by a new process; and the history file itself:
// trimmed per device, kept aside when damaged, and written by many at once without losing a run.
#include "backup/BUError.h"
#include "backup/BURunHistory.h"
#include "backup/BUTouchedFolders.h"
#include "tests/EngineTestHelpers.h"

#include <QDeadlineTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QThread>

#include <csignal>
#include <thread>

using namespace tanner::test;

namespace {

QString Text(const QByteArray &bytes)
{
    return QString::fromUtf8(bytes);
}

QByteArray ReadBytes(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void WriteBytes(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(bytes);
}

BURunRecord MakeRun(const QString &device, const QString &message, int failures = 0)
{
    BURunRecord run;
    run.device = device;
    run.started = QDateTime::currentDateTime();
    run.ended = run.started.addMSecs(1500);
    run.outcome = failures ? BURunOutcome::kFailedItems : BURunOutcome::kSucceeded;
    run.message = message;
    run.backupRan = true;
    run.failed = failures;
    for (int i = 0; i < failures; ++i)
        run.failures.append({QStringLiteral("Copy"), QStringLiteral("/src/f%1").arg(i), QStringLiteral("No room")});
    return run;
}

QStringList Messages(const QList<BURunRecord> &runs)
{
    QStringList messages;
    for (const BURunRecord &run : runs)
        messages.append(run.message);
    return messages;
}

// Files beside the history: the history itself, its lock, and what was kept aside.
QStringList StateFiles(const QString &path)
{
    return QDir(QFileInfo(path).absolutePath()).entryList({QStringLiteral("backup-history*")}, QDir::Files);
}

class RunHistoryFile : public ::testing::Test {
protected:
    ScopedXdgHome home;
    QString path = BURunHistory::historyPath();
};

class RunHistoryOfRealBackups : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        if (IsSkipped())
            return;
        m_env = m_home.environment();
        m_env.insert(QStringLiteral("TANNER_VOLUMES_ROOT"), m_volumes.path());
        ASSERT_EQ(tanner({QStringLiteral("folders"), QStringLiteral("add"), source()}).exitCode, 0);
        ASSERT_EQ(tanner({QStringLiteral("folders"), QStringLiteral("remove"), QStringLiteral("home")}).exitCode, 0);
    }
    ProcessResult tanner(const QStringList &args) { return RunTanner(args, m_env); }
    QJsonArray historyRuns()
    {
        const ProcessResult result
            = tanner({QStringLiteral("history"), QStringLiteral("Dev"), QStringLiteral("--json")});
        EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
        return QJsonDocument::fromJson(result.out).object()[u"runs"].toArray();
    }
    QString logText() const
    {
        return Text(ReadBytes(m_home.path() + QStringLiteral("/state/Tannerwick/com.tannerwick.backup.log")));
    }
    // Starts a backup and stops the process while it writes the temporary file of a big copy.
    void startFrozenInCopy(QProcess &process)
    {
        process.setProcessEnvironment(m_env);
        process.start(QStringLiteral(TANNER_BINARY), {QStringLiteral("backup"), QStringLiteral("Dev")});
        ASSERT_TRUE(process.waitForStarted());
        const QDeadlineTimer deadline(60000);
        while (!deadline.hasExpired()) {
            QStringList partial = QDir(device(QStringLiteral("Docs")))
                                      .entryList({QStringLiteral(".tanner-partial-*")}, QDir::Files | QDir::Hidden);
            partial.removeAll(QLatin1String(kRunMarkName));
            if (!partial.isEmpty()) {
                ::kill(pid_t(process.processId()), SIGSTOP);
                break;
            }
            QThread::usleep(200);
        }
        ASSERT_FALSE(deadline.hasExpired()) << "the copy never started";
    }

    ScopedXdgHome m_home;
    QProcessEnvironment m_env;
};

} // namespace

TEST_F(RunHistoryOfRealBackups, EveryRunIsInTheLogTheHistoryAndTheReport)
{
    mountDevice(qint64(1) << 30);
    WriteTree(source(), {{"a.txt", "alpha"}});

    // 1. A success.
    ProcessResult result = tanner({QStringLiteral("backup"), QStringLiteral("Dev")});
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    QJsonArray runs = historyRuns();
    ASSERT_EQ(runs.size(), 1);
    EXPECT_EQ(runs[0][u"outcome"].toString(), QStringLiteral("succeeded"));
    EXPECT_EQ(runs[0][u"message"].toString(), QStringLiteral("Backup succeeded"));
    EXPECT_EQ(runs[0][u"kind"].toString(), QStringLiteral("backup"));
    EXPECT_EQ(runs[0][u"folders"].toArray().first().toString(), source());
    EXPECT_EQ(runs[0][u"done"][u"copies"].toInt(), 2); // the mirror folder and the file
    EXPECT_EQ(runs[0][u"done"][u"bytes"].toInt(), 5);
    EXPECT_EQ(runs[0][u"failed"].toInt(), 0);
    // An analysis alone is a run of its own.
    ASSERT_EQ(tanner({QStringLiteral("analyze"), QStringLiteral("Dev")}).exitCode, 0);
    runs = historyRuns();
    ASSERT_EQ(runs.size(), 2);
    EXPECT_EQ(runs[0][u"kind"].toString(), QStringLiteral("analysis"));
    EXPECT_EQ(runs[0][u"outcome"].toString(), QStringLiteral("up-to-date"));
    EXPECT_EQ(runs[0][u"message"].toString(), QStringLiteral("The backup device is up to date"));

    // 2. A failed action: a folder with another file system mounted inside cannot be removed.
    const QString inner = device(QStringLiteral("Docs/old/inner"));
    WriteTree(device(), {{"Docs/old/inner/", {}}});
    ASSERT_TRUE(MountTmpfs(inner));
    m_mounted.prepend(inner);
    result = tanner({QStringLiteral("backup"), QStringLiteral("Dev")});
    ASSERT_EQ(result.exitCode, 1) << result.err.toStdString();
    const QString reason = BUError::otherFileSystem().failureReason;
    runs = historyRuns();
    ASSERT_EQ(runs.size(), 3);
    EXPECT_EQ(runs[0][u"outcome"].toString(), QStringLiteral("failed-items"));
    EXPECT_EQ(runs[0][u"message"].toString(), QStringLiteral("1 backup action failed"));
    EXPECT_EQ(runs[0][u"failed"].toInt(), 1);
    ASSERT_EQ(runs[0][u"failures"].toArray().size(), 1);
    EXPECT_EQ(runs[0][u"failures"][0][u"action"].toString(), QStringLiteral("Delete"));
    EXPECT_EQ(runs[0][u"failures"][0][u"path"].toString(), device(QStringLiteral("Docs/old")));
    EXPECT_EQ(runs[0][u"failures"][0][u"reason"].toString(), reason);
    ASSERT_TRUE(LazyUnmount(inner));
    m_mounted.removeAll(inner);
    QDir(device(QStringLiteral("Docs/old"))).removeRecursively();

    // 3. A cancel in the middle of a big copy.
    QFile big(source(QStringLiteral("big.bin")));
    ASSERT_TRUE(big.open(QIODevice::WriteOnly) && big.resize(qint64(768) << 20));
    ASSERT_EQ(::posix_fallocate(big.handle(), 0, qint64(768) << 20), 0);
    big.close();
    {
        QProcess process;
        startFrozenInCopy(process);
        ::kill(pid_t(process.processId()), SIGINT);
        ::kill(pid_t(process.processId()), SIGCONT);
        ASSERT_TRUE(process.waitForFinished(60000));
        ASSERT_EQ(process.exitCode(), 130);
    }
    runs = historyRuns();
    ASSERT_EQ(runs.size(), 4);
    EXPECT_EQ(runs[0][u"outcome"].toString(), QStringLiteral("canceled"));
    EXPECT_EQ(runs[0][u"message"].toString(), QStringLiteral("Backup canceled"));
    EXPECT_EQ(runs[0][u"notTried"].toInt(), 1) << "the big copy was cut short and reported by no one";
    EXPECT_TRUE(runs[1][u"failures"].toArray().isEmpty()) << "only a device's last run keeps its failures";
    EXPECT_EQ(runs[1][u"failed"].toInt(), 1);

    // 4. The device ejected during the copy: the serious error, in the words the user saw.
    {
        QProcess process;
        startFrozenInCopy(process);
        ASSERT_TRUE(LazyUnmount(device()));
        m_mounted.clear();
        ::kill(pid_t(process.processId()), SIGCONT);
        ASSERT_TRUE(process.waitForFinished(60000));
        ASSERT_EQ(process.exitCode(), 2);
    }
    const QString ejected = QStringLiteral(
        "The backup was stopped because a serious error occurred. The device \"Dev\" has been ejected.");
    runs = historyRuns();
    ASSERT_EQ(runs.size(), 5);
    EXPECT_EQ(runs[0][u"outcome"].toString(), QStringLiteral("serious-error"));
    EXPECT_EQ(runs[0][u"detail"].toString(), ejected);
    EXPECT_EQ(runs[0][u"failed"].toInt(), 1);
    EXPECT_EQ(runs[0][u"failures"][0][u"path"].toString(), source(QStringLiteral("big.bin")));

    // The log of every run, read back as the file the processes left.
    const QString log = logText();
    EXPECT_EQ(log.count(QStringLiteral("Backup to \"Dev\" started with the backup folders ") + source()), 4)
        << log.toStdString();
    EXPECT_TRUE(log.contains(QStringLiteral("Backup to \"Dev\" ended (succeeded) after "))) << log.toStdString();
    EXPECT_TRUE(log.contains(QStringLiteral("Analysis of \"Dev\" ended (up-to-date) after ")));
    EXPECT_TRUE(log.contains(
        QStringLiteral("Backup to \"Dev\": Delete %1 failed: %2").arg(device(QStringLiteral("Docs/old")), reason)));
    EXPECT_TRUE(log.contains(QStringLiteral("ended (failed-items)")));
    EXPECT_TRUE(log.contains(QStringLiteral(": 1 backup action failed; 0 copied, 0 updated, 0 deleted, 1 failed")));
    EXPECT_TRUE(
        log.contains(QStringLiteral("ended (canceled)")) && log.contains(QStringLiteral(": Backup canceled; ")));
    EXPECT_TRUE(log.contains(u' ' + ejected + u';')) << log.toStdString();

    // The problem report gathers the same lines and the history.
    result = tanner({QStringLiteral("logs")});
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    const QString report = Text(result.out);
    EXPECT_TRUE(report.contains(
        QStringLiteral("Backup to \"Dev\": Delete %1 failed: %2").arg(device(QStringLiteral("Docs/old")), reason)));
    EXPECT_TRUE(report.contains(ejected));
    const qsizetype history = report.indexOf(QStringLiteral("History of runs, newest first:\n"));
    ASSERT_GE(history, 0) << report.toStdString();
    const QStringList lines = report.mid(history).split(u'\n');
    ASSERT_GE(lines.size(), 7);
    EXPECT_TRUE(lines[1].contains(QStringLiteral("  Dev  Backup  Serious error: 1 backup action failed. ") + ejected))
        << lines[1].toStdString();
    EXPECT_EQ(lines[2],
        QStringLiteral("    Copy %1: %2")
            .arg(source(QStringLiteral("big.bin")), runs[0][u"failures"][0][u"reason"].toString()));
    EXPECT_TRUE(lines[3].contains(QStringLiteral("  Dev  Backup  Canceled: Backup canceled (")))
        << lines[3].toStdString();
    EXPECT_TRUE(lines[4].contains(QStringLiteral("  Dev  Backup  Failed items: 1 backup action failed (")));
    EXPECT_TRUE(lines[5].contains(QStringLiteral("  Dev  Analysis  Up to date: The backup device is up to date (")));
    EXPECT_TRUE(lines[6].contains(QStringLiteral("  Dev  Backup  Succeeded: Backup succeeded (")));

    // The text form for people, and a device with no runs.
    result = tanner({QStringLiteral("history")});
    EXPECT_EQ(Text(result.out).split(u'\n', Qt::SkipEmptyParts).size(), 6); // five runs, one failure
    EXPECT_EQ(Text(tanner({QStringLiteral("history"), QStringLiteral("Other")}).out),
        QStringLiteral("No runs to \"Other\" on record\n"));
}

TEST_F(RunHistoryFile, KeepsTheLastHundredRunsOfEachDeviceAndTheLastRunsFailures)
{
    for (int i = 0; i < 103; ++i)
        ASSERT_TRUE(
            BURunHistory::append(MakeRun(QStringLiteral("A"), QStringLiteral("A%1").arg(i), i == 102 ? 250 : 1)));
    ASSERT_TRUE(BURunHistory::append(MakeRun(QStringLiteral("B"), QStringLiteral("B0"), 2)));
    const BURunHistory::Contents contents = BURunHistory::load();
    EXPECT_FALSE(contents.damaged);
    ASSERT_EQ(contents.runs.size(), 101);
    EXPECT_EQ(contents.runs.first().message, QStringLiteral("A3"));
    const QList<BURunRecord> a = BURunHistory::newestFirst(contents.runs, QStringLiteral("A"));
    ASSERT_EQ(a.size(), 100);
    EXPECT_EQ(a[0].message, QStringLiteral("A102"));
    EXPECT_EQ(a[0].failures.size(), BURunHistory::kFailuresKept);
    EXPECT_EQ(a[0].failuresLeftOut, 50);
    EXPECT_TRUE(a[1].failures.isEmpty());
    EXPECT_EQ(a[1].failed, 1);
    EXPECT_EQ(BURunHistory::newestFirst(contents.runs, QStringLiteral("B")).value(0).failures.size(), 2);
    // Written whole: no temporary file is left beside it.
    EXPECT_EQ(StateFiles(path), (QStringList {"backup-history.json", "backup-history.json.lock"}));
}

TEST_F(RunHistoryFile, ADamagedFileIsKeptAsideAndANewOneStarted)
{
    WriteBytes(path, "{\"version\": 1, \"runs\": [{\"device\": \"Dev\"");
    BURunHistory::Contents contents = BURunHistory::load();
    EXPECT_TRUE(contents.damaged);
    EXPECT_TRUE(contents.runs.isEmpty());
    ProcessResult shown = RunTanner({QStringLiteral("history")}, home.environment());
    EXPECT_EQ(shown.exitCode, 0);
    EXPECT_TRUE(Text(shown.err).contains(QStringLiteral("could not be read whole"))) << shown.err.toStdString();
    EXPECT_EQ(Text(shown.out), QStringLiteral("No runs on record\n"));

    ASSERT_TRUE(BURunHistory::append(MakeRun(QStringLiteral("Dev"), QStringLiteral("first"))));
    contents = BURunHistory::load();
    EXPECT_FALSE(contents.damaged);
    EXPECT_EQ(Messages(contents.runs), QStringList {"first"});
    QStringList files = StateFiles(path);
    ASSERT_EQ(files.size(), 3) << files.join(u' ').toStdString();
    EXPECT_TRUE(files[1].startsWith(QStringLiteral("backup-history.json.damaged-")));
    EXPECT_EQ(ReadBytes(QFileInfo(path).absolutePath() + u'/' + files[1]),
        "{\"version\": 1, \"runs\": [{\"device\": \"Dev\"");

    // Runs that cannot be used are left out, the rest kept, and the original kept aside too.
    QByteArray bytes = ReadBytes(path);
    bytes.replace("\"runs\": [", "\"runs\": [17, {\"device\": \"\"}, ");
    WriteBytes(path, bytes);
    contents = BURunHistory::load();
    EXPECT_TRUE(contents.damaged);
    EXPECT_EQ(Messages(contents.runs), QStringList {"first"});
    ASSERT_TRUE(BURunHistory::append(MakeRun(QStringLiteral("Dev"), QStringLiteral("second"))));
    EXPECT_EQ(Messages(BURunHistory::load().runs), (QStringList {"first", "second"}));
    EXPECT_EQ(StateFiles(path).size(), 4);
}

TEST_F(RunHistoryFile, ManyWritersAtOnceLoseNoRun)
{
    // Threads of this process, each with its own lock descriptor, as separate processes have.
    std::vector<std::thread> writers;
    for (int w = 0; w < 4; ++w) {
        writers.emplace_back([w] {
            for (int i = 0; i < 25; ++i)
                BURunHistory::append(MakeRun(QStringLiteral("W%1").arg(w), QStringLiteral("W%1-%2").arg(w).arg(i)));
        });
    }
    // And programs: analyses of devices that are not there end in an error, recorded all the same.
    ASSERT_EQ(RunTanner({QStringLiteral("folders")}, home.environment()).exitCode, 0);
    std::vector<std::unique_ptr<QProcess>> programs;
    for (int p = 0; p < 4; ++p) {
        programs.push_back(std::make_unique<QProcess>());
        programs.back()->setProcessEnvironment(home.environment());
        programs.back()->start(
            QStringLiteral(TANNER_BINARY), {QStringLiteral("analyze"), QStringLiteral("Gone%1").arg(p)});
    }
    for (std::thread &writer : writers)
        writer.join();
    for (const auto &program : programs) {
        ASSERT_TRUE(program->waitForFinished(60000));
        EXPECT_EQ(program->exitCode(), 2);
    }
    const BURunHistory::Contents contents = BURunHistory::load();
    EXPECT_FALSE(contents.damaged);
    ASSERT_EQ(contents.runs.size(), 104);
    for (int w = 0; w < 4; ++w) {
        const QList<BURunRecord> runs = BURunHistory::newestFirst(contents.runs, QStringLiteral("W%1").arg(w));
        ASSERT_EQ(runs.size(), 25);
        EXPECT_EQ(runs.first().message, QStringLiteral("W%1-24").arg(w)) << "each writer's runs in its order";
    }
    for (int p = 0; p < 4; ++p) {
        const QList<BURunRecord> runs = BURunHistory::newestFirst(contents.runs, QStringLiteral("Gone%1").arg(p));
        ASSERT_EQ(runs.size(), 1);
        EXPECT_EQ(runs[0].outcome, BURunOutcome::kAnalysisFailed);
        EXPECT_TRUE(runs[0].analyzeOnly);
        EXPECT_EQ(runs[0].message, QStringLiteral("Backup to Gone%1 failed.").arg(p));
        EXPECT_TRUE(runs[0].detail.contains(QStringLiteral("I can't examine the contents of the disk")));
    }
}
