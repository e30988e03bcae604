#include "ui/BUDesktopApplication.h"

#include "app/BUAppController.h"
#include "keelson/KSKernel.h"
#include "keelson/KSLog.h"
#include "keelson/KSLogger.h"
#include "keelson/KSSignalWatcher.h"
#include "keelson/gui/KSAlert.h"
#include "keelson/gui/KSAppUpdater.h"
#include "keelson/gui/KSNewsUpdater.h"
#include "ui/BUWindowController.h"

#include <QApplication>
#include <QPalette>
#include <QTimer>

namespace {

// Dark when the window text is lighter than the window.
void UpdateDarkMode()
{
    const QPalette palette = QApplication::palette();
    g_darkMode = palette.color(QPalette::WindowText).lightness() > palette.color(QPalette::Window).lightness();
}

} // namespace

int RunDesktopApplication(int argc, char **argv)
{
    QApplication application(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Tannerwick"));
    QApplication::setApplicationName(QStringLiteral("Tanner Backup"));
    QApplication::setApplicationDisplayName(QStringLiteral("Tanner Backup"));
    QApplication::setDesktopFileName(QStringLiteral("com.tannerwick.backup"));

    BUAppController &controller = BUAppController::sharedInstance();
    controller.applicationWillFinishLaunching();
    UpdateDarkMode(); // the window follows later changes

    KSLogger::sharedInstance().alertHook = [](const QString &message, const QString &moreInfo) {
        KSAlert::sharedInstance().giveAlertMessage(message, moreInfo);
    };
    // A logout or Ctrl-C ends the loop normally, so the state is written back below.
    QObject::connect(&KSSignalWatcher::sharedInstance(), &KSSignalWatcher::signalReceived, &application,
        [] { QApplication::quit(); });

    controller.startAutoChecksHook = [] {
        KSAppUpdater::sharedInstance().startAutoCheck();
        KSNewsUpdater::sharedInstance().startAutoCheck();
    };
    BUWindowController window;
    controller.applicationDidFinishLaunching();
    window.show();
    window.raise();
    window.activateWindow();
    QTimer::singleShot(100, &window, [&window] { window.updateRuleList(0); });

    const int status = QApplication::exec();
    window.cancel();
    if (!controller.applicationWillTerminate()) {
        LogString("%@", controller.saveError());
        return status == 0 ? 1 : status;
    }
    return status;
}
