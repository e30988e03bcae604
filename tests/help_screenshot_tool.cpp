// Takes the README's screenshot of the help window on the application's help, with Qt's own grab,
// in a temporary home so that nothing the window remembers is kept. Run under a display:
// scripts/screenshots.sh.
#include "help/VLHelpEngine.h"
#include "help/window/KSVellumaHelpWC.h"
#include "keelson/KSKernel.h"
#include "tests/support/TestSupport.h"

#include <QApplication>
#include <QDir>
#include <QTreeView>

#include <cstdio>

using namespace tanner::test;

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: help_screenshot_tool FOLDER\n");
        return 2;
    }
    ScopedXdgHome home;
    QApplication application(argc, argv);
    KSKernel::sharedInstance();
    VLSetUpHelpEngine();
    KSVellumaHelpWC::setApplicationHelpPath(QStringLiteral(TANNER_HELP_PACKAGE));
    KSVellumaHelpWC *window = KSVellumaHelpWC::displayHelp();
    if (!window) {
        std::fprintf(stderr, "the application's help can't be read\n");
        return 1;
    }
    window->resize(980, 640);
    window->findChild<QTreeView *>(QStringLiteral("topicList"))->expandAll();
    window->jumpToTopic(0, -1, true);
    for (int i = 0; i < 20; ++i)
        QApplication::processEvents();
    const QString path = QDir(QString::fromLocal8Bit(argv[1])).absoluteFilePath(QStringLiteral("screenshot-help.png"));
    if (!window->grab().save(path)) {
        std::fprintf(stderr, "can't write %s\n", qPrintable(path));
        return 1;
    }
    std::printf("%s\n", qPrintable(path));
    return 0;
}
