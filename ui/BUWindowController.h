// The main window: the device outline, the rule list with its domain picker, the transaction
// table, the status line, the progress bar, the six counters and the Backup and Cancel buttons.
// It starts the analysis and the backup on its own operation queue, receives their reports on
// the main thread and turns them into the table, the counters, the status text and alerts.
//
// Threads: everything here runs on the main thread; the engine's reports arrive as posted calls.
#pragma once

#include "backup/BUEngineReceiver.h"
#include "backup/BUIgnoreRule.h"
#include "backup/BURunRecorder.h"
#include "keelson/KSOperationQueue.h"
#include "ui/BUDeviceOutlineModel.h"
#include "ui/BURuleListModel.h"
#include "ui/BUTransactionTableModel.h"

#include <QElapsedTimer>
#include <QLabel>
#include <QMainWindow>

#include <memory>

class QMimeData;

namespace Ui {
class MainWindow;
}

class BUWindowController : public QMainWindow, public BUEngineReceiver {
    Q_OBJECT
public:
    explicit BUWindowController(QWidget *parent = nullptr);
    // Cancels and waits for a running job.
    ~BUWindowController() override;

    QString selectedDrive() const;
    // Reloads the outline and selects the recent device at `index` (the first when not found).
    void updateDriveList(qsizetype index);
    // Reloads the rule table and selects the rule (or folder) at `row` of the current list.
    void updateRuleList(qsizetype row = -1);
    void updateRuleList(const BUIgnoreRule &rule);
    int ruleDomain() const;
    void enableBackup();
    void backup(bool analyzeOnly);
    // Asks the running job to stop and returns at once; the window says "Canceling..." until the
    // job's last report has arrived.
    void cancel();

    QObject *reportContext() override { return this; }
    void analysisComplete(const BUAnalysisReport &report) override;
    void backupStatus(const BUBackupStatusReport &report) override;
    void backupComplete(const BUBackupCompleteReport &report) override;
    void copyProgress(qsizetype index, double bytesWritten) override;

    void addRule();
    // Adds backup folders chosen or dropped; one inside a backup folder, or holding one, is asked
    // about first.
    void addBackupFolders(const QStringList &chosen);
    void deleteRule();
    void addDefaults();
    void changeRuleDomain();
    void ruleDoubleClick(const QModelIndex &index);
    void actionDoubleClick(const QModelIndex &index);
    void nextError();
    // Enables the menu commands and buttons for the current state.
    void validateMenuItems();

    bool isRunning() const { return running; }
    bool isBackupInProgress() const { return backupInProgress; }
    bool isCanceling() const { return canceling; }
    qsizetype operationCount() const { return operationQueue.operationCount(); }

    // The settings key of the large-deletion question ("true" by default).
    static QString confirmDeletionsKey() { return QStringLiteral("twbackup.confirmDeletions"); }

protected:
    void closeEvent(QCloseEvent *event) override;
    void changeEvent(QEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void connectActions();
    void restoreWindowState();
    void saveWindowState();
    void setStatus(const QString &text, bool alert = false);
    // Ends the job; `outcome` goes to the status line and, while the window is not active, to a
    // desktop notification.
    void finishJob(const QString &outcome = QString(), bool alert = false);
    // The job's last report arrives while its operation is still leaving the queue: the actions
    // that start a job are enabled once it has left.
    void enableWhenQueueIsIdle();
    enum class DeletionAnswer { Backup, Cancel, Review };
    DeletionAnswer confirmLargeDeletion(const BUAnalysisReport &report);
    // The analysis's verdict on the listed transactions; `fits` says whether the backup fits on
    // the device.
    QString analysisSummary(bool *fits) const;
    void updateCounters();
    void updateEmptyHint();
    // The table's label names the device whose analysis it lists.
    void updateTableLabel();
    // The table's rows take the height of its font: after a change of font.
    void fitRowsToFont();
    void updateTitle();
    void startBackup(const QString &target);
    // Makes the last job's device the most recent one, unless the pointer is over the device list
    // (then when it leaves).
    void moveJobDeviceToTop(bool evenUnderPointer);
    void showRate();
    void selectTransactionRow(qsizetype row);
    BURuleList *currentRuleList();
    // The local folders of a drag that the folder list takes; none when it takes none.
    QStringList droppedFolders(const QMimeData *data) const;

    std::unique_ptr<Ui::MainWindow> ui;
    KSOperationQueue operationQueue;
    BUDeviceOutlineModel deviceModel;
    BURuleListModel ruleModel;
    BUTransactionTableModel transactionModel;
    BURunRecorder runRecorder; // every job to the log and the history of runs

    QLabel *emptyHint = nullptr; // over the empty transaction table: what is missing for a backup
    QString jobTarget; // the device of the running job
    QString pendingRecentDevice; // to become the most recent device once the pointer allows
    bool devicesListed = false; // the device list has been shown once
    QString pickedDevice; // the device selected in the outline, by name
    bool running = false;
    bool canceling = false;
    bool statusAlert = false; // the status line shows a failure, in red
    bool closeWhenIdle = false; // the user asked to quit while a job ran
    bool analyzeInProgress = false;
    bool backupInProgress = false;
    bool analyzeOnly = false;
    bool is24HourTime = true;
    bool expandRecent = true;
    bool expandOther = true;

    QElapsedTimer backupClock;
    double bytesInFlight = 0; // of the copy that is running, not yet counted in g_copiedBytes
    qint64 lastRateUpdate = 0;
};
