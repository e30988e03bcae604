// An open backup device: a descriptor of its root folder, below which every device path is
// resolved component by component without following a link and without leaving the device
// (openat2 with RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS). A device is untrusted input: its folders
// may hold links to anywhere, and nothing done through this class follows one.
//
// Threads: one object belongs to one thread (the analysis or the backup worker).
#pragma once

#include "backup/BUError.h"
#include "backup/BUFileStats.h"

#include <QByteArray>
#include <QString>

#include <sys/types.h>

class BUDeviceRoot {
public:
    BUDeviceRoot() = default;
    ~BUDeviceRoot();
    BUDeviceRoot(const BUDeviceRoot &) = delete;
    BUDeviceRoot &operator=(const BUDeviceRoot &) = delete;

    // Opens the root of the device of that name under the volumes root. Fails with ENODEV when
    // nothing is mounted there: an empty mount folder is not a device.
    bool open(const QString &name, BUError *error);

    const QString &name() const { return m_name; }
    // The volumes root + "/" + name.
    const QString &path() const { return m_path; }
    int fd() const { return m_fd; }
    const BUVolumeKind &kind() const { return m_kind; }
    // Asks the device what its kind cannot tell, with a probe file of the program's own at its top
    // (removed at once): whether names that differ only in case are one name (NTFS keeps both,
    // FAT and exFAT do not, whatever the driver), and the step in which it keeps times (a time
    // with nanoseconds given and read back). What the kind says stays where the device cannot be
    // written or an answer fits nothing.
    void probe();
    // Whether the device's mount shows its whole file system. Then no folder of it can be moved
    // anywhere but inside the device; a device that is a folder of a bigger file system (a bind
    // mount, a subvolume) can lose folders to the rest of it through another mount.
    bool showsWholeFileSystem() const { return m_wholeFileSystem; }
    // Identity of the root folder, to keep a walk of the sources out of the device.
    bool isRootFolder(const BUItemProperties &properties) const
    {
        return properties.device == m_device && properties.inode == m_inode;
    }

    // The part of a device path below the root ("Documents/a.txt"); null when the path is not
    // strictly below the root.
    QString relativePath(const QString &devicePath) const;

    // Opens a folder below the root ("" is the root itself); -1 with the error on failure, ELOOP
    // when a component is a link. With caseFallback a missing component is looked up without
    // regard to case, the first one listed winning, as the analysis matched folders.
    int openFolder(const QString &relative, bool caseFallback, BUError *error) const;
    // Opens the folder that holds a relative path's last component and gives that component.
    int openParent(const QString &relative, QByteArray *name, bool caseFallback, BUError *error) const;

    // Takes the device for one backup: false when another backup of it, in this process or
    // another, holds it (an advisory lock on the root folder, let go when the root is closed).
    bool lockForBackup();
    // Whether some backup holds the device now.
    bool backupIsRunning() const;

    // Whether the device is still mounted where it was opened and still a backup device. The mount
    // table is read again only when the kernel reports that it changed since the last call.
    bool isStillMounted();

private:
    void close();

    QString m_name;
    QString m_path;
    // The dates the probe file at `probe` keeps (see probe()).
    void probeDates(int probe);
    int m_fd = -1;
    int m_mountTableFd = -1;
    uint64_t m_mountId = 0;
    uint64_t m_device = 0;
    uint64_t m_inode = 0;
    bool m_mounted = false;
    bool m_checked = false;
    bool m_wholeFileSystem = false;
    BUVolumeKind m_kind;
};

// The first name listed in a folder that equals `wanted` without regard to case and is a folder
// (or a regular file); empty when there is none. Links never match.
QByteArray NameIgnoringCase(int folderFd, const QByteArray &wanted, bool folder);
// Opens the folder above an open folder through ".." when it is still the folder of that
// identity (the one a walk came down from); -1 when it is not (the folder was moved) or on failure.
int OpenParentIfUnmoved(int folderFd, dev_t device, ino_t inode);
// Opens an item of a folder without following a link and without entering another file system.
int OpenItemAt(int folderFd, const char *name, int flags);
// Removes an item and, for a folder, everything inside it, never following a link and never
// entering another file system mounted inside. The item itself is never changed before it is
// unlinked (it may have other names); what stands in the way is cleared as far as possible: the
// immutable and append-only flags of what cannot go otherwise, and a folder its owner cannot list
// or change is opened up to the owner.
bool RemoveItemAt(int folderFd, const char *name, BUError *error);
// Adds read and write for owner, group and others (0666) to an item that lacks any of them and,
// for a folder, to everything inside it, the last listed first; never to a file with other names
// (hard links), whose other names would change too. Failures are logged with the device path and
// skipped.
void GiveUserFilePermissions(int folderFd, const char *name, const QString &path);
// Clears the immutable and append-only flags of an item, when it has one (best effort).
void ClearImmutableFlags(int folderFd, const char *name);
