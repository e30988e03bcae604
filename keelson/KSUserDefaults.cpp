#include "keelson/KSUserDefaults.h"

#include "keelson/KSLog.h"

#include <QStandardPaths>

namespace {

QString ConfigFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QStringLiteral("/Tannerwick");
}

} // namespace

QString UserDefaultsPath()
{
    return ConfigFolder() + QStringLiteral("/Tanner Backup.conf");
}

QString SharedDefaultsPath()
{
    return ConfigFolder() + QStringLiteral("/com.tannerwick.shared.conf");
}

std::unique_ptr<QSettings> OpenSettingsFile(const QString &path)
{
    return std::make_unique<QSettings>(path, QSettings::IniFormat);
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
