// Turns SIGINT, SIGTERM and SIGHUP into a Qt signal on the main thread (a self-pipe read by a
// socket notifier), so that a desktop logout or Ctrl-C ends the event loop normally and the
// state is written back. The async-signal-safe part also raises a flag that workers may poll. A
// second signal ends the program at once (by that signal), wherever it is stuck.
#pragma once

#include <QObject>

#include <atomic>

class QSocketNotifier;

class KSSignalWatcher : public QObject {
    Q_OBJECT
public:
    // Installs the handlers on first use. Main thread.
    static KSSignalWatcher &sharedInstance();
    // Set by the first signal; any thread may read it.
    static bool terminationRequested() { return s_requested.load(std::memory_order_relaxed); }
    static int lastSignal() { return s_lastSignal.load(std::memory_order_relaxed); }

signals:
    void signalReceived(int signalNumber);

private:
    KSSignalWatcher();
    static void handle(int signalNumber);
    void readPipe();

    QSocketNotifier *m_notifier = nullptr;
    static inline int s_pipe[2] = {-1, -1};
    static inline std::atomic<bool> s_requested {false};
    static inline std::atomic<int> s_lastSignal {0};
};
