// The application's help package as the build makes it, and `tanner-backup help` reading it in the
// terminal: through the real binary, on the real package beside it and on the fixture package.
#include "tests/support/TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>

using namespace tanner::test;

namespace {

QString PackagePath()
{
    return QFileInfo(QStringLiteral(TANNER_BINARY)).absolutePath() + QStringLiteral("/Help.TWwrite");
}

QString SourceRoot()
{
    return QDir::cleanPath(QStringLiteral(TANNER_TEST_DATA_DIR "/../.."));
}

QStringList Lines(const QByteArray &bytes)
{
    QStringList lines = QString::fromUtf8(bytes).split(u'\n');
    if (!lines.isEmpty() && lines.last().isEmpty())
        lines.removeLast();
    return lines;
}

void FlattenOutline(const QJsonArray &topics, int level, QStringList &into)
{
    for (const QJsonValue &topic : topics) {
        if (topic.isString()) {
            into.append(QString(level * 2, u' ') + topic.toString());
            continue;
        }
        into.append(QString(level * 2, u' ') + topic[QStringLiteral("name")].toString());
        FlattenOutline(topic[QStringLiteral("topics")].toArray(), level + 1, into);
    }
}

class HelpCommand : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!QFileInfo(PackagePath()).isDir())
            GTEST_SKIP() << "no help package at " << PackagePath().toStdString() << " (it is built with the program)";
    }

    ProcessResult help(const QStringList &args)
    {
        return RunTanner(QStringList {QStringLiteral("help")} + args, home.environment());
    }

    QJsonObject loaded()
    {
        const ProcessResult checked = help({QStringLiteral("--check"), PackagePath(), QStringLiteral("--json")});
        EXPECT_EQ(checked.exitCode, 0) << checked.err.toStdString();
        return QJsonDocument::fromJson(checked.out).object();
    }

    ScopedXdgHome home;
};

} // namespace

TEST_F(HelpCommand, ThePackageLoadsWithEveryPictureHeadingAndLink)
{
    const QJsonObject document = loaded();
    ASSERT_FALSE(document.isEmpty());

    // Every picture the manual's source names is in the package and loads.
    QSet<QString> named;
    const QRegularExpression picture(QStringLiteral("^!\\[.*\\]\\(([^)]+)\\)"), QRegularExpression::MultilineOption);
    QDirIterator sources(SourceRoot() + QStringLiteral("/resources/help"), {QStringLiteral("*.md")});
    while (sources.hasNext()) {
        QFile file(sources.next());
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        auto matches = picture.globalMatch(QString::fromUtf8(file.readAll()));
        while (matches.hasNext())
            named.insert(matches.next().captured(1));
    }
    ASSERT_GE(named.size(), 5);
    QSet<QString> packaged;
    for (const QJsonValue &entry : document[QStringLiteral("pictures")].toArray()) {
        EXPECT_TRUE(entry[QStringLiteral("loaded")].toBool()) << entry[QStringLiteral("file")].toString().toStdString();
        packaged.insert(entry[QStringLiteral("file")].toString());
    }
    EXPECT_EQ(packaged, named);

    // A chapter's heading level and its name's leading tabs agree; every link leads to a bookmark.
    const QJsonArray chapters = document[QStringLiteral("chapters")].toArray();
    const qsizetype bookmarks = document[QStringLiteral("bookmarks")].toArray().size();
    ASSERT_GE(chapters.size(), 50);
    int heading = 0, links = 0;
    for (const QJsonValue &knot : document[QStringLiteral("knots")].toArray()) {
        const QString type = knot[QStringLiteral("type")].toString();
        if (type == u"chapter" && knot[QStringLiteral("kink")].toString() == u"beg") {
            const QString name = chapters[heading++][QStringLiteral("name")].toString();
            const int tabs = int(name.size() - QStringView(name).trimmed().size());
            EXPECT_EQ(knot[QStringLiteral("primary")].toInt(), 17 + tabs) << name.toStdString();
        } else if (type == u"link") {
            ++links;
            EXPECT_LT(knot[QStringLiteral("secondary")].toInt(), bookmarks);
        }
    }
    EXPECT_EQ(heading, chapters.size());
    EXPECT_GT(links, 50);
}

TEST_F(HelpCommand, TopicsAreListedShownAndSearched)
{
    // The outline is the help window's.
    QStringList outline;
    FlattenOutline(loaded()[QStringLiteral("outline")].toArray(), 0, outline);
    const ProcessResult listed = help({});
    ASSERT_EQ(listed.exitCode, 0) << listed.err.toStdString();
    EXPECT_EQ(Lines(listed.out), outline);

    // A topic by the start of its name in any case: wrapped, its examples as they are, its subtopics.
    const ProcessResult rules = help({QStringLiteral("IGNORE"), QStringLiteral("rules")});
    ASSERT_EQ(rules.exitCode, 0) << rules.err.toStdString();
    const QStringList lines = Lines(rules.out);
    EXPECT_EQ(lines.first(), QStringLiteral("Ignore rules"));
    EXPECT_TRUE(lines.contains(QStringLiteral("Subtopics:")));
    EXPECT_TRUE(lines.contains(QStringLiteral("  The example picker")));
    const QStringList root = Lines(help({QStringLiteral("the volumes")}).out);
    EXPECT_TRUE(root.contains(QStringLiteral("    TANNER_VOLUMES_ROOT=/mnt tanner-backup")));
    EXPECT_TRUE(root.contains(QStringLiteral("  \u2022 otherwise /media/USER/ (Debian, Ubuntu and most others),")));
    for (const QString &line : lines + root) {
        if (!line.startsWith(QStringLiteral("    "))) {
            EXPECT_LE(line.size(), 78) << line.toStdString();
        }
    }

    // A search needs all the words; the line that holds them comes under a topic found in its text.
    const ProcessResult found = help({QStringLiteral("--search"), QStringLiteral("Volumes ROOT")});
    ASSERT_EQ(found.exitCode, 0) << found.err.toStdString();
    const QStringList hits = Lines(found.out);
    EXPECT_TRUE(hits.contains(QStringLiteral("The volumes root")));
    const qsizetype device = hits.indexOf(QStringLiteral("What counts as a device"));
    ASSERT_GE(device, 0);
    ASSERT_LT(device + 1, hits.size());
    EXPECT_TRUE(hits[device + 1].contains(QStringLiteral("volumes root"))) << hits[device + 1].toStdString();
    for (const QString &hit : hits)
        EXPECT_TRUE(hit.startsWith(u' ') || outline.contains(hit) || outline.contains(QStringLiteral("  ") + hit));

    const ProcessResult none = help({QStringLiteral("--search"), QStringLiteral("volumes"), QStringLiteral("zebra")});
    EXPECT_EQ(none.exitCode, 2);
    EXPECT_TRUE(none.out.isEmpty());
    EXPECT_TRUE(none.err.contains("No topic holds all of \"volumes zebra\".")) << none.err.toStdString();
    const ProcessResult missing = help({QStringLiteral("rules for nothing")});
    EXPECT_EQ(missing.exitCode, 2);
    EXPECT_TRUE(missing.err.contains("No topic begins with \"rules for nothing\".")) << missing.err.toStdString();
}

TEST_F(HelpCommand, AnotherPackageAndWrongArguments)
{
    const QString fixture = QStringLiteral(TANNER_TEST_DATA_DIR "/help/Good.TWwrite");
    ProcessResult checked = help({QStringLiteral("--check"), fixture});
    ASSERT_EQ(checked.exitCode, 0) << checked.err.toStdString();
    QStringList outline = Lines(checked.out);
    outline.removeLast(); // the counts
    const ProcessResult listed = help({QStringLiteral("--file"), fixture});
    EXPECT_EQ(listed.exitCode, 0) << listed.err.toStdString();
    EXPECT_EQ(Lines(listed.out), outline);

    const ProcessResult damaged = help({QStringLiteral("--file"), home.path() + QStringLiteral("/None.TWwrite")});
    EXPECT_EQ(damaged.exitCode, 2);
    EXPECT_TRUE(damaged.err.contains("Can't read help file: The document has been damaged."))
        << damaged.err.toStdString();

    for (const QStringList &wrong : {QStringList {QStringLiteral("--search")}, QStringList {QStringLiteral("--file")},
             QStringList {QStringLiteral("--bogus"), QStringLiteral("rules")}}) {
        const ProcessResult refused = help(wrong);
        EXPECT_EQ(refused.exitCode, 64) << wrong.join(u' ').toStdString();
        EXPECT_TRUE(refused.err.contains("help takes a topic")) << refused.err.toStdString();
    }
}
