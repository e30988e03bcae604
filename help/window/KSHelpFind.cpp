#include "help/window/KSHelpFind.h"

namespace {

struct CaretCode {
    char16_t code;
    char16_t character;
};

constexpr CaretCode kCaretCodes[] = {
    {u'^', u'^'},
    {u'-', 0x00AD},
    {u'l', 0x2028},
    {u'g', 1},
    {u'c', 2},
    {u'd', 3},
    {u'>', 4},
    {u't', 9},
    {u'p', 10},
    {u'm', 11},
    {u'n', 12},
};

} // namespace

QString KSTextFromCaretCodes(const QString &text)
{
    QString result;
    result.reserve(text.size());
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text[i];
        if (c == u'^' && i + 1 < text.size()) {
            const char16_t next = text[i + 1].unicode();
            bool translated = false;
            for (const CaretCode &code : kCaretCodes) {
                if (code.code == next) {
                    result.append(QChar(code.character));
                    translated = true;
                    break;
                }
            }
            if (translated) {
                ++i;
                continue;
            }
        }
        result.append(c);
    }
    return result;
}

QString KSCaretCodesFromText(const QString &text)
{
    QString result;
    result.reserve(text.size());
    for (const QChar c : text) {
        bool coded = false;
        for (const CaretCode &code : kCaretCodes) {
            if (code.character == c.unicode()) {
                result.append(u'^');
                result.append(QChar(code.code));
                coded = true;
                break;
            }
        }
        if (!coded)
            result.append(c);
    }
    return result;
}

KSFindRequest KSQuickSearchRequest(const QString &searchString)
{
    KSFindRequest request;
    if (searchString.isEmpty())
        return request;
    request.findString = KSTextFromCaretCodes(searchString);
    if (request.findString.size() == 1) {
        switch (request.findString[0].unicode()) {
        case 1:
            request.findType = kFindPicture;
            return request;
        case 2:
            request.findType = kFindChapter;
            return request;
        case 3:
            request.findType = kFindDivider;
            return request;
        case 4:
            request.findType = kFindKnot;
            return request;
        default:
            break;
        }
    }
    if (request.findString.isEmpty())
        return request;
    request.findType = kFindText;
    if (request.findString.size() > kMaxFindLength)
        request.findString.truncate(kMaxFindLength);
    return request;
}

KSFindRequest KSSelectionFindRequest(const QString &selectedText, unsigned searchOptionMask)
{
    KSFindRequest request;
    request.findString
        = KSSearchOptionSet(searchOptionMask, kOptionTrimSelection) ? selectedText.trimmed() : selectedText;
    request.findType = request.findString.isEmpty() ? kFindNothing : kFindText;
    return request;
}

bool KSCanFindPrevious(const KSFindRequest &request)
{
    switch (request.findType) {
    case 2:
    case kFindChapter:
    case kFindPicture:
    case kFindDivider:
    case kFindKnot:
        return true;
    case kFindText:
        for (const QChar c : request.findString) {
            const char16_t code = c.unicode();
            if (code == 1 || code == 10 || code == 11 || code == 12)
                return false;
        }
        return true;
    default:
        return false;
    }
}
