// The helpers that keep the source disk and the device busy beside the copy loop: the read-ahead
// of the next source files and the write-back of the device's data a batch at a time.
//
// Threads: each object belongs to the backup worker, which calls its public functions; each runs
// a helper thread of its own.
#pragma once

#include "backup/BUTransaction.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <limits>
#include <mutex>
#include <thread>

// Reads ahead of the copies: a thread of its own opens the source files of the next few dozen
// copies and asks the kernel to read them in (POSIX_FADV_WILLNEED), so that a cold source disk is
// busy reading while the copy loop writes to the device. Only the page cache sees it; the copy
// itself opens and checks every file as before.
class SourcePrefetcher {
public:
    explicit SourcePrefetcher(const BUTransactionList &transactions);
    ~SourcePrefetcher();
    SourcePrefetcher(const SourcePrefetcher &) = delete;
    SourcePrefetcher &operator=(const SourcePrefetcher &) = delete;

    // The copy loop is at this transaction.
    void reached(qsizetype index)
    {
        m_current.store(index, std::memory_order_relaxed);
        if (index < m_wakeAt.load(std::memory_order_relaxed))
            return;
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_moved.notify_one();
    }

private:
    static constexpr qsizetype kAheadFiles = 64;
    static constexpr double kAheadBytes = 32 << 20;
    static constexpr int64_t kBytesPerFile = 4 << 20; // the copy's own read-ahead does the rest

    void run();

    static void prefetch(const QString &path, int64_t bytes);

    const BUTransactionList &m_transactions;
    std::mutex m_mutex;
    std::condition_variable m_moved;
    std::atomic<qsizetype> m_current {0};
    std::atomic<qsizetype> m_wakeAt {std::numeric_limits<qsizetype>::max()};
    bool m_stop = false;
    std::thread m_thread;
};

// Writes the device's data back while the copies go on, a batch at a time: the run ends with
// syncfs, and without this it would wait there for everything at once (seconds after many small
// files) while the device sat idle during the copies. A file system's write-back of many files
// together is cheaper than file by file. Works through a descriptor of its own, so that the
// closing syncfs on the run's descriptor still reports any write-back error since the start.
class DeviceWriteBack {
public:
    explicit DeviceWriteBack(int deviceFd);
    ~DeviceWriteBack();
    DeviceWriteBack(const DeviceWriteBack &) = delete;
    DeviceWriteBack &operator=(const DeviceWriteBack &) = delete;

    // A file of this size was written by the transaction at row; small files count for a block
    // and their metadata.
    void wrote(double bytes, qsizetype row)
    {
        m_pending += std::max(bytes, double(kPerFile));
        if (m_fd < 0 || m_pending < kBatch)
            return;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            if (m_busy)
                return; // the next batch starts when this one is on the device
            m_busy = true;
            m_batchEnd = row + 1;
        }
        m_pending = 0;
        m_wake.notify_one();
    }
    // The transactions before this row are on the device: a batch that ended after them was
    // written back without an error, and none came before it.
    qsizetype durableRows()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_durable;
    }

private:
    static constexpr double kBatch = 8 << 20;
    static constexpr double kPerFile = 4096;

    void run();

    int m_fd;
    double m_pending = 0; // copy thread only
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_busy = false;
    bool m_stop = false;
    bool m_failed = false;
    qsizetype m_batchEnd = 0;
    qsizetype m_durable = 0;
    std::thread m_thread;
};
