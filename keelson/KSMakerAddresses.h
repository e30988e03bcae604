// The maker's addresses, in one place. Each can be overridden in the shared settings file
// ($XDG_CONFIG_HOME/Tannerwick/com.tannerwick.shared.conf), so that tests point them at a server
// on 127.0.0.1. Any thread may read them.
#pragma once

#include <QString>

QString SupportMailAddress(); // "ks.supportAddress"
QString HomePageUrl(); // "ks.homePage"
QString DonationPageUrl(); // "ks.donationPage"
QString WebsiteHostName(); // the host of the home page
QString DownloadsPageUrl(); // "ks.downloadsPage": the listing the update check scans
QString NewsPageUrl(); // "ks.newsPage"
