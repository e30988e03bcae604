#include "keelson/KSOperationQueue.h"

#include "keelson/KSLog.h"

#include <QThread>

#include <pthread.h>

namespace {

void _NameCurrentThread(const QString &name)
{
    // The kernel keeps 15 bytes and a terminator.
    const QByteArray bytes = name.toUtf8().left(15);
    pthread_setname_np(pthread_self(), bytes.constData());
    QThread::currentThread()->setObjectName(name);
}

} // namespace

KSOperationQueue::KSOperationQueue() = default;

KSOperationQueue::~KSOperationQueue()
{
    cancelAllOperations();
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_wake.notify_all();
    if (m_thread)
        m_thread->wait();
}

void KSOperationQueue::addOperation(std::shared_ptr<KSAsyncOperation> operation)
{
    if (!operation)
        return;
    {
        std::lock_guard lock(m_mutex);
        m_pending.push_back(std::move(operation));
    }
    if (!m_thread) {
        m_thread.reset(QThread::create([this] { work(); }));
        m_thread->setObjectName(QStringLiteral("KSOperationQueue"));
        m_thread->start();
        if (!m_thread->isRunning()) {
            // No thread could be started (a limit on processes, say): the work runs here, so that
            // it still ends and reports, at the cost of this thread meanwhile.
            m_thread.reset();
            LogString("Can't start a thread for the operation %@; it runs on the calling thread.",
                m_pending.back()->threadName());
            while (runNext(false)) { }
            return;
        }
    }
    m_wake.notify_one();
}

void KSOperationQueue::cancelAllOperations()
{
    std::lock_guard lock(m_mutex);
    for (const auto &operation : m_pending)
        operation->cancel();
    if (m_current)
        m_current->cancel();
}

void KSOperationQueue::waitUntilAllOperationsAreFinished()
{
    std::unique_lock lock(m_mutex);
    m_idle.wait(lock, [this] { return m_pending.empty() && !m_busy; });
}

qsizetype KSOperationQueue::operationCount() const
{
    std::lock_guard lock(m_mutex);
    return qsizetype(m_pending.size()) + (m_busy ? 1 : 0);
}

void KSOperationQueue::work()
{
    for (;;) {
        {
            std::unique_lock lock(m_mutex);
            m_wake.wait(lock, [this] { return m_stopping || !m_pending.empty(); });
            if (m_pending.empty())
                return; // stopping, nothing left
        }
        runNext(true);
    }
}

bool KSOperationQueue::runNext(bool onWorker)
{
    std::shared_ptr<KSAsyncOperation> operation;
    {
        std::lock_guard lock(m_mutex);
        if (m_pending.empty())
            return false;
        operation = std::move(m_pending.front());
        m_pending.pop_front();
        m_current = operation;
        m_busy = true;
    }
    if (!operation->isCancelled()) {
        if (onWorker)
            _NameCurrentThread(operation->threadName());
        operation->main();
    } else {
        operation->cancelledBeforeStart();
    }
    {
        std::lock_guard lock(m_mutex);
        m_current.reset();
    }
    // The queue's reference goes before the operation counts as finished, so that nothing of it
    // is destroyed on this thread after a waiter has returned.
    operation.reset();
    {
        std::lock_guard lock(m_mutex);
        m_busy = false;
    }
    m_idle.notify_all();
    return true;
}
