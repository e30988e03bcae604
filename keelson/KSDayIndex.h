// Dates held as one integer, year * 10000 + month * 100 + day, in the Gregorian calendar and
// local time (29 February 2024 is 20240229), and the texts the window shows for dates and times.
// Thread-safe.
#pragma once

#include <QString>

int DayIndexForToday();
// Adds whole years (day clamped to the month's last day), then a signed number of days.
// A day index of 0 stays 0.
int AddToDayIndex(int dayIndex, int years, int days);
// "<Unknown>" for -9999..9999; else month/day/year, or day/month/year in a day-first locale.
QString FormatDayIndex(int dayIndex, bool padded);
// Whether the current locale writes dates day first; decided once and cached.
bool LocaleIsDayFirst();

enum KSTimeStyle : int { kTimeStyle12Hour = 2, kTimeStyle24Hour = 4 };
// Seconds since midnight as "14:05" (style 4) or "2:05 pm" (style 2; "PM" when upperCase).
QString FormatVellumaTime(unsigned seconds, int style, bool upperCase);
