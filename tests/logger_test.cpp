// The application's own log: the record format, writers on many threads, the cut at the size
// limit, and the gathering of crash reports and log lines for a problem report.
#include "keelson/KSDayIndex.h"
#include "keelson/KSLog.h"
#include "keelson/KSLogger.h"
#include "tests/support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace tanner::test;

namespace {

const QRegularExpression kRecord(QStringLiteral(R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d com\.tannerwick\.backup (.*)$)"));

QStringList LogLines()
{
    QFile file(KSLogger::logFilePath());
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.readAll()).split(u'\n', Qt::SkipEmptyParts);
}

// A settings home with the logger writing into it, and LogString going to the logger.
class OwnLog : public ::testing::Test {
protected:
    void SetUp() override
    {
        KSLogger::sharedInstance().shutDown(); // the next record opens the file of this home
        KSLogger::install();
    }
    void TearDown() override
    {
        SetLogSink({});
        KSLogger::sharedInstance().setRecordObserver({});
        KSLogger::sharedInstance().shutDown();
    }
    ScopedXdgHome m_home;
};

} // namespace

TEST_F(OwnLog, RecordsFromManyThreadsAreWholeAndNoneIsLost)
{
    // What the logger itself logs while it writes is dropped, and does not block it.
    KSLogger::sharedInstance().setRecordObserver([](const QString &) { LogString("nested"); });

    constexpr int kThreads = 8, kEach = 100;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < kEach; ++i)
                LogString("thread %d message %d %@", t, i, QStringLiteral("ünïcode ").repeated(t));
        });
    }
    for (std::thread &thread : threads)
        thread.join();

    const QStringList lines = LogLines();
    ASSERT_EQ(lines.size(), kThreads * kEach);
    std::vector<int> next(kThreads, 0);
    for (const QString &line : lines) {
        const QRegularExpressionMatch match = kRecord.match(line);
        ASSERT_TRUE(match.hasMatch()) << line.toStdString();
        const QStringList words = match.captured(1).split(u' ');
        const int t = words[1].toInt(), i = words[3].toInt();
        EXPECT_EQ(i, next[t]++) << "each thread's records in its order";
        EXPECT_EQ(
            match.captured(1), FormatString("thread %d message %d %@", t, i, QStringLiteral("ünïcode ").repeated(t)));
    }
}

TEST_F(OwnLog, AFullLogKeepsItsNewerHalfFromALineStart)
{
    const QString path = KSLogger::logFilePath();
    ASSERT_TRUE(QDir().mkpath(QFileInfo(path).absolutePath()));
    QByteArray old;
    for (int i = 0; old.size() < 5 * 1000 * 1000; ++i)
        old += "2024-03-07 14:05:01 com.tannerwick.backup old line " + QByteArray::number(i) + '\n';
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(old);
    file.close();

    LogString("after the cut");
    const qsizetype half = old.size() / 2;
    const QByteArray kept = old.mid(old.indexOf('\n', half) + 1);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray now = file.readAll();
    ASSERT_TRUE(now.startsWith(kept)) << now.left(80).toStdString();
    EXPECT_TRUE(kRecord.match(QString::fromUtf8(now.mid(kept.size()))).hasMatch());
    EXPECT_TRUE(now.endsWith(" after the cut\n"));

    // A small file is never shortened.
    EXPECT_FALSE(KSLogger::sharedInstance().shortenFile(8191));
}

TEST_F(OwnLog, AFolderThatCannotBeMadeDropsTheMessage)
{
    const QString blocker = m_home.path() + QStringLiteral("/file");
    WriteTree(m_home.path(), {{QStringLiteral("file"), "not a folder"}});
    qputenv("XDG_STATE_HOME", QFile::encodeName(blocker + QStringLiteral("/state")));
    LogString("lost");
    EXPECT_FALSE(QFileInfo::exists(KSLogger::logFilePath()));

    qputenv("XDG_STATE_HOME", QFile::encodeName(m_home.path() + QStringLiteral("/state")));
    LogString("kept");
    ASSERT_EQ(LogLines().size(), 1);
    EXPECT_TRUE(LogLines()[0].endsWith(QStringLiteral(" kept")));
}

TEST(LogGathering, ReportsThenMessagesWithTheirSeparators)
{
    QTemporaryDir dir;
    const int yesterday = AddToDayIndex(DayIndexForToday(), 0, -1);
    const QString reportDate
        = FormatString("%d-%02d-%02d", yesterday / 10000, (yesterday / 100) % 100, yesterday % 100);
    WriteTree(dir.path(),
        {{QStringLiteral("crash/_usr_bin_tanner-backup.0.crash"), "Date/Time: " + reportDate.toUtf8() + " 10:00\nboom"},
            {QStringLiteral("crash/_usr_bin_other.0.crash"), "not ours"},
            {QStringLiteral("crash/retired/tanner-backup.old"), "older crash"},
            {QStringLiteral("crash/tanner-backup.bin"), "\xff\xfe not text"},
            {QStringLiteral("coredumpctl"), "#!/bin/sh\necho \"PID: 42 ($3)\"\n"},
            {QStringLiteral("syslog"),
                "Mar  7 10:00:00 host kernel: unrelated\n"
                "Mar  7 10:00:01 host tanner-backup[1]: first\\nsecond\n"
                "  continued\n"
                "Mar  7 10:00:02 host other[2]: about com.tannerwick.backup\n"
                "Mar  7 10:00:03 host other[2]: unrelated\n"
                "  continued, dropped\n"},
            {QStringLiteral("own.log"), "2024-03-07 10:00:00 com.tannerwick.backup mine\n"}});
    QFile::setPermissions(dir.filePath(QStringLiteral("coredumpctl")), QFile::ReadOwner | QFile::ExeOwner);

    KSLogger &logger = KSLogger::sharedInstance();
    const KSLogger::Sources saved = logger.sources;
    logger.sources.crashFolders = {dir.filePath(QStringLiteral("crash"))};
    logger.sources.coredumpctl = dir.filePath(QStringLiteral("coredumpctl"));
    logger.sources.journalctl = dir.filePath(QStringLiteral("no-journal"));
    logger.sources.systemLog = dir.filePath(QStringLiteral("syslog"));
    logger.sources.ownLog = dir.filePath(QStringLiteral("own.log"));
    QStringList alerts;
    logger.alertHook = [&](const QString &message, const QString &more) { alerts << message << more; };

    const QString separator = KSLogger::delimiter();
    EXPECT_EQ(logger.allLogsForApp(QStringLiteral("tanner-backup"), QStringLiteral("com.tannerwick.backup")),
        QStringLiteral("1. ") + separator + "Date/Time: " + reportDate + " 10:00\nboom\n" + QStringLiteral("2. ")
            + separator + "older crash\n" + QStringLiteral("3. ") + separator + "PID: 42 (tanner-backup)\n\n"
            + separator + "Mar  7 10:00:01 host tanner-backup[1]: first\nsecond\n  continued\n"
            + "Mar  7 10:00:02 host other[2]: about com.tannerwick.backup\n"
            + "2024-03-07 10:00:00 com.tannerwick.backup mine\n");
    EXPECT_TRUE(alerts.isEmpty());

    // A report dated on the cutoff day is left out with a date filter.
    EXPECT_EQ(logger.logsForApp(QStringLiteral("tanner-backup"), 1).count(u"boom"), 0);
    EXPECT_EQ(logger.logsForApp(QStringLiteral("tanner-backup"), 2).count(u"boom"), 1);
    EXPECT_EQ(logger.logsForApp(QStringLiteral("tanner-backup"), 0).count(u"boom"), 1);
    EXPECT_TRUE(KSLogger::excludeLog(QStringLiteral("Date/Time: 2024-03-07 10:00"), 20240307));
    EXPECT_FALSE(KSLogger::excludeLog(QStringLiteral("Date/Time: 2024-03-07 10:00"), 20240306));
    EXPECT_TRUE(KSLogger::excludeLog(QStringLiteral("Date/Time:"), 20240306)) << "nothing after the label";
    EXPECT_FALSE(KSLogger::excludeLog(QStringLiteral("no date"), 20240306));

    // Nothing anywhere: no text, and the user is told.
    logger.sources = {{}, {}, {}, dir.filePath(QStringLiteral("none")), dir.filePath(QStringLiteral("none"))};
    EXPECT_TRUE(logger.allLogsForApp(QStringLiteral("tanner-backup"), QStringLiteral("x.y")).isNull());
    EXPECT_EQ(alerts,
        (QStringList {"No log information.", "I could not find any crash reports or log entries for tanner-backup."}));
    logger.sources = saved;
    logger.alertHook = nullptr;
}

TEST(LogGathering, ASystemLogAcrossNewYearIsReadAgainFromTheYearBefore)
{
    KSLogger &logger = KSLogger::sharedInstance();
    const int thisYear = DayIndexForToday() / 10000;
    const QString text = QStringLiteral("Dec 30 23:59:00 host app: old year\n"
                                        "Dec 31 23:59:00 host app: last day\n"
                                        "Jan  2 00:01:00 host app: new year\n");
    // Cut after 31 December of last year: only the January line is newer.
    const int cutoff = (thisYear - 1) * 10000 + 1231;
    logger.setStartingYear(unsigned(thisYear));
    QString messages = QStringLiteral("before\n");
    logger.addMessages(messages, text, cutoff, thisYear, false);
    EXPECT_EQ(messages, QStringLiteral("before\nJan  2 00:01:00 host app: new year\n"));
    EXPECT_EQ(int(logger.startingYear()), thisYear);

    EXPECT_EQ(KSLogger::dateFromLogLine(u"Jan  2 00:01:00 x", 20241230), 20250102);
    EXPECT_EQ(KSLogger::dateFromLogLine(u"2023-11-05T10:00:00+0100 host", 20241230), 20231105);
    EXPECT_EQ(KSLogger::dateFromLogLine(u"Foo  2 00:01:00 x", 20241230), 20241230);
    EXPECT_EQ(KSLogger::dateFromLogLine(u"Jan", 20241230), 20241230);
}

// Several processes share the log: each record lands whole on a line of its own and none is lost,
// also while one of them cuts the full file (records appended after the cut are all there).
TEST_F(OwnLog, ProcessesSharingTheLogKeepEveryRecordWhole)
{
    const QString path = KSLogger::logFilePath();
    ASSERT_TRUE(QDir().mkpath(QFileInfo(path).absolutePath()));
    for (const bool full : {false, true}) {
        SCOPED_TRACE(full ? "a full log" : "an empty log");
        QByteArray old;
        while (full && old.size() < qsizetype(KSLogger::kSizeLimit) - 1000)
            old += "2024-03-07 14:05:01 com.tannerwick.backup old line\n";
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(old);
        file.close();
        KSLogger::sharedInstance().shutDown();

        constexpr int kProcesses = 4, kEach = 300;
        const QString padding = QStringLiteral("x").repeated(700); // records longer than a pipe's atomic size
        std::vector<pid_t> children;
        for (int p = 0; p < kProcesses; ++p) {
            const pid_t child = ::fork();
            ASSERT_GE(child, 0);
            if (child == 0) {
                for (int i = 0; i < kEach; ++i)
                    KSLogger::sharedInstance().logString(FormatString("process %d record %d %@", p, i, padding));
                ::_exit(0);
            }
            children.push_back(child);
        }
        for (const pid_t child : children) {
            int status = 0;
            ASSERT_EQ(::waitpid(child, &status, 0), child);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        }

        QList<QList<int>> seen(kProcesses);
        for (const QString &line : LogLines()) {
            const QRegularExpressionMatch match = kRecord.match(line);
            ASSERT_TRUE(match.hasMatch()) << line.left(120).toStdString();
            const QStringList words = match.captured(1).split(u' ');
            if (words[0] == u"old")
                continue;
            ASSERT_EQ(words.size(), 5) << line.left(120).toStdString();
            EXPECT_EQ(words[4], padding);
            seen[words[1].toInt()].append(words[3].toInt());
        }
        for (int p = 0; p < kProcesses; ++p) {
            ASSERT_FALSE(seen[p].isEmpty());
            // Each record once, in its process's order.
            EXPECT_EQ(seen[p].back(), kEach - 1);
            for (qsizetype i = 1; i < seen[p].size(); ++i)
                EXPECT_EQ(seen[p][i], seen[p][i - 1] + 1);
            EXPECT_EQ(seen[p].size(), kEach); // the cut came before all but a few, which it kept
        }
    }
}
