#include "backup/BUBackupOperation.h"

#include "backup/BUAnalyzeOperation.h"

#include "backup/BUCopyOverlap.h"
#include "backup/BUDeviceRoot.h"
#include "backup/BUDevices.h"
#include "backup/BUFileCopier.h"
#include "backup/BUFileStats.h"
#include "backup/BUFolderReading.h"
#include "backup/BUFreeSpace.h"
#include "backup/BUSourceFolders.h"
#include "backup/BUTouchedFolders.h"
#include "keelson/FormatString.h"
#include "keelson/KSLog.h"
#include "keelson/KSStrings.h"

#include <QElapsedTimer>
#include <QSet>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <fcntl.h>
#include <limits>
#include <linux/openat2.h>
#include <mutex>
#include <numeric>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

const QString kInternalError = QStringLiteral("Internal logic error");
constexpr uint32_t kAlreadyFailed = 3; // beside the three actions
constexpr qint64 kReportInterval = 40; // milliseconds between bundles of progress reports

// RAII for a descriptor.
struct Descriptor {
    int fd;
    ~Descriptor()
    {
        if (fd >= 0)
            ::close(fd);
    }
};

struct BackupRun;
// The device path of a transaction's item relative to the device root; null when it has none.
QString _DeviceRelativePath(const BackupRun &run, const BUTransaction &transaction);

// The state of one run beside the batching.
struct BackupRun {
    explicit BackupRun(const BUTransactionList &list)
        : transactions(list),
          touchedFolders([this](uint32_t at) { return _DeviceRelativePath(*this, transactions.at(at)); })
    {
    }
    BackupRun(const BackupRun &) = delete;
    BackupRun &operator=(const BackupRun &) = delete;

    const BUTransactionList &transactions;
    uint32_t row = 0; // of the transaction being carried out
    BUDeviceRoot device;
    BUFileCopier copier;
    const QStringList *backupFolders;
    TouchedFolders touchedFolders; // the device folders whose contents or attributes changed
    QString lastTouched; // the last folder a copy touched: the next file's is usually the same
    int deviceFolder = -1; // the folder of the current transaction's item
    QString deviceFolderPath; // its path below the device root
    QStringList marked; // mirror folders holding the mark of this run
    QStringList interrupted; // mirror folders that a killed run left marked
    FolderCache sourceFolders; // by absolute path
    // Rows whose old copy must go before the new one is written: the device cannot hold both.
    QSet<uint32_t> oldCopyFirst;
    QString note; // what the current row's outcome says beside success

    ~BackupRun() { forgetDeviceFolder(); }

    // The folder holding a device path's last component, and that component; the descriptor is
    // the run's until the next call. A folder kept open from one copy to the next may have been
    // moved since; where the device is a folder of a bigger file system (a bind mount, a
    // subvolume) it may have left the device through another mount, and nothing may land there:
    // such a device's folders are resolved again for every item. On a device whose mount shows
    // its whole file system a moved folder is still on the device, and the next item in the same
    // folder uses the one already open.
    int deviceParent(const QString &relative, QByteArray *name, bool caseFallback, BUError *error)
    {
        const qsizetype slash = relative.lastIndexOf(u'/');
        const QStringView folder = slash < 0 ? QStringView() : QStringView(relative).left(slash);
        if (deviceFolder >= 0 && device.showsWholeFileSystem() && folder == deviceFolderPath) {
            *name = FileNameToBytes(QStringView(relative).mid(slash + 1));
            if (!name->isEmpty() && *name != "." && *name != "..")
                return deviceFolder;
        }
        forgetDeviceFolder();
        deviceFolder = device.openParent(relative, name, caseFallback, error);
        if (deviceFolder >= 0)
            deviceFolderPath = folder.toString();
        return deviceFolder;
    }
    // Closes the folder kept open: the run is about to delete something, perhaps that folder.
    void forgetDeviceFolder()
    {
        if (deviceFolder >= 0)
            ::close(deviceFolder);
        deviceFolder = -1;
        deviceFolderPath.clear();
    }
    // The source folder holding a source item's last component, and that component; -1 with
    // errno on failure. The backup folder is reached as the user chose it (perhaps through a
    // link); nothing below it is a link followed, so an item swapped for one since the analysis
    // leads nowhere else.
    int sourceParent(const BUTransaction &transaction, QByteArray *name)
    {
        const QByteArray path = FileNameToBytes(transaction.path());
        const qsizetype slash = path.lastIndexOf('/');
        const QByteArray key = slash <= 0 ? QByteArrayLiteral("/") : path.left(slash);
        *name = path.mid(slash + 1);
        return sourceFolders.open(key, transaction.rootPath());
    }
};

QString _ParentOf(const QString &path)
{
    const qsizetype slash = path.lastIndexOf(u'/');
    return slash < 0 ? QString() : path.left(slash);
}

// Records the device folder at relative as changed by the current transaction: its item, or the
// folder holding it when holding. The root of a transaction other than a delete is its source's,
// which has the same path below it as the device copy below the device root.
void _TouchFolder(BackupRun &run, QStringView relative, bool holding)
{
    if (relative.isEmpty())
        return; // the device root mirrors nothing
    const BUTransaction &transaction = run.transactions.at(run.row);
    const bool rootKnown = transaction.action() != BUTransaction::kDelete && !transaction.rootPath().isNull();
    run.touchedFolders.add(relative, run.row, holding, rootKnown);
}

// The same for the folder of a copied file, from the file's path on the device.
void _TouchParentOfFile(BackupRun &run, const QString &relative)
{
    const qsizetype slash = relative.lastIndexOf(u'/');
    if (slash <= 0 || (run.lastTouched.size() == slash && relative.startsWith(run.lastTouched)))
        return;
    run.lastTouched = relative.left(slash);
    _TouchFolder(run, run.lastTouched, true);
}

// Gives the owner write access to a device folder the current transaction is about to change (the
// mirror of a read-only source folder, for a user who is not root); the folder is recorded as
// changed, so the end of the run gives it its source's mode back.
void _OpenUpForChange(BackupRun &run, int folderFd, const QString &relative)
{
    struct stat status;
    if (folderFd < 0 || RunningAsRoot() || ::fstat(folderFd, &status) != 0 || (status.st_mode & S_IRWXU) == S_IRWXU)
        return;
    if (::fchmod(folderFd, (status.st_mode & 07777) | S_IRWXU) == 0)
        _TouchFolder(run, _ParentOf(relative), true);
}

QString _ErrorForUnmountedVolume(BackupRun &run, const QString &path)
{
    // The volume name is the first component below the volumes root.
    const QString volumes = _ParentOf(run.device.path());
    if (path.isEmpty() || volumes.isEmpty() || !path.startsWith(volumes + u'/'))
        return QString();
    const QString name = path.mid(volumes.size() + 1).section(u'/', 0, 0);
    if (name.isEmpty())
        return QString();
    const bool mounted = name == run.device.name() ? run.device.isStillMounted() : MountedDrives().contains(name);
    return mounted ? QString() : FormatString("The device \"%@\" has been ejected.", name);
}

QString _ErrorStringFromError(BackupRun &run, const BUError &error, const QString &path)
{
    if (!path.isEmpty()) {
        const QString ejected = _ErrorForUnmountedVolume(run, path);
        if (!ejected.isEmpty())
            return ejected;
    }
    QString text = ErrorReason(error);
    if (!text.isEmpty() && text[0].isLower())
        text[0] = text[0].toUpper();
    return text;
}

QString _TargetFilePath(const BUTransaction &transaction, const QString &deviceRoot, QString *error)
{
    const QString &path = transaction.path();
    const QString &root = transaction.rootPath();
    if (!root.isNull() && PathIsInside(path, root) && !PathIsInside(path, deviceRoot)) {
        qsizetype start = root.size();
        while (start < path.size() && path[start] == u'/')
            ++start;
        if (start < path.size())
            return deviceRoot + u'/' + path.mid(start);
    }
    if (error)
        *error = kInternalError;
    return QString();
}

QString _DeviceRelativePath(const BackupRun &run, const BUTransaction &transaction)
{
    if (transaction.action() == BUTransaction::kDelete)
        return run.device.relativePath(transaction.path());
    return run.device.relativePath(_TargetFilePath(transaction, run.device.path(), nullptr));
}

// Clears the immutable flags of a device item and gives it read and write for everyone, with
// everything inside it when `inside` (before a removal); only if something is there.
void _SetFullPermissionsAt(int parentFd, const QByteArray &name, const QString &devicePath, bool inside)
{
    struct stat status;
    if (parentFd < 0 || ::fstatat(parentFd, name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return;
    ClearImmutableFlags(parentFd, name.constData());
    if (inside) {
        GiveUserFilePermissions(parentFd, name.constData(), devicePath);
    } else if (!S_ISLNK(status.st_mode) && (status.st_mode & 0666) != 0666
        && ::fchmodat(parentFd, name.constData(), (status.st_mode & 07777) | 0666, AT_SYMLINK_NOFOLLOW) != 0) {
        LogString("Can't change permissions of %@. %@", devicePath, SystemErrorText(errno));
    }
}

// Characters that FAT and exFAT refuse in a name, besides control characters; a name may not end
// in a space or a dot there either.
bool _NameRefusedByFatDevices(QStringView name)
{
    if (name.isEmpty() || name.endsWith(u' ') || name.endsWith(u'.'))
        return true;
    return std::any_of(
        name.begin(), name.end(), [](QChar c) { return c.unicode() < 0x20 || QStringView(u"\"*:<>?\\|").contains(c); });
}

// The text of a failed copy or update, and whether it stops the run. Only what concerns the whole
// device stops it (ejected, full, read-only); a name the device cannot hold, a device folder that
// refuses the user, an attribute refused, a source item gone since the analysis fail their row
// alone, each with what happened.
QString _ItemFailure(
    BackupRun &run, const BUTransaction &transaction, const BUError &error, const QString &devicePath, QString *fatal)
{
    const bool reading
        = error.domain == BUErrorDomain::Cocoa && error.code >= kReadUnknownError && error.code < kWriteUnknownError;
    if (reading && error.code == kReadNoSuchFileError)
        return transaction.isFolder() ? QStringLiteral("The folder no longer exists at the source.")
                                      : QStringLiteral("The file no longer exists at the source.");
    const int code = CocoaDomainErrorCode(error);
    if (reading || code == kReadNoPermissionError)
        return _ErrorStringFromError(run, error, QString());
    const QString ejected = _ErrorForUnmountedVolume(run, devicePath);
    if (!ejected.isEmpty()) {
        *fatal = ejected;
        return ejected;
    }
    const QString name = LastPathComponent(devicePath);
    if (!run.device.kind().holdsOwnership && code != kWriteOutOfSpaceError && code != kWriteVolumeReadOnlyError
        && _NameRefusedByFatDevices(name))
        return FormatString("The device can't hold the name \"%@\".", name);
    const QString text = _ErrorStringFromError(run, error, devicePath);
    if (code == kWriteNoPermissionError)
        return FormatString(
            "You don't have permission to write in the folder \"%@\" on the device.", _ParentOf(devicePath));
    if (code != kWriteOutOfSpaceError && code != kWriteVolumeReadOnlyError)
        return text;
    if (transaction.isFolder()) {
        *fatal = FormatString("%@\n\nThe folder \"%@\" could not be created.", text, devicePath);
        return text;
    }
    const QString reason = code == kWriteOutOfSpaceError ? QStringLiteral("The device is full")
                                                         : QStringLiteral("The device is read-only");
    *fatal = FormatString("%@.\n\nThe file \"%@\" could not be created.", reason, devicePath);
    return text;
}

// Gives the device copy of a transaction's source item the source's attributes; the text is ""
// or the reason it failed.
QString _CopyFile(BackupRun &run, const BUTransaction &transaction, QString *fatal, bool replace = false);

// Gives the device copy of a transaction's source item the source's attributes; the text is ""
// or the reason it failed. A file that has other names (hard links, perhaps outside the device)
// is replaced by a fresh copy instead: a change to it would show through every name.
QString _UpdateItem(BackupRun &run, const BUTransaction &transaction, QString *fatal)
{
    QString text;
    const QString devicePath = _TargetFilePath(transaction, run.device.path(), &text);
    if (devicePath.isEmpty())
        return text;
    BUItemAttributes attributes;
    BUError error;
    QByteArray sourceName;
    const int sourceFd = run.sourceParent(transaction, &sourceName);
    if (sourceFd < 0)
        return _ItemFailure(run, transaction, BUError::sourceRead(errno), QString(), fatal);
    if (!ReadItemAttributesAtPath(_PathThrough(sourceFd, sourceName), &attributes, &error))
        return _ItemFailure(run, transaction, BUError::sourceRead(error.code), QString(), fatal);
    const QString relative = run.device.relativePath(devicePath);
    QByteArray name;
    const int parentFd = run.deviceParent(relative, &name, run.device.kind().ignoresCase, &error);
    if (parentFd < 0)
        return _ErrorStringFromError(run, BUError::deviceWrite(error.code), devicePath);
    // The analysis matched names without regard to case: the device item may be spelled
    // differently from the source.
    struct stat status;
    bool found = ::fstatat(parentFd, name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (!found && errno == ENOENT) {
        const QByteArray listed = NameIgnoringCase(parentFd, name, transaction.isFolder());
        if (!listed.isEmpty()) {
            name = listed;
            found = ::fstatat(parentFd, name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0;
        }
    }
    if (found && !transaction.isFolder() && S_ISREG(status.st_mode) && status.st_nlink > 1) {
        const QString copied = _CopyFile(run, transaction, fatal, true);
        return copied;
    }
    // Only the item itself: the modes of what is inside a folder are its own attributes, and a
    // pass over them would leave every copy inside with modes that differ from the sources.
    _SetFullPermissionsAt(parentFd, name, devicePath, false);
    const Descriptor item {OpenItemAt(parentFd, name.constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY)};
    if (item.fd < 0)
        return _ErrorStringFromError(run, BUError::deviceWrite(errno), devicePath);
    uint32_t extraMode = 0;
    if (transaction.isFolder()) {
        // A folder keeps its owner's access while the run may still write into it; its own mode
        // comes at the end with its times.
        _TouchFolder(run, relative, false);
        if (!RunningAsRoot())
            extraMode = S_IRWXU;
    }
    if (!WriteItemAttributes(item.fd, attributes, run.device.kind(), extraMode, &error))
        return _ErrorStringFromError(run, error, devicePath);
    return QString();
}

void _MarkMirror(BackupRun &run, int rootFd, const QString &mirror);

QString _CopyFolder(BackupRun &run, const BUTransaction &transaction, QString *fatal)
{
    const QString devicePath = _TargetFilePath(transaction, run.device.path(), nullptr);
    if (devicePath.isEmpty()) {
        *fatal = FormatString("%@\n\nThe folder \"%@\" could not be created.", QString(), QString());
        return kInternalError;
    }
    const QString relative = run.device.relativePath(devicePath);
    BUError error;
    QByteArray name;
    const int parentFd = run.deviceParent(relative, &name, run.device.kind().ignoresCase, &error);
    _OpenUpForChange(run, parentFd, relative);
    bool made = parentFd >= 0 && ::mkdirat(parentFd, name.constData(), 0777) == 0;
    if (!made && parentFd >= 0 && errno == EEXIST) {
        // A link, a FIFO or a device node where the source has a folder goes, as it would where
        // a file belongs; a folder made there since the analysis is used as it is.
        struct stat status;
        if (::fstatat(parentFd, name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode))
            return _UpdateItem(run, transaction, fatal);
        made = RemoveItemAt(parentFd, name.constData(), &error) && ::mkdirat(parentFd, name.constData(), 0777) == 0;
        if (!made && error.isError() && CocoaDomainErrorCode(error) != kNoSuchFileError)
            errno = error.code;
    }
    if (made) {
        _TouchFolder(run, _ParentOf(relative), true);
        if (!relative.contains(u'/'))
            _MarkMirror(run, parentFd, relative); // a new mirror
        return _UpdateItem(run, transaction, fatal);
    }
    error = BUError::deviceWrite(parentFd >= 0 ? errno : error.code);
    // Another file system in the way stops only what would go into it, as does a name the device
    // cannot hold or a folder that refuses the user.
    return _ItemFailure(run, transaction, error, devicePath, fatal);
}

// What a copy finds at its name on the device.
enum class OldItem { None, File, Other };

OldItem _OldItemAt(int parentFd, const QByteArray &name)
{
    struct stat old;
    if (::fstatat(parentFd, name.constData(), &old, AT_SYMLINK_NOFOLLOW) != 0)
        return OldItem::None;
    return S_ISREG(old.st_mode) ? OldItem::File : OldItem::Other;
}

// Removes what is at the name before a copy takes it: an item of another type (a folder, a link)
// where the file belongs, or an old copy where the device cannot hold it beside the new one.
// False, with the error, when something is there and stays.
bool _RemoveOldItem(int parentFd, const QByteArray &name, BUError *error)
{
    return RemoveItemAt(parentFd, name.constData(), error) || CocoaDomainErrorCode(*error) == kNoSuchFileError;
}

const QString kOldCopyRemovedFirst
    = QStringLiteral("The old copy was removed first, because the device could not hold both.");

QString _CopyFile(BackupRun &run, const BUTransaction &transaction, QString *fatal, bool replace)
{
    const QString devicePath = _TargetFilePath(transaction, run.device.path(), nullptr);
    if (devicePath.isEmpty())
        return kInternalError;
    const QString relative = run.device.relativePath(devicePath);
    QByteArray name;
    BUError error;
    const int parentFd = run.deviceParent(relative, &name, run.device.kind().ignoresCase, &error);
    if (parentFd < 0 && CocoaDomainErrorCode(error) != kNoSuchFileError)
        return _ErrorStringFromError(run, error, devicePath);
    if (parentFd >= 0) {
        _OpenUpForChange(run, parentFd, relative);
        // The old copy stays readable under its name until the new one is whole and takes its
        // place in one step, so that whatever stops the copy leaves the device as it was.
        bool replacing = false;
        auto makeRoom = [&](OldItem old) {
            if (old == OldItem::None)
                return true;
            if (old == OldItem::File && !run.oldCopyFirst.contains(run.row)) {
                replacing = true;
                return true;
            }
            if (old == OldItem::File)
                run.note = kOldCopyRemovedFirst;
            return _RemoveOldItem(parentFd, name, &error);
        };
        if ((replace || transaction.replacesItem()) && !makeRoom(_OldItemAt(parentFd, name)))
            return _ErrorStringFromError(run, error, devicePath);
        for (bool retried = false;; retried = true) {
            QByteArray sourceName;
            const int sourceFd = run.sourceParent(transaction, &sourceName);
            if (sourceFd < 0) {
                error = BUError::sourceRead(errno);
                break;
            }
            if (run.copier.copyFile(sourceFd, sourceName, parentFd, name, run.device.kind(), &error, replacing)) {
                _TouchParentOfFile(run, relative);
                return QString();
            }
            // The name was free at the analysis and has been taken since: what took it is treated
            // as an old copy is.
            if (retried || replacing || CocoaDomainErrorCode(error) != kFileExistsError)
                break;
            if (!makeRoom(_OldItemAt(parentFd, name)))
                return _ErrorStringFromError(run, error, devicePath);
        }
    } else {
        error = BUError::deviceWrite(error.code);
    }
    return _ItemFailure(run, transaction, error, devicePath, fatal);
}

QString _DeleteItem(BackupRun &run, const BUTransaction &transaction)
{
    // Never anything outside the device.
    const QString relative = run.device.relativePath(transaction.path());
    if (relative.isNull())
        return kInternalError;
    QByteArray name;
    BUError error;
    run.forgetDeviceFolder();
    const Descriptor parent {run.device.openParent(relative, &name, false, &error)};
    _OpenUpForChange(run, parent.fd, relative);
    if (parent.fd < 0 || !RemoveItemAt(parent.fd, name.constData(), &error))
        return _ErrorStringFromError(run, error, transaction.path());
    _TouchFolder(run, _ParentOf(relative), true);
    return QString();
}

// The source folder that a device folder mirrors, found by name: the backup folder whose last
// component is the mirror's exact name at the top of the device, then each further component as
// the device spells it or, where the source has no such folder, as the analysis matched it:
// without regard to case, the first listed winning.
QString _SourceOfMirror(const BackupRun &run, const QString &relative, QString *root)
{
    const QStringList components = relative.split(u'/');
    QByteArray path;
    for (const QString &folder : *run.backupFolders) {
        if (LastPathComponent(folder) == components[0]) {
            path = FileNameToBytes(folder);
            *root = _ParentOf(folder);
            if (root->isEmpty())
                *root = QStringLiteral("/");
            break;
        }
    }
    if (path.isEmpty())
        return QString();
    // Each component below the last one's open folder, so that depth is no limit.
    Descriptor folder {components.size() > 1 ? _OpenSourceFolder(path, *root) : -1};
    for (qsizetype i = 1; i < components.size(); ++i) {
        if (folder.fd < 0)
            return QString();
        QByteArray name = FileNameToBytes(components[i]);
        struct stat status;
        if (::fstatat(folder.fd, name.constData(), &status, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(status.st_mode)) {
            const Descriptor listed {::openat(folder.fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
            name = listed.fd >= 0 ? NameIgnoringCase(listed.fd, name, true) : QByteArray();
            if (name.isEmpty())
                return QString();
        }
        path += '/' + name;
        if (i + 1 < components.size()) {
            const int below = ::openat(folder.fd, name.constData(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            ::close(folder.fd);
            folder.fd = below;
        }
    }
    return FileNameFromBytes(path);
}

// The backup folder a mirror at the top of the device stands for; null when none.
QString _BackupFolderOf(const BackupRun &run, const QString &mirror)
{
    for (const QString &folder : *run.backupFolders) {
        if (LastPathComponent(folder) == mirror)
            return folder;
    }
    return QString();
}

// Puts the mark of a run in progress into the mirror folder of that name in the device root. A
// mark that is there already was left by a run killed on the way: it stays as this run's, and the
// mirror's folders get their attributes back at the end.
void _MarkMirror(BackupRun &run, int rootFd, const QString &mirror)
{
    const Descriptor fd {OpenItemAt(rootFd, FileNameToBytes(mirror).constData(), O_RDONLY | O_DIRECTORY)};
    constexpr int kFlags = O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    Descriptor mark {fd.fd < 0 ? -1 : ::openat(fd.fd, kRunMarkName, kFlags | O_CREAT | O_EXCL, 0600)};
    if (fd.fd >= 0 && mark.fd < 0 && errno == EEXIST) {
        mark.fd = ::openat(fd.fd, kRunMarkName, kFlags);
        if (mark.fd >= 0 && !run.interrupted.contains(mirror))
            run.interrupted.append(mirror);
    }
    if (mark.fd >= 0 && !run.marked.contains(mirror))
        run.marked.append(mirror);
}

// Marks every mirror folder there is before anything changes; a mirror the run makes is marked as
// it is made.
void _MarkRun(BackupRun &run)
{
    for (const QString &folder : *run.backupFolders)
        _MarkMirror(run, run.device.fd(), LastPathComponent(folder));
}

// After a killed run: every folder of its mirrors gets its source's attributes. Then the marks of
// this run go, and each mirror folder gets its own attributes last.
void _UnmarkRun(BackupRun &run)
{
    auto sourceAttributes = [](const QString &folder, const QByteArray &below, BUItemAttributes *attributes) {
        QString root = _ParentOf(folder);
        if (root.isEmpty())
            root = QStringLiteral("/");
        const QByteArray path = below.isEmpty() ? FileNameToBytes(folder) : FileNameToBytes(folder) + '/' + below;
        const Descriptor source {_OpenSourceFolder(path, root)};
        return source.fd >= 0 && ReadItemAttributesAtPath(_PathThrough(source.fd, "."), attributes, nullptr);
    };
    for (const QString &mirror : std::as_const(run.interrupted)) {
        const QString folder = _BackupFolderOf(run, mirror);
        const Descriptor fd {folder.isNull() ? -1 : run.device.openFolder(mirror, false, nullptr)};
        if (fd.fd >= 0) {
            RestoreMirrorTree(
                fd.fd,
                [&](const QByteArray &below, BUItemAttributes *attributes) {
                    return sourceAttributes(folder, below, attributes);
                },
                run.device.kind());
        }
    }
    for (const QString &mirror : std::as_const(run.marked)) {
        const QString folder = _BackupFolderOf(run, mirror);
        const Descriptor fd {run.device.openFolder(mirror, false, nullptr)};
        if (fd.fd < 0 || ::unlinkat(fd.fd, kRunMarkName, 0) != 0)
            continue;
        BUItemAttributes attributes;
        BUError error;
        if (sourceAttributes(folder, QByteArray(), &attributes)
            && !WriteItemAttributes(fd.fd, attributes, run.device.kind(), 0, &error))
            LogString("Can't set the attributes of %@. %@", run.device.path() + u'/' + mirror, error.failureReason);
    }
}

// Gives every folder the run changed its source's mode and times, as the last step: creating and
// removing items inside a folder sets its time.
void _RestoreFolderAttributes(BackupRun &run)
{
    // Deepest first: setting a folder's attributes inside another changes the outer one's times.
    // Folders as deep as each other go in the order the run changed them.
    const TouchedFolders &touched = run.touchedFolders;
    std::vector<uint32_t> depths(touched.size());
    for (std::size_t index = 0; index < touched.size(); ++index)
        depths[index] = uint32_t(touched.path(index).count(u'/'));
    std::vector<uint32_t> folders(touched.size());
    std::iota(folders.begin(), folders.end(), 0U);
    std::stable_sort(
        folders.begin(), folders.end(), [&depths](uint32_t a, uint32_t b) { return depths[a] > depths[b]; });
    depths = {};
    for (const uint32_t index : folders) {
        QString sourceRoot = touched.rootKnown(index) ? run.transactions.at(touched.row(index)).rootPath() : QString();
        const QString relative = touched.path(index);
        const QString source = sourceRoot.isNull() ? _SourceOfMirror(run, relative, &sourceRoot)
            : sourceRoot.endsWith(u'/')            ? sourceRoot + relative
                                                   : sourceRoot + u'/' + relative;
        if (source.isEmpty())
            continue;
        // Reached as the copies reached their sources: no link below the backup folder followed.
        const Descriptor sourceFolder {_OpenSourceFolder(FileNameToBytes(source), sourceRoot)};
        BUItemAttributes attributes;
        if (sourceFolder.fd < 0 || !ReadItemAttributesAtPath(_PathThrough(sourceFolder.fd, "."), &attributes, nullptr))
            continue;
        const Descriptor fd {run.device.openFolder(relative, true, nullptr)};
        BUError error;
        if (fd.fd >= 0 && !WriteItemAttributes(fd.fd, attributes, run.device.kind(), 0, &error))
            LogString("Can't set the attributes of %@. %@", run.device.path() + u'/' + relative, error.failureReason);
    }
}

} // namespace

BUBackupOperation::BUBackupOperation(BUEngineReceiver *controller, const QString &targetName,
    const BUTransactionList &transactions, const QStringList &backupFolders)
    : m_targetName(targetName), m_controller(controller), m_transactions(transactions), m_backupFolders(backupFolders)
{
}

void BUBackupOperation::cancel()
{
    m_cancelBackup.store(true, std::memory_order_relaxed);
    KSAsyncOperation::cancel();
}

bool BUBackupOperation::performOperation()
{
    BackupRun run(m_transactions);
    run.backupFolders = &m_backupFolders;
    run.device.open(m_targetName, nullptr); // a failure shows as an ejected device below
    // One backup of a device at a time, whichever window or command started it: two would race
    // for the same names.
    if (run.device.fd() >= 0 && !run.device.lockForBackup()) {
        BUBackupCompleteReport refused;
        refused.target = m_targetName;
        refused.error = FormatString("Another backup of the device \"%@\" is running.", m_targetName);
        PostToReceiver(m_controller, [refused](BUEngineReceiver *r) { r->backupComplete(refused); });
        return true;
    }
    run.device.probe(); // as the analysis found the device
    _MarkRun(run);

    BUBackupStatusReport status;
    int batchCount = 0;
    uint32_t groupAction = 3; // no transaction has it: the first one opens a batch
    bool groupFolder = false;
    bool lastWasFileCopy = false;
    QString fatal;
    qsizetype current = 0;
    QElapsedTimer sinceProgress;
    // Reports go to the receiver in bundles, a few dozen times a second, each still delivered on
    // its own and in order: one wake-up of the receiver's thread per copied file would cost a
    // backup of many small files more than the copying.
    std::vector<BUBackupStatusReport> pending;
    QElapsedTimer sinceFlush; // invalid until the first report, which goes out at once
    auto flush = [&] {
        if (pending.empty())
            return;
        PostToReceiver(m_controller, [reports = std::move(pending)](BUEngineReceiver *r) {
            for (const BUBackupStatusReport &report : reports)
                r->backupStatus(report);
        });
        pending.clear();
        sinceFlush.start();
    };
    run.copier.deviceGone = [&run] { return !run.device.isStillMounted(); };
    run.copier.cancelled = [this] { return m_cancelBackup.load(std::memory_order_relaxed); };
    fatal = DeviceSpaceShortfall(
        m_transactions, m_targetName, run.device.path(), run.device.fd(), &run.oldCopyFirst, &run.device.kind());
    run.copier.progress = [&](int64_t bytes) {
        if (sinceProgress.isValid() && sinceProgress.elapsed() < 200)
            return;
        sinceProgress.start();
        flush(); // what came before this file, first
        const qsizetype index = current;
        const double written = double(bytes);
        PostToReceiver(m_controller, [index, written](BUEngineReceiver *r) { r->copyProgress(index, written); });
    };
    auto post = [&](BUBackupStatusReport report) {
        pending.push_back(std::move(report));
        if (!sinceFlush.isValid() || sinceFlush.elapsed() >= kReportInterval)
            flush();
    };

    std::vector<uint32_t> done; // the rows reported done, in order
    SourcePrefetcher prefetcher(m_transactions);
    DeviceWriteBack writeBack(run.device.fd());
    for (qsizetype i = 0; i < m_transactions.size(); ++i) {
        if (m_cancelBackup.load(std::memory_order_relaxed) || !fatal.isEmpty())
            break;
        prefetcher.reached(i);
        const BUTransaction &transaction = m_transactions.at(i);
        const bool joins = !lastWasFileCopy && transaction.action() == groupAction
            && transaction.isFolder() == groupFolder && batchCount < 2;
        if (!joins) {
            if (batchCount > 0) {
                post(status);
                status = BUBackupStatusReport();
            }
            groupAction = transaction.action();
            groupFolder = transaction.isFolder();
            batchCount = 0;
        }
        // Nothing is written to a device that is no longer where it was opened: an ejected
        // device leaves an empty folder behind on the system disk.
        if (!run.device.isStillMounted()) {
            fatal = FormatString("The device \"%@\" has been ejected.", m_targetName);
            status.trans.insert(i, fatal); // not carried out: it counts as failed
            ++batchCount;
            break;
        }
        current = i;
        run.row = uint32_t(i);
        QString text;
        run.note.clear();
        lastWasFileCopy = false;
        // A copy that the device can't hold beside its namesake fails without touching either, as
        // does an item the analysis could not read.
        if (transaction.action() != BUTransaction::kDelete && !g_caseConflicts.isEmpty())
            text = g_caseConflicts.value(transaction.path());
        switch (text.isNull() ? transaction.action() : kAlreadyFailed) {
        case kAlreadyFailed:
            break;
        case BUTransaction::kUpdate:
            text = _UpdateItem(run, transaction, &fatal);
            break;
        case BUTransaction::kDelete:
            text = _DeleteItem(run, transaction);
            break;
        default:
            if (transaction.isFolder()) {
                text = _CopyFolder(run, transaction, &fatal);
            } else {
                text = _CopyFile(run, transaction, &fatal);
                if (run.copier.stoppedByCancel())
                    break; // cut short by Cancel: not carried out, so not reported
                if (text.isEmpty())
                    status.copied += transaction.fileSize(); // a failed copy brought nothing over
                writeBack.wrote(transaction.fileSize(), i);
                lastWasFileCopy = true;
            }
            break;
        }
        if (transaction.action() == BUTransaction::kCopy && run.copier.stoppedByCancel())
            break;
        status.trans.insert(i, text);
        if (!run.note.isEmpty())
            status.notes.insert(i, run.note);
        if (text.isEmpty())
            done.push_back(uint32_t(i));
        ++batchCount;
    }
    if (!status.trans.isEmpty())
        post(status);
    flush();

    if (run.device.fd() >= 0 && run.device.isStillMounted()) {
        _RestoreFolderAttributes(run);
        _UnmarkRun(run);
        // What the device does not hold once it is flushed is not done: every transaction
        // reported done since the last batch known to be written back fails with the reason.
        int flushed = ::syncfs(run.device.fd());
        // A FUSE driver writes to its disk through that disk's own page cache, which the
        // mount's flush never reaches (FAT's driver does not even tell the kernel which disk it
        // is): only a flush of every disk puts the data where a power cut leaves it.
        if (flushed == 0) {
            const std::optional<BUMountEntry> mount = MountEntryForDevice(m_targetName);
            if (mount && mount->fileSystemType.startsWith(u"fuse"))
                ::sync();
        }
        if (flushed != 0) {
            const QString reason = SystemErrorText(errno);
            if (fatal.isEmpty())
                fatal
                    = FormatString("%@.\n\nThe data could not be written to the device \"%@\".", reason, m_targetName);
            const qsizetype durable = writeBack.durableRows();
            BUBackupStatusReport unwritten;
            for (auto row = std::lower_bound(done.cbegin(), done.cend(), uint32_t(durable)); row != done.cend(); ++row)
                unwritten.trans.insert(*row, reason);
            if (!unwritten.trans.isEmpty())
                PostToReceiver(m_controller, [unwritten](BUEngineReceiver *r) { r->backupStatus(unwritten); });
        }
    }

    BUBackupCompleteReport complete;
    complete.target = m_targetName;
    complete.cancel = m_cancelBackup.load(std::memory_order_relaxed);
    if (!fatal.isEmpty())
        complete.error = fatal;
    PostToReceiver(m_controller, [complete](BUEngineReceiver *r) { r->backupComplete(complete); });
    return true;
}

void BUBackupOperation::cancelledBeforeStart()
{
    BUBackupCompleteReport report;
    report.target = m_targetName;
    report.cancel = true;
    PostToReceiver(m_controller, [report](BUEngineReceiver *receiver) { receiver->backupComplete(report); });
}
