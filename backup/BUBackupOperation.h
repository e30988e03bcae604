// The backup: carries out the sorted transactions of an analysis on the device, in order:
// deletes, attribute updates, new folders, file copies. Progress goes to the controller in
// batches of at most two transactions of one action and kind (every file copy alone) through
// backupStatus, and the run ends with one backupComplete. Most failures only mark their
// transaction; an ejected, full or read-only device, a vanished source, or a folder or file that
// cannot be created stops the run.
//
// Threads: created and cancelled on the main thread; performOperation runs on the queue's worker
// thread named "backup" and reads its own copy of the transaction list (sharing its storage), which
// nothing writes while it runs: the main thread records outcomes apart, in g_outcomes.
#pragma once

#include "backup/BUEngineReceiver.h"
#include "backup/BUTransaction.h"
#include "keelson/KSAsyncOperation.h"

#include <atomic>

class BUBackupOperation : public KSAsyncOperation {
public:
    // transactions: the sorted list (g_transactions); backupFolders: the folders of the analysis,
    // which name the source of every mirror folder whose times are restored at the end.
    BUBackupOperation(BUEngineReceiver *controller, const QString &targetName, const BUTransactionList &transactions,
        const QStringList &backupFolders);

    const QString &targetName() const { return m_targetName; }
    BUEngineReceiver *controller() const { return m_controller; }

    bool performOperation() override;
    // The receiver still hears that the job ended, cancelled.
    void cancelledBeforeStart() override;
    // Sets the cancel flag that the run checks between two transactions, then the inherited cancel.
    void cancel() override;
    QString threadName() const override { return QStringLiteral("backup"); }

private:
    QString m_targetName;
    BUEngineReceiver *m_controller;
    BUTransactionList m_transactions;
    QStringList m_backupFolders;
    std::atomic<bool> m_cancelBackup {false};
};
