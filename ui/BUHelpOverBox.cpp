#include "ui/BUHelpOverBox.h"

#include "help/window/KSVellumaHelpWC.h"

#include <QApplication>
#include <QWindow>

KSVellumaHelpWC *OpenHelpOverBox(QWidget *box, int bookmark)
{
    KSVellumaHelpWC *help = KSVellumaHelpWC::displayHelp(bookmark);
    if (!help) {
        QApplication::beep();
        return nullptr;
    }
    if (!box)
        return help;
    // A modal box blocks every window but its own and those that stand over it: the help window
    // stands over the box until the box goes away.
    box->window()->winId();
    help->winId();
    QWindow *boxWindow = box->window()->windowHandle();
    QWindow *helpWindow = help->windowHandle();
    if (!boxWindow || !helpWindow || helpWindow->transientParent() == boxWindow)
        return help;
    helpWindow->setTransientParent(boxWindow);
    QObject::connect(boxWindow, &QWindow::visibleChanged, helpWindow, [helpWindow, boxWindow](bool visible) {
        if (!visible && helpWindow->transientParent() == boxWindow)
            helpWindow->setTransientParent(nullptr);
    });
    return help;
}
