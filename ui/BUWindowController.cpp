#include "ui/BUWindowController.h"

#include "app/BUAppController.h"
#include "backup/BUAnalysisVerdict.h"
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
#include <QDir>
#include <QDropEvent>
#include <QFileInfo>
#include <QHeaderView>
#include <QMimeData>
#include <QScreen>
#include <QTimer>
#include <QVBoxLayout>

namespace {

const QString kExpandRecentKey = QStringLiteral("twbackup.expandR");
const QString kExpandOtherKey = QStringLiteral("twbackup.expandO");
const QString kWindowKey = QStringLiteral("twbackup.window");
// Row heights follow the table's font: one line, and two for a failed transaction with its message
// under the location, each with a little air.
int RowHeight(const QWidget *table)
{
    return std::max(20, table->fontMetrics().height() + 4);
}
int FailedRowHeight(const QWidget *table)
{
    return std::max(36, table->fontMetrics().lineSpacing() + table->fontMetrics().height() + 6);
}

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
    rows->setMinimumSectionSize(1);
    rows->setDefaultSectionSize(RowHeight(ui->actionTable));
    ui->actionTable->installEventFilter(this);
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

    // The keyboard's road through the window. Each list is one stop (its rows are walked with the
    // arrows); a button takes the focus from Tab only, so a click leaves it where it was and Space
    // never presses a button the user cannot see focused.
    setTabOrder(ui->diskOutline, ui->rulePicker);
    setTabOrder(ui->rulePicker, ui->ruleTable);
    setTabOrder(ui->ruleTable, ui->addRuleButton);
    setTabOrder(ui->addRuleButton, ui->deleteRuleButton);
    setTabOrder(ui->deleteRuleButton, ui->addDefaultsButton);
    setTabOrder(ui->addDefaultsButton, ui->actionTable);
    setTabOrder(ui->actionTable, ui->cancelButton);
    setTabOrder(ui->cancelButton, ui->backupButton);
    for (QPushButton *button : findChildren<QPushButton *>())
        button->setFocusPolicy(Qt::TabFocus);
    // An empty table has nothing to show the focus on: Tab passes it by.
    ui->actionTable->setFocusPolicy(Qt::NoFocus);
    connect(&transactionModel, &QAbstractItemModel::modelReset, this,
        [this] { ui->actionTable->setFocusPolicy(g_transactions.isEmpty() ? Qt::NoFocus : Qt::StrongFocus); });
    ui->diskOutline->setFocus();
    ui->diskOutline->viewport()->installEventFilter(this);
    ui->ruleTable->setAcceptDrops(true);
    ui->ruleTable->viewport()->installEventFilter(this);

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
    // The pick is kept by name: the lists under the outline may change before it is reloaded.
    connect(ui->diskOutline->selectionModel(), &QItemSelectionModel::currentChanged, this,
        [this] { pickedDevice = selectedDrive(); });
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
    moveJobDeviceToTop(true);
    saveWindowState();
    QMainWindow::closeEvent(event);
}

bool BUWindowController::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == ui->diskOutline->viewport() && event->type() == QEvent::Leave)
        QTimer::singleShot(0, this, [this] { moveJobDeviceToTop(false); });
    if (watched == ui->actionTable && event->type() == QEvent::FontChange)
        fitRowsToFont();
    // Folders dropped on the list of backup folders from a file manager are added.
    if (watched == ui->ruleTable->viewport()) {
        switch (event->type()) {
        case QEvent::DragEnter:
        case QEvent::DragMove: {
            auto *drag = static_cast<QDropEvent *>(event);
            if (droppedFolders(drag->mimeData()).isEmpty()) {
                drag->ignore();
            } else {
                drag->setDropAction(Qt::CopyAction);
                drag->accept();
            }
            return true;
        }
        case QEvent::Drop: {
            auto *drop = static_cast<QDropEvent *>(event);
            const QStringList folders = droppedFolders(drop->mimeData());
            if (folders.isEmpty()) {
                drop->ignore();
                return true;
            }
            drop->setDropAction(Qt::CopyAction);
            drop->accept();
            // Not inside the drag's own event loop: a question may follow.
            QTimer::singleShot(0, this, [this, folders] { addBackupFolders(folders); });
            return true;
        }
        default:
            break;
        }
    }
    return QMainWindow::eventFilter(watched, event);
}

void BUWindowController::fitRowsToFont()
{
    QHeaderView *rows = ui->actionTable->verticalHeader();
    rows->setDefaultSectionSize(RowHeight(ui->actionTable));
    const int failed = FailedRowHeight(ui->actionTable);
    for (qsizetype row = g_outcomes.firstFailure(0); row >= 0 && row < g_transactions.size();
         row = g_outcomes.firstFailure(row + 1))
        rows->resizeSection(int(row), failed);
}

void BUWindowController::changeEvent(QEvent *event)
{
    if (event->type() == QEvent::PaletteChange) {
        // Dark when the window text is lighter than the window.
        g_darkMode = palette().color(QPalette::WindowText).lightness() > palette().color(QPalette::Window).lightness();
        deviceModel.refreshLastBackup();
        transactionModel.rowsChanged(0, int(g_transactions.size()) - 1);
        setStatus(ui->statusField->text(), statusAlert); // its red, for the new background
    }
    QMainWindow::changeEvent(event);
}

QString BUWindowController::selectedDrive() const
{
    return deviceModel.deviceName(ui->diskOutline->currentIndex());
}

void BUWindowController::updateDriveList(qsizetype index)
{
    // The device the user picked stays picked wherever the lists now put it. When it has gone,
    // nothing is picked: a backup goes only to a device the user chose.
    const QString picked = pickedDevice;
    deviceModel.reload();
    ui->diskOutline->clearSelection();
    QModelIndex select;
    if (expandRecent) {
        const QModelIndex group = deviceModel.groupIndex(BUDeviceOutlineModel::kRecentGroup);
        ui->diskOutline->expand(group);
        const int count = deviceModel.rowCount(group);
        if (!picked.isEmpty()) {
            // found below, in either group
        } else if (index >= 0 && index < count) {
            select = deviceModel.deviceIndex(BUDeviceOutlineModel::kRecentGroup, int(index));
        } else if (!devicesListed && count > 0) {
            // At start-up: the device used last.
            select = deviceModel.deviceIndex(BUDeviceOutlineModel::kRecentGroup, 0);
        }
    }
    if (expandOther)
        ui->diskOutline->expand(deviceModel.groupIndex(BUDeviceOutlineModel::kOtherGroup));
    if (!picked.isEmpty()) {
        const QModelIndex at = deviceModel.indexOfDevice(picked);
        if (at.isValid() && ui->diskOutline->isExpanded(at.parent()))
            select = at;
    }
    devicesListed = true;
    ui->diskOutline->setCurrentIndex(select);
    if (select.isValid())
        ui->diskOutline->scrollTo(select, QAbstractItemView::PositionAtCenter);
    enableBackup();
}

void BUWindowController::moveJobDeviceToTop(bool evenUnderPointer)
{
    if (pendingRecentDevice.isEmpty())
        return;
    // A row does not move under the pointer: the next click would hit another device.
    if (!evenUnderPointer && ui->diskOutline->viewport()->underMouse())
        return;
    BUAppController::sharedInstance().updateRecentDrives(pendingRecentDevice);
    BUAppController::sharedInstance().saveState();
    pendingRecentDevice.clear();
    updateDriveList(BUAppController::kDriveNotFound);
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
    if (selectedDrive().isEmpty()) {
        BUAppController &controller = BUAppController::sharedInstance();
        if (controller.mountedRecentDrives().isEmpty() && controller.otherDrives().isEmpty())
            missing.append(FormatString("No backup device is mounted. Plug in a disk and mount it; devices are "
                                        "looked for in %@ (set TANNER_VOLUMES_ROOT to look elsewhere).",
                VolumesRoot()));
        else
            missing.append(QStringLiteral("Pick the backup device in the list on the left."));
    }
    emptyHint->setText(missing.join(u'\n'));
    emptyHint->setVisible(!missing.isEmpty() && !running && g_transactions.isEmpty());
    updateTableLabel();
}

void BUWindowController::updateTableLabel()
{
    // The list belongs to the device it was made for, which need not be the one now selected.
    const QString listed = transactionModel.listedDevice();
    QString label = QStringLiteral("&Transactions");
    if (!g_transactions.isEmpty() && !listed.isEmpty()) {
        label = u'&' + FormatString("Transactions for %@", listed);
        if (!running && selectedDrive() != listed)
            label += QStringLiteral(" (not the selected device)");
    }
    ui->actionsLabel->setText(label);
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
        total == 1 ? QStringLiteral("action") : QStringLiteral("actions"), ByteCountText(done),
        ByteCountText(g_totalBytes)));
}

QString BUWindowController::analysisSummary(bool *fits) const
{
    const BUAnalysisVerdict verdict = AnalysisVerdictFor(g_transactions, jobTarget);
    if (fits)
        *fits = verdict.fits();
    return AnalysisVerdictText(verdict, jobTarget);
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
    statusAlert = alert;
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
    ui->backupButton->setEnabled(false);
    emptyHint->hide();
    setStatus(QStringLiteral("Analyzing..."));
    analyzeOnly = onlyAnalyze;
    analyzeInProgress = true;
    deviceModel.setJobState(analyzeInProgress, backupInProgress, jobTarget);
    validateMenuItems();
    operationQueue.addOperation(std::make_shared<BUAnalyzeOperation>(
        target, this, controller.backupFolders(), controller.ignoreFolders(), controller.ignoreFiles()));
}

void BUWindowController::cancel()
{
    // A job whose operation has left the queue still runs until its last report has arrived: the
    // window says "Canceling..." for it too.
    if (operationQueue.operationCount() == 0 && !running)
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
    deviceModel.setJobState(analyzeInProgress, backupInProgress, jobTarget);

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
            bool fits = true;
            const QString verdict = analysisSummary(&fits);
            finishJob(verdict, !fits);
        } else {
            // Cancel pressed as the analysis ended: nothing more is asked or done.
            switch (canceling ? DeletionAnswer::Cancel : confirmLargeDeletion(report)) {
            case DeletionAnswer::Backup:
                startBackup(report.target);
                return;
            case DeletionAnswer::Review:
                keepList = true; // to be looked at, then backed up with the Backup button
                finishJob(analysisSummary(nullptr));
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
    deviceModel.setJobState(analyzeInProgress, backupInProgress, jobTarget);
    backupClock.start();
    bytesInFlight = 0;
    lastRateUpdate = 0;
    updateCounters();
    ui->counterField->show();
    updateTitle();
    updateTableLabel();
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
    // The job's device becomes the most recent one now that the job is over, not under the
    // user's hand while it ran.
    pendingRecentDevice = jobTarget;
    moveJobDeviceToTop(false);
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
                ui->actionTable->verticalHeader()->resizeSection(int(it.key()), FailedRowHeight(ui->actionTable));
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
            status = FormatString("Backup to %@ failed", report.target);
        else
            status = g_failedTransactions == 1 ? QStringLiteral("1 backup action failed")
                                               : FormatString("%d backup actions failed", int(g_failedTransactions));
        if (untried > 0)
            status += FormatString(", %,lld not tried", untried);
        nextError();
    }
    finishJob(status, alert);
    deviceModel.refreshLastBackup();
    if (report.error && !report.cancel) {
        // A backup stopped before its first change (a device too small for it) changed nothing: its
        // reason says so, and it is no serious error.
        const QString explanation = g_finishedTransactions == 0
            ? *report.error
            : FormatString("The backup was stopped because a serious error occurred. %@", *report.error);
        KSAlert::sharedInstance().giveAlertMessageWithHelp(FormatString("Backup to %@ failed.", report.target),
            explanation, {}, [](QWidget *box) { OpenHelpOverBox(box, BUHelpBookmark::kSeriousError); });
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
        = KSChooseItems(this, QStringLiteral("Select one or more folders to back up"), KSChooserMode::Folders);
    addBackupFolders(chosen);
}

void BUWindowController::addBackupFolders(const QStringList &chosen)
{
    if (running || chosen.isEmpty())
        return;
    BUAppController &controller = BUAppController::sharedInstance();
    QStringList paths;
    for (const QString &path : chosen) {
        const QString canonical
            = QFileInfo(path).canonicalFilePath().isEmpty() ? path : QFileInfo(path).canonicalFilePath();
        // A folder inside a backup folder, or holding one, would be backed up twice: asked first.
        QString question;
        for (const QString &existing : std::as_const(controller.backupFolders())) {
            if (canonical == existing)
                break;
            if (canonical.startsWith(existing + u'/'))
                question = FormatString("\"%@\" is inside the backup folder \"%@\".", canonical, existing);
            else if (existing.startsWith(canonical + u'/'))
                question = FormatString("\"%@\" holds the backup folder \"%@\".", canonical, existing);
            if (!question.isEmpty())
                break;
        }
        if (!question.isEmpty()
            && KSAlert::sharedInstance().giveAlertMessage(question,
                   QStringLiteral("Its files would be on the backup device twice, once in each mirror, and take "
                                  "twice the room. Add it all the same?"),
                   {QStringLiteral("Don't Add"), QStringLiteral("Add")})
                != KSAlertController::kSecondButton)
            continue;
        paths.append(canonical);
    }
    if (paths.isEmpty())
        return;
    const QList<BUAlertText> refusals = controller.addBackupFolders(paths);
    controller.saveState();
    for (const BUAlertText &refusal : refusals)
        KSAlert::sharedInstance().giveAlertMessage(refusal.message, refusal.moreInfo);
    updateRuleList(controller.backupFolders().indexOf(paths.back()));
}

QStringList BUWindowController::droppedFolders(const QMimeData *data) const
{
    QStringList folders;
    if (running || ruleDomain() != BURuleListModel::kBackupFolders || !data || !data->hasUrls())
        return folders;
    for (const QUrl &url : data->urls()) {
        if (url.isLocalFile() && QFileInfo(url.toLocalFile()).isDir())
            folders.append(QDir::cleanPath(url.toLocalFile()));
    }
    return folders;
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
    // The side the row's location names: the device folder of a failure on the device.
    const QString path = transactionModel.sidePath(index.row());
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
