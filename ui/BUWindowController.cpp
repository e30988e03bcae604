#include "ui/BUWindowController.h"

#include "app/BUAppController.h"
#include "backup/BUAnalyzeOperation.h"
#include "backup/BUBackupOperation.h"
#include "backup/BUDevices.h"
#include "backup/BUTransaction.h"
#include "keelson/FormatString.h"
#include "keelson/KSDayIndex.h"
#include "keelson/KSKernel.h"
#include "keelson/KSStrings.h"
#include "keelson/KSUserDefaults.h"
#include "keelson/gui/KSActionHandler.h"
#include "keelson/gui/KSAlert.h"
#include "keelson/gui/KSAlertController.h"
#include "keelson/gui/KSFileChooser.h"
#include "keelson/gui/KSWorkspace.h"
#include "ui/BUExtraStuffDialog.h"
#include "ui/BURuleDialog.h"
#include "ui_MainWindow.h"

#include <QApplication>
#include <QCloseEvent>
#include <QDateTime>
#include <QFileInfo>
#include <QHeaderView>
#include <QScreen>

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

QString DurationText(double seconds)
{
    if (seconds < 60)
        return QStringLiteral("less than a minute");
    const int minutes = int(seconds / 60 + 0.5);
    if (minutes < 60)
        return minutes == 1 ? QStringLiteral("about a minute") : FormatString("about %d minutes", minutes);
    return FormatString("about %d h %02d min", minutes / 60, minutes % 60);
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
    ui->cancelButton->setEnabled(false);
    ui->backupButton->setEnabled(false);
    ui->progressControl->hide();
    // The counters appear with the first backup and keep its figures afterwards.
    for (QLabel *field : {ui->doneCountField, ui->ofCountField, ui->totalCountField, ui->countUnitLabel,
             ui->doneSizeField, ui->ofSizeField, ui->totalSizeField})
        field->hide();
    // 3. Expansion state of the two groups.
    auto settings = Settings();
    expandRecent = DefaultYesBool(*settings, kExpandRecentKey);
    expandOther = DefaultYesBool(*settings, kExpandOtherKey);
    // 5. Whether times are written without AM or PM.
    is24HourTime = Is24HourTime();
    deviceModel.setIs24HourTime(is24HourTime);
    ui->confirmDeletionsAction->setChecked(DefaultYesBool(*settings, confirmDeletionsKey()));
    // Help comes with the help window; until then its command is present but off.
    ui->helpAction->setEnabled(false);

    connectActions();
    restoreWindowState();

    BUAppController &controller = BUAppController::sharedInstance();
    controller.selectedDriveHook = [this] { return selectedDrive(); };
    controller.updateDriveListHook = [this](qsizetype index) { updateDriveList(index); };
    controller.firstRunDefaultsHook = [this] { addDefaults(); };
}

BUWindowController::~BUWindowController()
{
    BUAppController &controller = BUAppController::sharedInstance();
    controller.selectedDriveHook = nullptr;
    controller.updateDriveListHook = nullptr;
    controller.firstRunDefaultsHook = nullptr;
    cancel();
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
        Settings()->setValue(recent ? kExpandRecentKey : kExpandOtherKey, true);
    });
    connect(ui->diskOutline, &QTreeView::collapsed, this, [this](const QModelIndex &index) {
        const bool recent = index.row() == BUDeviceOutlineModel::kRecentGroup;
        (recent ? expandRecent : expandOther) = false;
        Settings()->setValue(recent ? kExpandRecentKey : kExpandOtherKey, false);
    });
    connect(ui->confirmDeletionsAction, &QAction::toggled, this,
        [](bool on) { Settings()->setValue(confirmDeletionsKey(), on); });

    KSActionHandler &handler = KSActionHandler::sharedInstance();
    connect(ui->copyLogsAction, &QAction::triggered, this, [&handler] { handler.copyLogs(); });
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
    Settings()->setValue(kWindowKey,
        QStringLiteral("%1 %2 %3 %4%5")
            .arg(frame.x())
            .arg(frame.y())
            .arg(frame.width())
            .arg(frame.height())
            .arg(isMaximized() ? QStringLiteral(" maximized") : QString()));
}

void BUWindowController::closeEvent(QCloseEvent *event)
{
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
    validateMenuItems();
}

void BUWindowController::validateMenuItems()
{
    const bool idle = operationQueue.operationCount() == 0 && !running;
    const bool ready
        = idle && !BUAppController::sharedInstance().backupFolders().isEmpty() && !selectedDrive().isEmpty();
    ui->backupAction->setEnabled(ready);
    ui->analyzeAction->setEnabled(ready);
    ui->cancelAction->setEnabled(running);
    ui->cancelButton->setEnabled(running);
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
    transactionModel.reload();
    running = true;
    ui->progressControl->setRange(0, 0); // indeterminate while analysing
    ui->progressControl->show();
    controller.updateRecentDrives(target);
    updateDriveList(0);
    ui->backupButton->setEnabled(false);
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
    operationQueue.cancelAllOperations();
    operationQueue.waitUntilAllOperationsAreFinished();
}

bool BUWindowController::confirmLargeDeletion(const BUAnalysisReport &report)
{
    // An emptied, renamed or unmounted source folder looks to the analysis like a folder whose
    // contents were all deleted. Ask before making the device follow it.
    if (!ui->confirmDeletionsAction->isChecked() || !DeletesMostOfTheDevice(report))
        return true;
    const int answer = KSAlert::sharedInstance().giveAlertMessage(LargeDeletionMessage(report),
        LargeDeletionExplanation() + QStringLiteral(" You can turn this question off in the Edit menu."),
        {QStringLiteral("Backup"), QStringLiteral("Cancel")});
    return answer == KSAlertController::kFirstButton;
}

void BUWindowController::analysisComplete(const BUAnalysisReport &report)
{
    ui->progressControl->setRange(0, 1);
    setStatus(QString());
    analyzeInProgress = false;
    deviceModel.setJobState(analyzeInProgress, backupInProgress);

    if (report.extra) {
        BUExtraStuffDialog::runDialogForTarget(report.target, *report.extra, this);
    } else if (report.cancel) {
        KSAlert::sharedInstance().giveAlertMessage(FormatString("Backup to %@ canceled.", report.target),
            QStringLiteral("The backup was canceled before any changes were made to the target device."));
    } else if (report.error) {
        KSAlert::sharedInstance().giveAlertMessage(FormatString("Backup to %@ failed.", report.target), *report.error);
    } else if (g_transactions.isEmpty()) {
        setStatus(QStringLiteral("The backup device is up to date"));
    } else {
        SortTransactions(g_transactions);
        transactionModel.reload();
        if (analyzeOnly) {
            setStatus(QStringLiteral("Analysis complete"));
        } else if (confirmLargeDeletion(report)) {
            startBackup(report.target);
            return;
        } else {
            setStatus(QStringLiteral("Backup canceled"), true);
        }
    }
    if (!analyzeOnly) {
        ClearTransactions();
        transactionModel.reload();
    }
    finishJob();
}

void BUWindowController::startBackup(const QString &target)
{
    ui->progressControl->setRange(0, 1000);
    ui->progressControl->setValue(0);
    for (QLabel *field : {ui->doneCountField, ui->ofCountField, ui->totalCountField, ui->countUnitLabel,
             ui->doneSizeField, ui->ofSizeField, ui->totalSizeField})
        field->show();
    ui->doneCountField->setText(QStringLiteral("0"));
    ui->totalCountField->setText(FormatString("%,lld", qint64(g_transactions.size())));
    ui->doneSizeField->setText(QStringLiteral("0"));
    ui->totalSizeField->setText(FileSizeString(static_cast<long long>(static_cast<unsigned long long>(g_totalBytes))));
    setStatus(QString());
    backupInProgress = true;
    deviceModel.setJobState(analyzeInProgress, backupInProgress);
    backupClock.start();
    bytesInFlight = 0;
    lastRateUpdate = 0;
    validateMenuItems();
    operationQueue.addOperation(std::make_shared<BUBackupOperation>(
        this, target, g_transactions, BUAppController::sharedInstance().backupFolders()));
}

void BUWindowController::finishJob()
{
    running = false;
    backupInProgress = false;
    analyzeInProgress = false;
    ui->progressControl->hide();
    deviceModel.setJobState(false, false);
    enableBackup();
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
    const qsizetype highest = ApplyBackupStatus(report.trans, report.copied);
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
    ui->doneCountField->setText(FormatString("%,lld", qint64(g_finishedTransactions)));
    ui->doneSizeField->setText(FileSizeString(static_cast<long long>(g_copiedBytes)));
    showRate();
}

void BUWindowController::copyProgress(qsizetype, double bytesWritten)
{
    bytesInFlight = bytesWritten;
    showRate();
}

void BUWindowController::showRate()
{
    const double done = g_copiedBytes + bytesInFlight;
    if (g_totalBytes > 0)
        ui->progressControl->setValue(int(std::min(1000.0, 1000.0 * done / g_totalBytes)));
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
    QString status;
    bool alert = true;
    BUAppController &controller = BUAppController::sharedInstance();
    if (report.cancel) {
        status = QStringLiteral("Backup canceled");
        QApplication::beep();
    } else if (g_failedTransactions == 0 && !report.error) {
        selectTransactionRow(0);
        const QDateTime now = QDateTime::currentDateTime();
        controller.backupDates()[report.target] = DayIndexForToday();
        controller.backupTimes()[report.target] = QTime(0, 0).secsTo(now.time());
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
        nextError();
        if (report.error) {
            KSAlert::sharedInstance().giveAlertMessage(FormatString("Backup to %@ failed.", report.target),
                FormatString("The backup was stopped because a serious error occurred. %@", *report.error));
        } else {
            QApplication::beep();
        }
    }
    finishJob();
    updateDriveList(0);
    setStatus(status, alert);
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
        KSShowInFileManager(BUAppController::sharedInstance().backupFolders().value(index.row()));
        return;
    }
    auto *dialog = BURuleDialog::editRule(quint64(index.row()), ruleDomain(), this);
    connect(dialog, &BURuleDialog::ruleCommitted, this,
        qOverload<const BUIgnoreRule &>(&BUWindowController::updateRuleList));
}

void BUWindowController::actionDoubleClick(const QModelIndex &index)
{
    if (index.isValid() && index.row() < g_transactions.size())
        KSShowInFileManager(g_transactions.at(index.row()).path());
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
