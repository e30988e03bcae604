// The device folders a backup changed, each once, kept so that they can be given their sources'
// modes and times at the end of the run. Used by the backup alone, on its own thread.
#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <vector>

// Each folder is a path relative to the device root, with the folder its source is in: the parent
// of its backup folder, where the source has the same relative path (the transaction's root,
// shared; none for a folder known only from a delete, found by name at the end). A full backup of
// a large tree changes every folder: their paths are kept end to end in one block, found again
// through a table of positions, not a string and a table node each.
class TouchedFolders {
public:
    // Adds a folder; a known source root replaces none.
    void add(const QByteArray &relative, const QString &sourceRoot);
    std::size_t size() const { return m_folders.size(); }
    QByteArrayView path(std::size_t index) const { return path(m_folders[index]); }
    // The folder's source root; null when none is known.
    const QString &sourceRoot(std::size_t index) const;

private:
    static constexpr uint32_t kNoRoot = UINT32_MAX;
    struct Folder {
        qsizetype start;
        uint32_t length;
        uint32_t root;
    };
    QByteArrayView path(const Folder &folder) const
    {
        return QByteArrayView(m_paths.constData() + folder.start, folder.length);
    }
    uint32_t rootIndex(const QString &root);
    void rehash(std::size_t count);

    QByteArray m_paths;
    std::vector<Folder> m_folders;
    std::vector<uint32_t> m_slots; // a folder's index + 1; 0 is free. A power of two, at most half full
    QStringList m_roots;
};
