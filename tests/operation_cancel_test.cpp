// A job cancelled while it waits in the queue still tells its receiver that it ended, so that a
// window or a command line never waits for a report that cannot come.
#include "backup/BUAnalyzeOperation.h"
#include "backup/BUBackupOperation.h"
#include "keelson/KSOperationQueue.h"
#include "tests/support/TestSupport.h"

#include <QCoreApplication>

#include <condition_variable>
#include <mutex>

namespace {

class Blocker : public KSAsyncOperation {
public:
    bool performOperation() override
    {
        std::unique_lock lock(mutex);
        released.wait(lock, [this] { return open; });
        return true;
    }
    void release()
    {
        std::lock_guard lock(mutex);
        open = true;
        released.notify_all();
    }
    std::mutex mutex;
    std::condition_variable released;
    bool open = false;
};

class Receiver : public QObject, public BUEngineReceiver {
public:
    QObject *reportContext() override { return this; }
    void analysisComplete(const BUAnalysisReport &report) override { analyses.append(report); }
    void backupStatus(const BUBackupStatusReport &) override { }
    void backupComplete(const BUBackupCompleteReport &report) override { backups.append(report); }
    QList<BUAnalysisReport> analyses;
    QList<BUBackupCompleteReport> backups;
};

} // namespace

TEST(QueuedJobs, CancelledBeforeStartStillReport)
{
    int argc = 1;
    char name[] = "operation_cancel_test";
    char *argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);
    Receiver receiver;
    auto blocker = std::make_shared<Blocker>();
    {
        KSOperationQueue queue;
        queue.addOperation(blocker);
        queue.addOperation(std::make_shared<BUAnalyzeOperation>(
            QStringLiteral("Disk"), &receiver, QStringList(), BURuleList(), BURuleList()));
        queue.addOperation(
            std::make_shared<BUBackupOperation>(&receiver, QStringLiteral("Disk"), BUTransactionList(), QStringList()));
        queue.cancelAllOperations();
        blocker->release();
        queue.waitUntilAllOperationsAreFinished();
    }
    QCoreApplication::processEvents();
    ASSERT_EQ(receiver.analyses.size(), 1);
    EXPECT_TRUE(receiver.analyses.front().cancel);
    EXPECT_EQ(receiver.analyses.front().target, QStringLiteral("Disk"));
    ASSERT_EQ(receiver.backups.size(), 1);
    EXPECT_TRUE(receiver.backups.front().cancel);
    EXPECT_FALSE(receiver.backups.front().error.has_value());
}
