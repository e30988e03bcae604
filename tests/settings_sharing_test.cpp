// The settings file shared by the window and any number of commands: changes saved at once under
// the lock and merged into what others saved, commands that change nothing leaving the file alone,
// the window following others' changes, files that are not regular files, and damaged files.
#include "app/BUAppController.h"
#include "keelson/KSDayIndex.h"
#include "keelson/KSLog.h"
#include "keelson/KSStrings.h"
#include "keelson/KSUserDefaults.h"
#include "tests/support/TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTimer>

#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

using namespace tanner::test;

namespace {

class SettingsSharing : public ::testing::Test {
protected:
    void TearDown() override
    {
        SetLogSink({});
        BUAppController::sharedInstance().mayReloadStateHook = nullptr;
        BUAppController::sharedInstance().stateReloadedHook = nullptr;
    }

    BUAppController &launch()
    {
        BUAppController &controller = BUAppController::sharedInstance();
        controller.applicationWillFinishLaunching();
        SetLogSink([this](const QString &line) { logged.append(line); });
        controller.applicationDidFinishLaunching();
        return controller;
    }
    QString folder(const QString &name) const
    {
        const QString path = home.path() + QStringLiteral("/src/") + name;
        QDir().mkpath(path);
        return path;
    }
    QByteArray fileText() const
    {
        QFile file(home.settingsFile());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
    void writeFile(const QByteArray &text) const
    {
        QDir().mkpath(home.configPath() + QStringLiteral("/Tannerwick"));
        QFile file(home.settingsFile());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(text);
    }
    ProcessResult tanner(const QStringList &args) const { return RunTanner(args, home.environment(), 30000); }

    ScopedXdgHome home;
    QStringList logged;
};

struct stat Status(const QString &path)
{
    struct stat status { };
    ::lstat(QFile::encodeName(path).constData(), &status);
    return status;
}

} // namespace

// Eight commands started at once each add a folder: every one of them is in the file afterwards.
// A command that only reads leaves the file as it is, even on a first run with no file at all.
TEST_F(SettingsSharing, CommandsRunAtOnceLoseNoChange)
{
    EXPECT_EQ(tanner({QStringLiteral("folders")}).exitCode, 0);
    EXPECT_FALSE(QFile::exists(home.settingsFile())) << "a first run that changes nothing writes nothing";

    std::vector<std::unique_ptr<QProcess>> processes;
    for (int i = 0; i < 8; ++i) {
        auto process = std::make_unique<QProcess>();
        process->start(QStringLiteral(TANNER_BINARY),
            {QStringLiteral("folders"), QStringLiteral("add"), folder(QStringLiteral("F%1").arg(i))});
        processes.push_back(std::move(process));
    }
    for (auto &process : processes) {
        ASSERT_TRUE(process->waitForFinished(30000));
        EXPECT_EQ(process->exitCode(), 0) << process->readAllStandardError().toStdString();
    }
    const QByteArray listed = tanner({QStringLiteral("folders")}).out;
    for (int i = 0; i < 8; ++i)
        EXPECT_TRUE(listed.contains(QStringLiteral("/src/F%1\n").arg(i).toUtf8())) << listed.toStdString();
    EXPECT_TRUE(listed.contains(QFile::encodeName(QDir::homePath() + u'\n'))) << "the first run's home folder stays";

    // Commands that only read do not touch the file.
    const struct stat before = Status(home.settingsFile());
    for (const QStringList &args : {QStringList {QStringLiteral("folders")}, QStringList {QStringLiteral("devices")},
             QStringList {QStringLiteral("rules"), QStringLiteral("files")}, QStringList {QStringLiteral("help")}})
        tanner(args);
    const struct stat after = Status(home.settingsFile());
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
    EXPECT_FALSE(fileText().contains("@Variant")) << fileText().toStdString();
}

// A process that loaded the state long ago (the window, a long backup) saves its own change on top
// of what others saved since, and then shows their changes too; a change the others made to the
// same list (a removal) is not undone.
TEST_F(SettingsSharing, AChangeIsAppliedToTheFileAsItIsNow)
{
    const QString photos = folder(QStringLiteral("Photos"));
    const QString music = folder(QStringLiteral("Music"));
    ASSERT_EQ(tanner({QStringLiteral("folders"), QStringLiteral("add"), photos, music}).exitCode, 0);

    BUAppController &controller = launch();
    int reloaded = 0;
    controller.stateReloadedHook = [&] { ++reloaded; };
    ASSERT_TRUE(controller.backupFolders().contains(photos));

    // Meanwhile, from the command line:
    const QString docs = folder(QStringLiteral("Docs"));
    ASSERT_EQ(tanner({QStringLiteral("folders"), QStringLiteral("add"), docs}).exitCode, 0);
    ASSERT_EQ(tanner({QStringLiteral("folders"), QStringLiteral("remove"), QStringLiteral("Music")}).exitCode, 0);
    ASSERT_EQ(tanner({QStringLiteral("rules"), QStringLiteral("add-file"), QStringLiteral("10xyz")}).exitCode, 0);

    // Here: a backup's date, and a device made recent.
    controller.backupDates()[QStringLiteral("Disk")] = DayIndexForToday();
    controller.backupTimes()[QStringLiteral("Disk")] = 60;
    controller.updateRecentDrives(QStringLiteral("Disk"));
    ASSERT_TRUE(controller.saveState()) << controller.saveError().toStdString();
    EXPECT_EQ(reloaded, 1);
    EXPECT_TRUE(controller.backupFolders().contains(docs));
    EXPECT_FALSE(controller.backupFolders().contains(music));
    EXPECT_TRUE(std::any_of(controller.ignoreFiles().begin(), controller.ignoreFiles().end(),
        [](const BUIgnoreRule &rule) { return rule.archive() == u"10xyz"; }));

    const ProcessResult devices = tanner({QStringLiteral("folders")});
    EXPECT_TRUE(devices.out.contains("/src/Docs\n"));
    EXPECT_FALSE(devices.out.contains("/src/Music\n"));
    auto settings = OpenSettingsFile(home.settingsFile());
    EXPECT_EQ(ReadIntegerDictionary(*settings, QStringLiteral("twbackup.dates")).value(QStringLiteral("Disk")),
        DayIndexForToday());
    EXPECT_EQ(ReadStringList(*settings, QStringLiteral("twbackup.recent")), QStringList {QStringLiteral("Disk")});

    // The window removes a folder by what it is, whatever others did to the list's order.
    ASSERT_EQ(tanner({QStringLiteral("folders"), QStringLiteral("add"), folder(QStringLiteral("Art"))}).exitCode, 0);
    controller.backupFolders().removeAll(photos);
    ASSERT_TRUE(controller.saveState());
    EXPECT_EQ(controller.backupFolders().size(), 3) << controller.backupFolders().join(u' ').toStdString();
    EXPECT_FALSE(controller.backupFolders().contains(photos));
    controller.stateReloadedHook = nullptr;
}

// The window follows the file: a change made by a command comes in at once when no job runs, and
// when the job has ended otherwise.
TEST_F(SettingsSharing, TheWindowFollowsChangesMadeByOthers)
{
    int argc = 1;
    char name[] = "settings_sharing_test";
    char *argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);
    BUAppController &controller = launch();
    ASSERT_TRUE(controller.saveState());
    bool jobRuns = false;
    QEventLoop loop;
    controller.mayReloadStateHook = [&] {
        if (jobRuns)
            loop.quit();
        return !jobRuns;
    };
    controller.stateReloadedHook = [&] { loop.quit(); };
    controller.watchSettingsFile();
    auto wait = [&] {
        QTimer guard;
        guard.setSingleShot(true);
        QObject::connect(&guard, &QTimer::timeout, &loop, [&] { loop.exit(1); });
        guard.start(20000); // only a guard against a hang; the loop ends on the event itself
        return loop.exec();
    };

    const QString docs = folder(QStringLiteral("Docs"));
    ASSERT_EQ(tanner({QStringLiteral("folders"), QStringLiteral("add"), docs}).exitCode, 0);
    ASSERT_EQ(wait(), 0);
    EXPECT_TRUE(controller.backupFolders().contains(docs));

    jobRuns = true;
    const QString art = folder(QStringLiteral("Art"));
    ASSERT_EQ(tanner({QStringLiteral("folders"), QStringLiteral("add"), art}).exitCode, 0);
    ASSERT_EQ(wait(), 0);
    EXPECT_FALSE(controller.backupFolders().contains(art)) << "not while a job reads the list";
    jobRuns = false;
    controller.reloadStateIfPending();
    EXPECT_TRUE(controller.backupFolders().contains(art));
    controller.mayReloadStateHook = nullptr;
    controller.stateReloadedHook = nullptr;
}

// A settings file that is a link to a device or a FIFO is neither read nor replaced: a command
// says so and ends; the link stays a link. A root run keeps the owner and mode of a user's file.
TEST_F(SettingsSharing, AFileThatIsNotARegularFileIsNeverReplaced)
{
    const QString nodes = home.path() + QStringLiteral("/nodes");
    QDir().mkpath(nodes);
    const QByteArray fifo = QFile::encodeName(nodes + QStringLiteral("/fifo"));
    ASSERT_EQ(::mkfifo(fifo.constData(), 0600), 0);
    QStringList targets {nodes + QStringLiteral("/fifo")};
    const QByteArray null = QFile::encodeName(nodes + QStringLiteral("/null"));
    const QByteArray zero = QFile::encodeName(nodes + QStringLiteral("/zero"));
    if (::mknod(null.constData(), S_IFCHR | 0666, makedev(1, 3)) == 0
        && ::mknod(zero.constData(), S_IFCHR | 0666, makedev(1, 5)) == 0)
        targets << nodes + QStringLiteral("/null") << nodes + QStringLiteral("/zero");
    else
        std::printf("Devices are not tried: making device nodes needs CAP_MKNOD.\n");
    QDir().mkpath(home.configPath() + QStringLiteral("/Tannerwick"));
    const QString docs = folder(QStringLiteral("Docs"));
    for (const QString &target : std::as_const(targets)) {
        SCOPED_TRACE(target.toStdString());
        QFile::remove(home.settingsFile());
        ASSERT_TRUE(QFile::link(target, home.settingsFile()));
        const ProcessResult listed = tanner({QStringLiteral("folders")});
        EXPECT_EQ(listed.exitCode, 0) << listed.err.toStdString();
        EXPECT_TRUE(listed.err.contains("is not used: it is not a regular file")) << listed.err.toStdString();
        const ProcessResult added = tanner({QStringLiteral("folders"), QStringLiteral("add"), docs});
        EXPECT_NE(added.exitCode, 0);
        EXPECT_TRUE(added.err.contains("Can't save the settings")) << added.err.toStdString();
        EXPECT_EQ(QFileInfo(home.settingsFile()).symLinkTarget(), target);
        EXPECT_FALSE(S_ISREG(Status(target).st_mode)) << "the node was not replaced";
    }

    if (::geteuid() != 0) {
        std::printf("The owner is not tried: only root can give a file to another user.\n");
        return;
    }
    QFile::remove(home.settingsFile());
    writeFile("[General]\ntwbackup.recent=USB\n");
    const QByteArray settings = QFile::encodeName(home.settingsFile());
    ASSERT_EQ(::chown(settings.constData(), 65534, 65534), 0);
    ASSERT_EQ(::chmod(settings.constData(), 0640), 0);
    ASSERT_EQ(tanner({QStringLiteral("folders"), QStringLiteral("add"), docs}).exitCode, 0);
    const struct stat status = Status(home.settingsFile());
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_uid, 65534u);
    EXPECT_EQ(status.st_gid, 65534u);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_TRUE(fileText().contains("/src/Docs"));
}

// Damage: every original that was not read whole is kept, each under its own number; a last line
// cut short is not trusted (only the list elements before its cut are); "/" and the devices are
// never backup folders; a relative XDG_CONFIG_HOME is ignored and one that is not UTF-8 is used as
// the bytes it is.
TEST_F(SettingsSharing, DamageIsKeptAndNotTrusted)
{
    const QString damaged = home.settingsFile() + QStringLiteral(".damaged");
    writeFile("[General]\ntwbackup.recent=A\ntwbackup.recent=B\n");
    BUAppController &controller = launch();
    writeFile("[General]\ntwbackup.recent=C\n[General]\ntwbackup.folders=/x/Y\n");
    launch();
    launch(); // the same damage again: no third copy
    EXPECT_TRUE(QFile::exists(damaged));
    EXPECT_TRUE(QFile::exists(damaged + QStringLiteral("-2")));
    EXPECT_FALSE(QFile::exists(damaged + QStringLiteral("-3")));

    writeFile("[General]\ntwbackup.folders=/data/Music, /data/Photos/Summer, /data/Pho");
    launch();
    EXPECT_EQ(controller.backupFolders(),
        (QStringList {QStringLiteral("/data/Music"), QStringLiteral("/data/Photos/Summer")}));
    writeFile("[General]\ntwbackup.ignoreFiles=10tmp\ntwbackup.folders=/data/Photos/Summ");
    launch();
    EXPECT_FALSE(controller.backupFolders().contains(QStringLiteral("/data/Photos/Summ")));
    EXPECT_EQ(controller.ignoreFiles().size(), 1);
    EXPECT_TRUE(QFile::exists(damaged + QStringLiteral("-4")));

    // A list of one is text as well, never a binary value.
    controller.backupFolders() = {QStringLiteral("/data/Music")};
    ASSERT_TRUE(controller.saveState());
    EXPECT_TRUE(fileText().contains("twbackup.folders=/data/Music\n")) << fileText().toStdString();

    const QString volumes = home.path() + QStringLiteral("/volumes");
    QDir().mkpath(volumes + QStringLiteral("/Disk"));
    qputenv("TANNER_VOLUMES_ROOT", QFile::encodeName(volumes));
    writeFile(QStringLiteral("[General]\ntwbackup.folders=/, %1, %1/Disk, %1/Disk/Work, /data/Music\n")
                  .arg(volumes)
                  .toUtf8());
    launch();
    EXPECT_EQ(controller.backupFolders(),
        (QStringList {volumes + QStringLiteral("/Disk/Work"), QStringLiteral("/data/Music")}));
    EXPECT_EQ(controller.addBackupFolders({volumes + QStringLiteral("/Disk"), home.path()}).size(), 2);
    qunsetenv("TANNER_VOLUMES_ROOT");

    const QByteArray saved = qgetenv("XDG_CONFIG_HOME");
    qputenv("XDG_CONFIG_HOME", "relative/config");
    EXPECT_EQ(SettingsFolder(), home.path() + QStringLiteral("/home/.config/Tannerwick"));
    const QByteArray odd = QFile::encodeName(home.path()) + "/conf\xe9";
    qputenv("XDG_CONFIG_HOME", odd);
    EXPECT_EQ(FileNameToBytes(SettingsFolder()), odd + "/Tannerwick");
    EXPECT_TRUE(SetSettingsValue(SharedDefaultsPath(), QStringLiteral("ks.test"), QStringLiteral("seen")));
    EXPECT_EQ(OpenSettingsFile(SharedDefaultsPath())->value(QStringLiteral("ks.test")).toString(), u"seen");
    struct stat status;
    EXPECT_EQ(::stat((odd + "/Tannerwick/com.tannerwick.shared.conf").constData(), &status), 0);
    qputenv("XDG_CONFIG_HOME", saved);
    std::filesystem::remove_all(std::filesystem::path(odd.toStdString())); // a name Qt cannot remove
}
