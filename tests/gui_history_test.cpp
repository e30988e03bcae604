// The History window on the main window's own runs, on a real device in a private mount
// namespace: opened from the Go menu and from a device's context menu, the runs with their
// outcome, a run's failures on a click, and a damaged history said as such.
#include "app/BUAppController.h"
#include "backup/BURunHistory.h"
#include "keelson/KSLogger.h"
#include "keelson/gui/KSAlert.h"
#include "keelson/gui/KSAlertController.h"
#include "tests/support/GuiTestSupport.h"
#include "tests/support/TestSupport.h"
#include "ui/BUHistoryWindow.h"
#include "ui/BUWindowController.h"

#include <QAction>
#include <QDir>
#include <QFile>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QTest>
#include <QTreeView>
#include <QTreeWidget>

using namespace tanner::test;

namespace {

class HistoryWindow : public ::testing::Test {
protected:
    void SetUp() override
    {
        TANNER_REQUIRE_MOUNTS();
        EnsureApplication();
        volumes = home.path() + QStringLiteral("/volumes");
        QDir().mkpath(volumes);
        qputenv("TANNER_VOLUMES_ROOT", QFile::encodeName(volumes));
        source = home.path() + QStringLiteral("/src/Docs");
        WriteTree(source, {{QStringLiteral("a.txt"), "alpha"}, {QStringLiteral("sub/b.txt"), "beta"}});
        device = volumes + QStringLiteral("/Backup Disk");
        ASSERT_TRUE(MountTmpfs(device, 16 << 20));
        KSAlert::setTestAnswerer([this](const KSAlert::Shown &shown) {
            alerts.append(shown.message);
            return KSAlertController::kFirstButton;
        });
        BUAppController &controller = BUAppController::sharedInstance();
        controller.applicationWillFinishLaunching();
        window = std::make_unique<BUWindowController>();
        controller.applicationDidFinishLaunching();
        controller.backupFolders() = {source};
        window->updateRuleList(0);
        outline = window->findChild<QTreeView *>(QStringLiteral("diskOutline"));
        status = window->findChild<QLabel *>(QStringLiteral("statusField"));
        window->show();
    }
    void TearDown() override
    {
        if (BUHistoryWindow *history = BUHistoryWindow::openWindow())
            delete history;
        window.reset();
        for (const QString &mount : {device + QStringLiteral("/Docs/stuck"), device})
            LazyUnmount(mount);
        KSAlert::setTestAnswerer({});
    }
    QModelIndex deviceRow(const QString &name) const
    {
        QAbstractItemModel *model = outline->model();
        for (int group = 0; group < 2; ++group) {
            for (int row = 0; row < model->rowCount(model->index(group, 0)); ++row) {
                const QModelIndex index = model->index(row, 0, model->index(group, 0));
                if (index.data().toString() == name)
                    return index;
            }
        }
        return {};
    }
    void backupToEnd()
    {
        outline->setCurrentIndex(deviceRow(QStringLiteral("Backup Disk")));
        window->findChild<QPushButton *>(QStringLiteral("backupButton"))->click();
        ASSERT_TRUE(WaitUntil(
            [this] { return !window->isRunning() && window->operationCount() == 0; }, std::chrono::seconds(60)));
    }

    ScopedXdgHome home;
    QString volumes, source, device;
    std::unique_ptr<BUWindowController> window;
    QTreeView *outline = nullptr;
    QLabel *status = nullptr;
    QStringList alerts;
};

} // namespace

TEST_F(HistoryWindow, TheWindowsRunsWithTheirFailuresOnAClick)
{
    backupToEnd();
    ASSERT_EQ(status->text(), QStringLiteral("Backup succeeded")) << alerts.join(u'|').toStdString();
    // A device folder the sources no longer have, on a read-only mount: its Delete fails.
    const QString stuck = device + QStringLiteral("/Docs/stuck");
    ASSERT_TRUE(MountTmpfs(stuck, 1 << 20));
    WriteTree(stuck, {{QStringLiteral("old.txt"), "old"}});
    ASSERT_TRUE(RemountReadOnly(stuck));
    backupToEnd();
    ASSERT_EQ(status->text(), QStringLiteral("1 backup action failed"));

    // From the Go menu, with the selected device's runs, newest first.
    QAction *historyAction = window->findChild<QAction *>(QStringLiteral("historyAction"));
    ASSERT_NE(historyAction, nullptr);
    historyAction->trigger();
    BUHistoryWindow *history = BUHistoryWindow::openWindow();
    ASSERT_NE(history, nullptr);
    EXPECT_TRUE(history->isVisible());
    EXPECT_EQ(history->shownDevice(), QStringLiteral("Backup Disk"));
    auto *runList = history->findChild<QTreeWidget *>(QStringLiteral("runList"));
    auto *failureList = history->findChild<QTreeWidget *>(QStringLiteral("failureList"));
    auto *summary = history->findChild<QLabel *>(QStringLiteral("runSummary"));
    ASSERT_EQ(runList->topLevelItemCount(), 2);
    QTreeWidgetItem *failed = runList->topLevelItem(0);
    EXPECT_EQ(failed->text(3), QStringLiteral("Failed items"));
    EXPECT_EQ(failed->text(4), QStringLiteral("1 backup action failed"));
    EXPECT_EQ(failed->foreground(3).color(), QColor(195, 33, 33));
    EXPECT_EQ(runList->topLevelItem(1)->text(3), QStringLiteral("Succeeded"));

    // The newest run is shown with its failure; a click on the other shows that one.
    EXPECT_TRUE(failureList->isVisible());
    ASSERT_EQ(failureList->topLevelItemCount(), 1);
    EXPECT_EQ(failureList->topLevelItem(0)->text(0), QStringLiteral("Delete"));
    EXPECT_EQ(failureList->topLevelItem(0)->text(1), stuck);
    EXPECT_FALSE(failureList->topLevelItem(0)->text(2).isEmpty());
    EXPECT_TRUE(summary->text().contains(QStringLiteral("1 action failed."))) << summary->text().toStdString();
    QTest::mouseClick(
        runList->viewport(), Qt::LeftButton, {}, runList->visualItemRect(runList->topLevelItem(1)).center());
    EXPECT_FALSE(failureList->isVisible());
    EXPECT_TRUE(summary->text().contains(QStringLiteral("Succeeded: Backup succeeded")))
        << summary->text().toStdString();
    EXPECT_TRUE(summary->text().contains(QStringLiteral(" copied, 0 updated, 0 deleted")))
        << summary->text().toStdString();
    QTest::mouseClick(
        runList->viewport(), Qt::LeftButton, {}, runList->visualItemRect(runList->topLevelItem(0)).center());
    EXPECT_TRUE(failureList->isVisible());

    // From a device's context menu, after the window was closed.
    history->close();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    ASSERT_EQ(BUHistoryWindow::openWindow(), nullptr);
    QString offered;
    QTimer::singleShot(0, [&offered] {
        auto *menu = qobject_cast<QMenu *>(QApplication::activePopupWidget());
        if (!menu)
            return;
        if (QAction *show = menu->findChild<QAction *>(QStringLiteral("showDeviceHistoryAction"))) {
            offered = show->text();
            show->trigger();
        }
        menu->close();
    });
    const QModelIndex row = deviceRow(QStringLiteral("Backup Disk"));
    emit outline->customContextMenuRequested(outline->visualRect(row).center());
    EXPECT_EQ(offered, QStringLiteral("Show History of \"Backup Disk\""));
    history = BUHistoryWindow::openWindow();
    ASSERT_NE(history, nullptr);
    EXPECT_EQ(history->shownDevice(), QStringLiteral("Backup Disk"));
    EXPECT_EQ(history->shownRuns().size(), 2);

    // The window's runs are in the program's log.
    QFile log(KSLogger::logFilePath());
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    const QString text = QString::fromUtf8(log.readAll());
    EXPECT_TRUE(text.contains(QStringLiteral("Backup to \"Backup Disk\" started with the backup folders ") + source));
    EXPECT_TRUE(text.contains(QStringLiteral("Backup to \"Backup Disk\" ended (succeeded)")));
    EXPECT_TRUE(text.contains(QStringLiteral("Backup to \"Backup Disk\": Delete %1 failed: ").arg(stuck)));
}

TEST_F(HistoryWindow, ADamagedHistoryIsSaidAndNothingBreaks)
{
    QDir().mkpath(QFileInfo(BURunHistory::historyPath()).absolutePath());
    QFile file(BURunHistory::historyPath());
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("\x00\x01 not a history");
    file.close();
    BUHistoryWindow *history = BUHistoryWindow::showHistory(window.get());
    auto *problem = history->findChild<QLabel *>(QStringLiteral("problemField"));
    EXPECT_TRUE(problem->isVisible());
    EXPECT_TRUE(problem->text().startsWith(QStringLiteral("The history of runs "))) << problem->text().toStdString();
    EXPECT_EQ(history->shownRuns().size(), 0);
    EXPECT_EQ(history->findChild<QLabel *>(QStringLiteral("runSummary"))->text(),
        QStringLiteral("No analysis or backup is on record yet."));

    // The next run starts a new history, which the open window then lists.
    backupToEnd();
    EXPECT_FALSE(problem->isVisible());
    ASSERT_EQ(history->shownRuns().size(), 1);
    EXPECT_EQ(history->shownRuns()[0].outcome, BURunOutcome::kSucceeded);
}
