#include "backup/BUBackupFolderChecks.h"

#include "keelson/KSStrings.h"

#include <QDir>
#include <QFile>

namespace {

// Undoes the octal escapes (\040 for a space) of a field of fstab or mountinfo.
QByteArray _Unescaped(const QByteArray &field)
{
    QByteArray out;
    out.reserve(field.size());
    for (qsizetype i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            bool ok = false;
            const int code = field.mid(i + 1, 3).toInt(&ok, 8);
            if (ok && code > 0 && code < 256) {
                out.append(char(code));
                i += 3;
                continue;
            }
        }
        out.append(field[i]);
    }
    return out;
}

QByteArray _ReadSmallFile(const char *path)
{
    QFile file(QString::fromLatin1(path));
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.read(4 << 20);
}

QString _Clean(const QString &path)
{
    const QString clean = QDir::cleanPath(path);
    return clean.size() > 1 && clean.endsWith(u'/') ? clean.chopped(1) : clean;
}

} // namespace

QStringList FstabMountPoints(const QByteArray &fstab)
{
    QStringList points;
    for (const QByteArray &line : fstab.split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() < 2 || fields[0].startsWith('#') || fields[0].isEmpty())
            continue;
        const QByteArray point = _Unescaped(fields[1]);
        if (!point.startsWith('/') || (fields.size() > 2 && fields[2] == "swap"))
            continue;
        points.append(_Clean(FileNameFromBytes(point)));
    }
    return points;
}

bool IsMountPoint(const QString &path)
{
    const QString wanted = _Clean(path);
    // Each line: ID PARENT MAJOR:MINOR ROOT MOUNTPOINT ...
    for (const QByteArray &line : _ReadSmallFile("/proc/self/mountinfo").split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() > 4 && _Clean(FileNameFromBytes(_Unescaped(fields[4]))) == wanted)
            return true;
    }
    return false;
}

QString UnmountedBackupFolder(const QStringList &backupFolders)
{
    const QStringList points = FstabMountPoints(_ReadSmallFile("/etc/fstab"));
    if (points.isEmpty())
        return QString();
    for (const QString &folder : backupFolders) {
        if (points.contains(_Clean(folder)) && !IsMountPoint(folder))
            return folder;
    }
    return QString();
}
