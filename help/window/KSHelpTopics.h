// The topic outline of a help window: one entry per chapter, nested by the leading tabs of the
// chapter names, and the item model the outline view shows. Main thread.
//
// A name without a leading tab is a top-level topic; one tab makes a topic below the last
// top-level one; two tabs make a plain entry (no children) below the last one-tab topic. Every
// chapter has an item in chapterMap, also one the outline does not show (a one-tab name before any
// top-level name, a two-tab name before any one-tab name), so that chapter i is always item i.
#pragma once

#include <QAbstractItemModel>
#include <QStringList>

#include <memory>
#include <vector>

struct KSHelpTopic {
    QString name; // the heading without its leading tabs
    int level = 0; // 0 or 1 for a topic; 2 for a plain entry
    int index = 0; // the chapter
    bool plain = false; // a third-level entry: a plain string, never expandable
    KSHelpTopic *parent = nullptr; // null at the top level and for items not shown
    std::vector<KSHelpTopic *> topics; // children, in chapter order
    bool shown = true; // false for an item dropped from the outline
};

class KSHelpTopics {
public:
    // Builds the outline from the chapter names in chapter order.
    explicit KSHelpTopics(const QStringList &chapterNames);
    KSHelpTopics(const KSHelpTopics &) = delete;
    KSHelpTopics &operator=(const KSHelpTopics &) = delete;

    const std::vector<KSHelpTopic *> &topics() const { return m_topics; }
    // Item i is chapter i's.
    const std::vector<KSHelpTopic *> &chapterMap() const { return m_chapterMap; }
    bool expandable(const KSHelpTopic *item) const { return item && !item->plain && !item->topics.empty(); }

private:
    std::vector<std::unique_ptr<KSHelpTopic>> m_items;
    std::vector<KSHelpTopic *> m_topics;
    std::vector<KSHelpTopic *> m_chapterMap;
};

// The outline's data source: the children of the root are the top-level topics, the children of
// a topic its "topics"; the value shown is the name. Nothing is editable.
class KSHelpTopicModel : public QAbstractItemModel {
    Q_OBJECT
public:
    explicit KSHelpTopicModel(QObject *parent = nullptr);
    // Replaces the outline (null for none); the model does not own it.
    void setTopics(const KSHelpTopics *topics);
    const KSHelpTopics *topicOutline() const { return m_topics; }

    QModelIndex indexForItem(const KSHelpTopic *item) const;
    static KSHelpTopic *itemForIndex(const QModelIndex &index);

    QModelIndex index(int row, int column, const QModelIndex &parent = {}) const override;
    QModelIndex parent(const QModelIndex &child) const override;
    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;
    bool hasChildren(const QModelIndex &parent = {}) const override;

private:
    const std::vector<KSHelpTopic *> &childrenOf(const QModelIndex &parent) const;
    const KSHelpTopics *m_topics = nullptr;
};
