// The application's one process-wide controller. It owns every piece of backup state that
// outlives a run (source folders, the two rule lists, the recent devices, the date and time of
// the last backup to each device) and loads it at start-up. Other code edits the containers in
// place and then calls saveState(), which saves that change at once: the window and any number of
// commands share the settings file, so a change is applied to the file as it is now (what others
// saved meanwhile is kept, and shown), never written from an old picture of it.
//
// Main thread only. The analysis reads backupFolders and the rule lists on its own thread, so
// nothing may edit them while an operation runs; the window and the command line ensure that.
#pragma once

#include "backup/BUIgnoreRule.h"

#include <QMap>
#include <QPointer>
#include <QSettings>
#include <QStringList>

#include <functional>
#include <limits>

class BUDeviceWatcher;

// A message for the alert box: a short text and a longer explanation.
struct BUAlertText {
    QString message;
    QString moreInfo;
};

// The persisted part of the state, as the settings file holds it.
struct BUPersistedState {
    QStringList folders;
    QStringList ignoreFiles, ignoreFolders; // rule archives
    QStringList recent;
    QMap<QString, qint64> dates, times;
    bool operator==(const BUPersistedState &) const = default;
    bool listsEmpty() const { return folders.isEmpty() && ignoreFiles.isEmpty() && ignoreFolders.isEmpty(); }
};

// A change made from `base` to `mine`, applied to `theirs` (the file as another process left it):
// folders, rules and devices added or removed, devices made recent, dates and times set or
// removed. Where `theirs` still equals `base`, `mine` is taken as it is.
BUPersistedState MergeStateChange(const BUPersistedState &base, const BUPersistedState &mine, BUPersistedState theirs);

class BUAppController {
public:
    static BUAppController &sharedInstance();
    BUAppController(const BUAppController &) = delete;
    BUAppController &operator=(const BUAppController &) = delete;

    // Containers, edited in place by their users.
    QStringList &recentDrives() { return m_recentDrives; }
    QStringList &mountedRecentDrives() { return m_mountedRecentDrives; }
    QStringList &otherDrives() { return m_otherDrives; }
    QMap<QString, qint64> &backupDates() { return m_backupDates; }
    QMap<QString, qint64> &backupTimes() { return m_backupTimes; }
    QStringList &backupFolders() { return m_backupFolders; } // absolute paths, file-name codec
    BURuleList &ignoreFolders() { return m_ignoreFolders; }
    BURuleList &ignoreFiles() { return m_ignoreFiles; }

    // Start-up: the kernel first, then the state and the first-run defaults.
    void applicationWillFinishLaunching();
    void applicationDidFinishLaunching();
    // Saves what is still unsaved; false (and logged) when the settings file could not be written.
    bool applicationWillTerminate();

    // Saves the change made to the containers since the state was last read or saved: under the
    // settings file's lock, on the file read again, and only when something changed. What others
    // saved meanwhile is kept and comes into the containers (stateReloadedHook tells). False, with
    // saveError(), when the file could not be written; the change stays in the containers.
    bool saveState();
    // Reads the file again after others changed it and takes what they saved (when nothing here
    // is unsaved). Returns whether the containers changed; stateReloadedHook is called then.
    bool reloadState();
    // Follows the settings file: when another process replaces it, reloads the state at once if
    // mayReloadStateHook allows (no job reads the containers), else when reloadStateIfPending is
    // called. Needs an application object.
    void watchSettingsFile();
    void reloadStateIfPending();
    std::function<bool()> mayReloadStateHook;
    std::function<void()> stateReloadedHook;

    void installRules(const QStringList &archives, BURuleList &into, const QString &key) const;
    void saveRules(QSettings &settings, const BURuleList &rules, const QString &key);

    // Adds source folders as the folder chooser does: the same path twice is skipped silently,
    // a second folder of the same name (ignoring case) is refused with an alert text; then the
    // list is sorted by name. Returns the refusals.
    QList<BUAlertText> addBackupFolders(const QStringList &paths);
    // The home folder and the default rules, as on a first run.
    void addDefaults();
    void addDefaultRules();

    QString aboutString() const { return QStringLiteral("Manual backup for paranoid control freaks."); }
    // Where the state lives; the settings file's problems at load time.
    QString settingsPath() const { return m_settingsPath; }
    QString saveError() const { return m_saveError; }
    // Why the settings file is not used (not a regular file, unreadable, too large); empty when it is.
    QString settingsProblem() const { return m_settingsProblem; }

    // The window (once it exists) replaces the first-run step with its own addDefaults.
    std::function<void()> firstRunDefaultsHook;
    // The desktop starts the automatic update and news checks here, the last step of start-up
    // (each stays off unless the user turned it on). The command line starts none.
    std::function<void()> startAutoChecksHook;

    // Rebuilds "Recent Devices" (mountedRecentDrives: the mounted devices of recentDrives in its
    // order, at most 10) and "Other Devices" (otherDrives: every other mounted device, sorted)
    // and then calls updateDriveListHook. Runs at start-up and on every mount table change.
    void updateDrives();
    // Makes the device the most recent one; called when a backup or analysis starts on it.
    void updateRecentDrives(const QString &name);
    // The not-found index passed to updateDriveListHook (the largest signed integer).
    static constexpr qsizetype kDriveNotFound = std::numeric_limits<qsizetype>::max();
    // The device list's side of updateDrives: the device selected before the rebuild (empty when
    // none), and the notification after it with that device's index in mountedRecentDrives, or
    // kDriveNotFound when there was no selection or the device is not in that group any more.
    std::function<QString()> selectedDriveHook;
    std::function<void(qsizetype selectedIndex)> updateDriveListHook;

private:
    BUAppController() = default;
    // Reads the persisted state; returns how many stored values could not be used.
    int readState(QSettings &settings, BUPersistedState *state) const;
    // Returns how many paths lost bytes that could not be found again in the file.
    int loadFolders(const QVariantList &stored, QStringList *folders) const;
    static void writeState(QSettings &settings, const BUPersistedState &state);
    BUPersistedState currentState() const;
    void adoptState(const BUPersistedState &state);

    QStringList m_recentDrives, m_mountedRecentDrives, m_otherDrives;
    QMap<QString, qint64> m_backupDates, m_backupTimes;
    QStringList m_backupFolders;
    BURuleList m_ignoreFolders, m_ignoreFiles;
    QString m_settingsPath;
    QString m_saveError;
    QString m_settingsProblem;
    BUPersistedState m_base; // the state as last read from or saved to the file
    bool m_loaded = false;
    bool m_reloadPending = false;
    QPointer<QObject> m_settingsWatcher;
    QPointer<BUDeviceWatcher> m_deviceWatcher; // owned by the application object
};

// Removes the devices whose last backup is a year old or older (a day index at or before the same
// day a year before `today`) from both dictionaries. Time entries without a date stay.
void PurgeBackupDates(QMap<QString, qint64> &dates, QMap<QString, qint64> &times, int today);

// Orders folders by their last path component without regard to case.
bool CompareFolders(const QString &a, const QString &b);
