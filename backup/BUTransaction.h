// One planned change to a backup device (copy, update attributes, delete), and the process-wide
// state that the analysis, the backup and the window share: the transaction list, the distinct
// error texts and the byte and transaction counters.
//
// Threads: the analysis fills g_transactions and the counters on its worker thread before it
// reports; from then on only the main thread touches them. The backup works on a copy of the
// list handed to it on the main thread, so the main thread may mark transactions done while it
// runs.
#pragma once

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

#include <cstdint>

class BUTransaction {
public:
    enum Action : uint32_t { kDelete = 0, kUpdate = 1, kCopy = 2 };
    static constexpr uint64_t kNoError = 0xFFFFFFFFULL;

    BUTransaction() = default;
    // Action Copy, no error, not done, not a folder, size 0. A null root is "none".
    BUTransaction(const QString &path, const QString &root);

    const QString &path() const { return m_path; }
    void setPath(const QString &path) { m_path = path; }
    // For a source item, the parent folder of its backup folder; the device root for a device
    // folder to delete; null for a device file to delete.
    const QString &rootPath() const { return m_rootPath; }
    void setRootPath(const QString &rootPath) { m_rootPath = rootPath; }
    uint32_t action() const { return m_action; }
    void setAction(uint32_t action) { m_action = action; }
    uint64_t errorIndex() const { return m_errorIndex; }
    void setErrorIndex(uint64_t errorIndex) { m_errorIndex = errorIndex; }
    double fileSize() const { return m_fileSize; }
    void setFileSize(double fileSize) { m_fileSize = fileSize; }
    bool isDone() const { return m_done; }
    void setDone(bool done) { m_done = done; }
    bool isFolder() const { return m_folder; }
    void setFolder(bool folder) { m_folder = folder; }

    // "Delete", "Update", or "Copy" for any other action.
    QString actionName() const;
    // The table order: action, then folders before files, then path without regard to case.
    // -1, 0 or 1.
    int compare(const BUTransaction &other) const;

private:
    QString m_path;
    QString m_rootPath;
    uint32_t m_action = kCopy;
    uint64_t m_errorIndex = kNoError;
    double m_fileSize = 0;
    bool m_done = false;
    bool m_folder = false;
};

using BUTransactionList = QList<BUTransaction>;

// Sorts a list into table order with compare() (stable).
void SortTransactions(BUTransactionList &transactions);

// Applies one progress report of the backup to the shared state, as every front end shows it:
// adds the copied bytes, marks each reported transaction done, counts it finished, and a failed
// one (non-empty text) also failed, with errorIndex pointing at its text in g_errors (appended
// when new). Returns the highest index reported, -1 for none. Main thread.
qsizetype ApplyBackupStatus(const QMap<qsizetype, QString> &trans, double copied);

// The shared state of one analysis and backup.
extern BUTransactionList g_transactions;
extern QStringList g_errors; // distinct error texts; a transaction's errorIndex points here
extern double g_totalBytes; // bytes the backup will copy
extern double g_copiedBytes; // bytes copied so far
extern int64_t g_finishedTransactions;
extern int64_t g_failedTransactions;
