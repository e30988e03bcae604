// The devices command through the real binary: the two groups with their last-backup texts, and
// the watch mode following mounts until it is told to stop.
#include "keelson/KSDayIndex.h"
#include "keelson/KSUserDefaults.h"
#include "tests/support/TestSupport.h"

#include <QDeadlineTimer>
#include <QProcess>

using namespace tanner::test;

TEST(DevicesCommand, PrintsTheGroupsThenWatchesMountsUntilTerminated)
{
    TANNER_REQUIRE_MOUNTS();
    ScopedXdgHome home;
    QTemporaryDir volumes;
    QProcessEnvironment env = home.environment();
    env.insert(QStringLiteral("TANNER_VOLUMES_ROOT"), volumes.path());
    env.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    const int today = DayIndexForToday(), lastMonth = AddToDayIndex(today, 0, -30);
    {
        auto settings = OpenSettingsFile(home.settingsFile());
        WriteStringList(*settings, QStringLiteral("twbackup.recent"), {"Stick", "Unplugged"});
        WriteIntegerDictionary(*settings, QStringLiteral("twbackup.dates"),
            {{"Stick", AddToDayIndex(today, 0, -1)}, {"Backup Disk", today}, {"Archive", lastMonth},
                {"Ancient", 20000101}}); // a year old: purged at start-up
        WriteIntegerDictionary(*settings, QStringLiteral("twbackup.times"), {{"Backup Disk", 14 * 3600 + 5 * 60}});
        WriteStringList(*settings, QStringLiteral("twbackup.folders"), {home.path()}); // not a first run
    }
    QStringList mounted;
    for (const char *device : {"Backup Disk", "Stick", "Archive", ".hidden", "New"}) {
        mounted.prepend(volumes.path() + u'/' + QString::fromLatin1(device));
        ASSERT_TRUE(MountTmpfs(mounted.front()));
    }
    const QString groups = QStringLiteral("Recent Devices\n  Stick\tYesterday\nOther Devices\n  Archive\t%1\n"
                                          "  Backup Disk\t14:05\n  New\n")
                               .arg(FormatDayIndex(lastMonth, false));
    const ProcessResult listed = RunTanner({QStringLiteral("devices")}, env);
    ASSERT_EQ(listed.exitCode, 0) << listed.err.toStdString();
    EXPECT_EQ(QString::fromUtf8(listed.out), groups);
    EXPECT_EQ(RunTanner({QStringLiteral("devices"), QStringLiteral("extra")}, env).exitCode, 64);

    QProcess process;
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(TANNER_BINARY), {QStringLiteral("devices"), QStringLiteral("--watch")});
    QString out;
    auto readUntil = [&](const QString &wanted) {
        QDeadlineTimer deadline(10000);
        while (!out.contains(wanted) && !deadline.hasExpired()) {
            process.waitForReadyRead(100);
            out += QString::fromUtf8(process.readAllStandardOutput());
        }
        return out.contains(wanted);
    };
    ASSERT_TRUE(readUntil(groups)) << out.toStdString();
    mounted.prepend(volumes.path() + QStringLiteral("/Second Disk"));
    ASSERT_TRUE(MountTmpfs(mounted.front()));
    EXPECT_TRUE(readUntil(QStringLiteral("  New\n  Second Disk\n"))) << out.toStdString();
    ASSERT_TRUE(LazyUnmount(volumes.path() + QStringLiteral("/Stick")));
    EXPECT_TRUE(readUntil(QStringLiteral("Recent Devices\n  (none)\n"))) << out.toStdString();

    process.terminate();
    ASSERT_TRUE(process.waitForFinished(10000));
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
    // Listing changes nothing, so the file was not written: the purged record leaves it with the
    // next change that is saved.
    auto settings = OpenSettingsFile(home.settingsFile());
    EXPECT_TRUE(ReadIntegerDictionary(*settings, QStringLiteral("twbackup.dates")).contains(QStringLiteral("Ancient")));
    for (const QString &path : std::as_const(mounted))
        LazyUnmount(path);
}
