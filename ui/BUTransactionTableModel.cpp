#include "ui/BUTransactionTableModel.h"

#include "backup/BUAnalyzeOperation.h"
#include "backup/BUDevices.h"
#include "backup/BUTransaction.h"
#include "keelson/KSStrings.h"

#include <QApplication>
#include <QBrush>
#include <QFileInfo>
#include <QStyle>

#include <cmath>

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

double BUTransactionTableModel::contrast(const QColor &a, const QColor &b)
{
    auto luminance = [](const QColor &c) {
        auto channel = [](double v) { return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); };
        return 0.2126 * channel(c.redF()) + 0.7152 * channel(c.greenF()) + 0.0722 * channel(c.blueF());
    };
    const double x = luminance(a), y = luminance(b);
    return (std::max(x, y) + 0.05) / (std::min(x, y) + 0.05);
}

QColor BUTransactionTableModel::alertRed(const QPalette &palette)
{
    const QColor backgrounds[]
        = {palette.color(QPalette::Base), palette.color(QPalette::AlternateBase), palette.color(QPalette::Window)};
    const bool dark = palette.color(QPalette::Base).lightnessF() < 0.5;
    const QColor toward = dark ? QColor(255, 255, 255) : QColor(0, 0, 0);
    const QColor red(195, 33, 33);
    for (int step = 0; step <= 20; ++step) {
        const double t = step / 20.0;
        const QColor mixed = step == 0 ? red
                                       : QColor::fromRgbF(float(red.redF() + (toward.redF() - red.redF()) * t),
                                           float(red.greenF() + (toward.greenF() - red.greenF()) * t),
                                           float(red.blueF() + (toward.blueF() - red.blueF()) * t));
        bool readable = true;
        for (const QColor &background : backgrounds)
            readable = readable && contrast(mixed, background) >= 4.5;
        if (readable)
            return mixed.toRgb();
    }
    return toward;
}

QColor BUTransactionTableModel::alertRed()
{
    return alertRed(QApplication::palette());
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

QString BUTransactionTableModel::devicePathOf(const BUTransaction &transaction) const
{
    const QString path = transaction.path();
    const QString &root = transaction.rootPath();
    if (deviceName.isEmpty() || root.isEmpty() || !path.startsWith(root))
        return {};
    // A source that reads was not what failed: the device folder was.
    if (::faccessat(AT_FDCWD, FileNameToBytes(path).constData(), R_OK, AT_EACCESS | AT_SYMLINK_NOFOLLOW) != 0)
        return {};
    qsizetype start = root.size();
    while (start < path.size() && path[start] == u'/')
        ++start;
    return DeviceRootPath(deviceName) + u'/' + path.mid(start);
}

QString BUTransactionTableModel::locationText(const BUTransaction &transaction, bool failed) const
{
    if (transaction.action() != BUTransaction::kDelete && failed) {
        const QString onDevice = devicePathOf(transaction);
        if (!onDevice.isEmpty())
            return QStringLiteral("Device: ") + locationOf(onDevice);
    }
    if (transaction.action() == BUTransaction::kDelete)
        return QStringLiteral("Device: ") + locationOf(transaction.path());
    return QStringLiteral("Source: ") + locationOf(transaction.path());
}

QString BUTransactionTableModel::sidePath(int row) const
{
    if (row < 0 || row >= g_transactions.size())
        return {};
    const BUTransaction &t = g_transactions.at(row);
    if (t.action() != BUTransaction::kDelete && g_outcomes.failed(row)) {
        // The device folder that failed; the deepest part of it that exists, if the item is not
        // there.
        QString onDevice = devicePathOf(t);
        while (!onDevice.isEmpty() && !QFileInfo::exists(onDevice) && onDevice.count(u'/') > 1)
            onDevice = onDevice.left(onDevice.lastIndexOf(u'/'));
        if (!onDevice.isEmpty())
            return onDevice;
    }
    return t.path();
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
                return locationText(t, true) + u'\n' + error;
            if (const QString note = done ? g_outcomes.note(index.row()) : QString(); !note.isEmpty())
                return locationText(t, false) + u'\n' + note;
            return locationText(t, false);
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
