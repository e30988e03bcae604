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

} // namespace

namespace {

// Text as a Place keeps it: Latin-1 when every character is, else UTF-16. *wide says which.
QByteArray _CompactText(QStringView text, bool *wide)
{
    *wide = std::any_of(text.begin(), text.end(), [](QChar c) { return c.unicode() > 0xFF; });
    if (*wide)
        return QByteArray(reinterpret_cast<const char *>(text.utf16()), text.size() * qsizetype(sizeof(char16_t)));
    return QStringView(text).toLatin1();
}

qsizetype _CompactSize(const QByteArray &text, bool wide)
{
    return wide ? text.size() / qsizetype(sizeof(char16_t)) : text.size();
}

// Appends count characters of compact text from start to a buffer of QChar.
template <typename Buffer>
void _AppendCompact(Buffer &buffer, const QByteArray &text, bool wide, qsizetype start, qsizetype count)
{
    const qsizetype at = buffer.size();
    buffer.resize(at + count);
    QChar *out = buffer.data() + at;
    if (wide) {
        std::memcpy(out, text.constData() + start * qsizetype(sizeof(char16_t)), std::size_t(count) * sizeof(char16_t));
        return;
    }
    const auto *latin1 = reinterpret_cast<const uchar *>(text.constData()) + start;
    for (qsizetype i = 0; i < count; ++i)
        out[i] = QChar(latin1[i]);
}

QString _CompactToString(const QByteArray &text, bool wide)
{
    QString string;
    _AppendCompact(string, text, wide, 0, _CompactSize(text, wide));
    return string;
}

} // namespace

BUTransaction::PlaceRef BUTransaction::makePlace(const QString &path, const QString &root, const QString &names)
{
    auto *place = new Place;
    place->path = _CompactText(path, &place->widePath);
    place->rootPath = root;
    place->names = _CompactText(names, &place->wideNames);
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
        if (place) {
            whole = _CompactToString(place->path, place->widePath);
            if (!whole.endsWith(u'/'))
                whole += u'/';
            _AppendCompact(whole, place->names, place->wideNames, nameStart, nameLength);
        }
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
        _AppendCompact(buffer, m_place->path, m_place->widePath, 0, _CompactSize(m_place->path, m_place->widePath));
    else
        _AppendCompact(buffer, m_place->names, m_place->wideNames, m_nameStart, m_nameLength);
}

template <typename Buffer> void BUTransaction::appendPath(Buffer &buffer) const
{
    if (!m_place || m_nameLength == kNoName) {
        appendName(buffer);
        return;
    }
    const qsizetype folderSize = _CompactSize(m_place->path, m_place->widePath);
    _AppendCompact(buffer, m_place->path, m_place->widePath, 0, folderSize);
    if (folderSize == 0 || buffer.at(buffer.size() - 1) != u'/')
        buffer.append(QChar(u'/'));
    appendName(buffer);
}

QString BUTransaction::path() const
{
    QString path;
    if (m_place)
        path.reserve(_CompactSize(m_place->path, m_place->widePath) + 1 + qsizetype(m_nameLength));
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
        && (m_place == other.m_place
            || (m_place->widePath == other.m_place->widePath && m_place->path == other.m_place->path))) {
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
