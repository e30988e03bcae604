// The backup state through a real settings file: round trip, the purge of old device dates,
// first-run defaults, and hand-edited files with wrong or damaged values.
#include "app/BUAppController.h"
#include "keelson/KSDayIndex.h"
#include "keelson/KSLog.h"
#include "keelson/KSSignalWatcher.h"
#include "keelson/KSStrings.h"
#include "tests/support/TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTimer>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

using namespace tanner::test;

namespace {

class AppState : public ::testing::Test {
protected:
    void TearDown() override { SetLogSink({}); }

    BUAppController &launch()
    {
        BUAppController &controller = BUAppController::sharedInstance();
        controller.applicationWillFinishLaunching();
        SetLogSink([this](const QString &line) { logged.append(line); }); // in place of the log file
        controller.applicationDidFinishLaunching();
        return controller;
    }
    QByteArray fileText() const
    {
        QFile file(home.settingsFile());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    void writeFile(const QByteArray &text)
    {
        QDir().mkpath(QFileInfo(home.settingsFile()).absolutePath());
        QFile file(home.settingsFile());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(text);
    }

    ScopedXdgHome home;
    QStringList logged;
};

QStringList Archives(const BURuleList &rules)
{
    QStringList archives;
    for (const BUIgnoreRule &rule : rules)
        archives.append(rule.archive());
    return archives;
}

} // namespace

TEST_F(AppState, RoundTripThroughTheSettingsFile)
{
    BUAppController &controller = launch();
    // First run: the home folder and both default tables.
    EXPECT_EQ(controller.backupFolders(), QStringList {QDir::homePath()});
    EXPECT_EQ(controller.ignoreFolders().size(), 21);
    EXPECT_EQ(controller.ignoreFiles().size(), 10);

    const QString odd = QStringLiteral("/data/") + FileNameFromBytes("caf\xe9, \"quoted\"");
    controller.backupFolders() = {odd, QStringLiteral("/srv/Photos")}; // stored order is kept
    controller.ignoreFiles() = {BUIgnoreRule(QStringLiteral("10tmp")), BUIgnoreRule(QStringLiteral("01a, b"))};
    controller.ignoreFolders() = {BUIgnoreRule(QStringLiteral("00@home"))};
    const QString oddDevice = QStringLiteral("USB, 2 \"\x01\x7f\"");
    controller.recentDrives() = {QStringLiteral("Backup Disk"), oddDevice};
    const int today = DayIndexForToday();
    controller.backupDates() = {{QStringLiteral("Backup Disk"), today}};
    controller.backupTimes() = {{QStringLiteral("Backup Disk"), 50400}, {QStringLiteral("Never Dated"), 60}};
    ASSERT_TRUE(controller.applicationWillTerminate());

    const QByteArray text = fileText();
    EXPECT_FALSE(text.contains("@Variant")) << text.toStdString();
    EXPECT_TRUE(text.contains("[twbackup.dates]")) << text.toStdString();

    launch();
    EXPECT_EQ(controller.backupFolders(), (QStringList {odd, QStringLiteral("/srv/Photos")}));
    EXPECT_EQ(FileNameToBytes(controller.backupFolders().front()), QByteArray("/data/caf\xe9, \"quoted\""));
    EXPECT_EQ(Archives(controller.ignoreFiles()), (QStringList {QStringLiteral("10tmp"), QStringLiteral("01a, b")}));
    EXPECT_EQ(Archives(controller.ignoreFolders()), QStringList {QStringLiteral("00@home")});
    EXPECT_EQ(controller.recentDrives(), (QStringList {QStringLiteral("Backup Disk"), oddDevice}));
    EXPECT_FALSE(QFile::exists(home.settingsFile() + QStringLiteral(".damaged"))) << logged.join(u'\n').toStdString();
    EXPECT_EQ(controller.backupDates().value(QStringLiteral("Backup Disk")), today);
    EXPECT_EQ(controller.backupTimes().value(QStringLiteral("Backup Disk")), 50400);
    EXPECT_EQ(controller.backupTimes().value(QStringLiteral("Never Dated")), 60); // no date: never purged

    // Empty containers leave no key behind; with all three lists empty the defaults return.
    controller.recentDrives().clear();
    controller.backupDates().clear();
    controller.backupTimes().clear();
    controller.backupFolders().clear();
    controller.ignoreFiles().clear();
    controller.ignoreFolders().clear();
    ASSERT_TRUE(controller.applicationWillTerminate());
    for (const char *key :
        {"twbackup.recent", "twbackup.dates", "twbackup.times", "twbackup.folders", "twbackup.ignore"})
        EXPECT_FALSE(fileText().contains(key)) << key;
    launch();
    EXPECT_EQ(controller.ignoreFiles().size(), 10);
    EXPECT_EQ(controller.backupFolders(), QStringList {QDir::homePath()});
}

TEST_F(AppState, PurgeCutsAtTheSameDayAYearBefore)
{
    QMap<QString, qint64> dates
        = {{QStringLiteral("old"), 20230228}, {QStringLiteral("kept"), 20230301}, {QStringLiteral("older"), 20190101}};
    QMap<QString, qint64> times
        = {{QStringLiteral("old"), 1}, {QStringLiteral("kept"), 2}, {QStringLiteral("orphan"), 3}};
    PurgeBackupDates(dates, times, 20240229); // leap day: the cut-off is 28 February
    EXPECT_EQ(dates.keys(), QStringList {QStringLiteral("kept")});
    EXPECT_EQ(times.keys(), (QStringList {QStringLiteral("kept"), QStringLiteral("orphan")}));

    // And at launch, against today.
    const int today = DayIndexForToday();
    const int yearAgo = AddToDayIndex(today, -1, 0);
    writeFile(QStringLiteral("[twbackup.dates]\nA=%1\nB=%2\n[twbackup.times]\nA=10\nB=20\n")
                  .arg(yearAgo)
                  .arg(AddToDayIndex(yearAgo, 0, 1))
                  .toUtf8());
    BUAppController &controller = launch();
    EXPECT_FALSE(controller.backupDates().contains(QStringLiteral("A")));
    EXPECT_FALSE(controller.backupTimes().contains(QStringLiteral("A")));
    EXPECT_TRUE(controller.backupDates().contains(QStringLiteral("B")));
}

TEST_F(AppState, HandEditedFileLosesNothingThatCanBeRead)
{
    writeFile("[General]\n"
              "twbackup.folders=/home/ann/Documents, relative/path, @ByteArray(blob), /gone/Missing\n"
              "twbackup.ignoreFiles=10tmp, 0, , 13bak\n"
              "twbackup.ignoreFolders=00Caches\n"
              "twbackup.recent=Only One\n"
              "twbackup.dates=not a dictionary\n"
              "[twbackup.times]\n"
              "Good=3600\n"
              "Bad=soon\n"
              "Negative=-5\n"
              "[broken section\n");
    BUAppController &controller = launch();
    EXPECT_EQ(controller.backupFolders(),
        (QStringList {QStringLiteral("/home/ann/Documents"), QStringLiteral("/gone/Missing")}));
    EXPECT_EQ(Archives(controller.ignoreFiles()), (QStringList {QStringLiteral("10tmp"), QStringLiteral("13bak")}));
    EXPECT_EQ(controller.recentDrives(), QStringList {QStringLiteral("Only One")});
    EXPECT_TRUE(controller.backupDates().isEmpty());
    EXPECT_EQ(controller.backupTimes().keys(), QStringList {QStringLiteral("Good")});
    const QString log = logged.join(u'\n');
    EXPECT_TRUE(log.contains(QStringLiteral("Can't restore backup folder relative/path"))) << log.toStdString();
    EXPECT_TRUE(log.contains(QStringLiteral("Can't restore backup folder")));
    EXPECT_TRUE(log.contains(QStringLiteral("too short")));
    EXPECT_TRUE(log.contains(QStringLiteral("twbackup.dates")));
    EXPECT_TRUE(log.contains(QStringLiteral("Bad")));

    // The damaged original is kept beside the file that is written back.
    EXPECT_TRUE(QFile::exists(home.settingsFile() + QStringLiteral(".damaged")));
    ASSERT_TRUE(controller.applicationWillTerminate());
    launch();
    EXPECT_EQ(controller.backupFolders().size(), 2);
    EXPECT_EQ(controller.backupTimes().value(QStringLiteral("Good")), 3600);
}

TEST_F(AppState, TerminationSignalsArriveAsQtSignals)
{
    int argc = 1;
    char name[] = "app_state_test";
    char *argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);
    KSSignalWatcher &watcher = KSSignalWatcher::sharedInstance();
    int received = 0;
    QObject::connect(&watcher, &KSSignalWatcher::signalReceived, &application, [&](int number) {
        received = number;
        QCoreApplication::quit();
    });
    QTimer::singleShot(0, &application, [] { std::raise(SIGTERM); });
    QTimer::singleShot(5000, &application, [] { QCoreApplication::exit(1); });
    EXPECT_EQ(QCoreApplication::exec(), 0); // the process lived to quit its loop normally
    EXPECT_EQ(received, SIGTERM);
    EXPECT_TRUE(KSSignalWatcher::terminationRequested());
}

// A program stuck away from its event loop (a long wait, a hung file system) still ends when the
// user asks a second time, by that signal.
TEST_F(AppState, ASecondSignalEndsTheProgramAtOnce)
{
    // Run with the other tests in one process, an earlier test may have taken the first signal
    // already; then the child inherits that, and its first signal here is the second one.
    const bool firstTaken = KSSignalWatcher::terminationRequested();
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(ready[0]);
        int argc = 1;
        char name[] = "app_state_test";
        char *argv[] = {name, nullptr};
        QCoreApplication application(argc, argv);
        KSSignalWatcher::sharedInstance();
        [[maybe_unused]] ssize_t n = ::write(ready[1], "s", 1); // handlers installed
        while (!KSSignalWatcher::terminationRequested())
            ::pause();
        n = ::write(ready[1], "1", 1); // the first signal was taken; the loop never runs again
        for (;;)
            ::pause();
    }
    ::close(ready[1]); // a child that ends early gives an end of file, not a wait
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    if (!firstTaken) {
        ::kill(child, SIGTERM);
        ASSERT_EQ(::read(ready[0], &byte, 1), 1);
        EXPECT_EQ(byte, '1') << "the first signal does not end the program";
    }
    ::kill(child, SIGINT);
    int status = 0;
    pid_t ended = 0;
    for (int i = 0; i < 1000 && ended == 0; ++i) { // a guard against a child that does not end
        ended = ::waitpid(child, &status, WNOHANG);
        if (ended == 0)
            ::usleep(10000);
    }
    if (ended == 0) {
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
    }
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGINT) << "status " << status;
    ::close(ready[0]);
}

// A file the program wrote is read and written back as it was, with no copy aside; garbage, a
// truncated file and an empty one are kept aside as they were before anything overwrites them.
TEST_F(AppState, WhatWouldNotBeWrittenBackIsKeptAside)
{
    const QString damaged = home.settingsFile() + QStringLiteral(".damaged");
    BUAppController &controller = launch();
    controller.recentDrives() = {QStringLiteral("Backup Disk")}; // a change, so that the file is written
    ASSERT_TRUE(controller.applicationWillTerminate());
    const QByteArray written = fileText();
    ASSERT_FALSE(written.isEmpty());
    launch();
    EXPECT_FALSE(QFile::exists(damaged)) << logged.join(u'\n').toStdString();

    QByteArray garbage(512, '\0');
    for (qsizetype i = 0; i < garbage.size(); ++i)
        garbage[i] = char((i * 131 + 7) % 256);
    const QList<QPair<const char *, QByteArray>> cases
        = {{"garbage", garbage}, {"truncated", written.left(written.size() / 2)}, {"empty", QByteArray()}};
    for (const auto &[what, content] : cases) {
        SCOPED_TRACE(what);
        QFile::remove(damaged);
        writeFile(content);
        launch();
        QFile copy(damaged);
        ASSERT_TRUE(copy.open(QIODevice::ReadOnly));
        EXPECT_EQ(copy.readAll(), content);
        ASSERT_TRUE(controller.applicationWillTerminate());
        copy.seek(0);
        EXPECT_EQ(copy.readAll(), content) << "the copy aside outlives the write";
    }
}

// Only what would be lost keeps the original aside: a file edited by hand into another order,
// spacing, quoting or line ends, with comments, reads as it says and is not called damaged; a
// value that can't be used, a line that is not a setting or an open quote is.
TEST_F(AppState, OnlyALossKeepsTheOriginalAside)
{
    const QString damaged = home.settingsFile() + QStringLiteral(".damaged");
    const QByteArray today = QByteArray::number(DayIndexForToday());
    const QByteArray handEdited = "; edited by hand\n"
                                  "# the last backups\n"
                                  "[twbackup.times]\n"
                                  "Backup Disk = 50400\n"
                                  "\n"
                                  "[twbackup.dates]\n"
                                  "Backup Disk="
        + today
        + "\n"
          "[General]\n"
          "twbackup.recent = \"USB\" , Backup Disk\n"
          "twbackup.ignoreFolders=00Caches,\n"
          "twbackup.ignoreFiles = \"10tmp\", 13bak\n"
          "twbackup.folders=/srv/Photos, \"/data/a, b\",   /home/ann\n";
    QByteArray crlf = handEdited;
    crlf.replace("\n", "\r\n");
    const struct {
        const char *what;
        QByteArray content;
        bool lost;
    } cases[] = {
        {"reordered, spaced, quoted, commented", handEdited, false},
        {"CR LF line ends", crlf, false},
        {"a time that is not a number", "[twbackup.times]\nUSB=soon\n", true},
        {"a dictionary written as a value", "twbackup.dates=" + today + "\n", true},
        {"a rule too short to be one", "twbackup.ignoreFiles=10tmp, 0\n", true},
        {"a line that is not a setting", "twbackup.recent=USB\nBackup Disk\n", true},
        {"a quote left open", "twbackup.recent=\"USB, Backup Disk\n", true},
    };
    for (const auto &[what, content, lost] : cases) {
        SCOPED_TRACE(what);
        QFile::remove(damaged);
        logged.clear();
        writeFile(content);
        BUAppController &controller = launch();
        const QString log = logged.join(u'\n');
        EXPECT_EQ(QFile::exists(damaged), lost) << log.toStdString();
        EXPECT_EQ(log.contains(QStringLiteral("is damaged")), lost) << log.toStdString();
        if (lost)
            continue;
        EXPECT_EQ(controller.recentDrives(), (QStringList {QStringLiteral("USB"), QStringLiteral("Backup Disk")}));
        EXPECT_EQ(controller.backupFolders(),
            (QStringList {QStringLiteral("/srv/Photos"), QStringLiteral("/data/a, b"), QStringLiteral("/home/ann")}));
        EXPECT_EQ(Archives(controller.ignoreFiles()), (QStringList {QStringLiteral("10tmp"), QStringLiteral("13bak")}));
        EXPECT_EQ(Archives(controller.ignoreFolders()), QStringList {QStringLiteral("00Caches")});
        EXPECT_EQ(controller.backupDates().value(QStringLiteral("Backup Disk")), DayIndexForToday());
        EXPECT_EQ(controller.backupTimes().value(QStringLiteral("Backup Disk")), 50400);
    }
}
