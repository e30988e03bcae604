// The program as a desktop and a shell meet it: the manual page made from its help, the bash
// completion asking the program itself, and one window per user.
#include "keelson/KSUserDefaults.h"
#include "tests/support/TestSupport.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QThread>

#include <csignal>
#include <functional>

using namespace tanner::test;

namespace {

QByteArray ReadFileBytes(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

[[maybe_unused]] bool WaitUntil(const std::function<bool()> &done, std::chrono::milliseconds timeout)
{
    QDeadlineTimer deadline(timeout);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(50);
    }
    return true;
}

QSet<QString> HelpCommands()
{
    const ProcessResult help = RunTanner({QStringLiteral("--help")}, QProcessEnvironment::systemEnvironment());
    // Every line indented by two spaces names a command; descriptions go on further in.
    QSet<QString> commands;
    for (const QString &line : QString::fromUtf8(help.out).split(u'\n')) {
        if (line.startsWith(QStringLiteral("  ")) && line.size() > 2 && line[2] != u' ')
            commands.insert(line.mid(2).section(u' ', 0, 0));
    }
    return commands;
}

// Runs the installed-style completion function as bash would for `words` (the last one is the
// word being completed) and returns what it offers.
QStringList Complete(const QStringList &words, const QProcessEnvironment &environment)
{
    QProcessEnvironment env = environment;
    env.insert(QStringLiteral("PATH"),
        QFileInfo(QStringLiteral(TANNER_BINARY)).absolutePath() + u':' + env.value(QStringLiteral("PATH")));
    QProcess bash;
    bash.setProcessEnvironment(env);
    bash.start(QStringLiteral("bash"),
        QStringList {QStringLiteral("-c"),
            QStringLiteral(". \"$0\"; COMP_WORDS=(tanner-backup \"$@\"); COMP_CWORD=$#; _tanner_backup; "
                           "printf '%s\\n' \"${COMPREPLY[@]}\""),
            QStringLiteral(TANNER_COMPLETION)}
            + words);
    bash.waitForFinished(30000);
    QStringList offered = QString::fromUtf8(bash.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts);
    offered.sort();
    return offered;
}

} // namespace

TEST(ManualPage, ListsEveryCommandOfTheHelpAndTheVersion)
{
    QProcess gunzip;
    gunzip.start(QStringLiteral("gzip"), {QStringLiteral("-dc"), QStringLiteral(TANNER_MANPAGE)});
    ASSERT_TRUE(gunzip.waitForFinished(10000));
    const QString page = QString::fromUtf8(gunzip.readAllStandardOutput());
    ASSERT_TRUE(page.startsWith(QStringLiteral(".TH TANNER\\-BACKUP 1"))) << page.left(200).toStdString();
    EXPECT_TRUE(page.section(u'\n', 0, 0).contains(QStringLiteral("Tanner Backup " TANNER_VERSION_STRING)));

    // Each entry is ".TP" then the usage in bold: its first word is the command.
    QSet<QString> listed;
    const QStringList lines = page.split(u'\n');
    for (qsizetype i = 0; i + 1 < lines.size(); ++i) {
        if (lines[i] == u".TP") {
            const QRegularExpressionMatch word
                = QRegularExpression(QStringLiteral(R"(^\\fB((?:\\-|[^\\ ])+))")).match(lines[i + 1]);
            ASSERT_TRUE(word.hasMatch()) << lines[i + 1].toStdString();
            listed.insert(word.captured(1).replace(QStringLiteral("\\-"), QStringLiteral("-")));
        }
    }
    const QSet<QString> commands = HelpCommands();
    EXPECT_TRUE(commands.contains(QStringLiteral("backup")) && commands.contains(QStringLiteral("--version")));
    EXPECT_EQ(listed, commands);
}

TEST(Completion, OffersCommandsTheirWordsDevicesAndFoldersWithoutWritingTheState)
{
    TANNER_REQUIRE_MOUNTS();
    ScopedXdgHome home;
    QTemporaryDir volumes;
    QProcessEnvironment env = home.environment();
    env.insert(QStringLiteral("TANNER_VOLUMES_ROOT"), volumes.path());
    const QString documents = home.path() + QStringLiteral("/Documents");
    const QString photos = home.path() + QStringLiteral("/My Photos");
    ASSERT_TRUE(QDir().mkpath(documents) && QDir().mkpath(photos));
    {
        auto settings = OpenSettingsFile(home.settingsFile());
        WriteStringList(*settings, QStringLiteral("twbackup.folders"), {documents, photos});
    }
    for (const char *device : {"Backup Disk", "Stick"})
        ASSERT_TRUE(MountTmpfs(volumes.path() + u'/' + QLatin1String(device)));
    const QByteArray stored = ReadFileBytes(home.settingsFile());

    const QStringList all = Complete({QString()}, env);
    QStringList commands = HelpCommands().values();
    commands.sort();
    EXPECT_EQ(all, commands);
    EXPECT_FALSE(all.contains(QStringLiteral("__complete")));
    EXPECT_EQ(Complete({QStringLiteral("ru")}, env), QStringList {QStringLiteral("rules")});
    EXPECT_EQ(Complete({QStringLiteral("rules"), QStringLiteral("add-f")}, env),
        (QStringList {QStringLiteral("add-file"), QStringLiteral("add-folder")}));
    EXPECT_EQ(Complete({QStringLiteral("rules"), QStringLiteral("f")}, env),
        (QStringList {QStringLiteral("files"), QStringLiteral("folders")}));
    // Devices by name, also when the space is already typed with its backslash.
    EXPECT_EQ(Complete({QStringLiteral("backup"), QString()}, env),
        (QStringList {QStringLiteral("Backup Disk"), QStringLiteral("Stick")}));
    EXPECT_EQ(Complete({QStringLiteral("analyze"), QStringLiteral("Backup\\ D")}, env),
        QStringList {QStringLiteral("Backup Disk")});
    EXPECT_EQ(Complete({QStringLiteral("backup"), QStringLiteral("Stick"), QString()}, env),
        (QStringList {QStringLiteral("--json"), QStringLiteral("--yes")}));
    EXPECT_EQ(Complete({QStringLiteral("backup"), QStringLiteral("Stick"), QStringLiteral("--yes"), QString()}, env),
        QStringList {QStringLiteral("--json")});
    // Backup folders by name, and folders of the file system where a path is asked for.
    EXPECT_EQ(Complete({QStringLiteral("folders"), QStringLiteral("remove"), QStringLiteral("My")}, env),
        QStringList {QStringLiteral("My Photos")});
    EXPECT_EQ(Complete({QStringLiteral("folders"), QStringLiteral("add"), home.path() + QStringLiteral("/Docu")}, env),
        QStringList {documents});
    EXPECT_TRUE(Complete({QStringLiteral("bogus"), QString()}, env).isEmpty());
    EXPECT_TRUE(Complete({QStringLiteral("logs"), QString()}, env).isEmpty());
    EXPECT_EQ(ReadFileBytes(home.settingsFile()), stored);
}

TEST(SingleWindow, ASecondStartBringsTheFirstForwardAndTheCommandsStillWork)
{
#ifndef TANNER_DESKTOP_MODULE
    GTEST_SKIP() << "built without the window";
#else
    ScopedXdgHome home;
    QTemporaryDir runtime, volumes;
    QFile::setPermissions(runtime.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    QProcessEnvironment env = home.environment();
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime.path());
    env.insert(QStringLiteral("TANNER_VOLUMES_ROOT"), volumes.path());
    env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    {
        auto settings = OpenSettingsFile(home.settingsFile());
        WriteStringList(*settings, QStringLiteral("twbackup.folders"), {home.path()});
    }
    auto socketExists = [&runtime] {
        return !QDir(runtime.path()).entryList({QStringLiteral("tanner-backup-*")}, QDir::System).isEmpty();
    };
    auto startWindow = [&env](QProcess &window) {
        window.setProcessEnvironment(env);
        window.start(QStringLiteral(TANNER_BINARY), {});
        return window.waitForStarted(10000);
    };

    QProcess first;
    ASSERT_TRUE(startWindow(first));
    ASSERT_TRUE(WaitUntil(socketExists, std::chrono::seconds(30))) << first.readAllStandardError().toStdString();
    const ProcessResult second = RunTanner({}, env, 30000);
    EXPECT_EQ(second.exitCode, 0) << second.err.toStdString();
    EXPECT_TRUE(second.out.contains("already open")) << second.out.toStdString();
    EXPECT_EQ(first.state(), QProcess::Running);

    // The command line works beside the window.
    const ProcessResult folders = RunTanner({QStringLiteral("folders")}, env);
    EXPECT_EQ(folders.exitCode, 0) << folders.err.toStdString();
    EXPECT_EQ(QString::fromUtf8(folders.out).trimmed(), home.path());

    // A window that did not end normally leaves its socket behind; the next start takes it over.
    first.kill();
    first.waitForFinished();
    ASSERT_TRUE(socketExists());
    QProcess third;
    ASSERT_TRUE(startWindow(third));
    EXPECT_FALSE(third.waitForFinished(3000)) << third.readAllStandardOutput().toStdString();
    const ProcessResult fourth = RunTanner({}, env, 30000);
    EXPECT_EQ(fourth.exitCode, 0);
    EXPECT_TRUE(fourth.out.contains("already open")) << fourth.out.toStdString();
    ::kill(pid_t(third.processId()), SIGTERM);
    EXPECT_TRUE(third.waitForFinished(20000));
    EXPECT_EQ(third.exitCode(), 0) << third.readAllStandardError().toStdString();
#endif
}
