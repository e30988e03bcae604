// Backup devices: the volumes root under which removable volumes are mounted, the mount table,
// and the list of mounted devices. A device is named by its mount point without the volumes
// root ("Backup Disk" for <root>/Backup Disk); the name is its only identity.
//
// Threads: every function may be called from any thread (the analysis and the backup ask
// MountedDrives whether their device is still there).
#pragma once

#include <QByteArrayView>
#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>

#include <optional>

// One line of the mount table.
struct BUMountEntry {
    QString mountPoint; // octal escapes decoded, through the file-name codec
    QString fileSystemType; // "ext4", "vfat", "fuseblk"...
    QString source; // "/dev/sdb1"
    bool readOnly = false; // mounted read-only, or its file system is
    // The mount shows its whole file system (its root is the file system's), not a folder of it
    // (a bind mount, a subvolume).
    bool wholeFileSystem = false;
};

// The folder that holds the device mount points, without a trailing "/": TANNER_VOLUMES_ROOT
// when set, else /run/media/$USER when it exists, else /media/$USER. Links in it are resolved
// when it exists, since the mount table names the real paths. Read anew on each call.
QString VolumesRoot();
// The volumes root + "/" + name.
QString DeviceRootPath(const QString &name);

// Parses the text of /proc/<pid>/mountinfo; malformed lines are skipped.
QList<BUMountEntry> ParseMountInfo(QByteArrayView text);
// The mount table of this process's mount namespace, in mount order; empty when unreadable.
QList<BUMountEntry> ReadMountTable();
// The entry of a mounted device (the topmost mount when several are stacked), if mounted.
std::optional<BUMountEntry> MountEntryForDevice(const QString &name);

// The names of the mounted backup devices, sorted without regard to case: mount points one level
// below the volumes root, not "/", not hidden (a name beginning with "."), not read-only, whose
// root folder is neither immutable nor append-only and is writable.
QStringList MountedDrives();

// Whether the current locale writes a short time without its AM or PM text.
bool Is24HourTime();
// The last-backup text of a device as the device list shows it: empty when never backed up,
// "Yesterday", the time of today's backup ("14:05", or "2:05 pm" when not is24Hour; "Today" when
// its time is unknown), or the date of an older one.
QString LastBackupText(const QMap<QString, qint64> &backupDates, const QMap<QString, qint64> &backupTimes,
    const QString &name, bool is24Hour);
