// What the analysis and the backup report, and the interface of whoever receives it: the main
// window, the command line and the tests. The operations post every report to the receiver's
// context object on its thread (the main thread) without waiting; a report is handed over whole
// and never touched again by the worker.
#pragma once

#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

#include <optional>

// The one report of an analysis. On success it holds only the target; the transactions are in
// g_transactions, unsorted, and the bytes to copy in g_totalBytes.
struct BUAnalysisReport {
    QString target; // the device name
    std::optional<QStringList> extra; // top-level items of the device that are not mirrors
    bool cancel = false;
    std::optional<QString> error; // "I can't backup to ..." on every path but success
    qint64 mirrorItems = 0; // files and folders inside the device's mirror folders
    qint64 itemsToDelete = 0; // of those, what the Delete transactions remove
    // Backup folders that hold nothing to back up while their mirrors hold items: what a folder
    // whose disk is not mounted looks like. Both front ends ask before such a backup, whatever
    // share of the device it deletes.
    QStringList emptiedFolders;
};

// True when the Delete transactions would remove half or more of what the device's mirrors hold
// (and at least 10 items): what an emptied, renamed or unmounted source folder looks like. Both
// front ends ask before such a backup.
inline bool DeletesMostOfTheDevice(const BUAnalysisReport &report)
{
    return report.itemsToDelete >= 10 && report.itemsToDelete * 2 >= report.mirrorItems;
}
// The question's text for such a backup: "This backup would delete 120 of the 130 items on "Disk"."
QString LargeDeletionMessage(const BUAnalysisReport &report);
QString LargeDeletionExplanation();
// What the deletes of g_transactions take away, for the question: their bytes on the device, the
// backup folders whose mirrors lose most, and how many are still at the source but ignored now.
// Walks the deleted folders on the device: asked only before the question.
QString LargeDeletionDetails(const BUAnalysisReport &report, const QStringList &backupFolders);
// The question for a backup folder that became empty (see emptiedFolders).
QString EmptiedFolderMessage(const BUAnalysisReport &report);
QString EmptiedFolderExplanation();
// The one question a front end asks before this backup, or null: an emptied folder first, then a
// large deletion when `largeDeletions` (the user's setting) asks for it.
QString DeletionQuestion(const BUAnalysisReport &report, bool largeDeletions);

// Progress of the backup: one batch of at most two transactions of one action and kind, or a
// single file copy.
struct BUBackupStatusReport {
    QMap<qsizetype, QString> trans; // transaction index -> error text, "" for success
    QMap<qsizetype, QString> notes; // what a done transaction's row says beside its success
    double copied = 0; // bytes of the file copies of this batch
};

// The end of a backup.
struct BUBackupCompleteReport {
    QString target;
    bool cancel = false;
    std::optional<QString> error; // the fatal message that stopped the run
};

class BUEngineReceiver {
public:
    virtual ~BUEngineReceiver() = default;
    // The object whose thread the reports are delivered on; reports still queued when it is
    // destroyed are dropped.
    virtual QObject *reportContext() = 0;
    virtual void analysisComplete(const BUAnalysisReport &report) = 0;
    virtual void backupStatus(const BUBackupStatusReport &report) = 0;
    virtual void backupComplete(const BUBackupCompleteReport &report) = 0;
    // The bytes of the file copy at `index` that have reached the device so far, a few times a
    // second during a big file (between two backupStatus reports).
    virtual void copyProgress(qsizetype index, double bytesWritten)
    {
        Q_UNUSED(index);
        Q_UNUSED(bytesWritten);
    }
};

// Posts a call to the receiver on its context's thread without waiting.
template <typename Call> void PostToReceiver(BUEngineReceiver *receiver, Call call)
{
    if (!receiver)
        return;
    QMetaObject::invokeMethod(
        receiver->reportContext(), [receiver, call] { call(receiver); }, Qt::QueuedConnection);
}
