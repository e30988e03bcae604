#include "ui/BUHistoryWindow.h"

#include "backup/BUAnalysisVerdict.h"
#include "keelson/FormatString.h"
#include "ui/BUTransactionTableModel.h"

#include <QAction>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QEvent>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QMainWindow>
#include <QMenu>
#include <QPushButton>
#include <QSplitter>
#include <QTreeView>
#include <QTreeWidget>
#include <QVBoxLayout>

namespace {

QPointer<BUHistoryWindow> &OpenWindow()
{
    static QPointer<BUHistoryWindow> window;
    return window;
}

enum RunColumn { kWhenColumn, kDeviceColumn, kKindColumn, kOutcomeColumn, kMessageColumn, kDurationColumn };

QString _When(const QDateTime &time)
{
    return QLocale().toString(time.toLocalTime(), QStringLiteral("yyyy-MM-dd HH:mm"));
}

QString _Duration(double seconds)
{
    if (seconds < 10)
        return FormatString("%.1f s", seconds);
    if (seconds < 120)
        return FormatString("%d s", int(seconds));
    const int minutes = int(seconds / 60);
    return minutes < 60 ? FormatString("%d min %02d s", minutes, int(seconds) % 60)
                        : FormatString("%d h %02d min", minutes / 60, minutes % 60);
}

QString _Plural(qint64 count, const char *one, const char *many)
{
    return FormatString("%,lld %@", static_cast<long long>(count), QString::fromUtf8(count == 1 ? one : many));
}

} // namespace

BUHistoryWindow::BUHistoryWindow(QWidget *parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("historyWindow"));
    setWindowTitle(QStringLiteral("History"));
    setWindowFlag(Qt::Window);
    setAttribute(Qt::WA_DeleteOnClose);
    resize(860, 560);

    auto *layout = new QVBoxLayout(this);
    auto *top = new QHBoxLayout;
    auto *deviceLabel = new QLabel(QStringLiteral("&Device:"), this);
    deviceFilter = new QComboBox(this);
    deviceFilter->setObjectName(QStringLiteral("deviceFilter"));
    deviceFilter->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    deviceLabel->setBuddy(deviceFilter);
    top->addWidget(deviceLabel);
    top->addWidget(deviceFilter);
    top->addStretch();
    layout->addLayout(top);

    problemField = new QLabel(this);
    problemField->setObjectName(QStringLiteral("problemField"));
    problemField->setWordWrap(true);
    problemField->setTextFormat(Qt::PlainText);
    problemField->hide();
    layout->addWidget(problemField);

    auto *splitter = new QSplitter(Qt::Vertical, this);
    runList = new QTreeWidget(splitter);
    runList->setObjectName(QStringLiteral("runList"));
    runList->setRootIsDecorated(false);
    runList->setUniformRowHeights(true);
    runList->setAllColumnsShowFocus(true);
    runList->setHeaderLabels({QStringLiteral("When"), QStringLiteral("Device"), QStringLiteral("Run"),
        QStringLiteral("Outcome"), QStringLiteral("Message"), QStringLiteral("Duration")});
    runList->header()->setStretchLastSection(false);
    runList->header()->setSectionResizeMode(QHeaderView::ResizeToContents);
    runList->header()->setSectionResizeMode(kMessageColumn, QHeaderView::Stretch);

    auto *details = new QWidget(splitter);
    auto *detailsLayout = new QVBoxLayout(details);
    detailsLayout->setContentsMargins(0, 0, 0, 0);
    runSummary = new QLabel(details);
    runSummary->setObjectName(QStringLiteral("runSummary"));
    runSummary->setWordWrap(true);
    runSummary->setTextFormat(Qt::PlainText);
    runSummary->setTextInteractionFlags(Qt::TextSelectableByMouse);
    runSummary->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    detailsLayout->addWidget(runSummary);
    failureList = new QTreeWidget(details);
    failureList->setObjectName(QStringLiteral("failureList"));
    failureList->setRootIsDecorated(false);
    failureList->setHeaderLabels({QStringLiteral("Action"), QStringLiteral("Item"), QStringLiteral("Reason")});
    failureList->header()->setSectionResizeMode(0, QHeaderView::ResizeToContents);
    failureList->setColumnWidth(1, 360);
    failureList->setTextElideMode(Qt::ElideMiddle); // a path's start and its name, the whole in the tooltip
    detailsLayout->addWidget(failureList, 1);
    splitter->addWidget(runList);
    splitter->addWidget(details);
    splitter->setStretchFactor(0, 3);
    splitter->setStretchFactor(1, 2);
    layout->addWidget(splitter, 1);

    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    connect(buttons, &QDialogButtonBox::rejected, this, &QWidget::close);
    layout->addWidget(buttons);

    connect(deviceFilter, &QComboBox::activated, this, [this] { fillRuns(); });
    connect(runList, &QTreeWidget::currentItemChanged, this, [this] { showRunDetails(); });
    reload();
}

BUHistoryWindow *BUHistoryWindow::openWindow()
{
    return OpenWindow();
}

BUHistoryWindow *BUHistoryWindow::showHistory(QWidget *parent, const QString &device)
{
    QPointer<BUHistoryWindow> &window = OpenWindow();
    if (!window)
        window = new BUHistoryWindow(parent);
    else
        window->reload();
    window->showDevice(device);
    window->show();
    window->raise();
    window->activateWindow();
    return window;
}

void BUHistoryWindow::installCommands(
    QMainWindow *window, QMenu *menu, QTreeView *outline, std::function<QString(const QModelIndex &)> deviceAt)
{
    menu->addSeparator();
    QAction *history = menu->addAction(QStringLiteral("&History"));
    history->setObjectName(QStringLiteral("historyAction"));
    history->setShortcut(QKeySequence(QStringLiteral("Ctrl+H")));
    // The selected device's runs, or all when no device is selected.
    QObject::connect(history, &QAction::triggered, window,
        [window, outline, deviceAt] { showHistory(window, deviceAt(outline->currentIndex())); });
    outline->setContextMenuPolicy(Qt::CustomContextMenu);
    QObject::connect(outline, &QWidget::customContextMenuRequested, window, [window, outline, deviceAt](QPoint at) {
        const QString device = deviceAt(outline->indexAt(at));
        if (device.isEmpty())
            return;
        QMenu menu(outline);
        QAction *show = menu.addAction(FormatString("Show History of \"%@\"", device));
        show->setObjectName(QStringLiteral("showDeviceHistoryAction"));
        QObject::connect(show, &QAction::triggered, window, [window, device] { showHistory(window, device); });
        menu.exec(outline->viewport()->mapToGlobal(at));
    });
}

void BUHistoryWindow::reload()
{
    const QString device = shownDevice();
    contents = BURunHistory::load();
    QStringList devices;
    for (const BURunRecord &run : std::as_const(contents.runs)) {
        if (!devices.contains(run.device))
            devices.append(run.device);
    }
    devices.sort(Qt::CaseInsensitive);
    deviceFilter->clear();
    deviceFilter->addItem(QStringLiteral("All Devices"), QString());
    for (const QString &name : std::as_const(devices))
        deviceFilter->addItem(name, name);
    problemField->setVisible(contents.damaged);
    problemField->setText(FormatString("The history of runs %@ could not be read whole: %@.",
                              BURunHistory::historyPath(), contents.problem)
        + QStringLiteral(" What could be read is shown; the file is kept aside when the next run is recorded."));
    showDevice(device);
}

void BUHistoryWindow::showDevice(const QString &device)
{
    int index = deviceFilter->findData(device);
    if (index < 0 && !device.isEmpty()) {
        // A device with no run yet is still offered, with an empty list.
        deviceFilter->addItem(device, device);
        index = deviceFilter->count() - 1;
    }
    deviceFilter->setCurrentIndex(std::max(index, 0));
    fillRuns();
}

QString BUHistoryWindow::shownDevice() const
{
    return deviceFilter->currentData().toString();
}

void BUHistoryWindow::fillRuns()
{
    const QDateTime selected = runList->currentItem()
        ? runs.value(runList->indexOfTopLevelItem(runList->currentItem())).started
        : QDateTime();
    const QString device = shownDevice();
    runs = BURunHistory::newestFirst(contents.runs, device);
    runList->clear();
    runList->setColumnHidden(kDeviceColumn, !device.isEmpty());
    int selectRow = 0;
    for (const BURunRecord &run : std::as_const(runs)) {
        auto *item = new QTreeWidgetItem(runList);
        item->setText(kWhenColumn, _When(run.started));
        item->setText(kDeviceColumn, run.device);
        item->setText(kKindColumn, run.analyzeOnly ? QStringLiteral("Analysis") : QStringLiteral("Backup"));
        item->setText(kOutcomeColumn, BURunOutcome::Label(run.outcome));
        item->setText(kMessageColumn, run.message);
        item->setText(kDurationColumn, _Duration(run.seconds()));
        item->setTextAlignment(kDurationColumn, Qt::AlignRight | Qt::AlignVCenter);
        if (BURunOutcome::IsTrouble(run.outcome)) {
            item->setForeground(kOutcomeColumn, BUTransactionTableModel::alertRed());
            item->setForeground(kMessageColumn, BUTransactionTableModel::alertRed());
        }
        if (selected.isValid() && run.started == selected)
            selectRow = runList->topLevelItemCount() - 1;
    }
    if (runs.isEmpty()) {
        runSummary->setText(device.isEmpty() ? QStringLiteral("No analysis or backup is on record yet.")
                                             : FormatString("No analysis or backup of \"%@\" is on record.", device));
        failureList->hide();
    } else {
        selectRun(selectRow);
    }
}

void BUHistoryWindow::selectRun(int row)
{
    if (QTreeWidgetItem *item = runList->topLevelItem(row)) {
        runList->setCurrentItem(item);
        runList->scrollToItem(item);
    }
    showRunDetails();
}

void BUHistoryWindow::showRunDetails()
{
    const int row = runList->currentItem() ? runList->indexOfTopLevelItem(runList->currentItem()) : -1;
    failureList->clear();
    if (row < 0 || row >= runs.size()) {
        failureList->hide();
        return;
    }
    const BURunRecord &run = runs[row];
    QStringList lines;
    lines.append(FormatString("%@ \"%@\", started %@, took %@.",
        run.analyzeOnly ? QStringLiteral("Analysis of") : QStringLiteral("Backup to"), run.device,
        QLocale().toString(run.started.toLocalTime(), QStringLiteral("yyyy-MM-dd HH:mm:ss")),
        _Duration(run.seconds())));
    if (!run.folders.isEmpty())
        lines.append(QStringLiteral("Backup folders: ") + run.folders.join(QStringLiteral(", ")));
    lines.append(BURunOutcome::Label(run.outcome) + QStringLiteral(": ") + run.message);
    if (!run.detail.isEmpty())
        lines.append(run.detail);
    if (run.copies + run.updates + run.deletes > 0)
        lines.append(FormatString("Planned: %@, %@, %@; %@ to copy.", _Plural(run.copies, "copy", "copies"),
            _Plural(run.updates, "update", "updates"), _Plural(run.deletes, "delete", "deletes"),
            ByteCountText(double(run.bytesToCopy))));
    if (run.backupRan) {
        QString done = FormatString("Done: %,lld copied, %,lld updated, %,lld deleted, %@ copied.",
            static_cast<long long>(run.copied), static_cast<long long>(run.updated),
            static_cast<long long>(run.deleted), ByteCountText(double(run.bytesCopied)));
        if (run.failed > 0)
            done += u' ' + _Plural(run.failed, "action failed.", "actions failed.");
        if (run.notTried > 0)
            done += u' ' + _Plural(run.notTried, "action was not tried.", "actions were not tried.");
        lines.append(done);
    }
    if (run.failed > 0 && run.failures.isEmpty())
        lines.append(QStringLiteral("Only the last run of a device keeps its list of failed actions; the program's "
                                    "log has them (Help > Copy Logs)."));
    else if (run.failuresLeftOut > 0)
        lines.append(FormatString("The first %,lld failed actions are listed; the program's log has the rest "
                                  "(Help > Copy Logs).",
            static_cast<long long>(run.failures.size())));
    runSummary->setText(lines.join(u'\n'));
    for (const BURunFailure &failure : run.failures) {
        auto *item = new QTreeWidgetItem(failureList, {failure.action, failure.path, failure.reason});
        item->setToolTip(1, failure.path);
        item->setToolTip(2, failure.reason);
        item->setForeground(2, BUTransactionTableModel::alertRed());
    }
    failureList->setVisible(!run.failures.isEmpty());
}

void BUHistoryWindow::changeEvent(QEvent *event)
{
    // Runs of the command line arrive while the window is in the background.
    if (event->type() == QEvent::ActivationChange && isActiveWindow())
        reload();
    QDialog::changeEvent(event);
}
