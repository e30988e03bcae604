// The analysis's folder trees and how they are read: the records of the trees and of the files
// the comparison takes, the rules that decide which items take part, and the readers that list
// both trees at once. Used by the analysis alone.
#pragma once

#include "backup/BUAnalyzeOperation.h"
#include "backup/BUDeviceRoot.h"
#include "backup/BUFileStats.h"
#include "backup/BUFolderReading.h"
#include "keelson/KSArray.h"
#include "keelson/KSStrings.h"

#include <QHash>
#include <QStringList>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <numeric>
#include <thread>
#include <unordered_map>
#include <vector>

namespace BUAnalysis {

inline constexpr uint64_t kNone = KSNotFound;
inline const QString kMemoryReason
    = QStringLiteral("there's not enough memory. Perhaps your source folders are too complex");

// A tree index or kNone, kept in four bytes: both trees hold an entry for every folder.
class EntryLink {
public:
    static constexpr uint64_t kMaxEntries = 0xFFFFFFFFULL; // indexes below this fit
    EntryLink() = default;
    EntryLink(uint64_t index) : m_index(index >= kMaxEntries ? kNoIndex : uint32_t(index)) { }
    operator uint64_t() const { return m_index == kNoIndex ? kNone : m_index; }

private:
    static constexpr uint32_t kNoIndex = 0xFFFFFFFFU;
    uint32_t m_index = kNoIndex;
};

// One node of a folder tree; files are never nodes.
struct FolderEntry {
    EntryLink parent;
    EntryLink firstChild;
    EntryLink nextSibling;
    EntryLink match; // the counterpart in the other tree
    AttributeStats stats; // a folder's size and content time are never compared
    uint32_t files = 0; // entries other than folders, counted on the device side only
    uint32_t name = 0; // where the tree keeps the name (FolderTree::name)
};
static_assert(sizeof(FolderEntry) == 48);

// A folder tree: its entries in one block, their names end to end in blocks that never move, so
// that a name stays put while the tree grows. Tens of thousands of folders would otherwise take
// two allocations each for their names. An entry finds its name by a number of four bytes: the
// name's length, then its characters, at that position of the blocks laid end to end.
class FolderTree {
public:
    explicit FolderTree(std::size_t initialAllocation)
        : m_entries(KSArray::create(sizeof(FolderEntry), initialAllocation))
    {
    }
    FolderTree(const FolderTree &) = delete;
    FolderTree &operator=(const FolderTree &) = delete;

    bool isValid() const { return m_entries != nullptr; }
    uint64_t count() const { return m_entries->count(); }
    FolderEntry *entry(uint64_t index) { return static_cast<FolderEntry *>(m_entries->entryAtIndex(index)); }
    const FolderEntry *entry(uint64_t index) const
    {
        return static_cast<const FolderEntry *>(m_entries->entryAtIndex(index));
    }
    // The entry's index, or KSNotFound when there is no memory for it (or for a name longer than
    // any path).
    uint64_t add(FolderEntry entry, QStringView name);
    QStringView name(const FolderEntry &entry) const
    {
        const char16_t *stored = m_nameBlocks[entry.name / kNameBlock].get() + entry.name % kNameBlock;
        return QStringView(stored + 1, qsizetype(stored[0]));
    }

private:
    static constexpr uint32_t kNameBlock = 16384;
    std::unique_ptr<KSArray> m_entries;
    // Block i starts at position i * kNameBlock; a block made for a longer name takes the places
    // of as many blocks as it spans (left empty).
    std::vector<std::unique_ptr<char16_t[]>> m_nameBlocks;
    uint64_t m_nameEnd = 0; // the next free position
    uint64_t m_nameBlockEnd = 0; // the end of the last block
};

struct AnalysisContext {
    QString reason;
    BUAnalysisReport *result;
    const std::atomic<bool> *cancelAnalysis;
    const BURuleList *ignoreFolders;
    const BURuleList *ignoreFiles;
    BUDeviceRoot *device;
    // The mirrors' names: the only folders of the device's top level that take part.
    const QStringList *mirrorNames = nullptr;
    // Set when the other thread of the analysis failed: this one's work is no longer wanted.
    const std::atomic<bool> *abandon = nullptr;
};

// A file that takes part, with its stats; its name is kept by the folder's listing (below).
struct ListedFile {
    FileStats stats;
    uint32_t nameStart = 0;
    uint32_t nameLength = 0;
};
// The files of one device folder that the sources are compared with, sorted by name; in a folder
// that ignores case, sorted without regard to it, and of names that differ only in case the first
// one listed.
using DeviceFile = ListedFile;
using DeviceFileList = std::vector<DeviceFile>;
// A source file, in listing order.
using SourceFile = ListedFile;

// What the reading of one folder found for the comparison. A failure of the tree itself (the
// folder or one of its subfolders could not be examined) outranks a failure among its files: the
// folders are compared before the files.
struct ListedFolder {
    bool treeFailed = false;
    QString treeReason;
    bool filesFailed = false; // the files up to the failure are kept
    QString filesReason;
    std::vector<SourceFile> sourceFiles; // in listing order
    DeviceFileList deviceFiles; // sorted by name, without regard to case where the folder ignores it
    // A device folder whose names match without regard to case (the device's kind, or the
    // folder's casefold flag).
    bool ignoresCase = false;
    // The files' names end to end: tens of thousands of files wait for the comparison at a time,
    // and a string each would double what they take.
    QString names;

    QStringView nameOf(const ListedFile &file) const { return QStringView(names).mid(file.nameStart, file.nameLength); }
    // A file named name, to be appended to one of the lists.
    ListedFile file(const FileStats &stats, const QString &name)
    {
        if (uint64_t(names.size()) + uint64_t(name.size()) > UINT32_MAX)
            throw std::bad_alloc(); // reported as a lack of memory
        const ListedFile listed {stats, uint32_t(names.size()), uint32_t(name.size())};
        names += name;
        return listed;
    }
};

// A subfolder found by a reading, before it joins its tree.
struct FoundFolder {
    QString name;
    FileStats stats;
};

// Tree entries and paths.
FolderEntry *_Entry(FolderTree &tree, uint64_t index);
// Stays valid while the tree lives; read it with the tree's lock held while the tree grows.
QStringView _Name(const FolderTree &tree, uint64_t index);
QString _ParentPath(const QString &path);
QString _Child(const QString &folder, QStringView name);
bool _CancelAnalysis(AnalysisContext &context);

// Opens a folder for listing: a source folder by its path (a backup folder may be reached through
// a link the user chose; nothing below it is), a device folder below the device root.
int _OpenFolder(AnalysisContext &context, const QString &path, bool deviceSide, bool followLink);
// Names at a device's top level that are the file system's own: like names beginning with ".",
// never extra items, never deleted, never touched.
bool IsFileSystemItemName(QStringView name);
// Whether two names are one name in a folder that ignores case, or keeps it.
bool _SameName(QStringView a, QStringView b, bool ignoresCase);
// Name order in a folder that ignores case (without regard to it), or keeps it (UTF-16 order).
bool _NameBefore(QStringView a, QStringView b, bool ignoresCase);
// Which items take part.
void _SetFolderReason(AnalysisContext &context, const QString &path, int errorNumber);
bool _NameAllowsItem(const QString &name, bool deviceSide);
bool _RulesAllowItem(const AnalysisContext &context, const QString &name, bool isFolder);
void _GetFileStats(const BUItemProperties &properties, FileStats *stats);

// 0 skip, 1 use (stats filled), 2 failure (reason set).
// known: the item's properties when they were read already, else null.
int _ShouldCopyFile(AnalysisContext &context, int folderFd, const QString &folder, const char *name,
    const QString &itemName, unsigned char type, bool deviceSide, const BUItemProperties *known, FileStats *stats);

// Reads one folder: its subfolders for the tree, its files for the comparison, each entry examined
// once. The device side keeps temporary files that an interrupted backup left behind: no source
// file is ever named like them, so they are deleted.
void _ReadFolder(AnalysisContext &context, const QString &path, bool deviceSide, bool isBackupFolder, ListedFolder &out,
    std::vector<FoundFolder> &subfolders, uint32_t *otherItems);

// The order of count names (nameOf(i)) without regard to case; names equal that way keep theirs.
template <typename NameOf> std::vector<std::size_t> _NameOrder(std::size_t count, NameOf nameOf)
{
    std::vector<std::size_t> order(count);
    std::iota(order.begin(), order.end(), std::size_t(0));
    std::stable_sort(order.begin(), order.end(), [&nameOf](std::size_t a, std::size_t b) {
        return CaseInsensitiveCompare(nameOf(a), nameOf(b)) == KSOrderedAscending;
    });
    return order;
}

// Both folder trees, read by a pool of threads that lists every folder once: its subfolders join
// its tree, its files are examined there and then and kept until the comparison takes them. The
// comparison follows the source tree close behind. The disks are the wait, and a cold disk
// answers many questions at once far faster than one after another. The files kept are bounded:
// the readers pause when the comparison falls behind, and the comparison reads a folder that it
// needs itself rather than wait for it.
//
// The trees grow while the comparison reads them: every access to their entries holds lock().
class TreeReader {
public:
    enum Side { Source = 0, Device = 1 };

    // Reads the device tree from its root (entry 0) and the source tree from its backup folders
    // (entries 1 to folderCount).
    TreeReader(const AnalysisContext &context, FolderTree &sourceTree, FolderTree &deviceTree, uint64_t folderCount)
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
        for (int i = 0; i < kThreads && StartHelperThread(m_threads, [this] { run(); }); ++i) { }
    }
    ~TreeReader()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_work.notify_all();
        for (std::thread &thread : m_threads)
            thread.join();
    }
    TreeReader(const TreeReader &) = delete;
    TreeReader &operator=(const TreeReader &) = delete;

    std::unique_lock<std::mutex> lock() { return std::unique_lock<std::mutex>(m_mutex); }

    // Waits until a folder has been read, reading it here if no reader has begun it; false when
    // the analysis is canceled first.
    bool waitFor(Side side, uint64_t node, const std::atomic<bool> &cancel)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        return waitUntil(
            lock, cancel, [&] { return m_read[side][node]; }, side, node);
    }
    // What the reading of a folder found, handed over once; null the second time, or for a
    // folder declared unwanted.
    std::unique_ptr<ListedFolder> take(Side side, uint64_t node)
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
    // A device folder that no source folder matches: its files are not wanted, nor those of its
    // subfolders, read already or not. Call with lock() held.
    void unwanted(uint64_t node)
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
            m_work.notify_all();
    }
    // Waits until both trees are whole; false when the analysis is canceled first.
    bool waitForAll(const std::atomic<bool> &cancel)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_finishing = true; // what is read now is only checked for failures: no bound
        lock.unlock();
        m_work.notify_all();
        lock.lock();
        return waitUntil(
            lock, cancel, [this] { return m_tasks.empty() && m_busy == 0; }, Source, kNone);
    }
    // Why the reading of a tree stopped at a folder, or null; after waitForAll().
    QString treeFailure(Side side, uint64_t node) const { return m_treeFailures[side].value(node); }
    bool treeFailed(Side side) const { return !m_treeFailures[side].isEmpty(); }

private:
    static constexpr int kThreads = 16;
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
    void addTask(Task task)
    {
        m_tasks.push_back(std::move(task));
        std::push_heap(m_tasks.begin(), m_tasks.end(), later);
    }

    static std::size_t kept(const ListedFolder &listed)
    {
        return 1 + listed.sourceFiles.size() + listed.deviceFiles.size();
    }

    void grow(Side side)
    {
        const std::size_t count = m_trees[side]->count();
        m_read[side].resize(count);
        if (side == Device)
            m_unwanted.resize(count);
    }

    void release(std::unique_lock<std::mutex> &lock, const ListedFolder &listed)
    {
        const bool wasFull = m_keptFiles >= kKeptFiles;
        m_keptFiles -= kept(listed);
        if (wasFull && m_keptFiles < kKeptFiles) {
            lock.unlock();
            m_work.notify_all();
            lock.lock();
        }
    }

    template <typename Ready>
    bool waitUntil(
        std::unique_lock<std::mutex> &lock, const std::atomic<bool> &cancel, Ready ready, Side side, uint64_t node)
    {
        ++m_waiting;
        while (!ready()) {
            if (cancel.load(std::memory_order_relaxed)) {
                --m_waiting;
                return false;
            }
            // A folder that no reader has begun is read here: the readers may be paused, or
            // busy with folders the comparison needs later. With no reader at all, every folder.
            auto wanted = m_tasks.end();
            if (node != kNone)
                wanted = std::find_if(m_tasks.begin(), m_tasks.end(),
                    [&](const Task &task) { return task.node == node && task.side == side; });
            if (wanted == m_tasks.end() && m_threads.empty() && !m_tasks.empty())
                wanted = m_tasks.begin();
            if (wanted != m_tasks.end()) {
                Task task = std::move(*wanted);
                m_tasks.erase(wanted);
                std::make_heap(m_tasks.begin(), m_tasks.end(), later);
                ++m_busy;
                lock.unlock();
                read(task);
                lock.lock();
            } else {
                m_progress.wait_for(lock, kCancelCheck);
            }
        }
        --m_waiting;
        return true;
    }

    void run()
    {
        for (;;) {
            Task task;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_work.wait(
                    lock, [this] { return m_stop || (!m_tasks.empty() && (m_keptFiles < kKeptFiles || m_finishing)); });
                if (m_stop)
                    return;
                std::pop_heap(m_tasks.begin(), m_tasks.end(), later);
                task = std::move(m_tasks.back());
                m_tasks.pop_back();
                ++m_busy;
            }
            read(task);
        }
    }

    void read(const Task &task)
    {
        AnalysisContext context = m_context;
        BUAnalysisReport result; // this reading's own cancel flag
        context.result = &result;
        auto listed = std::make_unique<ListedFolder>();
        std::vector<FoundFolder> subfolders;
        uint32_t otherItems = 0;
        std::vector<Task> children;
        try {
            _ReadFolder(context, task.path, task.side == Device, task.isBackupFolder, *listed, subfolders, &otherItems);
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
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            FolderTree &tree = *m_trees[task.side];
            uint64_t previous = kNone;
            for (const FoundFolder &folder : subfolders) {
                FolderEntry entry {task.node, kNone, kNone, kNone, folder.stats};
                const uint64_t index
                    = tree.count() < EntryLink::kMaxEntries ? tree.add(entry, folder.name) : KSNotFound;
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
        }
        if (added > 1)
            m_work.notify_all();
        else if (added == 1)
            m_work.notify_one();
        if (m_waiting > 0)
            m_progress.notify_all();
    }

    AnalysisContext m_context;
    FolderTree *m_trees[2];
    std::mutex m_mutex;
    std::condition_variable m_work; // for the readers: folders to read, or stop
    std::condition_variable m_progress; // for the comparison: a folder was read
    std::vector<Task> m_tasks; // folders to read, a heap
    QStringList m_backupFolderNames; // the last names of the backup folders: their mirrors' names
    int m_busy = 0; // folders being read
    std::size_t m_keptFiles = 0; // folders and files read and not yet taken
    bool m_finishing = false; // the comparison is done
    std::atomic<int> m_waiting {0};
    std::vector<bool> m_read[2]; // by tree entry
    // By tree entry, until taken: the few thousand folders waiting, not a slot for every folder.
    std::unordered_map<uint64_t, std::unique_ptr<ListedFolder>> m_listed[2];
    std::vector<bool> m_unwanted; // by device tree entry
    QHash<uint64_t, QString> m_treeFailures[2]; // by entry
    std::atomic<bool> m_stop {false};
    std::vector<std::thread> m_threads;
};

} // namespace BUAnalysis
