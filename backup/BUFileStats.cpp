#include "backup/BUFileStats.h"

#include <QVarLengthArray>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utility>

namespace {

// The credentials that decide readability, read once.
struct Credentials {
    uid_t user;
    gid_t group;
    QVarLengthArray<gid_t, 32> groups;
};

const Credentials &_Credentials()
{
    static const Credentials credentials = [] {
        Credentials c {::geteuid(), ::getegid(), {}};
        const int count = ::getgroups(0, nullptr);
        if (count > 0) {
            c.groups.resize(count);
            if (::getgroups(count, c.groups.data()) != count)
                c.groups.clear();
        }
        return c;
    }();
    return credentials;
}

bool _IsUserAttribute(const char *name)
{
    return std::strncmp(name, "user.", 5) == 0;
}

// Splits a listxattr buffer into the user.* names, sorted.
QList<QByteArray> _UserAttributeNames(const QByteArray &list)
{
    QList<QByteArray> names;
    qsizetype start = 0;
    while (start < list.size()) {
        const qsizetype end = list.indexOf('\0', start);
        const qsizetype stop = end < 0 ? list.size() : end;
        if (stop > start && _IsUserAttribute(list.constData() + start))
            names.append(list.mid(start, stop - start));
        start = stop + 1;
    }
    std::sort(names.begin(), names.end());
    return names;
}

// listxattr/getxattr through one of their three forms: on a descriptor or a path without
// following it. The size may change between the two calls, so they are retried.
template <typename Query> bool _QueryAttribute(Query query, QByteArray *out)
{
    for (int attempt = 0; attempt < 4; ++attempt) {
        const ssize_t size = query(nullptr, 0);
        if (size < 0)
            return false;
        out->resize(size);
        if (size == 0)
            return true;
        const ssize_t got = query(out->data(), std::size_t(size));
        if (got >= 0) {
            out->resize(got);
            return true;
        }
        if (errno != ERANGE)
            return false;
    }
    return false;
}

bool _ReadExtendedAttributes(int fd, const QByteArray &path, BUItemAttributes *attributes, int *errorNumber)
{
    attributes->extended.clear();
    QByteArray list;
    const bool listed = fd >= 0
        ? _QueryAttribute([fd](char *b, std::size_t s) { return ::flistxattr(fd, b, s); }, &list)
        : _QueryAttribute([&path](char *b, std::size_t s) { return ::llistxattr(path.constData(), b, s); }, &list);
    if (!listed) {
        // A file system without extended attributes has none to copy.
        if (errno == ENOTSUP || errno == EOPNOTSUPP)
            return true;
        *errorNumber = errno;
        return false;
    }
    for (const QByteArray &name : _UserAttributeNames(list)) {
        QByteArray value;
        const bool read = fd >= 0
            ? _QueryAttribute(
                [fd, &name](char *b, std::size_t s) { return ::fgetxattr(fd, name.constData(), b, s); }, &value)
            : _QueryAttribute([&path, &name](char *b,
                                  std::size_t s) { return ::lgetxattr(path.constData(), name.constData(), b, s); },
                &value);
        if (!read) {
            if (errno == ENODATA)
                continue; // removed meanwhile
            *errorNumber = errno;
            return false;
        }
        attributes->extended.append({name, value});
    }
    return true;
}

void _AttributesFromStat(const struct stat &status, BUItemAttributes *attributes)
{
    attributes->mode = status.st_mode & 07777;
    attributes->owner = status.st_uid;
    attributes->group = status.st_gid;
    attributes->accessed = status.st_atim;
    attributes->modified = status.st_mtim;
}

} // namespace

bool BUItemProperties::isDirectory() const
{
    return type == S_IFDIR;
}

bool BUItemProperties::isRegularFile() const
{
    return type == S_IFREG;
}

bool BUItemProperties::isReadable() const
{
    const Credentials &c = _Credentials();
    if (c.user == 0)
        return true;
    if (owner == c.user)
        return mode & S_IRUSR;
    if (group == c.group || std::find(c.groups.begin(), c.groups.end(), gid_t(group)) != c.groups.end())
        return mode & S_IRGRP;
    return mode & S_IROTH;
}

bool RunningAsRoot()
{
    return _Credentials().user == 0;
}

bool ReadItemProperties(int folderFd, const char *name, BUItemProperties *properties, BUError *error)
{
    struct statx status;
    const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (*name ? 0 : AT_EMPTY_PATH);
    const unsigned mask
        = STATX_TYPE | STATX_MODE | STATX_UID | STATX_GID | STATX_SIZE | STATX_MTIME | STATX_CTIME | STATX_INO;
    if (::statx(folderFd, name, flags, mask, &status) != 0) {
        if (error)
            *error = BUError::posix(errno);
        return false;
    }
    properties->type = status.stx_mode & S_IFMT;
    properties->mode = status.stx_mode & 07777;
    properties->owner = status.stx_uid;
    properties->group = status.stx_gid;
    properties->size = int64_t(status.stx_size);
    properties->modifiedSeconds = status.stx_mtime.tv_sec;
    properties->modifiedNanoseconds = status.stx_mtime.tv_nsec;
    properties->changedSeconds = status.stx_ctime.tv_sec;
    properties->changedNanoseconds = status.stx_ctime.tv_nsec;
    properties->device = (uint64_t(status.stx_dev_major) << 32) | status.stx_dev_minor;
    properties->inode = status.stx_ino;
    properties->systemImmutable = status.stx_attributes & STATX_ATTR_IMMUTABLE;
    properties->userImmutable = status.stx_attributes & STATX_ATTR_APPEND;
    return true;
}

void StatsFromProperties(const BUItemProperties &properties, FileStats *stats)
{
    *stats = FileStats();
    // At full precision: the comparison rounds to what the device keeps.
    stats->contentModified = properties.modifiedSeconds * 1000000000 + properties.modifiedNanoseconds;
    stats->attributesModified = properties.changedSeconds * 1000000000 + properties.changedNanoseconds;
    stats->mode = uint16_t(properties.mode); // 07777 at most
    stats->owner = properties.owner;
    stats->group = properties.group;
}

void ReadAttributeDigest(int folderFd, const char *name, FileStats *stats)
{
    stats->digestKnown = true;
    stats->attributeDigest = 0;
    const int fd
        = *name ? ::openat(folderFd, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC) : folderFd;
    if (fd < 0)
        return;
    BUItemAttributes attributes;
    int errorNumber = 0;
    if (_ReadExtendedAttributes(fd, {}, &attributes, &errorNumber)) {
        // FNV-1a over the sorted names and their values.
        uint64_t hash = 14695981039346656037ULL;
        auto mix = [&hash](const QByteArray &bytes) {
            for (char c : bytes)
                hash = (hash ^ uint8_t(c)) * 1099511628211ULL;
            hash = (hash ^ 0xFF) * 1099511628211ULL; // separator no byte of a name can fake
            hash = (hash ^ uint64_t(bytes.size())) * 1099511628211ULL;
        };
        for (const auto &[attributeName, value] : std::as_const(attributes.extended)) {
            mix(attributeName);
            mix(value);
        }
        stats->attributeDigest = attributes.extended.isEmpty() ? 0 : hash;
    }
    if (fd != folderFd)
        ::close(fd);
}

BUVolumeKind VolumeKindForFileSystem(const QString &fileSystemType)
{
    static const QStringList limited = {QStringLiteral("vfat"), QStringLiteral("msdos"), QStringLiteral("exfat"),
        QStringLiteral("ntfs"), QStringLiteral("ntfs3"), QStringLiteral("fuseblk"), QStringLiteral("fuse.fusefat")};
    static const QStringList twoSeconds
        = {QStringLiteral("vfat"), QStringLiteral("msdos"), QStringLiteral("fuse.fusefat")};
    BUVolumeKind kind;
    kind.holdsOwnership = !limited.contains(fileSystemType);
    kind.twoSecondTimes = twoSeconds.contains(fileSystemType);
    kind.timeStep = kind.twoSecondTimes ? 2000000000 : 1000000000;
    kind.ignoresCase = limited.contains(fileSystemType) && fileSystemType != u"ntfs";
    kind.mayFoldCase = fileSystemType == u"ext4" || fileSystemType == u"f2fs";
    kind.reservesSpaceCheaply = fileSystemType != u"tmpfs" && fileSystemType != u"ramfs";
    kind.datesFrom1980 = twoSeconds.contains(fileSystemType) || fileSystemType == u"exfat";
    kind.filesUnder4GiB = twoSeconds.contains(fileSystemType);
    kind.keepsHoles = !twoSeconds.contains(fileSystemType) && fileSystemType != u"exfat";
    return kind;
}

int64_t TimeStepFromProbe(int64_t written, int64_t kept)
{
    for (const int64_t step : {int64_t(1), int64_t(10), int64_t(100), int64_t(1000), int64_t(10000), int64_t(100000),
             int64_t(1000000), int64_t(10000000), int64_t(100000000), int64_t(1000000000), int64_t(2000000000)}) {
        if (written - written % step == kept)
            return step;
    }
    return 0;
}

int64_t StorableSeconds(int64_t seconds, const BUVolumeKind &kind)
{
    if (!kind.datesFrom1980)
        return seconds;
    // The file system keeps local dates and times; the zone is read once.
    static const auto range = [] {
        auto local = [](int year, int month, int day, int hour, int minute, int second) {
            std::tm fields = {};
            fields.tm_year = year - 1900;
            fields.tm_mon = month - 1;
            fields.tm_mday = day;
            fields.tm_hour = hour;
            fields.tm_min = minute;
            fields.tm_sec = second;
            fields.tm_isdst = -1;
            return int64_t(std::mktime(&fields));
        };
        return std::pair<int64_t, int64_t>(local(1980, 1, 1, 0, 0, 0), local(2107, 12, 31, 23, 59, 58));
    }();
    return std::clamp(seconds, range.first, range.second);
}

timespec StorableTime(const timespec &time, const BUVolumeKind &kind)
{
    const int64_t seconds = StorableSeconds(time.tv_sec, kind);
    if (seconds == time.tv_sec)
        return time;
    return {time_t(seconds), 0};
}

bool ReadItemAttributes(int fd, BUItemAttributes *attributes, BUError *error)
{
    struct stat status;
    if (::fstat(fd, &status) == 0)
        return ReadItemAttributesWithStatus(fd, status, attributes, error);
    if (error)
        *error = BUError::posix(errno);
    return false;
}

bool ReadItemAttributesAtPath(const QByteArray &path, BUItemAttributes *attributes, BUError *error)
{
    struct stat status;
    int errorNumber = 0;
    if (::lstat(path.constData(), &status) != 0)
        errorNumber = errno;
    else if (S_ISLNK(status.st_mode))
        errorNumber = ELOOP; // a source swapped for a link since the analysis
    else {
        _AttributesFromStat(status, attributes);
        if (_ReadExtendedAttributes(-1, path, attributes, &errorNumber))
            return true;
    }
    if (error)
        *error = BUError::posix(errorNumber);
    return false;
}

bool ReadItemAttributesWithStatus(int fd, const struct stat &status, BUItemAttributes *attributes, BUError *error)
{
    _AttributesFromStat(status, attributes);
    int errorNumber = 0;
    if (_ReadExtendedAttributes(fd, {}, attributes, &errorNumber))
        return true;
    if (error)
        *error = BUError::posix(errorNumber);
    return false;
}

bool WriteItemAttributes(int fd, const BUItemAttributes &attributes, const BUVolumeKind &kind, uint32_t extraMode,
    BUError *error, bool newItem)
{
    auto fail = [error](int errorNumber) {
        if (error)
            *error = BUError::posix(errorNumber);
        return false;
    };
    if (kind.holdsOwnership) {
        // The owner first: changing it clears the set-user-ID bits that the mode then restores.
        if (RunningAsRoot() && ::fchown(fd, attributes.owner, attributes.group) != 0) {
            // A share that maps root to nobody refuses owners: a failure of the item, named.
            if ((errno == EPERM || errno == EINVAL) && error) {
                *error = {BUErrorDomain::Cocoa, kWriteUnknownError,
                    QStringLiteral("The device refused the owner of the item (%1)").arg(SystemErrorText(errno))};
                return false;
            }
            return fail(errno);
        }
        QByteArray list;
        const bool listed
            = !newItem && _QueryAttribute([fd](char *b, std::size_t s) { return ::flistxattr(fd, b, s); }, &list);
        const bool supported = newItem || listed || (errno != ENOTSUP && errno != EOPNOTSUPP);
        if (supported) {
            if (listed) {
                for (const QByteArray &name : _UserAttributeNames(list)) {
                    const bool kept = std::any_of(attributes.extended.begin(), attributes.extended.end(),
                        [&name](const auto &pair) { return pair.first == name; });
                    if (!kept && ::fremovexattr(fd, name.constData()) != 0 && errno != ENODATA)
                        return fail(errno);
                }
            }
            for (const auto &[name, value] : attributes.extended) {
                if (::fsetxattr(fd, name.constData(), value.constData(), std::size_t(value.size()), 0) != 0) {
                    if (errno == ENOTSUP || errno == EOPNOTSUPP)
                        break;
                    // An attribute too big for what the file system keeps beside a file is a
                    // failure of this item alone, named, not a full device.
                    if ((errno == ENOSPC || errno == E2BIG || errno == ERANGE || errno == EDQUOT) && error) {
                        *error = {BUErrorDomain::Cocoa, kWriteUnknownError,
                            QStringLiteral("The device can't keep the attribute \"%1\" (%2)")
                                .arg(QString::fromUtf8(name), SystemErrorText(errno))};
                        return false;
                    }
                    return fail(errno);
                }
            }
        }
        if (::fchmod(fd, attributes.mode | extraMode) != 0)
            return fail(errno);
    }
    const timespec times[2] = {StorableTime(attributes.accessed, kind), StorableTime(attributes.modified, kind)};
    if (::futimens(fd, times) != 0)
        return fail(errno);
    return true;
}
