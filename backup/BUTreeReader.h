// The readers of the analysis's two folder trees (the folder tree walk): a pool of threads that
// lists every folder of both trees once, ahead of the comparison. Used by the analysis alone.
#pragma once

#include "backup/BUAnalysisTrees.h"

#include <QHash>
#include <QStringList>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace BUAnalysis {

// Both folder trees, read by a pool of threads that lists every folder once: its subfolders join
// its tree, its files are examined there and then and kept until the comparison takes them. The
// comparison follows the source tree close behind. On a cold disk the disks are the wait, and they
// answer many questions at once far faster than one after another; with the folders in the page
// cache the processors are, and a reader more than there are processors only adds switching. So
// the pool starts with a reader a processor and grows, up to kMaxThreads, only while the readings
// wait on the disks (a reading that spent more than half its time asleep); once they no longer
// do (the rest of the trees is in the page cache), the readers beyond a processor each step
// aside until the readings wait again. The files kept are
// bounded: the readers pause when the comparison falls behind, and the comparison reads a folder
// that it needs itself rather than wait for it.
//
// Every wake-up has a task: an idle reader is woken for each folder to read, and the comparison
// only when the folder that it waits for has been read.
//
// The trees grow while the comparison reads them: every access to their entries holds lock().
class TreeReader {
public:
    enum Side { Source = 0, Device = 1 };

    // Reads the device tree from its root (entry 0) and the source tree from its backup folders
    // (entries 1 to folderCount).
    TreeReader(const AnalysisContext &context, FolderTree &sourceTree, FolderTree &deviceTree, uint64_t folderCount);
    ~TreeReader();
    TreeReader(const TreeReader &) = delete;
    TreeReader &operator=(const TreeReader &) = delete;

    std::unique_lock<std::mutex> lock() { return std::unique_lock<std::mutex>(m_mutex); }

    // Waits until a folder has been read, reading it here if no reader has begun it; false when
    // the analysis is canceled first.
    bool waitFor(Side side, uint64_t node, const std::atomic<bool> &cancel);
    // What the reading of a folder found, handed over once; null the second time, or for a
    // folder declared unwanted.
    std::unique_ptr<ListedFolder> take(Side side, uint64_t node);
    // A device folder that no source folder matches: its files are not wanted, nor those of its
    // subfolders, read already or not. Call with lock() held.
    void unwanted(uint64_t node);
    // Waits until both trees are whole; false when the analysis is canceled first.
    bool waitForAll(const std::atomic<bool> &cancel);
    // Why the reading of a tree stopped at a folder, or null; after waitForAll().
    QString treeFailure(Side side, uint64_t node) const { return m_treeFailures[side].value(node); }
    bool treeFailed(Side side) const { return !m_treeFailures[side].isEmpty(); }

private:
    static constexpr int kMaxThreads = 16;
    // A reading that waited on the disks counts kBlockedWeight, one that did not takes one off;
    // at kBlockedToGrow, one more reader.
    static constexpr int kBlockedWeight = 4;
    static constexpr int kBlockedToGrow = 8;
    static constexpr std::size_t kKeptFiles = 8192;
    static constexpr std::chrono::milliseconds kCancelCheck {100};
    struct Task {
        Side side;
        uint64_t node;
        QString path;
        bool isBackupFolder;
        std::vector<uint32_t> order; // the place in the comparison's order: positions from the top
    };
    // The readers take the task that comes first in the comparison's order: a heap on this.
    static bool later(const Task &a, const Task &b) { return a.order > b.order; }
    void addTask(Task task);

    static std::size_t kept(const ListedFolder &listed)
    {
        return 1 + listed.sourceFiles.size() + listed.deviceFiles.size();
    }

    void grow(Side side);

    void release(std::unique_lock<std::mutex> &lock, const ListedFolder &listed);

    // How many idle readers, not yet woken, have a task to take now (counted as woken); call with
    // the lock held, then wake that many.
    int readersToWake(int takenByCaller);
    void wakeReaders(int count);
    // One more reader after a reading that waited on the disks, while others wait for a reader;
    // one fewer, down to a processor each, once the readings have stopped waiting; call with the
    // lock held.
    void adapt(bool blocked);

    template <typename Ready>
    bool waitUntil(
        std::unique_lock<std::mutex> &lock, const std::atomic<bool> &cancel, Ready ready, Side side, uint64_t node);

    void run();

    // The folder tree walk, one folder at a time: lists a folder (_ReadFolder), adds its subfolders
    // to its tree and queues them to be read in turn, keeps its files for the comparison.
    void read(const Task &task, bool byReader);

    AnalysisContext m_context;
    FolderTree *m_trees[2];
    std::mutex m_mutex;
    std::condition_variable m_work; // for the readers: folders to read, or stop
    std::condition_variable m_progress; // for the comparison: a folder was read
    std::condition_variable m_parking; // for the parked readers: called back, or stop
    std::vector<Task> m_tasks; // folders to read, a heap
    QStringList m_backupFolderNames; // the last names of the backup folders: their mirrors' names
    int m_busy = 0; // folders being read
    int m_idle = 0; // readers waiting for a task
    int m_signaled = 0; // of those, woken and not yet awake
    int m_blocked = 0; // readings that waited on the disks, weighed against those that did not
    int m_baseReaders = 0; // the readers started with: a processor each
    int m_readersWanted = 0; // readers to be at work; those beyond it park at their next task
    int m_parked = 0; // readers parked, waiting on m_parking
    std::size_t m_keptFiles = 0; // folders and files read and not yet taken
    bool m_finishing = false; // the comparison is done
    // What the comparison waits for: a folder (side and entry), the end of the reading (kNone), or
    // nothing (m_waiting false).
    bool m_waiting = false;
    Side m_awaitedSide = Source;
    uint64_t m_awaitedNode = kNone;
    std::vector<bool> m_read[2]; // by tree entry
    // By tree entry, until taken: the few thousand folders waiting, not a slot for every folder.
    std::unordered_map<uint64_t, std::unique_ptr<ListedFolder>> m_listed[2];
    std::vector<bool> m_unwanted; // by device tree entry
    QHash<uint64_t, QString> m_treeFailures[2]; // by entry
    std::atomic<bool> m_stop {false};
    std::vector<std::thread> m_threads;
};

} // namespace BUAnalysis
