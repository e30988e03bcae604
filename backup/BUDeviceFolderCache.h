// The device folder that the backup is writing into, kept open from one item to the next for as
// long as it provably stays where its device path says.
//
// Resolving the folder below the device root for every item is what keeps a folder moved out of
// the device during a run (through another mount of its file system) from receiving anything more,
// but it walks the whole path again for every file. Instead, the folder and each folder above it up
// to the device root are watched (inotify: moved or deleted). A folder is taken from the cache only
// while no such event has come since it was resolved and its ancestors were checked, after their
// watches were in place, to be the ones its path names. Where watching is not possible (no inotify,
// a watch limit, a very deep folder) the path is resolved again for every item, as before.
//
// Threads: the backup worker's.
#pragma once

#include "backup/BUError.h"

#include <QByteArray>
#include <QString>

#include <sys/types.h>
#include <vector>

class BUDeviceRoot;

class BUDeviceFolderCache {
public:
    explicit BUDeviceFolderCache(const BUDeviceRoot &device);
    ~BUDeviceFolderCache();
    BUDeviceFolderCache(const BUDeviceFolderCache &) = delete;
    BUDeviceFolderCache &operator=(const BUDeviceFolderCache &) = delete;

    // As BUDeviceRoot::openParent; the descriptor is the cache's, good until the next call.
    int openParent(const QString &relative, QByteArray *name, bool caseFallback, BUError *error);
    // Drops the open folder: the run itself removed folders, perhaps this one.
    void forgetFolder();
    // Whether folders are watched; false when every item resolves its folder again.
    bool watching() const { return m_events >= 0; }

private:
    struct Level {
        QByteArray name; // in the folder above
        int watch;
        dev_t device;
        ino_t inode;
    };

    bool somethingMoved();
    void startWatching();
    void closeFolder();
    bool watchDownTo(const QList<QByteArray> &components);

    const BUDeviceRoot &m_device;
    int m_events = -1; // the inotify instance
    int m_fd = -1;
    bool m_cached = false; // m_fd is the watched folder at m_folder
    QByteArray m_folder; // below the device root
    std::vector<Level> m_levels; // the watched folders, from the top of the device down to m_folder
};
