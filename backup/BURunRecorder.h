// Puts every analysis and backup on record, from the side that receives the engine's reports: the
// window and the command line each keep one and tell it when a run starts, hand it the reports,
// and tell it the words they showed at the end. It then writes the run to the program's log
// (its start, one line per failed action up to a limit, its end with outcome, duration, counts
// and bytes) and adds it to the history of runs (BURunHistory).
//
// Threads: the main thread, like the reports; it reads g_transactions, g_outcomes, g_errors and
// the counters as the front end left them when the run ends.
#pragma once

#include "backup/BUEngineReceiver.h"
#include "backup/BURunHistory.h"

#include <QElapsedTimer>

#include <functional>

class BURunRecorder {
public:
    // The most failed actions a run writes to the log; the rest are counted in one line.
    static constexpr int kLoggedFailures = 200;

    // A run begins: logs "Backup to "Dev" started ..." with the backup folders.
    void start(const QString &device, const QStringList &folders, bool analyzeOnly);
    // The analysis's report, before the front end acts on it: what it planned, or why it stopped.
    void analysisComplete(const BUAnalysisReport &report);
    // The backup's final report, before the front end acts on it.
    void backupComplete(const BUBackupCompleteReport &report);
    // The run has ended and the user was shown `message` (the status line). The outcome and the
    // explanation come from the reports, in the words the front ends show. Logs the run and adds it
    // to the history; nothing happens when no run was started.
    void finish(const QString &message);

    bool isRecording() const { return m_recording; }
    // The last run finished, as it was recorded.
    const BURunRecord &lastRun() const { return m_run; }
    // Told of each run once it is in the history (the window's History reloads).
    std::function<void(const BURunRecord &run)> recorded;
    // Where the history is written; empty for BURunHistory::historyPath().
    QString historyPath;

private:
    void logFailures() const;

    BURunRecord m_run;
    bool m_recording = false;
    bool m_transactionsPlanned = false;
    std::optional<BUAnalysisReport> m_analysis;
    std::optional<BUBackupCompleteReport> m_backup;
    QElapsedTimer m_clock;
};
