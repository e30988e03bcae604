// Takes the README's screenshots of the help window on the application's help, in a light and in a
// dark palette, with Qt's own grab, in a temporary home so that nothing the window remembers is
// kept. Run under a display: scripts/screenshots.sh.
#include "help/VLHelpEngine.h"
#include "help/window/KSVellumaHelpWC.h"
#include "keelson/KSKernel.h"
#include "tests/support/TestSupport.h"

#include <QApplication>
#include <QDir>
#include <QLineEdit>
#include <QPalette>
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
    const QDir out(QString::fromLocal8Bit(argv[1]));
    auto save = [&](const char *name) {
        for (int i = 0; i < 20; ++i)
            QApplication::processEvents();
        const QString path = out.absoluteFilePath(QLatin1String(name));
        if (!window->grab().save(path)) {
            std::fprintf(stderr, "can't write %s\n", qPrintable(path));
            return false;
        }
        std::printf("%s\n", qPrintable(path));
        return true;
    };
    if (!save("screenshot-help.png"))
        return 1;
    // A dark desktop theme, on the topic about searching, a search made.
    QPalette dark;
    dark.setColor(QPalette::Window, QColor(45, 45, 48));
    dark.setColor(QPalette::WindowText, QColor(230, 230, 230));
    dark.setColor(QPalette::Base, QColor(30, 30, 32));
    dark.setColor(QPalette::AlternateBase, QColor(40, 40, 44));
    dark.setColor(QPalette::Text, QColor(230, 230, 230));
    dark.setColor(QPalette::Button, QColor(55, 55, 60));
    dark.setColor(QPalette::ButtonText, QColor(230, 230, 230));
    dark.setColor(QPalette::Highlight, QColor(42, 110, 190));
    dark.setColor(QPalette::HighlightedText, Qt::white);
    dark.setColor(QPalette::Link, QColor(120, 170, 255));
    QApplication::setPalette(dark);
    const QStringList names = window->content().chapterNames;
    const auto topic = names.indexOf(QStringLiteral("\tSearching"));
    window->jumpToTopic(topic >= 0 ? int(topic) : 0, -1, true);
    auto *field = window->findChild<QLineEdit *>(QStringLiteral("searchField"));
    field->setText(QStringLiteral("topics"));
    window->quickSearch();
    return save("screenshot-help-dark.png") ? 0 : 1;
}
