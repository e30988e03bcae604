// Checks of the backup folders that keep a backup from emptying a mirror by mistake: a folder
// where a disk is mounted at start-up (listed in the system's table of file systems) whose disk is
// not mounted now looks like an empty folder, and a backup would delete its whole mirror.
//
// Threads: any; reads the system's tables only.
#pragma once

#include <QString>
#include <QStringList>

// The mount points listed in a table in the format of /etc/fstab (the second field, its octal
// escapes undone), swap and comments left out.
QStringList FstabMountPoints(const QByteArray &fstab);
// Whether `path` is a mount point now, by the process's table of mounts.
bool IsMountPoint(const QString &path);
// The first backup folder that /etc/fstab names as a mount point and that is not mounted now;
// null when there is none.
QString UnmountedBackupFolder(const QStringList &backupFolders);
