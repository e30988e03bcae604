#include "help/VLDocumentJson.h"

#include "help/VLHelpEngine.h"
#include "help/VLTopicOutline.h"

#include <QJsonArray>

namespace {

QJsonValue _TopicToJson(const VLTopic &topic)
{
    if (topic.level == 2)
        return topic.name;
    QJsonArray topics;
    for (const VLTopic &child : topic.topics)
        topics.append(_TopicToJson(child));
    return QJsonObject {{QStringLiteral("name"), topic.name}, {QStringLiteral("index"), qint64(topic.index)},
        {QStringLiteral("level"), topic.level}, {QStringLiteral("topics"), topics}};
}

QJsonArray _Starts(const KSArrayCP &starts)
{
    QJsonArray cps;
    for (std::size_t i = 0; i < starts.count(); ++i)
        cps.append(starts.cpAtIndex(i));
    return cps;
}

QJsonArray _Runs(const KSArrayCP &runs)
{
    QJsonArray out;
    for (std::size_t i = 0; i < runs.count(); ++i) {
        qint32 property;
        const qint32 cp = runs.cpGetEntry(&property, i);
        out.append(QJsonArray {cp, property});
    }
    return out;
}

QString _RecordTypeWord(quint32 type)
{
    return type < kRecordTypeCount ? VLWord(VLWordList::RecordType, type) : QString::number(type);
}

QJsonValue _AtomToJson(const void *record, const VLAtom &atom)
{
    switch (atom.kind) {
    case VLValueKind::Colour:
        return qint64(quint32(VLAtomValue(record, atom)));
    case VLValueKind::Characters:
        return VLAtomCharacters(record, atom);
    case VLValueKind::Tab: {
        QJsonArray tabs;
        for (int i = 0; i < VLAtomCount(record, atom); ++i) {
            const VLTabStop tab = VLUnpackTabStop(quint32(VLAtomValue(record, atom, i)));
            tabs.append(QJsonObject {{QStringLiteral("x"), qint64(tab.x)}, {QStringLiteral("align"), qint64(tab.align)},
                {QStringLiteral("lead"), qint64(tab.lead)}});
        }
        return tabs;
    }
    case VLValueKind::Marker: {
        QJsonArray markers;
        for (int i = 0; i < VLAtomCount(record, atom); ++i) {
            const VLListMarker marker = VLAtomMarker(record, atom, i);
            const auto unit = [](char16_t c) { return c ? QString(QChar(c)) : QString(); };
            markers.append(QJsonObject {{QStringLiteral("type"), marker.type}, {QStringLiteral("nof"), marker.nof},
                {QStringLiteral("prefix"), unit(marker.prefix)}, {QStringLiteral("suffix"), unit(marker.suffix)}});
        }
        return markers;
    }
    default:
        return VLAtomValue(record, atom);
    }
}

} // namespace

QJsonObject VLPropertyValuesToJson(const void *record)
{
    QJsonObject values;
    for (const VLAtom &atom : VLAtomsForType(VLRecordHeader(record).type))
        values.insert(VLAtomName(atom), _AtomToJson(record, atom));
    return values;
}

QJsonObject VLDocumentToJson(const VLDocument &document)
{
    QJsonObject json;
    json.insert(QStringLiteral("textLength"), qint64(document.textLength()));
    json.insert(QStringLiteral("firstCount"), qint64(document.firstCount()));
    json.insert(QStringLiteral("text"), document.text().toString());

    QJsonArray chapters;
    for (std::size_t i = 0; i < document.chapterCount(); ++i)
        chapters.append(QJsonObject {{QStringLiteral("index"), qint64(i)},
            {QStringLiteral("cp"), qint64(document.chapterCp(i))}, {QStringLiteral("name"), document.chapterName(i)}});
    json.insert(QStringLiteral("chapters"), chapters);

    QJsonArray outline;
    for (const VLTopic &topic : VLBuildTopicOutline(document).topics)
        outline.append(_TopicToJson(topic));
    json.insert(QStringLiteral("outline"), outline);

    QJsonArray knots;
    for (std::size_t i = 0; i < document.knotCount(); ++i) {
        qint32 cp;
        const VLKnot knot = document.knotAt(i, &cp);
        knots.append(QJsonObject {{QStringLiteral("cp"), cp},
            {QStringLiteral("type"), VLWord(VLWordList::KnotType, knot.type)},
            {QStringLiteral("kink"), VLWord(VLWordList::Kink, knot.kink)}, {QStringLiteral("property"), knot.property},
            {QStringLiteral("primary"), knot.primary}, {QStringLiteral("secondary"), knot.secondary},
            {QStringLiteral("variable"), knot.variable}, {QStringLiteral("opacity"), knot.opacity}});
    }
    json.insert(QStringLiteral("knots"), knots);
    json.insert(QStringLiteral("bookmarks"), _Starts(document.bookmarkStarts()));
    json.insert(QStringLiteral("lists"), _Starts(document.listStarts()));
    json.insert(QStringLiteral("tables"), _Starts(document.tableStarts()));
    json.insert(QStringLiteral("variableMask"), qint64(document.variableMask()));

    QJsonArray pictures;
    for (std::size_t i = 0; i < document.pictureCount(); ++i) {
        const VLPicture *picture = document.picture(i);
        pictures.append(QJsonObject {{QStringLiteral("name"), picture->name ? *picture->name : QString()},
            {QStringLiteral("file"), picture->fileName ? *picture->fileName : QString()},
            {QStringLiteral("loaded"), picture->image && !picture->image->caution}});
    }
    json.insert(QStringLiteral("pictures"), pictures);

    QJsonArray styles;
    for (std::size_t i = 0; i < document.styles().count(); ++i) {
        const VLStyle style = document.styleAt(i);
        styles.append(QJsonObject {{QStringLiteral("name"), document.styleName(i)}, {QStringLiteral("bin"), style.bin},
            {QStringLiteral("type"), _RecordTypeWord(style.type)}, {QStringLiteral("base"), style.base},
            {QStringLiteral("next"), style.next}, {QStringLiteral("prop"), style.prop},
            {QStringLiteral("char"), style.charProp}});
    }
    json.insert(QStringLiteral("styles"), styles);

    QJsonArray properties;
    for (std::size_t i = 0; i < document.propertyCount(); ++i) {
        const void *record = document.property(qint64(i));
        properties.append(QJsonObject {{QStringLiteral("index"), VLRecordHeader(record).index},
            {QStringLiteral("type"), _RecordTypeWord(VLRecordHeader(record).type)},
            {QStringLiteral("values"), VLPropertyValuesToJson(record)}});
    }
    json.insert(QStringLiteral("properties"), properties);
    json.insert(QStringLiteral("charRuns"), _Runs(document.charRuns()));
    json.insert(QStringLiteral("paraRuns"), _Runs(document.paraRuns()));
    json.insert(QStringLiteral("normalChapter"), document.normalChapter());
    json.insert(QStringLiteral("normalTable"), document.normalTable());
    json.insert(QStringLiteral("normalList"), document.normalList());

    QJsonArray fonts;
    for (quint32 font : document.fontMap())
        fonts.append(VLFontName(font));
    json.insert(QStringLiteral("fonts"), fonts);
    return json;
}
