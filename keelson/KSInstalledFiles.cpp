#include "keelson/KSInstalledFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

QString InstalledFilePath(const QString &name, const QString &programFolder)
{
    const QString folder = programFolder.isEmpty() ? QCoreApplication::applicationDirPath() : programFolder;
    for (const QString &candidate :
        {folder + u'/' + name, folder + QStringLiteral("/../share/tanner-backup/") + name}) {
        if (QFileInfo::exists(candidate))
            return QDir::cleanPath(candidate);
    }
    return {};
}

QString HelpPackagePath()
{
    return InstalledFilePath(QStringLiteral("Help.TWwrite"));
}
