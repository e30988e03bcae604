// The update and news checks without a window: the downloads page's link scan and the versions,
// the automatic schedule, the news cuts, and real transfers from an HTTP server on 127.0.0.1
// (the worker thread and the two commands of the program).
#include "keelson/KSKernel.h"
#include "keelson/KSUserDefaults.h"
#include "keelson/net/KSAppUpdaterThread.h"
#include "keelson/net/KSNewsText.h"
#include "keelson/net/KSUpdateCheck.h"
#include "tests/support/LoopbackHttpServer.h"
#include "tests/support/TestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

using namespace tanner::test;
using namespace std::chrono_literals;

namespace {

QString Listing(const QStringList &links)
{
    QString page = QStringLiteral("<html><body><h1>Downloads</h1>\n");
    for (const QString &link : links)
        page += QStringLiteral("<p><a href=\"%1\">%1</a></p>\n").arg(link);
    return page + QStringLiteral("</body></html>\n");
}

QString Newest(const QStringList &links)
{
    const auto found = NewestReleaseLink(Listing(links), QStringLiteral("backup"));
    return found ? found->link : QString();
}

QDateTime Local(int y, int m, int d, int h = 0, int min = 0)
{
    return QDateTime(QDate(y, m, d), QTime(h, min));
}

QStringList FilesIn(const QString &folder)
{
    return QDir(folder).entryList(QDir::Files | QDir::Hidden | QDir::System);
}

// The worker threads run event loops, which need an application object.
QCoreApplication &EnsureCoreApplication()
{
    static int argc = 1;
    static char name[] = "update-check-test";
    static char *argv[] = {name, nullptr};
    static QCoreApplication *application = new QCoreApplication(argc, argv);
    return *application;
}

// Runs a thread to its end, from a thread that has no event loop of its own.
void RunThread(KSAppUpdaterThread &thread)
{
    thread.start();
    ASSERT_TRUE(thread.wait(60000));
}

const char kNewsPage[] = "<html><head><title>News</title><style>p { }</style></head><body>\n"
                         "<h1>Tannerwick News</h1>\n"
                         "<p>11/20/2026 Tanner Backup 1.1 keeps <a href=\"https://example.invalid/x\">"
                         "modes</a> &amp; times.</p>\n"
                         "<p>11/3/2026 A new   help\nbook.</p>\n"
                         "<p>10/1/2026 Autumn.</p>\n"
                         "<p>See the Tannerwick page for older news</p>\n"
                         "</body></html>\n";

} // namespace

TEST(UpdateCheck, TheLinkScanFollowsEveryRule)
{
    // 1.2.10 is newer than 1.2.9, though shorter in text order.
    EXPECT_EQ(Newest({"backup_129.deb", "backup_1210.deb", "backup_128.zip"}), u"backup_1210.deb");
    // The product key ignores case, and so does the anchor; .zip counts like .deb.
    EXPECT_EQ(NewestReleaseLink(QStringLiteral("<A HREF=\"BackUp_305.zip\">x</A>"), QStringLiteral("backup"))->link,
        u"BackUp_305.zip");
    // Links that nearly qualify: too short, no digit third, a non-digit major or minor, another
    // extension, another product, no "_", a longer name before the "_".
    EXPECT_EQ(Newest({"backup_12.deb", "backup_1a9.deb", "backup_x29.deb", "backup_1y9.deb", "backup_999.dmg",
                  "backup_999.deb.sig", "backups_999.deb", "backup999.deb", "tanner_backup_999.deb", "b_999.zip"}),
        QString());
    // Of equal versions the earlier link wins; the patch is read up to its first non-digit.
    EXPECT_EQ(Newest({"backup_120.deb", "backup_120.zip"}), u"backup_120.deb");
    EXPECT_EQ(NewestReleaseLink(Listing({"backup_123b9.deb"}), QStringLiteral("backup"))->version.text(), u"1.2.3");
    // A link without its closing quote ends the scan.
    EXPECT_FALSE(NewestReleaseLink(QStringLiteral("<a href=\"backup_129.deb"), QStringLiteral("backup")));
}

TEST(UpdateCheck, InstalledVersionsAndTheFinding)
{
    EXPECT_EQ(ProductKey(QStringLiteral("Tanner Backup")), u"backup");
    EXPECT_EQ(ProductKey(QStringLiteral("Tanner Backup Pro")), u"backup");
    EXPECT_FALSE(ProductKey(QStringLiteral("Backup")));

    const QString page = QStringLiteral("http://127.0.0.1/downloads");
    const QString listing = Listing({"backup_129.deb", "backup_1210.deb"});
    KSUpdateFinding found = CheckForNewVersion(listing, QStringLiteral("Tanner Backup"), QStringLiteral("1.2.9"), page);
    EXPECT_EQ(found.updatePath, page + QStringLiteral("/backup_1210.deb"));
    EXPECT_EQ(found.version.text(), u"1.2.10");
    EXPECT_EQ(
        CheckForNewVersion(listing, QStringLiteral("Tanner Backup"), QStringLiteral("1.2.10"), page + u'/').updatePath,
        QString());
    EXPECT_EQ(
        CheckForNewVersion(listing, QStringLiteral("Tanner Backup"), QStringLiteral("1.2.8"), page + u'/').updatePath,
        page + QStringLiteral("/backup_1210.deb"));

    // 2.1.b3 counts as 2.1.0: a 2.1 release is not newer, 2.1.1 is; "%d.%d" without a patch.
    EXPECT_EQ(InstalledVersion(QStringLiteral("2.1.b3"))->value(), 2010000);
    EXPECT_EQ(
        CheckForNewVersion(Listing({"backup_210.deb"}), QStringLiteral("Tanner Backup"), QStringLiteral("2.1.b3"), page)
            .updatePath,
        QString());
    EXPECT_EQ(
        CheckForNewVersion(Listing({"backup_211.deb"}), QStringLiteral("Tanner Backup"), QStringLiteral("2.1.b3"), page)
            .version.text(),
        u"2.1.1");
    EXPECT_EQ((KSVersion {3, 0, 0}).text(), u"3.0");
    // Four parts give no installed version, so nothing is offered.
    EXPECT_FALSE(InstalledVersion(QStringLiteral("1.2.3.4")));
    EXPECT_EQ(CheckForNewVersion(
                  Listing({"backup_999.deb"}), QStringLiteral("Tanner Backup"), QStringLiteral("1.2.3.4"), page)
                  .updatePath,
        QString());
    EXPECT_EQ(CheckForNewVersion(Listing({"backup_999.deb"}), QStringLiteral("Backup"), QStringLiteral("1.0"), page)
                  .updatePath,
        QString());
}

TEST(UpdateCheck, WeeklyAndMonthlySchedulesAcrossMonthEnds)
{
    EXPECT_TRUE(UpdateCheckDue(0, false, Local(2026, 11, 24)));
    // Checked on Monday 28 December 2026 in the afternoon: due from Monday 4 January at midnight.
    const qint64 monday = Local(2026, 12, 28, 15, 30).toSecsSinceEpoch();
    EXPECT_FALSE(UpdateCheckDue(monday, false, Local(2027, 1, 3, 23, 59)));
    EXPECT_TRUE(UpdateCheckDue(monday, false, Local(2027, 1, 4, 0, 0)));
    EXPECT_FALSE(UpdateCheckDue(monday, true, Local(2027, 1, 27)));
    EXPECT_TRUE(UpdateCheckDue(monday, true, Local(2027, 1, 28)));
    // Monthly from 31 January: the end of February, in a common and in a leap year.
    const qint64 january = Local(2027, 1, 31, 9).toSecsSinceEpoch();
    EXPECT_FALSE(UpdateCheckDue(january, true, Local(2027, 2, 27, 23)));
    EXPECT_TRUE(UpdateCheckDue(january, true, Local(2027, 2, 28)));
    const qint64 leap = Local(2028, 1, 31, 9).toSecsSinceEpoch();
    EXPECT_FALSE(UpdateCheckDue(leap, true, Local(2028, 2, 28, 23)));
    EXPECT_TRUE(UpdateCheckDue(leap, true, Local(2028, 2, 29)));
}

TEST(NewsText, ItemsDatesAndCuts)
{
    const KSStyledText page = StyledTextFromPage(QString::fromUtf8(kNewsPage));
    ASSERT_EQ(page.links.size(), 1);
    EXPECT_EQ(page.text.mid(page.links[0].start, page.links[0].length), u"modes");

    // Nothing seen yet: every item, without the heading before them or the closing line.
    KSStyledText all = page;
    int latest = 0;
    ASSERT_TRUE(HandleNewsText(all, 0, &latest));
    EXPECT_EQ(latest, 20261120);
    EXPECT_EQ(
        all.text, u"11/20/2026 Tanner Backup 1.1 keeps modes & times.\n11/3/2026 A new help book.\n10/1/2026 Autumn.");
    EXPECT_TRUE(all.links.isEmpty());

    // Seen up to 3 November: only the newer item.
    KSStyledText newer = page;
    ASSERT_TRUE(HandleNewsText(newer, 20261103, &latest));
    EXPECT_EQ(newer.text, u"11/20/2026 Tanner Backup 1.1 keeps modes & times.");
    // Nothing newer than what was seen: the whole list again.
    KSStyledText same = page;
    ASSERT_TRUE(HandleNewsText(same, 20261120, &latest));
    EXPECT_EQ(same.text, all.text);

    // Lines that only look like dates are no items; without a closing line only white space goes.
    KSStyledText none {QStringLiteral("13/1/2026 x\n12/32/2026 y\n1/1/26 z\n x 1/1/2026\n"), {}};
    EXPECT_FALSE(HandleNewsText(none, 0, &latest));
    KSStyledText plain {QStringLiteral("Intro\n2/29/2028 Leap.\n\n  \n"), {}};
    ASSERT_TRUE(HandleNewsText(plain, 0, &latest));
    EXPECT_EQ(plain.text, u"2/29/2028 Leap.");
    EXPECT_EQ(latest, 20280229);
    EXPECT_EQ(NewsDateText(20261103), u"November 3, 2026");
}

class UpdateTransfer : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.listening());
        KSAppUpdaterThread::setTimeouts(2000ms, 2000ms);
    }
    void TearDown() override { KSAppUpdaterThread::setTimeouts(30000ms, 600000ms); }

    QCoreApplication &application = EnsureCoreApplication(); // before the server's thread runs its loop
    LoopbackHttpServer server;
    QTemporaryDir downloads;
};

TEST_F(UpdateTransfer, CheckFindsTheNewestReleaseAndFailuresSayWhy)
{
    g_appName = QStringLiteral("Tanner Backup");
    g_appVersionString = QStringLiteral("1.2.9");
    server.setRoute(
        QStringLiteral("/downloads"), {200, Listing({"backup_129.deb", "backup_1210.deb", "backup_12.deb"}).toUtf8()});
    KSAppUpdaterThread check;
    check.checkPage = server.url(QStringLiteral("/downloads"));
    RunThread(check);
    ASSERT_TRUE(check.wasSuccessful()) << check.failureReason().toStdString();
    EXPECT_EQ(check.updatePath(), server.url(QStringLiteral("/downloads/backup_1210.deb")));
    EXPECT_EQ(check.downloadVersion().text(), u"1.2.10");

    KSAppUpdaterThread missing;
    missing.checkPage = server.url(QStringLiteral("/nothing"));
    RunThread(missing);
    EXPECT_FALSE(missing.wasSuccessful());
    EXPECT_TRUE(missing.failureReason().contains(u"Not Found")) << missing.failureReason().toStdString();

    // A server that sends its headers and then nothing: the short time-out ends the check.
    server.setRoute(QStringLiteral("/stall"), {200, QByteArray(5000, 'x'), "text/html", true, 10});
    KSAppUpdaterThread::setTimeouts(300ms, 300ms);
    KSAppUpdaterThread stalled;
    stalled.checkPage = server.url(QStringLiteral("/stall"));
    QElapsedTimer clock;
    clock.start();
    RunThread(stalled);
    EXPECT_FALSE(stalled.wasSuccessful());
    EXPECT_EQ(stalled.failureReason(), u"The server did not answer in time.");
    EXPECT_LT(clock.elapsed(), 10000);
}

TEST_F(UpdateTransfer, DownloadsWithAndWithoutLengthAndFailuresLeaveNoFile)
{
    QByteArray release(3 * 1024 * 1024 + 17, '\0');
    for (qsizetype i = 0; i < release.size(); ++i)
        release[i] = char(i * 7 % 251);
    server.setRoute(QStringLiteral("/d/backup_1210.deb"), {200, release, "application/octet-stream"});
    server.setRoute(QStringLiteral("/d/backup_1211.deb"), {200, release, "application/octet-stream", false});

    for (const char *name : {"backup_1210.deb", "backup_1211.deb"}) {
        KSAppUpdaterThread download;
        download.downloadPath = server.url(QStringLiteral("/d/") + QLatin1String(name));
        download.downloadFolder = downloads.path();
        RunThread(download);
        ASSERT_TRUE(download.wasSuccessful()) << download.failureReason().toStdString();
        EXPECT_EQ(download.downloadedFile(), downloads.filePath(QLatin1String(name)));
        QFile file(download.downloadedFile());
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        EXPECT_TRUE(file.readAll() == release);
        EXPECT_EQ(download.doneLength(), release.size());
        // Only the response with a Content-Length tells the total.
        EXPECT_EQ(download.totalLength(), qstrcmp(name, "backup_1210.deb") == 0 ? release.size() : 0);
    }
    // The same name again does not overwrite the first download.
    KSAppUpdaterThread again;
    again.downloadPath = server.url(QStringLiteral("/d/backup_1210.deb"));
    again.downloadFolder = downloads.path();
    RunThread(again);
    EXPECT_EQ(again.downloadedFile(), downloads.filePath(QStringLiteral("backup_1210 (2).deb")));

    const QString failures = downloads.filePath(QStringLiteral("failures"));
    // A 404 writes nothing.
    KSAppUpdaterThread missing;
    missing.downloadPath = server.url(QStringLiteral("/d/backup_1300.deb"));
    missing.downloadFolder = failures;
    RunThread(missing);
    EXPECT_FALSE(missing.wasSuccessful());
    EXPECT_TRUE(FilesIn(failures).isEmpty()) << FilesIn(failures).join(u' ').toStdString();

    // A download that stalls midway times out and deletes what it had written.
    server.setRoute(QStringLiteral("/d/backup_1400.deb"), {200, release, "application/octet-stream", true, 200000});
    KSAppUpdaterThread::setTimeouts(300ms, 300ms);
    KSAppUpdaterThread stalled;
    stalled.downloadPath = server.url(QStringLiteral("/d/backup_1400.deb"));
    stalled.downloadFolder = failures;
    RunThread(stalled);
    EXPECT_FALSE(stalled.wasSuccessful());
    EXPECT_EQ(stalled.doneLength(), 200000);
    EXPECT_TRUE(FilesIn(failures).isEmpty()) << FilesIn(failures).join(u' ').toStdString();

    // Cancelled midway, with the transfer still open: no file is left.
    KSAppUpdaterThread::setTimeouts(20000ms, 20000ms);
    KSAppUpdaterThread cancelled;
    cancelled.downloadPath = server.url(QStringLiteral("/d/backup_1400.deb"));
    cancelled.downloadFolder = failures;
    cancelled.start();
    QElapsedTimer clock;
    clock.start();
    while (cancelled.doneLength() < 200000 && clock.elapsed() < 10000)
        QThread::msleep(5);
    EXPECT_EQ(FilesIn(failures), QStringList {QStringLiteral("backup_1400.deb")});
    cancelled.cancel();
    ASSERT_TRUE(cancelled.wait(10000));
    EXPECT_LT(clock.elapsed(), 10000);
    EXPECT_FALSE(cancelled.wasSuccessful());
    EXPECT_TRUE(cancelled.wasCancelled());
    EXPECT_TRUE(FilesIn(failures).isEmpty()) << FilesIn(failures).join(u' ').toStdString();
}

TEST_F(UpdateTransfer, CommandsCheckUpdatesAndNews)
{
    ScopedXdgHome home;
    {
        auto shared = OpenSettingsFile(SharedDefaultsPath());
        shared->setValue(QStringLiteral("ks.downloadsPage"), server.url(QStringLiteral("/downloads")));
        shared->setValue(QStringLiteral("ks.newsPage"), server.url(QStringLiteral("/news")));
    }
    const QString installed = QStringLiteral(TANNER_VERSION_STRING);
    const std::optional<KSVersion> version = InstalledVersion(installed);
    ASSERT_TRUE(version);
    const QString same
        = QStringLiteral("backup_%1%2%3.deb").arg(version->major).arg(version->minor).arg(version->patch);
    const QString newer
        = QStringLiteral("backup_%1%2%3.deb").arg(version->major).arg(version->minor).arg(version->patch + 1);

    server.setRoute(QStringLiteral("/downloads"), {200, Listing({same}).toUtf8()});
    ProcessResult result = RunTanner({QStringLiteral("check-updates")}, home.environment());
    EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_EQ(
        QString::fromUtf8(result.out), QStringLiteral("Tanner Backup %1 is the newest version.\n").arg(installed));
    // The successful check is remembered in the application's own settings.
    EXPECT_GT(OpenSettingsFile(home.settingsFile())
                  ->value(QStringLiteral("com.tannerwick.shared.lastUpdateCheck"))
                  .toLongLong(),
        1700000000);

    server.setRoute(QStringLiteral("/downloads"), {200, Listing({same, newer}).toUtf8()});
    result = RunTanner({QStringLiteral("check-updates"), QStringLiteral("--json")}, home.environment());
    EXPECT_EQ(result.exitCode, 10) << result.err.toStdString();
    const QJsonObject update = QJsonDocument::fromJson(result.out).object();
    EXPECT_EQ(update.value(QStringLiteral("address")).toString(), server.url(QStringLiteral("/downloads/")) + newer);
    EXPECT_EQ(update.value(QStringLiteral("installed")).toString(), installed);
    EXPECT_TRUE(update.value(QStringLiteral("error")).isNull());

    server.setRoute(QStringLiteral("/downloads"), {404, "gone"});
    result = RunTanner({QStringLiteral("check-updates")}, home.environment());
    EXPECT_EQ(result.exitCode, 2);
    EXPECT_TRUE(result.err.startsWith("tanner-backup: The update check failed.\n  ")) << result.err.toStdString();
    EXPECT_EQ(RunTanner({QStringLiteral("check-updates"), QStringLiteral("now")}, home.environment()).exitCode, 64);

    // News: everything the first time, then only what is newer than what was shown.
    server.setRoute(QStringLiteral("/news"), {200, kNewsPage});
    result = RunTanner({QStringLiteral("news")}, home.environment());
    EXPECT_EQ(result.exitCode, 0) << result.err.toStdString();
    EXPECT_TRUE(result.out.startsWith("11/20/2026 Tanner Backup 1.1 keeps modes & times.\n11/3/2026"))
        << result.out.toStdString();
    EXPECT_FALSE(result.out.contains("older news"));
    result = RunTanner({QStringLiteral("news")}, home.environment());
    EXPECT_EQ(QString::fromUtf8(result.out), u"There is no news since November 20, 2026.\n");
    {
        auto shared = OpenSettingsFile(SharedDefaultsPath());
        shared->setValue(QStringLiteral("com.tannerwick.shared.lastNewsDate"), 20261003);
    }
    result = RunTanner({QStringLiteral("news"), QStringLiteral("--json")}, home.environment());
    const QJsonObject news = QJsonDocument::fromJson(result.out).object();
    const QJsonArray items = news.value(QStringLiteral("items")).toArray();
    ASSERT_EQ(items.size(), 2) << result.out.toStdString();
    EXPECT_EQ(items[1].toObject().value(QStringLiteral("date")).toString(), u"2026-11-03");
    EXPECT_EQ(items[1].toObject().value(QStringLiteral("text")).toString(), u"11/3/2026 A new help book.");
    EXPECT_EQ(news.value(QStringLiteral("latest")).toString(), u"2026-11-20");
    EXPECT_EQ(
        OpenSettingsFile(SharedDefaultsPath())->value(QStringLiteral("com.tannerwick.shared.lastNewsDate")).toInt(),
        20261120);
}

// What a hostile server can send: a huge page or one without end fails at the page limit, a page
// that trickles fails at the check's deadline, and a version of absurd length is no version.
TEST_F(UpdateTransfer, AServerCannotFloodOrHoldACheck)
{
    g_appName = QStringLiteral("Tanner Backup");
    g_appVersionString = QStringLiteral("2.0.1");
    const QString digits = QStringLiteral("9").repeated(10000);
    EXPECT_FALSE(NewestReleaseLink(Listing({"backup_19" + digits + ".deb"}), QStringLiteral("backup")));
    EXPECT_EQ(Newest({"backup_19" + digits + ".deb", "backup_201.deb"}), u"backup_201.deb");
    EXPECT_EQ(Newest({"backup_1910000.deb", "backup_199999.deb"}), u"backup_199999.deb");
    EXPECT_EQ(CheckForNewVersion(Listing({"backup_19" + digits + ".deb", "backup_1910000.deb"}),
                  QStringLiteral("Tanner Backup"), QStringLiteral("2.0.1"), QStringLiteral("http://127.0.0.1"))
                  .updatePath,
        QString());
    EXPECT_FALSE(InstalledVersion(QStringLiteral("1.2.") + digits));

    KSAppUpdaterThread::setCheckLimits(120000ms, 1 << 20);
    const QByteArray big = Listing({"backup_999.deb"}).toUtf8() + QByteArray(3 << 20, ' ');
    server.setRoute(QStringLiteral("/big"), {200, big});
    server.setRoute(QStringLiteral("/endless"), {200, big, "text/html", false});
    for (const char *path : {"/big", "/endless"}) {
        SCOPED_TRACE(path);
        KSAppUpdaterThread check;
        check.checkPage = server.url(QLatin1String(path));
        RunThread(check);
        EXPECT_FALSE(check.wasSuccessful());
        EXPECT_EQ(check.failureReason(), u"The page is larger than a page of the site can be.");
        EXPECT_LE(check.doneLength(), 1 << 20);
    }

    // Silent for longer than the deadline, though not for longer than the idle time-out.
    KSAppUpdaterThread::setTimeouts(60000ms, 60000ms);
    KSAppUpdaterThread::setCheckLimits(300ms, 1 << 20);
    server.setRoute(QStringLiteral("/slow"), {200, QByteArray(5000, 'x'), "text/html", true, 10});
    KSAppUpdaterThread slow;
    slow.checkPage = server.url(QStringLiteral("/slow"));
    QElapsedTimer clock;
    clock.start();
    RunThread(slow);
    EXPECT_FALSE(slow.wasSuccessful());
    EXPECT_EQ(slow.failureReason(), u"The server did not answer in time.");
    EXPECT_LT(clock.elapsed(), 30000);
    KSAppUpdaterThread::setCheckLimits(120000ms, 4 << 20);
}
