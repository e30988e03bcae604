#include "backup/BUTransaction.h"

#include "keelson/KSStrings.h"

#include <algorithm>

BUTransactionList g_transactions;
QStringList g_errors;
double g_totalBytes = 0;
double g_copiedBytes = 0;
int64_t g_finishedTransactions = 0;
int64_t g_failedTransactions = 0;

BUTransaction::BUTransaction(const QString &path, const QString &root) : m_path(path), m_rootPath(root)
{
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
    return CaseInsensitiveCompare(m_path, other.m_path);
}

void SortTransactions(BUTransactionList &transactions)
{
    std::stable_sort(transactions.begin(), transactions.end(),
        [](const BUTransaction &a, const BUTransaction &b) { return a.compare(b) < 0; });
}
