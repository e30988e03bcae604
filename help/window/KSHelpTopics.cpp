#include "help/window/KSHelpTopics.h"

KSHelpTopics::KSHelpTopics(const QStringList &chapterNames)
{
    KSHelpTopic *levelZero = nullptr;
    KSHelpTopic *levelOne = nullptr;
    for (int i = 0; i < chapterNames.size(); ++i) {
        const QString &name = chapterNames[i];
        auto item = std::make_unique<KSHelpTopic>();
        item->index = i;
        if (!name.startsWith(u'\t')) {
            item->name = name;
            item->level = 0;
            m_topics.push_back(item.get());
            levelZero = item.get();
            levelOne = nullptr;
        } else if (!name.startsWith(QStringLiteral("\t\t"))) {
            item->name = name.mid(1);
            item->level = 1;
            if (levelZero) {
                item->parent = levelZero;
                levelZero->topics.push_back(item.get());
            } else {
                item->shown = false;
            }
            levelOne = item.get();
        } else {
            item->name = name.mid(2);
            item->level = 2;
            item->plain = true;
            if (levelOne) {
                item->parent = levelOne;
                item->shown = levelOne->shown;
                levelOne->topics.push_back(item.get());
            } else {
                item->shown = false;
            }
        }
        m_chapterMap.push_back(item.get());
        m_items.push_back(std::move(item));
    }
}

KSHelpTopicModel::KSHelpTopicModel(QObject *parent) : QAbstractItemModel(parent)
{
}

void KSHelpTopicModel::setTopics(const KSHelpTopics *topics)
{
    beginResetModel();
    m_topics = topics;
    endResetModel();
}

const std::vector<KSHelpTopic *> &KSHelpTopicModel::childrenOf(const QModelIndex &parent) const
{
    static const std::vector<KSHelpTopic *> none;
    if (!parent.isValid())
        return m_topics ? m_topics->topics() : none;
    return itemForIndex(parent)->topics;
}

KSHelpTopic *KSHelpTopicModel::itemForIndex(const QModelIndex &index)
{
    return index.isValid() ? static_cast<KSHelpTopic *>(index.internalPointer()) : nullptr;
}

QModelIndex KSHelpTopicModel::indexForItem(const KSHelpTopic *item) const
{
    if (!item || !item->shown || !m_topics)
        return {};
    const std::vector<KSHelpTopic *> &siblings = item->parent ? item->parent->topics : m_topics->topics();
    for (std::size_t row = 0; row < siblings.size(); ++row) {
        if (siblings[row] == item)
            return createIndex(int(row), 0, const_cast<KSHelpTopic *>(item));
    }
    return {};
}

QModelIndex KSHelpTopicModel::index(int row, int column, const QModelIndex &parent) const
{
    const std::vector<KSHelpTopic *> &children = childrenOf(parent);
    if (column != 0 || row < 0 || std::size_t(row) >= children.size())
        return {};
    return createIndex(row, 0, children[std::size_t(row)]);
}

QModelIndex KSHelpTopicModel::parent(const QModelIndex &child) const
{
    const KSHelpTopic *item = itemForIndex(child);
    return item ? indexForItem(item->parent) : QModelIndex();
}

int KSHelpTopicModel::rowCount(const QModelIndex &parent) const
{
    if (parent.column() > 0)
        return 0;
    return int(childrenOf(parent).size());
}

int KSHelpTopicModel::columnCount(const QModelIndex &) const
{
    return 1;
}

QVariant KSHelpTopicModel::data(const QModelIndex &index, int role) const
{
    const KSHelpTopic *item = itemForIndex(index);
    if (!item || (role != Qt::DisplayRole && role != Qt::ToolTipRole))
        return {};
    return item->name;
}

Qt::ItemFlags KSHelpTopicModel::flags(const QModelIndex &index) const
{
    if (!index.isValid())
        return Qt::NoItemFlags;
    Qt::ItemFlags flags = Qt::ItemIsEnabled | Qt::ItemIsSelectable;
    if (itemForIndex(index)->topics.empty())
        flags |= Qt::ItemNeverHasChildren;
    return flags;
}

bool KSHelpTopicModel::hasChildren(const QModelIndex &parent) const
{
    if (!parent.isValid())
        return m_topics && !m_topics->topics().empty();
    return m_topics && m_topics->expandable(itemForIndex(parent));
}
