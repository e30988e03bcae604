#include "backup/BUDevices.h"

#include "keelson/KSDayIndex.h"
#include "keelson/KSStrings.h"

#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QTime>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// mountinfo writes space, tab, line feed and backslash as "\ooo".
QByteArray _UnescapeMountField(QByteArrayView field)
{
    QByteArray out;
    out.reserve(field.size());
    for (qsizetype i = 0; i < field.size(); ++i) {
        const char c = field[i];
        if (c == '\\' && i + 3 < field.size()) {
            const char a = field[i + 1], b = field[i + 2], d = field[i + 3];
            if (a >= '0' && a <= '3' && b >= '0' && b <= '7' && d >= '0' && d <= '7') {
                out.append(char((a - '0') * 64 + (b - '0') * 8 + (d - '0')));
                i += 3;
                continue;
            }
        }
        out.append(c);
    }
    return out;
}

bool _HasOption(QByteArrayView options, QByteArrayView wanted)
{
    qsizetype start = 0;
    while (start <= options.size()) {
        qsizetype end = options.indexOf(',', start);
        if (end < 0)
            end = options.size();
        if (options.sliced(start, end - start) == wanted)
            return true;
        start = end + 1;
    }
    return false;
}

QByteArray _ReadWholeFile(const char *path)
{
    QByteArray data;
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return data;
    char buffer[16384];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            break;
        data.append(buffer, qsizetype(count));
    }
    ::close(fd);
    return data;
}

QString _UserName()
{
    const QString user = qEnvironmentVariable("USER");
    if (!user.isEmpty())
        return user;
    if (const passwd *entry = ::getpwuid(::geteuid()))
        return FileNameFromBytes(QByteArrayView(entry->pw_name));
    return QString();
}

// Reads the attributes that decide whether a mounted folder can take a backup. False when they
// cannot be read.
bool _IsWritableDeviceRoot(const QByteArray &path)
{
    struct statx status = {};
    if (::statx(AT_FDCWD, path.constData(), AT_NO_AUTOMOUNT, STATX_TYPE, &status) != 0)
        return false;
    if (status.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND))
        return false;
    return ::access(path.constData(), W_OK) == 0;
}

} // namespace

QString VolumesRoot()
{
    QString root = qEnvironmentVariable("TANNER_VOLUMES_ROOT");
    if (root.isEmpty()) {
        const QString user = _UserName();
        const QString runMedia = QStringLiteral("/run/media/") + user;
        root = QFileInfo(runMedia).isDir() ? runMedia : QStringLiteral("/media/") + user;
    }
    root = QDir::cleanPath(QDir::isAbsolutePath(root) ? root : QDir::current().absoluteFilePath(root));
    const QString canonical = QFileInfo(root).canonicalFilePath();
    return canonical.isEmpty() ? root : canonical;
}

QString DeviceRootPath(const QString &name)
{
    const QString root = VolumesRoot();
    return root == u"/" ? root + name : root + u'/' + name;
}

QList<BUMountEntry> ParseMountInfo(QByteArrayView text)
{
    QList<BUMountEntry> entries;
    qsizetype lineStart = 0;
    while (lineStart < text.size()) {
        qsizetype lineEnd = text.indexOf('\n', lineStart);
        if (lineEnd < 0)
            lineEnd = text.size();
        const QByteArrayView line = text.sliced(lineStart, lineEnd - lineStart);
        lineStart = lineEnd + 1;

        QList<QByteArrayView> fields;
        qsizetype start = 0;
        while (start < line.size()) {
            qsizetype end = line.indexOf(' ', start);
            if (end < 0)
                end = line.size();
            if (end > start)
                fields.append(line.sliced(start, end - start));
            start = end + 1;
        }
        // id parent major:minor root mount-point options [optional...] - type source super-options
        const qsizetype separator = fields.indexOf(QByteArrayView("-"), 6);
        if (fields.size() < 6 || separator < 0 || separator + 2 >= fields.size())
            continue;
        BUMountEntry entry;
        entry.mountPoint = FileNameFromBytes(_UnescapeMountField(fields[4]));
        entry.fileSystemType = FileNameFromBytes(_UnescapeMountField(fields[separator + 1]));
        entry.source = FileNameFromBytes(_UnescapeMountField(fields[separator + 2]));
        const bool superReadOnly = separator + 3 < fields.size() && _HasOption(fields[separator + 3], "ro");
        entry.readOnly = _HasOption(fields[5], "ro") || superReadOnly;
        entry.wholeFileSystem = fields[3] == QByteArrayView("/");
        entries.append(entry);
    }
    return entries;
}

QList<BUMountEntry> ReadMountTable()
{
    return ParseMountInfo(_ReadWholeFile("/proc/self/mountinfo"));
}

std::optional<BUMountEntry> MountEntryForDevice(const QString &name)
{
    const QString path = DeviceRootPath(name);
    const QList<BUMountEntry> table = ReadMountTable();
    // A later mount on the same point hides the earlier ones.
    for (auto it = table.crbegin(); it != table.crend(); ++it) {
        if (it->mountPoint == path)
            return *it;
    }
    return std::nullopt;
}

QStringList MountedDrives()
{
    const QString root = VolumesRoot();
    const QString prefix = root == u"/" ? root : root + u'/';
    const QList<BUMountEntry> table = ReadMountTable();

    QStringList names;
    QList<bool> readOnly;
    for (const BUMountEntry &entry : table) {
        if (entry.mountPoint == u"/" || !entry.mountPoint.startsWith(prefix))
            continue;
        const QString name = entry.mountPoint.mid(prefix.size());
        if (name.isEmpty() || name.contains(u'/'))
            continue;
        // Stacked mounts: the last one is the one in sight.
        const qsizetype known = names.indexOf(name);
        if (known >= 0)
            readOnly[known] = entry.readOnly;
        else {
            names.append(name);
            readOnly.append(entry.readOnly);
        }
    }

    QStringList drives;
    for (qsizetype i = 0; i < names.size(); ++i) {
        if (readOnly[i] || names[i].startsWith(u'.'))
            continue;
        if (!_IsWritableDeviceRoot(FileNameToBytes(prefix + names[i])))
            continue;
        drives.append(names[i]);
    }
    std::sort(drives.begin(), drives.end(),
        [](const QString &a, const QString &b) { return CaseInsensitiveCompare(a, b) == KSOrderedAscending; });
    return drives;
}

bool Is24HourTime()
{
    const QLocale locale;
    const QString text = locale.toString(QTime::currentTime(), QLocale::ShortFormat);
    const QString am = locale.amText(), pm = locale.pmText();
    const bool hasAm = !am.isEmpty() && text.contains(am);
    const bool hasPm = !pm.isEmpty() && text.contains(pm);
    return !hasAm && !hasPm;
}

QString LastBackupText(const QMap<QString, qint64> &backupDates, const QMap<QString, qint64> &backupTimes,
    const QString &name, bool is24Hour)
{
    const auto date = backupDates.constFind(name);
    if (date == backupDates.cend())
        return QString();
    const int day = int(date.value());
    const int today = DayIndexForToday();
    if (day == AddToDayIndex(today, 0, -1))
        return QStringLiteral("Yesterday");
    if (day == today) {
        const auto time = backupTimes.constFind(name);
        if (time == backupTimes.cend())
            return QStringLiteral("Today");
        return FormatVellumaTime(unsigned(time.value()), is24Hour ? kTimeStyle24Hour : kTimeStyle12Hour, false);
    }
    return FormatDayIndex(day, false);
}
