// String helpers of the library that the XML decoder and the help engine share: the classifier
// applied at an index, the forgiving comparison of table values and the decoding of the named
// HTML entities. All functions are pure and may be called from any thread.
#pragma once

#include <QString>
#include <QStringView>

// TypeOfChar of the unit at `index`; kCharOther when the index is outside the string.
int TypeOfChar(QStringView s, qsizetype index);

// Equal ignoring case (CaseInsensitiveCompare); false when `other` is null.
bool IsFuzzyEqualToString(QStringView self, QStringView other);

// Replaces the named entities in place: "&quot;", "&lt;", "&gt;", "&apos;", "&amp;" and "&nbsp;"
// (a plain space). Any other entity under 14 units ("&" to ";" inclusive) is deleted; longer ones
// and an "&" followed by "<", ">" or white space before its ";" are left alone. Scanning goes on
// behind each replacement, so "&amp;lt;" becomes "&lt;". Linear in the length of the string.
void UnescapeForHtml(QString &s);
