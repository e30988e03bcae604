// One planned change to a backup device (copy, update attributes, delete), and the process-wide
// state that the analysis, the backup and the window share: the transaction list, the distinct
// error texts and the byte and transaction counters.
//
// Threads: the analysis fills g_transactions and the counters on its worker thread before it
// reports; from then on only the main thread touches them. The backup works on a copy of the
// list handed to it on the main thread. The copy shares its storage with g_transactions (a list of
// a few hundred thousand transactions is not duplicated): the main thread writes a transaction's
// outcome (done, errorIndex) in place, through const access, and the backup never reads those
// two fields, only the ones that nothing changes while it runs. Read g_transactions with at() or
// through a const reference, never with the non-const operator[], which would copy the whole list.
#pragma once

#include <QExplicitlySharedDataPointer>
#include <QList>
#include <QMap>
#include <QSharedData>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <cstdint>

class BUTransaction {
public:
    enum Action : uint32_t { kDelete = 0, kUpdate = 1, kCopy = 2 };
    static constexpr uint64_t kNoError = 0xFFFFFFFFULL;

    BUTransaction() = default;
    // Action Copy, no error, not done, not a folder, size 0. A null root is "none".
    BUTransaction(const QString &path, const QString &root);
    // The item `name` in `folder`. The analysis passes one folder string for all the items of a
    // folder: its text is shared, not repeated in each of hundreds of thousands of transactions.
    BUTransaction(const QString &folder, const QString &name, const QString &root);

    QString path() const;
    void setPath(const QString &path)
    {
        m_place = place(path, rootPath());
        m_name = QString();
    }
    // For a source item, the parent folder of its backup folder; the device root for a device
    // folder to delete; null for a device file to delete.
    const QString &rootPath() const;
    void setRootPath(const QString &rootPath) { m_place = place(m_place ? m_place->path : QString(), rootPath); }
    uint32_t action() const { return m_action; }
    void setAction(uint32_t action) { m_action = uint8_t(std::min<uint32_t>(action, 255)); }
    uint64_t errorIndex() const { return m_errorIndex == kStoredNoError ? kNoError : m_errorIndex; }
    // The outcome is written in place, also in a list shared with a running backup (see above).
    void setErrorIndex(uint64_t errorIndex) const
    {
        m_errorIndex = uint32_t(std::min<uint64_t>(errorIndex, kStoredNoError));
    }
    double fileSize() const { return m_fileSize; }
    void setFileSize(double fileSize) { m_fileSize = fileSize; }
    bool isDone() const { return m_done; }
    void setDone(bool done) const { m_done = done; }
    bool isFolder() const { return m_folder; }
    void setFolder(bool folder) { m_folder = folder; }

    // "Delete", "Update", or "Copy" for any other action.
    QString actionName() const;
    // The table order: action, then folders before files, then path without regard to case.
    // -1, 0 or 1.
    int compare(const BUTransaction &other) const;

private:
    // 48 bytes and a name a transaction: a full backup of a large tree holds hundreds of thousands.
    static constexpr uint32_t kStoredNoError = 0xFFFFFFFFU;
    // Where an item is, one record for all the items of a folder.
    struct Place : QSharedData {
        QString path; // the whole path, or the folder when m_name is set
        QString rootPath;
    };
    // The record of the transaction made just before on this thread when it has the same path and
    // root (the analysis makes a folder's transactions one after another), else a new one.
    static QExplicitlySharedDataPointer<Place> place(const QString &path, const QString &root);
    // Appends the path to a buffer, without allocating a string of it.
    template <typename Buffer> void appendPath(Buffer &buffer) const;

    QExplicitlySharedDataPointer<Place> m_place; // null only for a transaction made empty
    QString m_name;
    double m_fileSize = 0;
    mutable uint32_t m_errorIndex = kStoredNoError;
    uint8_t m_action = kCopy;
    mutable bool m_done = false;
    bool m_folder = false;
};

// Two strings and plain values: a growing list may move its transactions as bytes (realloc) instead
// of copying each one into a second block.
Q_DECLARE_TYPEINFO(BUTransaction, Q_RELOCATABLE_TYPE);
static_assert(sizeof(BUTransaction) == 48);

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
