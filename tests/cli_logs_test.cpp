// The logs command through the real binary: the program writes its own log from start-up on, and
// the command prints what a problem report would gather, or says that there is nothing.
#include "keelson/KSUserDefaults.h"
#include "tests/support/TestSupport.h"

#include <QRegularExpression>

using namespace tanner::test;

TEST(CommandLineLogs, NothingToGatherIsAnErrorThenTheOwnLogIsPrinted)
{
    ScopedXdgHome home;
    const ProcessResult empty = RunTanner({QStringLiteral("logs")}, home.environment());
    if (empty.exitCode == 0)
        GTEST_SKIP() << "this machine has crash reports or log lines of tanner-backup: "
                     << empty.out.left(200).toStdString();
    EXPECT_EQ(empty.exitCode, 1);
    EXPECT_EQ(QString::fromUtf8(empty.err),
        QStringLiteral("tanner-backup: No log information.\n"
                       "  I could not find any crash reports or log entries for tanner-backup.\n"));

    {
        auto settings = OpenSettingsFile(home.settingsFile());
        WriteStringList(*settings, QStringLiteral("twbackup.ignoreFiles"), {QStringLiteral("x")});
    }
    ASSERT_EQ(RunTanner({QStringLiteral("folders")}, home.environment()).exitCode, 0);

    const ProcessResult gathered = RunTanner({QStringLiteral("logs")}, home.environment());
    ASSERT_EQ(gathered.exitCode, 0) << gathered.err.toStdString();
    const QRegularExpression record(
        QStringLiteral(
            R"(^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d com\.tannerwick\.backup Ignoring the rule "x" of the setting twbackup\.ignoreFiles: it is too short\.$)"),
        QRegularExpression::MultilineOption);
    EXPECT_TRUE(record.match(QString::fromUtf8(gathered.out)).hasMatch()) << gathered.out.toStdString();
}
