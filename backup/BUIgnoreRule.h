// One ignore rule: compares one string of an item's name with `name`, without regard to case.
// For files it looks at the extension (useExtension) or at the name without it; for folders at
// the whole name. Stored as a short archive string: '0' + useExtension, '0' + relation, name.
// Plain value type; rules are read by the analysis thread while no one edits them.
#pragma once

#include <QList>
#include <QString>

class BUIgnoreRule {
public:
    enum Relation : int32_t { kIs = 0, kContains = 1, kStartsWith = 2, kEndsWith = 3 };

    BUIgnoreRule() = default;
    // No validation: an odd relation character gives a rule that never matches and keeps its
    // character when archived again. The caller rejects strings shorter than two characters.
    explicit BUIgnoreRule(const QString &archive);

    QString archive() const;
    // True when the rule matches, i.e. the item is to be ignored.
    bool filterItem(const QString &itemName, bool checkExtension) const;
    // Name rules before extension rules, then names without regard to case; equal names with
    // different relations each claim to come after the other (never equal).
    int compare(const BUIgnoreRule &other) const;
    bool isEqual(const BUIgnoreRule &other) const { return compare(other) == 0; }

    bool useExtension() const { return m_useExtension != 0; }
    void setUseExtension(bool value) { m_useExtension = value ? 1 : 0; }
    const QString &name() const { return m_name; }
    void setName(const QString &value) { m_name = value; }
    int32_t relation() const { return m_relation; }
    void setRelation(int32_t value) { m_relation = value; }

    // The word the rule list shows for a relation ("is", "contains", ...), empty for others.
    static QString relationWord(int32_t relation);
    // The two built-in tables as archive strings, in their stored order.
    static const QStringList &defaultFolderRules();
    static const QStringList &defaultFileRules();

private:
    int8_t m_useExtension = 0;
    QString m_name;
    int32_t m_relation = kIs;
};

using BURuleList = QList<BUIgnoreRule>;

// The line the rule list shows: "Name is "Caches"" for folder rules, "Extension is "tmp"" or
// "Name contains ".plist"" for file rules.
QString RuleDisplayText(const BUIgnoreRule &rule, bool fileDomain);

// The analysis's question: does the first matching rule of the domain ignore this item?
// checkExtension is true for files, false for folders.
bool IsIgnored(const BURuleList &rules, const QString &itemName, bool checkExtension);
// Appends each archive's rule unless an equal one is there, then sorts the list (default rules).
void AddRulesMerging(BURuleList &rules, const QStringList &archives);
void SortRules(BURuleList &rules);
