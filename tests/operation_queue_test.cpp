// The operation base and its queue: failures are logged and finish the operation, operations
// run one at a time on a named worker thread, and cancelling waits for the running one.
#include "keelson/KSLog.h"
#include "keelson/KSOperationQueue.h"

#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <pthread.h>
#include <stdexcept>
#include <thread>

using namespace std::chrono_literals;

namespace {

std::mutex g_mutex;
QStringList g_events; // what the operations saw, in order

class NamedOperation : public KSAsyncOperation {
public:
    NamedOperation(QString name, bool throws = false) : m_name(std::move(name)), m_throws(throws) { }
    bool performOperation() override
    {
        char kernelName[16] = {};
        pthread_getname_np(pthread_self(), kernelName, sizeof kernelName);
        record(QStringLiteral("%1 on %2 / %3%4")
                   .arg(m_name, QString::fromUtf8(kernelName), QThread::currentThread()->objectName(),
                       isExecuting() ? QStringLiteral(" executing") : QString()));
        if (m_throws)
            throw std::runtime_error("disk on fire");
        return true;
    }
    void operationFinished(bool success) override
    {
        record(m_name + (success ? QStringLiteral(" yes") : QStringLiteral(" no")));
    }
    QString threadName() const override { return m_name; }

private:
    static void record(const QString &event)
    {
        std::lock_guard lock(g_mutex);
        g_events.append(event);
    }
    QString m_name;
    bool m_throws;
};

// Works until its own cancel flag is raised, then takes a little longer to return.
class SlowOperation : public KSAsyncOperation {
public:
    std::atomic<bool> cancelFlag {false}, started {false}, returned {false};
    std::atomic<int> runs {0};
    bool performOperation() override
    {
        ++runs;
        started = true;
        while (!cancelFlag)
            std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(100ms);
        returned = true;
        return false;
    }
    void cancel() override
    {
        cancelFlag = true;
        KSAsyncOperation::cancel();
    }
};

} // namespace

// Outside the anonymous namespace, so that its name is plain as a real operation's is.
class ThrowingAnalysis : public NamedOperation {
public:
    ThrowingAnalysis() : NamedOperation(QStringLiteral("analysis"), true) { }
};

TEST(OperationQueue, RunsInOrderOnNamedWorkerAndLogsEscapingExceptions)
{
    QStringList logged;
    SetLogSink([&](const QString &line) {
        std::lock_guard lock(g_mutex);
        logged.append(line);
    });
    auto first = std::make_shared<NamedOperation>(QStringLiteral("first"));
    EXPECT_TRUE(first->isFinished()) << "an operation that has not started counts as finished";

    KSOperationQueue queue;
    queue.addOperation(first);
    queue.addOperation(std::make_shared<ThrowingAnalysis>());
    queue.addOperation(std::make_shared<KSAsyncOperation>()); // does nothing, finishes
    queue.addOperation(std::make_shared<NamedOperation>(QStringLiteral("a-very-long-thread-name")));
    queue.waitUntilAllOperationsAreFinished();
    SetLogSink({});

    EXPECT_EQ(queue.operationCount(), 0);
    EXPECT_EQ(g_events,
        (QStringList {"first on first / first executing", "first yes", "analysis on analysis / analysis executing",
            "analysis no", "a-very-long-thread-name on a-very-long-thr / a-very-long-thread-name executing",
            "a-very-long-thread-name yes"}));
    EXPECT_EQ(logged, QStringList {"Operation ThrowingAnalysis failed: std::runtime_error: disk on fire"});
}

TEST(OperationQueue, CancelAllThenWaitReturnsAfterRunningOperationHasReturned)
{
    KSOperationQueue queue;
    auto slow = std::make_shared<SlowOperation>(), queued = std::make_shared<SlowOperation>();
    queue.addOperation(slow);
    queue.addOperation(queued);
    while (!slow->started)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(queue.operationCount(), 2);

    queue.cancelAllOperations();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(slow->returned);
    EXPECT_EQ(queued->runs, 0) << "a cancelled queued operation never starts";
    EXPECT_EQ(queue.operationCount(), 0);

    // A queue that goes away stops what still runs.
    auto later = std::make_shared<SlowOperation>();
    {
        KSOperationQueue ending;
        ending.addOperation(later);
        while (!later->started)
            std::this_thread::sleep_for(1ms);
    }
    EXPECT_TRUE(later->returned);
}
