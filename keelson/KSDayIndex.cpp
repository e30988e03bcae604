#include "keelson/KSDayIndex.h"

#include "keelson/FormatString.h"
#include "keelson/KSKernel.h"

#include <QDate>
#include <QLocale>

namespace {

int DaysInMonth(int year, int month)
{
    return g_calendar.daysInMonth(month, year);
}

int MakeIndex(int year, int month, int day)
{
    return year * 10000 + month * 100 + day;
}

} // namespace

int DayIndexForToday()
{
    const QDate today = QDate::currentDate();
    const QCalendar::YearMonthDay ymd = g_calendar.partsFromDate(today);
    return MakeIndex(ymd.year, ymd.month, ymd.day);
}

int AddToDayIndex(int dayIndex, int years, int days)
{
    if (dayIndex == 0)
        return 0;
    int year = dayIndex / 10000 + years;
    int month = (dayIndex / 100) % 100;
    int day = dayIndex % 100;
    if (month < 1 || month > 12 || year == 0)
        return dayIndex; // not a date: nothing sensible to move
    day = std::clamp(day, 1, DaysInMonth(year, month));

    // Walk month by month, so that a large number of days needs no date arithmetic library.
    while (days > 0) {
        const int left = DaysInMonth(year, month) - day;
        if (days <= left) {
            day += days;
            days = 0;
        } else {
            days -= left + 1;
            day = 1;
            if (++month > 12) {
                month = 1;
                if (++year == 0)
                    year = 1;
            }
        }
    }
    while (days < 0) {
        if (-days < day) {
            day += days;
            days = 0;
        } else {
            days += day;
            if (--month < 1) {
                month = 12;
                if (--year == 0)
                    year = -1;
            }
            day = DaysInMonth(year, month);
        }
    }
    return MakeIndex(year, month, day);
}

bool LocaleIsDayFirst()
{
    static const bool dayFirst = QLocale().toString(QDate(2017, 12, 25), QLocale::ShortFormat).startsWith(u'2');
    return dayFirst;
}

QString FormatDayIndex(int dayIndex, bool padded)
{
    if (dayIndex >= -9999 && dayIndex <= 9999)
        return QStringLiteral("<Unknown>");
    const int year = dayIndex / 10000;
    int first = (dayIndex / 100) % 100;
    int second = dayIndex % 100;
    if (LocaleIsDayFirst())
        std::swap(first, second);
    return padded ? FormatString("%02d/%02d/%d", first, second, year) : FormatString("%d/%d/%d", first, second, year);
}

QString FormatVellumaTime(unsigned seconds, int style, bool upperCase)
{
    const unsigned hours = (seconds / 3600) % 24;
    const unsigned minutes = (seconds / 60) % 60;
    if (style == kTimeStyle24Hour)
        return FormatString("%02d:%02d", hours, minutes);
    unsigned shown = hours == 0 ? 12 : (hours > 12 ? hours - 12 : hours);
    const char *suffix = seconds < 43200 ? (upperCase ? "AM" : "am") : (upperCase ? "PM" : "pm");
    return FormatString("%d:%02d %s", shown, minutes, suffix);
}
