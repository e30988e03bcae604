// Reaching source folders from the backup worker: a small cache of open source folders and the
// opening of a folder below its backup folder's parent without following a link.
//
// Threads: the backup worker only.
#pragma once

#include <QByteArray>
#include <QString>

#include <algorithm>
#include <cstddef>
#include <unistd.h>
#include <vector>

// The last few source folders that copies read from, kept open: the files of one folder come one
// after the other in the list, and each would otherwise resolve its whole path again.
class FolderCache {
public:
    FolderCache() = default;
    FolderCache(const FolderCache &) = delete;
    FolderCache &operator=(const FolderCache &) = delete;
    ~FolderCache() { clear(); }

    // The source folder at path, opened as _OpenSourceFolder does and kept; -1 with errno on
    // failure. The descriptor is the cache's, valid until the next call.
    int open(const QByteArray &path, const QString &root);
    void clear()
    {
        for (const Entry &entry : m_entries)
            ::close(entry.fd);
        m_entries.clear();
    }

private:
    // The open folder for the key, or -1 when it is not held.
    int find(const QByteArray &key)
    {
        for (std::size_t i = 0; i < m_entries.size(); ++i) {
            if (m_entries[i].key == key) {
                std::rotate(m_entries.begin(), m_entries.begin() + qsizetype(i), m_entries.begin() + qsizetype(i) + 1);
                return m_entries.front().fd;
            }
        }
        return -1;
    }
    // Takes over fd; returns it, or -1 for a failed open.
    int keep(const QByteArray &key, int fd)
    {
        if (fd < 0)
            return -1;
        if (m_entries.size() == kSize) {
            ::close(m_entries.back().fd);
            m_entries.pop_back();
        }
        m_entries.insert(m_entries.begin(), {key, fd});
        return fd;
    }

    static constexpr std::size_t kSize = 8; // deep enough to hold the parent of the next folder
    struct Entry {
        QByteArray key;
        int fd;
    };
    std::vector<Entry> m_entries;
};

// Opens a source folder below the folder `root` holds (the parent of its backup folder): the backup
// folder by its path, the rest without following a link.
int _OpenSourceFolder(const QByteArray &path, const QString &root);

// A path that reaches an item through the open folder holding it, without resolving the
// folder's path again: the kernel takes the descriptor's folder itself.
QByteArray _PathThrough(int folderFd, const QByteArray &name);
