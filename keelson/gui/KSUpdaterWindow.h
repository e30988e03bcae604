// What the update check's and the news check's window controllers share: running their dialog
// and keeping the timer of their automatic check. Main thread.
#pragma once

#include <chrono>
#include <functional>

class QDialog;
class QObject;
class QTimer;

// Unless the dialog is already up: centres it on the primary screen, runs it modally, hides it.
void KSRunUpdateDialogIfHidden(QDialog *window);

// With the automatic check off, deletes the timer; with it on and no timer yet, starts a new one
// owned by owner that calls fired every interval, and calls fired at once.
void KSSetAutoCheckTimer(
    QObject *owner, QTimer *&timer, bool on, std::chrono::seconds interval, const std::function<void()> &fired);
