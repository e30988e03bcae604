#include "backup/BURunRecorder.h"

#include "backup/BUTransaction.h"
#include "keelson/FormatString.h"
#include "keelson/KSLog.h"

namespace {

// "Backup to "Dev"" or "Analysis of "Dev"", how every log line of a run begins.
QString _RunName(const BURunRecord &run)
{
    return run.analyzeOnly ? FormatString("Analysis of \"%@\"", run.device)
                           : FormatString("Backup to \"%@\"", run.device);
}

QString _Duration(double seconds)
{
    return seconds < 10 ? FormatString("%.1f s", seconds) : FormatString("%,lld s", static_cast<long long>(seconds));
}

} // namespace

void BURunRecorder::start(const QString &device, const QStringList &folders, bool analyzeOnly)
{
    m_run = BURunRecord();
    m_run.device = device;
    m_run.folders = folders;
    m_run.analyzeOnly = analyzeOnly;
    m_run.started = QDateTime::currentDateTime();
    m_clock.start();
    m_analysis.reset();
    m_backup.reset();
    m_recording = true;
    LogString("%@ started with the backup folders %@", _RunName(m_run), folders.join(QStringLiteral(", ")));
}

void BURunRecorder::analysisComplete(const BUAnalysisReport &report)
{
    if (!m_recording)
        return;
    m_analysis = report;
    if (report.extra || report.cancel || report.error)
        return;
    for (const BUTransaction &transaction : std::as_const(g_transactions)) {
        switch (transaction.action()) {
        case BUTransaction::kDelete:
            ++m_run.deletes;
            break;
        case BUTransaction::kUpdate:
            ++m_run.updates;
            break;
        default:
            ++m_run.copies;
        }
    }
    m_run.bytesToCopy = g_totalBytes;
}

void BURunRecorder::backupComplete(const BUBackupCompleteReport &report)
{
    if (m_recording)
        m_backup = report;
}

void BURunRecorder::finish(const QString &message)
{
    if (!m_recording)
        return;
    m_recording = false;
    m_run.ended = m_run.started.addMSecs(m_clock.elapsed());
    m_run.message = message;
    if (m_backup) {
        m_run.backupRan = true;
        const qsizetype count = g_transactions.size();
        for (qsizetype row = 0; row < count; ++row) {
            if (!g_outcomes.isDone(row) || g_outcomes.failed(row))
                continue;
            switch (g_transactions.at(row).action()) {
            case BUTransaction::kDelete:
                ++m_run.deleted;
                break;
            case BUTransaction::kUpdate:
                ++m_run.updated;
                break;
            default:
                ++m_run.copied;
            }
        }
        for (qsizetype row = g_outcomes.firstFailure(0); row >= 0 && row < count;
             row = g_outcomes.firstFailure(row + 1)) {
            ++m_run.failed;
            if (m_run.failures.size() < BURunHistory::kFailuresKept) {
                const BUTransaction &transaction = g_transactions.at(row);
                m_run.failures.append({transaction.actionName(), transaction.path(), g_outcomes.errorText(row)});
            }
        }
        m_run.failuresLeftOut = m_run.failed - m_run.failures.size();
        m_run.notTried = std::max<qint64>(0, qint64(count) - qint64(g_finishedTransactions));
        m_run.bytesCopied = g_copiedBytes;
        if (m_backup->cancel) {
            m_run.outcome = BURunOutcome::kCanceled;
        } else if (m_backup->error) {
            m_run.outcome = BURunOutcome::kSeriousError;
            m_run.detail
                = FormatString("The backup was stopped because a serious error occurred. %@", *m_backup->error);
        } else {
            m_run.outcome = m_run.failed > 0 ? BURunOutcome::kFailedItems : BURunOutcome::kSucceeded;
        }
    } else if (m_analysis && m_analysis->extra) {
        m_run.outcome = BURunOutcome::kExtraItems;
        m_run.detail = FormatString("The device holds items at its top level that are not mirrors of the backup "
                                    "folders: %@",
            m_analysis->extra->join(QStringLiteral(", ")));
    } else if (m_analysis && m_analysis->cancel) {
        m_run.outcome = BURunOutcome::kCanceled;
        m_run.detail = QStringLiteral("The backup was canceled before any changes were made to the target device.");
    } else if (m_analysis && m_analysis->error) {
        m_run.outcome = BURunOutcome::kAnalysisFailed;
        m_run.detail = *m_analysis->error;
    } else if (m_analysis && m_run.copies + m_run.updates + m_run.deletes == 0) {
        m_run.outcome = BURunOutcome::kUpToDate;
    } else if (m_analysis && m_run.analyzeOnly) {
        m_run.outcome = BURunOutcome::kAnalyzed;
    } else {
        m_run.outcome = BURunOutcome::kNotStarted; // the large-deletion question was not answered Backup
    }

    logFailures();
    const QString counts = BURunHistory::countsText(m_run);
    LogString("%@ ended (%@) after %@: %@%@", _RunName(m_run), m_run.outcome, _Duration(m_run.seconds()),
        BURunHistory::shownText(m_run), counts.isEmpty() ? QString() : QStringLiteral("; ") + counts);

    QString error;
    if (!BURunHistory::append(m_run, &error, historyPath.isEmpty() ? BURunHistory::historyPath() : historyPath))
        LogString("The run could not be added to the history of runs: %@", error);
    else if (recorded)
        recorded(m_run);
}

void BURunRecorder::logFailures() const
{
    const QString name = _RunName(m_run);
    qint64 logged = 0;
    for (const BURunFailure &failure : m_run.failures) {
        if (logged == kLoggedFailures)
            break;
        LogString("%@: %@ %@ failed: %@", name, failure.action, failure.path, failure.reason);
        ++logged;
    }
    const qint64 rest = m_run.failed - logged;
    if (rest > 0)
        LogString("%@: %,lld more failed actions are not logged", name, static_cast<long long>(rest));
}
