#include "app/BUAppController.h"
#include "backup/BUDevices.h"
#include "cli/BUCommandLine.h"
#include "keelson/KSSignalWatcher.h"

#include <QCoreApplication>

namespace {

void PrintGroup(const QString &title, const QStringList &names, bool is24Hour)
{
    BUAppController &controller = BUAppController::sharedInstance();
    PrintLine(stdout, title);
    if (names.isEmpty())
        PrintLine(stdout, QStringLiteral("  (none)"));
    for (const QString &name : names) {
        const QString last = LastBackupText(controller.backupDates(), controller.backupTimes(), name, is24Hour);
        PrintLine(stdout, last.isEmpty() ? QStringLiteral("  ") + name : QStringLiteral("  ") + name + u'\t' + last);
    }
}

void PrintDevices(bool is24Hour)
{
    BUAppController &controller = BUAppController::sharedInstance();
    PrintGroup(QStringLiteral("Recent Devices"), controller.mountedRecentDrives(), is24Hour);
    PrintGroup(QStringLiteral("Other Devices"), controller.otherDrives(), is24Hour);
    std::fflush(stdout);
}

} // namespace

int RunDevicesCommand(const BUCommandArgs &invocation)
{
    const bool watch = invocation.args == QStringList {QStringLiteral("--watch")};
    if (!invocation.args.isEmpty() && !watch) {
        PrintError(QStringLiteral("devices takes no arguments but --watch"));
        return kExitUsage;
    }
    const bool is24Hour = Is24HourTime();
    PrintDevices(is24Hour);
    if (!watch)
        return kExitOk;

    // The lists are rebuilt by the mount watcher that start-up installed; print each rebuild.
    BUAppController &controller = BUAppController::sharedInstance();
    controller.updateDriveListHook = [is24Hour](qsizetype) {
        PrintLine(stdout, QString());
        PrintDevices(is24Hour);
    };
    KSSignalWatcher &watcher = KSSignalWatcher::sharedInstance();
    QObject::connect(
        &watcher, &KSSignalWatcher::signalReceived, QCoreApplication::instance(), [] { QCoreApplication::quit(); });
    if (!KSSignalWatcher::terminationRequested())
        QCoreApplication::exec();
    controller.updateDriveListHook = nullptr;
    return kExitOk;
}
