// The application's one process-wide controller. It owns every piece of backup state that
// outlives a run (source folders, the two rule lists, the recent devices, the date and time of
// the last backup to each device), loads it once at start-up and writes it back once at
// termination. Other code edits the containers in place.
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
    // Writes the state back; false (and logged) when the settings file could not be written.
    bool applicationWillTerminate();

    void installRules(const QStringList &archives, BURuleList &into, const QString &key);
    void saveRules(QSettings &settings, const BURuleList &rules, const QString &key);
    // Writes the state into settings (the other keys it holds stay as they are).
    void writeState(QSettings &settings);
    // Keeps the original settings file aside as ".damaged" when something read from it would be
    // lost by writing the state back: a file that is empty, not text, cut short or not in the form
    // of settings, or `lost` values that the readers could not use. Changes a person makes by hand
    // without losing anything (order, spaces, comments, quotes) keep nothing aside.
    void keepDamagedOriginal(const QByteArray &original, int lost);

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
    // Returns how many paths lost bytes that could not be found again in the file.
    int loadFolders(const QVariantList &stored);
    void saveFolders(QSettings &settings) const;

    QStringList m_recentDrives, m_mountedRecentDrives, m_otherDrives;
    QMap<QString, qint64> m_backupDates, m_backupTimes;
    QStringList m_backupFolders;
    BURuleList m_ignoreFolders, m_ignoreFiles;
    QString m_settingsPath;
    QString m_saveError;
    bool m_loaded = false;
    bool m_keepStoredFile = false; // the file could not be read: never overwrite it
    QPointer<BUDeviceWatcher> m_deviceWatcher; // owned by the application object
};

// Removes the devices whose last backup is a year old or older (a day index at or before the same
// day a year before `today`) from both dictionaries. Time entries without a date stay.
void PurgeBackupDates(QMap<QString, qint64> &dates, QMap<QString, qint64> &times, int today);

// Orders folders by their last path component without regard to case.
bool CompareFolders(const QString &a, const QString &b);
