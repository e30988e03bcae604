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
#include <vector>

using namespace std::chrono_literals;

namespace {

struct Journal {
    std::mutex mutex;
    std::vector<std::string> events;
    void add(const std::string &event)
    {
        std::lock_guard lock(mutex);
        events.push_back(event);
    }
};

class RecordingOperation : public KSAsyncOperation {
public:
    RecordingOperation(Journal &journal, std::string label, bool throws = false)
        : m_journal(journal), m_label(std::move(label)), m_throws(throws)
    {
    }
    bool performOperation() override
    {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        m_journal.add(m_label + " runs on " + name + " / " + QThread::currentThread()->objectName().toStdString()
            + (executingNow() ? " executing" : ""));
        if (m_throws)
            throw std::runtime_error("disk on fire");
        return true;
    }
    void operationFinished(bool success) override
    {
        m_journal.add(m_label + (success ? " finished yes" : " finished no"));
    }
    QString threadName() const override { return QString::fromStdString(m_label); }

private:
    bool executingNow() const { return isExecuting() && !isFinished(); }
    Journal &m_journal;
    std::string m_label;
    bool m_throws;
};

// Works until its own cancel flag is raised, then takes a little longer to return.
class SlowOperation : public KSAsyncOperation {
public:
    std::atomic<bool> cancelFlag {false};
    std::atomic<bool> started {false};
    std::atomic<bool> returned {false};
    bool performOperation() override
    {
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

class CountingOperation : public KSAsyncOperation {
public:
    std::atomic<int> runs {0};
    bool performOperation() override
    {
        ++runs;
        return true;
    }
};

} // namespace

// Outside the anonymous namespace, so that its name is plain as a real operation's would be.
class ThrowingAnalysis : public RecordingOperation {
public:
    using RecordingOperation::RecordingOperation;
};

TEST(OperationQueue, RunsInOrderOnNamedWorkerAndLogsEscapingExceptions)
{
    QStringList logged;
    std::mutex logMutex;
    SetLogSink([&](const QString &line) {
        std::lock_guard lock(logMutex);
        logged.append(line);
    });

    Journal journal;
    auto fresh = std::make_shared<RecordingOperation>(journal, "first");
    EXPECT_TRUE(fresh->isFinished());
    EXPECT_FALSE(fresh->isExecuting());

    KSOperationQueue queue;
    queue.addOperation(fresh);
    queue.addOperation(std::make_shared<ThrowingAnalysis>(journal, "analysis", true));
    queue.addOperation(std::make_shared<KSAsyncOperation>()); // does nothing, finishes
    queue.addOperation(std::make_shared<RecordingOperation>(journal, "a-very-long-thread-name"));
    queue.waitUntilAllOperationsAreFinished();
    SetLogSink({});

    EXPECT_EQ(queue.operationCount(), 0);
    const std::vector<std::string> expected {"first runs on first / first executing", "first finished yes",
        "analysis runs on analysis / analysis executing", "analysis finished no",
        "a-very-long-thread-name runs on a-very-long-thr / a-very-long-thread-name executing",
        "a-very-long-thread-name finished yes"};
    EXPECT_EQ(journal.events, expected);
    ASSERT_EQ(logged.size(), 1);
    EXPECT_EQ(logged[0], QStringLiteral("Operation ThrowingAnalysis failed: std::runtime_error: disk on fire"));
    EXPECT_NE(QThread::currentThread()->objectName(), QStringLiteral("first"));
}

TEST(OperationQueue, CancelAllThenWaitReturnsAfterRunningOperationHasReturned)
{
    KSOperationQueue queue;
    auto slow = std::make_shared<SlowOperation>();
    auto queued = std::make_shared<CountingOperation>();
    queue.addOperation(slow);
    queue.addOperation(queued);
    while (!slow->started)
        std::this_thread::sleep_for(1ms);
    EXPECT_EQ(queue.operationCount(), 2);
    EXPECT_TRUE(slow->isExecuting());

    queue.cancelAllOperations();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(slow->returned);
    EXPECT_TRUE(slow->isFinished());
    EXPECT_EQ(queued->runs, 0) << "a cancelled queued operation must never start";
    EXPECT_EQ(queue.operationCount(), 0);

    // The queue goes on working after a cancel.
    auto later = std::make_shared<CountingOperation>();
    queue.addOperation(later);
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_EQ(later->runs, 1);
}

TEST(OperationQueue, DestroyingTheQueueStopsTheRunningOperation)
{
    auto slow = std::make_shared<SlowOperation>();
    {
        KSOperationQueue queue;
        queue.addOperation(slow);
        while (!slow->started)
            std::this_thread::sleep_for(1ms);
    }
    EXPECT_TRUE(slow->returned);
}
