// The main window along the paths a person takes, on real devices in a private mount namespace:
// launch to "Backup succeeded", a failed action, a cancel, a device with extra items, the
// analysis alone, and the question before a backup that would empty most of the device.
#include "app/BUAppController.h"
#include "backup/BUTransaction.h"
#include "help/BUHelpBookmarks.h"
#include "help/window/KSVellumaHelpWC.h"
#include "keelson/FormatString.h"
#include "keelson/KSDayIndex.h"
#include "keelson/KSLogger.h"
#include "keelson/gui/KSAlert.h"
#include "keelson/gui/KSAlertController.h"
#include "keelson/gui/KSFileChooser.h"
#include "keelson/gui/KSWorkspace.h"
#include "tests/support/GuiTestSupport.h"
#include "tests/support/TestSupport.h"
#include "ui/BUExtraStuffDialog.h"
#include "ui/BURuleDialog.h"
#include "ui/BUTransactionTableModel.h"
#include "ui/BUWindowController.h"

#include <QAbstractItemModelTester>
#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QDir>
#include <QDropEvent>
#include <QFileDialog>
#include <QHeaderView>
#include <QLabel>
#include <QListView>
#include <QMenu>
#include <QMenuBar>
#include <QMimeData>
#include <QPointer>
#include <QProcess>
#include <QPushButton>
#include <QRegularExpression>
#include <QSet>
#include <QTableView>
#include <QTest>
#include <QTreeView>

#include <algorithm>
#include <cmath>
#include <mutex>
#include <sys/mount.h>
#include <utility>

using namespace tanner::test;

namespace {

// A desktop's notification service, reduced to remembering what it was asked to show.
class NotificationServer : public QDBusVirtualObject {
public:
    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &connection) override
    {
        if (message.member() != QStringLiteral("Notify") || message.arguments().size() != 8)
            return false;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            shown.append(message.arguments().at(3).toString() + u'|' + message.arguments().at(4).toString());
        }
        connection.send(message.createReply(QVariant::fromValue(1U)));
        return true;
    }
    QStringList received() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return shown;
    }

private:
    mutable std::mutex mutex; // messages arrive on the bus's own thread
    QStringList shown;
};

class MainWindow : public ::testing::Test {
protected:
    void SetUp() override
    {
        TANNER_REQUIRE_MOUNTS();
        EnsureApplication();
        volumes = home.path() + QStringLiteral("/volumes");
        QDir().mkpath(volumes);
        qputenv("TANNER_VOLUMES_ROOT", QFile::encodeName(volumes));
        source = home.path() + QStringLiteral("/src/Docs");
        WriteTree(source,
            {{QStringLiteral("a.txt"), "alpha"}, {QStringLiteral("sub/b.txt"), "beta"},
                {QStringLiteral("sub/deeper/c.txt"), QByteArray(100000, 'c')}, {QStringLiteral("empty/"), {}}});
        ASSERT_TRUE(MountTmpfs(volumes + QStringLiteral("/Backup Disk"), 64 << 20));
        device = volumes + QStringLiteral("/Backup Disk");

        KSVellumaHelpWC::setApplicationHelpPath(QStringLiteral(TANNER_HELP_PACKAGE));
        KSAlert::setTestAnswerer([this](const KSAlert::Shown &shown) {
            alerts.append(shown.message);
            pressHelp(shown);
            return answer;
        });
        BUAppController &controller = BUAppController::sharedInstance();
        controller.applicationWillFinishLaunching();
        window = std::make_unique<BUWindowController>();
        controller.applicationDidFinishLaunching();
        controller.backupFolders() = {source};
        window->updateRuleList(0);
        outline = window->findChild<QTreeView *>(QStringLiteral("diskOutline"));
        table = window->findChild<QTableView *>(QStringLiteral("actionTable"));
        status = window->findChild<QLabel *>(QStringLiteral("statusField"));
        backupButton = window->findChild<QPushButton *>(QStringLiteral("backupButton"));
        testers.emplace_back(std::make_unique<QAbstractItemModelTester>(outline->model()));
        testers.emplace_back(std::make_unique<QAbstractItemModelTester>(table->model()));
        testers.emplace_back(std::make_unique<QAbstractItemModelTester>(
            window->findChild<QListView *>(QStringLiteral("ruleTable"))->model()));
        window->show();
    }
    void TearDown() override
    {
        if (window)
            window->cancel();
        window.reset();
        for (const QString &mount :
            {device + QStringLiteral("/Docs/stuck"), device + QStringLiteral("/Docs/sub"), device})
            LazyUnmount(mount); // so the temporary home can be removed
        KSAlert::setTestAnswerer({});
        BUExtraStuffDialog::setTestHook({});
        QList<QPointer<KSVellumaHelpWC>> helps;
        for (QWidget *widget : QApplication::topLevelWidgets()) {
            if (auto *help = qobject_cast<KSVellumaHelpWC *>(widget))
                helps.append(help);
        }
        for (const QPointer<KSVellumaHelpWC> &help : helps) {
            if (help)
                help->close();
            delete help.data();
        }
    }

    // Presses the box's "Help" while the box waits for its answer; records where the help opened
    // as the bookmark it shows, or -1 for a box without "Help".
    void pressHelp(const KSAlert::Shown &shown)
    {
        if (!shown.help) {
            helpBookmarks.append(-1);
            return;
        }
        shown.help(nullptr);
        KSVellumaHelpWC *help = helpWindow();
        if (!help) {
            helpBookmarks.append(-3);
            return;
        }
        const auto &cps = help->content().bookmarkCps;
        const auto at = std::find(cps.begin(), cps.end(), help->selectionStart());
        helpBookmarks.append(at == cps.end() ? -2 : int(at - cps.begin()));
        helpTopics.append(help->currentTopic());
    }
    static KSVellumaHelpWC *helpWindow()
    {
        for (QWidget *widget : QApplication::topLevelWidgets()) {
            if (auto *help = qobject_cast<KSVellumaHelpWC *>(widget); help && help->isVisible())
                return help;
        }
        return nullptr;
    }
    // The chapter of the open help window's document that holds a bookmark.
    static int topicOf(int bookmark)
    {
        if (!helpWindow())
            return -1;
        const KSHelpContent &content = helpWindow()->content();
        return content.chapterAt(content.bookmarkCps[std::size_t(bookmark)]);
    }

    // Selects a device by name in the outline, as a click would.
    bool selectDevice(const QString &name)
    {
        QAbstractItemModel *model = outline->model();
        for (int group = 0; group < 2; ++group) {
            const QModelIndex parent = model->index(group, 0);
            for (int row = 0; row < model->rowCount(parent); ++row) {
                const QModelIndex index = model->index(row, 0, parent);
                if (index.data().toString() == name) {
                    outline->setCurrentIndex(index);
                    return true;
                }
            }
        }
        return false;
    }
    bool runToEnd()
    {
        const bool ended = WaitUntil(
            [this] { return !window->isRunning() && window->operationCount() == 0; }, std::chrono::seconds(60));
        if (!ended)
            ADD_FAILURE() << "still running: " << status->text().toStdString() << " " << window->operationCount();
        return ended;
    }
    QLabel *counters() const { return window->findChild<QLabel *>(QStringLiteral("counterField")); }
    QStringList partialFiles() const
    {
        return QDir(device + QStringLiteral("/Docs"))
            .entryList({QStringLiteral(".tanner-partial-*")}, QDir::Files | QDir::Hidden);
    }
    QString statusColumn(int row) const { return table->model()->index(row, 0).data().toString(); }

    ScopedXdgHome home;
    QString volumes, source, device;
    std::unique_ptr<BUWindowController> window;
    std::vector<std::unique_ptr<QAbstractItemModelTester>> testers;
    QTreeView *outline = nullptr;
    QTableView *table = nullptr;
    QLabel *status = nullptr;
    QPushButton *backupButton = nullptr;
    QStringList alerts;
    QList<int> helpBookmarks, helpTopics;
    int answer = KSAlertController::kFirstButton;
};

} // namespace

TEST_F(MainWindow, LaunchToBackupSucceededAndThenUpToDate)
{
    EXPECT_FALSE(backupButton->isEnabled()); // no device selected yet
    ASSERT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
    EXPECT_TRUE(backupButton->isEnabled());
    backupButton->click();
    EXPECT_TRUE(window->isRunning());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(status->text(), QStringLiteral("Backup succeeded")) << alerts.join(u'|').toStdString();
    EXPECT_EQ(ReadTree(device + QStringLiteral("/Docs")), ReadTree(source));
    const int rows = table->model()->rowCount();
    ASSERT_GT(rows, 0);
    for (int row = 0; row < rows; ++row)
        EXPECT_EQ(statusColumn(row), QStringLiteral("\u2713")) << row;

    // The device is the most recent one now, backed up today.
    BUAppController &controller = BUAppController::sharedInstance();
    EXPECT_EQ(controller.recentDrives().value(0), QStringLiteral("Backup Disk"));
    EXPECT_EQ(controller.backupDates().value(QStringLiteral("Backup Disk")), DayIndexForToday());
    const QModelIndex first = outline->model()->index(0, 1, outline->model()->index(0, 0));
    EXPECT_FALSE(first.data().toString().isEmpty());
    EXPECT_EQ(window->selectedDrive(), QStringLiteral("Backup Disk"));

    backupButton->click();
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(status->text(), QStringLiteral("The backup device is up to date"));
    EXPECT_EQ(table->model()->rowCount(), 0);
    EXPECT_TRUE(alerts.isEmpty()) << alerts.join(u'|').toStdString();
}

// On a device that ignores case, a copy that would collide with its twin is marked in the list
// before the backup, with the very reason the backup then fails it with.
TEST_F(MainWindow, ACopyThatCaseRulesOutIsMarkedBeforeTheBackup)
{
    const QString fat = volumes + QStringLiteral("/Fat Disk");
    if (!MountFuseImage(QStringLiteral("fusefat"), home.path() + QStringLiteral("/fat.img"), 16, fat))
        GTEST_SKIP() << "fusefat cannot make or mount a FAT image here";
    WriteTree(source, {{QStringLiteral("Twin/f"), "folder"}, {QStringLiteral("twin"), "file"}});
    ASSERT_TRUE(WaitUntil([this] { return selectDevice(QStringLiteral("Fat Disk")); }));
    window->findChild<QAction *>(QStringLiteral("analyzeAction"))->trigger();
    ASSERT_TRUE(runToEnd());
    const QString reason
        = QStringLiteral("The device ignores case, so \"Twin\" and \"twin\" can't both be kept on it.");
    const QAbstractItemModel *model = table->model();
    auto cell
        = [model](int row, int column, int role = Qt::DisplayRole) { return model->index(row, column).data(role); };
    QList<int> marked;
    for (int row = 0; row < model->rowCount(); ++row) {
        if (!cell(row, BUTransactionTableModel::kStatusColumn, Qt::DecorationRole).isNull())
            marked.append(row);
        else
            EXPECT_FALSE(cell(row, BUTransactionTableModel::kNameColumn, Qt::ToolTipRole).toString().contains(reason));
    }
    ASSERT_EQ(marked.size(), 1) << status->text().toStdString();
    const int row = marked.front();
    EXPECT_EQ(cell(row, BUTransactionTableModel::kNameColumn).toString(), QStringLiteral("twin"));
    EXPECT_EQ(cell(row, BUTransactionTableModel::kStatusColumn, Qt::ToolTipRole).toString(), reason);
    EXPECT_EQ(cell(row, BUTransactionTableModel::kStatusColumn, Qt::AccessibleTextRole).toString(), reason);
    EXPECT_EQ(cell(row, BUTransactionTableModel::kNameColumn, Qt::ToolTipRole).toString(),
        source + QStringLiteral("/twin\n") + reason);

    backupButton->click();
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(status->text(), QStringLiteral("1 backup action failed")) << alerts.join(u'|').toStdString();
    EXPECT_EQ(statusColumn(row), QStringLiteral("\u2718"));
    EXPECT_TRUE(cell(row, BUTransactionTableModel::kLocationColumn).toString().endsWith(u'\n' + reason));
    EXPECT_TRUE(cell(row, BUTransactionTableModel::kStatusColumn, Qt::DecorationRole).isNull()); // the cross says it
    LazyUnmount(fat);
}

TEST_F(MainWindow, VolumesAppearAndGoWhileTheWindowIsOpen)
{
    const QString late = volumes + QStringLiteral("/Late Disk");
    ASSERT_TRUE(MountTmpfs(late, 1 << 20));
    EXPECT_TRUE(WaitUntil([this] { return selectDevice(QStringLiteral("Late Disk")); }));
    ASSERT_TRUE(LazyUnmount(late));
    EXPECT_TRUE(WaitUntil([this] { return !selectDevice(QStringLiteral("Late Disk")); }));
    EXPECT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
}

TEST_F(MainWindow, AddingFoldersAndDeletingRules)
{
    const QString photos = home.path() + QStringLiteral("/a/Photos"), other = home.path() + QStringLiteral("/b/photos");
    QDir().mkpath(photos);
    QDir().mkpath(other);
    auto *rules = window->findChild<QListView *>(QStringLiteral("ruleTable"));
    auto *deleteButton = window->findChild<QPushButton *>(QStringLiteral("deleteRuleButton"));
    KSSetNextChooserAnswer(QStringList {photos, other, source});
    window->addRule();
    EXPECT_EQ(KSLastChooserMessage(), QStringLiteral("Select one or more folders to back up"));
    EXPECT_EQ(alerts, QStringList {QStringLiteral("Can't add a backup folder.")}); // "photos" twice; Docs silently
    EXPECT_EQ(BUAppController::sharedInstance().backupFolders(), (QStringList {source, photos}));
    EXPECT_EQ(rules->model()->rowCount(), 2);

    // Deleting the last row selects the new last one; deleting the only one turns Delete off.
    rules->setCurrentIndex(rules->model()->index(1, 0));
    EXPECT_TRUE(deleteButton->isEnabled());
    deleteButton->click();
    EXPECT_EQ(rules->currentIndex().row(), 0);
    deleteButton->click();
    EXPECT_EQ(rules->model()->rowCount(), 0);
    EXPECT_FALSE(deleteButton->isEnabled());
    EXPECT_FALSE(backupButton->isEnabled()); // nothing to back up
}

TEST_F(MainWindow, FailedActionIsRedAndNextErrorFindsIt)
{
    // A device folder the sources no longer have, on a read-only mount: its Delete fails alone.
    const QString stuck = device + QStringLiteral("/Docs/stuck");
    ASSERT_TRUE(MountTmpfs(stuck, 1 << 20));
    WriteTree(stuck, {{QStringLiteral("old.txt"), "old"}});
    ASSERT_TRUE(RemountReadOnly(stuck));
    BUAppController::sharedInstance().backupDates().insert(QStringLiteral("Backup Disk"), 20200101);

    ASSERT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(status->text(), QStringLiteral("1 backup action failed")) << alerts.join(u'|').toStdString();
    EXPECT_EQ(BUAppController::sharedInstance().backupDates().value(QStringLiteral("Backup Disk")), 20200101);

    int failedRow = -1;
    for (int row = 0; row < table->model()->rowCount(); ++row) {
        if (statusColumn(row) == QStringLiteral("\u2718"))
            failedRow = row;
    }
    ASSERT_GE(failedRow, 0);
    const QModelIndex location = table->model()->index(failedRow, 4);
    EXPECT_TRUE(location.data().toString().contains(u'\n')); // the message under the location
    EXPECT_EQ(location.data(Qt::ForegroundRole).value<QBrush>().color(), QColor(195, 33, 33));
    EXPECT_GT(table->rowHeight(failedRow), table->rowHeight(failedRow == 0 ? 1 : 0));
    EXPECT_EQ(table->currentIndex().row(), failedRow); // the window jumped to it

    table->setCurrentIndex(table->model()->index(0, 0));
    window->nextError();
    EXPECT_EQ(table->currentIndex().row(), failedRow);
    window->nextError(); // wraps around to the same, only failure
    EXPECT_EQ(table->currentIndex().row(), failedRow);
}

TEST_F(MainWindow, ProgressReportsTouchOnlyTheirRows)
{
    // 200,000 rows: uniform heights, and each report changes one range, not the whole table.
    ClearTransactions();
    for (int i = 0; i < 200000; ++i)
        g_transactions.append(BUTransaction(QStringLiteral("/src/Docs/f%1").arg(i), QStringLiteral("/src")));
    static_cast<BUTransactionTableModel *>(table->model())->reload();
    EXPECT_EQ(table->verticalHeader()->sectionResizeMode(0), QHeaderView::Fixed);
    int changes = 0;
    QObject::connect(table->model(), &QAbstractItemModel::dataChanged, [&](const QModelIndex &a, const QModelIndex &b) {
        ++changes;
        EXPECT_EQ(a.row(), 1000);
        EXPECT_EQ(b.row(), 1001);
    });
    BUBackupStatusReport report;
    report.trans = {{1000, QString()}, {1001, QStringLiteral("The file no longer exists")}};
    window->backupStatus(report);
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(table->currentIndex().row(), 1002); // the list follows the work
    ClearTransactions();
    static_cast<BUTransactionTableModel *>(table->model())->reload();
}

TEST_F(MainWindow, CancelDuringTheBackup)
{
    Tree many;
    for (int i = 0; i < 3000; ++i)
        many.insert(QStringLiteral("many/f%1.txt").arg(i), QByteArray(2000, 'x'));
    WriteTree(source, many);
    ASSERT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
    // Cancel as the first progress report arrives: the backup is surely under way then.
    bool cancelled = false;
    QObject::connect(table->model(), &QAbstractItemModel::dataChanged, window.get(), [&] {
        if (!cancelled && window->isBackupInProgress()) {
            cancelled = true;
            window->cancel();
        }
    });
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(status->text(), QStringLiteral("Backup canceled"));
    EXPECT_LT(QDir(device + QStringLiteral("/Docs/many")).count(), 3002u);
    EXPECT_TRUE(backupButton->isEnabled());
    EXPECT_NE(BUAppController::sharedInstance().backupDates().value(QStringLiteral("Backup Disk")), DayIndexForToday());
}

TEST_F(MainWindow, ExtraItemsAnalysisOnlyAndLargeDeletions)
{
    WriteTree(device, {{QStringLiteral("Holiday Movies/m.mp4"), "m"}});
    QStringList shownItems;
    BUExtraStuffDialog::setTestHook([&](BUExtraStuffDialog &dialog) {
        shownItems.append(dialog.warningText());
        dialog.dismiss();
    });
    ASSERT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    ASSERT_EQ(shownItems.size(), 1);
    EXPECT_TRUE(shownItems.front().contains(QStringLiteral("\"Backup Disk\"")));
    EXPECT_FALSE(QFile::exists(device + QStringLiteral("/Docs"))); // nothing written
    QDir(device + QStringLiteral("/Holiday Movies")).removeRecursively();

    // Analysis alone: the transactions stay listed, nothing is written, Next Error is on.
    window->findChild<QAction *>(QStringLiteral("analyzeAction"))->trigger();
    ASSERT_TRUE(runToEnd());
    // The verdict: what is copied, updated and deleted, and whether it fits.
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^Analysis complete: 7 to copy \\(100.01 KB\\), 0 to update, 0 to "
                                                  "delete\\. It fits on Backup Disk: [0-9.,]+ KB needed, [0-9.,]+ MB "
                                                  "free\\.$"))
                    .match(status->text())
                    .hasMatch())
        << status->text().toStdString();
    EXPECT_EQ(status->palette().color(QPalette::WindowText), QApplication::palette().color(QPalette::WindowText));
    // The table says whose analysis it lists, and that it is not the device picked since.
    auto *tableLabel = window->findChild<QLabel *>(QStringLiteral("actionsLabel"));
    EXPECT_EQ(tableLabel->text(), QStringLiteral("&Transactions for Backup Disk"));
    outline->setCurrentIndex(QModelIndex());
    EXPECT_EQ(tableLabel->text(), QStringLiteral("&Transactions for Backup Disk (not the selected device)"));
    // Each location names its side: the sources' folders here.
    const QModelIndex copyRow = table->model()->index(0, BUTransactionTableModel::kLocationColumn);
    EXPECT_EQ(copyRow.data().toString(), QStringLiteral("Source: ") + QFileInfo(source).path())
        << copyRow.data().toString().toStdString();
    ASSERT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
    EXPECT_GT(table->model()->rowCount(), 0);
    EXPECT_FALSE(QFile::exists(device + QStringLiteral("/Docs")));
    window->validateMenuItems();
    EXPECT_TRUE(window->findChild<QAction *>(QStringLiteral("nextErrorAction"))->isEnabled());

    // Back up, then empty the source: the window asks before deleting most of the mirror.
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    Tree many;
    for (int i = 0; i < 20; ++i)
        many.insert(QStringLiteral("more/f%1.txt").arg(i), "x");
    WriteTree(source, many);
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    ASSERT_EQ(status->text(), QStringLiteral("Backup succeeded"));
    QDir(source).removeRecursively();
    QDir().mkpath(source);
    answer = KSAlertController::kSecondButton; // "Cancel"
    alerts.clear();
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    ASSERT_EQ(alerts.size(), 1);
    EXPECT_TRUE(alerts.front().startsWith(QStringLiteral("The backup folder \"%1\" is empty").arg(source)))
        << alerts.front().toStdString();
    EXPECT_TRUE(QFile::exists(device + QStringLiteral("/Docs/more/f1.txt"))); // nothing deleted
    EXPECT_EQ(table->model()->rowCount(), 0);
}

TEST_F(MainWindow, CancelAndQuitAnswerAtOnce)
{
    ASSERT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
    auto *cancelButton = window->findChild<QPushButton *>(QStringLiteral("cancelButton"));

    // During the analysis: the window says so at once and the job's own end closes it.
    backupButton->click();
    cancelButton->click();
    EXPECT_EQ(status->text(), QStringLiteral("Canceling..."));
    EXPECT_TRUE(window->isRunning());
    EXPECT_FALSE(cancelButton->isEnabled());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(alerts, QStringList {QStringLiteral("Backup to Backup Disk canceled.")});
    EXPECT_FALSE(QFile::exists(device + QStringLiteral("/Docs")));

    // During a big copy: nothing partial stays behind, and nothing lands half written.
    // Real data, not a hole: a sparse file's copy writes nothing and would be over at once.
    QFile big(source + QStringLiteral("/big.bin"));
    ASSERT_TRUE(big.open(QIODevice::WriteOnly));
    const QByteArray megabyte(1 << 20, 'x');
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(big.write(megabyte), megabyte.size());
    big.close();
    // Acting on the backup's first report: it is surely under way then.
    std::function<void()> duringBackup;
    const QMetaObject::Connection watch
        = QObject::connect(table->model(), &QAbstractItemModel::dataChanged, window.get(), [&] {
              if (window->isBackupInProgress() && duringBackup)
                  std::exchange(duringBackup, {})();
          });
    duringBackup = [&] {
        window->cancel();
        EXPECT_EQ(status->text(), QStringLiteral("Canceling..."));
        EXPECT_TRUE(window->isCanceling());
    };
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    EXPECT_FALSE(duringBackup);
    EXPECT_EQ(status->text(), QStringLiteral("Backup canceled"));
    EXPECT_TRUE(partialFiles().isEmpty()) << partialFiles().join(u' ').toStdString();
    const QFileInfo copied(device + QStringLiteral("/Docs/big.bin"));
    EXPECT_TRUE(!copied.exists() || copied.size() == big.size());

    // Quit while a backup runs: asked first; kept running on "Keep Running"; else the window
    // closes once the job has ended, not before.
    alerts.clear();
    QFile::remove(copied.filePath());
    duringBackup = [&] {
        answer = KSAlertController::kSecondButton;
        EXPECT_FALSE(window->close());
        ASSERT_EQ(alerts, QStringList {QStringLiteral("A backup to \"Backup Disk\" is running. Stop it and quit?")});
        EXPECT_TRUE(window->isRunning());
        EXPECT_FALSE(window->isCanceling());
        answer = KSAlertController::kFirstButton;
        EXPECT_FALSE(window->close());
        EXPECT_TRUE(window->isVisible());
        EXPECT_EQ(status->text(), QStringLiteral("Canceling..."));
    };
    backupButton->click();
    EXPECT_TRUE(WaitUntil([this] { return !window->isVisible(); }));
    QObject::disconnect(watch);
    EXPECT_FALSE(duringBackup);
    EXPECT_EQ(window->operationCount(), 0);
    EXPECT_EQ(alerts.size(), 2);
}

TEST_F(MainWindow, CountersBelongToTheirRun)
{
    ASSERT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(counters()->isVisible());
    EXPECT_EQ(counters()->text(), QStringLiteral("7 of 7 actions, 100.01 KB of 100.01 KB"));

    // The next job's outcome stands alone.
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(status->text(), QStringLiteral("The backup device is up to date"));
    EXPECT_FALSE(counters()->isVisible());

    // A stop names what was never tried: a device that turns read-only after the analysis stops
    // the run.
    WriteTree(source,
        {{QStringLiteral("sub/n1.txt"), QByteArray(60000, '1')},
            {QStringLiteral("sub/n2.txt"), QByteArray(60000, '2')}});
    const QMetaObject::Connection listed
        = QObject::connect(table->model(), &QAbstractItemModel::modelReset, window.get(), [&] {
              if (table->model()->rowCount() > 0)
                  RemountReadOnly(device);
          });
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    QObject::disconnect(listed);
    ASSERT_EQ(::mount(nullptr, QFile::encodeName(device).constData(), nullptr, MS_REMOUNT, nullptr), 0);
    const int rows = table->model()->rowCount();
    ASSERT_GE(rows, 2);
    const QRegularExpressionMatch stopped
        = QRegularExpression(QStringLiteral("^1 backup action failed, (\\d+) not tried$")).match(status->text());
    ASSERT_TRUE(stopped.hasMatch()) << status->text().toStdString();
    const int notTried = stopped.captured(1).toInt();
    EXPECT_GE(notTried, 1);
    EXPECT_EQ(counters()->text(), FormatString("%d of %d actions, 0 KB of 120 KB", rows - notTried, rows))
        << counters()->text().toStdString();
    EXPECT_EQ(alerts.size(), 1);

    // A big file's bytes count as they reach the device, with the bar.
    window->copyProgress(0, 50000);
    EXPECT_EQ(counters()->text(), FormatString("%d of %d actions, 50 KB of 120 KB", rows - notTried, rows));

    // The folder that failed is the device's, and the location says so: another file system
    // mounted inside a mirror is never entered.
    WriteTree(source, {{QStringLiteral("sub/n3.txt"), "3"}});
    ASSERT_TRUE(MountTmpfs(device + QStringLiteral("/Docs/sub"), 1 << 20));
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    const QString location
        = table->currentIndex().siblingAtColumn(BUTransactionTableModel::kLocationColumn).data().toString();
    EXPECT_TRUE(location.startsWith(QStringLiteral("Device: Backup Disk/Docs/sub\n"))) << location.toStdString();
    // Show in File Manager opens the side that failed: the device folder, not the source.
    QStringList revealed;
    KSSetWorkspaceTestHook([&](const QString &what) { revealed.append(what); });
    window->findChild<QAction *>(QStringLiteral("revealAction"))->trigger();
    KSSetWorkspaceTestHook({});
    EXPECT_EQ(revealed, QStringList {device + QStringLiteral("/Docs/sub")});
}

TEST_F(MainWindow, TheDeleteKeyActsOnTheFocusedRuleListOnly)
{
    ASSERT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
    auto *rules = window->findChild<QListView *>(QStringLiteral("ruleTable"));
    rules->setCurrentIndex(rules->model()->index(0, 0));
    window->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(window.get()));
    outline->setFocus();
    QTest::keyClick(outline, Qt::Key_Delete);
    table->setFocus();
    QTest::keyClick(table, Qt::Key_Delete);
    EXPECT_EQ(BUAppController::sharedInstance().backupFolders(), QStringList {source});
    rules->setFocus();
    QTest::keyClick(rules, Qt::Key_Delete);
    EXPECT_TRUE(BUAppController::sharedInstance().backupFolders().isEmpty());
}

TEST_F(MainWindow, TheLargeDeletionQuestionLetsTheUserReview)
{
    Tree many;
    for (int i = 0; i < 20; ++i)
        many.insert(QStringLiteral("more/f%1.txt").arg(i), "x");
    WriteTree(source, many);
    ASSERT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    QDir(source + QStringLiteral("/more")).removeRecursively();
    answer = KSAlertController::kFirstButton; // "Review", the default
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    ASSERT_EQ(alerts.size(), 1);
    // The question's "Help" opened the topic on large deletions; the answer came after it.
    EXPECT_EQ(helpBookmarks, QList<int> {BUHelpBookmark::kLargeDeletions});
    EXPECT_EQ(helpTopics, QList<int> {topicOf(BUHelpBookmark::kLargeDeletions)});
    EXPECT_TRUE(status->text().startsWith(
        QStringLiteral("Analysis complete: 0 to copy (0 KB), 0 to update, 1 to delete. It fits on Backup Disk: ")))
        << status->text().toStdString();
    EXPECT_EQ(table->model()->rowCount(), 1); // the folder's Delete, listed to be looked at
    EXPECT_TRUE(QFile::exists(device + QStringLiteral("/Docs/more/f1.txt"))); // nothing deleted
    EXPECT_TRUE(backupButton->isEnabled());
    answer = KSAlertController::kThirdButton; // "Backup"
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(status->text(), QStringLiteral("Backup succeeded"));
    EXPECT_FALSE(QFile::exists(device + QStringLiteral("/Docs/more")));
}

TEST_F(MainWindow, FirstStartSaysWhatIsMissing)
{
    BUAppController &controller = BUAppController::sharedInstance();
    controller.backupFolders().clear();
    ClearTransactions(); // as at a first start (the tests of this process share the list)
    window->updateRuleList(-1);
    auto *hint = window->findChild<QLabel *>(QStringLiteral("emptyHint"));
    ASSERT_NE(hint, nullptr);
    EXPECT_TRUE(hint->isVisible());
    EXPECT_TRUE(hint->text().contains(QStringLiteral("Add the folders to back up")));
    EXPECT_TRUE(hint->text().contains(QStringLiteral("Pick the backup device")));

    // The folder chooser opens at home.
    QString startedIn;
    QTimer::singleShot(0, [&] {
        auto *chooser = qobject_cast<QFileDialog *>(QApplication::activeModalWidget());
        ASSERT_NE(chooser, nullptr);
        startedIn = chooser->directory().absolutePath();
        chooser->reject();
    });
    window->addRule();
    EXPECT_EQ(startedIn, QDir::homePath());

    controller.backupFolders() = {source};
    window->updateRuleList(0);
    EXPECT_EQ(hint->text(), QStringLiteral("Pick the backup device in the list on the left."));
    ASSERT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
    EXPECT_FALSE(hint->isVisible());

    // A device hidden by collapsing its group is no longer the one a backup goes to.
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    ASSERT_EQ(window->selectedDrive(), QStringLiteral("Backup Disk")); // now a recent device
    outline->collapse(outline->model()->index(0, 0));
    EXPECT_TRUE(window->selectedDrive().isEmpty());
    EXPECT_FALSE(backupButton->isEnabled());
    outline->expand(outline->model()->index(0, 0));

    // The last-backup column reads as text: at least 4.5:1 against the list's background.
    const QModelIndex when = outline->model()->index(0, 1, outline->model()->index(0, 0));
    const QColor text = when.data(Qt::ForegroundRole).value<QBrush>().color();
    const QColor base = outline->palette().color(QPalette::Base);
    auto luminance = [](const QColor &c) {
        auto channel = [](double v) { return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); };
        return 0.2126 * channel(c.redF()) + 0.7152 * channel(c.greenF()) + 0.0722 * channel(c.blueF());
    };
    const double a = luminance(text), b = luminance(base);
    EXPECT_GE((std::max(a, b) + 0.05) / (std::min(a, b) + 0.05), 4.5) << text.name().toStdString();

    // Copy Logs says it did.
    KSLogger &logger = KSLogger::sharedInstance();
    logger.sources.crashFolders = {};
    logger.sources.coredumpctl = QStringLiteral("/nonexistent/coredumpctl");
    logger.sources.journalctl = QStringLiteral("/nonexistent/journalctl");
    logger.sources.systemLog = home.path() + QStringLiteral("/no-syslog");
    logger.sources.ownLog = home.path() + QStringLiteral("/own.log");
    WriteTree(home.path(), {{QStringLiteral("own.log"), "2026-11-22 08:00:00 com.tannerwick.backup started\n"}});
    window->findChild<QAction *>(QStringLiteral("copyLogsAction"))->trigger();
    EXPECT_EQ(status->text(), QStringLiteral("The logs are on the clipboard"));
}

TEST_F(MainWindow, ABackupThatCannotFitStopsBeforeTheFirstChange)
{
    const QString small = volumes + QStringLiteral("/Small Disk");
    ASSERT_TRUE(MountTmpfs(small, 1 << 20));
    WriteTree(source, {{QStringLiteral("video.bin"), QByteArray(3 << 20, 'v')}});
    // A sparse file counts by its data: this one would fit alone.
    QFile sparse(source + QStringLiteral("/sparse.img"));
    ASSERT_TRUE(sparse.open(QIODevice::WriteOnly) && sparse.resize(qint64(1) << 30));
    sparse.close();
    ASSERT_TRUE(WaitUntil([this] { return selectDevice(QStringLiteral("Small Disk")); }));
    QStringList details;
    KSAlert::setTestAnswerer([&](const KSAlert::Shown &shown) {
        alerts.append(shown.message);
        details.append(shown.moreInfo);
        return answer;
    });
    // Analyze says so first, in red.
    window->findChild<QAction *>(QStringLiteral("analyzeAction"))->trigger();
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(QRegularExpression(QStringLiteral(" It does not fit on Small Disk: [0-9.,]+ MB needed, only ")
        + QRegularExpression::escape(FileSizeString(1 << 20)) + QStringLiteral(" free\\.$"))
                    .match(status->text())
                    .hasMatch())
        << status->text().toStdString();
    EXPECT_EQ(status->palette().color(QPalette::WindowText), BUTransactionTableModel::alertRed());
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    LazyUnmount(small);
    ASSERT_EQ(alerts, QStringList {QStringLiteral("Backup to Small Disk failed.")});
    // Nothing was changed: no "serious error" for it.
    EXPECT_FALSE(details.front().contains(QStringLiteral("serious error"))) << details.front().toStdString();
    EXPECT_TRUE(details.front().contains(QStringLiteral("The backup needs 3."))
        && details.front().contains(FormatString("which has only %@ free", FileSizeString(1 << 20))))
        << details.front().toStdString();
    EXPECT_TRUE(QDir(small).isEmpty());
}

TEST_F(MainWindow, TheEndOfAJobIsAnnouncedWhileTheWindowIsInactive)
{
    // A session bus of its own, set before anything in this process reaches for one.
    QProcess bus;
    bus.start(QStringLiteral("dbus-daemon"),
        {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address")});
    if (!bus.waitForStarted(5000) || !bus.waitForReadyRead(10000))
        GTEST_SKIP() << "no dbus-daemon to run a private session bus";
    const QString address = QString::fromUtf8(bus.readLine()).trimmed();
    qputenv("DBUS_SESSION_BUS_ADDRESS", address.toUtf8());
    if (!QDBusConnection::sessionBus().isConnected()) {
        bus.kill();
        bus.waitForFinished();
        GTEST_SKIP() << "this process reached for a session bus before the test set up its own; run the test in a "
                        "process of its own, as ctest does";
    }
    QWidget other;
    other.show();
    other.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&other));
    ASSERT_FALSE(window->isActiveWindow());

    // No notification service on the bus: nothing fails, and the title follows the backup.
    ASSERT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
    QString titleDuringBackup;
    const QMetaObject::Connection watch
        = QObject::connect(table->model(), &QAbstractItemModel::dataChanged, window.get(), [&] {
              if (window->isBackupInProgress() && titleDuringBackup.isEmpty())
                  titleDuringBackup = window->windowTitle();
          });
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    QObject::disconnect(watch);
    EXPECT_TRUE(QRegularExpression(QStringLiteral("^\\d+% - Tanner Backup$")).match(titleDuringBackup).hasMatch())
        << titleDuringBackup.toStdString();
    EXPECT_EQ(status->text(), QStringLiteral("Backup succeeded"));
    EXPECT_EQ(window->windowTitle(), QStringLiteral("Tanner Backup"));

    // The announcement of that backup went out with no one to show it. The bus hears a
    // connection's messages in order: once it has answered a later call, that announcement is
    // past and cannot reach the server set up next.
    const QDBusMessage ping
        = QDBusConnection::sessionBus().call(QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.DBus"),
            QStringLiteral("/org/freedesktop/DBus"), QStringLiteral("org.freedesktop.DBus"), QStringLiteral("GetId")));
    ASSERT_EQ(ping.type(), QDBusMessage::ReplyMessage) << ping.errorMessage().toStdString();
    NotificationServer server;
    QDBusConnection serverConnection = QDBusConnection::connectToBus(address, QStringLiteral("notifications"));
    ASSERT_TRUE(serverConnection.registerVirtualObject(QStringLiteral("/org/freedesktop/Notifications"), &server));
    ASSERT_TRUE(serverConnection.registerService(QStringLiteral("org.freedesktop.Notifications")));
    WriteTree(source, {{QStringLiteral("new.txt"), "new"}});
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(WaitUntil([&] { return !server.received().isEmpty(); }));
    EXPECT_EQ(server.received(), QStringList {QStringLiteral("Backup Disk|Backup succeeded")});

    // Not while the user is looking at the window.
    window->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(window.get()));
    WriteTree(source, {{QStringLiteral("newer.txt"), "newer"}});
    QAction *analyze = window->findChild<QAction *>(QStringLiteral("analyzeAction"));
    ASSERT_TRUE(WaitUntil([analyze] { return analyze->isEnabled(); })) << "Analyze is enabled again after a job";
    analyze->trigger();
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(status->text().startsWith(QStringLiteral("Analysis complete"))) << status->text().toStdString();
    QFile::remove(source + QStringLiteral("/newer.txt"));
    other.activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(&other));
    ASSERT_TRUE(WaitUntil([analyze] { return analyze->isEnabled(); }));
    analyze->trigger();
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(WaitUntil([&] { return server.received().size() >= 2; }));
    EXPECT_EQ(server.received(),
        (QStringList {QStringLiteral("Backup Disk|Backup succeeded"),
            QStringLiteral("Backup Disk|The backup device is up to date")}));

    serverConnection.unregisterObject(QStringLiteral("/org/freedesktop/Notifications"));
    QDBusConnection::disconnectFromBus(QStringLiteral("notifications"));
    bus.kill();
    bus.waitForFinished();
}

TEST_F(MainWindow, TheSeriousErrorAlertOpensItsHelp)
{
    // A device with room for its bytes but not for its files: the copy stops at the first file it
    // cannot create.
    const QString tiny = volumes + QStringLiteral("/Tiny Disk");
    ASSERT_TRUE(MountTmpfs(tiny, 16 << 20, QStringLiteral("nr_inodes=4")));
    ASSERT_TRUE(WaitUntil([this] { return selectDevice(QStringLiteral("Tiny Disk")); }));
    backupButton->click();
    const bool ended = runToEnd();
    LazyUnmount(tiny);
    ASSERT_TRUE(ended);
    ASSERT_EQ(alerts, QStringList {QStringLiteral("Backup to Tiny Disk failed.")});
    EXPECT_EQ(helpBookmarks, QList<int> {BUHelpBookmark::kSeriousError});
    EXPECT_EQ(helpTopics, QList<int> {topicOf(BUHelpBookmark::kSeriousError)});
}

// The window from the keyboard: each list is one Tab stop however long it is, every enabled
// control is on the road, a click leaves no hidden focus on a button for Space to press, the
// mnemonics are unique, and F1 opens the help of the dialog it is pressed in.
TEST_F(MainWindow, TheKeyboardReachesEveryControl)
{
    ASSERT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
    ClearTransactions();
    for (int i = 0; i < 1000; ++i)
        g_transactions.append(BUTransaction(QStringLiteral("/src/Docs/f%1").arg(i), QStringLiteral("/src")));
    static_cast<BUTransactionTableModel *>(table->model())->reload();
    window->activateWindow();
    ASSERT_TRUE(QTest::qWaitForWindowActive(window.get()));
    outline->setFocus();
    QList<QWidget *> road;
    for (int i = 0; i < 30 && (road.isEmpty() || road.back() != outline); ++i) {
        QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        road.append(QApplication::focusWidget());
    }
    ASSERT_EQ(road.back(), outline) << "Tab does not come round to the device list";
    EXPECT_EQ(road.count(table), 1);
    for (const char *name : {"rulePicker", "ruleTable", "addRuleButton", "addDefaultsButton", "backupButton"})
        EXPECT_TRUE(road.contains(window->findChild<QWidget *>(QLatin1String(name)))) << name;
    EXPECT_LT(road.indexOf(table), road.indexOf(backupButton));
    // In the table, the focus shows on a row.
    table->setFocus(Qt::TabFocusReason);
    EXPECT_TRUE(table->currentIndex().isValid());
    ClearTransactions();
    static_cast<BUTransactionTableModel *>(table->model())->reload();

    // A click on Backup leaves the focus where it was: Space afterwards starts nothing.
    outline->setFocus();
    QTest::mouseClick(backupButton, Qt::LeftButton);
    ASSERT_TRUE(runToEnd());
    EXPECT_NE(QApplication::focusWidget(), backupButton);
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Space);
    EXPECT_FALSE(window->isRunning());
    EXPECT_EQ(window->operationCount(), 0);

    // Mnemonics: one letter for one control in the window and its menu bar, and in each menu.
    auto letter = [](const QString &text) {
        const qsizetype at = text.indexOf(u'&');
        return at >= 0 && at + 1 < text.size() ? text[at + 1].toLower() : QChar();
    };
    QStringList windowLetters;
    for (QAction *menu : window->menuBar()->actions())
        windowLetters.append(letter(menu->text()));
    for (QLabel *label : window->findChildren<QLabel *>())
        if (label->buddy())
            windowLetters.append(letter(label->text()));
    for (QPushButton *button : window->findChildren<QPushButton *>())
        windowLetters.append(letter(button->text()));
    windowLetters.removeAll(QString());
    EXPECT_EQ(QSet<QString>(windowLetters.begin(), windowLetters.end()).size(), windowLetters.size())
        << windowLetters.join(u' ').toStdString();
    for (QAction *menu : window->menuBar()->actions()) {
        QStringList letters;
        for (QAction *item : menu->menu()->actions())
            if (!item->isSeparator())
                letters.append(letter(item->text()));
        EXPECT_EQ(QSet<QString>(letters.begin(), letters.end()).size(), letters.size())
            << menu->text().toStdString() << ": " << letters.join(u' ').toStdString();
    }
    // The list picker has its label.
    auto *picker = window->findChild<QWidget *>(QStringLiteral("rulePicker"));
    bool labelled = false;
    for (QLabel *label : window->findChildren<QLabel *>())
        labelled = labelled || (label->buddy() == picker && !letter(label->text()).isNull());
    EXPECT_TRUE(labelled);

    // F1 in the rule dialog opens the help on rules, in the extra-items dialog the help on them.
    window->findChild<QComboBox *>(QStringLiteral("rulePicker"))->setCurrentIndex(1);
    window->addRule();
    auto *dialog = window->findChild<BURuleDialog *>();
    ASSERT_NE(dialog, nullptr);
    QApplication::setActiveWindow(dialog); // the offscreen platform does not activate it by itself
    ASSERT_TRUE(dialog->isActiveWindow());
    QTest::keyClick(dialog, Qt::Key_F1);
    ASSERT_NE(helpWindow(), nullptr);
    EXPECT_EQ(helpWindow()->currentTopic(), topicOf(BUHelpBookmark::kAddingAndEditingARule));
    dialog->reject();
    helpWindow()->close();
    int extraTopic = -1;
    BUExtraStuffDialog::setTestHook([&](BUExtraStuffDialog &extra) {
        QApplication::setActiveWindow(&extra);
        QTest::keyClick(&extra, Qt::Key_F1);
        extraTopic = helpWindow() ? helpWindow()->currentTopic() : -2;
        extra.dismiss();
    });
    WriteTree(device, {{QStringLiteral("Holiday Movies/m.mp4"), "m"}});
    ASSERT_TRUE(selectDevice(QStringLiteral("Backup Disk")));
    backupButton->click();
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(extraTopic, topicOf(BUHelpBookmark::kExtraItems));
}

// The device a backup goes to is always one the user picked: an unplugged device leaves none
// selected, and the rows do not move under the pointer when a job makes its device the most recent.
TEST_F(MainWindow, TheSelectedDeviceIsTheUsersChoice)
{
    BUAppController &controller = BUAppController::sharedInstance();
    const QString second = volumes + QStringLiteral("/Second Disk"), late = volumes + QStringLiteral("/Late Disk");
    ASSERT_TRUE(MountTmpfs(second, 8 << 20));
    ASSERT_TRUE(MountTmpfs(late, 1 << 20));
    auto listed = [this](const QString &name) {
        return !outline->model()
                    ->match(
                        outline->model()->index(0, 0), Qt::DisplayRole, name, 1, Qt::MatchExactly | Qt::MatchRecursive)
                    .isEmpty();
    };
    ASSERT_TRUE(
        WaitUntil([&] { return listed(QStringLiteral("Second Disk")) && listed(QStringLiteral("Late Disk")); }));
    controller.recentDrives() = {QStringLiteral("Backup Disk"), QStringLiteral("Second Disk")};
    controller.updateDrives();

    ASSERT_TRUE(selectDevice(QStringLiteral("Late Disk")));
    ASSERT_TRUE(LazyUnmount(late));
    ASSERT_TRUE(WaitUntil([&] { return !listed(QStringLiteral("Late Disk")); }));
    EXPECT_TRUE(window->selectedDrive().isEmpty());
    EXPECT_FALSE(backupButton->isEnabled());
    EXPECT_FALSE(window->findChild<QAction *>(QStringLiteral("backupAction"))->isEnabled());

    // A device picked in the second row stays there while the pointer is over the list.
    const QModelIndex recent = outline->model()->index(0, 0);
    auto recentName = [&](int row) { return outline->model()->index(row, 0, recent).data().toString(); };
    ASSERT_TRUE(selectDevice(QStringLiteral("Second Disk")));
    ASSERT_EQ(recentName(1), QStringLiteral("Second Disk"));
    outline->viewport()->setAttribute(Qt::WA_UnderMouse, true);
    window->findChild<QAction *>(QStringLiteral("analyzeAction"))->trigger();
    EXPECT_EQ(outline->model()->index(1, 1, recent).data().toString(), QStringLiteral("Analyzing"));
    EXPECT_EQ(outline->model()->index(0, 1, recent).data().toString(), QString());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(recentName(1), QStringLiteral("Second Disk"));
    EXPECT_EQ(window->selectedDrive(), QStringLiteral("Second Disk"));
    // It moves up when the pointer leaves, and stays the one selected.
    outline->viewport()->setAttribute(Qt::WA_UnderMouse, false);
    QEvent leave(QEvent::Leave);
    QApplication::sendEvent(outline->viewport(), &leave);
    EXPECT_TRUE(WaitUntil([&] { return recentName(0) == QStringLiteral("Second Disk"); }));
    EXPECT_EQ(window->selectedDrive(), QStringLiteral("Second Disk"));
    EXPECT_EQ(controller.recentDrives().value(0), QStringLiteral("Second Disk"));
    LazyUnmount(second);

    // With no device at all, the empty table says how to get one.
    ClearTransactions();
    static_cast<BUTransactionTableModel *>(table->model())->reload();
    ASSERT_TRUE(LazyUnmount(device));
    ASSERT_TRUE(WaitUntil([&] { return !listed(QStringLiteral("Backup Disk")); }));
    auto *hint = window->findChild<QLabel *>(QStringLiteral("emptyHint"));
    EXPECT_TRUE(hint->text().startsWith(QStringLiteral("No backup device is mounted."))) << hint->text().toStdString();
    EXPECT_TRUE(hint->text().contains(QStringLiteral("TANNER_VOLUMES_ROOT")));
}

// A failed row reads in a dark theme as in a light one, and keeps its message in sight with a
// large font.
TEST_F(MainWindow, FailedRowsReadInEveryThemeAndSize)
{
    ClearTransactions();
    for (int i = 0; i < 3; ++i)
        g_transactions.append(BUTransaction(QStringLiteral("/src/Docs/f%1").arg(i), QStringLiteral("/src")));
    static_cast<BUTransactionTableModel *>(table->model())->reload();
    BUBackupStatusReport report;
    report.trans = {{0, QString()}, {1, QStringLiteral("The device is full")}};
    window->backupStatus(report);
    const QModelIndex failed = table->model()->index(1, BUTransactionTableModel::kNameColumn);
    auto readable = [&](const QPalette &palette) {
        const QColor text = failed.data(Qt::ForegroundRole).value<QBrush>().color();
        return std::min({BUTransactionTableModel::contrast(text, palette.color(QPalette::Base)),
            BUTransactionTableModel::contrast(text, palette.color(QPalette::AlternateBase)),
            BUTransactionTableModel::contrast(text, palette.color(QPalette::Window))});
    };
    const QPalette light = QApplication::palette();
    EXPECT_GE(readable(light), 4.5);
    EXPECT_EQ(failed.data(Qt::ForegroundRole).value<QBrush>().color(), QColor(195, 33, 33));
    QPalette dark;
    dark.setColor(QPalette::Window, QColor(0x35, 0x35, 0x35));
    dark.setColor(QPalette::WindowText, Qt::white);
    dark.setColor(QPalette::Base, QColor(0x2a, 0x2a, 0x2a));
    dark.setColor(QPalette::AlternateBase, QColor(0x42, 0x42, 0x42));
    dark.setColor(QPalette::Text, Qt::white);
    QApplication::setPalette(dark);
    EXPECT_GE(readable(dark), 4.5) << failed.data(Qt::ForegroundRole).value<QBrush>().color().name().toStdString();
    QApplication::setPalette(light);

    QFont large = window->font();
    large.setPointSize(24);
    window->setFont(large);
    const QFontMetrics metrics = table->fontMetrics();
    EXPECT_GE(table->rowHeight(0), metrics.height());
    EXPECT_GE(table->rowHeight(1), metrics.lineSpacing() + metrics.height());
    EXPECT_LT(table->rowHeight(0), table->rowHeight(1));
    ClearTransactions();
    static_cast<BUTransactionTableModel *>(table->model())->reload();
}

// A folder inside a backup folder, or holding one, is asked about before it is added; folders
// dropped on the folder list from a file manager are added.
TEST_F(MainWindow, NestedFoldersAskAndDroppedFoldersAreAdded)
{
    BUAppController &controller = BUAppController::sharedInstance();
    const QString inside = source + QStringLiteral("/sub"), outer = QFileInfo(source).path();
    answer = KSAlertController::kFirstButton; // "Don't Add"
    KSSetNextChooserAnswer(QStringList {inside});
    window->addRule();
    EXPECT_EQ(alerts, QStringList {FormatString("\"%@\" is inside the backup folder \"%@\".", inside, source)});
    EXPECT_EQ(controller.backupFolders(), QStringList {source});
    answer = KSAlertController::kSecondButton; // "Add"
    KSSetNextChooserAnswer(QStringList {outer});
    window->addRule();
    EXPECT_EQ(alerts.last(), FormatString("\"%@\" holds the backup folder \"%@\".", outer, source));
    EXPECT_TRUE(controller.backupFolders().contains(outer));

    // A drop of two folders and a file: the folders are added, the file is not.
    const QString music = home.path() + QStringLiteral("/Music"), film = home.path() + QStringLiteral("/Film");
    WriteTree(home.path(), {{QStringLiteral("Music/a.mp3"), "a"}, {QStringLiteral("Film/b.mkv"), "b"}});
    auto *rules = window->findChild<QListView *>(QStringLiteral("ruleTable"));
    QMimeData data;
    data.setUrls({QUrl::fromLocalFile(music), QUrl::fromLocalFile(film), QUrl::fromLocalFile(music + "/a.mp3")});
    const QPoint at = rules->viewport()->rect().center();
    QDragEnterEvent enter(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(rules->viewport(), &enter);
    EXPECT_TRUE(enter.isAccepted());
    QDropEvent drop(QPointF(at), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(rules->viewport(), &drop);
    EXPECT_TRUE(drop.isAccepted());
    EXPECT_TRUE(WaitUntil([&] { return controller.backupFolders().contains(film); }));
    EXPECT_TRUE(controller.backupFolders().contains(music));
    EXPECT_FALSE(controller.backupFolders().contains(music + QStringLiteral("/a.mp3")));
    // Not onto a rule list.
    window->findChild<QComboBox *>(QStringLiteral("rulePicker"))->setCurrentIndex(1);
    QDragEnterEvent refused(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(rules->viewport(), &refused);
    EXPECT_FALSE(refused.isAccepted());
}
