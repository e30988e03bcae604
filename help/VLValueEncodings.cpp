// The value encodings of the help files that are not plain integers or words.
#include "help/VLHelpReader.h"

#include "keelson/KSXmlDecoder.h"

Kolor VLReadKolor(QStringView text)
{
    if (text.size() < 9)
        return kKolorWhiteMalformed;
    const QList<QStringView> parts = text.sliced(1, text.size() - 2).split(u", ");
    if (parts.size() < 3)
        return kKolorWhiteMalformed;
    const auto part = [&parts](int i) { return quint32(KSXmlDecoder::integerReading(parts[i])) & 0xFF; };
    const quint32 opacity = parts.size() > 3 ? part(3) : 100;
    return part(0) | part(1) << 8 | part(2) << 16 | opacity << 24;
}

bool VLReadNumberPair(QStringView text, qint64 *first, qint64 *second)
{
    const QList<QStringView> parts = text.split(u',');
    if (parts.size() != 2)
        return false;
    *first = KSXmlDecoder::integerReading(parts[0]);
    *second = KSXmlDecoder::integerReading(parts[1]);
    return true;
}

qint32 VLLevelCode(qint64 n)
{
    if (n == 17)
        return 17;
    return 17 + qint32(std::min<quint64>(quint64(n - 1), 3));
}
