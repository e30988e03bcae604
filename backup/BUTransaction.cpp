#include "backup/BUTransaction.h"

#include "backup/BUDevices.h"
#include "backup/BUEngineReceiver.h"
#include "backup/BUFreeSpace.h"
#include "keelson/FormatString.h"

#include "keelson/KSStrings.h"

#include <QVarLengthArray>

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <sys/stat.h>
#include <vector>

BUTransactionList g_transactions;
BUTransactionOutcomes g_outcomes;
QStringList g_errors;
double g_totalBytes = 0;
double g_copiedBytes = 0;
int64_t g_finishedTransactions = 0;
int64_t g_failedTransactions = 0;

namespace {

const QString kNoString;

// Slots that never move once made, so that one thread may read a slot while another adds more:
// chunk c holds kFirst << c slots and begins after those of the chunks before it. Adding takes
// the caller's lock; reading a slot the reader was handed needs none.
template <typename Slot, std::size_t kFirst> class StableSlots {
public:
    static constexpr std::size_t kChunks = 22; // more than 4 billion slots

    Slot &operator[](std::size_t index) const
    {
        const std::size_t chunk = chunkOf(index);
        return m_chunks[chunk].load(std::memory_order_acquire)[index - kFirst * ((std::size_t(1) << chunk) - 1)];
    }
    // Makes room for the slot at index; false when there is no more.
    bool reserve(std::size_t index)
    {
        const std::size_t chunk = chunkOf(index);
        if (chunk >= kChunks)
            return false;
        if (!m_chunks[chunk].load(std::memory_order_relaxed))
            m_chunks[chunk].store(new Slot[kFirst << chunk], std::memory_order_release);
        return true;
    }

private:
    static std::size_t chunkOf(std::size_t index) { return std::size_t(std::bit_width(index / kFirst + 1)) - 1; }

    std::atomic<Slot *> m_chunks[kChunks] {};
};

// The process's places by handle (a handle is the slot's index + 1; 0 is none), the memory they
// are cut from, and the roots they share, found by index. A free slot holds the next free one's
// index + 1, shifted, with the lowest bit set (a place's address is aligned). Never freed: a place
// may outlive any object.
class PlaceTable {
public:
    static PlaceTable &instance()
    {
        static PlaceTable *const table = new PlaceTable;
        return *table;
    }

    const BUTransaction::Place *at(uint32_t handle) const
    {
        return reinterpret_cast<const BUTransaction::Place *>(m_places[handle - 1]);
    }
    const QString &root(uint32_t index) const { return m_roots[index]; }

    // Memory for a place of size bytes, 4-aligned; *own when it is a block of its own.
    void *allocate(std::size_t size, bool *own)
    {
        size = (size + 3) & ~std::size_t(3);
#if !defined(__SANITIZE_ADDRESS__) // the sanitizer watches each place in a block of its own
        if (size <= kLargestShared) {
            const std::lock_guard lock(m_mutex);
            if (!m_current || m_current->used + size > kBlockSize) {
                void *block = std::aligned_alloc(kBlockSize, kBlockSize);
                if (!block)
                    throw std::bad_alloc();
                m_current = new (block) BlockHeader;
            }
            void *at = reinterpret_cast<char *>(m_current) + m_current->used;
            m_current->used += uint32_t(size);
            ++m_current->live;
            *own = false;
            return at;
        }
#endif
        *own = true;
        return ::operator new(size);
    }

    uint32_t add(const BUTransaction::Place *place)
    {
        const std::lock_guard lock(m_mutex);
        uint32_t handle = m_firstFree;
        if (handle != 0) {
            m_firstFree = uint32_t(m_places[handle - 1] >> 1);
        } else {
            if (m_placeCount >= kMaxHandle || !m_places.reserve(m_placeCount))
                throw std::bad_alloc();
            handle = ++m_placeCount;
        }
        m_places[handle - 1] = reinterpret_cast<uintptr_t>(place);
        return handle;
    }
    // Frees the handle (when it has one) and the memory of a destroyed place.
    void remove(uint32_t handle, void *memory, bool own)
    {
        if (own)
            ::operator delete(memory);
        const std::lock_guard lock(m_mutex);
        if (handle != 0) {
            m_places[handle - 1] = uintptr_t(m_firstFree) << 1 | 1;
            m_firstFree = handle;
        }
        if (own)
            return;
        auto *block = reinterpret_cast<BlockHeader *>(reinterpret_cast<uintptr_t>(memory) & ~(kBlockSize - 1));
        if (--block->live != 0)
            return;
        if (block == m_current)
            block->used = sizeof(BlockHeader); // all gone: cut from its start again
        else
            std::free(block);
    }
    // The index of a root, added when new; 0 for none (a null string). A backup has a root for
    // each backup folder and the device's.
    uint32_t rootIndex(const QString &root)
    {
        if (root.isNull())
            return 0;
        const std::lock_guard lock(m_mutex);
        for (uint32_t i = 1; i < m_rootCount; ++i) {
            const QString &known = m_roots[i];
            if (known.constData() == root.constData() || (!known.isNull() && known == root))
                return i;
        }
        if (m_rootCount >= kMaxRoots || !m_roots.reserve(m_rootCount))
            throw std::bad_alloc();
        m_roots[m_rootCount] = root;
        return m_rootCount++;
    }

private:
    // A block is mapped of its own (see main's malloc settings) and only its written pages cost
    // memory; aligned to its size, so a place finds its block's header.
    static constexpr std::size_t kBlockSize = std::size_t(1) << 20;
    static constexpr std::size_t kLargestShared = kBlockSize / 16;
    static constexpr uint32_t kMaxRoots = uint32_t(1) << 30;
    static constexpr uint32_t kMaxHandle = (uint32_t(1) << 28) - 1; // a transaction keeps 28 bits
    struct BlockHeader {
        uint32_t used = sizeof(BlockHeader); // bytes from the block's start
        uint32_t live = 0; // places in it
    };

    PlaceTable()
    {
        m_roots.reserve(0); // the first root, null: none
    }

    std::mutex m_mutex;
    // Plain words: a slot is written before its handle reaches another thread, and only read
    // there while a transaction holds it. Left unwritten until used, so untouched pages cost nothing.
    StableSlots<uintptr_t, 1024> m_places;
    uint32_t m_placeCount = 0;
    uint32_t m_firstFree = 0;
    BlockHeader *m_current = nullptr;
    StableSlots<QString, 16> m_roots;
    uint32_t m_rootCount = 1;
};

bool _IsWide(QStringView text)
{
    return std::any_of(text.begin(), text.end(), [](QChar c) { return c.unicode() > 0xFF; });
}

// Stores text as a place keeps it, Latin-1 or UTF-16; returns the end.
char *_StoreText(char *out, QStringView text, bool wide)
{
    if (wide) {
        std::memcpy(out, text.utf16(), std::size_t(text.size()) * sizeof(char16_t));
        return out + text.size() * qsizetype(sizeof(char16_t));
    }
    for (const QChar c : text)
        *out++ = char(c.unicode());
    return out;
}

// Appends count characters of a place's text from start to a buffer of QChar.
template <typename Buffer>
void _AppendText(Buffer &buffer, const BUTransaction::Place::Text &text, qsizetype start, qsizetype count)
{
    const qsizetype at = buffer.size();
    buffer.resize(at + count);
    QChar *out = buffer.data() + at;
    if (text.wide) {
        std::memcpy(out, text.bytes + start * qsizetype(sizeof(char16_t)), std::size_t(count) * sizeof(char16_t));
        return;
    }
    const auto *latin1 = reinterpret_cast<const uchar *>(text.bytes) + start;
    for (qsizetype i = 0; i < count; ++i)
        out[i] = QChar(latin1[i]);
}

// The length of the root and the "/" after it that a path below the root starts with; 0 when the
// path is not below the root.
qsizetype _RootPrefix(QStringView path, const QString &root)
{
    if (root.isEmpty() || !path.startsWith(root))
        return 0;
    const qsizetype prefix = root.endsWith(u'/') ? root.size() : root.size() + 1;
    if (path.size() <= prefix || (!root.endsWith(u'/') && path[root.size()] != u'/'))
        return 0;
    return prefix;
}

// Appends a place's whole path.
template <typename Buffer> void _AppendPlacePath(Buffer &buffer, const BUTransaction::Place &place)
{
    if (place.belowRoot()) {
        const QString &root = place.rootPath();
        buffer.append(root.constData(), root.size());
        if (!root.endsWith(u'/'))
            buffer.append(QChar(u'/'));
    }
    const BUTransaction::Place::Text path = place.path();
    _AppendText(buffer, path, 0, path.size);
}

// Appends the path of the item named by count characters of the place's names from start: the
// folder's path, a "/" unless it ends with one, and the name.
template <typename Buffer>
void _AppendItemPath(Buffer &buffer, const BUTransaction::Place &place, qsizetype start, qsizetype count)
{
    const qsizetype at = buffer.size();
    _AppendPlacePath(buffer, place);
    if (buffer.size() == at || buffer.at(buffer.size() - 1) != u'/')
        buffer.append(QChar(u'/'));
    _AppendText(buffer, place.names(), start, count);
}

} // namespace

bool BUTransaction::Place::Text::operator==(const Text &other) const
{
    return wide == other.wide && size == other.size
        && std::memcmp(bytes, other.bytes, std::size_t(size) * (wide ? 2 : 1)) == 0;
}

void BUTransaction::Place::operator delete(Place *place, std::destroying_delete_t)
{
    const uint32_t handle = place->m_handle;
    const bool own = place->m_ownBlock;
    place->~Place();
    PlaceTable::instance().remove(handle, place, own);
}

const QString &BUTransaction::Place::rootPath() const
{
    return PlaceTable::instance().root(m_root);
}

// Inline: every comparison of the sort finds two places.
inline const BUTransaction::Place *BUTransaction::place() const
{
    return handle() != 0 ? PlaceTable::instance().at(handle()) : nullptr;
}

double BUTransaction::fileSize() const
{
    return m_size != kSizeInPlace ? double(m_size) : double(place()->size());
}

uint64_t BUTransaction::Place::size() const
{
    uint64_t size = 0;
    if (m_hasSize)
        std::memcpy(&size, this + 1, sizeof size);
    return size;
}

BUTransaction::PlaceRef BUTransaction::makePlace(const QString &wholePath, const QString &root, const QString &names)
{
    return makePlace(wholePath, root, names, nullptr);
}

BUTransaction::PlaceRef BUTransaction::makePlace(
    const QString &wholePath, const QString &root, const QString &names, const uint64_t *size)
{
    const qsizetype prefix = _RootPrefix(wholePath, root);
    const QStringView path = QStringView(wholePath).mid(prefix);
    if (path.size() > 0x3FFFFFFF || names.size() > 0x7FFFFFFF)
        throw std::bad_alloc(); // beyond what a place counts
    const bool widePath = _IsWide(path), wideNames = _IsWide(names);
    const std::size_t bytes = (size ? sizeof *size : 0) + std::size_t(path.size()) * (widePath ? 2 : 1)
        + std::size_t(names.size()) * (wideNames ? 2 : 1);
    PlaceTable &table = PlaceTable::instance();
    const uint32_t rootIndex = table.rootIndex(root);
    // The record, then its size and text (freed by Place's operator delete).
    bool own = false;
    void *memory = table.allocate(sizeof(Place) + bytes, &own);
    auto *place
        = new (memory) Place(rootIndex, uint32_t(path.size()), widePath, prefix > 0, uint32_t(names.size()), wideNames);
    place->m_ownBlock = own;
    place->m_hasSize = size != nullptr;
    PlaceRef ref(place); // frees the block should the table have no room
    char *text = reinterpret_cast<char *>(place + 1);
    if (size) {
        std::memcpy(text, size, sizeof *size);
        text += sizeof *size;
    }
    _StoreText(_StoreText(text, path, widePath), names, wideNames);
    place->m_handle = table.add(place);
    return ref;
}

BUTransaction::BUTransaction(const QString &path, const QString &root) : BUTransaction(makePlace(path, root))
{
}

BUTransaction::BUTransaction(const PlaceRef &place)
{
    setPlace(place);
}

BUTransaction::BUTransaction(const BUTransaction &other)
    : m_place(other.m_place), m_name(other.m_name), m_size(other.m_size)
{
    if (handle() != 0)
        place()->ref.ref();
}

BUTransaction::~BUTransaction()
{
    releasePlace();
}

void BUTransaction::releasePlace() const
{
    const Place *held = place();
    if (held && !held->ref.deref())
        delete held;
}

void BUTransaction::setPlace(const PlaceRef &place)
{
    if (place)
        place->ref.ref();
    releasePlace();
    m_place = (m_place & ~kHandleBits) | (place ? place->m_handle : 0);
}

BUTransaction::BUTransaction(const PlaceRef &place, uint32_t nameStart, uint32_t nameLength) : BUTransaction(place)
{
    if (nameLength != kNoName && nameLength <= kMaxNameLength && nameStart <= kNameStartBits) {
        m_name = nameStart | nameLength << kNameLengthShift;
        return;
    }
    // Not a name a folder of this system holds, or one too far into its folder's names: kept
    // whole, in a place of its own.
    QString whole;
    if (place)
        _AppendItemPath(whole, *place, nameStart, nameLength);
    setPlace(makePlace(whole, place ? place->rootPath() : QString()));
}

void BUTransaction::setFileSize(double fileSize)
{
    const uint64_t size = fileSize <= 0 ? 0 : fileSize >= double(kMaxFileSize) ? kMaxFileSize : uint64_t(fileSize);
    if (size < kSizeInPlace) {
        m_size = uint32_t(size);
        return;
    }
    const Place *held = place();
    QString whole;
    appendPath(whole, held);
    setPlace(makePlace(whole, held ? held->rootPath() : QString(), QString(), &size));
    m_name = kNoName;
    m_size = kSizeInPlace;
}

const QString &BUTransaction::rootPath() const
{
    return handle() != 0 ? place()->rootPath() : kNoString;
}

template <typename Buffer> void BUTransaction::appendName(Buffer &buffer, const Place *held) const
{
    if (!held)
        return;
    if (nameLength() == kNoName)
        _AppendPlacePath(buffer, *held);
    else
        _AppendText(buffer, held->names(), nameStart(), nameLength());
}

template <typename Buffer> void BUTransaction::appendPath(Buffer &buffer, const Place *held) const
{
    if (!held || nameLength() == kNoName)
        appendName(buffer, held);
    else
        _AppendItemPath(buffer, *held, nameStart(), nameLength());
}

QString BUTransaction::path() const
{
    QString path;
    const Place *held = place();
    if (held)
        path.reserve(held->rootPath().size() + held->path().size + 2 + qsizetype(nameLength()));
    appendPath(path, held);
    return path;
}

QString BUTransaction::actionName() const
{
    switch (action()) {
    case kDelete:
        return QStringLiteral("Delete");
    case kUpdate:
        return QStringLiteral("Update");
    default:
        return QStringLiteral("Copy");
    }
}

int BUTransaction::compare(const BUTransaction &other) const
{
    if (action() != other.action())
        return action() < other.action() ? -1 : 1;
    if (isFolder() != other.isFolder())
        return isFolder() ? -1 : 1;
    // Items of one folder differ only after the folder's "/".
    QVarLengthArray<QChar, 256> a, b;
    const Place *mine = place(), *theirs = other.place();
    if (nameLength() != kNoName && other.nameLength() != kNoName && mine && theirs
        && (mine == theirs || mine->samePath(*theirs))) {
        appendName(a, mine);
        other.appendName(b, theirs);
        return CaseInsensitiveCompare(QStringView(a.constData(), a.size()), QStringView(b.constData(), b.size()));
    }
    appendPath(a, mine);
    other.appendPath(b, theirs);
    return CaseInsensitiveCompare(QStringView(a.constData(), a.size()), QStringView(b.constData(), b.size()));
}

namespace {

bool _InTableOrder(const BUTransaction &a, const BUTransaction &b)
{
    return a.compare(b) < 0;
}

// Merges the sorted runs [first, middle) and [middle, last) stably. A run that fits the buffer
// (capacity transactions, empty) is moved out and merged back; longer runs are cut in two around
// a pivot, the middle pieces swapped by a rotation, and each half merged alone. Transactions are
// swapped, never copied: nothing counts references while the list is sorted.
void _Merge(
    BUTransaction *first, BUTransaction *middle, BUTransaction *last, BUTransaction *buffer, std::ptrdiff_t capacity)
{
    if (first == middle || middle == last || !_InTableOrder(*middle, *(middle - 1)))
        return; // already in order
    const std::ptrdiff_t left = middle - first, right = last - middle;
    if (left <= capacity) {
        BUTransaction *from = buffer, *const fromEnd = std::swap_ranges(first, middle, buffer);
        BUTransaction *out = first;
        while (from != fromEnd && middle != last) {
            if (_InTableOrder(*middle, *from))
                swap(*out++, *middle++);
            else
                swap(*out++, *from++);
        }
        std::swap_ranges(from, fromEnd, out);
        return;
    }
    if (right <= capacity) {
        BUTransaction *from = std::swap_ranges(middle, last, buffer);
        BUTransaction *out = last, *leftEnd = middle;
        while (from != buffer && leftEnd != first) {
            if (_InTableOrder(*(from - 1), *(leftEnd - 1)))
                swap(*--out, *--leftEnd);
            else
                swap(*--out, *--from);
        }
        std::swap_ranges(buffer, from, first);
        return;
    }
    BUTransaction *firstCut, *secondCut;
    if (left > right) {
        firstCut = first + left / 2;
        secondCut = std::lower_bound(middle, last, *firstCut, _InTableOrder);
    } else {
        secondCut = middle + right / 2;
        firstCut = std::upper_bound(first, middle, *secondCut, _InTableOrder);
    }
    BUTransaction *const newMiddle = std::rotate(firstCut, middle, secondCut);
    _Merge(first, firstCut, newMiddle, buffer, capacity);
    _Merge(newMiddle, secondCut, last, buffer, capacity);
}

} // namespace

void SortTransactions(BUTransactionList &transactions, qsizetype bufferCapacity)
{
    // A merge sort of the transactions themselves with a buffer of a fixed size: the list of a
    // large backup is at its largest here, and a stable sort's usual buffer is half of it.
    constexpr qsizetype kRun = 1024; // sorted by the library, with a small buffer of its own
    const qsizetype count = transactions.size();
    BUTransaction *const begin = transactions.data();
    for (qsizetype run = 0; run < count; run += kRun)
        std::stable_sort(begin + run, begin + std::min(run + kRun, count), _InTableOrder);
    std::vector<BUTransaction> buffer(std::size_t(std::max<qsizetype>(1, std::min(bufferCapacity, count / 2))));
    for (qsizetype width = kRun; width < count; width *= 2) {
        for (qsizetype start = 0; start + width < count; start += 2 * width) {
            _Merge(begin + start, begin + start + width, begin + std::min(start + 2 * width, count), buffer.data(),
                std::ptrdiff_t(buffer.size()));
        }
    }
}

bool BUTransactionOutcomes::isDone(qsizetype row) const
{
    const auto word = std::size_t(row) / 64;
    return row >= 0 && word < m_done.size() && (m_done[word] >> (std::size_t(row) % 64) & 1) != 0;
}

void BUTransactionOutcomes::setDone(qsizetype row)
{
    if (row < 0)
        return;
    const auto word = std::size_t(row) / 64;
    if (word >= m_done.size())
        m_done.resize(std::max(word + 1, (std::size_t(g_transactions.size()) + 63) / 64));
    m_done[word] |= uint64_t(1) << (std::size_t(row) % 64);
}

std::vector<BUTransactionOutcomes::Failure>::const_iterator BUTransactionOutcomes::failureFrom(qsizetype row) const
{
    return std::lower_bound(m_errors.cbegin(), m_errors.cend(), row,
        [](const Failure &failure, qsizetype key) { return failure.first < key; });
}

uint64_t BUTransactionOutcomes::errorIndex(qsizetype row) const
{
    const auto found = failureFrom(row);
    return found != m_errors.cend() && found->first == row ? found->second : BUTransaction::kNoError;
}

QString BUTransactionOutcomes::errorText(qsizetype row) const
{
    const uint64_t index = errorIndex(row);
    return index < uint64_t(g_errors.size()) ? g_errors.at(qsizetype(index)) : QString();
}

qsizetype BUTransactionOutcomes::firstFailure(qsizetype row) const
{
    const auto found = failureFrom(row);
    return found != m_errors.cend() ? found->first : -1;
}

void BUTransactionOutcomes::setErrorIndex(qsizetype row, uint32_t errorIndex)
{
    // A backup reports its rows in order: nearly always an append.
    if (m_errors.empty() || m_errors.back().first < row) {
        m_errors.emplace_back(row, errorIndex);
        return;
    }
    const auto found = m_errors.begin() + (failureFrom(row) - m_errors.cbegin());
    if (found->first == row)
        found->second = errorIndex;
    else
        m_errors.insert(found, {row, errorIndex});
}

void BUTransactionOutcomes::clear()
{
    m_done = {};
    m_errors = {};
    m_notes.clear();
}

QString BUTransactionOutcomes::note(qsizetype row) const
{
    return m_notes.value(row);
}

void BUTransactionOutcomes::setNote(qsizetype row, const QString &text)
{
    m_notes.insert(row, text);
}

void ClearTransactions()
{
    g_transactions.clear();
    g_outcomes.clear();
    g_errors.clear();
}

qsizetype ApplyBackupStatus(const QMap<qsizetype, QString> &trans, double copied, const QMap<qsizetype, QString> &notes)
{
    g_copiedBytes += copied;
    for (auto it = notes.cbegin(); it != notes.cend(); ++it)
        g_outcomes.setNote(it.key(), it.value());
    qsizetype highest = -1;
    for (auto it = trans.cbegin(); it != trans.cend(); ++it) {
        if (it.key() < 0 || it.key() >= g_transactions.size())
            continue;
        // A row reported again (done, then found not to have reached the device) counts once.
        if (!g_outcomes.isDone(it.key())) {
            g_outcomes.setDone(it.key());
            ++g_finishedTransactions;
        }
        highest = std::max(highest, it.key());
        if (it.value().isEmpty() || g_outcomes.failed(it.key()))
            continue;
        qsizetype index = g_errors.indexOf(it.value());
        if (index < 0) {
            g_errors.append(it.value());
            index = g_errors.size() - 1;
        }
        g_outcomes.setErrorIndex(it.key(), uint32_t(index));
        ++g_failedTransactions;
    }
    return highest;
}

QString LargeDeletionMessage(const BUAnalysisReport &report)
{
    return FormatString("This backup would delete %,lld of the %,lld items on \"%@\".", report.itemsToDelete,
        report.mirrorItems, report.target);
}

QString LargeDeletionDetails(const BUAnalysisReport &report, const QStringList &backupFolders)
{
    const QString deviceRoot = DeviceRootPath(report.target);
    qint64 bytes = 0, ignored = 0;
    QMap<QString, qint64> byMirror; // items deleted, by mirror name
    for (const BUTransaction &transaction : std::as_const(g_transactions)) {
        if (transaction.action() != BUTransaction::kDelete)
            continue;
        const QString path = transaction.path();
        if (!path.startsWith(deviceRoot + u'/'))
            continue;
        const QString relative = path.mid(deviceRoot.size() + 1);
        const qint64 items = ItemsAndBytesOfDeviceItem(path, &bytes);
        const QString mirror = relative.section(u'/', 0, 0);
        byMirror[mirror] += items;
        // Still at the source, yet deleted: left out by the ignore rules (or unreadable names).
        for (const QString &folder : backupFolders) {
            if (LastPathComponent(folder) != mirror)
                continue;
            struct stat status;
            const QString sourcePath = folder.left(folder.lastIndexOf(u'/')) + u'/' + relative;
            if (::lstat(FileNameToBytes(sourcePath).constData(), &status) == 0)
                ignored += items;
            break;
        }
    }
    QList<QPair<qint64, QString>> most;
    for (auto it = byMirror.cbegin(); it != byMirror.cend(); ++it)
        most.append({it.value(), it.key()});
    std::sort(most.begin(), most.end(), [](const auto &a, const auto &b) { return a.first > b.first; });
    QStringList names;
    for (qsizetype i = 0; i < std::min<qsizetype>(most.size(), 3); ++i)
        names.append(FormatString("\"%@\" (%,lld)", most[i].second, most[i].first));
    QString text = FormatString("They take %@ on the device. Most go from %@.", FileSizeString(double(bytes)),
        names.join(QStringLiteral(", ")));
    if (ignored > 0)
        text += FormatString(" %,lld of them are still in your backup folders and are deleted because your ignore "
                             "rules leave them out now.",
            ignored);
    return text;
}

QString EmptiedFolderMessage(const BUAnalysisReport &report)
{
    return FormatString("The backup folder \"%@\" is empty, so this backup would delete everything in its mirror on "
                        "\"%@\".",
        report.emptiedFolders.value(0), report.target);
}

QString EmptiedFolderExplanation()
{
    return QStringLiteral("A folder where a disk or a network share is mounted looks empty while that disk is not "
                          "mounted. Check the folder before you go on.");
}

QString DeletionQuestion(const BUAnalysisReport &report, bool largeDeletions)
{
    if (!report.emptiedFolders.isEmpty())
        return EmptiedFolderMessage(report);
    return largeDeletions && DeletesMostOfTheDevice(report) ? LargeDeletionMessage(report) : QString();
}

QString LargeDeletionExplanation()
{
    return QStringLiteral("That is half or more of what the backup device holds. It happens when a backup folder was "
                          "emptied or renamed, or lies on a disk that is not mounted. Check the transactions before "
                          "you go on.");
}
