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
#include <QFileSystemWatcher>
#include <QTimer>

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

void BUAppController::installRules(const QStringList &archives, BURuleList &into, const QString &key) const
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
    const KSSettingsFileText file = ReadSettingsFileText(settingsPath);
    const QByteArray prefix = key.toUtf8() + '=';
    for (QByteArray line : TrustedSettingsText(file.text).split('\n')) {
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

} // namespace

namespace {

// Why a folder can't be a backup folder, or nothing: "/" has no name to mirror, and a folder that
// holds the devices (or is one) would be backed up into itself.
QString _FolderRefusal(const QString &path)
{
    if (path == u"/")
        return QStringLiteral("The root folder has no name to mirror on the backup device.");
    const QString volumes = VolumesRoot();
    if (volumes.isEmpty())
        return {};
    if (PathIsInside(volumes, path))
        return QStringLiteral("It holds the backup devices.");
    if (PathIsInside(path, volumes) && !path.sliced(volumes.size() + 1).contains(u'/'))
        return QStringLiteral("It is a backup device.");
    return {};
}

QStringList _Archives(const BURuleList &rules)
{
    QStringList archives;
    archives.reserve(rules.size());
    for (const BUIgnoreRule &rule : rules)
        archives.append(rule.archive());
    return archives;
}

QStringList _Without(QStringList list, const QStringList &removed)
{
    for (const QString &item : removed)
        list.removeAll(item);
    return list;
}

QStringList _Missing(const QStringList &from, const QStringList &in)
{
    QStringList missing;
    for (const QString &item : from) {
        if (!in.contains(item))
            missing.append(item);
    }
    return missing;
}

// Recent devices are a list in the order of use: the change is the devices moved to its front
// (and any removed), applied in front of the other list.
QStringList _MergeRecent(const QStringList &base, const QStringList &mine, const QStringList &theirs)
{
    const QStringList removed = _Missing(base, mine);
    qsizetype front = 0;
    while (front < mine.size() && mine.mid(front) != _Without(_Without(base, removed), mine.first(front)))
        ++front;
    const QStringList moved = mine.first(front);
    return moved + _Without(_Without(theirs, removed), moved);
}

void _MergeDictionary(
    const QMap<QString, qint64> &base, const QMap<QString, qint64> &mine, QMap<QString, qint64> &theirs)
{
    QStringList keys = base.keys() + mine.keys();
    keys.removeDuplicates();
    for (const QString &key : std::as_const(keys)) {
        if (base.contains(key) == mine.contains(key) && base.value(key) == mine.value(key))
            continue;
        if (mine.contains(key))
            theirs.insert(key, mine.value(key));
        else
            theirs.remove(key);
    }
}

BURuleList _Rules(const QStringList &archives)
{
    BURuleList rules;
    for (const QString &archive : archives)
        rules.append(BUIgnoreRule(archive));
    return rules;
}

QStringList _MergeRules(const QStringList &base, const QStringList &mine, const QStringList &theirs)
{
    if (theirs == base)
        return mine;
    BURuleList rules = _Rules(_Without(theirs, _Missing(base, mine)));
    const QStringList added = _Missing(mine, base);
    if (!added.isEmpty())
        AddRulesMerging(rules, added);
    return _Archives(rules);
}

} // namespace

BUPersistedState MergeStateChange(const BUPersistedState &base, const BUPersistedState &mine, BUPersistedState theirs)
{
    // A file that holds none of the three lists gets the first-run defaults at launch: the state
    // this change was made on.
    if (theirs.listsEmpty()) {
        theirs.folders = base.folders;
        theirs.ignoreFiles = base.ignoreFiles;
        theirs.ignoreFolders = base.ignoreFolders;
    }
    BUPersistedState result = theirs;
    if (theirs.folders == base.folders) {
        result.folders = mine.folders;
    } else {
        result.folders = _Without(theirs.folders, _Missing(base.folders, mine.folders));
        bool added = false;
        for (const QString &folder : _Missing(mine.folders, base.folders)) {
            const bool clash = std::any_of(result.folders.begin(), result.folders.end(), [&](const QString &other) {
                return CaseInsensitiveCompare(LastPathComponent(other), LastPathComponent(folder)) == KSOrderedSame;
            });
            if (clash) {
                LogString("Can't add the backup folder %@: another process added a folder of the same name.", folder);
                continue;
            }
            result.folders.append(folder);
            added = true;
        }
        if (added)
            std::stable_sort(result.folders.begin(), result.folders.end(), CompareFolders);
    }
    result.ignoreFiles = _MergeRules(base.ignoreFiles, mine.ignoreFiles, theirs.ignoreFiles);
    result.ignoreFolders = _MergeRules(base.ignoreFolders, mine.ignoreFolders, theirs.ignoreFolders);
    result.recent = theirs.recent == base.recent ? mine.recent : _MergeRecent(base.recent, mine.recent, theirs.recent);
    _MergeDictionary(base.dates, mine.dates, result.dates);
    _MergeDictionary(base.times, mine.times, result.times);
    return result;
}

int BUAppController::loadFolders(const QVariantList &stored, QStringList *folders) const
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
        path = QDir::cleanPath(path);
        if (const QString refusal = _FolderRefusal(path); !refusal.isEmpty()) {
            LogString("Can't restore backup folder %@: %@", path, refusal);
            continue;
        }
        folders->append(path);
    }
    return unrecovered;
}

int BUAppController::readState(QSettings &settings, BUPersistedState *state) const
{
    state->recent = ReadStringList(settings, kRecentKey);
    state->recent.removeAll(QString());
    int lost = loadFolders(ReadList(settings, kFoldersKey), &state->folders);
    BURuleList files, folders;
    installRules(ReadStringList(settings, kIgnoreFilesKey), files, kIgnoreFilesKey);
    installRules(ReadStringList(settings, kIgnoreFoldersKey), folders, kIgnoreFoldersKey);
    state->ignoreFiles = _Archives(files);
    state->ignoreFolders = _Archives(folders);
    state->times = ReadIntegerDictionary(settings, kTimesKey);
    for (auto it = state->times.begin(); it != state->times.end();) {
        if (it.value() < 0 || it.value() > 0xFFFFFFFFLL) {
            LogString("Ignoring the entry %@ of the setting %@: it is not a time of day.", it.key(), kTimesKey);
            it = state->times.erase(it);
        } else {
            ++it;
        }
    }
    bool datesPresent = false;
    state->dates = ReadIntegerDictionary(settings, kDatesKey, &datesPresent);
    // Whatever a reader above could not use was logged and left out: it is lost unless the
    // original is kept.
    lost += _StoredElements(settings, kRecentKey) - int(state->recent.size());
    lost += _StoredElements(settings, kFoldersKey) - int(state->folders.size());
    lost += _StoredElements(settings, kIgnoreFilesKey) - int(state->ignoreFiles.size());
    lost += _StoredElements(settings, kIgnoreFoldersKey) - int(state->ignoreFolders.size());
    lost += _StoredEntries(settings, kTimesKey) - int(state->times.size());
    lost += _StoredEntries(settings, kDatesKey) - int(state->dates.size());
    if (datesPresent)
        PurgeBackupDates(state->dates, state->times, DayIndexForToday());
    return lost;
}

void BUAppController::writeState(QSettings &settings, const BUPersistedState &state)
{
    QVariantList folders;
    for (const QString &folder : state.folders)
        folders.append(_StoredFolder(folder));
    WriteList(settings, kFoldersKey, folders);
    WriteStringList(settings, kIgnoreFilesKey, state.ignoreFiles);
    WriteStringList(settings, kIgnoreFoldersKey, state.ignoreFolders);
    WriteStringList(settings, kRecentKey, state.recent);
    WriteIntegerDictionary(settings, kDatesKey, state.dates);
    WriteIntegerDictionary(settings, kTimesKey, state.times);
}

BUPersistedState BUAppController::currentState() const
{
    return {m_backupFolders, _Archives(m_ignoreFiles), _Archives(m_ignoreFolders), m_recentDrives, m_backupDates,
        m_backupTimes};
}

void BUAppController::adoptState(const BUPersistedState &state)
{
    m_backupFolders = state.folders;
    m_ignoreFiles = _Rules(state.ignoreFiles);
    m_ignoreFolders = _Rules(state.ignoreFolders);
    m_recentDrives = state.recent;
    m_backupDates = state.dates;
    m_backupTimes = state.times;
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

    // 2-6. Recent devices, folders, rules, each in their stored order; times, then dates with the
    //      purge of entries a year old or older. Nothing is written here.
    m_settingsPath = UserDefaultsPath();
    const KSSettingsFileText file = ReadSettingsFileText(m_settingsPath);
    m_settingsProblem.clear();
    if (!file.readable())
        m_settingsProblem = FormatString("The settings file %@ is not used: %@.", m_settingsPath, file.problem);
    BUPersistedState state;
    {
        auto settings = ReadSettingsFile(m_settingsPath);
        const int lost = readState(*settings, &state);
        if (file.state == KSSettingsFileText::Regular && (lost > 0 || !SettingsTextIsWhole(file.text, m_settingsPath)))
            KeepSettingsOriginal(m_settingsPath, file.text);
    }
    adoptState(state);
    m_base = state;

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

    // 10. First-run defaults, also when the user emptied all three lists. The window saves them
    //     as a change of its own; for a command they are what the launch sees, saved only with a
    //     change that the command makes.
    if (m_backupFolders.isEmpty() && m_ignoreFiles.isEmpty() && m_ignoreFolders.isEmpty()) {
        if (firstRunDefaultsHook) {
            firstRunDefaultsHook();
        } else {
            addDefaults();
            m_base = currentState();
        }
    }
    // 11. The main window comes to the front here.
    // 12. The automatic update and news checks.
    if (startAutoChecksHook)
        startAutoChecksHook();
}

void BUAppController::saveRules(QSettings &settings, const BURuleList &rules, const QString &key)
{
    WriteStringList(settings, key, _Archives(rules));
}

bool BUAppController::saveState()
{
    m_saveError.clear();
    if (!m_loaded)
        return true; // nothing was loaded, so there is nothing of the user's to write
    const BUPersistedState mine = currentState();
    if (mine == m_base)
        return true; // commands that change nothing never write
    BUPersistedState result;
    const bool saved = ChangeSettingsFile(
        m_settingsPath,
        [&](QSettings &settings, bool &keepOriginal) {
            BUPersistedState theirs;
            if (readState(settings, &theirs) > 0)
                keepOriginal = true;
            result = MergeStateChange(m_base, mine, theirs); // theirs is read as a launch reads it, purged
            writeState(settings, result);
        },
        &m_saveError);
    if (!saved)
        return false; // the change stays here, and the next save tries again
    m_base = result;
    if (result != mine) {
        adoptState(result);
        if (stateReloadedHook)
            stateReloadedHook();
    }
    return true;
}

bool BUAppController::reloadState()
{
    m_reloadPending = false;
    if (!m_loaded)
        return false;
    if (currentState() != m_base) {
        saveState(); // takes in what others saved as well
        return true;
    }
    BUPersistedState state;
    {
        auto settings = ReadSettingsFile(m_settingsPath);
        readState(*settings, &state);
    }
    if (state.listsEmpty()) { // as a launch would: the defaults stand
        state.folders = m_base.folders;
        state.ignoreFiles = m_base.ignoreFiles;
        state.ignoreFolders = m_base.ignoreFolders;
    }
    if (state == m_base)
        return false;
    adoptState(state);
    m_base = state;
    if (stateReloadedHook)
        stateReloadedHook();
    return true;
}

void BUAppController::watchSettingsFile()
{
    if (m_settingsWatcher || !QCoreApplication::instance())
        return;
    // The file is replaced, never written in place: its folder tells when.
    const QString folder = QFileInfo(m_settingsPath).absolutePath();
    QDir().mkpath(folder);
    auto *watcher = new QFileSystemWatcher(QCoreApplication::instance());
    watcher->addPath(folder);
    auto *delay = new QTimer(watcher); // one reload for the burst of events of one save
    delay->setSingleShot(true);
    delay->setInterval(0);
    QObject::connect(watcher, &QFileSystemWatcher::directoryChanged, delay, qOverload<>(&QTimer::start));
    QObject::connect(delay, &QTimer::timeout, watcher, [this] {
        if (mayReloadStateHook && !mayReloadStateHook())
            m_reloadPending = true;
        else
            reloadState();
    });
    m_settingsWatcher = watcher;
}

void BUAppController::reloadStateIfPending()
{
    if (m_reloadPending)
        reloadState();
}

bool BUAppController::applicationWillTerminate()
{
    if (!saveState()) {
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
        if (const QString refusal = _FolderRefusal(path); !refusal.isEmpty()) {
            refusals.append({QStringLiteral("Can't add a backup folder."), refusal});
            continue;
        }
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
