// The device folders a backup changed, each once, kept so that they can be given their sources'
// modes and times at the end of the run. Used by the backup alone, on its own thread.
#pragma once

#include "backup/BUFileStats.h"

#include <QByteArray>
#include <QString>
#include <QStringView>

#include <cstdint>
#include <functional>
#include <vector>

// A full backup of a large tree changes every folder. A folder is not kept as a path but as the
// transaction that changed it: the row of a transaction whose device item is the folder or is in
// it, from which its path is found again. The row also gives the folder's source, where the
// transaction's root is its source's: the source has the same path below the root as the copy
// below the device root (none is known for a folder known only from a delete; it is found by
// name at the end). 8 bytes a folder and a table of 4-byte positions, at most half full.
class TouchedFolders {
public:
    // The device path of a transaction's item, relative to the device root.
    using RelativePath = std::function<QString(uint32_t row)>;
    explicit TouchedFolders(RelativePath relativeOf) : m_relativeOf(std::move(relativeOf)) { }

    // Adds the folder at relative (never empty): the item of the transaction at row, or the
    // folder holding it when holding. A folder known without a root takes that of a later one.
    void add(QStringView relative, uint32_t row, bool holding, bool rootKnown);
    std::size_t size() const { return m_folders.size(); }
    QString path(std::size_t index) const { return path(m_folders[index]); }
    uint32_t row(std::size_t index) const { return m_folders[index].row; }
    bool rootKnown(std::size_t index) const { return (m_folders[index].hash & kRootKnown) != 0; }

private:
    static constexpr uint32_t kHolding = 0x80000000U, kRootKnown = 0x40000000U, kHashBits = 0x3FFFFFFFU;
    struct Folder {
        uint32_t row;
        uint32_t hash; // of the path, with the two flags above it
    };
    QString path(const Folder &folder) const;
    void rehash(std::size_t count);

    RelativePath m_relativeOf;
    std::vector<Folder> m_folders;
    std::vector<uint32_t> m_slots; // a folder's index + 1; 0 is free. A power of two, at most half full
};

// The mark of a run in progress, kept in each mirror folder while a backup runs. A run killed on
// the way leaves it behind, with folders whose times and modes are still the run's. The analysis
// never lists it (it is the program's own, not an item); the next run finds it as it places its
// own, gives every folder of that mirror its source's attributes again and removes it at the end.
inline constexpr char kRunMarkName[] = ".tanner-partial-run";

// Gives every folder below the open mirror folder (not the folder itself), deepest first, the
// attributes sourceAttributes finds for its path below the mirror ("a/b"); a folder it finds
// none for keeps its own. Never follows a link nor enters another file system, and holds one
// descriptor of its own at a time, whatever the depth.
void RestoreMirrorTree(int mirrorFd,
    const std::function<bool(const QByteArray &, BUItemAttributes *)> &sourceAttributes, const BUVolumeKind &kind);
