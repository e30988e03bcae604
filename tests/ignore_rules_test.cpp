// Ignore rules: matching by relation and domain, archive strings, ordering and default merging.
#include "backup/BUIgnoreRule.h"
#include "tests/support/TestSupport.h"

namespace {

bool IgnoresFile(const char *archive, const char *name)
{
    return BUIgnoreRule(QString::fromUtf8(archive)).filterItem(QString::fromUtf8(name), true);
}

bool IgnoresFolder(const char *archive, const char *name)
{
    return BUIgnoreRule(QString::fromUtf8(archive)).filterItem(QString::fromUtf8(name), false);
}

} // namespace

TEST(IgnoreRule, MatchingFilesAndFolders)
{
    EXPECT_TRUE(IgnoresFolder("00Applications", "applications"));
    EXPECT_TRUE(IgnoresFolder("00Applications", "APPLICATIONS"));
    EXPECT_FALSE(IgnoresFolder("00Applications", "Applications2"));
    EXPECT_TRUE(IgnoresFolder("10Foo", "Foo")); // folder rules look at the whole name
    EXPECT_TRUE(IgnoresFolder("01DeviceSupport", "iOS DeviceSupport"));
    EXPECT_TRUE(IgnoresFolder("02SyncService", "SyncServices"));
    EXPECT_TRUE(IgnoresFolder("03ache", "Cache"));

    EXPECT_TRUE(IgnoresFile("10log", "system.log"));
    EXPECT_TRUE(IgnoresFile("10log", "a.LOG"));
    EXPECT_FALSE(IgnoresFile("10log", "log"));
    EXPECT_FALSE(IgnoresFile("10log", "catalog.txt"));
    EXPECT_TRUE(IgnoresFile("01.plist", "report.plist.tmp"));
    EXPECT_TRUE(IgnoresFile("10tmp", "report.plist.tmp"));
    EXPECT_FALSE(IgnoresFile("01.plist", "report.plist"));
    EXPECT_TRUE(IgnoresFile("00Foo", "Foo.txt"));
    EXPECT_TRUE(IgnoresFile("00Foo", "Foo"));
    EXPECT_TRUE(IgnoresFile("12sb-", "notes.txt.sb-1a2b3c4d-XyZ"));
    EXPECT_TRUE(IgnoresFile("10caf\u00E9", "menu.CAFE\u0301"));

    // Empty names: only "is" matches, and only an empty subject. Odd relations never match.
    EXPECT_TRUE(IgnoresFile("10", "README"));
    EXPECT_FALSE(IgnoresFile("11", "README"));
    EXPECT_FALSE(IgnoresFile("07log", "a.log"));
    EXPECT_FALSE(IgnoresFile("0Xlog", "log"));
}

TEST(IgnoreRule, ArchivesRoundTripEvenWhenOdd)
{
    for (const char *archive : {"00Applications", "12sb-", "01.plist", "00Metadata Backup", "0Xodd", "9912"}) {
        const QString text = QString::fromUtf8(archive);
        EXPECT_EQ(BUIgnoreRule(text).archive(), text);
    }
    const BUIgnoreRule rule(QStringLiteral("12sb-"));
    EXPECT_TRUE(rule.useExtension());
    EXPECT_EQ(rule.relation(), BUIgnoreRule::kStartsWith);
    EXPECT_EQ(rule.name(), QStringLiteral("sb-"));
    EXPECT_TRUE(BUIgnoreRule(QStringLiteral("2Xa")).useExtension()); // anything but '0' counts as set
}

TEST(IgnoreRule, OrderingEqualityAndDefaults)
{
    EXPECT_TRUE(BUIgnoreRule(QStringLiteral("00Music")).isEqual(BUIgnoreRule(QStringLiteral("00music"))));
    EXPECT_FALSE(BUIgnoreRule(QStringLiteral("00Music")).isEqual(BUIgnoreRule(QStringLiteral("01Music"))));
    // Equal names with different relations each claim to come after the other.
    EXPECT_EQ(BUIgnoreRule(QStringLiteral("00Music")).compare(BUIgnoreRule(QStringLiteral("01Music"))), 1);
    EXPECT_EQ(BUIgnoreRule(QStringLiteral("01Music")).compare(BUIgnoreRule(QStringLiteral("00Music"))), 1);

    BURuleList files;
    AddRulesMerging(
        files, {QStringLiteral("10zip"), QStringLiteral("00beta"), QStringLiteral("10Apk"), QStringLiteral("00Alpha")});
    QStringList archives;
    for (const BUIgnoreRule &rule : files)
        archives.append(rule.archive());
    EXPECT_EQ(archives,
        (QStringList {
            QStringLiteral("00Alpha"), QStringLiteral("00beta"), QStringLiteral("10Apk"), QStringLiteral("10zip")}));

    // A second installation of the defaults adds only what is missing; the user's rules stay.
    BURuleList folders {BUIgnoreRule(QStringLiteral("00caches")), BUIgnoreRule(QStringLiteral("00Projects"))};
    AddRulesMerging(folders, BUIgnoreRule::defaultFolderRules());
    EXPECT_EQ(folders.size(), 22);
    AddRulesMerging(folders, BUIgnoreRule::defaultFolderRules());
    EXPECT_EQ(folders.size(), 22);
    EXPECT_TRUE(IsIgnored(folders, QStringLiteral("CACHES"), false));
    EXPECT_TRUE(IsIgnored(folders, QStringLiteral("projects"), false));
    EXPECT_FALSE(IsIgnored(folders, QStringLiteral("Documents"), false));
    EXPECT_FALSE(IsIgnored({}, QStringLiteral("anything"), true));
}
