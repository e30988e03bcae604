// The mount table and the list of mounted devices, on real mounts in a private namespace.
#include "backup/BUDevices.h"
#include "keelson/KSDayIndex.h"
#include "keelson/KSStrings.h"
#include "tests/support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QLocale>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

using namespace tanner::test;

namespace {

// A temporary volumes root for one test, set through the environment.
class VolumesRootFixture : public ::testing::Test {
protected:
    void SetUp() override
    {
        TANNER_REQUIRE_MOUNTS();
        qputenv("TANNER_VOLUMES_ROOT", QFile::encodeName(m_dir.path()));
    }
    void TearDown() override
    {
        for (const QString &mounted : std::as_const(m_mounted))
            LazyUnmount(mounted);
        qunsetenv("TANNER_VOLUMES_ROOT");
    }
    QString mount(const QString &relative)
    {
        const QString path = m_dir.path() + u'/' + relative;
        EXPECT_TRUE(MountTmpfs(path)) << relative.toStdString();
        m_mounted.prepend(path);
        return path;
    }
    QTemporaryDir m_dir;
    QTemporaryDir m_outside; // a folder outside the volumes root
    QStringList m_mounted;
};

bool SetInodeFlag(const QString &path, int flag, bool on)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY);
    if (fd < 0)
        return false;
    int flags = 0;
    bool ok = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = on ? (flags | flag) : (flags & ~flag);
    ok = ok && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    ::close(fd);
    return ok;
}

} // namespace

TEST(MountInfo, DecodesEscapesOptionalFieldsAndReadOnlyOptions)
{
    const QByteArray text = "22 1 0:21 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
                            "40 22 0:40 / /media/me/Backup\\040Disk rw,nosuid master:3 shared:7 - vfat /dev/sdb1 rw\n"
                            "41 22 0:41 / /media/me/Tab\\011and\\134slash ro - tmpfs tmpfs rw\n"
                            "42 22 0:42 / /media/me/SuperRO rw - ext4 /dev/sdc1 ro,errors=remount-ro\n"
                            "malformed line without separator\n"
                            "43 22 0:43 / /media/me/Caf\\303\\251\\377 rw - fuseblk /dev/sdd1 rw\n"
                            "44 22 0:44 /shared/Disk /media/me/Bound rw - ext4 /dev/sde1 rw";
    const QList<BUMountEntry> entries = ParseMountInfo(text);
    ASSERT_EQ(entries.size(), 6);
    EXPECT_EQ(entries[0].mountPoint, QStringLiteral("/"));
    EXPECT_EQ(entries[1].mountPoint, QStringLiteral("/media/me/Backup Disk"));
    EXPECT_EQ(entries[1].fileSystemType, QStringLiteral("vfat"));
    EXPECT_EQ(entries[1].source, QStringLiteral("/dev/sdb1"));
    EXPECT_FALSE(entries[1].readOnly);
    EXPECT_EQ(entries[2].mountPoint, QStringLiteral("/media/me/Tab\tand\\slash"));
    EXPECT_TRUE(entries[2].readOnly);
    EXPECT_TRUE(entries[3].readOnly) << "a file system mounted read-only underneath counts too";
    // Names that are not UTF-8 keep their bytes.
    EXPECT_EQ(FileNameToBytes(entries[4].mountPoint), QByteArray("/media/me/Caf\xc3\xa9\xff"));
    // A mount of a folder of its file system is told from one of the whole file system.
    EXPECT_TRUE(entries[1].wholeFileSystem);
    EXPECT_FALSE(entries[5].wholeFileSystem);
    EXPECT_EQ(entries[5].mountPoint, QStringLiteral("/media/me/Bound"));
}

TEST_F(VolumesRootFixture, ListsWritableMountsOneLevelBelowTheRootSortedWithoutCase)
{
    mount(QStringLiteral("beta"));
    mount(QStringLiteral("Alpha"));
    mount(QStringLiteral("Backup Disk"));
    mount(QStringLiteral("Alpha/nested")); // not one level below the root
    mount(QStringLiteral(".hidden"));
    RemountReadOnly(mount(QStringLiteral("ReadOnly")));
    QDir(m_dir.path()).mkdir(QStringLiteral("plain folder")); // not a mount point
    ASSERT_TRUE(MountTmpfs(m_outside.path()));
    m_mounted.prepend(m_outside.path());

    EXPECT_EQ(MountedDrives(), (QStringList {"Alpha", "Backup Disk", "beta"}));
    ASSERT_TRUE(MountEntryForDevice(QStringLiteral("Backup Disk")).has_value());
    EXPECT_EQ(MountEntryForDevice(QStringLiteral("Backup Disk"))->fileSystemType, QStringLiteral("tmpfs"));
    EXPECT_FALSE(MountEntryForDevice(QStringLiteral("plain folder")).has_value());

    // A read-only mount stacked on a writable one hides it.
    const QString beta = m_dir.path() + QStringLiteral("/beta");
    ASSERT_TRUE(MountTmpfs(beta));
    m_mounted.prepend(beta);
    ASSERT_TRUE(RemountReadOnly(beta));
    EXPECT_EQ(MountedDrives(), (QStringList {"Alpha", "Backup Disk"}));

    // An ejected device is gone from the table at once.
    ASSERT_TRUE(LazyUnmount(m_dir.path() + QStringLiteral("/Alpha")));
    EXPECT_EQ(MountedDrives(), (QStringList {"Backup Disk"}));
}

TEST_F(VolumesRootFixture, ImmutableAndAppendOnlyRootsAreNotDevices)
{
    const QString locked = mount(QStringLiteral("Locked"));
    const QString appendOnly = mount(QStringLiteral("AppendOnly"));
    mount(QStringLiteral("Open"));
    if (!SetInodeFlag(locked, FS_IMMUTABLE_FL, true) || !SetInodeFlag(appendOnly, FS_APPEND_FL, true))
        GTEST_SKIP() << "this kernel's tmpfs does not take the immutable and append-only flags";
    const QStringList drives = MountedDrives();
    SetInodeFlag(locked, FS_IMMUTABLE_FL, false);
    SetInodeFlag(appendOnly, FS_APPEND_FL, false);
    EXPECT_EQ(drives, QStringList {"Open"});
}

TEST(LastBackupText, YesterdayTodayInTheLocalesClockAndOlderDates)
{
    const QLocale saved;
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    EXPECT_FALSE(Is24HourTime());
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    EXPECT_TRUE(Is24HourTime());
    QLocale::setDefault(saved);

    const int today = DayIndexForToday();
    const QMap<QString, qint64> dates {{"Afternoon", today}, {"Midnight", today}, {"Untimed", today},
        {"Yesterday disk", AddToDayIndex(today, 0, -1)}, {"Old", 20240307}};
    const QMap<QString, qint64> times {
        {"Afternoon", 14 * 3600 + 5 * 60 + 59}, {"Midnight", 30 * 60}, {"Old", 100}, {"Never", 100}};
    EXPECT_EQ(LastBackupText(dates, times, QStringLiteral("Afternoon"), true), QStringLiteral("14:05"));
    EXPECT_EQ(LastBackupText(dates, times, QStringLiteral("Afternoon"), false), QStringLiteral("2:05 pm"));
    EXPECT_EQ(LastBackupText(dates, times, QStringLiteral("Midnight"), false), QStringLiteral("12:30 am"));
    EXPECT_EQ(LastBackupText(dates, times, QStringLiteral("Untimed"), false), QStringLiteral("Today"));
    EXPECT_EQ(LastBackupText(dates, times, QStringLiteral("Yesterday disk"), true), QStringLiteral("Yesterday"));
    EXPECT_EQ(LastBackupText(dates, times, QStringLiteral("Old"), true),
        LocaleIsDayFirst() ? QStringLiteral("7/3/2024") : QStringLiteral("3/7/2024"));
    EXPECT_EQ(LastBackupText(dates, times, QStringLiteral("Never"), true), QString());
    EXPECT_EQ(LastBackupText(dates, times, QStringLiteral("afternoon"), true), QString()) << "names match exactly";
}
