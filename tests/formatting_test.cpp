// The shared formatter, byte counts, day indexes and times of day.
#include "keelson/FormatString.h"
#include "keelson/KSDayIndex.h"
#include "keelson/KSKernel.h"
#include "tests/support/TestSupport.h"

#include <QLocale>

class Formatting : public ::testing::Test {
protected:
    void SetUp() override { QLocale::setDefault(QLocale::c()); }
};

TEST_F(Formatting, PrintfConversionsAndThousands)
{
    EXPECT_EQ(FormatString("%,d", 1234567), QStringLiteral("1,234,567"));
    EXPECT_EQ(FormatString("%,d", -1234), QStringLiteral("-1,234"));
    EXPECT_EQ(FormatString("%,d", 999), QStringLiteral("999"));
    EXPECT_EQ(FormatString("%.2,f", 1234.567), QStringLiteral("1,234.57"));
    EXPECT_EQ(FormatString("%02d:%02d", 9, 5), QStringLiteral("09:05"));
    EXPECT_EQ(FormatString("%@ has %lu items (%d%%)", QStringLiteral("Disk"), 3UL, 50),
        QStringLiteral("Disk has 3 items (50%)"));
    EXPECT_EQ(FormatString("%C%C%@", u'1', u'0', QStringLiteral("tmp")), QStringLiteral("10tmp"));
    EXPECT_EQ(FormatString("%s|%5d|%-3d|%x", "a\xc3\xa9", 42, 7, 255u), QStringLiteral("a\u00E9|   42|7  |ff"));
    // Missing and mismatched arguments write nothing rather than reading garbage.
    EXPECT_EQ(FormatString("%@ and %@", QStringLiteral("one")), QStringLiteral("one and "));
    EXPECT_EQ(FormatString("%d", QStringLiteral("text")), QString());
    EXPECT_EQ(FormatString("100%"), QStringLiteral("100"));

    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    EXPECT_EQ(FormatString("%.2,f", 1234.5), QStringLiteral("1.234,50"));
}

TEST_F(Formatting, FileSizeStringChoosesTheUnitBeforeRounding)
{
    EXPECT_EQ(FileSizeString(0), QStringLiteral("0 KB"));
    EXPECT_EQ(FileSizeString(1500), QStringLiteral("1.50 KB"));
    EXPECT_EQ(FileSizeString(2000000), QStringLiteral("2 MB"));
    EXPECT_EQ(FileSizeString(999999), QStringLiteral("1,000.00 KB"));
    EXPECT_EQ(FileSizeString(1000000), QStringLiteral("1 MB"));
    EXPECT_EQ(FileSizeString(3500000000LL), QStringLiteral("3.50 GB"));
    EXPECT_EQ(FileSizeString(2000000000000LL), QStringLiteral("2 TB"));
    EXPECT_EQ(FileSizeString(-1), QStringLiteral("18,446,744 TB")); // top bit set: read as unsigned
}

TEST_F(Formatting, DayIndexArithmetic)
{
    EXPECT_EQ(AddToDayIndex(20240229, -1, 0), 20230228); // clamped to the month's end
    EXPECT_EQ(AddToDayIndex(20240229, 1, 0), 20250228);
    EXPECT_EQ(AddToDayIndex(20240229, 4, 0), 20280229);
    EXPECT_EQ(AddToDayIndex(20240101, 0, -1), 20231231);
    EXPECT_EQ(AddToDayIndex(20231231, 0, 1), 20240101);
    EXPECT_EQ(AddToDayIndex(20240228, 0, 2), 20240301);
    EXPECT_EQ(AddToDayIndex(20230315, 0, 400), 20240418);
    EXPECT_EQ(AddToDayIndex(20230315, 0, -400), 20220208);
    EXPECT_EQ(AddToDayIndex(20240131, 1, 29), 20250301);
    EXPECT_EQ(AddToDayIndex(0, -1, -1), 0);
    const QDate today = QDate::currentDate();
    EXPECT_EQ(DayIndexForToday(), today.year() * 10000 + today.month() * 100 + today.day());
}

TEST_F(Formatting, DatesAndTimesAsTheDeviceListShowsThem)
{
    EXPECT_EQ(
        FormatDayIndex(20240307, false), LocaleIsDayFirst() ? QStringLiteral("7/3/2024") : QStringLiteral("3/7/2024"));
    EXPECT_EQ(FormatDayIndex(20240307, true),
        LocaleIsDayFirst() ? QStringLiteral("07/03/2024") : QStringLiteral("03/07/2024"));
    EXPECT_EQ(FormatDayIndex(9999, false), QStringLiteral("<Unknown>"));
    EXPECT_EQ(FormatDayIndex(-5, false), QStringLiteral("<Unknown>"));

    const unsigned t1405 = 14 * 3600 + 5 * 60;
    EXPECT_EQ(FormatVellumaTime(t1405, kTimeStyle24Hour, false), QStringLiteral("14:05"));
    EXPECT_EQ(FormatVellumaTime(t1405, kTimeStyle12Hour, false), QStringLiteral("2:05 pm"));
    EXPECT_EQ(FormatVellumaTime(30 * 60, kTimeStyle12Hour, false), QStringLiteral("12:30 am"));
    EXPECT_EQ(FormatVellumaTime(12 * 3600 + 59 * 60, kTimeStyle12Hour, true), QStringLiteral("12:59 PM"));
    EXPECT_EQ(FormatVellumaTime(11 * 3600 + 59 * 60 + 59, kTimeStyle12Hour, false), QStringLiteral("11:59 am"));
}

TEST(Kernel, VersionPackingAndOsRelease)
{
    EXPECT_EQ(KSKernel::PackVersion(QStringLiteral("11.2")), 0x0B0200u);
    EXPECT_EQ(KSKernel::PackVersion(QStringLiteral("10.15.7")), 0x0A0F07u);
    EXPECT_EQ(KSKernel::PackVersion(QStringLiteral("12")), 0x0C0000u);
    EXPECT_EQ(KSKernel::PackVersion(QStringLiteral("rolling")), 0u);

    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("os-release"));
    tanner::test::WriteTree(dir.path(), {{QStringLiteral("os-release"), "NAME=\"Debian\"\nVERSION_ID=\"12\"\n"}});
    EXPECT_EQ(KSKernel::VersionIdFromOsRelease(path), QStringLiteral("12"));
    EXPECT_EQ(KSKernel::VersionIdFromOsRelease(dir.filePath(QStringLiteral("missing"))), QString());
}
