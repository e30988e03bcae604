// Runs KSAsyncOperations one at a time, in the order they were added, on a worker thread that
// the queue owns. While an operation runs, the worker thread carries the operation's thread name
// (pthread_setname_np and QThread::setObjectName).
//
// Threads: every method is called from the owning (main) thread. Never call
// waitUntilAllOperationsAreFinished from inside an operation: it would wait for itself.
#pragma once

#include "keelson/KSAsyncOperation.h"

#include <QtGlobal>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

class QThread;

class KSOperationQueue {
public:
    KSOperationQueue();
    // Cancels what is queued and running and waits for the running operation to return.
    ~KSOperationQueue();
    KSOperationQueue(const KSOperationQueue &) = delete;
    KSOperationQueue &operator=(const KSOperationQueue &) = delete;

    // Queues the operation; it starts when those before it have finished. The queue keeps a
    // reference until the operation has finished, so the caller may drop its own at once.
    void addOperation(std::shared_ptr<KSAsyncOperation> operation);
    // Sends cancel() to every queued and running operation. Queued ones never start; the running
    // one stops when it notices its cancel flag.
    void cancelAllOperations();
    // Blocks until no operation is queued or running.
    void waitUntilAllOperationsAreFinished();
    // Operations queued or running.
    qsizetype operationCount() const;

private:
    void work();
    // Runs the oldest queued operation; false when none is queued. onWorker: on the queue's own
    // thread, which takes the operation's name.
    bool runNext(bool onWorker);

    mutable std::mutex m_mutex;
    std::condition_variable m_wake; // work arrived, or the queue is going away
    std::condition_variable m_idle; // an operation finished
    std::deque<std::shared_ptr<KSAsyncOperation>> m_pending;
    std::shared_ptr<KSAsyncOperation> m_current;
    bool m_busy = false;
    bool m_stopping = false;
    std::unique_ptr<QThread> m_thread;
};
