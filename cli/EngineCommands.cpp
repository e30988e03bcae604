// analyze and backup: the analysis and the backup run on the operation queue's worker thread
// exactly as the main window runs them, and their reports are shown as the window shows them:
// as text, or as one JSON document with --json.
#include "app/BUAppController.h"
#include "backup/BUAnalysisVerdict.h"
#include "backup/BUAnalyzeOperation.h"
#include "backup/BUBackupOperation.h"
#include "backup/BUDevices.h"
#include "backup/BURunRecorder.h"
#include "backup/BUTransaction.h"
#include "cli/BUCommandLine.h"
#include "keelson/FormatString.h"
#include "keelson/KSDayIndex.h"
#include "keelson/KSOperationQueue.h"
#include "keelson/KSSignalWatcher.h"
#include "keelson/KSStrings.h"
#include "keelson/KSUserDefaults.h"

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>

#include <unistd.h>

namespace {

enum : int { kExitExtraItems = 3, kExitCanceled = 130 };

// The extra-items dialog's warning; "###" stands for the device name.
const char kExtraItemsWarning[]
    = "The backup device \"###\" holds items at its top level that are not mirrors of your backup folders. "
      "The top level of a backup device may hold only the folders that mirror your backup folders, so that "
      "a backup never deletes something that is not a copy of your files. Move these items elsewhere or "
      "remove them, then start the backup again:";

// A JSON string. Names that are not UTF-8 keep their bytes as \udcXX escapes, which decoders with
// "surrogateescape" turn back into the same bytes.
QString _Json(const QString &text)
{
    QString out = QStringLiteral("\"");
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t c = text[i].unicode();
        const bool pairStart = QChar::isHighSurrogate(c) && i + 1 < text.size() && text[i + 1].isLowSurrogate();
        if (c == u'"' || c == u'\\') {
            out += u'\\';
            out += QChar(c);
        } else if (c == u'\n') {
            out += QStringLiteral("\\n");
        } else if (c == u'\t') {
            out += QStringLiteral("\\t");
        } else if (c < 0x20
            || (QChar::isSurrogate(c) && !pairStart
                && !(QChar::isLowSurrogate(c) && i > 0 && text[i - 1].isHighSurrogate()))) {
            out += QStringLiteral("\\u%1").arg(int(c), 4, 16, QLatin1Char('0'));
        } else {
            out += QChar(c);
        }
    }
    return out + u'"';
}

QString _JsonOptional(const std::optional<QString> &text)
{
    return text ? _Json(*text) : QStringLiteral("null");
}

// A refusal before any job: as an error on stderr, or with --json as the object a job prints,
// with no transactions.
void _PrintRefusal(bool json, const QString &device, const QString &message, const QString &moreInfo)
{
    if (!json) {
        PrintError(message, moreInfo);
        return;
    }
    const QString error = moreInfo.isEmpty() ? message : message + u' ' + moreInfo;
    PrintLine(stdout,
        QStringLiteral("{\n  \"target\": ") + _Json(device)
            + QStringLiteral(",\n  \"extra\": null,\n  \"cancel\": false,\n  \"error\": ") + _Json(error)
            + QStringLiteral(",\n  \"totalBytes\": 0,\n  \"transactions\": [],\n  \"status\": ") + _Json(message)
            + QStringLiteral("\n}"));
}

QString _KindName(const BUTransaction &transaction)
{
    return transaction.isFolder() ? QStringLiteral("folder") : QStringLiteral("file");
}

// The window's "Confirm Large Deletions" setting, which the command line follows too.
bool ConfirmsLargeDeletions()
{
    auto settings = OpenSettingsFile(UserDefaultsPath());
    return DefaultYesBool(*settings, QStringLiteral("twbackup.confirmDeletions"));
}

// Runs one analysis, and the backup after it unless analyzeOnly, as the main window does, and
// turns the reports into output and an exit status. Main thread.
class EngineSession : public QObject, public BUEngineReceiver {
public:
    EngineSession(const QString &device, bool analyzeOnly, bool json, bool yes)
        : m_device(device), m_analyzeOnly(analyzeOnly), m_json(json), m_yes(yes),
          m_terminal(::isatty(STDERR_FILENO) == 1)
    {
    }

    int run()
    {
        BUAppController &app = BUAppController::sharedInstance();
        if (app.backupFolders().isEmpty()) {
            _PrintRefusal(m_json, m_device, QStringLiteral("There are no backup folders."),
                QStringLiteral("Add one with: tanner-backup folders add PATH"));
            return kExitError;
        }
        // A name that is not a mounted device does not become a recent device.
        if (MountedDrives().contains(m_device))
            app.updateRecentDrives(m_device);
        app.saveState(); // saved now: others may change the settings while this job runs
        connect(&KSSignalWatcher::sharedInstance(), &KSSignalWatcher::signalReceived, this, [this] { cancel(); });

        ClearTransactions();
        m_recorder.start(m_device, app.backupFolders(), m_analyzeOnly);
        m_queue.addOperation(std::make_shared<BUAnalyzeOperation>(
            m_device, this, app.backupFolders(), app.ignoreFolders(), app.ignoreFiles()));
        return m_loop.exec();
    }

    QObject *reportContext() override { return this; }

    void analysisComplete(const BUAnalysisReport &report) override
    {
        m_recorder.analysisComplete(report);
        m_extra = report.extra;
        m_cancel = report.cancel;
        m_error = report.error;
        if (report.extra) {
            m_statusText = QString::fromUtf8(kExtraItemsWarning).replace(QStringLiteral("###"), report.target);
            if (!m_json) {
                PrintError(m_statusText);
                for (const QString &item : *report.extra)
                    PrintLine(stderr, QStringLiteral("  ") + item);
            }
            return finish(kExitExtraItems);
        }
        if (report.cancel) {
            m_statusText = FormatString("Backup to %@ canceled.", report.target);
            if (!m_json)
                PrintError(m_statusText,
                    QStringLiteral("The backup was canceled before any changes were made to the target device."));
            return finish(kExitCanceled);
        }
        if (report.error) {
            m_statusText = FormatString("Backup to %@ failed.", report.target);
            if (!m_json)
                PrintError(m_statusText, *report.error);
            return finish(kExitError);
        }
        if (g_transactions.isEmpty()) {
            m_statusText = QStringLiteral("The backup device is up to date");
            if (!m_json)
                PrintLine(stdout, m_statusText);
            return finish(kExitOk);
        }
        SortTransactions(g_transactions);
        const QString summary = FormatString("%,d actions, %@ to copy", g_transactions.size(),
            FileSizeString(static_cast<long long>(static_cast<unsigned long long>(g_totalBytes))));
        if (m_analyzeOnly) {
            m_statusText = QStringLiteral("Analysis complete");
            // The window's verdict: counts, size and whether it fits.
            m_verdict = AnalysisVerdictFor(g_transactions, report.target);
            if (!m_json) {
                // A copy that the device's letter case rules out says so, as the backup will.
                for (const BUTransaction &transaction : std::as_const(g_transactions)) {
                    const QString conflict = CaseConflictOf(transaction);
                    PrintLine(stdout,
                        transaction.actionName() + u'\t' + _KindName(transaction) + u'\t' + transaction.path()
                            + (conflict.isNull() ? QString() : u'\t' + conflict));
                }
                PrintLine(stdout, summary);
                PrintLine(stdout, AnalysisVerdictText(*m_verdict, report.target));
            }
            return finish(kExitOk);
        }
        const QString question = m_yes ? QString() : DeletionQuestion(report, ConfirmsLargeDeletions());
        if (!question.isNull()) {
            m_statusText = question;
            m_error = (report.emptiedFolders.isEmpty() ? LargeDeletionExplanation() : EmptiedFolderExplanation()) + u' '
                + LargeDeletionDetails(report, BUAppController::sharedInstance().backupFolders())
                + QStringLiteral(
                    " Run the backup again with --yes to go ahead, or look first with: tanner-backup analyze ")
                + report.target;
            if (!m_json)
                PrintError(m_statusText, *m_error);
            return finish(kExitError);
        }
        if (!m_json)
            PrintLine(stdout, summary);
        m_backupRan = true;
        m_started.start();
        drawProgress(true);
        m_queue.addOperation(std::make_shared<BUBackupOperation>(
            this, report.target, g_transactions, BUAppController::sharedInstance().backupFolders()));
    }

    void backupStatus(const BUBackupStatusReport &report) override
    {
        ApplyBackupStatus(report.trans, report.copied, report.notes);
        m_inFlight = 0;
        for (auto it = report.notes.cbegin(); it != report.notes.cend() && !m_json; ++it) {
            clearProgress();
            const BUTransaction &transaction = g_transactions.at(it.key());
            PrintLine(stdout,
                transaction.actionName() + u'\t' + _KindName(transaction) + u'\t' + transaction.path() + u'\t'
                    + it.value());
        }
        for (auto it = report.trans.cbegin(); it != report.trans.cend(); ++it) {
            if (it.value().isEmpty() || m_json)
                continue;
            clearProgress();
            const BUTransaction &transaction = g_transactions.at(it.key());
            PrintLine(stdout,
                transaction.actionName() + u'\t' + _KindName(transaction) + u'\t' + transaction.path() + u'\t'
                    + it.value());
        }
        drawProgress(false);
    }

    void copyProgress(qsizetype, double bytesWritten) override
    {
        m_inFlight = bytesWritten;
        drawProgress(false);
    }

    void backupComplete(const BUBackupCompleteReport &report) override
    {
        clearProgress();
        m_recorder.backupComplete(report);
        m_cancel = report.cancel;
        m_error = report.error;
        int status;
        if (report.cancel) {
            m_statusText = QStringLiteral("Backup canceled");
            status = kExitCanceled;
        } else if (g_failedTransactions == 0 && !report.error) {
            // Recorded only for a backup that was neither cancelled nor failed in any part.
            BUAppController &app = BUAppController::sharedInstance();
            const QDateTime now = QDateTime::currentDateTime();
            app.backupDates()[report.target] = DayIndexForToday();
            app.backupTimes()[report.target] = qint64(uint32_t(QDateTime(now.date(), QTime(0, 0)).secsTo(now)));
            app.saveState();
            m_statusText = QStringLiteral("Backup succeeded");
            status = kExitOk;
        } else {
            // As in the window: a stop before any action (a device too small) names the backup,
            // and what a stop left undone is counted.
            const qint64 untried = qint64(g_transactions.size()) - qint64(g_finishedTransactions);
            if (g_failedTransactions == 0)
                m_statusText = FormatString("Backup to %@ failed.", report.target);
            else
                m_statusText = g_failedTransactions == 1
                    ? QStringLiteral("1 backup action failed")
                    : FormatString("%d backup actions failed", g_failedTransactions);
            if (untried > 0 && g_failedTransactions > 0)
                m_statusText += FormatString(", %,lld not tried", untried);
            status = report.error ? int(kExitError) : int(kExitFailed);
        }
        if (!m_json) {
            PrintLine(stdout, m_statusText);
            if (report.error && !report.cancel)
                PrintError(FormatString("Backup to %@ failed.", report.target),
                    FormatString("The backup was stopped because a serious error occurred. %@", *report.error));
        }
        finish(status);
    }

private:
    void cancel()
    {
        // The running operation notices its flag and returns (a file copy in progress stops at
        // its next chunk); its report arrives afterwards.
        m_queue.cancelAllOperations();
        m_queue.waitUntilAllOperationsAreFinished();
    }

    void finish(int status)
    {
        m_recorder.finish(m_statusText);
        if (m_json)
            printJson();
        m_loop.exit(status);
    }

    void drawProgress(bool force)
    {
        if (!m_terminal || !m_backupRan)
            return;
        if (!force && m_lastDraw.isValid() && m_lastDraw.elapsed() < 100)
            return;
        m_lastDraw.start();
        const double done = std::min(g_copiedBytes + m_inFlight, std::max(g_totalBytes, g_copiedBytes));
        const double fraction = g_totalBytes > 0 ? done / g_totalBytes : 1.0;
        const int width = 24, filled = int(fraction * width);
        const double seconds = std::max(m_started.elapsed(), qint64(1)) / 1000.0;
        const QString bar = QString(filled, u'#') + QString(width - filled, u'-');
        const QString line = FormatString("\r[%@] %3d%%  %@ of %@  %,d of %,d  %@/s\x1b[K", bar, int(fraction * 100),
            FileSizeString(static_cast<long long>(done)), FileSizeString(static_cast<long long>(g_totalBytes)),
            g_finishedTransactions, g_transactions.size(), FileSizeString(static_cast<long long>(done / seconds)));
        const QByteArray bytes = line.toUtf8();
        std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), stderr);
        std::fflush(stderr);
        m_progressShown = true;
    }

    void clearProgress()
    {
        if (!m_progressShown)
            return;
        std::fputs("\r\x1b[K", stderr);
        std::fflush(stderr);
        m_progressShown = false;
        m_lastDraw.invalidate();
    }

    void printJson()
    {
        QString out = QStringLiteral("{\n  \"target\": ") + _Json(m_device) + QStringLiteral(",\n  \"extra\": ");
        if (m_extra) {
            QStringList items;
            for (const QString &item : *m_extra)
                items.append(_Json(item));
            out += u'[' + items.join(QStringLiteral(", ")) + u']';
        } else {
            out += QStringLiteral("null");
        }
        out += QStringLiteral(",\n  \"cancel\": ") + (m_cancel ? QStringLiteral("true") : QStringLiteral("false"));
        out += QStringLiteral(",\n  \"error\": ") + _JsonOptional(m_error);
        out += QStringLiteral(",\n  \"totalBytes\": ") + QString::number(g_totalBytes, 'f', 0);
        out += QStringLiteral(",\n  \"transactions\": [");
        for (qsizetype i = 0; i < g_transactions.size(); ++i) {
            const BUTransaction &t = g_transactions.at(i);
            out += i == 0 ? QStringLiteral("\n    {") : QStringLiteral(",\n    {");
            out += QStringLiteral("\"action\": ") + _Json(t.actionName());
            out += QStringLiteral(", \"folder\": ") + (t.isFolder() ? QStringLiteral("true") : QStringLiteral("false"));
            out += QStringLiteral(", \"path\": ") + _Json(t.path());
            out += QStringLiteral(", \"rootPath\": ")
                + (t.rootPath().isNull() ? QStringLiteral("null") : _Json(t.rootPath()));
            out += QStringLiteral(", \"fileSize\": ") + QString::number(t.fileSize(), 'f', 0);
            const QString conflict = CaseConflictOf(t);
            out += QStringLiteral(", \"conflict\": ") + (conflict.isNull() ? QStringLiteral("null") : _Json(conflict));
            if (m_backupRan) {
                out += QStringLiteral(", \"done\": ")
                    + (g_outcomes.isDone(i) ? QStringLiteral("true") : QStringLiteral("false"));
                const QString error = g_outcomes.errorText(i);
                out += QStringLiteral(", \"error\": ") + (error.isNull() ? QStringLiteral("null") : _Json(error));
                const QString note = g_outcomes.note(i);
                if (!note.isEmpty())
                    out += QStringLiteral(", \"note\": ") + _Json(note);
            }
            out += u'}';
        }
        out += g_transactions.isEmpty() ? QStringLiteral("]") : QStringLiteral("\n  ]");
        if (m_verdict) {
            const BUAnalysisVerdict &v = *m_verdict;
            const QString null = QStringLiteral("null");
            out += QStringLiteral(",\n  \"verdict\": {\"text\": ") + _Json(AnalysisVerdictText(v, m_device))
                + QStringLiteral(", \"copies\": %1, \"updates\": %2, \"deletes\": %3, \"copyBytes\": %4")
                      .arg(v.copies)
                      .arg(v.updates)
                      .arg(v.deletes)
                      .arg(QString::number(v.copyBytes, 'f', 0))
                + QStringLiteral(", \"fits\": ")
                + (v.spaceKnown ? (v.fits() ? QStringLiteral("true") : QStringLiteral("false")) : null)
                + QStringLiteral(", \"needed\": ") + (v.spaceKnown ? QString::number(v.needed) : null)
                + QStringLiteral(", \"available\": ") + (v.spaceKnown ? QString::number(v.available) : null) + u'}';
        }
        out += QStringLiteral(",\n  \"status\": ") + _Json(m_statusText) + QStringLiteral("\n}");
        PrintLine(stdout, out);
    }

    QString m_device;
    bool m_analyzeOnly;
    bool m_json;
    bool m_yes;
    bool m_terminal;
    bool m_backupRan = false;
    bool m_progressShown = false;
    std::optional<QStringList> m_extra;
    std::optional<BUAnalysisVerdict> m_verdict;
    bool m_cancel = false;
    std::optional<QString> m_error;
    QString m_statusText;
    double m_inFlight = 0; // bytes of the running file copy that have reached the device
    QElapsedTimer m_started;
    QElapsedTimer m_lastDraw;
    QEventLoop m_loop;
    BURunRecorder m_recorder;
    KSOperationQueue m_queue; // last: it is stopped before anything it reports to goes away
};

int _RunEngineCommand(const BUCommandArgs &invocation, bool analyzeOnly)
{
    QString device;
    bool json = false;
    bool yes = false;
    for (const QString &arg : invocation.args) {
        if (arg == u"--json") {
            json = true;
        } else if (arg == u"--yes" && !analyzeOnly) {
            yes = true;
        } else if (device.isNull() && !arg.startsWith(u'-')) {
            device = arg;
        } else {
            PrintError(FormatString(
                analyzeOnly ? "%@ takes one device name and --json" : "%@ takes one device name, --json and --yes",
                invocation.command));
            return kExitUsage;
        }
    }
    // "Disk/", as a shell's completion types it, is the device "Disk".
    while (device.size() > 1 && device.endsWith(u'/'))
        device.chop(1);
    if (device.isEmpty()) {
        _PrintRefusal(json, device,
            FormatString("%@ needs the name of a device (see: tanner-backup devices)", invocation.command), {});
        return kExitUsage;
    }
    if (device.contains(u'/')) {
        // A path: the device it leads to is named by its name alone.
        const QString path = QDir::cleanPath(QDir::current().absoluteFilePath(device));
        for (const QString &name : MountedDrives()) {
            if (QDir::cleanPath(DeviceRootPath(name)) == path) {
                _PrintRefusal(json, device, FormatString("\"%@\" is the folder of the device \"%@\".", device, name),
                    FormatString("Name the device instead: tanner-backup %@ %@", invocation.command, name));
                return kExitUsage;
            }
        }
        _PrintRefusal(json, device, FormatString("\"%@\" is a path, not the name of a device.", device),
            QStringLiteral("Devices are named as tanner-backup devices lists them."));
        return kExitUsage;
    }
    EngineSession session(device, analyzeOnly, json, yes);
    return session.run();
}

} // namespace

int RunAnalyzeCommand(const BUCommandArgs &invocation)
{
    return _RunEngineCommand(invocation, true);
}

int RunBackupCommand(const BUCommandArgs &invocation)
{
    return _RunEngineCommand(invocation, false);
}
