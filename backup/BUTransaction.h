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

    // Where transactions' items are: a path and root, and for the items of a folder their names end
    // to end. The analysis makes one for each folder whose items have transactions: the folder's
    // path and its items' names are kept once, not in each of hundreds of thousands of
    // transactions. Never changed once made; shared between threads.
    struct Place : QSharedData {
        QString path; // the whole path, or the folder of named items
        QString rootPath;
        QString names;
    };
    using PlaceRef = QExplicitlySharedDataPointer<const Place>;
    static PlaceRef makePlace(const QString &path, const QString &root, const QString &names = QString());

    BUTransaction() = default;
    // Action Copy, no error, not done, not a folder, size 0. A null root is "none".
    BUTransaction(const QString &path, const QString &root);
    // The item at place's path.
    explicit BUTransaction(const PlaceRef &place) : m_place(place) { }
    // The item in place's folder whose name is the nameLength characters of place->names from
    // nameStart.
    BUTransaction(const PlaceRef &place, uint32_t nameStart, uint32_t nameLength);

    QString path() const;
    // For a source item, the parent folder of its backup folder; the device root for a device
    // folder to delete; null for a device file to delete.
    const QString &rootPath() const;
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
    // A Copy whose item the analysis found on the device: the old copy is removed first. Any
    // other Copy expects its name to be free.
    bool replacesItem() const { return m_replaces; }
    void setReplacesItem(bool replaces) { m_replaces = replaces; }

    // "Delete", "Update", or "Copy" for any other action.
    QString actionName() const;
    // The table order: action, then folders before files, then path without regard to case.
    // -1, 0 or 1.
    int compare(const BUTransaction &other) const;

private:
    // 32 bytes a transaction: a full backup of a large tree holds hundreds of thousands.
    static constexpr uint32_t kStoredNoError = 0xFFFFFFFFU;
    static constexpr uint32_t kNoName = 0xFFFFFFFFU; // the place's path is the whole path
    QStringView name() const;
    // Appends the path to a buffer, without allocating a string of it.
    template <typename Buffer> void appendPath(Buffer &buffer) const;

    PlaceRef m_place; // null only for a transaction made empty
    uint32_t m_nameStart = 0;
    uint32_t m_nameLength = kNoName;
    double m_fileSize = 0;
    mutable uint32_t m_errorIndex = kStoredNoError;
    uint8_t m_action = kCopy;
    mutable bool m_done = false;
    bool m_folder = false;
    bool m_replaces = false;
};

// A shared pointer and plain values: a growing list may move its transactions as bytes (realloc) instead
// of copying each one into a second block.
Q_DECLARE_TYPEINFO(BUTransaction, Q_RELOCATABLE_TYPE);
static_assert(sizeof(BUTransaction) == 32);

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
