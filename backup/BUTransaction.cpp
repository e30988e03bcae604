#include "backup/BUTransaction.h"

#include "backup/BUEngineReceiver.h"
#include "keelson/FormatString.h"

#include "keelson/KSStrings.h"

#include <QVarLengthArray>

#include <algorithm>
#include <cstring>
#include <vector>

BUTransactionList g_transactions;
QStringList g_errors;
double g_totalBytes = 0;
double g_copiedBytes = 0;
int64_t g_finishedTransactions = 0;
int64_t g_failedTransactions = 0;

namespace {

const QString kNoString;

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
        buffer.append(place.rootPath.constData(), place.rootPath.size());
        if (!place.rootPath.endsWith(u'/'))
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

BUTransaction::PlaceRef BUTransaction::makePlace(const QString &wholePath, const QString &root, const QString &names)
{
    const qsizetype prefix = _RootPrefix(wholePath, root);
    const QStringView path = QStringView(wholePath).mid(prefix);
    const bool widePath = _IsWide(path), wideNames = _IsWide(names);
    const std::size_t bytes
        = std::size_t(path.size()) * (widePath ? 2 : 1) + std::size_t(names.size()) * (wideNames ? 2 : 1);
    // One block: the record, then its text (freed by Place's operator delete).
    void *block = ::operator new(sizeof(Place) + bytes);
    auto *place
        = new (block) Place(root, uint32_t(path.size()), widePath, prefix > 0, uint32_t(names.size()), wideNames);
    char *text = reinterpret_cast<char *>(place + 1);
    _StoreText(_StoreText(text, path, widePath), names, wideNames);
    return PlaceRef(place);
}

BUTransaction::BUTransaction(const QString &path, const QString &root) : m_place(makePlace(path, root))
{
}

BUTransaction::BUTransaction(const PlaceRef &place, uint32_t nameStart, uint32_t nameLength)
    : m_place(place), m_nameStart(nameStart), m_nameLength(uint8_t(nameLength))
{
    if (nameLength == kNoName || nameLength > kMaxNameLength) {
        // Not a name a folder of this system holds: kept whole, in a place of its own.
        m_nameLength = kNoName;
        m_nameStart = 0;
        QString whole;
        if (place)
            _AppendItemPath(whole, *place, nameStart, nameLength);
        m_place = makePlace(whole, place ? place->rootPath : QString());
    }
}

const QString &BUTransaction::rootPath() const
{
    return m_place ? m_place->rootPath : kNoString;
}

template <typename Buffer> void BUTransaction::appendName(Buffer &buffer) const
{
    if (!m_place)
        return;
    if (m_nameLength == kNoName)
        _AppendPlacePath(buffer, *m_place);
    else
        _AppendText(buffer, m_place->names(), m_nameStart, m_nameLength);
}

template <typename Buffer> void BUTransaction::appendPath(Buffer &buffer) const
{
    if (!m_place || m_nameLength == kNoName)
        appendName(buffer);
    else
        _AppendItemPath(buffer, *m_place, m_nameStart, m_nameLength);
}

QString BUTransaction::path() const
{
    QString path;
    if (m_place)
        path.reserve(m_place->rootPath.size() + m_place->path().size + 2 + qsizetype(m_nameLength));
    appendPath(path);
    return path;
}

QString BUTransaction::actionName() const
{
    switch (m_action) {
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
    if (m_action != other.m_action)
        return m_action < other.m_action ? -1 : 1;
    if (m_folder != other.m_folder)
        return m_folder ? -1 : 1;
    // Items of one folder differ only after the folder's "/".
    QVarLengthArray<QChar, 256> a, b;
    if (m_nameLength != kNoName && other.m_nameLength != kNoName && m_place && other.m_place
        && (m_place == other.m_place || m_place->samePath(*other.m_place))) {
        appendName(a);
        other.appendName(b);
        return CaseInsensitiveCompare(QStringView(a.constData(), a.size()), QStringView(b.constData(), b.size()));
    }
    appendPath(a);
    other.appendPath(b);
    return CaseInsensitiveCompare(QStringView(a.constData(), a.size()), QStringView(b.constData(), b.size()));
}

void SortTransactions(BUTransactionList &transactions)
{
    // The order is found on indexes and then applied in place, cycle by cycle: a stable sort of
    // the transactions themselves would take a second list's worth of memory for its buffer.
    const qsizetype count = transactions.size();
    std::vector<uint32_t> order(static_cast<std::size_t>(count));
    for (qsizetype i = 0; i < count; ++i)
        order[std::size_t(i)] = uint32_t(i);
    const BUTransactionList &list = transactions;
    std::stable_sort(
        order.begin(), order.end(), [&list](uint32_t a, uint32_t b) { return list.at(a).compare(list.at(b)) < 0; });
    // Position i takes the transaction at order[i]; a placed position is marked with its own index.
    for (qsizetype start = 0; start < count; ++start) {
        if (order[std::size_t(start)] == uint32_t(start))
            continue;
        BUTransaction held = std::move(transactions[start]);
        qsizetype position = start;
        for (;;) {
            const qsizetype from = qsizetype(order[std::size_t(position)]);
            order[std::size_t(position)] = uint32_t(position);
            if (from == start) {
                transactions[position] = std::move(held);
                break;
            }
            transactions[position] = std::move(transactions[from]);
            position = from;
        }
    }
}

qsizetype ApplyBackupStatus(const QMap<qsizetype, QString> &trans, double copied)
{
    g_copiedBytes += copied;
    qsizetype highest = -1;
    for (auto it = trans.cbegin(); it != trans.cend(); ++it) {
        if (it.key() < 0 || it.key() >= g_transactions.size())
            continue;
        const BUTransaction &transaction = g_transactions.at(it.key());
        transaction.setDone(true);
        ++g_finishedTransactions;
        highest = std::max(highest, it.key());
        if (it.value().isEmpty())
            continue;
        qsizetype index = g_errors.indexOf(it.value());
        if (index < 0) {
            g_errors.append(it.value());
            index = g_errors.size() - 1;
        }
        transaction.setErrorIndex(uint64_t(index));
        ++g_failedTransactions;
    }
    return highest;
}

QString LargeDeletionMessage(const BUAnalysisReport &report)
{
    return FormatString("This backup would delete %,lld of the %,lld items on \"%@\".", report.itemsToDelete,
        report.mirrorItems, report.target);
}

QString LargeDeletionExplanation()
{
    return QStringLiteral("That is half or more of what the backup device holds. It happens when a backup folder was "
                          "emptied or renamed, or lies on a disk that is not mounted. Check the transactions before "
                          "you go on.");
}
