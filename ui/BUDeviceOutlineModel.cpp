#include "ui/BUDeviceOutlineModel.h"

#include "app/BUAppController.h"
#include "backup/BUDevices.h"

#include <QApplication>
#include <QFont>
#include <QPalette>

namespace {

// Group rows carry 0 as their internal id, device rows their group + 1.
constexpr quintptr kGroupId = 0;

} // namespace

BUDeviceOutlineModel::BUDeviceOutlineModel(QObject *parent) : QAbstractItemModel(parent)
{
}

const QStringList &BUDeviceOutlineModel::groupList(int group) const
{
    BUAppController &controller = BUAppController::sharedInstance();
    return group == kRecentGroup ? controller.mountedRecentDrives() : controller.otherDrives();
}

void BUDeviceOutlineModel::reload()
{
    beginResetModel();
    endResetModel();
}

void BUDeviceOutlineModel::setJobState(bool analyzing, bool backingUp, const QString &target)
{
    analyzeInProgress = analyzing;
    backupInProgress = backingUp;
    jobTarget = target;
    refreshLastBackup();
}

void BUDeviceOutlineModel::refreshLastBackup()
{
    for (int group : {kRecentGroup, kOtherGroup}) {
        const int rows = rowCount(groupIndex(group));
        if (rows > 0)
            emit dataChanged(deviceIndex(group, 0).siblingAtColumn(kLastBackupColumn),
                deviceIndex(group, rows - 1).siblingAtColumn(kLastBackupColumn));
    }
}

QModelIndex BUDeviceOutlineModel::groupIndex(int group) const
{
    return createIndex(group, 0, kGroupId);
}

QModelIndex BUDeviceOutlineModel::deviceIndex(int group, int row) const
{
    return createIndex(row, 0, quintptr(group + 1));
}

QModelIndex BUDeviceOutlineModel::indexOfDevice(const QString &name) const
{
    for (int group : {kRecentGroup, kOtherGroup}) {
        const qsizetype row = name.isEmpty() ? -1 : groupList(group).indexOf(name);
        if (row >= 0)
            return deviceIndex(group, int(row));
    }
    return {};
}

QString BUDeviceOutlineModel::deviceName(const QModelIndex &index) const
{
    if (!index.isValid() || index.internalId() == kGroupId)
        return {};
    return groupList(int(index.internalId()) - 1).value(index.row());
}

QModelIndex BUDeviceOutlineModel::index(int row, int column, const QModelIndex &parent) const
{
    if (row < 0 || column < 0 || column > kLastBackupColumn)
        return {};
    if (!parent.isValid())
        return row < 2 ? createIndex(row, column, kGroupId) : QModelIndex();
    if (parent.internalId() != kGroupId || row >= groupList(parent.row()).size())
        return {};
    return createIndex(row, column, quintptr(parent.row() + 1));
}

QModelIndex BUDeviceOutlineModel::parent(const QModelIndex &child) const
{
    if (!child.isValid() || child.internalId() == kGroupId)
        return {};
    return createIndex(int(child.internalId()) - 1, 0, kGroupId);
}

int BUDeviceOutlineModel::rowCount(const QModelIndex &parent) const
{
    if (!parent.isValid())
        return 2;
    if (parent.internalId() != kGroupId || parent.column() != 0)
        return 0;
    return int(groupList(parent.row()).size());
}

int BUDeviceOutlineModel::columnCount(const QModelIndex &) const
{
    return 2;
}

Qt::ItemFlags BUDeviceOutlineModel::flags(const QModelIndex &index) const
{
    if (!index.isValid())
        return Qt::NoItemFlags;
    if (index.internalId() == kGroupId)
        return Qt::ItemIsEnabled; // the group rows cannot be selected
    return Qt::ItemIsEnabled | Qt::ItemIsSelectable;
}

QVariant BUDeviceOutlineModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid())
        return {};
    const bool isGroup = index.internalId() == kGroupId;
    if (index.column() == kNameColumn) {
        if (role == Qt::DisplayRole)
            return isGroup
                ? (index.row() == kRecentGroup ? QStringLiteral("Recent Devices") : QStringLiteral("Other Devices"))
                : deviceName(index);
        if (role == Qt::FontRole && isGroup) {
            QFont font = QApplication::font();
            font.setBold(true);
            return font;
        }
        return {};
    }
    if (isGroup)
        return {};
    switch (role) {
    case Qt::DisplayRole: {
        // The job's device by name: the lists keep their order while a job runs.
        const bool jobDevice = !jobTarget.isEmpty() && deviceName(index) == jobTarget;
        if (jobDevice && backupInProgress)
            return QStringLiteral("In progress");
        if (jobDevice && analyzeInProgress)
            return QStringLiteral("Analyzing");
        BUAppController &controller = BUAppController::sharedInstance();
        return LastBackupText(controller.backupDates(), controller.backupTimes(), deviceName(index), is24HourTime);
    }
    case Qt::TextAlignmentRole:
        return QVariant(Qt::AlignRight | Qt::AlignVCenter);
    case Qt::FontRole: {
        QFont font = QApplication::font();
        font.setPointSizeF(font.pointSizeF() * 0.85);
        return font;
    }
    case Qt::ForegroundRole: {
        // Quieter than the names, and still easy to read: the text colour taken 45% of the
        // way to the background (about 4.7:1 black on white).
        const QPalette palette = QApplication::palette();
        const QColor text = palette.color(QPalette::Text), base = palette.color(QPalette::Base);
        auto mix = [](int a, int b) { return (a * 55 + b * 45) / 100; };
        return QBrush(
            QColor(mix(text.red(), base.red()), mix(text.green(), base.green()), mix(text.blue(), base.blue())));
    }
    default:
        return {};
    }
}
