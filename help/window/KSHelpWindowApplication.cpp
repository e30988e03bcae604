#include "help/window/KSHelpWindowApplication.h"

#include "help/VLHelpEngine.h"
#include "help/window/KSVellumaHelpWC.h"
#include "keelson/KSKernel.h"
#include "keelson/KSSignalWatcher.h"

#include <QApplication>
#include <QFileInfo>

#include <cstdio>

int RunHelpWindowApplication(int argc, char **argv)
{
    QApplication application(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Tannerwick"));
    QApplication::setApplicationName(QStringLiteral("Tanner Backup"));
    // No display name: the platform would append it to every window title, and each window's title
    // is exactly its own ("Tanner Backup Help — Getting started").
    QStringList args = QApplication::arguments().mid(1);
    QString file;
    const qsizetype at = args.indexOf(QStringLiteral("--file"));
    if (at >= 0 && at + 1 < args.size()) {
        file = QFileInfo(args[at + 1]).absoluteFilePath();
        args.remove(at, 2);
    }
    if (args != QStringList({QStringLiteral("help"), QStringLiteral("--window")})) {
        std::fputs("tanner-backup: usage: tanner-backup help --window [--file PATH]\n", stderr);
        return 2;
    }
    KSKernel::sharedInstance();
    VLSetUpHelpEngine();
    QString reason;
    KSVellumaHelpWC *window
        = file.isEmpty() ? KSVellumaHelpWC::displayHelp() : KSVellumaHelpWC::displayFileAsHelp(file, &reason);
    if (!window) {
        const QString path = file.isEmpty() ? KSVellumaHelpWC::applicationHelpPath() : file;
        std::fprintf(stderr, "tanner-backup: Can't read help file: %s%s\n", qPrintable(path),
            reason.isEmpty() ? "" : qPrintable(QStringLiteral(" (%1)").arg(reason)));
        return 1;
    }
    // A logout or Ctrl-C ends the loop normally, so the window still stores where it was.
    QObject::connect(&KSSignalWatcher::sharedInstance(), &KSSignalWatcher::signalReceived, &application,
        [] { QApplication::quit(); });
    const int status = QApplication::exec();
    for (QWidget *widget : QApplication::topLevelWidgets()) {
        if (auto *help = qobject_cast<KSVellumaHelpWC *>(widget))
            help->close();
    }
    return status;
}
