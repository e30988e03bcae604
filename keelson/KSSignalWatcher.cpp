#include "keelson/KSSignalWatcher.h"

#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

KSSignalWatcher &KSSignalWatcher::sharedInstance()
{
    static KSSignalWatcher *watcher = new KSSignalWatcher; // lives until exit, like the handlers
    return *watcher;
}

KSSignalWatcher::KSSignalWatcher()
{
    if (::pipe2(s_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    m_notifier = new QSocketNotifier(s_pipe[0], QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &KSSignalWatcher::readPipe);
    struct sigaction action = {};
    action.sa_handler = &KSSignalWatcher::handle;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (int number : {SIGINT, SIGTERM, SIGHUP})
        ::sigaction(number, &action, nullptr);
}

void KSSignalWatcher::handle(int signalNumber)
{
    // The second request ends the program at once, as command-line tools do: by the signal's own
    // default action, so that the parent sees what ended it.
    if (s_requested.exchange(true, std::memory_order_relaxed)) {
        struct sigaction defaultAction = {};
        defaultAction.sa_handler = SIG_DFL;
        sigemptyset(&defaultAction.sa_mask);
        ::sigaction(signalNumber, &defaultAction, nullptr);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, signalNumber);
        ::pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
        ::raise(signalNumber);
        ::_exit(128 + signalNumber); // in case the signal is ignored
    }
    s_lastSignal.store(signalNumber, std::memory_order_relaxed);
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    [[maybe_unused]] const ssize_t written = ::write(s_pipe[1], &byte, 1);
}

void KSSignalWatcher::readPipe()
{
    unsigned char byte;
    while (::read(s_pipe[0], &byte, 1) == 1)
        emit signalReceived(byte);
}
