#include "backup/BUAnalyzeOperation.h"

#include "backup/BUDeviceRoot.h"
#include "backup/BUFileCopier.h"
#include "backup/BUFileStats.h"
#include "backup/BUFolderReading.h"
#include "backup/BUTransaction.h"
#include "keelson/FormatString.h"
#include "keelson/KSArrayString.h"
#include "keelson/KSKernel.h"
#include "keelson/KSStrings.h"

#include <QHash>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <numeric>
#include <thread>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint64_t kNone = KSNotFound;
const QString kMemoryReason = QStringLiteral("there's not enough memory. Perhaps your source folders are too complex");
constexpr char16_t kAdvancedUserMark = 0x273D; // names the advanced user keeps out of backups

// One node of a folder tree; files are never nodes.
struct FolderEntry {
    uint64_t parent;
    uint64_t firstChild;
    uint64_t nextSibling;
    uint64_t match; // the counterpart in the other tree
    FileStats stats;
    bool folder; // false only for the source tree's "/" root
    uint32_t files = 0; // entries other than folders, counted on the device side only
};

struct AnalysisContext {
    QString reason;
    BUAnalysisReport *result;
    const std::atomic<bool> *cancelAnalysis;
    const BURuleList *ignoreFolders;
    const BURuleList *ignoreFiles;
    BUDeviceRoot *device;
    // Set when the other thread of the analysis failed: this one's work is no longer wanted.
    const std::atomic<bool> *abandon = nullptr;
};

// The files of one device folder that the sources are compared with, sorted without regard to
// case; of names that differ only in case, the first one listed.
struct DeviceFile {
    FileStats stats;
    QString name;
};
using DeviceFileList = std::vector<DeviceFile>;

// The file of that name without regard to case, or null.
DeviceFile *_FindDeviceFile(DeviceFileList &files, const QString &name)
{
    const auto found
        = std::lower_bound(files.begin(), files.end(), name, [](const DeviceFile &file, const QString &wanted) {
              return CaseInsensitiveCompare(file.name, wanted) == KSOrderedAscending;
          });
    return found != files.end() && CaseInsensitiveCompare(found->name, name) == KSOrderedSame ? &*found : nullptr;
}

// A source file that takes part, with its stats.
struct SourceFile {
    QString name;
    FileStats stats;
};

FolderEntry *_Entry(KSArrayString &tree, uint64_t index)
{
    return static_cast<FolderEntry *>(tree.entryAtIndex(index));
}

const QString &_Name(const KSArrayString &tree, uint64_t index)
{
    static const QString none;
    const QString *name = tree.stringAtIndex(index);
    return name ? *name : none;
}

QString _ParentPath(const QString &path)
{
    const qsizetype slash = path.lastIndexOf(u'/');
    return slash <= 0 ? QStringLiteral("/") : path.left(slash);
}

QString _Child(const QString &folder, const QString &name)
{
    return folder.endsWith(u'/') ? folder + name : folder + u'/' + name;
}

bool _CancelAnalysis(AnalysisContext &context)
{
    if (context.abandon && context.abandon->load(std::memory_order_relaxed)) {
        context.reason = QStringLiteral("canceled");
        return true;
    }
    if (!context.cancelAnalysis->load(std::memory_order_relaxed))
        return false;
    context.result->cancel = true;
    context.reason = QStringLiteral("canceled");
    return true;
}

// Opens a folder for listing: a source folder by its path (a backup folder may be reached through
// a link the user chose; nothing below it is), a device folder below the device root.
int _OpenFolder(AnalysisContext &context, const QString &path, bool deviceSide, bool followLink)
{
    if (deviceSide) {
        const QString relative = path == context.device->path() ? QString() : context.device->relativePath(path);
        if (relative.isNull() && path != context.device->path()) {
            errno = EINVAL;
            return -1;
        }
        BUError error;
        const int fd = context.device->openFolder(relative, false, &error);
        errno = error.code;
        return fd;
    }
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followLink ? 0 : O_NOFOLLOW);
    return ::open(FileNameToBytes(path).constData(), flags);
}

void _SetFolderReason(AnalysisContext &context, const QString &path, int errorNumber)
{
    context.reason = FormatString(
        "I can't examine the contents of the folder \"%@\" -- %@", path, BUError::posix(errorNumber).failureReason);
}

bool _NameAllowsItem(const QString &name, bool deviceSide)
{
    if (name.isEmpty() || name[0] == u'.')
        return false;
    if (deviceSide)
        return true;
    if (name[0] == u'!')
        return false;
    if (g_advancedUser && name[0] == QChar(kAdvancedUserMark))
        return false;
    // The name without its extension: a single "~" is a name, a longer one ending in "~" a
    // backup copy that editors leave behind.
    const qsizetype dot = name.lastIndexOf(u'.');
    const QStringView rest = dot < 0 ? QStringView(name) : QStringView(name).first(dot);
    if (rest.size() == 1)
        return true;
    return !rest.endsWith(u'~');
}

bool _RulesAllowItem(const AnalysisContext &context, const QString &name, bool isFolder)
{
    const BURuleList &rules = isFolder ? *context.ignoreFolders : *context.ignoreFiles;
    return rules.isEmpty() || !IsIgnored(rules, name, !isFolder);
}

void _GetFileStats(const BUItemProperties &properties, FileStats *stats)
{
    StatsFromProperties(properties, stats);
}

bool _ShouldUpdateAttributes(const AnalysisContext &context, const FileStats &source, const FileStats &device)
{
    if (device.attributesModified >= source.attributesModified)
        return false;
    // Creation times are not compared: Linux cannot set them, so they would never match.
    if (source.label != device.label || source.hasCustomIcon != device.hasCustomIcon
        || source.hasHiddenExtension != device.hasHiddenExtension)
        return true;
    if (!context.device->kind().holdsOwnership)
        return false;
    if (source.mode != device.mode)
        return true;
    if (source.digestKnown && device.digestKnown && source.attributeDigest != device.attributeDigest)
        return true;
    return RunningAsRoot() && (source.owner != device.owner || source.group != device.group);
}

// Reads the extended-attribute digests when they can decide the comparison: only when the source
// changed attributes after the device copy and the device keeps them.
bool _NeedsDigests(const AnalysisContext &context, const FileStats &source, const FileStats &device)
{
    return context.device->kind().holdsOwnership && device.attributesModified < source.attributesModified;
}

// 0 skip, 1 use (stats filled), 2 failure (reason set).
// known: the item's properties when they were read already, else null.
int _ShouldCopyFile(AnalysisContext &context, int folderFd, const QString &folder, const char *name,
    const QString &itemName, unsigned char type, bool deviceSide, const BUItemProperties *known, FileStats *stats)
{
    if (!_NameAllowsItem(itemName, deviceSide))
        return 0;
    if (type == DT_DIR)
        return 0; // a folder: the tree walk has examined it already
    BUItemProperties properties;
    BUError error;
    if (known) {
        properties = *known;
    } else if (!ReadItemProperties(folderFd, name, &properties, &error)) {
        context.reason = FormatString(
            "I can't examine the properties of \"%@\" -- %@", _Child(folder, itemName), error.failureReason);
        return 2;
    }
    // Links, FIFOs, sockets and devices are never copied, nor hidden, immutable or unreadable files.
    if (!properties.isRegularFile() || properties.systemImmutable || !properties.isReadable())
        return 0;
    _GetFileStats(properties, stats);
    stats->size = properties.size;
    return 1;
}

// The pre-order successor of `index`; descend false skips its subtree. The path follows along,
// except for the children of the root, whose paths the callers derive themselves.
bool _NextFolder(KSArrayString &tree, uint64_t *index, QString *path, bool descend)
{
    const FolderEntry *entry = _Entry(tree, *index);
    if (descend && entry->firstChild != kNone) {
        *index = entry->firstChild;
        *path = _Child(*path, _Name(tree, *index));
        return true;
    }
    QString parentPath = _ParentPath(*path);
    uint64_t current = *index;
    for (;;) {
        entry = _Entry(tree, current);
        if (entry->nextSibling != kNone) {
            *index = entry->nextSibling;
            *path = _Child(parentPath, _Name(tree, *index));
            return true;
        }
        current = entry->parent;
        if (current == 0 || current == kNone)
            return false;
        parentPath = _ParentPath(parentPath);
    }
}

// The device path of a device tree node: the names up to the root, whose string is the root path.
QString _DeviceFolderPath(KSArrayString &deviceTree, uint64_t index)
{
    QStringList names;
    for (; index != 0 && index != kNone; index = _Entry(deviceTree, index)->parent)
        names.prepend(_Name(deviceTree, index));
    names.prepend(_Name(deviceTree, 0));
    return names.join(u'/');
}

void _ReadFolderDigest(AnalysisContext &context, const QString &path, bool deviceSide, FileStats *stats)
{
    const int fd = _OpenFolder(context, path, deviceSide, !deviceSide);
    if (fd < 0)
        return;
    ReadAttributeDigest(fd, "", stats);
    ::close(fd);
}

bool _RecordFolders(AnalysisContext &context, KSArrayString &tree, KSArrayString &otherTree, bool deviceSide)
{
    uint64_t index = _Entry(tree, 0)->firstChild;
    if (index == kNone || index >= tree.count())
        return true;
    const QString &deviceRoot = context.device->path();
    QString path, rootPath;
    for (;;) {
        if (_CancelAnalysis(context))
            return false;
        FolderEntry entry = *_Entry(tree, index);
        const QString &name = _Name(tree, index);
        if (entry.parent == 0) {
            path = deviceSide ? _Child(deviceRoot, name) : name;
            rootPath = deviceSide ? deviceRoot : _ParentPath(name);
        }
        bool descend = true;
        if (entry.match == kNone) {
            BUTransaction transaction(path, rootPath);
            transaction.setFolder(true);
            if (deviceSide) {
                transaction.setAction(BUTransaction::kDelete);
                descend = false; // only the topmost unmatched device folder is deleted
            }
            g_transactions.append(transaction);
        } else if (!deviceSide && CaseInsensitiveCompare(PathExtension(name), u"nib") != KSOrderedSame) {
            FileStats device = _Entry(otherTree, entry.match)->stats;
            if (_NeedsDigests(context, entry.stats, device)) {
                _ReadFolderDigest(context, path, false, &entry.stats);
                _ReadFolderDigest(context, _DeviceFolderPath(otherTree, entry.match), true, &device);
            }
            if (_ShouldUpdateAttributes(context, entry.stats, device)) {
                BUTransaction transaction(path, rootPath);
                transaction.setFolder(true);
                transaction.setAction(BUTransaction::kUpdate);
                g_transactions.append(transaction);
            }
        }
        if (!_NextFolder(tree, &index, &path, descend))
            return true;
    }
}

// What the mirrors hold and how much of it the Delete transactions remove, so that the window can
// ask before a backup empties most of the device (as an emptied or unmounted source would). Parents
// come before their children in the tree, so one pass finds every folder below a deleted one.
void _CountDeviceItems(KSArrayString &deviceTree, BUAnalysisReport *result)
{
    std::vector<bool> deleted(deviceTree.count(), false);
    for (uint64_t i = 1; i < deviceTree.count(); ++i) {
        const FolderEntry *entry = _Entry(deviceTree, i);
        // The mirror folders themselves are not counted, only what they hold.
        const qint64 items = (entry->parent != 0 ? 1 : 0) + qint64(entry->files);
        result->mirrorItems += items;
        deleted[i] = entry->match == kNone || (entry->parent != 0 && deleted[entry->parent]);
        if (deleted[i])
            result->itemsToDelete += items;
    }
}

// What the reading of one folder found for the comparison. A failure of the tree itself (the
// folder or one of its subfolders could not be examined) outranks a failure among its files: the
// folders are compared before the files.
struct ListedFolder {
    bool treeFailed = false;
    QString treeReason;
    bool filesFailed = false; // the files up to the failure are kept
    QString filesReason;
    std::vector<SourceFile> sourceFiles; // in listing order
    DeviceFileList deviceFiles; // sorted without regard to case
};

// A subfolder found by a reading, before it joins its tree.
struct FoundFolder {
    QString name;
    FileStats stats;
};

// A folder opened only when the comparison needs it (the extended-attribute digests): most never are.
class FolderOpenedOnDemand {
public:
    FolderOpenedOnDemand(AnalysisContext &context, const QString &path, bool deviceSide, bool followLink)
        : m_context(context), m_path(path), m_deviceSide(deviceSide), m_followLink(followLink)
    {
    }
    ~FolderOpenedOnDemand()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    FolderOpenedOnDemand(const FolderOpenedOnDemand &) = delete;
    FolderOpenedOnDemand &operator=(const FolderOpenedOnDemand &) = delete;

    int fd()
    {
        if (!m_tried) {
            m_tried = true;
            m_fd = _OpenFolder(m_context, m_path, m_deviceSide, m_followLink);
        }
        return m_fd;
    }

private:
    AnalysisContext &m_context;
    QString m_path;
    bool m_deviceSide;
    bool m_followLink;
    bool m_tried = false;
    int m_fd = -1;
};

// Reads one folder: its subfolders for the tree, its files for the comparison, each entry examined
// once. The device side keeps temporary files that an interrupted backup left behind: no source
// file is ever named like them, so they are deleted.
void _ReadFolder(AnalysisContext &context, const QString &path, bool deviceSide, bool isBackupFolder, ListedFolder &out,
    std::vector<FoundFolder> &subfolders, uint32_t *otherItems)
{
    auto treeFailure = [&out, &context] {
        out.treeFailed = true;
        out.treeReason = context.reason;
    };
    const int fd = _OpenFolder(context, path, deviceSide, isBackupFolder);
    if (fd < 0) {
        const int errorNumber = errno;
        const bool noPermission = CocoaDomainErrorCode(BUError::posix(errorNumber)) == kReadNoPermissionError;
        if (!noPermission || deviceSide)
            _SetFolderReason(context, path, errorNumber);
        if (!noPermission) {
            treeFailure();
        } else if (deviceSide) {
            // The tree goes on without it; the comparison stops here if it needs its files. A
            // source folder the user cannot read simply has nothing to copy.
            out.filesFailed = true;
            out.filesReason = context.reason;
        }
        return;
    }
    FolderListing listing(fd);
    BUItemProperties properties;
    // A device mounted inside a backup folder is never walked into, the backup folder itself
    // included.
    const bool walk = deviceSide || !isBackupFolder
        || !(ReadItemProperties(listing.fd(), "", &properties, nullptr) && context.device->isRootFolder(properties));
    FolderReader reader(listing);
    const char *name;
    unsigned char type;
    const BUItemProperties *known;
    while (reader.next(&name, &type, &known)) {
        if (_CancelAnalysis(context))
            return treeFailure();
        const bool maybeFolder = type == DT_DIR || type == DT_UNKNOWN;
        if (walk && !maybeFolder && deviceSide)
            ++*otherItems;
        const QString itemName = FileNameFromBytes(QByteArrayView(name));
        if (walk && maybeFolder && _NameAllowsItem(itemName, deviceSide)) {
            BUError error;
            if (!known) {
                if (!ReadItemProperties(listing.fd(), name, &properties, &error)) {
                    context.reason = FormatString(
                        "I can't examine the properties of \"%@\" -- %@", _Child(path, itemName), error.failureReason);
                    return treeFailure();
                }
                known = &properties;
            }
            if (known->isDirectory()) {
                if (deviceSide
                    || !(known->systemImmutable || !known->isReadable() || !_RulesAllowItem(context, itemName, true)
                        || context.device->isRootFolder(*known))) {
                    FoundFolder folder {itemName, {}};
                    _GetFileStats(*known, &folder.stats);
                    subfolders.push_back(std::move(folder));
                }
                continue; // a folder is never one of the files
            }
            if (deviceSide)
                ++*otherItems;
        }
        if (out.filesFailed)
            continue; // the tree is read on
        FileStats stats;
        if (deviceSide && IsTemporaryName(name) && (type == DT_REG || type == DT_UNKNOWN)) {
            const bool read = known || ReadItemProperties(listing.fd(), name, &properties, nullptr);
            if (read && (known ? *known : properties).isRegularFile())
                out.deviceFiles.push_back({stats, itemName});
            continue;
        }
        const int use = _ShouldCopyFile(context, listing.fd(), path, name, itemName, type, deviceSide, known, &stats);
        if (use == 2) {
            out.filesFailed = true;
            out.filesReason = context.reason;
        } else if (use == 1 && deviceSide) {
            out.deviceFiles.push_back({stats, itemName});
        } else if (use == 1 && _RulesAllowItem(context, itemName, false)) {
            out.sourceFiles.push_back({itemName, stats});
        }
    }
    if (listing.errorNumber != 0) {
        _SetFolderReason(context, path, listing.errorNumber);
        if (walk)
            return treeFailure();
        out.filesFailed = true;
        out.filesReason = context.reason;
    }
    // Sorted once; the stable sort keeps names equal without regard to case in listing order, and
    // only the first of them stays.
    DeviceFileList &files = out.deviceFiles;
    std::stable_sort(files.begin(), files.end(), [](const DeviceFile &a, const DeviceFile &b) {
        return CaseInsensitiveCompare(a.name, b.name) == KSOrderedAscending;
    });
    files.erase(std::unique(files.begin(), files.end(),
                    [](const DeviceFile &a, const DeviceFile &b) {
                        return CaseInsensitiveCompare(a.name, b.name) == KSOrderedSame;
                    }),
        files.end());
}

// Folders in the order of their names without regard to case; names equal that way stay in
// listing order.
void _SortByName(const KSArrayString &tree, std::vector<uint64_t> &nodes)
{
    std::stable_sort(nodes.begin(), nodes.end(), [&tree](uint64_t a, uint64_t b) {
        return CaseInsensitiveCompare(_Name(tree, a), _Name(tree, b)) == KSOrderedAscending;
    });
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
    TreeReader(
        const AnalysisContext &context, KSArrayString &sourceTree, KSArrayString &deviceTree, uint64_t folderCount)
        : m_context(context), m_trees {&sourceTree, &deviceTree}
    {
        m_context.abandon = &m_stop;
        addTask({Device, 0, _Name(deviceTree, 0), true, {0}});
        for (uint64_t i = 1; i <= folderCount; ++i) {
            addTask({Source, i, _Name(sourceTree, i), true, {uint32_t(i)}});
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
        std::unique_ptr<ListedFolder> listed = std::move(m_listed[side][node]);
        if (listed)
            release(lock, *listed);
        return listed;
    }
    // A device folder that no source folder matches: its files are not wanted, nor those of its
    // subfolders, read already or not. Call with lock() held.
    void unwanted(uint64_t node)
    {
        KSArrayString &tree = *m_trees[Device];
        const bool wasFull = m_keptFiles >= kKeptFiles;
        std::vector<uint64_t> folders {node};
        while (!folders.empty()) {
            const uint64_t folder = folders.back();
            folders.pop_back();
            m_unwanted[folder] = true;
            if (std::unique_ptr<ListedFolder> &listed = m_listed[Device][folder]) {
                m_keptFiles -= kept(*listed);
                listed.reset();
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
    static constexpr std::size_t kKeptFiles = 32768;
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
        m_listed[side].resize(count);
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
        try {
            _ReadFolder(context, task.path, task.side == Device, task.isBackupFolder, *listed, subfolders, &otherItems);
        } catch (const std::bad_alloc &) {
            listed->treeFailed = true;
            listed->treeReason = kMemoryReason;
            subfolders.clear();
        }
        std::size_t added = 0;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            KSArrayString &tree = *m_trees[task.side];
            uint64_t previous = kNone;
            for (const FoundFolder &folder : subfolders) {
                FolderEntry entry {task.node, kNone, kNone, kNone, folder.stats, true};
                const uint64_t index = tree.addEntry(&entry, &folder.name);
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
            // Both trees are read in about the order the comparison follows: a folder's subtree
            // before its next sibling's, siblings in the order of their names, and a mirror folder
            // at about the time of its source folder (the top level's, at its backup folder's).
            const uint64_t first = tree.count() - added;
            std::vector<uint64_t> order(added);
            std::iota(order.begin(), order.end(), first);
            _SortByName(tree, order);
            for (std::size_t rank = 0; rank < added; ++rank) {
                const uint64_t node = order[rank];
                Task child {task.side, node, _Child(task.path, subfolders[node - first].name), false, task.order};
                uint32_t position = uint32_t(m_backupFolderNames.size() + 1 + rank);
                if (task.side == Device && task.node == 0) {
                    for (qsizetype i = 0; i < m_backupFolderNames.size(); ++i) {
                        if (CaseInsensitiveCompare(m_backupFolderNames[i], _Name(tree, node)) == KSOrderedSame) {
                            position = uint32_t(i + 1);
                            break;
                        }
                    }
                    child.order.clear();
                } else {
                    position = uint32_t(rank);
                }
                child.order.push_back(position);
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
                m_listed[task.side][task.node] = std::move(listed);
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
    KSArrayString *m_trees[2];
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
    std::vector<std::unique_ptr<ListedFolder>> m_listed[2]; // by tree entry, until taken
    std::vector<bool> m_unwanted; // by device tree entry
    QHash<uint64_t, QString> m_treeFailures[2]; // by entry
    std::atomic<bool> m_stop {false};
    std::vector<std::thread> m_threads;
};

// Matches the subfolders of a source folder with those of its device folder: without regard to
// case, the first listed device folder winning; many folders get a table of the folded names that
// answers the same.
void _MatchSubfolders(KSArrayString &sourceTree, uint64_t s, KSArrayString &deviceTree, uint64_t d)
{
    int deviceChildren = 0;
    for (uint64_t e = _Entry(deviceTree, d)->firstChild; e != kNone; e = _Entry(deviceTree, e)->nextSibling)
        ++deviceChildren;
    QHash<QString, uint64_t> folded;
    if (deviceChildren > 16) {
        for (uint64_t e = _Entry(deviceTree, d)->firstChild; e != kNone; e = _Entry(deviceTree, e)->nextSibling) {
            const QString key = CaseFoldedString(_Name(deviceTree, e));
            if (!folded.contains(key))
                folded.insert(key, e);
        }
    }
    for (uint64_t c = _Entry(sourceTree, s)->firstChild; c != kNone; c = _Entry(sourceTree, c)->nextSibling) {
        uint64_t partner = kNone;
        if (deviceChildren > 16) {
            partner = folded.value(CaseFoldedString(_Name(sourceTree, c)), kNone);
        } else {
            for (uint64_t e = _Entry(deviceTree, d)->firstChild; e != kNone; e = _Entry(deviceTree, e)->nextSibling) {
                if (CaseInsensitiveCompare(_Name(sourceTree, c), _Name(deviceTree, e)) == KSOrderedSame) {
                    partner = e;
                    break;
                }
            }
        }
        if (partner != kNone) {
            _Entry(sourceTree, c)->match = partner;
            _Entry(deviceTree, partner)->match = c;
        }
    }
}

// The file transactions of one source folder against its device folder's files (null when it
// has no device folder); the device files that no source file matched are left unseen.
bool _RecordFilesInFolder(AnalysisContext &context, const QString &folder, const QString &rootPath, bool isBackupFolder,
    const std::vector<SourceFile> &sourceFiles, DeviceFileList *deviceFiles, const QString &deviceFolder)
{
    FolderOpenedOnDemand sourceFolder(context, folder, false, isBackupFolder);
    FolderOpenedOnDemand deviceFolderOpened(context, deviceFolder, true, false);
    for (const SourceFile &file : sourceFiles) {
        if (_CancelAnalysis(context))
            return false;
        FileStats stats = file.stats;
        uint32_t action = BUTransaction::kCopy;
        bool counted = true;
        DeviceFile *deviceFile = deviceFiles ? _FindDeviceFile(*deviceFiles, file.name) : nullptr;
        if (deviceFile) {
            FileStats *device = &deviceFile->stats;
            device->seen = true;
            const BUVolumeKind &kind = context.device->kind();
            if (ComparableContentTime(stats.contentModified, kind)
                <= ComparableContentTime(device->contentModified, kind)) {
                if (_NeedsDigests(context, stats, *device)) {
                    ReadAttributeDigest(sourceFolder.fd(), FileNameToBytes(file.name).constData(), &stats);
                    ReadAttributeDigest(deviceFolderOpened.fd(), FileNameToBytes(deviceFile->name).constData(), device);
                }
                if (!_ShouldUpdateAttributes(context, stats, *device))
                    continue;
                action = BUTransaction::kUpdate;
                counted = false;
            }
        }
        BUTransaction transaction(folder, file.name, rootPath);
        transaction.setAction(action);
        if (counted) {
            g_totalBytes += double(stats.size);
            transaction.setFileSize(double(stats.size));
        }
        g_transactions.append(transaction);
    }
    return true;
}

} // namespace

BUAnalyzeOperation::BUAnalyzeOperation(const QString &targetName, BUEngineReceiver *controller,
    const QStringList &backupFolders, const BURuleList &ignoreFolders, const BURuleList &ignoreFiles)
    : m_targetName(targetName), m_controller(controller), m_backupFolders(backupFolders),
      m_ignoreFolders(ignoreFolders), m_ignoreFiles(ignoreFiles)
{
}

void BUAnalyzeOperation::cancel()
{
    m_cancelAnalysis.store(true, std::memory_order_relaxed);
    KSAsyncOperation::cancel();
}

bool BUAnalyzeOperation::performOperation()
{
    const BUAnalysisReport report = analyze();
    PostToReceiver(m_controller, [report](BUEngineReceiver *receiver) { receiver->analysisComplete(report); });
    return true;
}

BUAnalysisReport BUAnalyzeOperation::analyze()
{
    try {
        return runAnalysis();
    } catch (const std::bad_alloc &) {
        // The shared list could not grow: the same end as an entry array that could not.
        BUAnalysisReport result;
        result.target = m_targetName;
        result.error = FormatString("I can't backup to \"%@\" because %@.", m_targetName,
            QStringLiteral("there's not enough memory. Perhaps your source folders are too complex"));
        return result;
    }
}

BUAnalysisReport BUAnalyzeOperation::runAnalysis()
{
    g_copiedBytes = 0;
    g_totalBytes = 0;
    g_finishedTransactions = 0;
    g_failedTransactions = 0;

    BUAnalysisReport result;
    result.target = m_targetName;
    BUDeviceRoot device;
    AnalysisContext context {kMemoryReason, &result, &m_cancelAnalysis, &m_ignoreFolders, &m_ignoreFiles, &device};
    auto fail = [&] {
        result.error = FormatString("I can't backup to \"%@\" because %@.", m_targetName, context.reason);
        return result;
    };
    const bool deviceOpen = device.open(m_targetName, nullptr);

    // The source tree: a "/" root, then the backup folders in list order.
    const uint64_t folderCount = uint64_t(m_backupFolders.size());
    std::unique_ptr<KSArrayString> sourceTree = KSArrayString::create(sizeof(FolderEntry), 10000);
    if (!sourceTree)
        return fail();
    FolderEntry root {kNone, folderCount > 0 ? 1 : kNone, kNone, kNone, {}, false};
    const QString rootName = QStringLiteral("/");
    if (sourceTree->addEntry(&root, &rootName) == KSNotFound)
        return fail();
    for (uint64_t i = 1; i <= folderCount; ++i) {
        const QString &folder = m_backupFolders[qsizetype(i - 1)];
        FolderEntry entry {0, kNone, i < folderCount ? i + 1 : kNone, kNone, {}, true};
        const int fd = ::open(FileNameToBytes(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        BUItemProperties properties;
        if (fd >= 0 && ReadItemProperties(fd, "", &properties, nullptr))
            _GetFileStats(properties, &entry.stats);
        if (fd >= 0)
            ::close(fd);
        if (sourceTree->addEntry(&entry, &folder) == KSNotFound)
            return fail();
    }
    if (_CancelAnalysis(context))
        return fail();

    // Extra items: the top level holds the mirrors of the backup folders and dot-names, nothing
    // else. The names must match exactly here, unlike the matching below.
    const int rootFd = deviceOpen ? device.openFolder(QString(), false, nullptr) : -1;
    if (rootFd < 0) {
        context.reason = QStringLiteral("I can't examine the contents of the disk");
        return fail();
    }
    {
        FolderListing listing(rootFd);
        QStringList extra;
        const char *name;
        unsigned char type;
        while (listing.next(&name, &type)) {
            if (name[0] == '.')
                continue;
            const QString itemName = FileNameFromBytes(QByteArrayView(name));
            BUItemProperties properties;
            const bool isFolder
                = ReadItemProperties(listing.fd(), name, &properties, nullptr) && properties.isDirectory();
            const bool expected = isFolder
                && std::any_of(m_backupFolders.cbegin(), m_backupFolders.cend(),
                    [&](const QString &folder) { return LastPathComponent(folder) == itemName; });
            if (!expected)
                extra.append(itemName);
        }
        if (listing.errorNumber != 0) {
            context.reason = QStringLiteral("I can't examine the contents of the disk");
            return fail();
        }
        if (!extra.isEmpty()) {
            std::sort(extra.begin(), extra.end(),
                [](const QString &a, const QString &b) { return CaseInsensitiveCompare(a, b) == KSOrderedAscending; });
            result.extra = extra;
            context.reason.clear();
            return fail();
        }
    }
    if (folderCount == 0)
        return result; // nothing to mirror, and nothing on the device to remove

    // Both trees are read at once, and the comparison follows the source tree close behind.
    std::unique_ptr<KSArrayString> deviceTree = KSArrayString::create(sizeof(FolderEntry), 10000);
    if (!deviceTree)
        return fail();
    FolderEntry deviceRoot {kNone, kNone, kNone, kNone, {}, true};
    if (deviceTree->addEntry(&deviceRoot, &device.path()) == KSNotFound)
        return fail();
    TreeReader reader(context, *sourceTree, *deviceTree, folderCount);
    auto cancelled = [&] {
        _CancelAnalysis(context);
        return fail();
    };
    // The mirror of a backup folder: the first top-level device folder of its name.
    if (!reader.waitFor(TreeReader::Device, 0, m_cancelAnalysis))
        return cancelled();
    {
        const auto lock = reader.lock();
        for (uint64_t i = 1; i <= folderCount; ++i) {
            const QString name = LastPathComponent(_Name(*sourceTree, i));
            for (uint64_t e = _Entry(*deviceTree, 0)->firstChild; e != kNone; e = _Entry(*deviceTree, e)->nextSibling) {
                if (CaseInsensitiveCompare(name, _Name(*deviceTree, e)) == KSOrderedSame) {
                    _Entry(*sourceTree, i)->match = e;
                    _Entry(*deviceTree, e)->match = i;
                    break;
                }
            }
        }
        for (uint64_t e = _Entry(*deviceTree, 0)->firstChild; e != kNone; e = _Entry(*deviceTree, e)->nextSibling) {
            if (_Entry(*deviceTree, e)->match == kNone)
                reader.unwanted(e);
        }
    }
    reader.take(TreeReader::Device, 0); // the top level's files are no mirror's

    QString filesFailure; // reported when the trees themselves were read without one
    // The source tree in order, each folder's subfolders in the order of their names, as the
    // readers go (the transactions are sorted afterwards).
    struct Visit {
        uint64_t node;
        QString path;
    };
    std::vector<Visit> toVisit;
    {
        const auto lock = reader.lock();
        for (uint64_t i = folderCount; i >= 1; --i)
            toVisit.push_back({i, _Name(*sourceTree, i)});
    }
    QString rootPath;
    while (!toVisit.empty()) {
        const uint64_t index = toVisit.back().node;
        const QString path = std::move(toVisit.back().path);
        toVisit.pop_back();
        if (_CancelAnalysis(context))
            return fail();
        if (!reader.waitFor(TreeReader::Source, index, m_cancelAnalysis))
            return cancelled();
        const std::unique_ptr<ListedFolder> source = reader.take(TreeReader::Source, index);
        if (!source || source->treeFailed)
            break;
        FolderEntry entry;
        {
            const auto lock = reader.lock();
            entry = *_Entry(*sourceTree, index);
            std::vector<uint64_t> subfolders;
            for (uint64_t c = entry.firstChild; c != kNone; c = _Entry(*sourceTree, c)->nextSibling)
                subfolders.push_back(c);
            _SortByName(*sourceTree, subfolders);
            for (auto c = subfolders.rbegin(); c != subfolders.rend(); ++c)
                toVisit.push_back({*c, _Child(path, _Name(*sourceTree, *c))});
        }
        if (entry.parent == 0)
            rootPath = _ParentPath(path);
        std::unique_ptr<ListedFolder> deviceFolder;
        QString devicePath;
        if (entry.match != kNone) {
            if (!reader.waitFor(TreeReader::Device, entry.match, m_cancelAnalysis))
                return cancelled();
            {
                const auto lock = reader.lock();
                _MatchSubfolders(*sourceTree, index, *deviceTree, entry.match);
                for (uint64_t e = _Entry(*deviceTree, entry.match)->firstChild; e != kNone;
                     e = _Entry(*deviceTree, e)->nextSibling) {
                    if (_Entry(*deviceTree, e)->match == kNone)
                        reader.unwanted(e); // deleted whole
                }
                devicePath = _DeviceFolderPath(*deviceTree, entry.match);
            }
            deviceFolder = reader.take(TreeReader::Device, entry.match);
            if (!deviceFolder) {
                // Taken by an earlier source folder of the same name but for case, or let go when
                // that folder's subfolders did not match it: read again.
                deviceFolder = std::make_unique<ListedFolder>();
                std::vector<FoundFolder> subfolders;
                uint32_t otherItems = 0;
                _ReadFolder(context, devicePath, true, false, *deviceFolder, subfolders, &otherItems);
                if (deviceFolder->treeFailed) {
                    deviceFolder->filesFailed = true;
                    deviceFolder->filesReason = deviceFolder->treeReason;
                }
            } else if (deviceFolder->treeFailed) {
                break;
            }
            if (deviceFolder->filesFailed) {
                filesFailure = deviceFolder->filesReason;
                break;
            }
        }
        if (!_RecordFilesInFolder(context, path, rootPath, entry.parent == 0, source->sourceFiles,
                deviceFolder ? &deviceFolder->deviceFiles : nullptr, devicePath))
            return fail();
        if (source->filesFailed) {
            filesFailure = source->filesReason;
            break;
        }
        if (deviceFolder) {
            for (const DeviceFile &file : std::as_const(deviceFolder->deviceFiles)) {
                if (file.stats.seen)
                    continue;
                BUTransaction transaction(devicePath, file.name, QString());
                transaction.setAction(BUTransaction::kDelete);
                g_transactions.append(transaction);
                ++result.itemsToDelete;
            }
        }
    }
    if (!reader.waitForAll(m_cancelAnalysis))
        return cancelled();
    if (_CancelAnalysis(context))
        return fail();
    // A failure of the trees comes first, the source's before the device's, each the first in
    // tree order; then one among the files.
    for (const TreeReader::Side side : {TreeReader::Source, TreeReader::Device}) {
        if (!reader.treeFailed(side))
            continue;
        KSArrayString &tree = side == TreeReader::Source ? *sourceTree : *deviceTree;
        uint64_t node = side == TreeReader::Source ? 1 : 0;
        QString ignored;
        do {
            context.reason = reader.treeFailure(side, node);
            if (!context.reason.isNull())
                return fail();
        } while (_NextFolder(tree, &node, &ignored, true));
    }
    if (!filesFailure.isNull()) {
        context.reason = filesFailure;
        return fail();
    }

    if (!_RecordFolders(context, *sourceTree, *deviceTree, false)
        || !_RecordFolders(context, *deviceTree, *sourceTree, true))
        return fail();
    _CountDeviceItems(*deviceTree, &result);
    return result;
}

void BUAnalyzeOperation::cancelledBeforeStart()
{
    BUAnalysisReport report;
    report.target = m_targetName;
    report.cancel = true;
    PostToReceiver(m_controller, [report](BUEngineReceiver *receiver) { receiver->analysisComplete(report); });
}
