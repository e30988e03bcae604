// The update and news dialogs driven as a person would, against an HTTP server on 127.0.0.1:
// every pane of the update dialog, a download with its progress, reveal, failure and cancel,
// the silent automatic checks, and news fetched at most once a day by its hourly timer.
#include "keelson/KSDayIndex.h"
#include "keelson/KSKernel.h"
#include "keelson/KSUserDefaults.h"
#include "keelson/gui/KSAppUpdater.h"
#include "keelson/gui/KSNewsUpdater.h"
#include "keelson/gui/KSWorkspace.h"
#include "keelson/net/KSAppUpdaterThread.h"
#include "keelson/net/KSUpdateCheck.h"
#include "tests/support/GuiTestSupport.h"
#include "tests/support/LoopbackHttpServer.h"
#include "tests/support/TestSupport.h"

#include <QCheckBox>
#include <QDialog>
#include <QDir>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QStackedWidget>
#include <QTextBrowser>

using namespace tanner::test;
using namespace std::chrono_literals;

namespace {

// Runs `script` once, from inside whatever modal loop shows `window`; closes the window after it
// so that a failed expectation never leaves a test waiting on a dialog.
void WhenShown(QDialog *window, std::function<void()> script)
{
    auto *poll = new QTimer(window);
    QObject::connect(poll, &QTimer::timeout, window, [poll, window, script = std::move(script)] {
        if (!window->isVisible())
            return;
        poll->stop();
        poll->deleteLater();
        script();
        if (window->isVisible())
            window->done(QDialog::Rejected);
    });
    poll->start(10);
}

template <typename T> T *Child(QDialog *window, const char *name)
{
    T *child = window->findChild<T *>(QLatin1String(name));
    EXPECT_NE(child, nullptr) << name;
    return child;
}

QByteArray Listing(const QStringList &links)
{
    QString page = QStringLiteral("<html><body>\n");
    for (const QString &link : links)
        page += QStringLiteral("<a href=\"%1\">%1</a><br>\n").arg(link);
    return (page + QStringLiteral("</body></html>\n")).toUtf8();
}

class UpdateDialogs : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server.listening());
        g_appName = QStringLiteral("Tanner Backup");
        g_appVersionString = QStringLiteral("1.2.9");
        auto shared = OpenSettingsFile(SharedDefaultsPath());
        shared->setValue(QStringLiteral("ks.downloadsPage"), server.url(QStringLiteral("/downloads")));
        shared->setValue(QStringLiteral("ks.newsPage"), server.url(QStringLiteral("/news")));
        KSSetWorkspaceTestHook([this](const QString &what) { revealed.append(what); });
    }
    void TearDown() override
    {
        KSSetWorkspaceTestHook(nullptr);
        KSAppUpdaterThread::setTimeouts(30000ms, 600000ms);
    }

    QApplication &application = EnsureApplication(); // before the server's thread runs its loop
    ScopedXdgHome home;
    LoopbackHttpServer server;
    QStringList revealed;
};

} // namespace

TEST_F(UpdateDialogs, EveryPaneOfTheUpdateDialog)
{
    QByteArray release(3 * 1048576, 'r');
    server.setRoute(QStringLiteral("/downloads"), {200, Listing({"backup_129.deb", "backup_1210.deb"})});
    server.setRoute(QStringLiteral("/downloads/backup_1210.deb"), {200, release, "application/octet-stream"});
    KSAppUpdater &updater = KSAppUpdater::sharedInstance();
    QDialog *window = updater.window();
    ASSERT_NE(window, nullptr);
    auto *proceed = Child<QPushButton>(window, "proceedButton");
    auto *cancel = Child<QPushButton>(window, "cancelButton");
    for (QLabel *label : window->findChildren<QLabel *>())
        EXPECT_FALSE(label->text().contains(u"###") && label->objectName() != u"availableField")
            << label->objectName().toStdString();

    // Main pane: the check boxes write the shared settings; then a check finds 1.2.10 and the
    // download goes into the download folder with its progress, and is revealed.
    WhenShown(window, [&] {
        EXPECT_EQ(updater.currentPane(), KSAppUpdater::kMainPane);
        EXPECT_EQ(proceed->text(), u"Check Now");
        Child<QCheckBox>(window, "autoCheckBox")->click();
        Child<QCheckBox>(window, "monthlyCheckBox")->click();
        proceed->click();
        EXPECT_EQ(updater.currentPane(), KSAppUpdater::kCheckingPane);
        ASSERT_TRUE(WaitUntil([&] { return updater.currentPane() == KSAppUpdater::kAvailablePane; }));
        EXPECT_EQ(Child<QLabel>(window, "availableField")->text(),
            u"Version 1.2.10 can be downloaded now. It goes into your download folder, which opens when the download "
            u"is complete.");
        proceed->click();
        EXPECT_EQ(updater.currentPane(), KSAppUpdater::kDownloadPane);
        ASSERT_TRUE(WaitUntil([&] { return !window->isVisible(); }));
    });
    updater.displayUpdateDialog();
    EXPECT_TRUE(KSUpdateSettings::autoUpdate());
    EXPECT_TRUE(KSUpdateSettings::autoUpdateMonthly());
    const QString downloaded = home.path() + QStringLiteral("/home/Downloads/backup_1210.deb");
    EXPECT_EQ(revealed, QStringList {downloaded});
    EXPECT_EQ(QFileInfo(downloaded).size(), release.size());
    EXPECT_EQ(Child<QLabel>(window, "downloadAmountField")->text(), u"3.00 MB of 3.00 MB");
    EXPECT_EQ(Child<QProgressBar>(window, "downloadSpinner")->maximum(), release.size());
    EXPECT_GT(KSUpdateSettings::lastUpdateCheck(), 0);

    // A successful check was made today: the timer's next firing asks nothing.
    const int checks = server.requestCount(QStringLiteral("/downloads"));
    updater.autoCheckTimerFired();
    EXPECT_FALSE(updater.isWorking());
    EXPECT_EQ(server.requestCount(QStringLiteral("/downloads")), checks);

    // Up to date, then a failed check; each answered with OK.
    g_appVersionString = QStringLiteral("1.2.10");
    WhenShown(window, [&] {
        proceed->click();
        ASSERT_TRUE(WaitUntil([&] { return updater.currentPane() == KSAppUpdater::kUpToDatePane; }));
        EXPECT_EQ(proceed->text(), u"OK");
        proceed->click();
        EXPECT_FALSE(window->isVisible());
    });
    updater.displayUpdateDialog();
    server.setRoute(QStringLiteral("/downloads"), {404, "gone"});
    WhenShown(window, [&] {
        proceed->click();
        ASSERT_TRUE(WaitUntil([&] { return updater.currentPane() == KSAppUpdater::kCheckFailedPane; }));
        EXPECT_TRUE(Child<QLabel>(window, "checkFailedReasonField")->text().contains(u"Not Found"));
    });
    updater.displayUpdateDialog();

    // An automatic check that fails shows nothing.
    ASSERT_FALSE(window->isVisible());
    updater.startCheck(false);
    ASSERT_TRUE(WaitUntil([&] { return !updater.isWorking(); }));
    EXPECT_FALSE(window->isVisible());

    // A download that fails shows its pane and leaves no file; one cancelled midway neither.
    g_appVersionString = QStringLiteral("1.2.9");
    server.setRoute(QStringLiteral("/downloads"), {200, Listing({"backup_1300.deb"})});
    WhenShown(window, [&] {
        proceed->click();
        ASSERT_TRUE(WaitUntil([&] { return updater.currentPane() == KSAppUpdater::kAvailablePane; }));
        proceed->click();
        ASSERT_TRUE(WaitUntil([&] { return updater.currentPane() == KSAppUpdater::kDownloadFailedPane; }));
        EXPECT_TRUE(Child<QLabel>(window, "downloadFailedReasonField")->text().contains(u"Not Found"));
    });
    updater.displayUpdateDialog();
    EXPECT_FALSE(QFileInfo::exists(home.path() + QStringLiteral("/home/Downloads/backup_1300.deb")));

    server.setRoute(QStringLiteral("/downloads"), {200, Listing({"backup_1400.deb"})});
    server.setRoute(
        QStringLiteral("/downloads/backup_1400.deb"), {200, release, "application/octet-stream", false, 1048576});
    const QString partial = home.path() + QStringLiteral("/home/Downloads/backup_1400.deb");
    WhenShown(window, [&] {
        proceed->click();
        ASSERT_TRUE(WaitUntil([&] { return updater.currentPane() == KSAppUpdater::kAvailablePane; }));
        proceed->click();
        // Without a length the amount stands alone and the bar counts up to 5 MiB.
        ASSERT_TRUE(WaitUntil([&] { return Child<QLabel>(window, "downloadAmountField")->text() == u"1.00 MB"; }));
        EXPECT_EQ(Child<QProgressBar>(window, "downloadSpinner")->maximum(), 5242880);
        EXPECT_TRUE(QFileInfo::exists(partial));
        cancel->click();
        EXPECT_FALSE(window->isVisible());
    });
    updater.displayUpdateDialog();
    ASSERT_TRUE(WaitUntil([&] { return !updater.isWorking(); }));
    EXPECT_FALSE(QFileInfo::exists(partial));
    EXPECT_EQ(revealed.size(), 1);
}

TEST_F(UpdateDialogs, NewsAtMostOnceADayAndOnDemand)
{
    server.setRoute(QStringLiteral("/news"),
        {200,
            "<html><body><h2>News</h2><p>11/20/2026 Version 1.1 is out.</p><p>11/3/2026 A new help book.</p>"
            "<p>All the older news</p></body></html>"});
    KSUpdateSettings::setLastNewsDate(20261103);
    KSUpdateSettings::setAutoNewsCheck(true);
    KSNewsUpdater &news = KSNewsUpdater::sharedInstance();
    QDialog *window = news.window();
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(window->windowTitle(), u"Check for Tannerwick News");
    auto *proceed = Child<QPushButton>(window, "proceedButton");
    auto *text = Child<QTextBrowser>(window, "newsField");

    // The first firing of the hourly timer fetches and shows what is newer than the last item shown.
    bool shown = false;
    WhenShown(window, [&] {
        shown = true;
        EXPECT_EQ(news.currentPane(), KSNewsUpdater::kNewsPane);
        EXPECT_EQ(text->toPlainText(), u"11/20/2026 Version 1.1 is out.");
        EXPECT_EQ(Child<QLabel>(window, "dateField")->text(), u"November 20, 2026");
        proceed->click();
    });
    news.startAutoCheck();
    ASSERT_TRUE(WaitUntil([&] { return shown && !news.isWorking(); }));
    EXPECT_EQ(KSUpdateSettings::lastNewsDate(), 20261120);
    EXPECT_EQ(KSUpdateSettings::lastNewsCheck(), DayIndexForToday());
    // However often it fires again today, nothing more is fetched.
    for (int i = 0; i < 5; ++i) {
        news.autoCheckTimerFired();
        EXPECT_FALSE(news.isWorking());
    }
    EXPECT_EQ(news.today(), DayIndexForToday());
    EXPECT_EQ(server.requestCount(QStringLiteral("/news")), 1);

    // On demand with nothing newer: the whole news, without the page's closing line.
    WhenShown(window, [&] {
        EXPECT_EQ(news.currentPane(), KSNewsUpdater::kMainPane);
        EXPECT_TRUE(Child<QCheckBox>(window, "autoCheckBox")->isChecked());
        proceed->click();
        ASSERT_TRUE(WaitUntil([&] { return news.currentPane() == KSNewsUpdater::kNewsPane; }));
        EXPECT_EQ(text->toPlainText(), u"11/20/2026 Version 1.1 is out.\n11/3/2026 A new help book.");
        proceed->click();
    });
    news.displayUpdateDialog();

    // A failure is shown when asked for, and kept quiet on the timer (which a new day allows).
    server.setRoute(QStringLiteral("/news"), {404, "gone"});
    WhenShown(window, [&] {
        proceed->click();
        ASSERT_TRUE(WaitUntil([&] { return news.currentPane() == KSNewsUpdater::kFailedPane; }));
        EXPECT_FALSE(Child<QLabel>(window, "failedReasonField")->text().isEmpty());
    });
    news.displayUpdateDialog();
    KSUpdateSettings::setLastNewsCheck(AddToDayIndex(DayIndexForToday(), 0, -1));
    const int before = server.requestCount(QStringLiteral("/news"));
    news.autoCheckTimerFired();
    ASSERT_TRUE(WaitUntil([&] { return !news.isWorking(); }));
    EXPECT_EQ(server.requestCount(QStringLiteral("/news")), before + 1);
    EXPECT_FALSE(window->isVisible());
}
