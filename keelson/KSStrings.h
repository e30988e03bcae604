// String helpers shared by the engine and the window: the case-insensitive comparison and
// search, the character classifier, path-name pieces and the reversible file-name codec.
// All functions are pure and may be called from any thread.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringView>

// The comparison results of the whole library: -1 ascending, 0 same, 1 descending.
enum KSComparisonResult : int { KSOrderedAscending = -1, KSOrderedSame = 0, KSOrderedDescending = 1 };

// Compares canonically decomposed (NFD), case-folded forms, so "É" (one unit) equals "e" + U+0301
// and "Photos" equals "photos". Strings of ASCII alone take a fast path with the same answers.
KSComparisonResult CaseInsensitiveCompare(QStringView a, QStringView b);

// The form CaseInsensitiveCompare compares: NFD, case-folded. Callers that compare one string many
// times fold it once and compare folded forms with a plain comparison.
QString CaseFoldedString(QStringView s);

enum class KSSearchAnchor { None, Start, End };
// Case-insensitive search for `needle` in `haystack` (same folding as CaseInsensitiveCompare).
// An empty needle is never found.
bool CaseInsensitiveFind(QStringView haystack, QStringView needle, KSSearchAnchor anchor);

// Character classes: 0 other, 1 upper-case letter (title case included), 2 lower-case letter,
// 3 digit, 4 white space (new lines included), 5 punctuation or symbol, 6 control (format
// characters such as the soft hyphen included). Tested in the order lower, upper, white space,
// digit, punctuation or symbol, control. Units below 256 come from a table.
enum KSCharType : int {
    kCharOther = 0,
    kCharUpper = 1,
    kCharLower = 2,
    kCharDigit = 3,
    kCharSpace = 4,
    kCharPunct = 5,
    kCharControl = 6
};
int TypeOfChar(char16_t unit);

// Path pieces, as the rule matching and the folder list see them.
QString LastPathComponent(QStringView path);
// Whether path is folder or lies below it, by whole components: "/media/B2/x" is not inside
// "/media/B". Both are absolute paths without "." or ".." components.
bool PathIsInside(QStringView path, QStringView folder);
// Text after the last "." of the last path component; empty when there is none.
QString PathExtension(QStringView name);
// The name without "." + PathExtension; the name itself when it has no dot.
QString DeletingPathExtension(QStringView name);

// Linux names are bytes. Decode as UTF-8 and map every byte that is not part of valid UTF-8 to
// the lone surrogate U+DC80 + (byte - 0x80); encoding maps those surrogates back. Every byte
// string round-trips: FileNameToBytes(FileNameFromBytes(b)) == b.
QString FileNameFromBytes(QByteArrayView bytes);
QByteArray FileNameToBytes(QStringView name);
