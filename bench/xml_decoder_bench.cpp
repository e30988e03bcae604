// Reads a generated 5 MB help document (single-file form: formats, knots and text runs) with
// KSXmlDecoder and with Qt's QXmlStreamReader, and prints both times and their ratio. Each reader
// does what a loader does: switch on the tag, read attributes and text.
// Usage: xml_decoder_bench [megabytes] [rounds]
#include "keelson/KSXmlDecoder.h"

#include <QElapsedTimer>
#include <QString>
#include <QXmlStreamReader>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

const char *const kVocabulary[] = {"velluma", "ver", "format", "fonts", "f", "properties", "prop", "bold", "italic",
    "size", "color", "font", "align", "indentl", "tab", "styles", "style", "next", "char", "para", "r", "structure",
    "length", "knots", "knot", "lev", "class", "type", "value", "text", "run", "k0", "k1"};

QString HelpDocument(qsizetype targetUnits)
{
    QString xml;
    xml.reserve(targetUnits + 4096);
    xml += u"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!-- generated help document -->\n<velluma>\n<ver>2</ver>\n"
           u"<format>\n<ver>2</ver>\n<fonts><f>Helvetica</f><f>Menlo</f></fonts>\n<properties>\n";
    const qsizetype quarter = targetUnits / 4;
    for (int i = 0; xml.size() < quarter; ++i) {
        xml += QStringLiteral("<prop type=\"%1\"><bold>%2</bold><size>%3</size><color>(%4, 20, 30)</color>"
                              "<align>justify</align><indentl>%5</indentl><tab x=\"%6\" align=\"decimal\" "
                              "lead=\"Dots\"/></prop>\n")
                   .arg(i % 2 ? u"char" : u"para")
                   .arg(i % 2)
                   .arg(9 + i % 12)
                   .arg(i % 256)
                   .arg(i % 72)
                   .arg(i * 3);
    }
    xml += u"</properties>\n<char>\n";
    for (int i = 0; xml.size() < 2 * quarter; ++i)
        xml += QStringLiteral("<r>%1,%2</r>\n").arg(i * 17).arg(i % 100);
    xml += u"</char>\n</format>\n<structure>\n<length>1,100000</length>\n<knots>\n";
    for (int i = 0; xml.size() < 3 * quarter; ++i)
        xml += QStringLiteral("<knot cp=\"%1\" type=\"chapter\" kink=\"beg\"><lev>%2</lev><class>%3</class></knot>\n")
                   .arg(i * 31)
                   .arg(1 + i % 4)
                   .arg(i);
    xml += u"</knots>\n</structure>\n<text>\n";
    for (int i = 0; xml.size() < targetUnits; ++i)
        xml += QStringLiteral("<run>Chapter %1: back up your folders &amp; rules to a device&#x2014;then "
                              "compare &lt;source&gt; and mirror.</run><k0/>\n")
                   .arg(i);
    xml += u"</text>\n</velluma>\n";
    return xml;
}

// Answers a checksum so that the work cannot be optimised away.
quint64 ReadWithDecoder(const QString &xml)
{
    std::unique_ptr<KSXmlDecoder> decoder = KSXmlDecoder::initWithString(xml);
    quint64 sum = 0;
    while (decoder->getNextTag()) {
        sum += decoder->key() + quint64(decoder->value().size());
        if (decoder->tagHasAttributes())
            sum += quint64(decoder->integerAttributeForTag(QStringLiteral("cp")));
    }
    if (!decoder->error().isEmpty())
        std::fprintf(stderr, "decoder: %s\n", decoder->error().toUtf8().constData());
    return sum;
}

quint64 ReadWithStreamReader(const QString &xml, const QHash<QString, quint32> &keys)
{
    QXmlStreamReader reader(xml);
    quint64 sum = 0;
    while (!reader.atEnd()) {
        switch (reader.readNext()) {
        case QXmlStreamReader::StartElement: {
            sum += keys.value(reader.name().toString(), 0);
            const QXmlStreamAttributes attributes = reader.attributes();
            if (!attributes.isEmpty())
                sum += quint64(attributes.value(QLatin1StringView("cp")).toLongLong());
            break;
        }
        case QXmlStreamReader::Characters:
            sum += quint64(reader.text().size());
            break;
        default:
            break;
        }
    }
    if (reader.hasError())
        std::fprintf(stderr, "QXmlStreamReader: %s\n", reader.errorString().toUtf8().constData());
    return sum;
}

template <typename Read> double BestMilliseconds(int rounds, Read read, quint64 *checksum)
{
    std::vector<double> times;
    for (int round = 0; round < rounds; ++round) {
        QElapsedTimer timer;
        timer.start();
        *checksum += read();
        times.push_back(double(timer.nsecsElapsed()) / 1e6);
    }
    return *std::min_element(times.begin(), times.end());
}

} // namespace

int main(int argc, char **argv)
{
    const double megabytes = argc > 1 ? std::atof(argv[1]) : 5.0;
    const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 7;
    quint32 key = 1000;
    QHash<QString, quint32> keys;
    for (const char *name : kVocabulary) {
        KSXmlDecoder::addDecoderKey(key, QString::fromLatin1(name));
        keys.insert(QString::fromLatin1(name), key++);
    }

    const QString xml = HelpDocument(qsizetype(megabytes * 1000 * 1000));
    quint64 checksum = 0;
    const double decoderMs = BestMilliseconds(
        rounds, [&] { return ReadWithDecoder(xml); }, &checksum);
    const double qtMs = BestMilliseconds(
        rounds, [&] { return ReadWithStreamReader(xml, keys); }, &checksum);
    std::printf("document: %.2f MB (%lld UTF-16 units), best of %d rounds\n", double(xml.size()) / 1e6,
        static_cast<long long>(xml.size()), rounds);
    std::printf("KSXmlDecoder:     %8.1f ms\n", decoderMs);
    std::printf("QXmlStreamReader: %8.1f ms\n", qtMs);
    std::printf("ratio (KSXmlDecoder / QXmlStreamReader): %.2f  [checksum %llu]\n", decoderMs / qtMs,
        static_cast<unsigned long long>(checksum));
    return 0;
}
