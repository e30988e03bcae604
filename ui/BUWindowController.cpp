#include "ui/BUWindowController.h"

#include "app/BUAppController.h"
#include "backup/BUAnalyzeOperation.h"
#include "backup/BUBackupOperation.h"
#include "backup/BUDevices.h"
#include "backup/BUTransaction.h"
#include "help/BUHelpBookmarks.h"
#include "help/window/KSVellumaHelpWC.h"
#include "keelson/FormatString.h"
#include "keelson/KSDayIndex.h"
#include "keelson/KSKernel.h"
#include "keelson/KSStrings.h"
#include "keelson/KSUserDefaults.h"
#include "keelson/gui/KSActionHandler.h"
#include "keelson/gui/KSAlert.h"
#include "keelson/gui/KSAlertController.h"
#include "keelson/gui/KSFileChooser.h"
#include "keelson/gui/KSNotification.h"
#include "keelson/gui/KSWorkspace.h"
#include "ui/BUExtraStuffDialog.h"
#include "ui/BUHelpOverBox.h"
#include "ui/BUHistoryWindow.h"
#include "ui/BURuleDialog.h"
#include "ui_MainWindow.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDateTime>
#include <QFileInfo>
#include <QHeaderView>
#include <QScreen>
#include <QTimer>
#include <QVBoxLayout>

namespace {

const QString kExpandRecentKey = QStringLiteral("twbackup.expandR");
const QString kExpandOtherKey = QStringLiteral("twbackup.expandO");
const QString kWindowKey = QStringLiteral("twbackup.window");
// Row heights: one line, and two for a failed transaction with its message under the location.
constexpr int kRowHeight = 20;
constexpr int kFailedRowHeight = 36;

std::unique_ptr<QSettings> Settings()
{
    return OpenSettingsFile(UserDefaultsPath());
}

void SaveSetting(const QString &key, const QVariant &value)
{
    SetSettingsValue(UserDefaultsPath(), key, value);
}

QString DurationText(double seconds)
{
    if (seconds < 60)
        return QStringLiteral("less than a minute");
    const int minutes = int(seconds / 60 + 0.5);
    if (minutes < 60)
        return minutes == 1 ? QStringLiteral("about a minute") : FormatString("about %d minutes", minutes);
    return FormatString("about %d h %02d min", minutes / 60, minutes % 60);
}

void ShowFileManagerFailure(const QString &path)
{
    KSAlert::sharedInstance().giveAlertMessage(FormatString("I can't show \"%@\" in a file manager.", path),
        QStringLiteral("No file manager is set up to open folders on this computer."));
}

} // namespace

BUWindowController::BUWindowController(QWidget *parent) : QMainWindow(parent), ui(std::make_unique<Ui::MainWindow>())
{
    ui->setupUi(this);
    setWindowTitle(QStringLiteral("Tanner Backup"));
    ui->diskOutline->setModel(&deviceModel);
    ui->diskOutline->header()->setStretchLastSection(false);
    ui->diskOutline->header()->setSectionResizeMode(BUDeviceOutlineModel::kNameColumn, QHeaderView::Stretch);
    ui->diskOutline->header()->setSectionResizeMode(
        BUDeviceOutlineModel::kLastBackupColumn, QHeaderView::ResizeToContents);
    ui->ruleTable->setModel(&ruleModel);
    ui->actionTable->setModel(&transactionModel);
    QHeaderView *rows = ui->actionTable->verticalHeader();
    rows->setSectionResizeMode(QHeaderView::Fixed);
    rows->setDefaultSectionSize(kRowHeight);
    QHeaderView *columns = ui->actionTable->horizontalHeader();
    columns->setSectionResizeMode(QHeaderView::Interactive);
    columns->resizeSection(BUTransactionTableModel::kStatusColumn, 28);
    columns->resizeSection(BUTransactionTableModel::kActionColumn, 70);
    columns->resizeSection(BUTransactionTableModel::kTypeColumn, 28);
    columns->resizeSection(BUTransactionTableModel::kNameColumn, 220);
    ui->mainSplitter->setStretchFactor(1, 3);

    // 1. Status empty; Cancel and Backup disabled.
    ui->statusField->clear();
    // Its line is kept while empty, so nothing below it jumps when a message appears.
    ui->statusField->setMinimumHeight(ui->statusField->fontMetrics().height());
    ui->cancelButton->setEnabled(false);
    ui->backupButton->setEnabled(false);
    ui->progressControl->hide();
    // The counters belong to a backup: they appear with it and stay until the next job starts.
    ui->counterField->hide();
    emptyHint = new QLabel(ui->actionTable->viewport());
    emptyHint->setObjectName(QStringLiteral("emptyHint"));
    emptyHint->setAlignment(Qt::AlignCenter);
    emptyHint->setWordWrap(true);
    emptyHint->setTextFormat(Qt::PlainText);
    emptyHint->setForegroundRole(QPalette::PlaceholderText);
    auto *hintLayout = new QVBoxLayout(ui->actionTable->viewport());
    hintLayout->addWidget(emptyHint);
    // 3. Expansion state of the two groups.
    auto settings = Settings();
    expandRecent = DefaultYesBool(*settings, kExpandRecentKey);
    expandOther = DefaultYesBool(*settings, kExpandOtherKey);
    // 5. Whether times are written without AM or PM.
    is24HourTime = Is24HourTime();
    deviceModel.setIs24HourTime(is24HourTime);
    ui->confirmDeletionsAction->setChecked(DefaultYesBool(*settings, confirmDeletionsKey()));

    connectActions();
    restoreWindowState();

    BUAppController &controller = BUAppController::sharedInstance();
    controller.selectedDriveHook = [this] { return selectedDrive(); };
    controller.updateDriveListHook = [this](qsizetype index) { updateDriveList(index); };
    controller.firstRunDefaultsHook = [this] { addDefaults(); };
    // What other processes save comes in when no job reads the lists.
    controller.mayReloadStateHook
        = [this] { return !running && operationQueue.operationCount() == 0 && !QApplication::activeModalWidget(); };
    controller.stateReloadedHook = [this] {
        BUAppController::sharedInstance().updateDrives();
        updateRuleList(ui->ruleTable->currentIndex().row());
    };
}

BUWindowController::~BUWindowController()
{
    BUAppController &controller = BUAppController::sharedInstance();
    controller.selectedDriveHook = nullptr;
    controller.updateDriveListHook = nullptr;
    controller.firstRunDefaultsHook = nullptr;
    controller.mayReloadStateHook = nullptr;
    controller.stateReloadedHook = nullptr;
    // Its reports would come to a window that is gone: wait for the job here.
    operationQueue.cancelAllOperations();
    operationQueue.waitUntilAllOperationsAreFinished();
}

void BUWindowController::connectActions()
{
    connect(ui->backupButton, &QPushButton::clicked, this, [this] { backup(false); });
    connect(ui->backupAction, &QAction::triggered, this, [this] { backup(false); });
    connect(ui->analyzeAction, &QAction::triggered, this, [this] { backup(true); });
    connect(ui->cancelButton, &QPushButton::clicked, this, &BUWindowController::cancel);
    connect(ui->cancelAction, &QAction::triggered, this, &BUWindowController::cancel);
    connect(ui->quitAction, &QAction::triggered, this, &QWidget::close);
    connect(ui->addRuleButton, &QPushButton::clicked, this, &BUWindowController::addRule);
    connect(ui->addRuleAction, &QAction::triggered, this, &BUWindowController::addRule);
    connect(ui->deleteRuleButton, &QPushButton::clicked, this, &BUWindowController::deleteRule);
    connect(ui->deleteRuleAction, &QAction::triggered, this, &BUWindowController::deleteRule);
    // The Delete key removes a rule only from the focused rule list, never from the outline or
    // the transaction table; the menu command still acts on the rule list.
    ui->deleteRuleAction->setShortcutContext(Qt::WidgetShortcut);
    ui->ruleTable->addAction(ui->deleteRuleAction);
    connect(ui->addDefaultsButton, &QPushButton::clicked, this, &BUWindowController::addDefaults);
    connect(ui->addDefaultsAction, &QAction::triggered, this, &BUWindowController::addDefaults);
    connect(ui->nextErrorAction, &QAction::triggered, this, &BUWindowController::nextError);
    connect(
        ui->revealAction, &QAction::triggered, this, [this] { actionDoubleClick(ui->actionTable->currentIndex()); });
    connect(ui->rulePicker, &QComboBox::currentIndexChanged, this, &BUWindowController::changeRuleDomain);
    // Activation is a double click, or Return from the keyboard.
    connect(ui->ruleTable, &QAbstractItemView::activated, this, &BUWindowController::ruleDoubleClick);
    connect(ui->actionTable, &QAbstractItemView::activated, this, &BUWindowController::actionDoubleClick);
    connect(ui->ruleTable->selectionModel(), &QItemSelectionModel::selectionChanged, this,
        &BUWindowController::validateMenuItems);
    connect(ui->diskOutline->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this] {
        if (!running)
            enableBackup();
    });
    connect(ui->diskOutline, &QTreeView::expanded, this, [this](const QModelIndex &index) {
        const bool recent = index.row() == BUDeviceOutlineModel::kRecentGroup;
        (recent ? expandRecent : expandOther) = true;
        SaveSetting(recent ? kExpandRecentKey : kExpandOtherKey, true);
    });
    connect(ui->diskOutline, &QTreeView::collapsed, this, [this](const QModelIndex &index) {
        const bool recent = index.row() == BUDeviceOutlineModel::kRecentGroup;
        (recent ? expandRecent : expandOther) = false;
        SaveSetting(recent ? kExpandRecentKey : kExpandOtherKey, false);
        // A device out of sight is not the one a backup goes to.
        if (ui->diskOutline->currentIndex().parent() == index) {
            ui->diskOutline->setCurrentIndex(QModelIndex());
            ui->diskOutline->clearSelection();
            if (!running)
                enableBackup();
        }
    });
    connect(
        ui->confirmDeletionsAction, &QAction::toggled, this, [](bool on) { SaveSetting(confirmDeletionsKey(), on); });

    connect(ui->helpAction, &QAction::triggered, this, [] { KSVellumaHelpWC::displayHelp(); });
    KSActionHandler &handler = KSActionHandler::sharedInstance();
    connect(ui->copyLogsAction, &QAction::triggered, this, [this, &handler] {
        if (handler.copyLogs())
            setStatus(QStringLiteral("The logs are on the clipboard"));
        else
            QApplication::beep();
    });
    connect(ui->emailLogsAction, &QAction::triggered, this, [&handler] { handler.emailLogs(); });
    connect(ui->contactAction, &QAction::triggered, this, [&handler] { handler.contactTannerwick(false); });
    connect(ui->checkUpdatesAction, &QAction::triggered, this, [&handler] { handler.checkUpdates(); });
    connect(ui->newsAction, &QAction::triggered, this, [&handler] { handler.checkNewsUpdates(); });
    connect(ui->visitWebsiteAction, &QAction::triggered, this, [&handler] { handler.visitWebsite(); });
    connect(ui->donationsAction, &QAction::triggered, this, [&handler] { handler.donations(); });
    connect(ui->aboutAction, &QAction::triggered, this, [this, &handler] { handler.showAbout(this); });
    connect(ui->nextWindowAction, &QAction::triggered, this, [&handler] { handler.nextWindow(); });
    for (QMenu *menu : {ui->fileMenu, ui->editMenu, ui->goMenu, ui->helpMenu})
        connect(menu, &QMenu::aboutToShow, this, &BUWindowController::validateMenuItems);
    BUHistoryWindow::installCommands(
        this, ui->goMenu, ui->diskOutline, [this](const QModelIndex &index) { return deviceModel.deviceName(index); });
    runRecorder.recorded = [](const BURunRecord &) {
        if (BUHistoryWindow *history = BUHistoryWindow::openWindow())
            history->reload();
    };
}

void BUWindowController::restoreWindowState()
{
    // "x y width height [maximized]", readable and repairable by a person.
    const QStringList parts = Settings()->value(kWindowKey).toString().split(u' ', Qt::SkipEmptyParts);
    if (parts.size() < 4)
        return;
    QRect frame(parts[0].toInt(), parts[1].toInt(), parts[2].toInt(), parts[3].toInt());
    const QScreen *screen = QGuiApplication::screenAt(frame.center());
    if (!screen || frame.width() < 300 || frame.height() < 200)
        return; // the screen it was on is gone: let the window system place it
    setGeometry(frame.intersected(screen->availableGeometry()));
    if (parts.size() > 4 && parts[4] == u"maximized")
        setWindowState(windowState() | Qt::WindowMaximized);
}

void BUWindowController::saveWindowState()
{
    const QRect frame = isMaximized() ? normalGeometry() : geometry();
    SaveSetting(kWindowKey,
        QStringLiteral("%1 %2 %3 %4%5")
            .arg(frame.x())
            .arg(frame.y())
            .arg(frame.width())
            .arg(frame.height())
            .arg(isMaximized() ? QStringLiteral(" maximized") : QString()));
}

void BUWindowController::closeEvent(QCloseEvent *event)
{
    if (running) {
        // The device may be unplugged as soon as the window is gone: the job ends first.
        if (!closeWhenIdle) {
            const int answer = KSAlert::sharedInstance().giveAlertMessage(
                FormatString("A backup to \"%@\" is running. Stop it and quit?", jobTarget),
                QStringLiteral("What was copied so far stays on the device, and a file being updated keeps its old "
                               "copy. The window closes once the backup has stopped."),
                {QStringLiteral("Stop and Quit"), QStringLiteral("Keep Running")});
            if (answer != KSAlertController::kFirstButton) {
                event->ignore();
                return;
            }
            closeWhenIdle = true;
            cancel();
        }
        event->ignore();
        return;
    }
    saveWindowState();
    QMainWindow::closeEvent(event);
}

void BUWindowController::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange) {
        // Dark when the window text is lighter than the window.
        g_darkMode = palette().color(QPalette::WindowText).lightness() > palette().color(QPalette::Window).lightness();
        deviceModel.refreshLastBackup();
        transactionModel.rowsChanged(0, int(g_transactions.size()) - 1);
    }
    QMainWindow::changeEvent(event);
}

QString BUWindowController::selectedDrive() const
{
    return deviceModel.deviceName(ui->diskOutline->currentIndex());
}

void BUWindowController::updateDriveList(qsizetype index)
{
    deviceModel.reload();
    ui->diskOutline->clearSelection();
    if (expandRecent) {
        const QModelIndex group = deviceModel.groupIndex(BUDeviceOutlineModel::kRecentGroup);
        ui->diskOutline->expand(group);
        const int count = deviceModel.rowCount(group);
        if (count > 0) {
            const int row = index == BUAppController::kDriveNotFound || index >= count ? 0 : int(index);
            const QModelIndex device = deviceModel.deviceIndex(BUDeviceOutlineModel::kRecentGroup, row);
            ui->diskOutline->setCurrentIndex(device);
            ui->diskOutline->scrollTo(device, QAbstractItemView::PositionAtCenter);
        }
    }
    if (expandOther)
        ui->diskOutline->expand(deviceModel.groupIndex(BUDeviceOutlineModel::kOtherGroup));
    enableBackup();
}

int BUWindowController::ruleDomain() const
{
    return ui->rulePicker->currentIndex();
}

BURuleList *BUWindowController::currentRuleList()
{
    BUAppController &controller = BUAppController::sharedInstance();
    switch (ruleDomain()) {
    case BURuleListModel::kIgnoredFolders:
        return &controller.ignoreFolders();
    case BURuleListModel::kIgnoredFiles:
        return &controller.ignoreFiles();
    default:
        return nullptr; // the backup folders
    }
}

void BUWindowController::updateRuleList(qsizetype row)
{
    ruleModel.reload();
    if (row >= 0 && row < ruleModel.rowCount()) {
        const QModelIndex index = ruleModel.index(int(row));
        ui->ruleTable->setCurrentIndex(index);
        ui->ruleTable->scrollTo(index, QAbstractItemView::PositionAtCenter);
    }
    enableBackup();
    validateMenuItems();
}

void BUWindowController::updateRuleList(const BUIgnoreRule &rule)
{
    const BURuleList *list = currentRuleList();
    qsizetype row = -1;
    if (list) {
        for (qsizetype i = 0; i < list->size(); ++i) {
            if (list->at(i).isEqual(rule)) {
                row = i;
                break;
            }
        }
    }
    updateRuleList(row);
}

void BUWindowController::enableBackup()
{
    const bool ready = !BUAppController::sharedInstance().backupFolders().isEmpty() && !selectedDrive().isEmpty();
    ui->backupButton->setEnabled(ready && !running);
    updateEmptyHint();
    validateMenuItems();
}

void BUWindowController::updateEmptyHint()
{
    QStringList missing;
    if (BUAppController::sharedInstance().backupFolders().isEmpty())
        missing.append(QStringLiteral("Add the folders to back up: choose Add under the list of backup folders."));
    if (selectedDrive().isEmpty())
        missing.append(QStringLiteral("Pick the backup device in the list on the left."));
    emptyHint->setText(missing.join(u'\n'));
    emptyHint->setVisible(!missing.isEmpty() && !running && g_transactions.isEmpty());
}

void BUWindowController::updateTitle()
{
    const QString name = QStringLiteral("Tanner Backup");
    if (!backupInProgress || g_totalBytes <= 0) {
        setWindowTitle(name);
        return;
    }
    const double done = std::min<double>(g_totalBytes, g_copiedBytes + bytesInFlight);
    setWindowTitle(FormatString("%d%% - %@", int(100.0 * done / g_totalBytes), name));
}

void BUWindowController::updateCounters()
{
    const qint64 total = g_transactions.size();
    const double done = std::min<double>(g_totalBytes, g_copiedBytes + bytesInFlight);
    ui->counterField->setText(FormatString("%,lld of %,lld %@, %@ of %@", qint64(g_finishedTransactions), total,
        total == 1 ? QStringLiteral("action") : QStringLiteral("actions"), FileSizeString(static_cast<long long>(done)),
        FileSizeString(static_cast<long long>(static_cast<unsigned long long>(g_totalBytes)))));
}

QString BUWindowController::analysisSummary() const
{
    const qint64 count = g_transactions.size();
    return FormatString("Analysis complete: %,lld %@, %@ to copy", count,
        count == 1 ? QStringLiteral("action") : QStringLiteral("actions"),
        FileSizeString(static_cast<long long>(static_cast<unsigned long long>(g_totalBytes))));
}

void BUWindowController::validateMenuItems()
{
    const bool idle = operationQueue.operationCount() == 0 && !running;
    const bool ready
        = idle && !BUAppController::sharedInstance().backupFolders().isEmpty() && !selectedDrive().isEmpty();
    ui->backupAction->setEnabled(ready);
    ui->analyzeAction->setEnabled(ready);
    ui->cancelAction->setEnabled(running && !canceling);
    ui->cancelButton->setEnabled(running && !canceling);
    ui->nextErrorAction->setEnabled(!g_transactions.isEmpty());
    ui->revealAction->setEnabled(ui->actionTable->currentIndex().isValid());
    const bool ruleSelected
        = ui->ruleTable->currentIndex().isValid() && ui->ruleTable->selectionModel()->hasSelection();
    ui->deleteRuleButton->setEnabled(ruleSelected && !running);
    ui->deleteRuleAction->setEnabled(ruleSelected && !running);
    // Lists are read by the running job: they may not change under it.
    for (QWidget *w : std::initializer_list<QWidget *> {ui->addRuleButton, ui->addDefaultsButton, ui->rulePicker})
        w->setEnabled(!running);
    ui->addRuleAction->setEnabled(!running);
    ui->addDefaultsAction->setEnabled(!running);
    const bool modalUp = KSAlert::isAlertActive() || QApplication::activeModalWidget() != nullptr;
    for (QAction *action : {ui->copyLogsAction, ui->emailLogsAction, ui->contactAction, ui->donationsAction,
             ui->aboutAction, ui->nextWindowAction, ui->checkUpdatesAction, ui->newsAction})
        action->setEnabled(!modalUp);
}

void BUWindowController::setStatus(const QString &text, bool alert)
{
    QPalette palette = ui->statusField->palette();
    palette.setColor(QPalette::WindowText,
        alert ? BUTransactionTableModel::alertRed() : QApplication::palette().color(QPalette::WindowText));
    ui->statusField->setPalette(palette);
    ui->statusField->setText(text);
}

void BUWindowController::backup(bool onlyAnalyze)
{
    BUAppController &controller = BUAppController::sharedInstance();
    const QString target = selectedDrive();
    if (target.isEmpty() || controller.backupFolders().isEmpty() || operationQueue.operationCount() > 0 || running)
        return;
    ClearTransactions();
    transactionModel.setDeviceName(target);
    transactionModel.reload();
    ui->counterField->hide(); // the last backup's figures are not this job's
    running = true;
    canceling = false;
    jobTarget = target;
    runRecorder.start(target, controller.backupFolders(), onlyAnalyze);
    ui->progressControl->setRange(0, 0); // indeterminate while analysing
    ui->progressControl->show();
    controller.updateRecentDrives(target);
    controller.saveState();
    updateDriveList(0);
    ui->backupButton->setEnabled(false);
    emptyHint->hide();
    setStatus(QStringLiteral("Analyzing..."));
    analyzeOnly = onlyAnalyze;
    analyzeInProgress = true;
    deviceModel.setJobState(analyzeInProgress, backupInProgress);
    validateMenuItems();
    operationQueue.addOperation(std::make_shared<BUAnalyzeOperation>(
        target, this, controller.backupFolders(), controller.ignoreFolders(), controller.ignoreFiles()));
}

void BUWindowController::cancel()
{
    if (operationQueue.operationCount() == 0)
        return;
    // The job stops at its next check (between two actions, or two chunks of a copy) and still
    // sends its last report, which ends the job here.
    operationQueue.cancelAllOperations();
    if (!running || canceling)
        return;
    canceling = true;
    setStatus(QStringLiteral("Canceling..."));
    validateMenuItems();
}

BUWindowController::DeletionAnswer BUWindowController::confirmLargeDeletion(const BUAnalysisReport &report)
{
    // An emptied, renamed or unmounted source folder looks to the analysis like a folder whose
    // contents were all deleted. Ask before making the device follow it; the safe answer, Review,
    // is the default one. An emptied backup folder is asked about whatever the setting.
    const QString question = DeletionQuestion(report, ui->confirmDeletionsAction->isChecked());
    if (question.isNull())
        return DeletionAnswer::Backup;
    const bool emptied = !report.emptiedFolders.isEmpty();
    const QString details = LargeDeletionDetails(report, BUAppController::sharedInstance().backupFolders());
    const QString explanation = emptied ? EmptiedFolderExplanation() + u' ' + details
            + QStringLiteral(" Review keeps the list of transactions in the window.")
                                        : LargeDeletionExplanation() + u' ' + details
            + QStringLiteral(" Review keeps the list of transactions in the window. You can turn this question off "
                             "in the Edit menu.");
    const int answer = KSAlert::sharedInstance().giveAlertMessageWithHelp(question, explanation,
        {QStringLiteral("Review"), QStringLiteral("Cancel"), QStringLiteral("Backup")},
        [](QWidget *box) { OpenHelpOverBox(box, BUHelpBookmark::kLargeDeletions); });
    if (answer == KSAlertController::kThirdButton)
        return DeletionAnswer::Backup;
    return answer == KSAlertController::kFirstButton ? DeletionAnswer::Review : DeletionAnswer::Cancel;
}

void BUWindowController::analysisComplete(const BUAnalysisReport &report)
{
    runRecorder.analysisComplete(report);
    ui->progressControl->setRange(0, 1);
    setStatus(QString());
    analyzeInProgress = false;
    deviceModel.setJobState(analyzeInProgress, backupInProgress);

    QString outcome;
    bool keepList = analyzeOnly;
    if (report.extra) {
        outcome = FormatString("Backup to %@ failed.", report.target);
        finishJob(outcome, true);
        BUExtraStuffDialog::runDialogForTarget(report.target, *report.extra, this);
    } else if (report.cancel) {
        outcome = FormatString("Backup to %@ canceled.", report.target);
        finishJob(outcome, true);
        KSAlert::sharedInstance().giveAlertMessage(
            outcome, QStringLiteral("The backup was canceled before any changes were made to the target device."));
    } else if (report.error) {
        outcome = FormatString("Backup to %@ failed.", report.target);
        finishJob(outcome, true);
        KSAlert::sharedInstance().giveAlertMessage(outcome, *report.error);
    } else if (g_transactions.isEmpty()) {
        finishJob(QStringLiteral("The backup device is up to date"));
    } else {
        SortTransactions(g_transactions);
        transactionModel.reload();
        if (analyzeOnly) {
            finishJob(analysisSummary());
        } else {
            // Cancel pressed as the analysis ended: nothing more is asked or done.
            switch (canceling ? DeletionAnswer::Cancel : confirmLargeDeletion(report)) {
            case DeletionAnswer::Backup:
                startBackup(report.target);
                return;
            case DeletionAnswer::Review:
                keepList = true; // to be looked at, then backed up with the Backup button
                finishJob(analysisSummary());
                break;
            case DeletionAnswer::Cancel:
                break;
            }
            if (!keepList)
                finishJob(QStringLiteral("Backup canceled"), true);
        }
    }
    if (!keepList) {
        ClearTransactions();
        transactionModel.reload();
        updateEmptyHint();
    }
}

void BUWindowController::startBackup(const QString &target)
{
    ui->progressControl->setRange(0, 1000);
    ui->progressControl->setValue(0);
    setStatus(QString());
    backupInProgress = true;
    deviceModel.setJobState(analyzeInProgress, backupInProgress);
    backupClock.start();
    bytesInFlight = 0;
    lastRateUpdate = 0;
    updateCounters();
    ui->counterField->show();
    updateTitle();
    validateMenuItems();
    operationQueue.addOperation(std::make_shared<BUBackupOperation>(
        this, target, g_transactions, BUAppController::sharedInstance().backupFolders()));
}

void BUWindowController::finishJob(const QString &outcome, bool alert)
{
    runRecorder.finish(outcome);
    running = false;
    canceling = false;
    backupInProgress = false;
    analyzeInProgress = false;
    ui->progressControl->hide();
    deviceModel.setJobState(false, false);
    updateTitle();
    setStatus(outcome, alert);
    enableWhenQueueIsIdle();
    if (!outcome.isEmpty() && !isActiveWindow())
        KSPostNotification(jobTarget, outcome);
    if (closeWhenIdle)
        QTimer::singleShot(0, this, &QWidget::close);
}

void BUWindowController::enableWhenQueueIsIdle()
{
    enableBackup();
    if (operationQueue.operationCount() > 0)
        QTimer::singleShot(10, this, &BUWindowController::enableWhenQueueIsIdle);
    else if (!running)
        BUAppController::sharedInstance().reloadStateIfPending();
}

void BUWindowController::selectTransactionRow(qsizetype row)
{
    if (row < 0 || row >= g_transactions.size())
        return;
    const QModelIndex index = transactionModel.index(int(row), BUTransactionTableModel::kNameColumn);
    ui->actionTable->setCurrentIndex(index);
    ui->actionTable->scrollTo(index, QAbstractItemView::PositionAtCenter);
}

void BUWindowController::backupStatus(const BUBackupStatusReport &report)
{
    bytesInFlight = 0;
    const qsizetype highest = ApplyBackupStatus(report.trans, report.copied, report.notes);
    if (!report.trans.isEmpty()) {
        const qsizetype lowest = report.trans.firstKey(); // a map: its keys come in order
        for (auto it = report.trans.begin(); it != report.trans.end(); ++it) {
            if (!it.value().isEmpty() && it.key() < g_transactions.size())
                ui->actionTable->verticalHeader()->resizeSection(int(it.key()), kFailedRowHeight);
        }
        if (highest >= 0)
            transactionModel.rowsChanged(int(std::max<qsizetype>(lowest, 0)), int(highest));
    }
    const qsizetype count = g_transactions.size();
    selectTransactionRow(std::min(report.trans.isEmpty() ? qsizetype(1) : highest + 1, count - 1));
    updateCounters();
    showRate();
}

void BUWindowController::copyProgress(qsizetype, double bytesWritten)
{
    bytesInFlight = bytesWritten;
    updateCounters(); // the bytes as they reach the device, with the bar
    showRate();
}

void BUWindowController::showRate()
{
    const double done = g_copiedBytes + bytesInFlight;
    if (g_totalBytes > 0)
        ui->progressControl->setValue(int(std::min(1000.0, 1000.0 * done / g_totalBytes)));
    updateTitle();
    if (canceling)
        return; // the status line says so until the job has ended
    const qint64 elapsed = backupClock.isValid() ? backupClock.elapsed() : 0;
    if (elapsed - lastRateUpdate < 500 && done < g_totalBytes)
        return; // a steady status line, not a flickering one
    lastRateUpdate = elapsed;
    if (elapsed < 2000 || done <= 0)
        return;
    const double rate = done * 1000.0 / double(elapsed);
    const double left = (g_totalBytes - done) / rate;
    setStatus(FormatString(
        "%@ per second, %@ left", FileSizeString(static_cast<long long>(rate)), DurationText(std::max(0.0, left))));
}

void BUWindowController::backupComplete(const BUBackupCompleteReport &report)
{
    runRecorder.backupComplete(report);
    QString status;
    bool alert = true;
    bytesInFlight = 0;
    updateCounters();
    // What a stop left undone is named with the outcome.
    const qint64 untried = qint64(g_transactions.size()) - qint64(g_finishedTransactions);
    BUAppController &controller = BUAppController::sharedInstance();
    if (report.cancel) {
        status = QStringLiteral("Backup canceled");
        QApplication::beep();
    } else if (g_failedTransactions == 0 && !report.error) {
        selectTransactionRow(0);
        const QDateTime now = QDateTime::currentDateTime();
        controller.backupDates()[report.target] = DayIndexForToday();
        controller.backupTimes()[report.target] = QTime(0, 0).secsTo(now.time());
        controller.saveState();
        status = QStringLiteral("Backup succeeded");
        alert = false;
        QApplication::beep();
    } else {
        // A fatal error with no failed action (the final flush to the device failed) is a
        // failure too: no date is recorded for it.
        if (g_failedTransactions == 0)
            status = FormatString("Backup to %@ failed.", report.target);
        else
            status = g_failedTransactions == 1 ? QStringLiteral("1 backup action failed")
                                               : FormatString("%d backup actions failed", int(g_failedTransactions));
        if (untried > 0)
            status += FormatString(", %,lld not tried", untried);
        nextError();
    }
    finishJob(status, alert);
    updateDriveList(0);
    if (report.error && !report.cancel) {
        KSAlert::sharedInstance().giveAlertMessageWithHelp(FormatString("Backup to %@ failed.", report.target),
            FormatString("The backup was stopped because a serious error occurred. %@", *report.error), {},
            [](QWidget *box) { OpenHelpOverBox(box, BUHelpBookmark::kSeriousError); });
    } else if (!report.cancel && (g_failedTransactions > 0 || report.error)) {
        QApplication::beep();
    }
}

void BUWindowController::addRule()
{
    if (running)
        return;
    if (ruleDomain() != BURuleListModel::kBackupFolders) {
        auto *dialog = BURuleDialog::editRule(BURuleDialog::kNewRuleIndex, ruleDomain(), this);
        connect(dialog, &BURuleDialog::ruleCommitted, this,
            qOverload<const BUIgnoreRule &>(&BUWindowController::updateRuleList));
        return;
    }
    const QStringList chosen
        = KSChooseItems(this, QStringLiteral("Select one or more folders to backup"), KSChooserMode::Folders);
    if (chosen.isEmpty())
        return;
    QStringList paths;
    for (const QString &path : chosen)
        paths.append(QFileInfo(path).canonicalFilePath().isEmpty() ? path : QFileInfo(path).canonicalFilePath());
    const QList<BUAlertText> refusals = BUAppController::sharedInstance().addBackupFolders(paths);
    BUAppController::sharedInstance().saveState();
    for (const BUAlertText &refusal : refusals)
        KSAlert::sharedInstance().giveAlertMessage(refusal.message, refusal.moreInfo);
    updateRuleList(BUAppController::sharedInstance().backupFolders().indexOf(paths.back()));
}

void BUWindowController::deleteRule()
{
    const QModelIndex current = ui->ruleTable->currentIndex();
    if (running || !current.isValid())
        return;
    const int row = current.row();
    BURuleList *rules = currentRuleList();
    if (rules)
        rules->removeAt(row);
    else
        BUAppController::sharedInstance().backupFolders().removeAt(row);
    BUAppController::sharedInstance().saveState();
    ruleModel.reload();
    const int count = ruleModel.rowCount();
    if (count == 0) {
        validateMenuItems();
        enableBackup();
        return;
    }
    updateRuleList(std::min(row, count - 1));
}

void BUWindowController::addDefaults()
{
    if (running)
        return;
    BUAppController::sharedInstance().addDefaults();
    BUAppController::sharedInstance().saveState();
    updateRuleList(ui->ruleTable->currentIndex().row());
}

void BUWindowController::changeRuleDomain()
{
    ruleModel.setRuleDomain(ruleDomain());
    updateRuleList(ruleModel.rowCount() > 0 ? 0 : -1);
}

void BUWindowController::ruleDoubleClick(const QModelIndex &index)
{
    if (running || operationQueue.operationCount() > 0 || !index.isValid())
        return;
    if (ruleDomain() == BURuleListModel::kBackupFolders) {
        const QString folder = BUAppController::sharedInstance().backupFolders().value(index.row());
        KSShowInFileManager(folder, [folder] { ShowFileManagerFailure(folder); });
        return;
    }
    auto *dialog = BURuleDialog::editRule(quint64(index.row()), ruleDomain(), this);
    connect(dialog, &BURuleDialog::ruleCommitted, this,
        qOverload<const BUIgnoreRule &>(&BUWindowController::updateRuleList));
}

void BUWindowController::actionDoubleClick(const QModelIndex &index)
{
    if (!index.isValid() || index.row() >= g_transactions.size())
        return;
    const QString path = g_transactions.at(index.row()).path();
    KSShowInFileManager(path, [path] { ShowFileManagerFailure(path); });
}

void BUWindowController::nextError()
{
    const qsizetype count = g_transactions.size();
    if (count == 0)
        return;
    const QModelIndex current = ui->actionTable->currentIndex();
    const qsizetype start = current.isValid() ? current.row() + 1 : 0;
    qsizetype row = g_outcomes.firstFailure(start);
    if (row < 0 || row >= count)
        row = g_outcomes.firstFailure(0); // from the top again
    if (row >= 0 && row < count)
        selectTransactionRow(row);
    else
        QApplication::beep();
}
