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
    // The path and the names follow the record in its own block, each in a byte a character when
    // all of its characters are Latin-1, as nearly all names are, else in two (UTF-16): a large
    // tree's names are most of what a full backup holds. A path below the root is kept without the
    // root, which every place of a backup folder shares.
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
        static void operator delete(void *block) { ::operator delete(block); }

        const QString rootPath;
        // The path as kept: after the root and a "/" when belowRoot(), else whole.
        Text path() const { return {reinterpret_cast<const char *>(this + 1), m_pathSize, m_widePath}; }
        bool belowRoot() const { return m_belowRoot; }
        // The same folder: the same path from the same root.
        bool samePath(const Place &other) const
        {
            return path() == other.path() && m_belowRoot == other.m_belowRoot
                && (!m_belowRoot || rootPath == other.rootPath);
        }
        Text names() const
        {
            return {
                reinterpret_cast<const char *>(this + 1) + m_pathSize * (m_widePath ? 2 : 1), m_namesSize, m_wideNames};
        }

    private:
        friend class BUTransaction;
        Place(const QString &root, uint32_t pathSize, bool widePath, bool belowRoot, uint32_t namesSize, bool wideNames)
            : rootPath(root), m_pathSize(pathSize), m_namesSize(namesSize), m_widePath(widePath),
              m_wideNames(wideNames), m_belowRoot(belowRoot)
        {
        }
        uint32_t m_pathSize;
        uint32_t m_namesSize;
        bool m_widePath;
        bool m_wideNames;
        bool m_belowRoot;
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
    // Any other action than the three is a Copy.
    void setAction(uint32_t action) { m_action = uint8_t(std::min<uint32_t>(action, kCopy)); }
    uint64_t errorIndex() const
    {
        const uint32_t stored = m_outcome & kErrorMask;
        return stored == kErrorMask ? kNoError : stored;
    }
    // The outcome is written in place, also in a list shared with a running backup (see above).
    void setErrorIndex(uint64_t errorIndex) const
    {
        m_outcome = (m_outcome & kDoneBit) | uint32_t(std::min<uint64_t>(errorIndex, kErrorMask));
    }
    // Bytes, up to 256 TiB (more than any device holds; a larger size counts as that).
    double fileSize() const { return double(uint64_t(m_sizeLow) | uint64_t(m_sizeHigh) << 32); }
    void setFileSize(double fileSize)
    {
        const uint64_t size = fileSize <= 0 ? 0 : fileSize >= double(kMaxFileSize) ? kMaxFileSize : uint64_t(fileSize);
        m_sizeLow = uint32_t(size);
        m_sizeHigh = uint16_t(size >> 32);
    }
    bool isDone() const { return m_outcome & kDoneBit; }
    void setDone(bool done) const { m_outcome = done ? m_outcome | kDoneBit : m_outcome & ~kDoneBit; }
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
    // 24 bytes a transaction: a full backup of a large tree holds hundreds of thousands.
    static constexpr uint32_t kDoneBit = 0x80000000U;
    static constexpr uint32_t kErrorMask = 0x7FFFFFFFU; // all set: no error
    static constexpr uint64_t kMaxFileSize = (uint64_t(1) << 48) - 1;
    // A name is at most 255 bytes on Linux, so at most 255 UTF-16 units; a longer one is kept as
    // a whole path. No name: the place's path is the whole path.
    static constexpr uint32_t kMaxNameLength = 255;
    static constexpr uint8_t kNoName = 0;
    // Appends the item's name, or the whole path, to a buffer of QChar without allocating a string.
    template <typename Buffer> void appendName(Buffer &buffer) const;
    // Appends the path to a buffer, without allocating a string of it.
    template <typename Buffer> void appendPath(Buffer &buffer) const;

    PlaceRef m_place; // null only for a transaction made empty
    uint32_t m_nameStart = 0;
    // Written by the main thread while a backup reads the list: a word of its own, apart from the
    // fields the backup reads (see above).
    mutable uint32_t m_outcome = kErrorMask;
    uint32_t m_sizeLow = 0;
    uint16_t m_sizeHigh = 0;
    uint8_t m_nameLength = kNoName;
    uint8_t m_action : 2 = kCopy;
    bool m_folder : 1 = false;
    bool m_replaces : 1 = false;
};

// A shared pointer and plain values: a growing list may move its transactions as bytes (realloc) instead
// of copying each one into a second block.
Q_DECLARE_TYPEINFO(BUTransaction, Q_RELOCATABLE_TYPE);
static_assert(sizeof(BUTransaction) == 24);

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
