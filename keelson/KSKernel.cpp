#include "keelson/KSKernel.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QStorageInfo>

uint32_t g_systemVersion = 0;
QString g_systemVersionString;
QString g_appVersionString;
QString g_appName;
QString g_bundleID;
QString g_bootVolumeName;
QCalendar g_calendar(QCalendar::System::Gregorian);
bool g_advancedUser = false;
bool g_darkMode = false;

KSKernel &KSKernel::sharedInstance()
{
    static KSKernel kernel;
    return kernel;
}

uint32_t KSKernel::PackVersion(const QString &text)
{
    const QStringList parts = text.trimmed().split(u'.');
    uint32_t packed = 0;
    const int shifts[3] = {16, 8, 0};
    for (int i = 0; i < 3 && i < parts.size(); ++i) {
        bool ok = false;
        const uint32_t value = parts[i].toUInt(&ok);
        if (!ok)
            break;
        packed += value << shifts[i];
    }
    return packed;
}

QString KSKernel::VersionIdFromOsRelease(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (!line.startsWith(u"VERSION_ID="))
            continue;
        QString value = line.sliced(11);
        if (value.size() >= 2 && (value.front() == u'"' || value.front() == u'\'') && value.back() == value.front())
            value = value.sliced(1, value.size() - 2);
        return value;
    }
    return {};
}

QString KSKernel::ApplicationSupportFolder()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (folder.isEmpty() || !QDir().mkpath(folder))
        return {};
    return folder;
}

KSKernel::KSKernel()
{
    // System version: Linux has no SystemVersion.plist; os-release's VERSION_ID plays its part.
    g_systemVersionString = VersionIdFromOsRelease(QStringLiteral("/etc/os-release"));
    g_systemVersion = PackVersion(g_systemVersionString);
    if (g_systemVersion == 0) {
        g_systemVersion = 657920;
        g_systemVersionString = QStringLiteral("Unknown");
    }

    g_appName = QStringLiteral("Tanner Backup");
    g_appVersionString = QStringLiteral(TANNER_VERSION_STRING);
    g_bundleID = QStringLiteral("com.tannerwick.backup");
    const QStorageInfo root = QStorageInfo::root();
    g_bootVolumeName = root.displayName();

    // Only the data folder itself is created, never the "Tannerwick" folder or the flag file.
    const QString support = ApplicationSupportFolder();
    g_advancedUser
        = !support.isEmpty() && QFileInfo::exists(support + QStringLiteral("/Tannerwick/Tannerwick Advanced User"));

    // The window half of the kernel (keelson/gui) adds the appearance, the fonts and the
    // context-help request once a QApplication exists; the engine needs none of them.
}
