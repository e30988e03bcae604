// What the help window's find commands search for: the search field's text with its caret codes
// turned into characters, the kind of find it makes, and the options chosen in the Find menu.
// Plain functions, any thread.
#pragma once

#include <QString>

// Find types: 0 nothing to find; the special items (a search text of one control character);
// 10 plain text.
enum KSFindType : int {
    kFindNothing = 0,
    kFindChapter = 4, // "^c": the next chapter start
    kFindKnot = 5, // "^>": the next embedded object of any kind
    kFindDivider = 6, // "^d": the next divider
    kFindPicture = 8, // "^g": the next picture
    kFindText = 10,
};

// Bits of the search option mask, by the tag of their Find menu item.
enum KSSearchOption : int {
    kOptionTrimSelection = 1, // "Use Selection for Find" leaves out white space at the ends
    kOptionWholeWords = 2,
    kOptionIgnoreCase = 3,
    kOptionFromStart = 8, // the quick search starts at the top of the document
};
// Trim the selection, ignore case, and the quick search starts at the top of the document.
inline constexpr unsigned kInitialSearchOptionMask
    = (1U << kOptionTrimSelection) | (1U << kOptionIgnoreCase) | (1U << kOptionFromStart);
inline constexpr int kMaxFindLength = 255;

struct KSFindRequest {
    QString findString;
    int findType = kFindNothing;
};

// "^^" "^", "^-" soft hyphen, "^l" line separator, "^g" 1, "^c" 2, "^d" 3, "^>" 4, "^t" tab,
// "^p" 10, "^m" 11, "^n" 12; any other caret stays as it is.
QString KSTextFromCaretCodes(const QString &text);
// The reverse, for showing a selection in the search field.
QString KSCaretCodesFromText(const QString &text);

// The find that the quick search makes of the search field's text: nothing for an empty text, a
// special item for one character of code 1 to 4, else plain text cut to 255 characters.
KSFindRequest KSQuickSearchRequest(const QString &searchString);

// The find that "Use Selection for Find" makes of the selected plain text.
KSFindRequest KSSelectionFindRequest(const QString &selectedText, unsigned searchOptionMask);

// Whether a find can also run backwards.
bool KSCanFindPrevious(const KSFindRequest &request);

inline bool KSSearchOptionSet(unsigned mask, int option)
{
    return (mask >> option) & 1U;
}
// The options handed to the find itself: the mask without the "from start" bit.
inline unsigned KSEngineFindOptions(unsigned mask)
{
    return mask & ~(1U << kOptionFromStart);
}
