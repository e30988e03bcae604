// Support for tests that drive real widgets under QT_QPA_PLATFORM=offscreen.
#pragma once

#include <QApplication>
#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <functional>

namespace tanner::test {

// One QApplication for the test process (each test runs in its own process under ctest).
inline QApplication &EnsureApplication()
{
    static int argc = 1;
    static char name[] = "tanner-gui-test";
    static char *argv[] = {name, nullptr};
    static QApplication *application = [] {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        return new QApplication(argc, argv);
    }();
    return *application;
}

// Runs the event loop until `done` answers true or the timeout passes; returns the last answer.
inline bool WaitUntil(const std::function<bool()> &done, std::chrono::milliseconds timeout = std::chrono::seconds(20))
{
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (done())
            loop.quit();
    });
    QTimer::singleShot(timeout, &loop, &QEventLoop::quit);
    poll.start(5);
    if (!done())
        loop.exec();
    return done();
}

} // namespace tanner::test
