#include "keelson/gui/KSUpdaterWindow.h"

#include <QDialog>
#include <QGuiApplication>
#include <QScreen>
#include <QTimer>

void KSRunUpdateDialogIfHidden(QDialog *window)
{
    if (window->isVisible())
        return;
    if (const QScreen *screen = QGuiApplication::primaryScreen()) {
        window->adjustSize();
        window->move(screen->availableGeometry().center() - window->rect().center());
    }
    window->exec();
    window->hide();
}

void KSSetAutoCheckTimer(
    QObject *owner, QTimer *&timer, bool on, std::chrono::seconds interval, const std::function<void()> &fired)
{
    if (!on) {
        delete timer;
        timer = nullptr;
        return;
    }
    if (timer)
        return;
    timer = new QTimer(owner);
    timer->setInterval(interval);
    QObject::connect(timer, &QTimer::timeout, owner, fired);
    timer->start();
    fired();
}
