// What the engine reads and writes of an item on disk: the compared attributes of one item
// (FileStats), the properties that decide whether an item takes part at all, the attributes that
// a copy or an update carries over (mode, owner, user extended attributes, times), and what the
// device's file system can hold. Plain functions over open folder descriptors; any thread.
#pragma once

#include "backup/BUError.h"

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <sys/stat.h>

// The attributes compared for every item, folders included (a folder's size and content time never
// are). Trivially copyable, like FileStats: both are stored in entry arrays, one for every folder.
struct AttributeStats {
    int64_t attributesModified = 0; // ctime, nanoseconds since 1970
    // Linux keeps these where the desktop keeps icons, labels and hidden extensions.
    uint32_t owner = 0;
    uint32_t group = 0;
    uint16_t mode = 0; // permission bits, mode & 07777
    uint8_t label = 0; // none on Linux
    bool hasCustomIcon = false; // none on Linux
    bool hasHiddenExtension = false; // none on Linux
    // A source item the program may not read: its row fails and its device copy is kept.
    bool unreadable = false;
};
static_assert(sizeof(AttributeStats) == 24);

// The compared attributes of one file. The birth time is not kept: it is never compared, as Linux
// cannot set it, so it would never match. The extended attributes' digest is read only when the
// attributes are compared, into the stats being compared: a folder tree never keeps one.
struct FileStats : AttributeStats {
    bool digestKnown = false; // in the base's last bytes
    bool seen = false; // a source file of the same name was examined against this device file
    uint64_t attributeDigest = 0; // user.* extended attribute names and values
    int64_t size = 0; // 0 for folders
    int64_t contentModified = 0; // mtime, nanoseconds since 1970
};
static_assert(sizeof(FileStats) == 48);

// The properties of one item as one statx call gives them.
struct BUItemProperties {
    uint32_t type = 0; // S_IFMT bits
    uint32_t mode = 0;
    uint32_t owner = 0;
    uint32_t group = 0;
    int64_t size = 0;
    int64_t modifiedSeconds = 0;
    uint32_t modifiedNanoseconds = 0;
    int64_t changedSeconds = 0;
    uint32_t changedNanoseconds = 0;
    uint64_t device = 0; // major << 32 | minor
    uint64_t inode = 0;
    bool systemImmutable = false; // the immutable flag
    bool userImmutable = false; // the append-only flag

    bool isDirectory() const;
    bool isRegularFile() const;
    // Links, FIFOs, sockets and device nodes: never opened, never followed.
    bool isOther() const { return !isDirectory() && !isRegularFile(); }
    // Whether this process may read the item: computed from the mode, owner and groups.
    bool isReadable() const;
};

// Reads an item's properties without following a link; name "" reads the folder itself.
bool ReadItemProperties(int folderFd, const char *name, BUItemProperties *properties, BUError *error);
// The analysis's stats of an item (size left 0; the caller sets it for files).
void StatsFromProperties(const BUItemProperties &properties, FileStats *stats);

// Reads the digest of an item's user.* extended attributes into stats (0 when it has none or
// they cannot be read). The item is opened without following a link.
void ReadAttributeDigest(int folderFd, const char *name, FileStats *stats);

// What a device's file system holds, from its type in the mount table.
struct BUVolumeKind {
    bool holdsOwnership = true; // modes, owners and extended attributes
    bool twoSecondTimes = false; // content times kept in 2-second steps
    // The step, in nanoseconds, in which the file system keeps times: what its kind says, then
    // what a probe on the device finds (BUDeviceRoot::probeTimeStep).
    int64_t timeStep = 1000000000;
    // The dates it can hold, in seconds since 1970, as the probe finds them (ext4 with 128-byte
    // inodes and XFS without big timestamps end in January 2038).
    int64_t earliestSeconds = INT64_MIN;
    int64_t latestSeconds = INT64_MAX;
    // Names that differ only in case are one name: items are matched without regard to case.
    bool ignoresCase = false;
    // Folders may be made to ignore case one by one (the casefold flag).
    bool mayFoldCase = false;
    // Space reserved ahead (fallocate) is only marked as such. Memory file systems fill it with
    // zeroed pages instead, which costs as much as writing the data a second time.
    bool reservesSpaceCheaply = true;
    // Dates only from 1980-01-01 to 2107-12-31 in local time (FAT, exFAT): the file system wraps
    // any other date around, so times are written and compared clamped into that range.
    bool datesFrom1980 = false;
    // Files only below 4 GiB (FAT).
    bool filesUnder4GiB = false;
    // Holes of sparse files are kept as holes (not on FAT and exFAT, which write them out).
    bool keepsHoles = true;
};
inline constexpr int64_t kFatFileSizeLimit = int64_t(1) << 32;
BUVolumeKind VolumeKindForFileSystem(const QString &fileSystemType);

// A time in seconds since 1970 as a volume of this kind stores it: clamped into its dates.
int64_t StorableSeconds(int64_t seconds, const BUVolumeKind &kind);
timespec StorableTime(const timespec &time, const BUVolumeKind &kind);

// A time in nanoseconds since 1970 as the comparison sees it on a volume of this kind: in the
// volume's steps (rounded down), within the dates it can hold. Two times are the same when these
// are equal, so an edit made any time after a copy is seen wherever both file systems keep it.
inline int64_t ComparableTime(int64_t nanoseconds, const BUVolumeKind &kind)
{
    constexpr int64_t kSecond = 1000000000;
    const int64_t seconds = nanoseconds >= 0 ? nanoseconds / kSecond : -((-nanoseconds + kSecond - 1) / kSecond);
    const int64_t kept = std::clamp(
        kind.datesFrom1980 ? StorableSeconds(seconds, kind) : seconds, kind.earliestSeconds, kind.latestSeconds);
    if (kept != seconds)
        nanoseconds = kept * kSecond; // a date the device cannot hold: its nearest one
    const int64_t step = kind.timeStep > 0 ? kind.timeStep : 1;
    return nanoseconds >= 0 ? nanoseconds / step : -((-nanoseconds + step - 1) / step);
}
// The step of times that a probe file's kept time shows: what was written (`written`, in
// nanoseconds) against what was read back; 0 when no step explains it.
int64_t TimeStepFromProbe(int64_t written, int64_t kept);

// The attributes a copy or an update carries from a source item to its device copy.
struct BUItemAttributes {
    uint32_t mode = 0; // permission bits
    uint32_t owner = 0;
    uint32_t group = 0;
    timespec accessed = {};
    timespec modified = {};
    QList<QPair<QByteArray, QByteArray>> extended; // user.* names and values
};

// From an open item, or from a path without following its last component.
bool ReadItemAttributes(int fd, BUItemAttributes *attributes, BUError *error);
bool ReadItemAttributesAtPath(const QByteArray &path, BUItemAttributes *attributes, BUError *error);
// Writes mode, owner (as root), extended attributes (removing user.* ones the source lacks) and
// times to an open item, as far as the volume holds them. extraMode is or-ed into the mode (a
// folder that is still being filled keeps its owner's access until the end of the run). A file
// this process has just created has no user.* attributes to remove: newItem skips the listing.
bool WriteItemAttributes(int fd, const BUItemAttributes &attributes, const BUVolumeKind &kind, uint32_t extraMode,
    BUError *error, bool newItem = false);
// The attributes of an open item whose status the caller has already read.
bool ReadItemAttributesWithStatus(int fd, const struct stat &status, BUItemAttributes *attributes, BUError *error);

// True when this process runs as root: owners are compared and written only then.
bool RunningAsRoot();
