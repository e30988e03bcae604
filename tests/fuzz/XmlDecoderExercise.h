// Drives a KSXmlDecoder over one input the way the help reader and the picture reader call it,
// in an order chosen by the input itself, and checks the reader's promises on the way. Shared by
// the fuzz target and the regression test, so that every saved crash replays exactly.
#pragma once

#include "keelson/KSStringKeelson.h"
#include "keelson/KSStrings.h"
#include "keelson/KSXmlDecoder.h"

#include <QByteArray>
#include <QString>
#include <QStringDecoder>

#include <cstdint>

namespace tanner::test {

// Empty when all went well, else the promise that was broken.
inline QString ExerciseXmlDecoder(const QByteArray &input)
{
    static const bool vocabulary = [] {
        const char *names[] = {"velluma", "format", "structure", "text", "run", "knot", "knots", "prop", "p", "b",
            "svg", "g", "a", "x", "1a"};
        quint32 key = 1000;
        for (const char *name : names)
            KSXmlDecoder::addDecoderKey(key++, QString::fromLatin1(name));
        return true;
    }();
    Q_UNUSED(vocabulary);

    // The options and the order of calls come from the input, so a saved input replays the same calls.
    quint32 state = 2166136261u;
    for (const char byte : input)
        state = (state ^ quint8(byte)) * 16777619u;
    auto nextChoice = [&state](quint32 range) {
        state = state * 1664525u + 1013904223u;
        return (state >> 16) % range;
    };

    QStringDecoder toUtf16(QStringDecoder::Utf8);
    QString text = toUtf16(input);
    if (toUtf16.hasError())
        text = FileNameFromBytes(input); // every byte survives, invalid ones as lone surrogates

    static constexpr QStringView kTable[] = {u"", u"left", u"CENTER", u"right", u"é"};
    if (KSXmlDecoder::decodeValue(text, kTable) >= int(std::size(kTable)))
        return QStringLiteral("decodeValue answered outside its table");
    const QString decoded = KSXmlDecoder::decodeEscapes(text);
    if (decoded.size() > text.size())
        return QStringLiteral("decodeEscapes made the text longer");
    QString unescaped = text;
    UnescapeForHtml(unescaped);
    if (unescaped.size() > text.size())
        return QStringLiteral("UnescapeForHtml made the text longer");

    std::unique_ptr<KSXmlDecoder> decoder
        = nextChoice(2) ? KSXmlDecoder::initWithStringOrData(input) : KSXmlDecoder::initWithString(text);
    if (!decoder)
        return {};
    decoder->setAllowNumericTags(nextChoice(2));
    decoder->setAllowSpaceInAttr(nextChoice(2));
    if (nextChoice(4) == 0) // its own map, where different names share a number
        decoder->setKeyDecoder(KSXmlDecoder::KeyMap {{QStringLiteral("p"), 7}, {QStringLiteral("b"), 7}});

    // Every tag that getNextTag answers moves the reader forward at least one unit.
    const qsizetype limit = text.size() + 2;
    for (qsizetype tags = 0; decoder->getNextTag(); ++tags) {
        if (tags > limit)
            return QStringLiteral("getNextTag answered more tags than the text has units");
        switch (nextChoice(12)) {
        case 0: {
            const QString tag = decoder->xmlTag();
            const quint32 key = decoder->key();
            const QString value = decoder->value();
            const qsizetype level = decoder->level();
            const bool endTag = decoder->endTag();
            const KSXmlDecoder::Attributes attributes = decoder->attributes();
            KSXmlDecoder::Attributes following;
            QString followingValue;
            decoder->followingTagWithAttributes(&following, &followingValue);
            if (decoder->error().isEmpty()
                && (tag != decoder->xmlTag() || key != decoder->key() || value != decoder->value()
                    || level != decoder->level() || endTag != decoder->endTag() || attributes != decoder->attributes()))
                return QStringLiteral("followingTagWithAttributes did not restore the current tag");
            break;
        }
        case 1:
            if (decoder->startTag() && !decoder->endTag())
                decoder->skipTag();
            break;
        case 2:
            decoder->extractTag();
            break;
        case 3:
            decoder->coalesceMixedContent();
            break;
        case 4:
            decoder->skipToTag(decoder->xmlTag());
            break;
        case 5:
            decoder->integerValue();
            decoder->decodeValue();
            decoder->decodeValueFromValues(kTable);
            decoder->integerAttributeForTag(QStringLiteral("x"));
            decoder->decodeAttribute(QStringLiteral("y"), kTable);
            if (decoder->orderedAttributes().size() != (decoder->orderedAttributes().size() / 2) * 2)
                return QStringLiteral("orderedAttributes holds a name without a value");
            break;
        default:
            break;
        }
    }
    return {};
}

} // namespace tanner::test
