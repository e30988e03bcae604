#include "ui/BUDesktopApplication.h"

#include "app/BUAppController.h"
#include "keelson/KSKernel.h"
#include "keelson/KSLog.h"
#include "keelson/KSLogger.h"
#include "keelson/KSSignalWatcher.h"
#include "keelson/KSUserDefaults.h"
#include "keelson/gui/KSAlert.h"
#include "keelson/gui/KSAppUpdater.h"
#include "keelson/gui/KSNewsUpdater.h"
#include "ui/BUSingleInstance.h"
#include "ui/BUWindowController.h"

#include <QApplication>
#include <QIcon>
#include <QPalette>
#include <QTimer>

#include <cstdio>

namespace {

// Dark when the window text is lighter than the window.
void UpdateDarkMode()
{
    const QPalette palette = QApplication::palette();
    g_darkMode = palette.color(QPalette::WindowText).lightness() > palette.color(QPalette::Window).lightness();
}

} // namespace

QIcon ApplicationIcon()
{
    QIcon icon;
    for (int size : {16, 22, 24, 32, 48, 64, 128, 256, 512})
        icon.addFile(QStringLiteral(":/icons/%1x%1/com.tannerwick.backup.png").arg(size), QSize(size, size));
    return icon;
}

int RunDesktopApplication(int argc, char **argv)
{
    QApplication application(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Tannerwick"));
    QApplication::setApplicationName(QStringLiteral("Tanner Backup"));
    // No display name: the platform would append it to every window title, and each window's title
    // is exactly its own ("Tanner Backup Help — Getting started").
    QApplication::setDesktopFileName(QStringLiteral("com.tannerwick.backup"));
    QApplication::setWindowIcon(ApplicationIcon());

    // A second start brings the open window to the front and ends, leaving the state alone.
    BUSingleInstance instance(UserDefaultsPath());
    BUWindowController *shownWindow = nullptr;
    switch (instance.start([&shownWindow] {
        if (!shownWindow)
            return;
        shownWindow->setWindowState(shownWindow->windowState() & ~Qt::WindowMinimized);
        shownWindow->show();
        shownWindow->raise();
        shownWindow->activateWindow();
    })) {
    case BUSingleInstance::Start::AlreadyRunning:
        std::printf("Tanner Backup is already open; its window was brought to the front.\n");
        return 0;
    case BUSingleInstance::Start::Unguarded:
        LogString("Can't watch for a second start of the application: %@", instance.error());
        break;
    case BUSingleInstance::Start::First:
        break;
    }

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
    shownWindow = &window;
    controller.applicationDidFinishLaunching();
    controller.watchSettingsFile(); // what commands save while the window is open comes in
    window.show();
    window.raise();
    window.activateWindow();
    QTimer::singleShot(100, &window, [&window] { window.updateRuleList(0); });

    const int status = QApplication::exec();
    shownWindow = nullptr;
    window.cancel();
    if (!controller.applicationWillTerminate()) {
        LogString("%@", controller.saveError());
        return status == 0 ? 1 : status;
    }
    return status;
}
