#include "app/BUAppController.h"
#include "cli/BUCommandLine.h"
#include "keelson/KSStrings.h"

#include <QDir>

#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace {

// Folder paths are names like any other: bytes that need not be UTF-8 ("Caf\xe9"), never re-encoded.
bool _IsFolder(const QString &path)
{
    struct stat status;
    return ::stat(FileNameToBytes(path).constData(), &status) == 0 && S_ISDIR(status.st_mode);
}

// The real folder, links resolved; null when it cannot be found.
QString _CanonicalPath(const QString &path)
{
    char resolved[PATH_MAX];
    if (!::realpath(FileNameToBytes(path).constData(), resolved))
        return QString();
    return FileNameFromBytes(QByteArrayView(resolved, qsizetype(std::strlen(resolved))));
}

int ListFolders()
{
    for (const QString &folder : std::as_const(BUAppController::sharedInstance().backupFolders())) {
        if (_IsFolder(folder))
            PrintLine(stdout, folder);
        else
            PrintLine(stdout, folder + QStringLiteral("\t(missing)"));
    }
    return kExitOk;
}

int AddFolders(const QStringList &paths)
{
    if (paths.isEmpty()) {
        PrintError(QStringLiteral("folders add needs at least one folder"));
        return kExitUsage;
    }
    int status = kExitOk;
    QStringList accepted;
    for (const QString &path : paths) {
        if (!_IsFolder(path)) {
            PrintError(
                QStringLiteral("Can't add a backup folder."), QStringLiteral("\"%1\" is not a folder.").arg(path));
            status = kExitFailed;
            continue;
        }
        // Like the folder chooser: links resolved, the real folder is what gets backed up.
        const QString canonical = _CanonicalPath(path);
        if (canonical == u"/") {
            PrintError(QStringLiteral("Can't add a backup folder."),
                QStringLiteral("The root folder has no name to mirror on the backup device."));
            status = kExitFailed;
            continue;
        }
        accepted.append(canonical);
    }
    const QList<BUAlertText> refusals = BUAppController::sharedInstance().addBackupFolders(accepted);
    for (const BUAlertText &refusal : refusals) {
        PrintError(refusal.message, refusal.moreInfo);
        status = kExitFailed;
    }
    return status;
}

int RemoveFolder(const QStringList &args)
{
    if (args.size() != 1) {
        PrintError(QStringLiteral("folders remove needs one folder name or path"));
        return kExitUsage;
    }
    QStringList &folders = BUAppController::sharedInstance().backupFolders();
    const QString wanted = args.front();
    const QString asPath = wanted.startsWith(u'/') ? QDir::cleanPath(wanted) : QString();
    for (qsizetype i = 0; i < folders.size(); ++i) {
        if (folders[i] == asPath || CaseInsensitiveCompare(LastPathComponent(folders[i]), wanted) == KSOrderedSame) {
            folders.removeAt(i);
            return kExitOk;
        }
    }
    PrintError(QStringLiteral("There is no backup folder \"%1\".").arg(wanted));
    return kExitFailed;
}

} // namespace

int RunFoldersCommand(const BUCommandArgs &invocation)
{
    const QStringList &args = invocation.args;
    if (args.isEmpty())
        return ListFolders();
    if (args.front() == u"add")
        return AddFolders(args.sliced(1));
    if (args.front() == u"remove")
        return RemoveFolder(args.sliced(1));
    PrintError(QStringLiteral("unknown folders command \"%1\"; try tanner-backup --help").arg(args.front()));
    return kExitUsage;
}
