#include "backup/BUAnalysisTrees.h"

#include "backup/BUFileCopier.h"
#include "backup/BUTouchedFolders.h"
#include "keelson/FormatString.h"
#include "keelson/KSKernel.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace BUAnalysis {

namespace {
constexpr char16_t kAdvancedUserMark = 0x273D; // names the advanced user keeps out of backups
#ifndef FS_CASEFOLD_FL
constexpr unsigned FS_CASEFOLD_FL = 0x40000000;
#endif

// Whether an open device folder carries the casefold flag (ext4, f2fs): its names then match
// without regard to case, whatever the rest of the device does.
bool _FolderFoldsCase(int fd)
{
    int flags = 0;
    return ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (unsigned(flags) & FS_CASEFOLD_FL) != 0;
}
} // namespace

bool _SameName(QStringView a, QStringView b, bool ignoresCase)
{
    return ignoresCase ? CaseInsensitiveCompare(a, b) == KSOrderedSame : a == b;
}

bool IsFileSystemItemName(QStringView name)
{
    return name == u"lost+found" || name == u"System Volume Information" || name == u"$RECYCLE.BIN";
}

bool _NameBefore(QStringView a, QStringView b, bool ignoresCase)
{
    return ignoresCase ? CaseInsensitiveCompare(a, b) == KSOrderedAscending : a.compare(b) < 0;
}

uint64_t FolderTree::add(FolderEntry entry, QStringView name)
{
    if (name.size() > UINT16_MAX)
        return KSNotFound;
    const uint64_t needed = 1 + uint64_t(name.size());
    if (needed > m_nameBlockEnd - m_nameEnd) {
        // A new block at the next block boundary.
        const uint64_t spans = (needed + kNameBlock - 1) / kNameBlock;
        const uint64_t start = uint64_t(m_nameBlocks.size()) * kNameBlock;
        if (start + spans * kNameBlock > UINT32_MAX)
            return KSNotFound; // positions are kept in four bytes
        // A name longer than a block has one of its own, which nothing follows: a position past
        // its first block's span would be looked up in an empty place.
        const uint64_t size = spans > 1 ? needed : kNameBlock;
        try {
            m_nameBlocks.reserve(m_nameBlocks.size() + spans);
            m_nameBlocks.emplace_back(new char16_t[size]);
            m_nameBlocks.resize(m_nameBlocks.size() + spans - 1);
        } catch (const std::bad_alloc &) {
            return KSNotFound;
        }
        m_nameEnd = start;
        m_nameBlockEnd = start + size;
    }
    char16_t *stored = m_nameBlocks[m_nameEnd / kNameBlock].get() + m_nameEnd % kNameBlock;
    stored[0] = char16_t(name.size());
    std::copy(name.utf16(), name.utf16() + name.size(), stored + 1);
    entry.name = uint32_t(m_nameEnd);
    const uint64_t index = m_entries->addEntry(&entry);
    if (index != KSNotFound)
        m_nameEnd += needed;
    return index;
}

FolderEntry *_Entry(FolderTree &tree, uint64_t index)
{
    return tree.entry(index);
}

QStringView _Name(const FolderTree &tree, uint64_t index)
{
    const FolderEntry *entry = tree.entry(index);
    return entry ? tree.name(*entry) : QStringView();
}

QString _ParentPath(const QString &path)
{
    const qsizetype slash = path.lastIndexOf(u'/');
    return slash <= 0 ? QStringLiteral("/") : path.left(slash);
}

QString _Child(const QString &folder, QStringView name)
{
    QString child;
    child.reserve(folder.size() + 1 + name.size());
    child.append(folder);
    if (!folder.endsWith(u'/'))
        child.append(u'/');
    return child.append(name);
}

// A reader's lists and names grow in buffers the thread keeps from folder to folder, and the folder
// gets exact copies: thousands of folders wait for the comparison at a time, and each growing its
// own lists would leave freed blocks of every size in every reader's cache of the heap. A large
// list is handed over as it is: it is mapped of its own, and the unused end is never touched.
class ReadingBuffers {
public:
    explicit ReadingBuffers(ListedFolder &out) : m_out(out)
    {
        m_out.sourceFiles.swap(t_kept.sourceFiles);
        m_out.deviceFiles.swap(t_kept.deviceFiles);
        m_out.names.swap(t_kept.names);
    }
    ~ReadingBuffers()
    {
        Kept &kept = t_kept;
        handOver(m_out.sourceFiles, kept.sourceFiles);
        handOver(m_out.deviceFiles, kept.deviceFiles);
        handOver(m_out.names, kept.names);
        if (m_failed && !m_out.treeFailed) {
            m_out.treeFailed = true;
            m_out.treeReason = kMemoryReason;
        }
    }
    ReadingBuffers(const ReadingBuffers &) = delete;
    ReadingBuffers &operator=(const ReadingBuffers &) = delete;

private:
    static constexpr std::size_t kKeptBytes = 64 * 1024;
    struct Kept {
        std::vector<ListedFile> sourceFiles;
        std::vector<ListedFile> deviceFiles;
        QString names;
    };
    static thread_local Kept t_kept;

    template <typename List> void handOver(List &list, List &kept)
    {
        const std::size_t bytes = std::size_t(list.capacity()) * sizeof(list[0]);
        if (bytes > kKeptBytes)
            return; // the folder keeps it; the next folder starts a new one
        kept.swap(list);
        try {
            list = exact(kept);
        } catch (const std::bad_alloc &) {
            list.swap(kept); // the folder keeps the buffer
            m_failed = true;
        }
        kept.resize(0); // the buffer stays for the next folder
    }
    static std::vector<ListedFile> exact(const std::vector<ListedFile> &list) { return {list.cbegin(), list.cend()}; }
    static QString exact(const QString &names) { return QString(names.constData(), names.size()); }

    ListedFolder &m_out;
    bool m_failed = false;
};
thread_local ReadingBuffers::Kept ReadingBuffers::t_kept;

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
    return OpenLongPath(AT_FDCWD, FileNameToBytes(path).constData(), flags);
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

// Whether the device folder at path is a mirror: a folder at the top of the device at root.
bool _IsMirrorFolder(const QString &path, const QString &root)
{
    return path.size() > root.size() + 1 && path.startsWith(root) && path[root.size()] == u'/'
        && path.indexOf(u'/', root.size() + 1) < 0;
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
    // Links, FIFOs, sockets and devices are never copied, nor hidden or immutable files. A source
    // file the user may not read takes part, marked: its row fails, and its copy is kept.
    if (!properties.isRegularFile() || properties.systemImmutable || (deviceSide && !properties.isReadable()))
        return 0;
    _GetFileStats(properties, stats);
    stats->unreadable = !properties.isReadable();
    stats->size = properties.size;
    return 1;
}

// Reads one folder: its subfolders for the tree, its files for the comparison, each entry examined
// once. The device side keeps temporary files that an interrupted backup left behind: no source
// file is ever named like them, so they are deleted. The mark of a run in a mirror folder is not
// one of them: the backup itself finds it.
void _ReadFolder(AnalysisContext &context, const QString &path, bool deviceSide, bool isBackupFolder, ListedFolder &out,
    std::vector<FoundFolder> &subfolders, uint32_t *otherItems)
{
    const ReadingBuffers buffers(out);
    auto treeFailure = [&out, &context] {
        out.treeFailed = true;
        out.treeReason = context.reason;
    };
    const int fd = _OpenFolder(context, path, deviceSide, isBackupFolder);
    if (fd < 0) {
        const int errorNumber = errno;
        // Another file system mounted inside a mirror is not the device's: it is not walked, and
        // whatever the backup would do inside it fails there with its reason.
        if (deviceSide && errorNumber == EXDEV)
            return;
        const bool noPermission = CocoaDomainErrorCode(BUError::posix(errorNumber)) == kReadNoPermissionError;
        if (!noPermission || deviceSide)
            _SetFolderReason(context, path, errorNumber);
        if (!noPermission) {
            treeFailure();
        } else if (deviceSide) {
            // The tree goes on without it; the comparison stops here if it needs its files.
            out.filesFailed = true;
            out.filesReason = context.reason;
        } else {
            // A source folder the user cannot read fails its row; its mirror stays as it is.
            out.unreadable = true;
            out.unreadableReason = BUError::posix(errorNumber).failureReason;
        }
        return;
    }
    FolderListing listing(fd);
    const BUVolumeKind &kind = context.device->kind();
    out.ignoresCase = deviceSide && (kind.ignoresCase || (kind.mayFoldCase && _FolderFoldsCase(fd)));
    // The device's top level: only the mirrors take part, whatever their names (".config" too);
    // the rest is the user's own or the file system's, and is never touched.
    const bool topLevel = deviceSide && context.mirrorNames && path == context.device->path();
    // A mirror folder holds the mark of a backup in progress: the program's own, never an item.
    const bool mirrorFolder = deviceSide && !topLevel && _IsMirrorFolder(path, context.device->path());
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
        if (mirrorFolder && std::strcmp(name, kRunMarkName) == 0)
            continue;
        const bool maybeFolder = type == DT_DIR || type == DT_UNKNOWN;
        if (walk && !maybeFolder && deviceSide)
            ++*otherItems;
        const QString itemName = FileNameFromBytes(QByteArrayView(name));
        if (topLevel) {
            if (maybeFolder && context.mirrorNames->contains(itemName)
                && ReadItemProperties(listing.fd(), name, &properties, nullptr) && properties.isDirectory()) {
                FoundFolder folder {itemName, {}};
                _GetFileStats(properties, &folder.stats);
                subfolders.push_back(std::move(folder));
            }
            continue;
        }
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
                    || !(known->systemImmutable || !_RulesAllowItem(context, itemName, true)
                        || context.device->isRootFolder(*known))) {
                    FoundFolder folder {itemName, {}};
                    _GetFileStats(*known, &folder.stats);
                    folder.stats.unreadable = !deviceSide && !known->isReadable();
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
                out.deviceFiles.push_back(out.file(stats, itemName));
            continue;
        }
        const int use = _ShouldCopyFile(context, listing.fd(), path, name, itemName, type, deviceSide, known, &stats);
        if (use == 2) {
            out.filesFailed = true;
            out.filesReason = context.reason;
        } else if (use == 1 && deviceSide) {
            out.deviceFiles.push_back(out.file(stats, itemName));
        } else if (use == 1 && _RulesAllowItem(context, itemName, false)) {
            out.sourceFiles.push_back(out.file(stats, itemName));
        }
    }
    if (listing.errorNumber != 0) {
        _SetFolderReason(context, path, listing.errorNumber);
        if (walk)
            return treeFailure();
        out.filesFailed = true;
        out.filesReason = context.reason;
    }
    // Sorted once. In a folder that ignores case the stable sort keeps names equal without regard
    // to case in listing order, and only the first of them stays.
    DeviceFileList &files = out.deviceFiles;
    const bool ignoresCase = out.ignoresCase;
    std::stable_sort(files.begin(), files.end(), [&out, ignoresCase](const DeviceFile &a, const DeviceFile &b) {
        return _NameBefore(out.nameOf(a), out.nameOf(b), ignoresCase);
    });
    if (ignoresCase) {
        files.erase(std::unique(files.begin(), files.end(),
                        [&out](const DeviceFile &a, const DeviceFile &b) {
                            return _SameName(out.nameOf(a), out.nameOf(b), true);
                        }),
            files.end());
    }
}

} // namespace BUAnalysis
