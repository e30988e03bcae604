#include "backup/BUTreeReader.h"

#include "keelson/KSStrings.h"

#include <algorithm>
#include <sched.h>
#include <sys/resource.h>

namespace BUAnalysis {

template <typename Ready>
bool TreeReader::waitUntil(
    std::unique_lock<std::mutex> &lock, const std::atomic<bool> &cancel, Ready ready, Side side, uint64_t node)
{
    m_waiting = true;
    m_awaitedSide = side;
    m_awaitedNode = node;
    while (!ready()) {
        if (cancel.load(std::memory_order_relaxed)) {
            m_waiting = false;
            return false;
        }
        // A folder that no reader has begun is read here: the readers may be paused, or
        // busy with folders the comparison needs later. With no reader at all, every folder.
        auto wanted = m_tasks.end();
        if (node != kNone)
            wanted = std::find_if(m_tasks.begin(), m_tasks.end(),
                [&](const Task &task) { return task.node == node && task.side == side; });
        if (wanted == m_tasks.end() && m_readersWanted == 0 && !m_tasks.empty())
            wanted = m_tasks.begin();
        if (wanted != m_tasks.end()) {
            Task task = std::move(*wanted);
            m_tasks.erase(wanted);
            std::make_heap(m_tasks.begin(), m_tasks.end(), later);
            ++m_busy;
            lock.unlock();
            read(task, false);
            lock.lock();
        } else {
            m_progress.wait_for(lock, kCancelCheck);
        }
    }
    m_waiting = false;
    return true;
}

namespace {

// The processors this process may run on.
int ProcessorCount()
{
    cpu_set_t set;
    if (sched_getaffinity(0, sizeof set, &set) == 0)
        return std::max(1, CPU_COUNT(&set));
    return std::max(1, int(std::thread::hardware_concurrency()));
}

// The time this thread has run, and how often it has given up the processor to wait.
struct ThreadUsage {
    std::chrono::steady_clock::time_point wall;
    std::chrono::microseconds cpu {0};
    long waits = 0;

    static ThreadUsage now()
    {
        ThreadUsage usage;
        usage.wall = std::chrono::steady_clock::now();
        rusage r {};
        if (getrusage(RUSAGE_THREAD, &r) == 0) {
            usage.cpu = std::chrono::seconds(r.ru_utime.tv_sec + r.ru_stime.tv_sec)
                + std::chrono::microseconds(r.ru_utime.tv_usec + r.ru_stime.tv_usec);
            usage.waits = r.ru_nvcsw;
        }
        return usage;
    }
};

} // namespace

TreeReader::TreeReader(
    const AnalysisContext &context, FolderTree &sourceTree, FolderTree &deviceTree, uint64_t folderCount)
    : m_context(context), m_trees {&sourceTree, &deviceTree}
{
    m_context.abandon = &m_stop;
    addTask({Device, 0, _Name(deviceTree, 0).toString(), true, {0}});
    for (uint64_t i = 1; i <= folderCount; ++i) {
        addTask({Source, i, _Name(sourceTree, i).toString(), true, {uint32_t(i)}});
        m_backupFolderNames.append(LastPathComponent(_Name(sourceTree, i)));
    }
    for (Side side : {Source, Device})
        grow(side);
    const int threads = std::min(kMaxThreads, ProcessorCount());
    const std::lock_guard<std::mutex> lock(m_mutex); // the readers may add readers
    for (int i = 0; i < threads && StartHelperThread(m_threads, [this] { run(); }); ++i) { }
    m_baseReaders = m_readersWanted = int(m_threads.size());
}

TreeReader::~TreeReader()
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
    }
    m_work.notify_all();
    m_parking.notify_all();
    for (std::thread &thread : m_threads)
        thread.join();
}

bool TreeReader::waitFor(Side side, uint64_t node, const std::atomic<bool> &cancel)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    return waitUntil(
        lock, cancel, [&] { return m_read[side][node]; }, side, node);
}

std::unique_ptr<ListedFolder> TreeReader::take(Side side, uint64_t node)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    const auto found = m_listed[side].find(node);
    if (found == m_listed[side].end())
        return nullptr;
    std::unique_ptr<ListedFolder> listed = std::move(found->second);
    m_listed[side].erase(found);
    if (listed)
        release(lock, *listed);
    return listed;
}

void TreeReader::unwanted(uint64_t node)
{
    FolderTree &tree = *m_trees[Device];
    const bool wasFull = m_keptFiles >= kKeptFiles;
    std::vector<uint64_t> folders {node};
    while (!folders.empty()) {
        const uint64_t folder = folders.back();
        folders.pop_back();
        m_unwanted[folder] = true;
        if (const auto found = m_listed[Device].find(folder); found != m_listed[Device].end()) {
            m_keptFiles -= kept(*found->second);
            m_listed[Device].erase(found);
        }
        if (m_read[Device][folder]) {
            for (uint64_t c = _Entry(tree, folder)->firstChild; c != kNone; c = _Entry(tree, c)->nextSibling)
                folders.push_back(c);
        }
    }
    if (wasFull && m_keptFiles < kKeptFiles)
        wakeReaders(readersToWake(0));
}

bool TreeReader::waitForAll(const std::atomic<bool> &cancel)
{
    std::unique_lock<std::mutex> lock(m_mutex);
    m_finishing = true; // what is read now is only checked for failures: no bound
    const int wake = readersToWake(0);
    lock.unlock();
    wakeReaders(wake);
    lock.lock();
    return waitUntil(
        lock, cancel, [this] { return m_tasks.empty() && m_busy == 0; }, Source, kNone);
}

void TreeReader::addTask(Task task)
{
    m_tasks.push_back(std::move(task));
    std::push_heap(m_tasks.begin(), m_tasks.end(), later);
}

void TreeReader::grow(Side side)
{
    const std::size_t count = m_trees[side]->count();
    m_read[side].resize(count);
    if (side == Device)
        m_unwanted.resize(count);
}

void TreeReader::release(std::unique_lock<std::mutex> &lock, const ListedFolder &listed)
{
    const bool wasFull = m_keptFiles >= kKeptFiles;
    m_keptFiles -= kept(listed);
    if (wasFull && m_keptFiles < kKeptFiles) {
        const int wake = readersToWake(0);
        lock.unlock();
        wakeReaders(wake);
        lock.lock();
    }
}

int TreeReader::readersToWake(int takenByCaller)
{
    if (m_keptFiles >= kKeptFiles && !m_finishing)
        return 0;
    const int tasks = int(std::min<std::size_t>(m_tasks.size(), kMaxThreads)) - takenByCaller;
    const int wake = std::max(0, std::min(m_idle - m_signaled, tasks));
    m_signaled += wake;
    return wake;
}

void TreeReader::wakeReaders(int count)
{
    for (int i = 0; i < count; ++i)
        m_work.notify_one();
}

void TreeReader::adapt(bool blocked)
{
    // A cold tree answers some readings from blocks that others read: one reading in five that
    // waits is enough to grow; a warm tree, where hardly one waits, never does.
    if (blocked) {
        m_blocked += kBlockedWeight;
    } else if (m_blocked > 0) {
        --m_blocked;
    } else {
        // The readings have stopped waiting: the readers grown for the disks only switch now.
        if (m_readersWanted > m_baseReaders)
            --m_readersWanted;
        return;
    }
    if (m_blocked < kBlockedToGrow || m_stop || m_idle > 0 || m_tasks.empty() || m_readersWanted >= kMaxThreads)
        return;
    m_blocked = 0;
    ++m_readersWanted;
    // A reader not yet parked stays; else a parked one comes back; else one more thread.
    if (int(m_threads.size()) - m_parked >= m_readersWanted)
        return;
    if (m_parked > 0)
        m_parking.notify_one();
    else if (!StartHelperThread(m_threads, [this] { run(); }))
        --m_readersWanted;
}

void TreeReader::run()
{
    for (;;) {
        Task task;
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (!m_stop && int(m_threads.size()) - m_parked > m_readersWanted) {
                ++m_parked;
                wakeReaders(readersToWake(0)); // the task this reader would have taken next
                m_parking.wait(lock, [this] { return m_stop || int(m_threads.size()) - m_parked < m_readersWanted; });
                --m_parked;
            }
            while (!m_stop && (m_tasks.empty() || (m_keptFiles >= kKeptFiles && !m_finishing))) {
                ++m_idle;
                m_work.wait(lock);
                --m_idle;
                if (m_signaled > 0)
                    --m_signaled; // this wake-up's, or one that finds a reader awake and a task taken
            }
            if (m_stop)
                return;
            std::pop_heap(m_tasks.begin(), m_tasks.end(), later);
            task = std::move(m_tasks.back());
            m_tasks.pop_back();
            ++m_busy;
        }
        read(task, true);
    }
}

void TreeReader::read(const Task &task, bool byReader)
{
    AnalysisContext context = m_context;
    BUAnalysisReport result; // this reading's own cancel flag
    context.result = &result;
    auto listed = std::make_unique<ListedFolder>();
    std::vector<FoundFolder> subfolders;
    uint32_t otherItems = 0;
    std::vector<Task> children;
    bool blocked = false;
    try {
        const ThreadUsage before = ThreadUsage::now();
        _ReadFolder(context, task.path, task.side == Device, task.isBackupFolder, *listed, subfolders, &otherItems);
        const ThreadUsage after = ThreadUsage::now();
        // Asleep for more than half the reading: the disk kept it waiting (time taken by other
        // threads on a busy processor is no sleep of its own, and no reason for more readers).
        blocked = after.waits > before.waits && after.wall - before.wall > 2 * (after.cpu - before.cpu);
        // Both trees are read in about the order the comparison follows: a folder's subtree
        // before its next sibling's, siblings in the order of their names, and a mirror folder at
        // about the time of its source folder (the top level's, at its backup folder's). The
        // order and the paths are found before the lock: every reader and the comparison wait on it.
        const std::vector<std::size_t> byName = _NameOrder(
            subfolders.size(), [&subfolders](std::size_t i) -> const QString & { return subfolders[i].name; });
        for (std::size_t rank = 0; rank < byName.size(); ++rank) {
            const std::size_t i = byName[rank];
            // node: the place in the listing until the tree entry is known
            Task child {task.side, i, _Child(task.path, subfolders[i].name), false, task.order};
            uint32_t position = uint32_t(rank);
            if (task.side == Device && task.node == 0) {
                position = uint32_t(m_backupFolderNames.size() + 1 + rank);
                for (qsizetype f = 0; f < m_backupFolderNames.size(); ++f) {
                    if (CaseInsensitiveCompare(m_backupFolderNames[f], subfolders[i].name) == KSOrderedSame) {
                        position = uint32_t(f + 1);
                        break;
                    }
                }
                child.order.clear();
            }
            child.order.push_back(position);
            children.push_back(std::move(child));
        }
    } catch (const std::bad_alloc &) {
        listed->treeFailed = true;
        listed->treeReason = kMemoryReason;
        subfolders.clear();
        children.clear();
    }
    std::size_t added = 0;
    int wake = 0;
    bool arrived = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        FolderTree &tree = *m_trees[task.side];
        uint64_t previous = kNone;
        for (const FoundFolder &folder : subfolders) {
            FolderEntry entry {task.node, kNone, kNone, kNone, folder.stats};
            const uint64_t index = tree.count() < EntryLink::kMaxEntries ? tree.add(entry, folder.name) : KSNotFound;
            if (index == KSNotFound) {
                listed->treeFailed = true;
                listed->treeReason = kMemoryReason;
                break;
            }
            if (previous == kNone)
                _Entry(tree, task.node)->firstChild = index;
            else
                _Entry(tree, previous)->nextSibling = index;
            previous = index;
            ++added;
        }
        _Entry(tree, task.node)->files += otherItems;
        const uint64_t first = tree.count() - added;
        for (Task &child : children) {
            if (child.node >= added)
                continue; // not in the tree: no memory for it
            child.node += first;
            addTask(std::move(child));
        }
        grow(task.side);
        if (listed->treeFailed)
            m_treeFailures[task.side].insert(task.node, listed->treeReason);
        if (task.side == Device && m_unwanted[task.node]) {
            for (std::size_t i = 0; i < added; ++i)
                m_unwanted[tree.count() - added + i] = true;
        } else {
            m_keptFiles += kept(*listed);
            m_listed[task.side].emplace(task.node, std::move(listed));
        }
        m_read[task.side][task.node] = true;
        --m_busy;
        // A reader takes the next task itself: the others are woken for the rest.
        wake = readersToWake(byReader ? 1 : 0);
        arrived = byReader && m_waiting
            && (m_awaitedNode == kNone ? m_tasks.empty() && m_busy == 0
                                       : m_awaitedNode == task.node && m_awaitedSide == task.side);
        adapt(blocked);
    }
    wakeReaders(wake);
    if (arrived)
        m_progress.notify_one();
}

} // namespace BUAnalysis
