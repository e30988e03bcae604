// The two device groups of the application controller, rebuilt from mount notifications on the
// event loop, as the device list will see them.
#include "app/BUAppController.h"
#include "tests/support/TestSupport.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>

#include <functional>

using namespace tanner::test;

namespace {

bool WaitFor(const std::function<bool()> &done, int timeoutMs = 5000)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!done()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    }
    return true;
}

QStringList Names(const char *prefix, int first, int last)
{
    QStringList names;
    for (int i = first; i <= last; ++i)
        names.append(QStringLiteral("%1%2").arg(QLatin1String(prefix)).arg(i, 2, 10, QLatin1Char('0')));
    return names;
}

} // namespace

TEST(DeviceLists, FollowMountsAndTellTheWindowWhereTheSelectionWent)
{
    TANNER_REQUIRE_MOUNTS(); // before anything opens the mount table
    int argc = 1;
    char name[] = "device_lists_test";
    char *argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);
    ScopedXdgHome home;
    QTemporaryDir volumes;
    qputenv("TANNER_VOLUMES_ROOT", QFile::encodeName(volumes.path()));
    QStringList mounted;
    auto mountDevice = [&](const QString &device) {
        const QString path = volumes.path() + u'/' + device;
        mounted.prepend(path);
        return MountTmpfs(path);
    };

    BUAppController &controller = BUAppController::sharedInstance();
    controller.applicationWillFinishLaunching();
    controller.applicationDidFinishLaunching();
    EXPECT_TRUE(controller.mountedRecentDrives().isEmpty());
    EXPECT_TRUE(controller.otherDrives().isEmpty());

    QString selected;
    QList<qsizetype> notified;
    controller.selectedDriveHook = [&] { return selected; };
    controller.updateDriveListHook = [&](qsizetype index) { notified.append(index); };

    // Twelve recent devices mounted (one named with a space), one recent device that is not.
    QStringList recent = Names("R", 1, 11);
    recent.insert(1, QStringLiteral("Gone"));
    recent.insert(2, QStringLiteral("Space Disk"));
    controller.recentDrives() = recent;
    for (const QString &device : Names("R", 1, 11) + QStringList {"Space Disk", "Other Disk", "a stick", "zeta"})
        ASSERT_TRUE(mountDevice(device));
    const QStringList firstTen = QStringList {"R01", "Space Disk"} + Names("R", 2, 9);
    ASSERT_TRUE(WaitFor([&] { return controller.otherDrives().contains(QStringLiteral("zeta")); }))
        << "no notification for the mounts";
    EXPECT_EQ(controller.mountedRecentDrives(), firstTen);
    EXPECT_EQ(controller.otherDrives(), (QStringList {"a stick", "Other Disk", "R10", "R11", "zeta"}));
    EXPECT_EQ(notified.last(), BUAppController::kDriveNotFound) << "nothing was selected";

    // Made read-only, a device leaves the lists.
    ASSERT_TRUE(RemountReadOnly(volumes.path() + QStringLiteral("/zeta")));
    ASSERT_TRUE(WaitFor([&] { return !controller.otherDrives().contains(QStringLiteral("zeta")); }));

    // The selected device keeps its place through an unrelated change...
    selected = QStringLiteral("R03");
    notified.clear();
    ASSERT_TRUE(LazyUnmount(volumes.path() + QStringLiteral("/a stick")));
    ASSERT_TRUE(WaitFor([&] { return !notified.isEmpty(); }));
    EXPECT_EQ(notified.last(), 3);

    // ...is reported missing once unmounted, and the next recent device moves up...
    notified.clear();
    ASSERT_TRUE(LazyUnmount(volumes.path() + QStringLiteral("/R03")));
    ASSERT_TRUE(WaitFor([&] { return !controller.mountedRecentDrives().contains(QStringLiteral("R03")); }));
    EXPECT_EQ(notified.last(), BUAppController::kDriveNotFound);
    EXPECT_EQ(controller.mountedRecentDrives().last(), QStringLiteral("R10"));

    // ...and comes back at its old rank when mounted again.
    ASSERT_TRUE(mountDevice(QStringLiteral("R03")));
    ASSERT_TRUE(WaitFor([&] { return controller.mountedRecentDrives().contains(QStringLiteral("R03")); }));
    EXPECT_EQ(controller.mountedRecentDrives(), firstTen);
    EXPECT_EQ(notified.last(), 3);

    // Starting a backup on an other device makes it the most recent; the tenth recent device moves
    // to the others, which are sorted again.
    controller.updateRecentDrives(QStringLiteral("Other Disk"));
    EXPECT_EQ(controller.recentDrives().first(), QStringLiteral("Other Disk"));
    EXPECT_EQ(controller.recentDrives().size(), recent.size() + 1);
    EXPECT_EQ(controller.mountedRecentDrives(), QStringList {"Other Disk"} + firstTen.first(9));
    EXPECT_EQ(controller.otherDrives(), (QStringList {"R09", "R10", "R11"}));

    controller.selectedDriveHook = nullptr;
    controller.updateDriveListHook = nullptr;
    for (const QString &path : std::as_const(mounted))
        LazyUnmount(path);
    qunsetenv("TANNER_VOLUMES_ROOT");
}
