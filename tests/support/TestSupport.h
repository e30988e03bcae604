// Test support shared by the test programs: temporary folders with fixture trees written as
// data, real mounts in a private mount namespace, the program run as a child process, and a
// temporary settings home. Tests that need a privilege they lack skip with the reason.
#pragma once

#include <QByteArray>
#include <QMap>
#include <QProcessEnvironment>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <ostream>

// Readable QString values in assertion messages.
inline void PrintTo(const QString &s, std::ostream *os)
{
    *os << '"' << s.toStdString() << '"';
}

// Skips the current test (with the reason printed) unless the process may mount file systems.
#define TANNER_REQUIRE_MOUNTS()                                                                                        \
    do {                                                                                                               \
        const QString reason = tanner::test::MountUnavailableReason();                                                 \
        if (!reason.isEmpty())                                                                                         \
            GTEST_SKIP() << reason.toStdString();                                                                      \
    } while (0)

namespace tanner::test {

// Empty when this process runs in a private mount namespace where it may mount (entered on first
// call: unshare(CLONE_NEWNS) and "/" made private, so nothing leaks to the host).
QString MountUnavailableReason();

// Mounts a tmpfs at `path` (created when missing); sizeBytes 0 means the default size.
bool MountTmpfs(const QString &path, qint64 sizeBytes = 0, const QString &extraOptions = {});
bool RemountReadOnly(const QString &path);
// Mounts the folder `from` again at `to` (created when missing): the same file system seen twice.
bool BindMount(const QString &from, const QString &to);
bool LazyUnmount(const QString &path);
// Creates an ext4 image of the given size, attaches it to a loop device and mounts it.
// mkfsOptions are given to mkfs.ext4 ("-O", "casefold").
bool MountExt4Image(
    const QString &imagePath, int sizeMiB, const QString &mountPoint, const QStringList &mkfsOptions = {});
// Makes a FAT, exFAT or NTFS image and mounts it with its FUSE driver: kind "fusefat" (type
// fuse.fusefat), "exfat-fuse" or "ntfs-3g" (both fuseblk). False when the tools are missing or
// refuse.
bool MountFuseImage(const QString &kind, const QString &imagePath, int sizeMiB, const QString &mountPoint);

// Mounts the folder `root` again at `mountPoint` through the fault-injecting pass-through file
// system (tests/support/faultfs.py), whose operations fail as the lines of `rulesFile` say
// ("read EIO /thesis.doc"); the file may be written at any time. Unmount it with LazyUnmount. The
// reason it cannot run here, or empty once it is mounted.
QString MountFaultFs(const QString &root, const QString &mountPoint, const QString &rulesFile);

// A fixture tree written as data: relative path -> content. A path ending in "/" is a folder.
using Tree = QMap<QString, QByteArray>;
void WriteTree(const QString &root, const Tree &tree);
// Reads a tree back (files and folders, not following links), for comparisons.
Tree ReadTree(const QString &root);

// A temporary home with XDG_CONFIG_HOME, XDG_DATA_HOME, XDG_STATE_HOME and HOME inside it, set in
// this process's environment for its lifetime and restored after.
class ScopedXdgHome {
public:
    ScopedXdgHome();
    ~ScopedXdgHome();
    QString path() const { return m_dir.path(); }
    QString configPath() const { return m_dir.path() + QStringLiteral("/config"); }
    QString settingsFile() const { return configPath() + QStringLiteral("/Tannerwick/Tanner Backup.conf"); }
    QProcessEnvironment environment() const;

private:
    QTemporaryDir m_dir;
    QMap<QByteArray, QByteArray> m_saved;
};

struct ProcessResult {
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};
// Runs the built tanner-backup with the arguments and environment; waits up to timeoutMs.
ProcessResult RunTanner(const QStringList &args, const QProcessEnvironment &environment, int timeoutMs = 60000);
// The same with arguments given as bytes, which need not be UTF-8 (QProcess would re-encode them).
ProcessResult RunTannerWithBytes(
    const QList<QByteArray> &args, const QProcessEnvironment &environment, int timeoutMs = 60000);

} // namespace tanner::test
