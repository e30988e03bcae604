// The settings files: the application's own, and the shared domain of the maker's applications.
// INI text files under $XDG_CONFIG_HOME/Tannerwick, readable and repairable by a person: lists as
// string lists, dictionaries as groups of keys. Readers treat a value of the wrong type as absent
// and log it; nothing in a hand-edited file can stop the application. Main thread.
#pragma once

#include <QMap>
#include <QSettings>
#include <QStringList>

#include <memory>

// "$XDG_CONFIG_HOME/Tannerwick/Tanner Backup.conf"
QString UserDefaultsPath();
// "$XDG_CONFIG_HOME/Tannerwick/com.tannerwick.shared.conf"
QString SharedDefaultsPath();
std::unique_ptr<QSettings> OpenSettingsFile(const QString &path);

// A list key as stored: absent gives an empty list, a single value a list of one.
QVariantList ReadList(QSettings &settings, const QString &key);
// A list of texts: elements that are not texts are logged and dropped.
QStringList ReadStringList(QSettings &settings, const QString &key);
// A dictionary key (a group of keys) of integers: entries that are not integers are logged and
// dropped; a key that holds a plain value instead of a group is logged and read as absent.
// `present` tells whether the dictionary existed.
QMap<QString, qint64> ReadIntegerDictionary(QSettings &settings, const QString &key, bool *present = nullptr);
// Writes the list, or removes the key when it is empty.
void WriteStringList(QSettings &settings, const QString &key, const QStringList &list);
void WriteIntegerDictionary(QSettings &settings, const QString &key, const QMap<QString, qint64> &dictionary);
// "absent" reads as true; anything but a boolean text reads as true as well, and is logged.
bool DefaultYesBool(QSettings &settings, const QString &key);
