#include "keelson/KSUserDefaults.h"

#include "keelson/KSLog.h"
#include "keelson/KSStrings.h"

#include <QAtomicInteger>
#include <QDir>
#include <QMutex>
#include <QSet>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

QByteArray Bytes(const QString &path)
{
    return FileNameToBytes(path);
}

QString Reason(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Whether QFile (and so QSettings) reaches the file by this path: it encodes names as UTF-8.
bool ReachableByQt(const QString &path)
{
    return Bytes(path) == path.toUtf8();
}

// Each problem with a settings file is logged once a process, not at every read.
void LogOnce(const QString &path, const QString &line)
{
    static QMutex mutex;
    static QSet<QString> logged;
    QMutexLocker locker(&mutex);
    if (!logged.contains(path + line)) {
        logged.insert(path + line);
        LogString("%@", line);
    }
}

bool WriteAll(int fd, const QByteArray &data)
{
    qsizetype done = 0;
    while (done < data.size()) {
        const ssize_t n = ::write(fd, data.constData() + done, std::size_t(data.size() - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += n;
    }
    return true;
}

// Reads at most `limit` + 1 bytes, so that a larger file is seen to be one.
bool ReadAll(int fd, qint64 limit, QByteArray *out)
{
    out->clear();
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        out->append(buffer, n);
        if (out->size() > limit)
            return true;
    }
}

// Settings that are read from a text and can never be saved: parsed by the settings reader from
// a private memory file, then held as values of a settings object whose file cannot exist (a
// folder below /proc/self/fd/-1 can be made by nobody, root included).
std::unique_ptr<QSettings> DetachedSettings(const QByteArray &text)
{
    static QAtomicInteger<quint64> counter;
    const quint64 serial = ++counter;
    auto detached = std::make_unique<QSettings>(
        QStringLiteral("/proc/self/fd/-1/%1/settings.conf").arg(serial), QSettings::IniFormat);
    if (text.isEmpty())
        return detached;
    const int fd = ::memfd_create("settings", MFD_CLOEXEC);
    if (fd < 0 || !WriteAll(fd, text)) {
        if (fd >= 0)
            ::close(fd);
        return detached;
    }
    // The reader keeps what it parsed by path, size and time: a time of its own for each copy
    // makes it parse this one rather than an earlier copy that had the same descriptor.
    const struct timespec times[2] = {{0, UTIME_OMIT}, {time_t(86400 + serial), 0}};
    ::futimens(fd, times);
    {
        QSettings parsed(QStringLiteral("/proc/self/fd/%1").arg(fd), QSettings::IniFormat);
        for (const QString &key : parsed.allKeys())
            detached->setValue(key, parsed.value(key));
    }
    ::close(fd);
    return detached;
}

// The part of the last line worth keeping when the text stops in it: the elements of a list
// before the last separator outside quotes, else nothing.
QByteArray TrustedLastLine(const QByteArray &line)
{
    const qsizetype equals = line.indexOf('=');
    if (equals <= 0 || line.trimmed().startsWith('['))
        return {};
    qsizetype lastComma = -1;
    bool quoted = false;
    for (qsizetype i = equals + 1; i < line.size(); ++i) {
        if (line[i] == '\\')
            ++i;
        else if (line[i] == '"')
            quoted = !quoted;
        else if (line[i] == ',' && !quoted)
            lastComma = i;
    }
    if (lastComma < 0)
        return {};
    return line.left(lastComma) + '\n';
}

// A name for a new file in the folder, made with O_EXCL so nothing is ever overwritten.
int CreateTemporary(int folder, const QByteArray &prefix, QByteArray *name, mode_t mode)
{
    static QAtomicInteger<quint32> counter;
    for (int attempt = 0; attempt < 100; ++attempt) {
        *name = prefix + '.' + QByteArray::number(::getpid()) + '.' + QByteArray::number(++counter);
        const int fd = ::openat(folder, name->constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
        if (fd >= 0 || errno != EEXIST)
            return fd;
    }
    return -1;
}

bool MakeFolders(const QByteArray &path)
{
    for (qsizetype slash = path.indexOf('/', 1);; slash = path.indexOf('/', slash + 1)) {
        const QByteArray part = slash < 0 ? path : path.left(slash);
        if (::mkdir(part.constData(), 0700) != 0 && errno != EEXIST)
            return false;
        if (slash < 0)
            return true;
    }
}

// Gives a file made by a root run the owner of the folder it is in, or of the file it replaces.
void KeepOwner(int fd, const struct stat &owner)
{
    if (::geteuid() == 0 && (owner.st_uid != 0 || owner.st_gid != 0))
        (void)::fchown(fd, owner.st_uid, owner.st_gid);
}

} // namespace

QString SettingsFolder()
{
    // A relative path is invalid and ignored, as the XDG base directory rules have it.
    QByteArray base = qgetenv("XDG_CONFIG_HOME");
    if (!base.startsWith('/')) {
        QByteArray home = qgetenv("HOME");
        if (!home.startsWith('/'))
            home = FileNameToBytes(QDir::homePath());
        base = home + "/.config";
    }
    while (base.size() > 1 && base.endsWith('/'))
        base.chop(1);
    return FileNameFromBytes(base) + QStringLiteral("/Tannerwick");
}

QString UserDefaultsPath()
{
    return SettingsFolder() + QStringLiteral("/Tanner Backup.conf");
}

QString SharedDefaultsPath()
{
    return SettingsFolder() + QStringLiteral("/com.tannerwick.shared.conf");
}

KSSettingsFileText ReadSettingsFileText(const QString &path)
{
    KSSettingsFileText result;
    const QByteArray bytes = Bytes(path);
    struct stat status;
    // The type first, links followed: a FIFO or a device is never opened.
    if (::stat(bytes.constData(), &status) != 0) {
        if (errno == ENOENT) {
            struct stat link;
            if (::lstat(bytes.constData(), &link) == 0) { // a link to nothing
                result.state = KSSettingsFileText::NotRegular;
                result.problem = QStringLiteral("it is a link to nothing");
            }
            return result;
        }
        result.state = KSSettingsFileText::Unreadable;
        result.problem = Reason(errno);
        return result;
    }
    if (!S_ISREG(status.st_mode)) {
        result.state = KSSettingsFileText::NotRegular;
        result.problem = QStringLiteral("it is not a regular file");
        return result;
    }
    const int fd = ::open(bytes.constData(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
        result.state = errno == ENOENT ? KSSettingsFileText::Absent : KSSettingsFileText::Unreadable;
        result.problem = Reason(errno);
        return result;
    }
    // Checked again on what was opened: the name may have been given to something else meanwhile.
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        result.state = KSSettingsFileText::NotRegular;
        result.problem = QStringLiteral("it is not a regular file");
        return result;
    }
    const bool read = ReadAll(fd, kMaxSettingsFileSize, &result.text);
    const int error = errno;
    ::close(fd);
    if (!read) {
        result.state = KSSettingsFileText::Unreadable;
        result.problem = Reason(error);
        result.text.clear();
    } else if (result.text.size() > kMaxSettingsFileSize) {
        result.state = KSSettingsFileText::TooLarge;
        result.problem = QStringLiteral("it is larger than a settings file can be");
        result.text.clear();
    } else {
        result.state = KSSettingsFileText::Regular;
    }
    return result;
}

QByteArray TrustedSettingsText(const QByteArray &text)
{
    if (text.isEmpty() || text.endsWith('\n'))
        return text;
    const qsizetype lineStart = text.lastIndexOf('\n') + 1;
    return text.left(lineStart) + TrustedLastLine(text.mid(lineStart));
}

bool SettingsTextIsWhole(const QByteArray &text, const QString &path)
{
    if (text.isEmpty()) {
        LogString("The settings file %@ is empty.", path);
        return false;
    }
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 && c != '\n' && c != '\r' && c != '\t') { // the settings writer escapes these
            LogString("The settings file %@ is not text.", path);
            return false;
        }
    }
    // Every line the settings writer writes ends with a line end: a file without one was cut short.
    if (!text.endsWith('\n')) {
        LogString("The last line of the settings file %@ is cut short.", path);
        return false;
    }
    QByteArray line;
    QByteArray section = "General";
    QSet<QByteArray> sections, keys;
    int number = 0;
    for (const QByteArray &piece : text.split('\n')) {
        ++number;
        line += piece.endsWith('\r') ? piece.chopped(1) : piece;
        qsizetype backslashes = 0;
        while (backslashes < line.size() && line[line.size() - 1 - backslashes] == '\\')
            ++backslashes;
        if (backslashes % 2 == 1) { // continued on the next line
            line.chop(1);
            continue;
        }
        const QByteArray trimmed = std::exchange(line, QByteArray()).trimmed();
        if (trimmed.isEmpty() || trimmed.startsWith(';') || trimmed.startsWith('#'))
            continue;
        if (trimmed.startsWith('[')) {
            if (!trimmed.endsWith(']')) {
                LogString("Line %d of the settings file %@ opens a section without closing its name.", number, path);
                return false;
            }
            section = trimmed.mid(1, trimmed.size() - 2).trimmed();
            if (sections.contains(section)) {
                LogString("Line %d of the settings file %@ repeats a section.", number, path);
                return false;
            }
            sections.insert(section);
            continue;
        }
        const qsizetype equals = trimmed.indexOf('=');
        if (equals <= 0) {
            LogString("Line %d of the settings file %@ is not a setting.", number, path);
            return false;
        }
        const QByteArray key = section + '/' + trimmed.left(equals).trimmed();
        if (keys.contains(key)) {
            LogString("Line %d of the settings file %@ repeats a setting.", number, path);
            return false;
        }
        keys.insert(key);
        bool quoted = false;
        for (qsizetype i = equals + 1; i < trimmed.size(); ++i) {
            if (trimmed[i] == '\\')
                ++i;
            else if (trimmed[i] == '"')
                quoted = !quoted;
        }
        if (quoted) {
            LogString("Line %d of the settings file %@ opens a quote without closing it.", number, path);
            return false;
        }
    }
    return true;
}

QString KeepSettingsOriginal(const QString &path, const QByteArray &original)
{
    const QByteArray bytes = Bytes(path);
    struct stat folder;
    const qsizetype slash = bytes.lastIndexOf('/');
    const bool haveFolder = slash > 0 && ::stat(bytes.left(slash).constData(), &folder) == 0;
    for (int number = 1; number <= 1000; ++number) {
        const QString copy
            = path + QStringLiteral(".damaged") + (number == 1 ? QString() : FormatString("-%d", number));
        const int fd
            = ::open(Bytes(copy).constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, 0600);
        if (fd < 0) {
            if (errno != EEXIST)
                break;
            const KSSettingsFileText kept = ReadSettingsFileText(copy);
            if (kept.state == KSSettingsFileText::Regular && kept.text == original)
                return copy; // kept before
            continue;
        }
        const bool written = WriteAll(fd, original) && ::fsync(fd) == 0;
        if (haveFolder)
            KeepOwner(fd, folder);
        ::close(fd);
        if (written) {
            LogString("The settings file %@ is damaged; what could be read is used and the original is kept as %@.",
                path, copy);
            return copy;
        }
        ::unlink(Bytes(copy).constData());
        break;
    }
    LogString("The settings file %@ is damaged and can't be copied aside.", path);
    return {};
}

std::unique_ptr<QSettings> OpenSettingsFile(const QString &path)
{
    const KSSettingsFileText file = ReadSettingsFileText(path);
    if (!file.readable()) {
        LogOnce(path, FormatString("The settings file %@ is not used: %@.", path, file.problem));
        return DetachedSettings({});
    }
    if (file.state == KSSettingsFileText::Absent || file.text.isEmpty() || file.text.endsWith('\n')) {
        if (ReachableByQt(path))
            return std::make_unique<QSettings>(path, QSettings::IniFormat);
        return DetachedSettings(file.text);
    }
    return DetachedSettings(TrustedSettingsText(file.text));
}

namespace {

// An open folder, closed when it goes.
struct KSFolder {
    int fd = -1;
    explicit KSFolder(const QByteArray &path) : fd(::open(path.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) { }
    ~KSFolder()
    {
        if (fd >= 0)
            ::close(fd);
    }
    KSFolder(const KSFolder &) = delete;
    KSFolder &operator=(const KSFolder &) = delete;
};

QByteArray FolderOf(const QByteArray &path)
{
    const qsizetype slash = path.lastIndexOf('/');
    return slash <= 0 ? QByteArray("/") : path.left(slash);
}

// The file a change replaces: the settings file, or the regular file a link of that name leads to.
bool ChangeTarget(const QByteArray &path, QByteArray *target, QString *problem)
{
    *target = path;
    struct stat link;
    if (::lstat(path.constData(), &link) == 0 && S_ISLNK(link.st_mode)) {
        char resolved[PATH_MAX];
        if (!::realpath(path.constData(), resolved)) {
            *problem = QStringLiteral("it is a link to nothing");
            return false;
        }
        *target = resolved;
    }
    // Nothing is made beside a file that is not a regular one (a link to /dev/null leads to /dev).
    const KSSettingsFileText file = ReadSettingsFileText(FileNameFromBytes(*target));
    if (!file.readable()) {
        *problem = file.problem;
        return false;
    }
    return true;
}

} // namespace

std::unique_ptr<QSettings> ReadSettingsFile(const QString &path)
{
    const KSSettingsFileText file = ReadSettingsFileText(path);
    if (!file.readable())
        LogOnce(path, FormatString("The settings file %@ is not used: %@.", path, file.problem));
    return DetachedSettings(file.readable() ? TrustedSettingsText(file.text) : QByteArray());
}

bool ChangeSettingsFile(const QString &path, const KSSettingsChange &change, QString *error)
{
    auto fail = [&](const QString &why) {
        const QString message = FormatString("Can't save the settings to %@: %@.", path, why);
        LogString("%@", message);
        if (error)
            *error = message;
        return false;
    };
    const QByteArray bytes = Bytes(path);
    QByteArray target;
    QString problem;
    if (!ChangeTarget(bytes, &target, &problem))
        return fail(problem);
    if (!MakeFolders(FolderOf(bytes)) || !MakeFolders(FolderOf(target)))
        return fail(Reason(errno));

    // One writer at a time, by a lock file beside the settings file. Readers need no lock, since
    // the file is only ever replaced whole.
    const KSFolder home(FolderOf(bytes));
    if (home.fd < 0)
        return fail(Reason(errno));
    struct stat homeStatus;
    ::fstat(home.fd, &homeStatus);
    const QByteArray name = bytes.mid(bytes.lastIndexOf('/') + 1);
    const int lock = ::openat(
        home.fd, ('.' + name + ".lock").constData(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, 0600);
    if (lock < 0)
        return fail(Reason(errno));
    KeepOwner(lock, homeStatus);
    while (::flock(lock, LOCK_EX) != 0 && errno == EINTR) { }
    struct Unlock {
        int fd;
        ~Unlock() { ::close(fd); }
    } unlock {lock};

    // Under the lock, everything is found again: another process may have changed it all.
    if (!ChangeTarget(bytes, &target, &problem))
        return fail(problem);
    const KSFolder folder(FolderOf(target));
    if (folder.fd < 0)
        return fail(Reason(errno));
    struct stat folderStatus;
    ::fstat(folder.fd, &folderStatus);
    const QByteArray targetName = target.mid(target.lastIndexOf('/') + 1);
    const QString real = FileNameFromBytes(target);
    const KSSettingsFileText file = ReadSettingsFileText(real);
    if (!file.readable())
        return fail(file.problem);
    struct stat existing { };
    const bool existed
        = file.state == KSSettingsFileText::Regular && ::fstatat(folder.fd, targetName.constData(), &existing, 0) == 0;

    QByteArray temporary;
    const int fd = CreateTemporary(folder.fd, '.' + targetName, &temporary, 0600);
    if (fd < 0)
        return fail(Reason(errno));
    const bool copied = WriteAll(fd, TrustedSettingsText(file.text));
    ::close(fd);
    auto discard = [&] { ::unlinkat(folder.fd, temporary.constData(), 0); };
    if (!copied) {
        discard();
        return fail(Reason(errno));
    }

    // The settings reader and writer work on the copy, reached through the open folder so that
    // a folder whose name is not UTF-8 is reached as well.
    bool keepOriginal = false;
    {
        QSettings settings(
            QStringLiteral("/proc/self/fd/%1/").arg(folder.fd) + QString::fromUtf8(temporary), QSettings::IniFormat);
        if (settings.status() == QSettings::FormatError)
            keepOriginal = true;
        change(settings, keepOriginal);
        settings.sync();
        if (settings.status() == QSettings::AccessError) {
            discard();
            return fail(QStringLiteral("the new settings could not be written"));
        }
    }
    QByteArray written;
    const int check = ::openat(folder.fd, temporary.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (check < 0 || !ReadAll(check, kMaxSettingsFileSize, &written)) {
        if (check >= 0)
            ::close(check);
        discard();
        return fail(QStringLiteral("the new settings could not be read back"));
    }
    if (written == file.text || (!existed && written.isEmpty())) {
        ::close(check);
        discard(); // nothing changed: the file is left as it is
        return true;
    }
    if (existed && (keepOriginal || !SettingsTextIsWhole(file.text, real))
        && KeepSettingsOriginal(real, file.text).isEmpty()) {
        ::close(check);
        discard();
        return fail(QStringLiteral("the damaged original could not be kept aside"));
    }
    // The new file gets the old one's mode and owner, then its data reaches the disk before
    // the rename makes it the settings file.
    ::fchmod(check, existed ? (existing.st_mode & 07777) : 0600);
    KeepOwner(check, existed ? existing : folderStatus);
    const bool synced = ::fsync(check) == 0;
    ::close(check);
    if (!synced || ::renameat(folder.fd, temporary.constData(), folder.fd, targetName.constData()) != 0) {
        const int saved = errno;
        discard();
        return fail(Reason(saved));
    }
    return true;
}

bool SetSettingsValue(const QString &path, const QString &key, const QVariant &value)
{
    return ChangeSettingsFile(path, [&](QSettings &settings, bool &) { settings.setValue(key, value); });
}

bool RemoveSettingsValue(const QString &path, const QString &key)
{
    return ChangeSettingsFile(path, [&](QSettings &settings, bool &) { settings.remove(key); });
}

QVariantList ReadList(QSettings &settings, const QString &key)
{
    if (!settings.contains(key))
        return {};
    const QVariant value = settings.value(key);
    if (value.typeId() == QMetaType::QStringList || value.typeId() == QMetaType::QVariantList)
        return value.toList();
    return {value};
}

QStringList ReadStringList(QSettings &settings, const QString &key)
{
    QStringList list;
    for (const QVariant &element : ReadList(settings, key)) {
        if (element.typeId() == QMetaType::QString)
            list.append(element.toString());
        else
            LogString("Ignoring an element of the setting %@: it is not a text.", key);
    }
    return list;
}

QMap<QString, qint64> ReadIntegerDictionary(QSettings &settings, const QString &key, bool *present)
{
    QMap<QString, qint64> dictionary;
    if (present)
        *present = false;
    if (settings.contains(key)) {
        LogString("Ignoring the setting %@: it is not a group of entries.", key);
        return dictionary;
    }
    if (!settings.childGroups().contains(key))
        return dictionary;
    if (present)
        *present = true;
    settings.beginGroup(key);
    const QStringList names = settings.childKeys();
    for (const QString &name : names) {
        const QVariant value = settings.value(name);
        bool ok = false;
        const qint64 number
            = value.typeId() == QMetaType::QString ? value.toString().trimmed().toLongLong(&ok) : value.toLongLong(&ok);
        if (ok && value.typeId() != QMetaType::QStringList)
            dictionary.insert(name, number);
        else
            LogString("Ignoring the entry %@ of the setting %@: it is not a number.", name, key);
    }
    settings.endGroup();
    return dictionary;
}

void WriteList(QSettings &settings, const QString &key, const QVariantList &list)
{
    if (list.isEmpty())
        settings.remove(key);
    else if (list.size() == 1)
        settings.setValue(key, list.front()); // a list of one is written as a binary value otherwise
    else
        settings.setValue(key, list);
}

void WriteStringList(QSettings &settings, const QString &key, const QStringList &list)
{
    if (list.isEmpty())
        settings.remove(key);
    else
        settings.setValue(key, list);
}

void WriteIntegerDictionary(QSettings &settings, const QString &key, const QMap<QString, qint64> &dictionary)
{
    settings.remove(key);
    if (dictionary.isEmpty())
        return;
    settings.beginGroup(key);
    for (auto it = dictionary.begin(); it != dictionary.end(); ++it)
        settings.setValue(it.key(), it.value());
    settings.endGroup();
}

bool DefaultYesBool(QSettings &settings, const QString &key)
{
    if (!settings.contains(key))
        return true;
    const QString text = settings.value(key).toString().trimmed().toLower();
    if (text == u"false" || text == u"0" || text == u"no")
        return false;
    if (text != u"true" && text != u"1" && text != u"yes")
        LogString("Ignoring the setting %@: it is not a yes or no.", key);
    return true;
}
