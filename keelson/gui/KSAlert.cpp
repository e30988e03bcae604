#include "keelson/gui/KSAlert.h"

#include "keelson/KSLog.h"
#include "keelson/gui/KSAlertController.h"

#include <QApplication>
#include <QScreen>
#include <QTimer>

bool KSAlert::suppressFutureAlerts = false;

namespace {

KSAlert::Answerer &TestAnswerer()
{
    static KSAlert::Answerer answerer;
    return answerer;
}

} // namespace

KSAlert &KSAlert::sharedInstance()
{
    static KSAlert alert;
    return alert;
}

void KSAlert::setTestAnswerer(Answerer answerer)
{
    TestAnswerer() = std::move(answerer);
}

int KSAlert::giveAlertMessage(
    const QString &message, const QString &moreInfo, const QStringList &buttonStrings, bool *suppress)
{
    return giveAlertMessage(message, moreInfo, buttonStrings, suppress, buttonStrings.isEmpty());
}

int KSAlert::giveAlertMessage(
    const QString &message, const QString &moreInfo, const QStringList &buttonStrings, bool *suppress, bool allowDelay)
{
    return runAlert(message, moreInfo, buttonStrings, suppress, allowDelay, {});
}

int KSAlert::giveAlertMessageWithHelp(
    const QString &message, const QString &moreInfo, const QStringList &buttonStrings, HelpAction help)
{
    return runAlert(message, moreInfo, buttonStrings, nullptr, buttonStrings.isEmpty(), help);
}

int KSAlert::runAlert(const QString &message, const QString &moreInfo, const QStringList &buttonStrings, bool *suppress,
    bool allowDelay, const HelpAction &help)
{
    if (suppress)
        *suppress = false;
    if (TestAnswerer())
        return TestAnswerer()(Shown {message, moreInfo, buttonStrings, help});

    int response = 0;
    ++alertNesting;
    try {
        KSAlertController controller(message, moreInfo, buttonStrings, suppress, QApplication::activeWindow());
        if (help)
            controller.setHelpAction(help);
        if (const QScreen *screen = controller.screen())
            controller.move(screen->availableGeometry().center() - controller.rect().center());
        response = controller.runModal();
    } catch (const std::exception &exception) {
        LogString("Alert failed: %s", exception.what());
        if (allowDelay) {
            // A box that cannot run now is shown again when the event loop comes back.
            QTimer::singleShot(0, qApp, [message, moreInfo] {
                KSAlert::sharedInstance().giveAlertWithStrings({message, moreInfo});
            });
        }
        response = 0;
    }
    --alertNesting;
    return response;
}

void KSAlert::giveAlertWithStrings(const QStringList &strings)
{
    giveAlertMessage(strings.value(0), strings.value(1), {}, nullptr, false);
}

void KSAlert::startAlertMessage(const QString &message, const QString &moreInfo, const QStringList &buttonStrings,
    bool showSuppressButton, QWidget *hostWindow, std::function<void(int)> handler)
{
    if (TestAnswerer()) {
        const int response = TestAnswerer()(Shown {message, moreInfo, buttonStrings, {}});
        if (handler)
            handler(response);
        return;
    }
    auto *controller = new KSAlertController(
        message, moreInfo, buttonStrings, showSuppressButton ? &suppressFutureAlerts : nullptr, hostWindow);
    controller->setAttribute(Qt::WA_DeleteOnClose);
    controller->beginSheetModalForWindow(hostWindow, [controller, handler](int response) {
        if (handler)
            handler(response);
        controller->close();
        controller->deleteLater();
    });
}
