// The analysis: compares every backup folder with its mirror at the top level of the device and
// appends to g_transactions what would make the device an exact mirror: Copy what is new or
// newer, Update what only had its attributes changed, Delete what the sources no longer hold or
// now ignore. Nothing on the device is changed.
//
// Threads: created and cancelled on the main thread; performOperation (and analyze) run on the
// queue's worker thread named "analysis", which alone writes g_transactions and the counters
// until its one analysisComplete report arrives on the main thread.
#pragma once

#include "backup/BUEngineReceiver.h"
#include "backup/BUIgnoreRule.h"
#include "keelson/KSAsyncOperation.h"

#include <QHash>
#include <QStringList>

#include <atomic>

// Copies that the device cannot hold beside an item of the same name but for case (a device that
// ignores case): the source path, and the reason its transaction fails instead of replacing the
// other item. Filled by the analysis with g_transactions, read by the backup that carries them out.
extern QHash<QString, QString> g_caseConflicts;

class BUTransaction;
// Why the backup will not make this copy, from g_caseConflicts; null for any other transaction.
QString CaseConflictOf(const BUTransaction &transaction);

class BUAnalyzeOperation : public KSAsyncOperation {
public:
    // The folder list and the rules are copied: the analysis reads them on its own thread.
    BUAnalyzeOperation(const QString &targetName, BUEngineReceiver *controller, const QStringList &backupFolders,
        const BURuleList &ignoreFolders, const BURuleList &ignoreFiles);

    const QString &targetName() const { return m_targetName; }
    BUEngineReceiver *controller() const { return m_controller; }

    // Names the thread, runs analyze() and posts its report to the controller.
    bool performOperation() override;
    // The receiver still hears that the job ended, cancelled.
    void cancelledBeforeStart() override;
    // Sets the cancel flag that the analysis polls, then the inherited cancel.
    void cancel() override;
    QString threadName() const override { return QStringLiteral("analysis"); }

    // The whole analysis on the calling thread: resets the counters, appends to g_transactions
    // and returns the report.
    BUAnalysisReport analyze();

private:
    BUAnalysisReport runAnalysis();

    QString m_targetName;
    BUEngineReceiver *m_controller;
    QStringList m_backupFolders;
    BURuleList m_ignoreFolders;
    BURuleList m_ignoreFiles;
    std::atomic<bool> m_cancelAnalysis {false};
};
