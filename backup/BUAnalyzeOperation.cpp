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
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
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

// Both sides of one source folder of the file comparison, listed and examined.
struct FolderListings {
    uint64_t sourceIndex = kNone;
    std::unique_ptr<FolderListing> source; // kept open for the extended-attribute digests
    std::vector<SourceFile> sourceFiles; // in listing order; up to the failure when not sourceOk
    bool sourceOk = false;
    QString sourceReason;
    bool matched = false;
    QString deviceFolder; // the device folder's path
    std::unique_ptr<FolderListing> device;
    DeviceFileList deviceFiles;
    bool deviceOk = false;
    QString deviceReason;
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

bool _BuildFolderTree(
    AnalysisContext &context, const QString &startPath, KSArrayString &tree, uint64_t startIndex, bool deviceSide)
{
    uint64_t node = startIndex;
    QString path = startPath;
    QStringList stack; // the paths of the folders from the start node down to the current one
    for (;;) {
        if (_CancelAnalysis(context))
            return false;
        stack.append(path);
        const int fd = _OpenFolder(context, path, deviceSide, node == startIndex);
        if (fd < 0) {
            if (CocoaDomainErrorCode(BUError::posix(errno)) != kReadNoPermissionError) {
                _SetFolderReason(context, path, errno);
                return false;
            }
        } else {
            FolderListing listing(fd);
            BUItemProperties properties;
            // A device mounted inside a backup folder is never walked into, the backup folder
            // itself included.
            bool walk = deviceSide || node != startIndex
                || !(ReadItemProperties(listing.fd(), "", &properties, nullptr)
                    && context.device->isRootFolder(properties));
            uint64_t previous = kNone;
            const char *name;
            unsigned char type;
            while (walk && listing.next(&name, &type)) {
                if (_CancelAnalysis(context))
                    return false;
                if (type != DT_DIR && type != DT_UNKNOWN) {
                    _Entry(tree, node)->files += deviceSide ? 1 : 0;
                    continue;
                }
                const QString itemName = FileNameFromBytes(QByteArrayView(name));
                if (!_NameAllowsItem(itemName, deviceSide))
                    continue;
                BUError error;
                if (!ReadItemProperties(listing.fd(), name, &properties, &error)) {
                    context.reason = FormatString(
                        "I can't examine the properties of \"%@\" -- %@", _Child(path, itemName), error.failureReason);
                    return false;
                }
                if (!properties.isDirectory()) {
                    _Entry(tree, node)->files += deviceSide ? 1 : 0;
                    continue;
                }
                if (!deviceSide
                    && (properties.systemImmutable || !properties.isReadable()
                        || !_RulesAllowItem(context, itemName, true) || context.device->isRootFolder(properties)))
                    continue;
                FolderEntry entry {node, kNone, kNone, kNone, {}, true};
                _GetFileStats(properties, &entry.stats);
                const uint64_t index = tree.addEntry(&entry, &itemName);
                if (index == KSNotFound)
                    return false; // the memory reason stands
                if (previous == kNone)
                    _Entry(tree, node)->firstChild = index;
                else
                    _Entry(tree, previous)->nextSibling = index;
                previous = index;
            }
            if (walk && listing.errorNumber != 0) {
                _SetFolderReason(context, path, listing.errorNumber);
                return false;
            }
        }
        // Move on: down to the first child, else to the next sibling of the nearest folder that
        // has one, without climbing above the start.
        const uint64_t firstChild = _Entry(tree, node)->firstChild;
        if (firstChild != kNone) {
            node = firstChild;
            path = _Child(path, _Name(tree, node));
            continue;
        }
        if (node == startIndex)
            return true;
        stack.removeLast();
        for (;;) {
            const FolderEntry *entry = _Entry(tree, node);
            if (entry->nextSibling != kNone) {
                node = entry->nextSibling;
                path = _Child(stack.last(), _Name(tree, node));
                break;
            }
            node = entry->parent;
            if (node == startIndex)
                return true;
            stack.removeLast();
        }
    }
}

bool _MatchFolders(
    AnalysisContext &context, KSArrayString &sourceTree, uint64_t s, KSArrayString &deviceTree, uint64_t d)
{
    if (_CancelAnalysis(context))
        return false;
    _Entry(sourceTree, s)->match = d;
    _Entry(deviceTree, d)->match = s;

    // A linear search, the first listed device folder winning; many folders get a table of the
    // folded names that answers the same.
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
        if (partner != kNone && !_MatchFolders(context, sourceTree, c, deviceTree, partner))
            return false;
    }
    return true;
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

bool _RecordFilesInFolder(
    AnalysisContext &context, const QString &folder, const QString &rootPath, FolderListings &listings)
{
    DeviceFileList *deviceFiles = listings.matched ? &listings.deviceFiles : nullptr;
    for (SourceFile &file : listings.sourceFiles) {
        if (_CancelAnalysis(context))
            return false;
        FileStats &stats = file.stats;
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
                    ReadAttributeDigest(listings.source->fd(), FileNameToBytes(file.name).constData(), &stats);
                    ReadAttributeDigest(listings.device->fd(), FileNameToBytes(deviceFile->name).constData(), device);
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
    if (!listings.sourceOk) {
        if (!_CancelAnalysis(context))
            context.reason = listings.sourceReason;
        return false;
    }
    return true;
}

// Lists a matched device folder into the sorted device file list. Temporary files that an
// interrupted backup left behind go in too: no source file is ever named like them, so they are
// deleted.
bool _ListDeviceFiles(AnalysisContext &context, FolderListing &listing, const QString &folder, DeviceFileList &files)
{
    files.clear();
    FolderReader reader(listing);
    const char *name;
    unsigned char type;
    const BUItemProperties *known;
    while (reader.next(&name, &type, &known)) {
        if (_CancelAnalysis(context))
            return false;
        const QString itemName = FileNameFromBytes(QByteArrayView(name));
        FileStats stats;
        int use;
        if (IsTemporaryName(name) && (type == DT_REG || type == DT_UNKNOWN)) {
            BUItemProperties properties;
            const bool read
                = known ? (properties = *known, true) : ReadItemProperties(listing.fd(), name, &properties, nullptr);
            use = read && properties.isRegularFile() ? 1 : 0;
        } else {
            use = _ShouldCopyFile(context, listing.fd(), folder, name, itemName, type, true, known, &stats);
        }
        if (use == 2)
            return false;
        if (use == 1)
            files.push_back({stats, itemName});
    }
    if (listing.errorNumber != 0) {
        _SetFolderReason(context, folder, listing.errorNumber);
        return false;
    }
    // Sorted once; the stable sort keeps names equal without regard to case in listing order, and
    // only the first of them stays.
    std::stable_sort(files.begin(), files.end(), [](const DeviceFile &a, const DeviceFile &b) {
        return CaseInsensitiveCompare(a.name, b.name) == KSOrderedAscending;
    });
    files.erase(std::unique(files.begin(), files.end(),
                    [](const DeviceFile &a, const DeviceFile &b) {
                        return CaseInsensitiveCompare(a.name, b.name) == KSOrderedSame;
                    }),
        files.end());
    return true;
}

QString _SourceFolderPath(KSArrayString &sourceTree, uint64_t index)
{
    QStringList names;
    for (; _Entry(sourceTree, index)->parent != 0; index = _Entry(sourceTree, index)->parent)
        names.prepend(_Name(sourceTree, index));
    QString path = _Name(sourceTree, index); // a backup folder: its whole path
    for (const QString &name : std::as_const(names))
        path = _Child(path, name);
    return path;
}

// Lists a source folder's files that take part, with their stats, as the comparison needs them.
void _ListSourceFiles(AnalysisContext &context, const QString &folder, bool isBackupFolder, FolderListings *out)
{
    out->sourceOk = false;
    const int fd = _OpenFolder(context, folder, false, isBackupFolder);
    if (fd < 0) {
        if (CocoaDomainErrorCode(BUError::posix(errno)) == kReadNoPermissionError)
            out->sourceOk = true; // a folder the user cannot read has nothing to copy
        else
            _SetFolderReason(context, folder, errno);
        return;
    }
    out->source = std::make_unique<FolderListing>(fd);
    FolderListing &listing = *out->source;
    FolderReader reader(listing);
    const char *name;
    unsigned char type;
    const BUItemProperties *known;
    while (reader.next(&name, &type, &known)) {
        if (_CancelAnalysis(context))
            return;
        QString itemName = FileNameFromBytes(QByteArrayView(name));
        FileStats stats;
        const int use = _ShouldCopyFile(context, listing.fd(), folder, name, itemName, type, false, known, &stats);
        if (use == 2)
            return;
        if (use == 1 && _RulesAllowItem(context, itemName, false))
            out->sourceFiles.push_back({std::move(itemName), stats});
    }
    if (listing.errorNumber != 0) {
        _SetFolderReason(context, folder, listing.errorNumber);
        return;
    }
    out->sourceOk = true;
}

// The listings of both sides of every source folder, in the order the comparison walks the
// source tree, made by a few threads at once a bounded number of folders ahead of it: the
// comparison itself is quick, the waiting is on the disks, and a cold disk answers several
// questions at once far faster than one after another.
class FolderListingPool {
public:
    FolderListingPool(const AnalysisContext &context, KSArrayString &sourceTree, KSArrayString &deviceTree)
        : m_context(context), m_sourceTree(sourceTree), m_deviceTree(deviceTree), m_slots(kAhead)
    {
        m_context.abandon = &m_stop;
        uint64_t index = 1;
        QString ignored;
        do
            m_work.push_back(index);
        while (_NextFolder(m_sourceTree, &index, &ignored, true));
        for (int i = 0; i < kThreads && StartHelperThread(m_threads, [this] { run(); }); ++i) { }
    }
    ~FolderListingPool()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_changed.notify_all();
        for (std::thread &thread : m_threads)
            thread.join();
    }
    FolderListingPool(const FolderListingPool &) = delete;
    FolderListingPool &operator=(const FolderListingPool &) = delete;

    // The listings of the next source folder in tree order.
    FolderListings next()
    {
        if (m_threads.empty()) {
            // No thread could be started: the comparison lists each folder itself.
            FolderListings listings;
            listings.sourceIndex = m_work[m_consumed++];
            list(&listings);
            return listings;
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        std::optional<FolderListings> &slot = m_slots[m_consumed % kAhead];
        m_changed.wait(lock, [&slot] { return slot.has_value(); });
        FolderListings listings = std::move(*slot);
        slot.reset();
        ++m_consumed;
        lock.unlock();
        m_changed.notify_all();
        return listings;
    }

private:
    static constexpr int kThreads = 8;
    static constexpr std::size_t kAhead = 64;

    void run()
    {
        for (;;) {
            std::size_t task;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_changed.wait(
                    lock, [this] { return m_stop || m_next == m_work.size() || m_next < m_consumed + kAhead; });
                if (m_stop || m_next == m_work.size())
                    return;
                task = m_next++;
            }
            FolderListings listings;
            listings.sourceIndex = m_work[task];
            try {
                list(&listings);
            } catch (const std::bad_alloc &) {
                listings.deviceOk = listings.sourceOk = false;
                listings.deviceReason = listings.sourceReason = kMemoryReason;
            }
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_slots[task % kAhead] = std::move(listings);
            }
            m_changed.notify_all();
        }
    }

    void list(FolderListings *listings)
    {
        AnalysisContext context = m_context;
        BUAnalysisReport result; // this context's cancel flag
        context.result = &result;
        const FolderEntry *entry = _Entry(m_sourceTree, listings->sourceIndex);
        listings->matched = entry->match != kNone;
        if (listings->matched) {
            listings->deviceFolder = _DeviceFolderPath(m_deviceTree, entry->match);
            const int fd = _OpenFolder(context, listings->deviceFolder, true, false);
            if (fd < 0) {
                _SetFolderReason(context, listings->deviceFolder, errno);
            } else {
                listings->device = std::make_unique<FolderListing>(fd);
                listings->deviceOk
                    = _ListDeviceFiles(context, *listings->device, listings->deviceFolder, listings->deviceFiles);
            }
            if (!listings->deviceOk) {
                listings->deviceReason = context.reason;
                return; // the comparison stops at the device folder
            }
        }
        _ListSourceFiles(context, _SourceFolderPath(m_sourceTree, listings->sourceIndex), entry->parent == 0, listings);
        if (!listings->sourceOk)
            listings->sourceReason = context.reason;
    }

    AnalysisContext m_context;
    KSArrayString &m_sourceTree;
    KSArrayString &m_deviceTree;
    std::vector<uint64_t> m_work; // source tree indexes in walking order
    std::vector<std::optional<FolderListings>> m_slots; // task % kAhead
    std::size_t m_next = 0; // the next task to take
    std::size_t m_consumed = 0; // tasks handed to the comparison
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::atomic<bool> m_stop {false};
    std::vector<std::thread> m_threads;
};

// A thread that the scope waits for; leaving the scope early (a failure, an exception) tells it
// to stop first.
struct JoinedThread {
    std::atomic<bool> &abandon;
    std::thread thread;
    ~JoinedThread()
    {
        if (!thread.joinable())
            return;
        abandon = true;
        thread.join();
    }
};

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

    // The two trees are built at once, the device's on a thread of its own: the two walks wait
    // on different disks, or at least keep one disk's queue fuller. A failure of the source walk
    // is the one reported, as it would be if the source came first.
    std::unique_ptr<KSArrayString> deviceTree = KSArrayString::create(sizeof(FolderEntry), 10000);
    if (!deviceTree)
        return fail();
    FolderEntry deviceRoot {kNone, kNone, kNone, kNone, {}, true};
    if (deviceTree->addEntry(&deviceRoot, &device.path()) == KSNotFound)
        return fail();
    std::atomic<bool> abandonDeviceWalk {false};
    BUAnalysisReport deviceResult;
    AnalysisContext deviceContext = context;
    deviceContext.result = &deviceResult;
    deviceContext.abandon = &abandonDeviceWalk;
    bool deviceBuilt = false;
    // Read ahead of both tree walks; each warmer stops when its tree has been read.
    QList<QByteArray> sourceRoots;
    for (uint64_t i = 1; i <= folderCount; ++i)
        sourceRoots.append(FileNameToBytes(_Name(*sourceTree, i)));
    const TreeWarmer sourceWarmer(&device, sourceRoots, false);
    const TreeWarmer deviceWarmer(&device, {QByteArray()}, true);
    {
        auto walkDevice = [&] {
            try {
                deviceBuilt = _BuildFolderTree(deviceContext, device.path(), *deviceTree, 0, true);
            } catch (const std::bad_alloc &) {
                deviceContext.reason = kMemoryReason;
            }
        };
        JoinedThread deviceWalk {abandonDeviceWalk, {}};
        try {
            deviceWalk.thread = std::thread(walkDevice);
        } catch (const std::system_error &) {
            // No thread to spare: the device's tree is built after the sources'.
        }
        for (uint64_t i = 1; i <= folderCount; ++i) {
            if (!_BuildFolderTree(context, _Name(*sourceTree, i), *sourceTree, i, false))
                return fail();
        }
        if (deviceWalk.thread.joinable())
            deviceWalk.thread.join();
        else
            walkDevice();
    }
    if (!deviceBuilt) {
        if (deviceResult.cancel)
            result.cancel = true;
        context.reason = deviceContext.reason;
        return fail();
    }

    for (uint64_t i = 1; i <= folderCount; ++i) {
        const QString name = LastPathComponent(_Name(*sourceTree, i));
        for (uint64_t e = _Entry(*deviceTree, 0)->firstChild; e != kNone; e = _Entry(*deviceTree, e)->nextSibling) {
            if (CaseInsensitiveCompare(name, _Name(*deviceTree, e)) == KSOrderedSame) {
                if (!_MatchFolders(context, *sourceTree, i, *deviceTree, e))
                    return fail();
                break;
            }
        }
    }

    if (!_RecordFolders(context, *sourceTree, *deviceTree, false)
        || !_RecordFolders(context, *deviceTree, *sourceTree, true))
        return fail();

    _CountDeviceItems(*deviceTree, &result);

    FolderListingPool listings(context, *sourceTree, *deviceTree);
    uint64_t index = 1;
    QString path, rootPath;
    do {
        if (_CancelAnalysis(context))
            return fail();
        const FolderEntry entry = *_Entry(*sourceTree, index);
        if (entry.parent == 0) {
            path = _Name(*sourceTree, index);
            rootPath = _ParentPath(path);
        }
        FolderListings folder = listings.next();
        if (folder.sourceIndex != index) {
            context.reason = QStringLiteral("Internal logic error");
            return fail();
        }
        if (folder.matched && !folder.deviceOk) {
            if (!_CancelAnalysis(context))
                context.reason = folder.deviceReason;
            return fail();
        }
        if (!_RecordFilesInFolder(context, path, rootPath, folder))
            return fail();
        for (const DeviceFile &file : folder.deviceFiles) {
            if (file.stats.seen)
                continue;
            BUTransaction transaction(folder.deviceFolder, file.name, QString());
            transaction.setAction(BUTransaction::kDelete);
            g_transactions.append(transaction);
            ++result.itemsToDelete;
        }
    } while (_NextFolder(*sourceTree, &index, &path, true));
    return result;
}

void BUAnalyzeOperation::cancelledBeforeStart()
{
    BUAnalysisReport report;
    report.target = m_targetName;
    report.cancel = true;
    PostToReceiver(m_controller, [report](BUEngineReceiver *receiver) { receiver->analysisComplete(report); });
}
