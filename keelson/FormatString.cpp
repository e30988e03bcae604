#include "keelson/FormatString.h"

#include <QLocale>

#include <cmath>
#include <cstdio>

namespace {

struct Directive {
    std::string flags; // printf flags other than ","
    int width = -1;
    int precision = -1;
    bool group = false;
    char conversion = 0;
};

// Inserts the locale's group separator into the run of digits that starts at `digitsStart`.
QString GroupDigits(const QString &text, qsizetype digitsStart)
{
    const QLocale locale;
    qsizetype end = digitsStart;
    while (end < text.size() && text[end].isDigit())
        ++end;
    QString out = text.first(digitsStart);
    const qsizetype count = end - digitsStart;
    for (qsizetype k = 0; k < count; ++k) {
        if (k > 0 && (count - k) % 3 == 0)
            out += locale.groupSeparator();
        out += text[digitsStart + k];
    }
    QString rest = text.sliced(end);
    if (rest.startsWith(u'.'))
        rest.replace(0, 1, locale.decimalPoint());
    return out + rest;
}

// Applies width and the "-" flag to text that was formatted without them.
QString Pad(QString text, const Directive &directive)
{
    if (directive.width > text.size()) {
        const qsizetype fill = directive.width - text.size();
        if (directive.flags.find('-') != std::string::npos)
            text += QString(fill, u' ');
        else
            text.prepend(QString(fill, u' '));
    }
    return text;
}

QString FormatNumber(const Directive &directive, const KSFormatArg &arg)
{
    std::string format = "%" + directive.flags;
    if (directive.group) {
        // Width is applied after grouping, so that separators count towards it.
        std::erase(format, '0');
    } else if (directive.width >= 0) {
        format += std::to_string(directive.width);
    }
    if (directive.precision >= 0)
        format += "." + std::to_string(directive.precision);

    char buffer[512];
    const char c = directive.conversion;
    if (c == 'f' || c == 'F' || c == 'e' || c == 'E' || c == 'g' || c == 'G') {
        double value = arg.kind == KSFormatArg::Double ? arg.d
            : arg.kind == KSFormatArg::Signed          ? double(arg.i)
            : arg.kind == KSFormatArg::Unsigned        ? double(arg.u)
                                                       : 0.0;
        format += c;
        std::snprintf(buffer, sizeof buffer, format.c_str(), value);
    } else {
        const bool isSigned = c == 'd' || c == 'i';
        format += "ll";
        format += c;
        if (arg.kind == KSFormatArg::Double) {
            std::snprintf(buffer, sizeof buffer, format.c_str(), static_cast<long long>(arg.d));
        } else if (isSigned) {
            std::snprintf(buffer, sizeof buffer, format.c_str(),
                arg.kind == KSFormatArg::Unsigned ? static_cast<long long>(arg.u) : arg.i);
        } else {
            std::snprintf(buffer, sizeof buffer, format.c_str(),
                arg.kind == KSFormatArg::Signed ? static_cast<unsigned long long>(arg.i) : arg.u);
        }
    }
    QString text = QString::fromLatin1(buffer);
    if (directive.group && (c == 'd' || c == 'i' || c == 'u' || c == 'f' || c == 'F')) {
        qsizetype digits = 0;
        while (digits < text.size() && !text[digits].isDigit())
            ++digits;
        text = GroupDigits(text, digits);
        return Pad(text, directive);
    }
    return text;
}

} // namespace

QString FormatStringCore(std::string_view format, std::span<const KSFormatArg> args)
{
    QString out;
    out.reserve(qsizetype(format.size()) + 16);
    std::size_t next = 0;
    std::size_t literalStart = 0;
    auto flushLiteral = [&](std::size_t end) {
        if (end > literalStart)
            out += QString::fromUtf8(format.data() + literalStart, qsizetype(end - literalStart));
    };

    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%')
            continue;
        flushLiteral(i);
        std::size_t j = i + 1;
        Directive directive;
        // Flags, width, precision and length modifiers, with "," accepted anywhere among them.
        for (; j < format.size(); ++j) {
            const char ch = format[j];
            if (ch == ',') {
                directive.group = true;
            } else if ((ch == '-' || ch == '+' || ch == ' ' || ch == '#' || ch == '0') && directive.width < 0
                && directive.precision < 0) {
                directive.flags += ch;
            } else if (ch >= '0' && ch <= '9') {
                int &target = directive.precision >= 0 ? directive.precision : directive.width;
                target = (target < 0 ? 0 : target) * 10 + (ch - '0');
                if (target > 200)
                    target = 200;
            } else if (ch == '.') {
                directive.precision = 0;
            } else if (ch == 'l' || ch == 'h' || ch == 'q' || ch == 'z' || ch == 'j' || ch == 't' || ch == 'L') {
                // Arguments carry their own width.
            } else {
                break;
            }
        }
        if (j >= format.size()) {
            literalStart = format.size();
            break;
        }
        directive.conversion = format[j];
        i = j;
        literalStart = j + 1;

        if (directive.conversion == '%') {
            out += u'%';
            continue;
        }
        if (next >= args.size())
            continue;
        const KSFormatArg &arg = args[next++];
        switch (directive.conversion) {
        case '@':
            if (arg.kind == KSFormatArg::String)
                out += Pad(*arg.q, directive);
            else if (arg.kind == KSFormatArg::CString && arg.s)
                out += Pad(QString::fromUtf8(arg.s), directive);
            break;
        case 's':
            if (arg.kind == KSFormatArg::CString && arg.s)
                out += Pad(QString::fromUtf8(arg.s), directive);
            else if (arg.kind == KSFormatArg::String)
                out += Pad(*arg.q, directive);
            break;
        case 'C':
        case 'c':
            if (arg.kind == KSFormatArg::Unit)
                out += QChar(arg.c);
            else if (arg.kind == KSFormatArg::Signed || arg.kind == KSFormatArg::Unsigned)
                out += QChar(char16_t(arg.u & 0xFFFF));
            break;
        case 'd':
        case 'i':
        case 'u':
        case 'x':
        case 'X':
        case 'o':
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
            if (arg.kind == KSFormatArg::Signed || arg.kind == KSFormatArg::Unsigned || arg.kind == KSFormatArg::Double)
                out += FormatNumber(directive, arg);
            break;
        default:
            break; // unknown conversion: its argument is consumed and nothing is written
        }
    }
    flushLiteral(format.size());
    return out;
}

QString FileSizeString(long long bytes)
{
    // Single precision on purpose: the unit is chosen on the count, the rounding comes after.
    const unsigned long long count = static_cast<unsigned long long>(bytes);
    const float value = static_cast<float>(count);
    float quotient;
    const char *unit;
    if (count < 1000000ULL) {
        quotient = value / 1000.0f;
        unit = "KB";
    } else if (count < 1000000000ULL) {
        quotient = value / 1.0e6f;
        unit = "MB";
    } else if (count < 1000000000000ULL) {
        quotient = value / 1.0e9f;
        unit = "GB";
    } else {
        quotient = value / 1.0e12f;
        unit = "TB";
    }
    if (quotient == std::floor(quotient))
        return FormatString("%.0,f %@", double(quotient), QString::fromLatin1(unit));
    return FormatString("%.2,f %@", double(quotient), QString::fromLatin1(unit));
}
