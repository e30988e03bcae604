// What the update check decides, apart from the network: the product key and the installed
// version, the scan of the downloads page for the newest release, the schedule of automatic
// checks, and the settings they keep. Pure functions may be called from any thread; the settings
// functions belong to the main thread (and to the command line's one thread).
#pragma once

#include <QDateTime>
#include <QString>

#include <optional>

// A version as the downloads page encodes it: single-digit major and minor, any patch.
struct KSVersion {
    int major = 0;
    int minor = 0;
    int patch = 0;

    long long value() const { return major * 1000000LL + minor * 10000LL + patch; }
    // "%d.%d.%d", or "%d.%d" when the patch is 0.
    QString text() const;
};

// The part of the executable name after "Tanner ", lower-cased and cut at the next blank;
// nothing when the name holds no "Tanner ".
std::optional<QString> ProductKey(const QString &executableName);
// The version text split at "."; nothing with more than three parts, or with a part too large for
// its place (a major of 1000, a minor of 100, a patch of 10000 or more). Each part counts by its
// leading digits (a third part such as "b3" that does not begin with a digit counts as 0).
std::optional<KSVersion> InstalledVersion(const QString &versionString);

// The release link with the highest version on the page: every <A HREF="..."> (any case) that
// is at least 9 characters long, ends in ".deb" or ".zip", and reads PRODUCT_MNP... where PRODUCT
// is the product key (ignoring case), M and N are digits and the characters from P up to the
// extension (at least one) begin with a digit. Of equal versions the earlier link wins.
struct KSReleaseLink {
    QString link;
    KSVersion version;
};
std::optional<KSReleaseLink> NewestReleaseLink(const QString &pageText, const QString &productKey);

// The outcome of reading a downloads page. `updatePath` is empty when there is no newer version
// (also when the product key or the installed version cannot be read).
struct KSUpdateFinding {
    QString updatePath; // the downloads page + "/" + the link
    KSVersion version;
};
KSUpdateFinding CheckForNewVersion(
    const QString &pageText, const QString &executableName, const QString &versionString, const QString &downloadsPage);

// Whether an automatic check is due at `now`: never checked, or today (at midnight) has reached
// the day of the last check plus 7 days, or plus one month when `monthly` (clamped to the
// month's last day), in the Gregorian calendar and local time.
bool UpdateCheckDue(qint64 lastCheckSeconds, bool monthly, const QDateTime &now);

// Settings. The switches live in the shared domain of the maker's applications; the date of
// the last successful check in the application's own settings, as a decimal text.
namespace KSUpdateSettings {
bool autoUpdate();
void setAutoUpdate(bool on);
bool autoUpdateMonthly();
void setAutoUpdateMonthly(bool on);
qint64 lastUpdateCheck(); // seconds since 1970; 0 = never
void setLastUpdateCheck(qint64 seconds);

bool autoNewsCheck();
void setAutoNewsCheck(bool on);
int lastNewsCheck(); // day index; 0 = never
void setLastNewsCheck(int dayIndex);
int lastNewsDate(); // day index of the newest item already shown; 0 = none
void setLastNewsDate(int dayIndex);
} // namespace KSUpdateSettings
