// The process-wide entry point for alert boxes. Every failure the window reports goes through
// here as an application-modal box with one default button. Main thread.
//
// A box may carry a "Help" button: it calls the given action with the box, which stays open.
//
// Tests install an answerer (setTestAnswerer) that receives each box instead of showing it.
#pragma once

#include <QStringList>

#include <functional>

class QWidget;

class KSAlert {
public:
    static KSAlert &sharedInstance();
    KSAlert(const KSAlert &) = delete;
    KSAlert &operator=(const KSAlert &) = delete;

    static bool isAlertActive() { return alertNesting > 0; }

    // Returns the pressed button's response code (KSAlertController::kFirstButton...).
    int giveAlertMessage(const QString &message, const QString &moreInfo, const QStringList &buttonStrings = {},
        bool *suppressFutureAlerts = nullptr);
    int giveAlertMessage(const QString &message, const QString &moreInfo, const QStringList &buttonStrings,
        bool *suppressFutureAlerts, bool allowDelay);
    void giveAlertWithStrings(const QStringList &strings);
    // The box with a "Help" button that calls `help` (with the box) and leaves the box open.
    using HelpAction = std::function<void(QWidget *box)>;
    int giveAlertMessageWithHelp(
        const QString &message, const QString &moreInfo, const QStringList &buttonStrings, HelpAction help);
    // A sheet on the host window; the handler receives the response.
    void startAlertMessage(const QString &message, const QString &moreInfo, const QStringList &buttonStrings,
        bool showSuppressButton, QWidget *hostWindow, std::function<void(int response)> handler);

    // The check box state of the last sheet that had one.
    static bool suppressFutureAlerts;

    struct Shown {
        QString message;
        QString moreInfo;
        QStringList buttonStrings;
        HelpAction help; // empty when the box has no "Help" button; an answerer may call it with null
    };
    using Answerer = std::function<int(const Shown &)>;
    static void setTestAnswerer(Answerer answerer);

private:
    KSAlert() = default;
    int runAlert(const QString &message, const QString &moreInfo, const QStringList &buttonStrings, bool *suppress,
        bool allowDelay, const HelpAction &help);
    static inline int alertNesting = 0;
};
