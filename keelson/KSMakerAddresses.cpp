#include "keelson/KSMakerAddresses.h"

#include "keelson/KSUserDefaults.h"

#include <QUrl>

namespace {

QString Setting(const char *key, const char *fallback)
{
    auto settings = OpenSettingsFile(SharedDefaultsPath());
    const QString value = settings->value(QLatin1String(key)).toString().trimmed();
    return value.isEmpty() ? QString::fromLatin1(fallback) : value;
}

} // namespace

QString SupportMailAddress()
{
    return Setting("ks.supportAddress", "support@tannerwick.com");
}

QString HomePageUrl()
{
    return Setting("ks.homePage", "https://www.tannerwick.com/");
}

QString DonationPageUrl()
{
    return Setting("ks.donationPage", "https://www.tannerwick.com/donate");
}

QString WebsiteHostName()
{
    return QUrl(HomePageUrl()).host();
}

QString DownloadsPageUrl()
{
    return Setting("ks.downloadsPage", "https://www.tannerwick.com/downloads");
}

QString NewsPageUrl()
{
    return Setting("ks.newsPage", "https://www.tannerwick.com/news");
}
