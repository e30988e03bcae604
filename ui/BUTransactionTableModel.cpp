#include "ui/BUTransactionTableModel.h"

#include "backup/BUAnalyzeOperation.h"
#include "backup/BUDevices.h"
#include "backup/BUTransaction.h"
#include "keelson/KSStrings.h"

#include <QApplication>
#include <QBrush>
#include <QFileInfo>
#include <QStyle>

#include <fcntl.h>
#include <unistd.h>

BUTransactionTableModel::BUTransactionTableModel(QObject *parent)
    : QAbstractTableModel(parent), folderImage(QApplication::style()->standardIcon(QStyle::SP_DirIcon)),
      conflictImage(QApplication::style()->standardIcon(QStyle::SP_MessageBoxWarning))
{
}

void BUTransactionTableModel::reload()
{
    beginResetModel();
    endResetModel();
}

void BUTransactionTableModel::rowsChanged(int first, int last)
{
    if (first <= last)
        emit dataChanged(index(first, 0), index(last, kColumnCount - 1));
}

int BUTransactionTableModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(g_transactions.size());
}

int BUTransactionTableModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : kColumnCount;
}

QString BUTransactionTableModel::locationOf(const QString &path)
{
    QString location = path.left(path.lastIndexOf(u'/'));
    const QString root = VolumesRoot();
    if (!root.isEmpty() && location.startsWith(root + u'/'))
        location = location.mid(root.size() + 1);
    return location;
}

QString BUTransactionTableModel::failureLocation(const BUTransaction &transaction) const
{
    const QString path = transaction.path();
    const QString &root = transaction.rootPath();
    if (transaction.action() == BUTransaction::kDelete || deviceName.isEmpty() || root.isEmpty()
        || !path.startsWith(root))
        return locationOf(path);
    // A source that reads was not what failed: the device folder was.
    if (::faccessat(AT_FDCWD, FileNameToBytes(path).constData(), R_OK, AT_EACCESS | AT_SYMLINK_NOFOLLOW) != 0)
        return locationOf(path);
    qsizetype start = root.size();
    while (start < path.size() && path[start] == u'/')
        ++start;
    const QString relative = path.mid(start);
    const qsizetype slash = relative.lastIndexOf(u'/');
    return slash < 0 ? deviceName : deviceName + u'/' + relative.left(slash);
}

QVariant BUTransactionTableModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= g_transactions.size())
        return {};
    const BUTransaction &t = g_transactions.at(index.row());
    const QString error = g_outcomes.errorText(index.row());
    const bool failed = !error.isNull();
    const bool done = g_outcomes.isDone(index.row());
    // A copy the device can't hold beside its namesake says so before the backup fails it.
    const QString conflict = failed || done ? QString() : CaseConflictOf(t);
    switch (role) {
    case Qt::DisplayRole:
        switch (index.column()) {
        case kStatusColumn:
            return failed ? QStringLiteral("\u2718") : (done ? QStringLiteral("\u2713") : QString());
        case kActionColumn:
            return t.actionName();
        case kNameColumn:
            return LastPathComponent(t.path());
        case kLocationColumn:
            if (failed)
                return failureLocation(t) + u'\n' + error;
            if (const QString note = done ? g_outcomes.note(index.row()) : QString(); !note.isEmpty())
                return locationOf(t.path()) + u'\n' + note;
            return locationOf(t.path());
        default:
            return {};
        }
    case Qt::DecorationRole:
        if (index.column() == kStatusColumn && !conflict.isNull())
            return conflictImage;
        return index.column() == kTypeColumn && t.isFolder() ? QVariant(folderImage) : QVariant();
    case Qt::ForegroundRole:
        if (failed && index.column() != kTypeColumn)
            return QBrush(BUTransactionTableModel::alertRed());
        return {};
    case Qt::TextAlignmentRole:
        return index.column() == kStatusColumn ? QVariant(Qt::AlignCenter) : QVariant(Qt::AlignLeft | Qt::AlignVCenter);
    case Qt::ToolTipRole:
        if (index.column() == kLocationColumn || index.column() == kNameColumn)
            return failed ? t.path() + u'\n' + error : (conflict.isNull() ? t.path() : t.path() + u'\n' + conflict);
        return conflict.isNull() ? QVariant() : QVariant(conflict);
    case Qt::AccessibleTextRole:
        if (index.column() == kStatusColumn) {
            if (!conflict.isNull())
                return conflict;
            return failed ? QStringLiteral("failed") : (done ? QStringLiteral("done") : QStringLiteral("waiting"));
        }
        return {};
    default:
        return {};
    }
}

QVariant BUTransactionTableModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (orientation != Qt::Horizontal || role != Qt::DisplayRole)
        return {};
    switch (section) {
    case kStatusColumn:
        return QString();
    case kActionColumn:
        return QStringLiteral("Action");
    case kTypeColumn:
        return QString();
    case kNameColumn:
        return QStringLiteral("Name");
    case kLocationColumn:
        return QStringLiteral("Location");
    default:
        return {};
    }
}
