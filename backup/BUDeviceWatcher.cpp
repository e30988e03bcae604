#include "backup/BUDeviceWatcher.h"

#include "keelson/KSLog.h"

#include <QSocketNotifier>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

BUDeviceWatcher::BUDeviceWatcher(QObject *parent) : QObject(parent)
{
    m_fd = ::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC);
    if (m_fd < 0) {
        LogString("Can't watch the mount table: %s", std::strerror(errno));
        return;
    }
    // Polling the file answers the event once per change and rearms it; nothing has to be read.
    m_notifier = new QSocketNotifier(m_fd, QSocketNotifier::Exception, this);
    connect(m_notifier, &QSocketNotifier::activated, this, &BUDeviceWatcher::mountsChanged);
}

BUDeviceWatcher::~BUDeviceWatcher()
{
    delete m_notifier;
    if (m_fd >= 0)
        ::close(m_fd);
}
