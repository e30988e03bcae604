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
    // The system as it names itself.
    EXPECT_TRUE(opened.front().contains(
        QString::fromLatin1(QUrl::toPercentEncoding(KSActionHandler::SystemName(), "/:@!$'()*+,;=-._~"))))
        << opened.front().toStdString();
    EXPECT_FALSE(opened.front().contains(QStringLiteral("Mac")));
    WriteTree(home.path(),
        {{QStringLiteral("pretty"), "ID=debian\nPRETTY_NAME=\"Debian GNU/Linux 12 (bookworm)\"\nNAME=Debian\n"},
            {QStringLiteral("plain"), "NAME='Tanner OS'\nVERSION_ID=4.2\n"}});
    EXPECT_EQ(KSActionHandler::SystemName(home.path() + QStringLiteral("/pretty")),
        QStringLiteral("Debian GNU/Linux 12 (bookworm)"));
    EXPECT_EQ(KSActionHandler::SystemName(home.path() + QStringLiteral("/plain")), QStringLiteral("Tanner OS 4.2"));
    EXPECT_EQ(KSActionHandler::SystemName(home.path() + QStringLiteral("/none")), QStringLiteral("Linux"));

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

TEST_F(HelpMenu, HandOffsNobodyTakesSaySo)
{
    // A desktop whose opener starts and then finds no handler, as xdg-open does without one.
    KSSetWorkspaceTestHook({});
    const QString bin = home.path() + QStringLiteral("/bin");
    WriteTree(bin, {{QStringLiteral("xdg-open"), "#!/bin/sh\necho \"$1\" >> \"$(dirname \"$0\")/asked\"\nexit 3\n"}});
    QFile::setPermissions(bin + QStringLiteral("/xdg-open"), QFile::ReadOwner | QFile::ExeOwner);
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(bin) + ':' + path);
    qunsetenv("DBUS_SESSION_BUS_ADDRESS"); // no file manager to answer either
    KSActionHandler &handler = KSActionHandler::sharedInstance();

    handler.visitWebsite();
    ASSERT_TRUE(WaitUntil([this] { return alerts.size() == 1; }));
    EXPECT_TRUE(alerts.front().startsWith(QStringLiteral("I can't open http"))) << alerts.front().toStdString();

    handler.contactTannerwick(false);
    ASSERT_TRUE(WaitUntil([this] { return alerts.size() == 2; }));
    EXPECT_TRUE(alerts[1].startsWith(QStringLiteral("Contact failed.|I can't send email")));

    WriteTree(home.path(), {{QStringLiteral("own.log"), "2026-11-22 08:00:00 com.tannerwick.backup started\n"}});
    handler.emailLogs();
    ASSERT_TRUE(WaitUntil([this] { return alerts.size() == 3; }));
    EXPECT_TRUE(alerts[2].contains(QStringLiteral("(Copy Logs in the Help menu)"))) << alerts[2].toStdString();

    bool shown = true;
    KSShowInFileManager(home.path() + QStringLiteral("/own.log"), [&] { shown = false; });
    EXPECT_TRUE(WaitUntil([&] { return !shown; }));
    QFile asked(bin + QStringLiteral("/asked"));
    ASSERT_TRUE(asked.open(QIODevice::ReadOnly));
    EXPECT_EQ(asked.readAll().count('\n'), 4); // each went to the opener
    qputenv("PATH", path);
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
