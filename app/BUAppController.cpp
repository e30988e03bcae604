#include "app/BUAppController.h"

#include "backup/BUDeviceWatcher.h"
#include "backup/BUDevices.h"
#include "backup/BURunHistory.h"
#include "help/VLHelpEngine.h"
#include "keelson/FormatString.h"
#include "keelson/KSDayIndex.h"
#include "keelson/KSKernel.h"
#include "keelson/KSLog.h"
#include "keelson/KSLogger.h"
#include "keelson/KSStrings.h"
#include "keelson/KSUserDefaults.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <utility>

namespace {

const QString kFoldersKey = QStringLiteral("twbackup.folders");
const QString kIgnoreFilesKey = QStringLiteral("twbackup.ignoreFiles");
const QString kIgnoreFoldersKey = QStringLiteral("twbackup.ignoreFolders");
const QString kRecentKey = QStringLiteral("twbackup.recent");
const QString kDatesKey = QStringLiteral("twbackup.dates");
const QString kTimesKey = QStringLiteral("twbackup.times");

} // namespace

bool CompareFolders(const QString &a, const QString &b)
{
    return CaseInsensitiveCompare(LastPathComponent(a), LastPathComponent(b)) == KSOrderedAscending;
}

void PurgeBackupDates(QMap<QString, qint64> &dates, QMap<QString, qint64> &times, int today)
{
    const int cutoff = AddToDayIndex(today, -1, 0); // the same calendar day a year ago
    const QStringList names = dates.keys();
    for (const QString &name : names) {
        if (dates.value(name) <= cutoff) {
            dates.remove(name);
            times.remove(name);
        }
    }
}

BUAppController &BUAppController::sharedInstance()
{
    static BUAppController controller;
    return controller;
}

void BUAppController::applicationWillFinishLaunching()
{
    KSKernel::sharedInstance();
    KSLogger::install(); // from here on LogString writes the application's own log file
    KSLogger::sharedInstance().ownRecordsHook = [] { return BURunHistory::reportSection(); };
}

void BUAppController::installRules(const QStringList &archives, BURuleList &into, const QString &key)
{
    for (const QString &archive : archives) {
        if (archive.size() < 2) {
            LogString("Ignoring the rule \"%@\" of the setting %@: it is too short.", archive, key);
            continue;
        }
        into.append(BUIgnoreRule(archive));
    }
}

namespace {

// A folder path as the settings keep it: text, or where its name is not UTF-8 its bytes, which the
// file shows as @ByteArray(...) with the odd bytes escaped; text would lose them.
QVariant _StoredFolder(const QString &path)
{
    const QByteArray bytes = FileNameToBytes(path);
    if (QString::fromUtf8(bytes) == path)
        return path;
    return bytes;
}

// The elements of a list setting as the file holds them, each decoded as a file name: a folder
// list edited by hand may hold a path's raw bytes, which the settings reader turns into U+FFFD.
QStringList _RawListElements(const QString &settingsPath, const QString &key)
{
    QFile file(settingsPath);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    const QByteArray prefix = key.toUtf8() + '=';
    for (QByteArray line : file.readAll().split('\n')) {
        line = line.trimmed();
        if (!line.startsWith(prefix))
            continue;
        QStringList elements;
        QByteArray current;
        bool quoted = false;
        const QByteArray value = line.mid(prefix.size());
        for (qsizetype i = 0; i < value.size(); ++i) {
            const char c = value[i];
            if (c == '"') {
                quoted = !quoted;
            } else if (c == '\\' && i + 1 < value.size()) {
                current += value[++i];
            } else if (c == ',' && !quoted) {
                elements.append(FileNameFromBytes(current.trimmed()));
                current.clear();
            } else {
                current += c;
            }
        }
        elements.append(FileNameFromBytes(current.trimmed()));
        return elements;
    }
    return {};
}

// The elements a list setting holds, empty ones (a trailing comma) not counted.
int _StoredElements(QSettings &settings, const QString &key)
{
    int count = 0;
    for (const QVariant &element : ReadList(settings, key)) {
        if (!(element.typeId() == QMetaType::QString && element.toString().isEmpty()))
            ++count;
    }
    return count;
}

// The entries a dictionary setting holds; a plain value where the group belongs counts as one.
int _StoredEntries(QSettings &settings, const QString &key)
{
    if (settings.contains(key))
        return 1;
    if (!settings.childGroups().contains(key))
        return 0;
    settings.beginGroup(key);
    const int count = int(settings.childKeys().size());
    settings.endGroup();
    return count;
}

// Whether the text of a settings file can be a whole file of settings; where it cannot, logs why.
// What a person may change by hand without losing anything does not count: the order of the keys,
// spaces, blank lines, comments, quotes around a value.
bool _TextIsWhole(const QByteArray &text, const QString &path)
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
    // Every line this program writes ends with a line end: a file without one was cut short.
    if (!text.endsWith('\n')) {
        LogString("The last line of the settings file %@ is cut short.", path);
        return false;
    }
    QByteArray line;
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
            if (trimmed.endsWith(']'))
                continue;
            LogString("Line %d of the settings file %@ opens a section without closing its name.", number, path);
            return false;
        }
        const qsizetype equals = trimmed.indexOf('=');
        if (equals <= 0) {
            LogString("Line %d of the settings file %@ is not a setting.", number, path);
            return false;
        }
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

} // namespace

int BUAppController::loadFolders(const QVariantList &stored)
{
    // On Linux a folder is stored as its path; there is no bookmark to resolve. A path that no
    // longer exists stays in the list: the analysis reports it, and the user decides.
    QStringList raw; // read only when a path lost bytes
    int unrecovered = 0;
    for (qsizetype i = 0; i < stored.size(); ++i) {
        const QVariant &element = stored[i];
        QString path;
        if (element.typeId() == QMetaType::QByteArray) {
            path = FileNameFromBytes(element.toByteArray());
        } else if (element.typeId() == QMetaType::QString) {
            path = element.toString();
            if (path.contains(QChar::ReplacementCharacter)) {
                if (raw.isEmpty())
                    raw = _RawListElements(m_settingsPath, kFoldersKey);
                if (raw.size() == stored.size())
                    path = raw[i];
                else
                    ++unrecovered;
            }
        } else {
            LogString(
                "Can't restore backup folder %@: %@", element.toString(), QStringLiteral("It is not a folder path."));
            continue;
        }
        if (!path.startsWith(u'/')) {
            LogString("Can't restore backup folder %@: %@", path, QStringLiteral("It is not an absolute path."));
            continue;
        }
        m_backupFolders.append(QDir::cleanPath(path));
    }
    return unrecovered;
}

void BUAppController::saveFolders(QSettings &settings) const
{
    if (m_backupFolders.isEmpty()) {
        settings.remove(kFoldersKey);
        return;
    }
    QVariantList stored;
    for (const QString &folder : m_backupFolders)
        stored.append(_StoredFolder(folder));
    settings.setValue(kFoldersKey, stored);
}

void BUAppController::applicationDidFinishLaunching()
{
    // 1. Empty containers.
    m_backupFolders.clear();
    m_ignoreFiles.clear();
    m_ignoreFolders.clear();
    m_mountedRecentDrives.clear();
    m_recentDrives.clear();
    m_otherDrives.clear();
    m_backupDates.clear();
    m_backupTimes.clear();
    // The process-wide transaction and error lists belong to the engine and start empty there.

    m_settingsPath = UserDefaultsPath();
    QByteArray original;
    bool existed = false;
    {
        QFile file(m_settingsPath);
        existed = file.open(QIODevice::ReadOnly);
        if (existed)
            original = file.readAll();
    }
    auto settings = OpenSettingsFile(m_settingsPath);
    switch (settings->status()) {
    case QSettings::NoError:
        break;
    case QSettings::AccessError:
        m_keepStoredFile = QFileInfo::exists(m_settingsPath);
        LogString("Can't read the settings file %@; it will not be overwritten.", m_settingsPath);
        break;
    case QSettings::FormatError:
        break; // what can be read is used; the original is kept aside below
    }

    // 2-4. Recent devices, folders, rules, each in their stored order.
    m_recentDrives = ReadStringList(*settings, kRecentKey);
    m_recentDrives.removeAll(QString());
    int lost = loadFolders(ReadList(*settings, kFoldersKey));
    installRules(ReadStringList(*settings, kIgnoreFilesKey), m_ignoreFiles, kIgnoreFilesKey);
    installRules(ReadStringList(*settings, kIgnoreFoldersKey), m_ignoreFolders, kIgnoreFoldersKey);

    // 5-6. Times, then dates with the purge of entries a year old or older.
    m_backupTimes = ReadIntegerDictionary(*settings, kTimesKey);
    for (auto it = m_backupTimes.begin(); it != m_backupTimes.end();) {
        if (it.value() < 0 || it.value() > 0xFFFFFFFFLL) {
            LogString("Ignoring the entry %@ of the setting %@: it is not a time of day.", it.key(), kTimesKey);
            it = m_backupTimes.erase(it);
        } else {
            ++it;
        }
    }
    bool datesPresent = false;
    m_backupDates = ReadIntegerDictionary(*settings, kDatesKey, &datesPresent);
    if (existed && !m_keepStoredFile) {
        // Whatever a reader above could not use was logged and left out: it is lost unless the
        // original is kept.
        lost += _StoredElements(*settings, kRecentKey) - int(m_recentDrives.size());
        lost += _StoredElements(*settings, kFoldersKey) - int(m_backupFolders.size());
        lost += _StoredElements(*settings, kIgnoreFilesKey) - int(m_ignoreFiles.size());
        lost += _StoredElements(*settings, kIgnoreFoldersKey) - int(m_ignoreFolders.size());
        lost += _StoredEntries(*settings, kTimesKey) - int(m_backupTimes.size());
        lost += _StoredEntries(*settings, kDatesKey) - int(m_backupDates.size());
        keepDamagedOriginal(original, lost);
    }
    if (datesPresent) {
        PurgeBackupDates(m_backupDates, m_backupTimes, DayIndexForToday());
    }

    // 7. Process-wide resources: the engine's attribute list is built by the engine itself; the
    //    folder image and the alert colour belong to the window and are made there.
    // 8. The help engine: its vocabulary and the preferences document. When it fails, help cannot
    //    be read, and opening it says so; the backup goes on without it.
    VLSetUpHelpEngine();
    // 9. Mount and unmount notifications, then the device lists. Without an application object
    //    there is no event loop to deliver the notifications, so the lists are only built.
    if (!m_deviceWatcher && QCoreApplication::instance()) {
        m_deviceWatcher = new BUDeviceWatcher(QCoreApplication::instance());
        QObject::connect(m_deviceWatcher, &BUDeviceWatcher::mountsChanged, m_deviceWatcher,
            [] { BUAppController::sharedInstance().updateDrives(); });
    }
    updateDrives();

    m_loaded = true;

    // 10. First-run defaults, also when the user emptied all three lists.
    if (m_backupFolders.isEmpty() && m_ignoreFiles.isEmpty() && m_ignoreFolders.isEmpty()) {
        if (firstRunDefaultsHook)
            firstRunDefaultsHook();
        else
            addDefaults();
    }
    // 11. The main window comes to the front here.
    // 12. The automatic update and news checks.
    if (startAutoChecksHook)
        startAutoChecksHook();
}

void BUAppController::saveRules(QSettings &settings, const BURuleList &rules, const QString &key)
{
    QStringList archives;
    archives.reserve(rules.size());
    for (const BUIgnoreRule &rule : rules)
        archives.append(rule.archive());
    WriteStringList(settings, key, archives);
}

void BUAppController::writeState(QSettings &settings)
{
    saveFolders(settings);
    saveRules(settings, m_ignoreFiles, kIgnoreFilesKey);
    saveRules(settings, m_ignoreFolders, kIgnoreFoldersKey);
    WriteStringList(settings, kRecentKey, m_recentDrives);
    WriteIntegerDictionary(settings, kDatesKey, m_backupDates);
    WriteIntegerDictionary(settings, kTimesKey, m_backupTimes);
}

void BUAppController::keepDamagedOriginal(const QByteArray &original, int lost)
{
    // The readers logged each value they left out. The reader's own format error is not asked:
    // it takes a comment that begins with "#" for one.
    if (lost <= 0 && _TextIsWhole(original, m_settingsPath))
        return;
    const QString copy = m_settingsPath + QStringLiteral(".damaged");
    QFile::remove(copy);
    if (QFile::copy(m_settingsPath, copy)) {
        LogString("The settings file %@ is damaged; what could be read is used and the original is kept as %@.",
            m_settingsPath, copy);
    } else {
        LogString(
            "The settings file %@ is damaged and can't be copied aside; it will not be overwritten.", m_settingsPath);
        m_keepStoredFile = true;
    }
}

bool BUAppController::applicationWillTerminate()
{
    m_saveError.clear();
    if (!m_loaded)
        return true; // nothing was loaded, so there is nothing of the user's to write
    if (m_keepStoredFile) {
        m_saveError
            = FormatString("The settings file %@ could not be read, so it was not overwritten.", m_settingsPath);
        LogString("%@", m_saveError);
        return false;
    }
    auto settings = OpenSettingsFile(m_settingsPath);
    writeState(*settings);
    settings->sync();
    if (settings->status() != QSettings::NoError) {
        m_saveError = FormatString("Can't save the settings to %@.", m_settingsPath);
        LogString("%@", m_saveError);
        return false;
    }
    return true;
}

QList<BUAlertText> BUAppController::addBackupFolders(const QStringList &paths)
{
    QList<BUAlertText> refusals;
    for (const QString &path : paths) {
        const QString name = LastPathComponent(path);
        bool skip = false;
        for (const QString &existing : std::as_const(m_backupFolders)) {
            if (existing == path) {
                skip = true;
                break;
            }
            if (CaseInsensitiveCompare(LastPathComponent(existing), name) == KSOrderedSame) {
                refusals.append({QStringLiteral("Can't add a backup folder."),
                    FormatString("A folder named \"%@\" is already in the backup list. You can't have two "
                                 "folders with the same name on the backup device.",
                        name)});
                skip = true;
                break;
            }
        }
        if (!skip)
            m_backupFolders.append(path);
    }
    std::stable_sort(m_backupFolders.begin(), m_backupFolders.end(), CompareFolders);
    return refusals;
}

void BUAppController::addDefaultRules()
{
    AddRulesMerging(m_ignoreFolders, BUIgnoreRule::defaultFolderRules());
    AddRulesMerging(m_ignoreFiles, BUIgnoreRule::defaultFileRules());
}

void BUAppController::addDefaults()
{
    const QString home = QDir::homePath();
    if (QFileInfo(home).isDir() && home != u"/")
        addBackupFolders({QDir::cleanPath(home)});
    addDefaultRules();
}

void BUAppController::updateDrives()
{
    const QString selected = selectedDriveHook ? selectedDriveHook() : QString();
    m_otherDrives = MountedDrives();
    m_mountedRecentDrives.clear();
    int counter = 0;
    for (const QString &name : std::as_const(m_recentDrives)) {
        const qsizetype mounted = m_otherDrives.indexOf(name);
        if (mounted < 0)
            continue;
        m_mountedRecentDrives.append(name);
        m_otherDrives.removeAt(mounted);
        if (++counter == 10)
            break;
    }
    qsizetype index = selected.isEmpty() ? -1 : m_mountedRecentDrives.indexOf(selected);
    if (index < 0)
        index = kDriveNotFound;
    if (updateDriveListHook)
        updateDriveListHook(index);
}

void BUAppController::updateRecentDrives(const QString &name)
{
    m_recentDrives.removeAll(name);
    m_recentDrives.prepend(name);
    m_mountedRecentDrives.removeAll(name);
    m_mountedRecentDrives.prepend(name);
    m_otherDrives.removeAll(name);
    if (m_mountedRecentDrives.size() >= 11) {
        while (m_mountedRecentDrives.size() > 10)
            m_otherDrives.append(m_mountedRecentDrives.takeLast());
        std::stable_sort(m_otherDrives.begin(), m_otherDrives.end(),
            [](const QString &a, const QString &b) { return CaseInsensitiveCompare(a, b) == KSOrderedAscending; });
    }
}
