#include "keelson/net/KSUpdateCheck.h"

#include "keelson/FormatString.h"
#include "keelson/KSKernel.h"
#include "keelson/KSLog.h"
#include "keelson/KSStringKeelson.h"
#include "keelson/KSUserDefaults.h"

namespace {

const QString kAutoUpdateKey = QStringLiteral("com.tannerwick.shared.autoUpdate");
const QString kMonthlyKey = QStringLiteral("com.tannerwick.shared.autoUpdateMonthly");
const QString kLastUpdateCheckKey = QStringLiteral("com.tannerwick.shared.lastUpdateCheck");
const QString kAutoNewsKey = QStringLiteral("com.tannerwick.shared.autoNewsCheck");
const QString kLastNewsCheckKey = QStringLiteral("com.tannerwick.shared.lastNewsCheck");
const QString kLastNewsDateKey = QStringLiteral("com.tannerwick.shared.lastNewsDate");

// The number formed by the digits at the start of `text` (0 when it does not begin with one), or
// -1 when it reaches `limit`: a part that large would spill into the part before it.
long long _LeadingNumber(QStringView text, long long limit)
{
    long long number = 0;
    for (const QChar c : text) {
        if (c.unicode() < u'0' || c.unicode() > u'9')
            break;
        number = number * 10 + (c.unicode() - u'0');
        if (number >= limit)
            return -1;
    }
    return number;
}

// A version's value is major x 1,000,000 + minor x 10,000 + patch: each part below these.
constexpr long long kPartLimits[3] = {1000, 100, 10000};

bool _IsDigit(QChar c)
{
    return c >= u'0' && c <= u'9';
}

// A switch of the shared domain: absent is off; a value that is not a boolean is off and logged.
bool _SharedBool(const QString &key)
{
    auto settings = OpenSettingsFile(SharedDefaultsPath());
    if (!settings->contains(key))
        return false;
    const QString value = settings->value(key).toString().trimmed().toLower();
    if (value == u"true" || value == u"1" || value == u"yes")
        return true;
    if (value != u"false" && value != u"0" && value != u"no")
        LogString("Ignoring the setting %@: it is not true or false.", key);
    return false;
}

qint64 _IntegerSetting(const QString &path, const QString &key)
{
    auto settings = OpenSettingsFile(path);
    if (!settings->contains(key))
        return 0;
    bool ok = false;
    const qint64 value = settings->value(key).toString().trimmed().toLongLong(&ok);
    if (!ok || value < 0) {
        LogString("Ignoring the setting %@: it is not a number.", key);
        return 0;
    }
    return value;
}

void _SetValue(const QString &path, const QString &key, const QVariant &value)
{
    if (!SetSettingsValue(path, key, value))
        LogString("Can't write the setting %@ to %@.", key, path);
}

} // namespace

QString KSVersion::text() const
{
    return patch == 0 ? FormatString("%d.%d", major, minor) : FormatString("%d.%d.%d", major, minor, patch);
}

std::optional<QString> ProductKey(const QString &executableName)
{
    static const QString prefix = QStringLiteral("Tanner ");
    const qsizetype at = executableName.indexOf(prefix);
    if (at < 0)
        return std::nullopt;
    QString key = executableName.mid(at + prefix.size()).toLower();
    const qsizetype blank = key.indexOf(u' ');
    if (blank >= 0)
        key.truncate(blank);
    return key;
}

std::optional<KSVersion> InstalledVersion(const QString &versionString)
{
    const QStringList parts = versionString.split(u'.');
    if (parts.size() > 3)
        return std::nullopt;
    int numbers[3] = {0, 0, 0};
    for (qsizetype i = 0; i < parts.size(); ++i) {
        const long long number = _LeadingNumber(parts[i], kPartLimits[i]);
        if (number < 0)
            return std::nullopt;
        numbers[i] = int(number);
    }
    return KSVersion {numbers[0], numbers[1], numbers[2]};
}

std::optional<KSReleaseLink> NewestReleaseLink(const QString &pageText, const QString &productKey)
{
    static const QString anchor = QStringLiteral("<A HREF=\"");
    std::optional<KSReleaseLink> best;
    qsizetype from = 0;
    while (true) {
        const qsizetype at = pageText.indexOf(anchor, from, Qt::CaseInsensitive);
        if (at < 0)
            break;
        const qsizetype start = at + anchor.size();
        const qsizetype end = pageText.indexOf(u'"', start);
        if (end < 0)
            break;
        from = end + 1;
        const QStringView link = QStringView(pageText).mid(start, end - start);
        if (link.size() < 9 || !(link.endsWith(u".deb") || link.endsWith(u".zip")))
            continue;
        const qsizetype underscore = link.indexOf(u'_');
        if (underscore < 0 || !IsFuzzyEqualToString(link.left(underscore), productKey))
            continue;
        // Between the "_" and the four-character extension: major, minor, then the patch digits.
        const QStringView code = link.mid(underscore + 1, link.size() - 4 - (underscore + 1));
        if (code.size() < 3 || !_IsDigit(code[0]) || !_IsDigit(code[1]) || !_IsDigit(code[2]))
            continue;
        const long long patch = _LeadingNumber(code.mid(2), kPartLimits[2]);
        if (patch < 0)
            continue; // a patch of five digits or more is not a version
        const KSVersion version {code[0].unicode() - u'0', code[1].unicode() - u'0', int(patch)};
        if (!best || version.value() > best->version.value())
            best = KSReleaseLink {link.toString(), version};
    }
    return best;
}

KSUpdateFinding CheckForNewVersion(
    const QString &pageText, const QString &executableName, const QString &versionString, const QString &downloadsPage)
{
    const std::optional<QString> key = ProductKey(executableName);
    const std::optional<KSVersion> installed = InstalledVersion(versionString);
    if (!key || !installed)
        return {};
    const std::optional<KSReleaseLink> newest = NewestReleaseLink(pageText, *key);
    if (!newest || newest->version.value() <= installed->value())
        return {};
    QString page = downloadsPage;
    if (page.endsWith(u'/'))
        page.chop(1); // a page written with its closing slash must not give "//"
    return {page + u'/' + newest->link, newest->version};
}

bool UpdateCheckDue(qint64 lastCheckSeconds, bool monthly, const QDateTime &now)
{
    if (lastCheckSeconds <= 0)
        return true;
    const QDate last = QDateTime::fromSecsSinceEpoch(lastCheckSeconds).toLocalTime().date();
    const QDate next = monthly ? last.addMonths(1, g_calendar) : last.addDays(7);
    return now.toLocalTime().date() >= next;
}

namespace KSUpdateSettings {

bool autoUpdate()
{
    return _SharedBool(kAutoUpdateKey);
}

void setAutoUpdate(bool on)
{
    _SetValue(SharedDefaultsPath(), kAutoUpdateKey, on);
}

bool autoUpdateMonthly()
{
    return _SharedBool(kMonthlyKey);
}

void setAutoUpdateMonthly(bool on)
{
    _SetValue(SharedDefaultsPath(), kMonthlyKey, on);
}

qint64 lastUpdateCheck()
{
    return _IntegerSetting(UserDefaultsPath(), kLastUpdateCheckKey);
}

void setLastUpdateCheck(qint64 seconds)
{
    _SetValue(UserDefaultsPath(), kLastUpdateCheckKey, FormatString("%qd", seconds));
}

bool autoNewsCheck()
{
    return _SharedBool(kAutoNewsKey);
}

void setAutoNewsCheck(bool on)
{
    _SetValue(SharedDefaultsPath(), kAutoNewsKey, on);
}

int lastNewsCheck()
{
    return int(_IntegerSetting(SharedDefaultsPath(), kLastNewsCheckKey));
}

void setLastNewsCheck(int dayIndex)
{
    _SetValue(SharedDefaultsPath(), kLastNewsCheckKey, dayIndex);
}

int lastNewsDate()
{
    return int(_IntegerSetting(SharedDefaultsPath(), kLastNewsDateKey));
}

void setLastNewsDate(int dayIndex)
{
    _SetValue(SharedDefaultsPath(), kLastNewsDateKey, dayIndex);
}

} // namespace KSUpdateSettings
