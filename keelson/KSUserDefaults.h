// The settings files: the application's own, and the shared domain of the maker's applications.
// INI text files under $XDG_CONFIG_HOME/Tannerwick, readable and repairable by a person: lists as
// string lists, dictionaries as groups of keys. Readers treat a value of the wrong type as absent
// and log it; nothing in a hand-edited file can stop the application. Main thread.
//
// Several processes share a file (the window and any number of commands), so nothing writes it
// from a picture of it taken earlier: ChangeSettingsFile takes the lock beside the file, reads the
// file again, applies one change and replaces the file whole (a new file renamed over it), and
// only when the text changed. A settings file that is not a regular file (a link to /dev/null, a
// device, a FIFO) or that is too large is never read further than its type and never replaced.
#pragma once

#include <QMap>
#include <QSettings>
#include <QStringList>

#include <functional>
#include <memory>

// The folder of the settings: "$XDG_CONFIG_HOME/Tannerwick", where a relative or empty
// XDG_CONFIG_HOME is ignored for "$HOME/.config" and bytes that are not UTF-8 are kept (through the
// file-name codec).
QString SettingsFolder();
// "$XDG_CONFIG_HOME/Tannerwick/Tanner Backup.conf"
QString UserDefaultsPath();
// "$XDG_CONFIG_HOME/Tannerwick/com.tannerwick.shared.conf"
QString SharedDefaultsPath();

// Settings files are small; anything larger is not one.
inline constexpr qint64 kMaxSettingsFileSize = 4 << 20;

// What a settings file is and holds, read without blocking and without following it into
// anything but a regular file.
struct KSSettingsFileText {
    enum State { Absent, Regular, NotRegular, TooLarge, Unreadable };
    State state = Absent;
    QByteArray text;
    QString problem; // for the log when state is neither Absent nor Regular
    bool readable() const { return state == Absent || state == Regular; }
};
KSSettingsFileText ReadSettingsFileText(const QString &path);

// The part of a file's text that can be trusted: a last line without its line end was cut while
// it was written, so it is dropped, or for a list only its last element (the one that was being
// written).
QByteArray TrustedSettingsText(const QByteArray &text);
// Whether the text can be a whole file of settings; where it cannot, logs why. What a person may
// change by hand without losing anything does not count (the order of the keys, spaces, blank
// lines, comments, quotes around a value); a repeated key or section does, since only one of them
// is read.
bool SettingsTextIsWhole(const QByteArray &text, const QString &path);
// Keeps a copy of an original that was not read whole beside the file, as "NAME.damaged", then
// "NAME.damaged-2" and so on: never overwritten, never deleted, and not made twice for the same
// text. Returns the copy's path, empty (and logged) when none could be made.
QString KeepSettingsOriginal(const QString &path, const QByteArray &original);

// The settings as the file holds them now, for reading. A file that is not a regular file, too
// large, or cut short is read through a private copy of what can be trusted in it (nothing for the
// first two); what is set on that copy is never saved. Settings are changed with
// ChangeSettingsFile, never through these.
std::unique_ptr<QSettings> OpenSettingsFile(const QString &path);
// The same, always through a private copy: what another process saved a moment ago is read even
// when the file's size and time look as before.
std::unique_ptr<QSettings> ReadSettingsFile(const QString &path);

// One change to a settings file: under the lock, on the file read again just now. The change may
// set keepOriginal when it could not use something it read (the original is then kept aside as
// KeepSettingsOriginal does). The file is replaced only when its text changes, keeping its mode
// and owner. False, with the reason in *error and in the log, when it could not be saved.
using KSSettingsChange = std::function<void(QSettings &settings, bool &keepOriginal)>;
bool ChangeSettingsFile(const QString &path, const KSSettingsChange &change, QString *error = nullptr);
bool SetSettingsValue(const QString &path, const QString &key, const QVariant &value);
bool RemoveSettingsValue(const QString &path, const QString &key);

// A list key as stored: absent gives an empty list, a single value a list of one.
QVariantList ReadList(QSettings &settings, const QString &key);
// A list of texts: elements that are not texts are logged and dropped.
QStringList ReadStringList(QSettings &settings, const QString &key);
// A dictionary key (a group of keys) of integers: entries that are not integers are logged and
// dropped; a key that holds a plain value instead of a group is logged and read as absent.
// `present` tells whether the dictionary existed.
QMap<QString, qint64> ReadIntegerDictionary(QSettings &settings, const QString &key, bool *present = nullptr);
// Writes the list as text (one element is written as itself, never as a binary value), or removes
// the key when it is empty.
void WriteStringList(QSettings &settings, const QString &key, const QStringList &list);
void WriteList(QSettings &settings, const QString &key, const QVariantList &list);
void WriteIntegerDictionary(QSettings &settings, const QString &key, const QMap<QString, qint64> &dictionary);
// "absent" reads as true; anything but a boolean text reads as true as well, and is logged.
bool DefaultYesBool(QSettings &settings, const QString &key);
