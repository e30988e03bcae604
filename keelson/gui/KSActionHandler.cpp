#include "keelson/gui/KSActionHandler.h"

#include "keelson/FormatString.h"
#include "keelson/KSKernel.h"
#include "keelson/KSLog.h"
#include "keelson/KSLogger.h"
#include "keelson/KSMakerAddresses.h"
#include "keelson/gui/KSAlert.h"
#include "keelson/gui/KSAppUpdater.h"
#include "keelson/gui/KSNewsUpdater.h"
#include "keelson/gui/KSWorkspace.h"

#include <QApplication>
#include <QClipboard>
#include <QDialog>
#include <QDialogButtonBox>
#include <QLabel>
#include <QStyle>
#include <QUrl>
#include <QVBoxLayout>

namespace {

QString Encoded(const QString &text)
{
    // The characters a URL path may hold, then "&", which would end a mail link's field.
    return QString::fromLatin1(QUrl::toPercentEncoding(text, "/:@!$'()*+,;=-._~")).replace(u'&', QStringLiteral("%26"));
}

} // namespace

KSActionHandler &KSActionHandler::sharedInstance()
{
    static KSActionHandler handler;
    return handler;
}

QString KSActionHandler::MailLink(const QString &address, const QString &subject, const QString &body)
{
    return QStringLiteral("mailto:") + address + QStringLiteral("?subject=") + Encoded(subject)
        + QStringLiteral("&body=") + Encoded(body);
}

void KSActionHandler::checkUpdates()
{
    KSAppUpdater::sharedInstance().displayUpdateDialog();
}

void KSActionHandler::checkNewsUpdates()
{
    KSNewsUpdater::sharedInstance().displayUpdateDialog();
}

void KSActionHandler::copyLogs()
{
    try {
        const QString text = KSLogger::sharedInstance().allLogsForApp();
        if (!text.isNull())
            QGuiApplication::clipboard()->setText(text);
    } catch (const std::exception &exception) {
        LogString("copyLogs failed: %s", exception.what());
    }
}

void KSActionHandler::emailLogs()
{
    const QString text = KSLogger::sharedInstance().allLogsForApp();
    if (text.isNull())
        return;
    const QString address = SupportMailAddress();
    const QUrl link(MailLink(address, FormatString("Logs for %@ %@", g_appName, g_appVersionString), text));
    if (!link.isValid() || !KSOpenUrl(link)) {
        KSAlert::sharedInstance().giveAlertMessage(QStringLiteral("Contact failed."),
            QStringLiteral("I can't send email to Tannerwick. Please copy the logs instead (hold down the option key) "
                           "and email them to ")
                + address + u'.');
    }
}

void KSActionHandler::contactTannerwick(bool isProblem)
{
    const QString nameAndVersion = FormatString("%@ %@", g_appName, g_appVersionString);
    const QString subject = (isProblem ? QStringLiteral("Problem report") : QStringLiteral("Question or comment"))
        + FormatString(" (%@)", nameAndVersion);
    const QString body = FormatString(
        "--- Please do not delete this line: %@, Mac OS %@ ---\n\n", nameAndVersion, g_systemVersionString);
    const QString address = SupportMailAddress();
    const QUrl link(MailLink(address, subject, body));
    if (!link.isValid() || !KSOpenUrl(link)) {
        KSAlert::sharedInstance().giveAlertMessage(QStringLiteral("Contact failed."),
            QStringLiteral("I can't send email to Tannerwick. Please visit our website, ") + WebsiteHostName()
                + QStringLiteral(", or send email to ") + address + u'.');
    }
}

void KSActionHandler::visitWebsite()
{
    KSOpenUrl(QUrl(HomePageUrl()));
}

void KSActionHandler::donations()
{
    KSOpenUrl(QUrl(DonationPageUrl()));
}

void KSActionHandler::showAbout(QWidget *parent)
{
    QDialog about(parent);
    about.setObjectName(QStringLiteral("aboutDialog"));
    about.setWindowTitle(FormatString("About %@", g_appName));
    auto *layout = new QVBoxLayout(&about);
    auto *icon = new QLabel(&about);
    icon->setObjectName(QStringLiteral("aboutIconLabel"));
    const QIcon appIcon = QApplication::windowIcon();
    icon->setPixmap((appIcon.isNull() ? about.style()->standardIcon(QStyle::SP_DriveHDIcon) : appIcon).pixmap(64));
    icon->setAlignment(Qt::AlignHCenter);
    auto *name = new QLabel(FormatString("<b>%@</b>", g_appName), &about);
    name->setAlignment(Qt::AlignHCenter);
    auto *version = new QLabel(FormatString("Version %@", g_appVersionString), &about);
    version->setAlignment(Qt::AlignHCenter);
    auto *line = new QLabel(QStringLiteral("Manual backup for paranoid control freaks."), &about);
    line->setObjectName(QStringLiteral("aboutStringLabel"));
    line->setAlignment(Qt::AlignHCenter);
    auto *buttons = new QDialogButtonBox(QDialogButtonBox::Ok, &about);
    QObject::connect(buttons, &QDialogButtonBox::accepted, &about, &QDialog::accept);
    for (QWidget *w : std::initializer_list<QWidget *> {icon, name, version, line, buttons})
        layout->addWidget(w);
    about.exec();
}

void KSActionHandler::nextWindow()
{
    QList<QWidget *> windows;
    for (QWidget *w : QApplication::topLevelWidgets()) {
        if (w->isVisible() && !w->isMinimized() && w->windowType() == Qt::Window)
            windows.append(w);
    }
    if (windows.size() < 2)
        return;
    const qsizetype current = windows.indexOf(QApplication::activeWindow());
    QWidget *next = windows[(current + 1) % windows.size()];
    next->raise();
    next->activateWindow();
}
