#include "keelson/KSStrings.h"

#include <QChar>

#include <array>

namespace {

bool IsAscii(QStringView s)
{
    for (QChar c : s) {
        if (c.unicode() >= 0x80)
            return false;
    }
    return true;
}

constexpr char16_t AsciiLower(char16_t c)
{
    return (c >= u'A' && c <= u'Z') ? char16_t(c + 32) : c;
}

KSComparisonResult ResultOf(int difference)
{
    return difference < 0 ? KSOrderedAscending : (difference > 0 ? KSOrderedDescending : KSOrderedSame);
}

int ClassifyUnit(char16_t unit)
{
    const QChar c(unit);
    if (c.isLower())
        return kCharLower;
    if (c.isUpper() || c.isTitleCase())
        return kCharUpper;
    if (c.isSpace())
        return kCharSpace;
    if (c.isDigit())
        return kCharDigit;
    if (c.isPunct() || c.isSymbol())
        return kCharPunct;
    if (c.category() == QChar::Other_Control || c.category() == QChar::Other_Format)
        return kCharControl;
    return kCharOther;
}

// Length of the valid UTF-8 sequence at data[i], or 0 when the byte there does not start one.
int ValidUtf8Length(const unsigned char *data, qsizetype i, qsizetype size)
{
    const unsigned char b0 = data[i];
    if (b0 < 0x80)
        return 1;
    int length;
    unsigned char lo = 0x80, hi = 0xBF;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        length = 2;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        length = 3;
        if (b0 == 0xE0)
            lo = 0xA0; // overlong
        else if (b0 == 0xED)
            hi = 0x9F; // surrogates are not valid UTF-8
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        length = 4;
        if (b0 == 0xF0)
            lo = 0x90; // overlong
        else if (b0 == 0xF4)
            hi = 0x8F; // beyond U+10FFFF
    } else {
        return 0;
    }
    if (i + length > size)
        return 0;
    if (data[i + 1] < lo || data[i + 1] > hi)
        return 0;
    for (int k = 2; k < length; ++k) {
        if (data[i + k] < 0x80 || data[i + k] > 0xBF)
            return 0;
    }
    return length;
}

} // namespace

QString CaseFoldedString(QStringView s)
{
    if (IsAscii(s)) {
        QString folded(s.size(), Qt::Uninitialized);
        char16_t *out = reinterpret_cast<char16_t *>(folded.data());
        for (qsizetype i = 0; i < s.size(); ++i)
            out[i] = AsciiLower(s[i].unicode());
        return folded;
    }
    return s.toString().normalized(QString::NormalizationForm_D).toCaseFolded();
}

KSComparisonResult CaseInsensitiveCompare(QStringView a, QStringView b)
{
    // Fast path: walk while both sides are ASCII. The first non-ASCII unit sends the rest of both
    // strings through normalisation, which gives the same order as folding everything would,
    // because the ASCII prefix folds to itself in either form.
    const qsizetype common = std::min(a.size(), b.size());
    qsizetype i = 0;
    for (; i < common; ++i) {
        const char16_t ca = a[i].unicode(), cb = b[i].unicode();
        if (ca >= 0x80 || cb >= 0x80)
            break;
        const char16_t la = AsciiLower(ca), lb = AsciiLower(cb);
        if (la != lb) {
            // A combining mark after the next unit could still join with this one; only when
            // both remainders are ASCII is the answer final here.
            if (IsAscii(a.sliced(i)) && IsAscii(b.sliced(i)))
                return ResultOf(int(la) - int(lb));
            break;
        }
    }
    if (i == common && IsAscii(a.sliced(i)) && IsAscii(b.sliced(i)))
        return ResultOf(int(a.size() > b.size()) - int(a.size() < b.size()));
    // A base letter and the combining marks after it normalise together: restart one unit back.
    const qsizetype start = i > 0 ? i - 1 : 0;
    const QString fa = CaseFoldedString(a.sliced(start));
    const QString fb = CaseFoldedString(b.sliced(start));
    return ResultOf(QStringView(fa).compare(QStringView(fb), Qt::CaseSensitive));
}

bool CaseInsensitiveFind(QStringView haystack, QStringView needle, KSSearchAnchor anchor)
{
    if (needle.isEmpty())
        return false;
    const QString h = CaseFoldedString(haystack);
    const QString n = CaseFoldedString(needle);
    switch (anchor) {
    case KSSearchAnchor::None:
        return h.contains(n);
    case KSSearchAnchor::Start:
        return h.startsWith(n);
    case KSSearchAnchor::End:
        return h.endsWith(n);
    }
    return false;
}

int TypeOfChar(char16_t unit)
{
    static const std::array<unsigned char, 256> table = [] {
        std::array<unsigned char, 256> t {};
        for (int u = 0; u < 256; ++u)
            t[u] = static_cast<unsigned char>(ClassifyUnit(char16_t(u)));
        return t;
    }();
    return unit < 256 ? table[unit] : ClassifyUnit(unit);
}

QString LastPathComponent(QStringView path)
{
    while (path.size() > 1 && path.endsWith(u'/'))
        path.chop(1);
    const qsizetype slash = path.lastIndexOf(u'/');
    if (slash < 0 || path.size() == 1)
        return path.toString();
    return path.sliced(slash + 1).toString();
}

QString PathExtension(QStringView name)
{
    const QString last = LastPathComponent(name);
    const qsizetype dot = last.lastIndexOf(u'.');
    return dot < 0 ? QString() : last.sliced(dot + 1);
}

QString DeletingPathExtension(QStringView name)
{
    const QString last = LastPathComponent(name);
    const qsizetype dot = last.lastIndexOf(u'.');
    return dot < 0 ? last : last.first(dot);
}

bool PathIsInside(QStringView path, QStringView folder)
{
    while (folder.size() > 1 && folder.endsWith(u'/'))
        folder.chop(1);
    if (!path.startsWith(folder))
        return false;
    return path.size() == folder.size() || folder.endsWith(u'/') || path[folder.size()] == u'/';
}

QString FileNameFromBytes(QByteArrayView bytes)
{
    const auto *data = reinterpret_cast<const unsigned char *>(bytes.data());
    const qsizetype size = bytes.size();
    qsizetype i = 0;
    while (i < size && data[i] < 0x80)
        ++i;
    if (i == size)
        return QString::fromLatin1(bytes.data(), size); // pure ASCII: the common case

    QString out;
    out.reserve(size);
    out.append(QString::fromLatin1(bytes.data(), i));
    // Decoded here rather than by QString::fromUtf8, which drops U+FEFF at the start of a run as
    // a byte-order mark: a name is text, never a stream with a mark.
    while (i < size) {
        const int length = ValidUtf8Length(data, i, size);
        if (length == 0) {
            out.append(QChar(char16_t(0xDC80 + (data[i] - 0x80))));
            ++i;
            continue;
        }
        char32_t code = length == 1 ? data[i] : data[i] & (0x7F >> length);
        for (int k = 1; k < length; ++k)
            code = (code << 6) | (data[i + k] & 0x3F);
        i += length;
        if (code < 0x10000) {
            out.append(QChar(char16_t(code)));
        } else {
            out.append(QChar(QChar::highSurrogate(code)));
            out.append(QChar(QChar::lowSurrogate(code)));
        }
    }
    return out;
}

QByteArray FileNameToBytes(QStringView name)
{
    if (IsAscii(name))
        return name.toLatin1(); // pure ASCII, the common case: one exact allocation
    QByteArray out;
    out.reserve(name.size() * 3);
    const qsizetype size = name.size();
    for (qsizetype i = 0; i < size; ++i) {
        const char16_t u = name[i].unicode();
        if (u < 0x80) {
            out.append(char(u));
        } else if (u >= 0xDC80 && u <= 0xDCFF) {
            out.append(char(u - 0xDC80 + 0x80)); // an escaped byte
        } else if (QChar::isHighSurrogate(u) && i + 1 < size && QChar::isLowSurrogate(name[i + 1].unicode())) {
            out.append(QStringView(name.data() + i, 2).toUtf8());
            ++i;
        } else if (QChar::isSurrogate(u)) {
            out.append('?'); // a lone surrogate that no decoded name can hold
        } else {
            out.append(QStringView(name.data() + i, 1).toUtf8());
        }
    }
    return out;
}
