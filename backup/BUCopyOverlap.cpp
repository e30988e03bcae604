#include "backup/BUCopyOverlap.h"

#include "backup/BUFolderReading.h"
#include "keelson/KSStrings.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

SourcePrefetcher::SourcePrefetcher(const BUTransactionList &transactions) : m_transactions(transactions)
{
    StartHelperThread(m_thread, [this] { run(); }); // without it the copies read for themselves
}

SourcePrefetcher::~SourcePrefetcher()
{
    if (!m_thread.joinable())
        return;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_moved.notify_all();
    m_thread.join();
}

void SourcePrefetcher::run()
{
    std::deque<std::pair<qsizetype, double>> ahead; // read in, not yet copied
    double aheadBytes = 0;
    for (qsizetype next = 0; next < m_transactions.size(); ++next) {
        const BUTransaction &transaction = m_transactions.at(next);
        if (transaction.action() != BUTransaction::kCopy || transaction.isFolder())
            continue;
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            const qsizetype current = m_current.load(std::memory_order_relaxed);
            while (!ahead.empty() && ahead.front().first < current) {
                aheadBytes -= ahead.front().second;
                ahead.pop_front();
            }
            if (m_stop)
                return;
            if (next < current)
                break; // the copy got here first
            if (qsizetype(ahead.size()) < kAheadFiles && aheadBytes < kAheadBytes)
                break;
            // Woken when the copy has passed a quarter of what lies ahead, to refill that at
            // once: a wake-up per copied file costs a backup of small files more than the reading.
            const std::size_t refill = std::min<std::size_t>(kAheadFiles / 4, ahead.size()) - 1;
            m_wakeAt.store(ahead[refill].first + 1, std::memory_order_relaxed);
            m_moved.wait(lock);
            m_wakeAt.store(std::numeric_limits<qsizetype>::max(), std::memory_order_relaxed);
        }
        lock.unlock();
        if (next < m_current.load(std::memory_order_relaxed))
            continue;
        const double bytes = std::min(transaction.fileSize(), double(kBytesPerFile));
        prefetch(transaction.path(), int64_t(bytes));
        ahead.emplace_back(next, bytes);
        aheadBytes += bytes;
    }
}

void SourcePrefetcher::prefetch(const QString &path, int64_t bytes)
{
    const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
    const QByteArray name = FileNameToBytes(path);
    int fd = OpenLongPath(AT_FDCWD, name.constData(), flags | O_NOATIME);
    if (fd < 0 && errno == EPERM)
        fd = OpenLongPath(AT_FDCWD, name.constData(), flags);
    if (fd < 0)
        return;
    struct stat status;
    if (bytes > 0 && ::fstat(fd, &status) == 0 && S_ISREG(status.st_mode))
        ::posix_fadvise(fd, 0, bytes, POSIX_FADV_WILLNEED);
    ::close(fd);
}

DeviceWriteBack::DeviceWriteBack(int deviceFd)
    : m_fd(deviceFd >= 0 ? ::openat(deviceFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1)
{
    // Without its thread the closing syncfs writes everything.
    if (m_fd >= 0 && !StartHelperThread(m_thread, [this] { run(); })) {
        ::close(m_fd);
        m_fd = -1;
    }
}

DeviceWriteBack::~DeviceWriteBack()
{
    if (m_fd < 0)
        return;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_one();
    m_thread.join();
    ::close(m_fd);
}

void DeviceWriteBack::run()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        m_wake.wait(lock, [this] { return m_stop || m_busy; });
        if (m_stop)
            return;
        const qsizetype end = m_batchEnd;
        lock.unlock();
        // The errors are the closing syncfs's to report; this one only says how far the
        // device is known to hold what was written.
        const bool written = ::syncfs(m_fd) == 0;
        lock.lock();
        m_failed = m_failed || !written;
        if (!m_failed)
            m_durable = end;
        m_busy = false;
    }
}
