#include "ui/BURuleListModel.h"

#include "app/BUAppController.h"
#include "keelson/KSStrings.h"

#include <QFileInfo>

BURuleListModel::BURuleListModel(QObject *parent) : QAbstractListModel(parent)
{
}

void BURuleListModel::setRuleDomain(int domain)
{
    beginResetModel();
    m_domain = domain;
    endResetModel();
}

void BURuleListModel::reload()
{
    beginResetModel();
    endResetModel();
}

int BURuleListModel::rowCount(const QModelIndex &parent) const
{
    if (parent.isValid())
        return 0;
    BUAppController &controller = BUAppController::sharedInstance();
    switch (m_domain) {
    case kIgnoredFolders:
        return int(controller.ignoreFolders().size());
    case kIgnoredFiles:
        return int(controller.ignoreFiles().size());
    default:
        return int(controller.backupFolders().size());
    }
}

QVariant BURuleListModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= rowCount())
        return {};
    BUAppController &controller = BUAppController::sharedInstance();
    if (m_domain == kIgnoredFolders || m_domain == kIgnoredFiles) {
        if (role != Qt::DisplayRole)
            return {};
        const BURuleList &rules = m_domain == kIgnoredFolders ? controller.ignoreFolders() : controller.ignoreFiles();
        return RuleDisplayText(rules[index.row()], m_domain == kIgnoredFiles);
    }
    const QString &folder = controller.backupFolders()[index.row()];
    switch (role) {
    case Qt::DisplayRole:
        return LastPathComponent(folder);
    case Qt::ToolTipRole:
        return QFileInfo(folder).isDir() ? folder : folder + QStringLiteral(" (not found)");
    default:
        return {};
    }
}
