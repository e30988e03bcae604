#include "backup/BUAnalyzeOperation.h"

#include "backup/BUAnalysisTrees.h"
#include "backup/BUBackupFolderChecks.h"
#include "backup/BUDeviceRoot.h"
#include "backup/BUDevices.h"
#include "backup/BUFileCopier.h"
#include "backup/BUFileStats.h"
#include "backup/BUFolderReading.h"
#include "backup/BUTouchedFolders.h"
#include "backup/BUTransaction.h"
#include "backup/BUTreeReader.h"
#include "keelson/FormatString.h"
#include "keelson/KSKernel.h"
#include "keelson/KSStrings.h"

#include <QHash>

#include <algorithm>
#include <malloc.h>
#include <memory>
#include <mutex>

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace BUAnalysis;

QHash<QString, QString> g_caseConflicts;

QString CaseConflictOf(const BUTransaction &transaction)
{
    if (transaction.action() == BUTransaction::kDelete || g_caseConflicts.isEmpty())
        return QString();
    return g_caseConflicts.value(transaction.path());
}

namespace {

// The device file of that name (without regard to case where the folder ignores it), or null.
DeviceFile *_FindDeviceFile(ListedFolder &device, QStringView name)
{
    DeviceFileList &files = device.deviceFiles;
    const bool ignoresCase = device.ignoresCase;
    const auto found = std::lower_bound(
        files.begin(), files.end(), name, [&device, ignoresCase](const DeviceFile &file, QStringView wanted) {
            return _NameBefore(device.nameOf(file), wanted, ignoresCase);
        });
    if (found == files.end() || !_SameName(device.nameOf(*found), name, ignoresCase))
        return nullptr;
    return &*found;
}

// Items of one source folder that a device folder ignoring case cannot hold beside another: by
// source tree entry for folders, by position among the folder's source files for files (empty when
// none), each with the reason its Copy fails.
struct CaseConflicts {
    std::unordered_map<uint64_t, QString> folders;
    std::vector<QString> files;
};

// Where the device folder ignores case, the first item of a name (subfolders first, then files,
// each in listing order) is mirrored; every later one whose name differs from it only in case is a
// conflict. Nothing is then replaced by its namesake from run to run.
void _FindCaseConflicts(
    const std::vector<std::pair<uint64_t, QString>> &subfolders, const ListedFolder *source, CaseConflicts *conflicts)
{
    QHash<QString, QString> first; // folded name -> the first name
    auto conflict = [&first](QStringView name) {
        const QString key = CaseFoldedString(name);
        const auto found = first.constFind(key);
        if (found == first.cend()) {
            first.insert(key, name.toString());
            return QString();
        }
        return FormatString(
            "The device ignores case, so \"%@\" and \"%@\" can't both be kept on it.", *found, name.toString());
    };
    for (const auto &[node, name] : subfolders) {
        QString reason = conflict(name);
        if (!reason.isNull())
            conflicts->folders.emplace(node, std::move(reason));
    }
    if (!source)
        return;
    for (std::size_t i = 0; i < source->sourceFiles.size(); ++i) {
        QString reason = conflict(source->nameOf(source->sourceFiles[i]));
        if (reason.isNull())
            continue;
        if (conflicts->files.empty())
            conflicts->files.resize(source->sourceFiles.size());
        conflicts->files[i] = std::move(reason);
    }
}

bool _ShouldUpdateAttributes(const AnalysisContext &context, const FileStats &source, const FileStats &device)
{
    const BUVolumeKind &kind = context.device->kind();
    if (ComparableTime(device.attributesModified, kind) >= ComparableTime(source.attributesModified, kind))
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
    const BUVolumeKind &kind = context.device->kind();
    return kind.holdsOwnership
        && ComparableTime(device.attributesModified, kind) < ComparableTime(source.attributesModified, kind);
}

// The pre-order successor of `index`; descend false skips its subtree. The path follows along,
// except for the children of the root, whose paths the callers derive themselves.
bool _NextFolder(FolderTree &tree, uint64_t *index, QString *path, bool descend)
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
QString _DeviceFolderPath(FolderTree &deviceTree, uint64_t index)
{
    QStringList names;
    for (; index != 0 && index != kNone; index = _Entry(deviceTree, index)->parent)
        names.prepend(_Name(deviceTree, index).toString());
    names.prepend(_Name(deviceTree, 0).toString());
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

// Whether the mirror folder of that name at the top of the device holds the mark of a run.
bool _HoldsRunMark(const BUDeviceRoot &device, QStringView mirror)
{
    struct stat status;
    const QByteArray mark = FileNameToBytes(mirror) + '/' + kRunMarkName;
    return device.fd() >= 0 && ::fstatat(device.fd(), mark.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

// places: by source tree entry, the place its files' transactions share, if any; a folder's own
// transaction shares it too (the same path and root) rather than keep its path again.
bool _RecordFolders(AnalysisContext &context, FolderTree &tree, FolderTree &otherTree, bool deviceSide,
    const std::vector<BUTransaction::PlaceRef> &places = {},
    const std::unordered_map<uint64_t, QString> &conflicts = {})
{
    auto folderTransaction = [&places](uint64_t index, const QString &path, const QString &rootPath) {
        BUTransaction transaction
            = index < places.size() && places[index] ? BUTransaction(places[index]) : BUTransaction(path, rootPath);
        transaction.setFolder(true);
        return transaction;
    };
    uint64_t index = _Entry(tree, 0)->firstChild;
    if (index == kNone || index >= tree.count())
        return true;
    const QString &deviceRoot = context.device->path();
    QString path, rootPath;
    for (;;) {
        if (_CancelAnalysis(context))
            return false;
        FolderEntry entry = *_Entry(tree, index);
        const QStringView name = _Name(tree, index);
        if (entry.parent == 0) {
            path = deviceSide ? _Child(deviceRoot, name) : name.toString();
            rootPath = deviceSide ? deviceRoot : _ParentPath(path);
        }
        bool descend = true;
        // The mirror of a source folder the user may not read is kept whole.
        if (deviceSide && entry.match != kNone && _Entry(otherTree, entry.match)->stats.unreadable)
            descend = false;
        if (entry.match == kNone) {
            BUTransaction transaction = folderTransaction(index, path, rootPath);
            if (deviceSide) {
                transaction.setAction(BUTransaction::kDelete);
                descend = false; // only the topmost unmatched device folder is deleted
            } else if (const auto conflict = conflicts.find(index); conflict != conflicts.end()) {
                g_caseConflicts.insert(path, conflict->second);
                descend = false; // nothing of it can be kept
            }
            g_transactions.append(transaction);
        } else if (!deviceSide && CaseInsensitiveCompare(PathExtension(name), u"nib") != KSOrderedSame) {
            FileStats source {entry.stats};
            FileStats device {_Entry(otherTree, entry.match)->stats};
            if (_NeedsDigests(context, source, device)) {
                _ReadFolderDigest(context, path, false, &source);
                _ReadFolderDigest(context, _DeviceFolderPath(otherTree, entry.match), true, &device);
            }
            // A folder the user may not read gets a failed Update: its mirror is kept as it is.
            if (const auto failure = conflicts.find(index); failure != conflicts.end()) {
                BUTransaction transaction = folderTransaction(index, path, rootPath);
                transaction.setAction(BUTransaction::kUpdate);
                g_caseConflicts.insert(path, failure->second);
                g_transactions.append(transaction);
                descend = false;
            } else if (_ShouldUpdateAttributes(context, source, device)
                || (entry.parent == 0 && _HoldsRunMark(*context.device, _Name(otherTree, entry.match)))) {
                BUTransaction transaction = folderTransaction(index, path, rootPath);
                transaction.setAction(BUTransaction::kUpdate);
                g_transactions.append(transaction);
            }
        }
        if (!_NextFolder(tree, &index, &path, descend))
            return true;
    }
}

// Whether an open folder is the device's root or lies below it, whatever path reached it: its
// folders are climbed through ".." up to the root of the whole tree.
bool _LiesInside(int folderFd, const BUDeviceRoot &device)
{
    int current = ::dup(folderFd);
    for (int level = 0; current >= 0 && level < 100000; ++level) {
        BUItemProperties properties, parent;
        const bool found = ReadItemProperties(current, "", &properties, nullptr);
        if (found && device.isRootFolder(properties)) {
            ::close(current);
            return true;
        }
        const int up = ::openat(current, "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        const bool top = up < 0 || !found || !ReadItemProperties(up, "", &parent, nullptr)
            || (parent.device == properties.device && parent.inode == properties.inode);
        ::close(current);
        current = up;
        if (top)
            break;
    }
    if (current >= 0)
        ::close(current);
    return false;
}

// What the mirrors hold and how much of it the Delete transactions remove, so that the window can
// ask before a backup empties most of the device (as an emptied or unmounted source would). Parents
// come before their children in the tree, so one pass finds every folder below a deleted one.
void _CountDeviceItems(FolderTree &deviceTree, FolderTree &sourceTree, BUAnalysisReport *result)
{
    std::vector<bool> deleted(deviceTree.count(), false);
    std::vector<bool> kept(deviceTree.count(), false); // the mirror of an unreadable source folder
    for (uint64_t i = 1; i < deviceTree.count(); ++i) {
        const FolderEntry *entry = _Entry(deviceTree, i);
        // The mirror folders themselves are not counted, only what they hold.
        const qint64 items = (entry->parent != 0 ? 1 : 0) + qint64(entry->files);
        result->mirrorItems += items;
        kept[i] = (entry->match != kNone && _Entry(sourceTree, entry->match)->stats.unreadable)
            || (entry->parent != 0 && kept[entry->parent]);
        deleted[i] = !kept[i] && (entry->match == kNone || (entry->parent != 0 && deleted[entry->parent]));
        if (deleted[i])
            result->itemsToDelete += items;
    }
}

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

// Matches the subfolders of a matched source folder with those of its device folder: by exact
// name where the device folder keeps case; without regard to case where it ignores it, the first
// listed device folder winning. Source folders in conflict stay unmatched. Many folders get a table
// of the names (folded where case is ignored) that answers the same.
void _MatchFolders(FolderTree &sourceTree, uint64_t s, FolderTree &deviceTree, uint64_t d, bool ignoresCase,
    const CaseConflicts &conflicts)
{
    _Entry(sourceTree, s)->match = d;
    _Entry(deviceTree, d)->match = s;
    int deviceChildren = 0;
    for (uint64_t e = _Entry(deviceTree, d)->firstChild; e != kNone; e = _Entry(deviceTree, e)->nextSibling)
        ++deviceChildren;
    const bool table = deviceChildren > 16;
    QHash<QString, uint64_t> folded;
    QHash<QStringView, uint64_t> exact; // the names stay where the tree keeps them
    if (table) {
        for (uint64_t e = _Entry(deviceTree, d)->firstChild; e != kNone; e = _Entry(deviceTree, e)->nextSibling) {
            if (!ignoresCase) {
                exact.insert(_Name(deviceTree, e), e);
                continue;
            }
            const QString key = CaseFoldedString(_Name(deviceTree, e));
            if (!folded.contains(key))
                folded.insert(key, e); // the first one listed stays
        }
    }
    for (uint64_t c = _Entry(sourceTree, s)->firstChild; c != kNone; c = _Entry(sourceTree, c)->nextSibling) {
        if (conflicts.folders.count(c) != 0)
            continue;
        const QStringView name = _Name(sourceTree, c);
        uint64_t partner = kNone;
        if (table) {
            partner = ignoresCase ? folded.value(CaseFoldedString(name), kNone) : exact.value(name, kNone);
        } else {
            for (uint64_t e = _Entry(deviceTree, d)->firstChild; e != kNone; e = _Entry(deviceTree, e)->nextSibling) {
                if (_SameName(name, _Name(deviceTree, e), ignoresCase)) {
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

// The failure of a source item the user may not read.
QString _UnreadableReason(bool folder, bool copyKept, int errorNumber)
{
    const QString reason = BUError::posix(errorNumber).failureReason;
    if (!copyKept)
        return folder ? FormatString("The folder can't be read at the source (%@).", reason)
                      : FormatString("The file can't be read at the source (%@).", reason);
    return folder ? FormatString("The folder can't be read at the source (%@). Its copy on the device is kept.", reason)
                  : FormatString("The file can't be read at the source (%@). Its copy on the device is kept.", reason);
}

// The file transactions of one source folder against its device folder's files (null when it
// has no device folder); the device files that no source file matched are left unseen.
bool _RecordFilesInFolder(AnalysisContext &context, const QString &folder, const QString &rootPath, bool isBackupFolder,
    const ListedFolder &source, ListedFolder *device, const QString &deviceFolder, const CaseConflicts &conflicts,
    BUTransaction::PlaceRef &place)
{
    FolderOpenedOnDemand sourceFolder(context, folder, false, isBackupFolder);
    FolderOpenedOnDemand deviceFolderOpened(context, deviceFolder, true, false);
    for (std::size_t i = 0; i < source.sourceFiles.size(); ++i) {
        const SourceFile &file = source.sourceFiles[i];
        const QStringView name = source.nameOf(file);
        if (_CancelAnalysis(context))
            return false;
        FileStats stats = file.stats;
        uint32_t action = BUTransaction::kCopy;
        bool counted = true;
        const bool conflict = !conflicts.files.empty() && !conflicts.files[i].isNull();
        DeviceFile *deviceFile = device && !conflict ? _FindDeviceFile(*device, name) : nullptr;
        if (stats.unreadable) {
            // Not read, so not compared: the row fails and the device copy stays.
            if (deviceFile)
                deviceFile->stats.seen = true;
            if (!place)
                place = BUTransaction::makePlace(folder, rootPath, source.names);
            BUTransaction transaction(place, file.nameStart, file.nameLength);
            transaction.setReplacesItem(deviceFile != nullptr);
            g_caseConflicts.insert(transaction.path(), _UnreadableReason(false, deviceFile != nullptr, EACCES));
            g_transactions.append(transaction);
            continue;
        }
        if (deviceFile) {
            FileStats *deviceStats = &deviceFile->stats;
            deviceStats->seen = true;
            const BUVolumeKind &kind = context.device->kind();
            if (ComparableTime(stats.contentModified, kind) <= ComparableTime(deviceStats->contentModified, kind)) {
                if (_NeedsDigests(context, stats, *deviceStats)) {
                    ReadAttributeDigest(sourceFolder.fd(), FileNameToBytes(name).constData(), &stats);
                    ReadAttributeDigest(
                        deviceFolderOpened.fd(), FileNameToBytes(device->nameOf(*deviceFile)).constData(), deviceStats);
                }
                if (!_ShouldUpdateAttributes(context, stats, *deviceStats))
                    continue;
                action = BUTransaction::kUpdate;
                counted = false;
            }
        }
        if (!place)
            place = BUTransaction::makePlace(folder, rootPath, source.names);
        BUTransaction transaction(place, file.nameStart, file.nameLength);
        transaction.setAction(action);
        transaction.setReplacesItem(deviceFile != nullptr);
        if (conflict) {
            g_caseConflicts.insert(transaction.path(), conflicts.files[i]);
            counted = false; // it fails without copying
        }
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
        BUAnalysisReport report = runAnalysis();
        // The trees are gone, but the pages of their blocks stay with the heap wherever a block
        // still in use lies above them: give them back before the list is sorted and shown.
        ::malloc_trim(0);
        return report;
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
    g_caseConflicts.clear();

    BUAnalysisReport result;
    result.target = m_targetName;
    BUDeviceRoot device;
    AnalysisContext context {kMemoryReason, &result, &m_cancelAnalysis, &m_ignoreFolders, &m_ignoreFiles, &device};
    auto fail = [&] {
        result.error = FormatString("I can't backup to \"%@\" because %@.", m_targetName, context.reason);
        return result;
    };
    const bool deviceOpen = device.open(m_targetName, nullptr);
    // Named on the command line, a device mounted read-only is still found; nothing could be
    // written to it.
    if (deviceOpen) {
        const std::optional<BUMountEntry> mount = MountEntryForDevice(m_targetName);
        if (mount && mount->readOnly) {
            context.reason = QStringLiteral("it is mounted read-only");
            return fail();
        }
    }
    // The device says whether it ignores case and in which steps it keeps times: an edit is seen
    // at the finest step both sides keep, and a copy is never taken for older than its source
    // because the device rounded it.
    if (deviceOpen && !device.backupIsRunning())
        device.probe();
    // A folder where a disk is mounted at start-up, while that disk is not mounted, is an empty
    // folder: a backup would empty its mirror.
    if (const QString unmounted = UnmountedBackupFolder(m_backupFolders); !unmounted.isNull()) {
        context.reason = FormatString("the backup folder \"%@\" is where a disk is mounted (as /etc/fstab says), and "
                                      "that disk is not mounted",
            unmounted);
        return fail();
    }
    QStringList mirrorNames;
    for (const QString &folder : std::as_const(m_backupFolders))
        mirrorNames.append(LastPathComponent(folder));
    context.mirrorNames = &mirrorNames;
    if (deviceOpen && device.backupIsRunning()) {
        result.error = FormatString("Another backup of the device \"%@\" is running.", m_targetName);
        return result;
    }

    // The source tree: a "/" root, then the backup folders in list order.
    const uint64_t folderCount = uint64_t(m_backupFolders.size());
    auto sourceTree = std::make_unique<FolderTree>(10000);
    if (!sourceTree->isValid())
        return fail();
    FolderEntry root {kNone, folderCount > 0 ? 1 : kNone, kNone, kNone, {}};
    const QString rootName = QStringLiteral("/");
    if (sourceTree->add(root, rootName) == KSNotFound)
        return fail();
    for (uint64_t i = 1; i <= folderCount; ++i) {
        const QString &folder = m_backupFolders[qsizetype(i - 1)];
        FolderEntry entry {0, kNone, i < folderCount ? i + 1 : kNone, kNone, {}};
        const int fd = ::open(FileNameToBytes(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        BUItemProperties properties;
        FileStats stats;
        const bool read = fd >= 0 && ReadItemProperties(fd, "", &properties, nullptr);
        if (read)
            _GetFileStats(properties, &stats);
        entry.stats = stats;
        const bool onDevice = read && deviceOpen && _LiesInside(fd, device);
        if (fd >= 0)
            ::close(fd);
        // A folder on the device itself would only be "backed up" onto itself.
        if (onDevice) {
            context.reason = FormatString(
                "the backup folder \"%@\" is on that device itself, and a backup must be kept apart from its original",
                folder);
            return fail();
        }
        if (sourceTree->add(entry, folder) == KSNotFound)
            return fail();
    }
    if (_CancelAnalysis(context))
        return fail();

    // Extra items: the top level holds the mirrors of the backup folders, dot-names and the file
    // system's own items, nothing else. The names must match exactly here.
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
            const QString itemName = FileNameFromBytes(QByteArrayView(name));
            const bool mirror = mirrorNames.contains(itemName);
            if (!mirror && (name[0] == '.' || IsFileSystemItemName(itemName)))
                continue;
            BUItemProperties properties;
            const bool isFolder
                = ReadItemProperties(listing.fd(), name, &properties, nullptr) && properties.isDirectory();
            if (!(mirror && isFolder))
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
            context.reason = QStringLiteral("its top level holds items that are not mirrors of the backup folders");
            return fail();
        }
    }
    if (folderCount == 0)
        return result; // nothing to mirror, and nothing on the device to remove

    // Both trees are read at once, and the comparison follows the source tree close behind.
    auto deviceTree = std::make_unique<FolderTree>(10000);
    if (!deviceTree->isValid())
        return fail();
    FolderEntry deviceRoot {kNone, kNone, kNone, kNone, {}};
    if (deviceTree->add(deviceRoot, device.path()) == KSNotFound)
        return fail();
    TreeReader reader(context, *sourceTree, *deviceTree, folderCount);
    auto cancelled = [&] {
        _CancelAnalysis(context);
        return fail();
    };
    // The mirror of a backup folder: the top-level device folder of exactly its name (no other
    // is read). Where the device ignores case, backup folders whose names differ from an earlier
    // one's only in case have none.
    if (!reader.waitFor(TreeReader::Device, 0, m_cancelAnalysis))
        return cancelled();
    const std::unique_ptr<ListedFolder> topLevel = reader.take(TreeReader::Device, 0); // its files are no mirror's
    const bool topIgnoresCase = topLevel && topLevel->ignoresCase;
    CaseConflicts topConflicts;
    {
        const auto lock = reader.lock();
        if (topIgnoresCase) {
            std::vector<std::pair<uint64_t, QString>> backupFolders;
            QStringList distinct;
            for (uint64_t i = 1; i <= folderCount; ++i) {
                const QString name = LastPathComponent(_Name(*sourceTree, i));
                if (!distinct.contains(name)) { // folders of one name share their mirror
                    distinct.append(name);
                    backupFolders.emplace_back(i, name);
                }
            }
            _FindCaseConflicts(backupFolders, nullptr, &topConflicts);
            // A later folder of a conflicting name conflicts too.
            std::vector<std::pair<uint64_t, QString>> later;
            for (uint64_t i = 1; i <= folderCount; ++i) {
                const QString name = LastPathComponent(_Name(*sourceTree, i));
                for (const auto &[node, reason] : std::as_const(topConflicts.folders)) {
                    if (node != i && LastPathComponent(_Name(*sourceTree, node)) == name) {
                        later.emplace_back(i, reason);
                        break;
                    }
                }
            }
            topConflicts.folders.insert(later.begin(), later.end());
        }
        for (uint64_t i = 1; i <= folderCount; ++i) {
            if (topConflicts.folders.count(i) != 0)
                continue;
            const QString name = LastPathComponent(_Name(*sourceTree, i));
            for (uint64_t e = _Entry(*deviceTree, 0)->firstChild; e != kNone; e = _Entry(*deviceTree, e)->nextSibling) {
                if (name == _Name(*deviceTree, e)) {
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
    std::unordered_map<uint64_t, QString> folderConflicts = std::move(topConflicts.folders);

    QString filesFailure; // reported when the trees themselves were read without one
    // The source tree in order, each folder's subfolders in the order of their names, as the
    // readers go (the transactions are sorted afterwards).
    struct Visit {
        uint64_t node;
        QString path;
        bool ignoresCase; // where its mirror is or will be
    };
    std::vector<Visit> toVisit;
    std::vector<BUTransaction::PlaceRef> folderPlaces; // by source tree entry, where files were recorded
    {
        const auto lock = reader.lock();
        for (uint64_t i = folderCount; i >= 1; --i) {
            if (folderConflicts.count(i) == 0)
                toVisit.push_back({i, _Name(*sourceTree, i).toString(), topIgnoresCase});
        }
    }
    QString rootPath;
    while (!toVisit.empty()) {
        const uint64_t index = toVisit.back().node;
        const QString path = std::move(toVisit.back().path);
        bool ignoresCase = toVisit.back().ignoresCase;
        toVisit.pop_back();
        if (_CancelAnalysis(context))
            return fail();
        if (!reader.waitFor(TreeReader::Source, index, m_cancelAnalysis))
            return cancelled();
        const std::unique_ptr<ListedFolder> source = reader.take(TreeReader::Source, index);
        if (!source || source->treeFailed)
            break;
        FolderEntry entry;
        std::vector<std::pair<uint64_t, QString>> subfolders;
        {
            const auto lock = reader.lock();
            entry = *_Entry(*sourceTree, index);
            for (uint64_t c = entry.firstChild; c != kNone; c = _Entry(*sourceTree, c)->nextSibling)
                subfolders.emplace_back(c, _Name(*sourceTree, c).toString());
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
                devicePath = _DeviceFolderPath(*deviceTree, entry.match);
            }
            deviceFolder = reader.take(TreeReader::Device, entry.match);
            if (!deviceFolder) {
                // Taken by an earlier backup folder of the same name, or let go when that folder's
                // subfolders did not match it: read again.
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
            ignoresCase = deviceFolder->ignoresCase;
        }
        if (source->unreadable || entry.stats.unreadable) {
            // Nothing of it was read: its row fails, and its mirror is kept whole.
            folderConflicts.emplace(index, _UnreadableReason(true, entry.match != kNone, EACCES));
            const auto lock = reader.lock();
            _Entry(*sourceTree, index)->stats.unreadable = true;
            if (entry.match != kNone) {
                for (uint64_t e = _Entry(*deviceTree, entry.match)->firstChild; e != kNone;
                     e = _Entry(*deviceTree, e)->nextSibling)
                    reader.unwanted(e); // never compared
            }
            continue;
        }
        CaseConflicts conflicts;
        if (ignoresCase) {
            _FindCaseConflicts(subfolders, source.get(), &conflicts);
            folderConflicts.insert(conflicts.folders.begin(), conflicts.folders.end());
        }
        if (entry.match != kNone) {
            const auto lock = reader.lock();
            // A backup folder with nothing to back up whose mirror holds items.
            if (entry.parent == 0 && subfolders.empty() && source->sourceFiles.empty() && deviceFolder
                && (!deviceFolder->deviceFiles.empty() || _Entry(*deviceTree, entry.match)->firstChild != kNone))
                result.emptiedFolders.append(path);
            _MatchFolders(*sourceTree, index, *deviceTree, entry.match, ignoresCase, conflicts);
            for (uint64_t e = _Entry(*deviceTree, entry.match)->firstChild; e != kNone;
                 e = _Entry(*deviceTree, e)->nextSibling) {
                if (_Entry(*deviceTree, e)->match == kNone)
                    reader.unwanted(e); // deleted whole
            }
        }
        const std::vector<std::size_t> byName = _NameOrder(
            subfolders.size(), [&subfolders](std::size_t i) -> const QString & { return subfolders[i].second; });
        for (auto i = byName.rbegin(); i != byName.rend(); ++i) {
            if (conflicts.folders.count(subfolders[*i].first) == 0)
                toVisit.push_back({subfolders[*i].first, _Child(path, subfolders[*i].second), ignoresCase});
        }
        if (deviceFolder && deviceFolder->filesFailed) {
            filesFailure = deviceFolder->filesReason;
            break;
        }
        BUTransaction::PlaceRef place; // made with the first transaction
        if (!_RecordFilesInFolder(
                context, path, rootPath, entry.parent == 0, *source, deviceFolder.get(), devicePath, conflicts, place))
            return fail();
        if (place) {
            if (folderPlaces.size() <= index)
                folderPlaces.resize(index + 1); // grows by doubling; the room beyond stays untouched
            folderPlaces[index] = place;
        }
        if (source->filesFailed) {
            filesFailure = source->filesReason;
            break;
        }
        if (deviceFolder) {
            BUTransaction::PlaceRef place; // made with the first transaction
            for (const DeviceFile &file : std::as_const(deviceFolder->deviceFiles)) {
                if (file.stats.seen)
                    continue;
                if (!place)
                    place = BUTransaction::makePlace(devicePath, QString(), deviceFolder->names);
                BUTransaction transaction(place, file.nameStart, file.nameLength);
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
        FolderTree &tree = side == TreeReader::Source ? *sourceTree : *deviceTree;
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

    if (!_RecordFolders(context, *sourceTree, *deviceTree, false, folderPlaces, folderConflicts)
        || !_RecordFolders(context, *deviceTree, *sourceTree, true))
        return fail();
    folderPlaces = {};
    _CountDeviceItems(*deviceTree, *sourceTree, &result);
    return result;
}

void BUAnalyzeOperation::cancelledBeforeStart()
{
    BUAnalysisReport report;
    report.target = m_targetName;
    report.cancel = true;
    PostToReceiver(m_controller, [report](BUEngineReceiver *receiver) { receiver->analysisComplete(report); });
}
