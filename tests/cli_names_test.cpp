// The command line on names and devices as a Linux user meets them: backup folders whose names are
// not UTF-8, a backup folder on the device itself, a device mounted read-only, the extra items in
// JSON.
#include "tests/EngineTestHelpers.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

using namespace tanner::test;

namespace {

class CommandLineNamesTest : public DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        if (IsSkipped())
            return;
        m_env = m_home.environment();
        m_env.insert(QStringLiteral("TANNER_VOLUMES_ROOT"), m_volumes.path());
    }
    ProcessResult tanner(const QList<QByteArray> &args) { return RunTannerWithBytes(args, m_env); }

    ScopedXdgHome m_home;
    QProcessEnvironment m_env;
};

} // namespace

// A folder named in Latin-1 bytes is added, listed, kept in the settings and backed up under its
// very bytes, like any other; so is one written into the settings file by hand.
TEST_F(CommandLineNamesTest, FoldersWhoseNamesAreNotUtf8)
{
    mountDevice();
    const QByteArray cafe = FileNameToBytes(m_sources.path()) + "/Caf\xe9";
    ASSERT_EQ(::mkdir(cafe.constData(), 0755), 0);
    WriteFileBytes(cafe + "/menu\xa0.txt", "soup");
    ProcessResult result = tanner({"folders", "add", cafe});
    ASSERT_EQ(result.exitCode, 0) << result.err.toStdString();
    ASSERT_EQ(tanner({"folders", "remove", "home"}).exitCode, 0);
    result = tanner({"folders"});
    EXPECT_EQ(result.out, cafe + '\n');
    result = tanner({"backup", "Dev"});
    EXPECT_EQ(result.exitCode, 0) << result.out.toStdString() << result.err.toStdString();
    EXPECT_EQ(MirrorDifferences(FileNameFromBytes(cafe), device(QStringLiteral("Caf")) + QChar(char16_t(0xDCE9))),
        QStringList());
    EXPECT_EQ(tanner({"analyze", "Dev"}).out, "The backup device is up to date\n");

    // By hand: the settings file holds the raw bytes of the path.
    const QByteArray other = FileNameToBytes(m_sources.path()) + "/Na\xefve";
    ASSERT_EQ(::mkdir(other.constData(), 0755), 0);
    QDir().mkpath(m_home.configPath() + QStringLiteral("/Tannerwick"));
    WriteFileBytes(FileNameToBytes(m_home.settingsFile()), "[General]\ntwbackup.folders=" + other + "\n");
    result = tanner({"folders"});
    EXPECT_EQ(result.out, other + '\n') << "not missing";
}

// A backup folder on the device itself, or a device mounted read-only, is refused with its reason;
// the extra items' error in JSON gives one too.
TEST_F(CommandLineNamesTest, RefusalsSayWhy)
{
    mountDevice();
    WriteTree(device(), {{"Stuff/only-copy.txt", "x"}});
    const QByteArray onDevice = FileNameToBytes(device(QStringLiteral("Stuff")));
    ASSERT_EQ(tanner({"folders", "add", onDevice}).exitCode, 0);
    ASSERT_EQ(tanner({"folders", "remove", "home"}).exitCode, 0);
    ProcessResult result = tanner({"backup", "Dev"});
    EXPECT_NE(result.exitCode, 0);
    EXPECT_TRUE(result.err.contains("because the backup folder \"" + onDevice
        + "\" is on that device itself, and a backup must be kept apart from its original."))
        << result.err.toStdString();
    EXPECT_TRUE(QFile::exists(device(QStringLiteral("Stuff/only-copy.txt"))));

    ASSERT_EQ(tanner({"folders", "remove", "Stuff"}).exitCode, 0);
    ASSERT_EQ(tanner({"folders", "add", FileNameToBytes(source())}).exitCode, 0);
    result = tanner({"analyze", "Dev", "--json"});
    const QJsonObject report = QJsonDocument::fromJson(result.out).object();
    EXPECT_EQ(report.value(QStringLiteral("error")).toString(),
        QStringLiteral("I can't backup to \"Dev\" because its top level holds items that are not mirrors of the "
                       "backup folders."));
    RemoveItemAt(AT_FDCWD, onDevice.constData(), nullptr);

    ASSERT_TRUE(RemountReadOnly(device()));
    result = tanner({"backup", "Dev"});
    EXPECT_NE(result.exitCode, 0);
    EXPECT_TRUE(result.err.contains("I can't backup to \"Dev\" because it is mounted read-only."))
        << result.err.toStdString();
    EXPECT_FALSE(result.err.contains("ejected"));
}

// On a device that ignores case, the analysis already says which copy the backup will refuse, and
// why: in the listing and in JSON.
TEST_F(CommandLineNamesTest, TheAnalysisSaysWhichCopiesCaseRulesOut)
{
    bool mounted = false;
    for (const QString &kind :
        {QStringLiteral("fusefat"), QStringLiteral("exfat-fuse"), QStringLiteral("ext4-casefold")})
        mounted = mounted || mountDeviceOfKind(kind);
    if (!mounted)
        GTEST_SKIP() << "no file system that ignores case can be mounted here";
    WriteTree(source(), {{"Twin/f", "folder"}, {"twin", "file"}, {"plain.txt", "p"}});
    ASSERT_EQ(tanner({"folders", "add", FileNameToBytes(source())}).exitCode, 0);
    ASSERT_EQ(tanner({"folders", "remove", "home"}).exitCode, 0);
    const QString reason
        = QStringLiteral("The device ignores case, so \"Twin\" and \"twin\" can't both be kept on it.");
    ProcessResult result = tanner({"analyze", "Dev"});
    EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
    const QByteArray twin = FileNameToBytes(source(QStringLiteral("twin")));
    EXPECT_TRUE(result.out.contains("Copy\tfile\t" + twin + '\t' + reason.toUtf8() + '\n')) << result.out.toStdString();
    EXPECT_TRUE(result.out.contains("Copy\tfile\t" + FileNameToBytes(source(QStringLiteral("plain.txt"))) + '\n'));

    result = tanner({"analyze", "Dev", "--json"});
    int checked = 0;
    for (const QJsonValue row :
        QJsonDocument::fromJson(result.out).object().value(QStringLiteral("transactions")).toArray()) {
        const QJsonObject transaction = row.toObject();
        const QString path = transaction.value(QStringLiteral("path")).toString();
        if (path.endsWith(QStringLiteral("/twin"))) {
            EXPECT_EQ(transaction.value(QStringLiteral("conflict")).toString(), reason);
            ++checked;
        } else if (path.endsWith(QStringLiteral("/plain.txt"))) {
            EXPECT_TRUE(transaction.value(QStringLiteral("conflict")).isNull());
            ++checked;
        }
    }
    EXPECT_EQ(checked, 2) << result.out.toStdString();
}
