#include "keelson/KSSignalWatcher.h"

#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
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
    s_requested.store(true, std::memory_order_relaxed);
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
