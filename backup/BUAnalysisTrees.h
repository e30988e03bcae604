// The analysis's folder trees: the records of the trees and of the files the comparison takes,
// the rules that decide which items take part, and the reading of one folder (_ReadFolder). The
// readers that walk both trees at once are BUTreeReader's. Used by the analysis alone.
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
#include <cstdint>
#include <memory>
#include <mutex>
#include <numeric>
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
    // A source folder the program may not list: nothing of its mirror is deleted.
    bool unreadable = false;
    QString unreadableReason; // the system's reason
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

} // namespace BUAnalysis
