#include "backup/BUIgnoreRule.h"

#include "keelson/FormatString.h"
#include "keelson/KSStrings.h"

#include <algorithm>

BUIgnoreRule::BUIgnoreRule(const QString &archive)
{
    if (archive.size() >= 1)
        m_useExtension = static_cast<int8_t>(archive[0].unicode() - u'0');
    if (archive.size() >= 2)
        m_relation = int32_t(archive[1].unicode()) - 48;
    m_name = archive.size() > 2 ? archive.sliced(2) : QString();
}

QString BUIgnoreRule::archive() const
{
    return FormatString("%C%C%@", char16_t(u'0' + m_useExtension), char16_t(u'0' + m_relation), m_name);
}

bool BUIgnoreRule::filterItem(const QString &itemName, bool checkExtension) const
{
    QString subject = itemName;
    if (checkExtension)
        subject = m_useExtension ? PathExtension(itemName) : DeletingPathExtension(itemName);
    switch (m_relation) {
    case kIs:
        return CaseInsensitiveCompare(subject, m_name) == KSOrderedSame;
    case kContains:
        return CaseInsensitiveFind(subject, m_name, KSSearchAnchor::None);
    case kStartsWith:
        return CaseInsensitiveFind(subject, m_name, KSSearchAnchor::Start);
    case kEndsWith:
        return CaseInsensitiveFind(subject, m_name, KSSearchAnchor::End);
    default:
        return false;
    }
}

int BUIgnoreRule::compare(const BUIgnoreRule &other) const
{
    const bool mine = m_useExtension != 0, theirs = other.m_useExtension != 0;
    if (mine != theirs)
        return mine ? KSOrderedDescending : KSOrderedAscending;
    const int byName = CaseInsensitiveCompare(m_name, other.m_name);
    if (byName != KSOrderedSame)
        return byName;
    return m_relation == other.m_relation ? KSOrderedSame : KSOrderedDescending;
}

QString BUIgnoreRule::relationWord(int32_t relation)
{
    switch (relation) {
    case kIs:
        return QStringLiteral("is");
    case kContains:
        return QStringLiteral("contains");
    case kStartsWith:
        return QStringLiteral("starts with");
    case kEndsWith:
        return QStringLiteral("ends with");
    default:
        return {};
    }
}

const QStringList &BUIgnoreRule::defaultFolderRules()
{
    static const QStringList rules = {
        QStringLiteral("00Applications"),
        QStringLiteral("00Backups"),
        QStringLiteral("00Caches"),
        QStringLiteral("00CrashReporter"),
        QStringLiteral("00Downloads"),
        QStringLiteral("01DeviceSupport"),
        QStringLiteral("00Dropbox"),
        QStringLiteral("00Firefox"),
        QStringLiteral("00Google"),
        QStringLiteral("00Logs"),
        QStringLiteral("00Metadata Backup"),
        QStringLiteral("00MobileSync"),
        QStringLiteral("00Mozilla"),
        QStringLiteral("00Music"),
        QStringLiteral("00Previous iTunes Libraries"),
        QStringLiteral("00Printers"),
        QStringLiteral("00PubSub"),
        QStringLiteral("00Safari"),
        QStringLiteral("00Saved Application State"),
        QStringLiteral("02SyncService"),
        QStringLiteral("00Wuala"),
    };
    return rules;
}

const QStringList &BUIgnoreRule::defaultFileRules()
{
    static const QStringList rules = {
        QStringLiteral("10cache"),
        QStringLiteral("10crash"),
        QStringLiteral("10db"),
        QStringLiteral("10download"),
        QStringLiteral("10hang"),
        QStringLiteral("10lockfile"),
        QStringLiteral("10log"),
        QStringLiteral("01.plist"),
        QStringLiteral("12sb-"),
        QStringLiteral("10tmp"),
    };
    return rules;
}

QString RuleDisplayText(const BUIgnoreRule &rule, bool fileDomain)
{
    const QString relation = BUIgnoreRule::relationWord(rule.relation());
    if (!fileDomain)
        return FormatString("Name %@ \"%@\"", relation, rule.name());
    return FormatString("%@ %@ \"%@\"", rule.useExtension() ? QStringLiteral("Extension") : QStringLiteral("Name"),
        relation, rule.name());
}

bool IsIgnored(const BURuleList &rules, const QString &itemName, bool checkExtension)
{
    return std::any_of(rules.begin(), rules.end(),
        [&](const BUIgnoreRule &rule) { return rule.filterItem(itemName, checkExtension); });
}

void AddRulesMerging(BURuleList &rules, const QStringList &archives)
{
    for (const QString &archive : archives) {
        const BUIgnoreRule rule(archive);
        const bool present
            = std::any_of(rules.begin(), rules.end(), [&](const BUIgnoreRule &r) { return r.isEqual(rule); });
        if (!present)
            rules.append(rule);
    }
    SortRules(rules);
}

void SortRules(BURuleList &rules)
{
    // compare() is deliberately not a strict weak order for equal names with different
    // relations; a stable sort on "ascending" alone stays well defined with it.
    std::stable_sort(rules.begin(), rules.end(),
        [](const BUIgnoreRule &a, const BUIgnoreRule &b) { return a.compare(b) == KSOrderedAscending; });
}
