// One planned change to a backup device (copy, update attributes, delete), and the process-wide
// state that the analysis, the backup and the window share: the transaction list, what became of
// each transaction, the distinct error texts and the byte and transaction counters.
//
// Threads: the analysis fills g_transactions and the counters on its worker thread before it
// reports; from then on only the main thread touches them. The backup works on a copy of the
// list handed to it on the main thread. The copy shares its storage with g_transactions (a list of
// a few hundred thousand transactions is not duplicated), and nothing writes a transaction while
// the backup runs: what the backup reports is kept apart, in g_outcomes, by row. Read
// g_transactions with at() or through a const reference, never with the non-const operator[],
// which would copy the whole list.
#pragma once

#include <QExplicitlySharedDataPointer>
#include <QHash>
#include <QList>
#include <QMap>
#include <QSharedData>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <cstdint>
#include <new>
#include <utility>
#include <vector>

class BUTransaction {
public:
    enum Action : uint32_t { kDelete = 0, kUpdate = 1, kCopy = 2 };
    static constexpr uint64_t kNoError = 0xFFFFFFFFULL;

    // Where transactions' items are: a path and root, and for the items of a folder their names end
    // to end. The analysis makes one for each folder whose items have transactions: the folder's
    // path and its items' names are kept once, not in each of hundreds of thousands of
    // transactions. Never changed once made; shared between threads.
    // The path and the names follow the record in its own block, each in a byte a character when
    // all of its characters are Latin-1, as nearly all names are, else in two (UTF-16): a large
    // tree's names are most of what a full backup holds. A path below the root is kept without the
    // root, which every place of a backup folder shares and which is kept once for the process.
    // A transaction names its place by a 4-byte handle into a process-wide table rather than by
    // pointer, which keeps a transaction at 12 bytes. Places are cut from large blocks of their own:
    // dense, and apart from the heap's short-lived blocks that would leave holes between them.
    class Place : public QSharedData {
    public:
        // Text of a place: size characters at bytes, two bytes each when wide.
        struct Text {
            const char *bytes;
            qsizetype size;
            bool wide;
            bool operator==(const Text &other) const;
        };
        Place(const Place &) = delete;
        Place &operator=(const Place &) = delete;
        // Gives its handle and its memory back.
        static void operator delete(Place *place, std::destroying_delete_t);

        // Null for none.
        const QString &rootPath() const;
        // The path as kept: after the root and a "/" when belowRoot(), else whole.
        Text path() const { return {text(), m_pathSize, bool(m_widePath)}; }
        bool belowRoot() const { return m_belowRoot; }
        // The same folder: the same path from the same root.
        bool samePath(const Place &other) const
        {
            return path() == other.path() && m_belowRoot == other.m_belowRoot
                && (!m_belowRoot || m_root == other.m_root);
        }
        Text names() const { return {text() + m_pathSize * (m_widePath ? 2 : 1), m_namesSize, bool(m_wideNames)}; }

    private:
        friend class BUTransaction;
        // A file size too large for a transaction is kept in its item's own place, before the text.
        const char *text() const
        {
            return reinterpret_cast<const char *>(this + 1) + (m_hasSize ? sizeof(uint64_t) : 0);
        }
        uint64_t size() const;
        Place(uint32_t root, uint32_t pathSize, bool widePath, bool belowRoot, uint32_t namesSize, bool wideNames)
            : m_root(root), m_belowRoot(belowRoot), m_pathSize(pathSize), m_widePath(widePath), m_namesSize(namesSize),
              m_wideNames(wideNames)
        {
        }
        uint32_t m_handle = 0;
        uint32_t m_root : 30; // index of the root in the process's roots
        uint32_t m_belowRoot : 1;
        uint32_t m_ownBlock : 1 = 0; // not cut from a block shared with other places
        uint32_t m_pathSize : 30;
        uint32_t m_widePath : 1;
        uint32_t m_hasSize : 1 = 0;
        uint32_t m_namesSize : 31;
        uint32_t m_wideNames : 1;
    };
    using PlaceRef = QExplicitlySharedDataPointer<const Place>;
    // Throws std::bad_alloc when there is no room for it (or no handle left).
    static PlaceRef makePlace(const QString &path, const QString &root, const QString &names = QString());

    BUTransaction() = default;
    BUTransaction(const BUTransaction &other);
    BUTransaction(BUTransaction &&other) noexcept : BUTransaction() { swap(other); }
    BUTransaction &operator=(BUTransaction other) noexcept
    {
        swap(other);
        return *this;
    }
    ~BUTransaction();
    friend void swap(BUTransaction &a, BUTransaction &b) noexcept { a.swap(b); }
    void swap(BUTransaction &other) noexcept
    {
        std::swap(m_place, other.m_place);
        std::swap(m_name, other.m_name);
        std::swap(m_size, other.m_size);
    }

    // Action Copy, not a folder, size 0. A null root is "none".
    BUTransaction(const QString &path, const QString &root);
    // The item at place's path.
    explicit BUTransaction(const PlaceRef &place);
    // The item in place's folder whose name is the nameLength characters of place->names from
    // nameStart.
    BUTransaction(const PlaceRef &place, uint32_t nameStart, uint32_t nameLength);

    QString path() const;
    // For a source item, the parent folder of its backup folder; the device root for a device
    // folder to delete; null for a device file to delete.
    const QString &rootPath() const;
    uint32_t action() const { return (m_place & kActionBits) >> kActionShift; }
    // Any other action than the three is a Copy.
    void setAction(uint32_t action)
    {
        m_place = (m_place & ~kActionBits) | std::min<uint32_t>(action, kCopy) << kActionShift;
    }
    // Bytes, up to 256 TiB (more than any device holds; a larger size counts as that).
    double fileSize() const;
    // Throws std::bad_alloc when a size of 4 GiB or more finds no room.
    void setFileSize(double fileSize);
    bool isFolder() const { return m_place & kFolderBit; }
    void setFolder(bool folder) { setFlag(kFolderBit, folder); }
    // A Copy whose item the analysis found on the device: the old copy is removed first. Any
    // other Copy expects its name to be free.
    bool replacesItem() const { return m_place & kReplacesBit; }
    void setReplacesItem(bool replaces) { setFlag(kReplacesBit, replaces); }

    // "Delete", "Update", or "Copy" for any other action.
    QString actionName() const;
    // The table order: action, then folders before files, then path without regard to case.
    // -1, 0 or 1.
    int compare(const BUTransaction &other) const;

private:
    // 12 bytes a transaction: a full backup of a large tree holds hundreds of thousands. The
    // first word holds the place's handle and the flags, the second the name's start and length
    // in the place's names, the third the size. What does not fit (a name that starts too far into
    // its folder's names, a size of 4 GiB or more) is kept with the whole path in a place of its own.
    static constexpr uint32_t kHandleBits = 0x0FFFFFFFU, kActionBits = 0x30000000U, kFolderBit = 0x40000000U,
                              kReplacesBit = 0x80000000U;
    static constexpr int kActionShift = 28;
    static constexpr uint32_t kNameStartBits = 0x00FFFFFFU;
    static constexpr int kNameLengthShift = 24;
    static constexpr uint32_t kSizeInPlace = 0xFFFFFFFFU;
    static constexpr uint64_t kMaxFileSize = (uint64_t(1) << 48) - 1;
    // A name is at most 255 bytes on Linux, so at most 255 UTF-16 units; a longer one is kept as
    // a whole path. No name: the place's path is the whole path.
    static constexpr uint32_t kMaxNameLength = 255;
    static constexpr uint32_t kNoName = 0;
    void setFlag(uint32_t bit, bool on) { m_place = on ? m_place | bit : m_place & ~bit; }
    uint32_t handle() const { return m_place & kHandleBits; }
    uint32_t nameStart() const { return m_name & kNameStartBits; }
    uint32_t nameLength() const { return m_name >> kNameLengthShift; }
    const Place *place() const;
    // Lets the place go: the last transaction to hold it frees it.
    void releasePlace() const;
    // Names the place, holding a reference, keeping the flags; the old place is let go.
    void setPlace(const PlaceRef &place);
    static PlaceRef makePlace(const QString &path, const QString &root, const QString &names, const uint64_t *size);
    // Appends the item's name, or the whole path, to a buffer of QChar without allocating a string;
    // held is place().
    template <typename Buffer> void appendName(Buffer &buffer, const Place *held) const;
    // Appends the path to a buffer, without allocating a string of it.
    template <typename Buffer> void appendPath(Buffer &buffer, const Place *held) const;

    uint32_t m_place = kCopy << kActionShift; // no handle only for a transaction made empty
    uint32_t m_name = kNoName;
    uint32_t m_size = 0;
};

// A handle and plain values: a growing list may move its transactions as bytes (realloc) instead of
// copying each one into a second block.
Q_DECLARE_TYPEINFO(BUTransaction, Q_RELOCATABLE_TYPE);
static_assert(sizeof(BUTransaction) == 12);

using BUTransactionList = QList<BUTransaction>;

// Sorts a list into table order with compare() (stable), with a buffer of at most bufferCapacity
// transactions.
void SortTransactions(BUTransactionList &transactions, qsizetype bufferCapacity = 16384);

// What became of the transactions of g_transactions, by row: done, and for a failed one the index
// of its text in g_errors. Apart from the transactions, which a running backup reads; written by the
// main thread alone. A bit a transaction, and a row and an index for each failure.
class BUTransactionOutcomes {
public:
    bool isDone(qsizetype row) const;
    void setDone(qsizetype row);
    // BUTransaction::kNoError when the transaction did not fail.
    uint64_t errorIndex(qsizetype row) const;
    bool failed(qsizetype row) const { return errorIndex(row) != BUTransaction::kNoError; }
    // The failure's text in g_errors; null when the transaction did not fail.
    QString errorText(qsizetype row) const;
    // The first failed row from row on; -1 for none.
    qsizetype firstFailure(qsizetype row) const;
    void setErrorIndex(qsizetype row, uint32_t errorIndex);
    // What a row says beside its outcome (a done copy whose old copy had to go first); few rows
    // have one.
    QString note(qsizetype row) const;
    void setNote(qsizetype row, const QString &text);
    void clear();

private:
    using Failure = std::pair<qsizetype, uint32_t>; // row, error index
    // The first failure at row or after it.
    std::vector<Failure>::const_iterator failureFrom(qsizetype row) const;

    std::vector<uint64_t> m_done;
    std::vector<Failure> m_errors; // by row
    QHash<qsizetype, QString> m_notes;
};

// Applies one progress report of the backup to the shared state, as every front end shows it:
// adds the copied bytes, marks each reported transaction done, counts it finished, and a failed
// one (non-empty text) also failed, with its error index pointing at its text in g_errors
// (appended when new). A row reported again as failed after it was reported done (its data did
// not reach the device) turns failed, counted once. Returns the highest index reported, -1 for
// none. Main thread.
// notes: what done rows say beside their success.
qsizetype ApplyBackupStatus(
    const QMap<qsizetype, QString> &trans, double copied, const QMap<qsizetype, QString> &notes = {});

// Empties g_transactions and forgets their outcomes and error texts, before a new analysis.
void ClearTransactions();

// The shared state of one analysis and backup.
extern BUTransactionList g_transactions;
extern BUTransactionOutcomes g_outcomes;
extern QStringList g_errors; // distinct error texts; an outcome's error index points here
extern double g_totalBytes; // bytes the backup will copy
extern double g_copiedBytes; // bytes copied so far
extern int64_t g_finishedTransactions;
extern int64_t g_failedTransactions;
