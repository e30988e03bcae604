#include "help/window/KSHelpPackageCopy.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

bool _CopyFolder(const QString &source, const QString &target, QString *reason)
{
    if (!QDir().mkdir(target)) {
        *reason = QStringLiteral("the folder \"%1\" can't be created").arg(target);
        return false;
    }
    QDir folder(source);
    const QFileInfoList entries
        = folder.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo &entry : entries) {
        const QString to = target + u'/' + entry.fileName();
        if (entry.isSymLink()) {
            if (!QFile::link(entry.symLinkTarget(), to)) {
                *reason = QStringLiteral("the link \"%1\" can't be copied").arg(entry.filePath());
                return false;
            }
        } else if (entry.isDir()) {
            if (!_CopyFolder(entry.filePath(), to, reason))
                return false;
        } else {
            QFile file(entry.filePath());
            if (!file.copy(to)) {
                *reason = QStringLiteral("\"%1\" can't be copied: %2").arg(entry.filePath(), file.errorString());
                return false;
            }
        }
    }
    return true;
}

} // namespace

QString KSUniqueNameInFolder(const QString &folder, const QString &base, const QString &extension)
{
    const QString suffix = extension.isEmpty() ? QString() : u'.' + extension;
    QString path = folder + u'/' + base + suffix;
    for (int n = 2; QFileInfo::exists(path) || QFileInfo(path).isSymLink(); ++n)
        path = folder + u'/' + base + u' ' + QString::number(n) + suffix;
    return path;
}

bool KSCopyPackage(const QString &source, const QString &target, QString *reason)
{
    QString why;
    if (!QFileInfo(source).isDir()) {
        why = QStringLiteral("the help package \"%1\" is missing").arg(source);
    } else if (QFileInfo::exists(target)) {
        why = QStringLiteral("\"%1\" already exists").arg(target);
    } else if (_CopyFolder(source, target, &why)) {
        return true;
    } else {
        QDir(target).removeRecursively();
    }
    if (reason)
        *reason = why;
    return false;
}
