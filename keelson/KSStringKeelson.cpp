#include "keelson/KSStringKeelson.h"

#include "keelson/KSStrings.h"

#include <algorithm>

namespace {

// From "&" through ";" inclusive; entities this long or longer are not entities.
constexpr qsizetype kEntityLimit = 14;

// The replacement for the entity between "&" and ";", or an empty string to delete it.
QStringView _EntityReplacement(QStringView name)
{
    if (name == u"quot")
        return u"\"";
    if (name == u"lt")
        return u"<";
    if (name == u"gt")
        return u">";
    if (name == u"apos")
        return u"'";
    if (name == u"nbsp")
        return u" ";
    if (name == u"amp")
        return u"&";
    return {};
}

} // namespace

int TypeOfChar(QStringView s, qsizetype index)
{
    return index >= 0 && index < s.size() ? TypeOfChar(s[index].unicode()) : kCharOther;
}

bool IsFuzzyEqualToString(QStringView self, QStringView other)
{
    return !other.isNull() && CaseInsensitiveCompare(self, other) == KSOrderedSame;
}

void UnescapeForHtml(QString &s)
{
    qsizetype amp = s.indexOf(u'&');
    if (amp < 0)
        return;
    const QStringView in(s);
    const qsizetype size = in.size();
    QString out;
    out.reserve(size);
    qsizetype copied = 0; // input before this index is in `out`
    while (amp >= 0) {
        qsizetype end = -1; // index of the ";"
        const qsizetype last = std::min(size, amp + kEntityLimit - 1);
        for (qsizetype i = amp + 1; i < last; ++i) {
            const char16_t c = in[i].unicode();
            if (c == u';') {
                end = i;
                break;
            }
            if (c == u'<' || c == u'>' || TypeOfChar(c) == kCharSpace)
                break;
        }
        if (end < 0) {
            amp = in.indexOf(u'&', amp + 1);
            continue;
        }
        out.append(in.sliced(copied, amp - copied));
        out.append(_EntityReplacement(in.sliced(amp + 1, end - amp - 1)));
        copied = end + 1;
        amp = in.indexOf(u'&', copied);
    }
    out.append(in.sliced(copied));
    s = out;
}
