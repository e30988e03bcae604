// Tells when volumes are mounted or unmounted, without polling: the kernel raises a priority
// event on an open /proc/self/mountinfo whenever the mount table of the process's namespace
// changes, and a socket notifier of the Exception type turns that into a signal.
//
// Threads: create, use and destroy on the main thread (it needs the thread's event loop);
// mountsChanged is emitted there.
#pragma once

#include <QObject>

class QSocketNotifier;

class BUDeviceWatcher : public QObject {
    Q_OBJECT
public:
    explicit BUDeviceWatcher(QObject *parent = nullptr);
    ~BUDeviceWatcher() override;

    // False when the mount table could not be opened; then no signal ever comes.
    bool isWatching() const { return m_notifier != nullptr; }

signals:
    // Something was mounted, unmounted or remounted. Several changes may arrive as one signal.
    void mountsChanged();

private:
    int m_fd = -1;
    QSocketNotifier *m_notifier = nullptr;
};
