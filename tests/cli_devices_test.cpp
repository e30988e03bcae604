// The devices command through the real binary: the two groups with their last-backup texts, and
// the watch mode following mounts until it is told to stop.
#include "keelson/KSDayIndex.h"
#include "keelson/KSUserDefaults.h"
#include "tests/support/TestSupport.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QProcess>

using namespace tanner::test;

namespace {

class DevicesCommand : public ::testing::Test {
protected:
    void SetUp() override
    {
        TANNER_REQUIRE_MOUNTS();
        m_env = m_home.environment();
        m_env.insert(QStringLiteral("TANNER_VOLUMES_ROOT"), m_volumes.path());
        m_env.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    }
    void TearDown() override
    {
        for (const QString &path : std::as_const(m_mounted))
            LazyUnmount(path);
    }
    void mount(const QString &device)
    {
        const QString path = m_volumes.path() + u'/' + device;
        ASSERT_TRUE(MountTmpfs(path));
        m_mounted.prepend(path);
    }
    void writeState(const QStringList &recent, const QMap<QString, qint64> &dates, const QMap<QString, qint64> &times)
    {
        auto settings = OpenSettingsFile(m_home.settingsFile());
        WriteStringList(*settings, QStringLiteral("twbackup.recent"), recent);
        WriteIntegerDictionary(*settings, QStringLiteral("twbackup.dates"), dates);
        WriteIntegerDictionary(*settings, QStringLiteral("twbackup.times"), times);
        WriteStringList(*settings, QStringLiteral("twbackup.folders"), {m_home.path()}); // not a first run
    }

    ScopedXdgHome m_home;
    QTemporaryDir m_volumes;
    QProcessEnvironment m_env;
    QStringList m_mounted;
};

} // namespace

TEST_F(DevicesCommand, PrintsRecentThenOtherDevicesWithTheirLastBackup)
{
    const int today = DayIndexForToday();
    const int lastMonth = AddToDayIndex(today, 0, -30);
    writeState({"Stick", "Unplugged"},
        {{"Stick", AddToDayIndex(today, 0, -1)}, {"Backup Disk", today}, {"Archive", lastMonth}},
        {{"Backup Disk", 14 * 3600 + 5 * 60}});
    for (const char *device : {"Backup Disk", "Stick", "Archive", ".hidden", "New"})
        mount(QString::fromLatin1(device));

    const ProcessResult result = RunTanner({QStringLiteral("devices")}, m_env);
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_EQ(QString::fromUtf8(result.out),
        QStringLiteral(
            "Recent Devices\n  Stick\tYesterday\nOther Devices\n  Archive\t%1\n  Backup Disk\t14:05\n  New\n")
            .arg(FormatDayIndex(lastMonth, false)));

    EXPECT_EQ(RunTanner({QStringLiteral("devices"), QStringLiteral("extra")}, m_env).exitCode, 64);
}

TEST_F(DevicesCommand, WatchFollowsMountsAndStopsCleanlyOnTerminate)
{
    writeState({"Disk"}, {{"Ancient", 20000101}}, {});
    mount(QStringLiteral("Disk"));

    QProcess process;
    process.setProcessEnvironment(m_env);
    process.start(QStringLiteral(TANNER_BINARY), {QStringLiteral("devices"), QStringLiteral("--watch")});
    QByteArray out;
    auto readUntil = [&](const QByteArray &wanted) {
        QDeadlineTimer deadline(10000);
        while (!out.contains(wanted) && !deadline.hasExpired()) {
            process.waitForReadyRead(100);
            out += process.readAllStandardOutput();
        }
        return out.contains(wanted);
    };
    ASSERT_TRUE(readUntil("Recent Devices\n  Disk\nOther Devices\n  (none)\n")) << out.toStdString();

    out.clear();
    mount(QStringLiteral("Second Disk"));
    EXPECT_TRUE(readUntil("Other Devices\n  Second Disk\n")) << out.toStdString();
    out.clear();
    ASSERT_TRUE(LazyUnmount(m_volumes.path() + QStringLiteral("/Disk")));
    EXPECT_TRUE(readUntil("Recent Devices\n  (none)\nOther Devices\n  Second Disk\n")) << out.toStdString();

    process.terminate();
    ASSERT_TRUE(process.waitForFinished(10000));
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
    // The state was written back: the year-old record purged at start-up is gone from the file.
    auto settings = OpenSettingsFile(m_home.settingsFile());
    EXPECT_TRUE(ReadIntegerDictionary(*settings, QStringLiteral("twbackup.dates")).isEmpty());
    EXPECT_EQ(ReadStringList(*settings, QStringLiteral("twbackup.recent")), QStringList {"Disk"});
}
