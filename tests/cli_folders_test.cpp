// The command line's folder and rule lists, through the real binary and a real settings file.
#include "tests/support/TestSupport.h"

#include <QDir>
#include <QFile>

using namespace tanner::test;

namespace {

QString Text(const QByteArray &bytes)
{
    return QString::fromUtf8(bytes);
}

} // namespace

TEST(CommandLineFolders, FirstRunInstallsHomeAndDefaultsThenDuplicateNamesAreRefused)
{
    ScopedXdgHome home;
    const QString a = home.path() + QStringLiteral("/a/Photos"), b = home.path() + QStringLiteral("/b/photos");
    QDir().mkpath(a);
    QDir().mkpath(b);

    ProcessResult listed = RunTanner({QStringLiteral("folders")}, home.environment());
    ASSERT_EQ(listed.exitCode, 0) << listed.err.toStdString();
    EXPECT_EQ(Text(listed.out), QDir::homePath() + QStringLiteral("\n"));

    ProcessResult added = RunTanner({QStringLiteral("folders"), QStringLiteral("add"), a, b, a}, home.environment());
    EXPECT_EQ(added.exitCode, 1);
    EXPECT_TRUE(Text(added.err).contains(QStringLiteral("Can't add a backup folder.")));
    EXPECT_TRUE(Text(added.err).contains(QStringLiteral("A folder named \"photos\" is already in the backup list.")));

    listed = RunTanner({QStringLiteral("folders")}, home.environment());
    EXPECT_EQ(Text(listed.out), QDir::homePath() + u'\n' + a + u'\n');

    ProcessResult removed = RunTanner(
        {QStringLiteral("folders"), QStringLiteral("remove"), QStringLiteral("PHOTOS")}, home.environment());
    EXPECT_EQ(removed.exitCode, 0);
    removed = RunTanner(
        {QStringLiteral("folders"), QStringLiteral("remove"), QStringLiteral("nothing")}, home.environment());
    EXPECT_EQ(removed.exitCode, 1);
    EXPECT_TRUE(Text(removed.err).contains(QStringLiteral("There is no backup folder \"nothing\".")));
}

TEST(CommandLineRules, AddMergeSortRemoveAndRejectMalformed)
{
    ScopedXdgHome home;
    const QProcessEnvironment env = home.environment();
    ProcessResult result = RunTanner({QStringLiteral("rules"), QStringLiteral("files")}, env);
    ASSERT_EQ(result.exitCode, 0);
    QStringList lines = Text(result.out).split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 10);
    EXPECT_EQ(lines.front(), QStringLiteral("Name contains \".plist\"")); // name rules first
    EXPECT_EQ(lines.back(), QStringLiteral("Extension is \"tmp\""));

    EXPECT_EQ(
        RunTanner({QStringLiteral("rules"), QStringLiteral("add-file"), QStringLiteral("00Aardvark")}, env).exitCode,
        0);
    EXPECT_EQ(
        RunTanner({QStringLiteral("rules"), QStringLiteral("add-file"), QStringLiteral("10TMP")}, env).exitCode, 0);
    result = RunTanner({QStringLiteral("rules"), QStringLiteral("add-file"), QStringLiteral("9")}, env);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(Text(result.err).contains(QStringLiteral("\"9\" is not a rule.")));

    result = RunTanner({QStringLiteral("rules"), QStringLiteral("files")}, env);
    lines = Text(result.out).split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 11); // 10TMP merged with 10tmp
    EXPECT_EQ(lines[1], QStringLiteral("Name is \"Aardvark\"")); // after ".plist": "." sorts before letters

    EXPECT_EQ(
        RunTanner({QStringLiteral("rules"), QStringLiteral("remove-folder"), QStringLiteral("00music")}, env).exitCode,
        0);
    result = RunTanner({QStringLiteral("rules"), QStringLiteral("folders")}, env);
    EXPECT_FALSE(Text(result.out).contains(QStringLiteral("\"Music\"")));
    EXPECT_EQ(RunTanner({QStringLiteral("rules"), QStringLiteral("add-defaults")}, env).exitCode, 0);
    result = RunTanner({QStringLiteral("rules"), QStringLiteral("folders")}, env);
    EXPECT_EQ(Text(result.out).split(u'\n', Qt::SkipEmptyParts).size(), 21);

    result = RunTanner({QStringLiteral("bogus")}, env);
    EXPECT_NE(result.exitCode, 0);
    EXPECT_TRUE(Text(result.err).contains(QStringLiteral("unknown command")));
    result = RunTanner({QStringLiteral("--help")}, env);
    EXPECT_EQ(result.exitCode, 0);
    for (const char *command :
        {"folders add", "folders remove", "rules add-folder", "rules remove-file", "rules add-defaults"})
        EXPECT_TRUE(Text(result.out).contains(QLatin1String(command))) << command;
}
