// The Help menu's commands: logs to the clipboard and into a mail, the contact link, the About
// box (with the application's icon), and what the window does when a volume is mounted while it is open.
#include "keelson/KSKernel.h"
#include "keelson/KSLogger.h"
#include "keelson/KSMakerAddresses.h"
#include "keelson/gui/KSActionHandler.h"
#include "keelson/gui/KSAlert.h"
#include "keelson/gui/KSWorkspace.h"
#include "tests/support/GuiTestSupport.h"
#include "tests/support/TestSupport.h"
#include "ui/BUDesktopApplication.h"

#include <QClipboard>
#include <QDialog>
#include <QLabel>
#include <QUrl>

using namespace tanner::test;

namespace {

class HelpMenu : public ::testing::Test {
protected:
    void SetUp() override
    {
        EnsureApplication();
        KSKernel::sharedInstance();
        KSSetWorkspaceTestHook([this](const QString &what) { opened.append(what); });
        KSAlert::setTestAnswerer([this](const KSAlert::Shown &shown) {
            alerts.append(shown.message + u'|' + shown.moreInfo);
            return 1000;
        });
        KSLogger &logger = KSLogger::sharedInstance();
        logger.sources.crashFolders = {};
        logger.sources.coredumpctl = QStringLiteral("/nonexistent/coredumpctl");
        logger.sources.journalctl = QStringLiteral("/nonexistent/journalctl");
        logger.sources.systemLog = home.path() + QStringLiteral("/no-syslog");
        logger.sources.ownLog = home.path() + QStringLiteral("/own.log");
        logger.alertHook = [](const QString &message, const QString &moreInfo) {
            KSAlert::sharedInstance().giveAlertMessage(message, moreInfo);
        };
    }
    void TearDown() override
    {
        KSSetWorkspaceTestHook({});
        KSAlert::setTestAnswerer({});
    }

    ScopedXdgHome home;
    QStringList opened;
    QStringList alerts;
};

} // namespace

TEST_F(HelpMenu, LogsGoToTheClipboardAndIntoAMail)
{
    KSActionHandler &handler = KSActionHandler::sharedInstance();
    QGuiApplication::clipboard()->setText(QStringLiteral("before"));
    handler.copyLogs(); // nothing to gather: the user is told, the clipboard is left alone
    EXPECT_EQ(QGuiApplication::clipboard()->text(), QStringLiteral("before"));
    ASSERT_EQ(alerts.size(), 1);
    EXPECT_TRUE(alerts.front().startsWith(QStringLiteral("No log information.|")));

    WriteTree(
        home.path(), {{QStringLiteral("own.log"), "2026-11-22 08:00:00 com.tannerwick.backup Backup & restore\n"}});
    handler.copyLogs();
    EXPECT_TRUE(QGuiApplication::clipboard()->text().contains(QStringLiteral("Backup & restore")));
    handler.emailLogs();
    ASSERT_EQ(opened.size(), 1);
    const QString link = opened.front();
    EXPECT_TRUE(
        link.startsWith(QStringLiteral("mailto:") + SupportMailAddress() + QStringLiteral("?subject=Logs%20for%20")));
    EXPECT_TRUE(link.contains(QStringLiteral("Backup%20%26%20restore"))); // "&" cannot end the body
    EXPECT_EQ(link.count(u'&'), 1);
}

TEST_F(HelpMenu, ContactLinkAndAboutBox)
{
    WriteTree(home.configPath() + QStringLiteral("/Tannerwick"),
        {{QStringLiteral("com.tannerwick.shared.conf"), "[General]\nks.supportAddress=help@127.0.0.1\n"}});
    KSActionHandler::sharedInstance().contactTannerwick(true);
    ASSERT_EQ(opened.size(), 1);
    EXPECT_TRUE(opened.front().startsWith(QStringLiteral("mailto:help@127.0.0.1?subject=Problem%20report%20")))
        << opened.front().toStdString();
    EXPECT_TRUE(opened.front().contains(QStringLiteral("Tanner%20Backup%20")));
    EXPECT_TRUE(opened.front().contains(QStringLiteral("&body=---%20Please%20do%20not%20delete%20this%20line")));

    QString aboutLine;
    QTimer::singleShot(0, [&] {
        for (QWidget *w : QApplication::topLevelWidgets()) {
            if (w->objectName() == QStringLiteral("aboutDialog") && w->isVisible()) {
                aboutLine = w->findChild<QLabel *>(QStringLiteral("aboutStringLabel"))->text();
                static_cast<QDialog *>(w)->accept();
            }
        }
    });
    KSActionHandler::sharedInstance().showAbout(nullptr);
    EXPECT_EQ(aboutLine, QStringLiteral("Manual backup for paranoid control freaks."));
}

TEST_F(HelpMenu, TheAboutBoxShowsTheApplicationsIcon)
{
    // The icon is built into the window's code in every size a desktop asks for.
    const QIcon icon = ApplicationIcon();
    for (int size : {16, 32, 64, 256})
        EXPECT_EQ(icon.pixmap(size).size(), QSize(size, size)) << size;
    const QImage expected = icon.pixmap(64).toImage();
    ASSERT_FALSE(expected.isNull());
    const QIcon previous = QApplication::windowIcon();
    QApplication::setWindowIcon(icon);
    QImage shown;
    QTimer::singleShot(0, [&] {
        for (QWidget *w : QApplication::topLevelWidgets()) {
            if (w->objectName() == QStringLiteral("aboutDialog") && w->isVisible()) {
                shown = w->findChild<QLabel *>(QStringLiteral("aboutIconLabel"))->pixmap().toImage();
                static_cast<QDialog *>(w)->accept();
            }
        }
    });
    KSActionHandler::sharedInstance().showAbout(nullptr);
    QApplication::setWindowIcon(previous);
    EXPECT_EQ(shown.convertToFormat(QImage::Format_ARGB32), expected.convertToFormat(QImage::Format_ARGB32));
}
