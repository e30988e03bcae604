#include "backup/BUTransaction.h"

#include "backup/BUEngineReceiver.h"
#include "keelson/FormatString.h"

#include "keelson/KSStrings.h"

#include <QVarLengthArray>

#include <algorithm>
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

BUTransaction::PlaceRef BUTransaction::makePlace(const QString &path, const QString &root, const QString &names)
{
    auto *place = new Place;
    place->path = path;
    place->rootPath = root;
    place->names = names;
    return PlaceRef(place);
}

BUTransaction::BUTransaction(const QString &path, const QString &root) : m_place(makePlace(path, root))
{
}

BUTransaction::BUTransaction(const PlaceRef &place, uint32_t nameStart, uint32_t nameLength)
    : m_place(place), m_nameStart(nameStart), m_nameLength(nameLength)
{
}

const QString &BUTransaction::rootPath() const
{
    return m_place ? m_place->rootPath : kNoString;
}

QStringView BUTransaction::name() const
{
    if (!m_place || m_nameLength == kNoName)
        return QStringView();
    return QStringView(m_place->names).mid(m_nameStart, m_nameLength);
}

template <typename Buffer> void BUTransaction::appendPath(Buffer &buffer) const
{
    const QString &folder = m_place ? m_place->path : kNoString;
    buffer.append(folder.constData(), folder.size());
    if (m_nameLength == kNoName)
        return;
    if (!folder.endsWith(u'/'))
        buffer.append(QChar(u'/'));
    const QStringView itemName = name();
    buffer.append(itemName.data(), itemName.size());
}

QString BUTransaction::path() const
{
    if (m_nameLength == kNoName)
        return m_place ? m_place->path : QString();
    QString path;
    path.reserve((m_place ? m_place->path.size() : 0) + 1 + qsizetype(m_nameLength));
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
    if (m_nameLength != kNoName && other.m_nameLength != kNoName && m_place && other.m_place
        && (m_place == other.m_place || m_place->path == other.m_place->path))
        return CaseInsensitiveCompare(name(), other.name());
    QVarLengthArray<QChar, 256> a, b;
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
