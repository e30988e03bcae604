// The library's printf-like formatter. Conversions: %d %i %u %x %X %o (with h, l, ll, q, z
// length modifiers, all accepted and ignored since arguments carry their own type), %f %e %g,
// %s (UTF-8 C string), %@ (QString), %C (UTF-16 unit), %c, %%. Flags "-+ #0" work as in printf;
// the "," flag, which may stand anywhere before the conversion ("%,d", "%.2,f"), groups
// thousands with the current locale's separators. A missing or mismatched argument writes
// nothing for that conversion rather than reading garbage. Thread-safe.
#pragma once

#include <QString>

#include <array>
#include <concepts>
#include <span>
#include <string_view>

struct KSFormatArg {
    enum Kind { Signed, Unsigned, Double, CString, String, Unit } kind;
    union {
        long long i;
        unsigned long long u;
        double d;
        const char *s;
        const QString *q;
        char16_t c;
    };

    template <std::signed_integral T> KSFormatArg(T v) : kind(Signed), i(v) { }
    template <std::unsigned_integral T> KSFormatArg(T v) : kind(Unsigned), u(v) { }
    KSFormatArg(bool v) : kind(Signed), i(v ? 1 : 0) { }
    KSFormatArg(char16_t v) : kind(Unit), c(v) { }
    KSFormatArg(QChar v) : kind(Unit), c(v.unicode()) { }
    KSFormatArg(double v) : kind(Double), d(v) { }
    KSFormatArg(float v) : kind(Double), d(v) { }
    KSFormatArg(const char *v) : kind(CString), s(v) { }
    KSFormatArg(const QString &v) : kind(String), q(&v) { }
};

QString FormatStringCore(std::string_view format, std::span<const KSFormatArg> args);

template <typename... Args> QString FormatString(std::string_view format, const Args &...args)
{
    const std::array<KSFormatArg, sizeof...(Args)> packed {KSFormatArg(args)...};
    return FormatStringCore(format, packed);
}

// A byte count in decimal units: "0 KB", "1.50 KB", "2 MB", "1,000.00 KB" for 999,999.
QString FileSizeString(long long bytes);
