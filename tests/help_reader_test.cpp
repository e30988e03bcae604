// The help engine: the vocabulary, the package reader on the fixture package and single file in
// tests/data/help (and damaged copies of them made in a temporary folder), the document model's
// queries on what was loaded, and `tanner-backup help --check`.
#include "help/VLDocumentJson.h"
#include "help/VLHelpEngine.h"
#include "help/VLHelpReader.h"
#include "help/VLTopicOutline.h"
#include "keelson/KSLog.h"
#include "keelson/KSXmlDecoder.h"
#include "tests/fuzz/HelpReaderExercise.h"
#include "tests/support/TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include <functional>
#include <sys/stat.h>
#include <sys/sysmacros.h>

using namespace tanner::test;

namespace {

const QString kData = QStringLiteral(TANNER_TEST_DATA_DIR "/help");

QByteArray ReadAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void WriteAll(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    file.write(bytes);
}

void CopyFolder(const QString &from, const QString &to)
{
    QDir().mkpath(to);
    QDirIterator it(from, QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        const QString target = to + path.mid(from.size());
        if (it.fileInfo().isDir())
            QDir().mkpath(target);
        else
            QFile::copy(path, target);
    }
}

void Replace(const QString &path, const QByteArray &before, const QByteArray &after)
{
    QByteArray bytes = ReadAll(path);
    ASSERT_TRUE(bytes.contains(before)) << path.toStdString() << " lacks " << before.toStdString();
    WriteAll(path, bytes.replace(before, after));
}

class HelpReader : public testing::Test {
protected:
    static void SetUpTestSuite() { ASSERT_TRUE(VLSetUpHelpEngine()); }
    void SetUp() override
    {
        SetLogSink([this](const QString &line) { m_log.append(line); });
        ASSERT_TRUE(m_dir.isValid());
    }
    void TearDown() override { SetLogSink({}); }

    // A copy of the fixture package in the temporary folder.
    QString package()
    {
        const QString path = m_dir.path() + QStringLiteral("/Copy.twwrite"); // the extension in any case
        if (!QFileInfo::exists(path))
            CopyFolder(kData + QStringLiteral("/Good.TWwrite"), path);
        return path;
    }
    QString singleFile()
    {
        const QString path = m_dir.path() + QStringLiteral("/copy.xml");
        if (!QFileInfo::exists(path))
            QFile::copy(kData + QStringLiteral("/good.xml"), path);
        return path;
    }

    QTemporaryDir m_dir;
    QStringList m_log;
};

qint32 Primary(const VLDocument &document, qint32 atCp)
{
    for (std::size_t i = 0; i < document.knotCount(); ++i) {
        qint32 cp;
        const VLKnot knot = document.knotAt(i, &cp);
        if (cp == atCp)
            return knot.primary;
    }
    return INT32_MIN;
}

VLKnot KnotAt(const VLDocument &document, qint32 atCp)
{
    for (std::size_t i = 0; i < document.knotCount(); ++i) {
        qint32 cp;
        const VLKnot knot = document.knotAt(i, &cp);
        if (cp == atCp)
            return knot;
    }
    ADD_FAILURE() << "no knot at " << atCp;
    return {};
}

qint64 Value(const VLDocument &document, qint64 record, const char *element)
{
    const void *p = document.property(record);
    if (!p)
        return INT64_MIN;
    const quint32 type = VLRecordHeader(p).type;
    const VLAtom *atom = VLAtomForTag(type, VLDocumentKeyDecoder().value(QString::fromLatin1(element)));
    return atom ? VLAtomValue(p, *atom) : INT64_MIN;
}

} // namespace

TEST_F(HelpReader, VocabularyHasItsExactNumbersAndIsTheDecodersClassMap)
{
    EXPECT_EQ(VLElementNames().size(), 87u);
    EXPECT_EQ(VLPropertyNames().size(), 135u);
    const QHash<QString, quint32> decoder = VLDocumentKeyDecoder();
    const QHash<quint32, QString> encoder = VLDocumentKeyEncoder();
    EXPECT_EQ(decoder.size(), 87 + 135);
    EXPECT_EQ(encoder.size(), 135);
    QSet<quint32> numbers;
    for (const quint32 n : decoder)
        numbers.insert(n);
    for (quint32 n = 1000; n <= 1224; ++n)
        EXPECT_EQ(numbers.contains(n), n != 1021 && n != 1078 && n != 1182) << n;
    EXPECT_EQ(decoder.value(QStringLiteral("lead")), 1168u);
    EXPECT_FALSE(encoder.contains(1168));
    EXPECT_EQ(decoder.value(QStringLiteral("c1")), 1112u);
    EXPECT_EQ(decoder.value(QStringLiteral("c25")), 1136u);
    EXPECT_EQ(encoder.value(1224), QStringLiteral("ypos"));
    EXPECT_EQ(decoder.value(QStringLiteral("zoom")), 1087u);
    EXPECT_EQ(KSXmlDecoder::classKeyDecoder(), decoder);

    // Every atom is carried by an element of the vocabulary, once per record type, inside the record.
    for (quint32 type = 0; type < kRecordTypeCount; ++type) {
        QSet<quint32> tags;
        for (const VLAtom &atom : VLAtomsForType(type)) {
            EXPECT_FALSE(VLAtomName(atom).isEmpty()) << type << " " << atom.description;
            EXPECT_FALSE(tags.contains(atom.tag)) << type << " " << atom.tag;
            tags.insert(atom.tag);
            const int count = atom.slotCount > 1 ? 1 : 0;
            EXPECT_LE(atom.offset + count + atom.width * atom.slotCount, kVLPropertyRecordSize);
        }
    }
    EXPECT_EQ(VLAtomsForType(kRecordChar).size(), 17u);
    EXPECT_EQ(VLAtomsForType(kRecordBorder).size(), 8u);
    EXPECT_TRUE(VLAtomsForType(kRecordNone).empty());
    EXPECT_EQ(VLCharacterFormatNamed(u"NO LEADING"), VLAtomForTag(kRecordChar, 1160));
    EXPECT_EQ(VLCharacterFormatNamed(u"Underline"), VLAtomForTag(kRecordChar, 1215));
    EXPECT_EQ(VLCharacterFormatNamed(u"size"), nullptr);
}

TEST_F(HelpReader, ValueEncodings)
{
    EXPECT_EQ(VLReadKolor(u"(10, 20, 30)"), 0x641E140Au);
    EXPECT_EQ(VLReadKolor(u"(10,20,30)"), kKolorWhiteMalformed);
    EXPECT_EQ(VLReadKolor(u"(1, 2)"), kKolorWhiteMalformed);
    EXPECT_EQ(VLReadKolor(u"(1, 2, 3, 50)"), 0x32030201u);
    EXPECT_EQ(VLReadKolor(u"(257, 2, 3, 7, 9)"), 0x07030201u); // low 8 bits of each part
    const qint64 n[] = {1, 2, 3, 4, 17, 0, 18, -5};
    const qint32 code[] = {17, 18, 19, 20, 17, 20, 20, 20};
    for (std::size_t i = 0; i < std::size(n); ++i)
        EXPECT_EQ(VLLevelCode(n[i]), code[i]) << n[i];
    qint64 a = 0, b = 0;
    EXPECT_TRUE(VLReadNumberPair(u" 7, 12x", &a, &b));
    EXPECT_EQ(a, 7);
    EXPECT_EQ(b, 12);
    EXPECT_FALSE(VLReadNumberPair(u"1,2,3", &a, &b));
    EXPECT_FALSE(VLReadNumberPair(u"12", &a, &b));
    EXPECT_EQ(VLUnpackTabStop(VLPackTabStop({0x1FFFFFF, 4, 5})).x, 0x1FFFFFFu);
    EXPECT_EQ(VLPackTabStop({72, 3, 1}), 72u | 1u << 25 | 3u << 28);
}

TEST_F(HelpReader, PackageLoadsWithEveryKnotPropertyAndPicture)
{
    VLLoadFailure failure;
    const std::unique_ptr<VLDocument> document = VLLoadHelpDocument(package(), &failure);
    ASSERT_TRUE(document) << failure.reason.toStdString() << " / " << failure.detail.toStdString();
    const VLDocument &d = *document;

    // The text, with the unknown knot at 62 removed and a space in its place.
    EXPECT_EQ(d.textLength(), 154u);
    EXPECT_EQ(d.firstCount(), 7u);
    EXPECT_EQ(d.rawText(57, 13), QStringLiteral("Press Backup."));
    EXPECT_EQ(d.knotCount(), 19u);
    EXPECT_EQ(d.plainText(0, 31), QStringLiteral("Welcome\nTanner Backup keeps y"));
    EXPECT_EQ(d.selectionStart(), 154u);
    EXPECT_EQ(d.selectionEnd(), 0u);
    EXPECT_TRUE(d.isLocked());
    EXPECT_EQ(d.viewExtent(0), 864u);

    // Knots: heading levels 1, 2, 3, 4, 17, 0 -> 17, 18, 19, 20, 17, 20; the defaults and children.
    ASSERT_EQ(d.chapterCount(), 6u);
    const qint32 levels[] = {17, 18, 19, 20, 17, 20};
    for (std::size_t i = 0; i < 6; ++i)
        EXPECT_EQ(Primary(d, qint32(d.chapterCp(i))), levels[i]) << i;
    EXPECT_EQ(KnotAt(d, 0).property, 3);
    EXPECT_EQ(KnotAt(d, 28).type, quint32(kKnotPic));
    EXPECT_EQ(KnotAt(d, 135).primary, -1); // a row that does not begin
    EXPECT_EQ(KnotAt(d, 136).primary, 0);
    const VLKnot variable = KnotAt(d, 100);
    EXPECT_EQ(variable.secondary, -1);
    EXPECT_EQ(variable.primary, 10);
    EXPECT_EQ(variable.variable, 2);
    EXPECT_EQ(d.variableMask(), 1u << 10);
    EXPECT_EQ(KnotAt(d, 144).primary, 1); // checkbox value 257 in the low byte
    EXPECT_EQ(KnotAt(d, 145).primary, 6); // divider "circle"
    const VLKnot tag = KnotAt(d, 146);
    EXPECT_EQ(quint32(tag.primary), 0x641E140Au);
    EXPECT_EQ(tag.opacity, 50);
    EXPECT_EQ(tag.secondary, 3);
    EXPECT_EQ(tag.kink, quint32(kKinkVaCenter));
    EXPECT_EQ(KnotAt(d, 147).secondary, 44); // magic 300 in the low byte
    EXPECT_EQ(KnotAt(d, 147).variable, 150);
    EXPECT_EQ(d.knotIndexAt(146), 16u);
    EXPECT_EQ(d.knotIndexAt(62), KSNotFound); // the unknown knot's place
    EXPECT_EQ(d.knotIndexAt(154), KSNotFound);

    // Start lists and bookmark identifiers (one per bookmark, unique).
    EXPECT_EQ(d.bookmarkStarts().count(), 2u);
    EXPECT_EQ(d.bookmarkStarts().cpAtIndex(1), 148);
    EXPECT_EQ(d.listStarts().cpAtIndex(0), 133);
    EXPECT_EQ(d.tableStarts().cpAtIndex(0), 134);
    ASSERT_EQ(d.bookmarkIds().count(), 2u);
    EXPECT_NE(*d.bookmarkIds().stringAtIndex(0), *d.bookmarkIds().stringAtIndex(1));

    // Chapters and the outline.
    EXPECT_EQ(d.chapterName(1), QStringLiteral("\tBacking up"));
    EXPECT_EQ(d.chapterName(6), QString());
    const VLTopicOutline outline = VLBuildTopicOutline(d);
    ASSERT_EQ(outline.topics.size(), 4u);
    EXPECT_EQ(outline.topics[0].topics[0].name, QStringLiteral("Backing up"));
    EXPECT_EQ(outline.topics[0].topics[0].topics[0].name, QStringLiteral("Choosing a device"));
    EXPECT_EQ(outline.topics[0].topics[0].topics[0].level, 2);

    // Styles: "Normal" moved to index 0 (bin 254 by default), the references following it.
    ASSERT_EQ(d.styles().count(), 2u);
    EXPECT_EQ(d.styleName(0), QStringLiteral("Normal"));
    EXPECT_EQ(d.styleAt(0).bin, 254);
    EXPECT_EQ(d.styleAt(1).bin, 3);
    EXPECT_EQ(d.styleAt(1).next, 0);

    // Property records.
    ASSERT_EQ(d.propertyCount(), 8u);
    EXPECT_EQ(Value(d, 0, "underline"), 3); // "double", any case
    EXPECT_EQ(Value(d, 0, "caps"), 3); // "SMALL"
    EXPECT_EQ(Value(d, 0, "relsize"), 80); // read after an unknown element with children
    EXPECT_EQ(d.fontMap().size(), 2u);
    EXPECT_EQ(Value(d, 0, "font"), qint64(VLFontIndexForName(QStringLiteral("Menlo"))));
    EXPECT_EQ(Value(d, 1, "font"), 0); // beyond the map
    EXPECT_EQ(quint32(Value(d, 1, "color")), kKolorWhiteMalformed);
    EXPECT_EQ(Value(d, 1, "italic"), 1);
    EXPECT_EQ(Value(d, 2, "align"), 2);
    EXPECT_EQ(Value(d, 2, "format1"), VLAtomForTag(kRecordChar, 1197)->id);
    const void *para = d.property(2, kRecordPara);
    const VLAtom &tabs = *VLAtomForTag(kRecordPara, 1206);
    ASSERT_EQ(VLAtomCount(para, tabs), 25); // 27 given, at most 25 kept
    EXPECT_EQ(VLUnpackTabStop(quint32(VLAtomValue(para, tabs, 1))).x, 1u); // 25 bits
    EXPECT_EQ(VLUnpackTabStop(quint32(VLAtomValue(para, tabs, 1))).align, 4u);
    EXPECT_EQ(VLUnpackTabStop(quint32(VLAtomValue(para, tabs, 1))).lead, 5u);
    EXPECT_EQ(VLAtomCharacters(para, *VLAtomForTag(kRecordPara, 1189)), QStringLiteral("."));
    EXPECT_EQ(VLAtomCharacters(para, *VLAtomForTag(kRecordPara, 1202)), QString());
    EXPECT_EQ(Value(d, 3, "cols"), 2);
    EXPECT_EQ(Value(d, 4, "c25"), 9);
    EXPECT_EQ(quint32(Value(d, 4, "stripecolor")), 0x64030201u);
    const void *list = d.property(5, kRecordList);
    const VLAtom &marks = *VLAtomForTag(kRecordList, 1032);
    ASSERT_EQ(VLAtomCount(list, marks), 9); // 10 given, 9 levels
    EXPECT_EQ(VLAtomMarker(list, marks, 0).type, 1);
    EXPECT_EQ(VLAtomMarker(list, marks, 0).suffix, u'.');
    EXPECT_EQ(VLAtomMarker(list, marks, 1).prefix, u'(');
    EXPECT_EQ(Value(d, 6, "pageanchor"), -5); // 8-byte atom, sign-extended
    EXPECT_EQ(d.normalChapter(), 3);
    EXPECT_EQ(d.normalList(), 5);
    EXPECT_EQ(std::memcmp(d.normalListProperties(), list, kVLPropertyRecordSize), 0);
    const VLAtom &deftab = *VLAtomForTag(kRecordDoc, 1141);
    EXPECT_EQ(VLAtomValue(d.documentProperties(), deftab), 48);

    // Runs.
    EXPECT_EQ(d.charPropertyAt(0), 0);
    EXPECT_EQ(d.charPropertyAt(9), 1);
    EXPECT_EQ(d.charPropertyAt(39), 1);
    EXPECT_EQ(d.charPropertyAt(153), 0);
    EXPECT_EQ(d.paraPropertyAt(100), 2);

    // Pictures: shown, found as PNG for a missing TIFF, and the caution image for a missing one.
    ASSERT_EQ(d.pictureCount(), 4u);
    EXPECT_EQ(*d.picture(0)->name, QStringLiteral("shot"));
    EXPECT_EQ(d.picture(0)->image->data, ReadAll(kData + QStringLiteral("/Good.TWwrite/Images/shot.png")));
    EXPECT_EQ(*d.picture(1)->fileName, QStringLiteral("diagram.png"));
    EXPECT_FALSE(d.picture(1)->image->caution);
    EXPECT_TRUE(d.picture(2)->image->caution);
    EXPECT_EQ(d.picture(2)->fileName, nullptr);
    EXPECT_TRUE(d.picture(3)->image->caution);
    EXPECT_EQ(m_log.filter(QStringLiteral("Can't read image ")).size(), 2) << m_log.join(u'\n').toStdString();
    EXPECT_TRUE(m_log.contains(QStringLiteral("Can't read image ") + package() + QStringLiteral("/Images/gone.png")));
}

TEST_F(HelpReader, BothFormsLoadTheSameDocument)
{
    const auto load = [](const QString &path) {
        VLLoadFailure failure;
        const auto document = VLLoadHelpDocument(path, &failure);
        EXPECT_TRUE(document) << failure.detail.toStdString();
        QJsonObject json = document ? VLDocumentToJson(*document) : QJsonObject();
        QJsonArray loaded;
        for (const QJsonValue &picture : json.value(QStringLiteral("pictures")).toArray())
            loaded.append(picture.toObject().value(QStringLiteral("loaded")));
        json.insert(QStringLiteral("pictures"), loaded);
        return json;
    };
    const QJsonObject fromPackage = load(package());
    const QJsonObject fromFile = load(singleFile());
    for (auto it = fromPackage.begin(); it != fromPackage.end(); ++it) {
        if (it.key() != u"pictures") {
            EXPECT_EQ(it.value(), fromFile.value(it.key())) << it.key().toStdString();
        }
    }
    // Embedded pictures of a single file are Base64: an undecodable one gives no image.
    EXPECT_EQ(fromFile.value(QStringLiteral("pictures")).toArray(), (QJsonArray {true, true, false, false}));
    EXPECT_EQ(fromPackage.value(QStringLiteral("pictures")).toArray(), (QJsonArray {true, true, false, false}));
}

TEST_F(HelpReader, EmptyDocumentsLoadWithEmptyTables)
{
    const QString path = m_dir.path() + QStringLiteral("/empty.xml");
    WriteAll(path, "<?xml version=\"1.0\"?><velluma><structure><length>0,0</length><knots/></structure></velluma>");
    VLLoadFailure failure;
    const auto document = VLLoadHelpDocument(path, &failure);
    ASSERT_TRUE(document) << failure.detail.toStdString();
    EXPECT_EQ(document->textLength(), 0u);
    EXPECT_EQ(document->knotCount(), 0u);
    EXPECT_EQ(document->chapterCount(), 0u);
    EXPECT_EQ(document->charRuns().count(), 0u);
    EXPECT_EQ(document->chapterName(0), QStringLiteral(""));
    EXPECT_TRUE(VLBuildTopicOutline(*document).topics.empty());
    EXPECT_EQ(document->styleName(0), QStringLiteral("Normal")); // the built-in one
}

TEST_F(HelpReader, PicturesFromTheResourcesAndFromPaths)
{
    ScopedXdgHome home; // HOME for "~"
    QDir().mkpath(QDir::homePath());
    ASSERT_TRUE(QFile::copy(
        kData + QStringLiteral("/Good.TWwrite/Images/diagram.png"), QDir::homePath() + QStringLiteral("/d.png")));
    VLSetResourceDirectory(kData + QStringLiteral("/Good.TWwrite/Images"));
    const QString path = m_dir.path() + QStringLiteral("/pictures.xml");
    WriteAll(path,
        "<?xml version=\"1.0\"?><velluma><images><image source=\"resource\">shot.png</image>"
        "<image source=\"path\">~/d.png</image><image source=\"resource\">diagram.TIFF</image></images></velluma>");
    VLLoadFailure failure;
    const auto document = VLLoadHelpDocument(path, &failure);
    VLSetResourceDirectory({});
    ASSERT_TRUE(document) << failure.detail.toStdString();
    ASSERT_EQ(document->pictureCount(), 3u);
    EXPECT_EQ(*document->picture(0)->name, QStringLiteral("shot"));
    EXPECT_FALSE(document->picture(0)->image->caution);
    ASSERT_TRUE(document->picture(1)->fileName && document->picture(2)->fileName) << m_log.join(u'\n').toStdString();
    EXPECT_EQ(*document->picture(1)->fileName, QStringLiteral("d.png"));
    EXPECT_EQ(document->picture(1)->name->size(), 36); // a generated identifier
    EXPECT_FALSE(document->picture(1)->image->caution);
    EXPECT_EQ(*document->picture(2)->fileName, QStringLiteral("diagram.png"));
    EXPECT_TRUE(m_log.filter(QStringLiteral("Can't read image")).isEmpty()) << m_log.join(u'\n').toStdString();
}

TEST_F(HelpReader, OutlineFollowsTheHeadingsTabs)
{
    const QString path = m_dir.path() + QStringLiteral("/outline.xml");
    WriteAll(path,
        "<?xml version=\"1.0\"?><velluma><structure><length>0,19</length><knots>"
        "<knot cp=\"0\" type=\"chapter\" kink=\"beg\"/><knot cp=\"5\" type=\"chapter\" kink=\"beg\"/>"
        "<knot cp=\"8\" type=\"chapter\" kink=\"beg\"/><knot cp=\"12\" type=\"chapter\" kink=\"beg\"/>"
        "<knot cp=\"16\" type=\"chapter\" kink=\"beg\"/></knots></structure>"
        "<text><k0/><run>\t\tX\n</run><k0/><run>A\n</run><k0/><run>\tB\n</run><k0/><run>\t\tC</run><k0/><run>D\n</run>"
        "</text></velluma>");
    VLLoadFailure failure;
    const auto document = VLLoadHelpDocument(path, &failure);
    ASSERT_TRUE(document) << failure.detail.toStdString();
    const VLTopicOutline outline = VLBuildTopicOutline(*document);
    ASSERT_EQ(outline.topics.size(), 2u);
    EXPECT_EQ(outline.topics[0].name, QStringLiteral("A"));
    EXPECT_EQ(outline.topics[0].index, 1u);
    EXPECT_EQ(outline.topics[0].topics[0].name, QStringLiteral("B"));
    EXPECT_EQ(outline.topics[0].topics[0].topics[0].name, QStringLiteral("C"));
    EXPECT_EQ(outline.topics[1].name, QStringLiteral("D"));
    EXPECT_EQ(outline.chapterLevels, (std::vector<int> {-1, 0, 1, 2, 0}));
}

TEST_F(HelpReader, EveryFailureGivesItsReasonAndIsLogged)
{
    const QString damaged = QString::fromUtf8(kVLDamagedMessage);
    const QString later = QString::fromUtf8(kVLLaterVersionMessage);
    struct Case {
        const char *name;
        bool packageForm;
        std::function<void(const QString &)> damage;
        QString reason; // null: any non-empty decoder message
    };
    const auto replace = [](const char *file, const char *before, const char *after) {
        return [=](const QString &path) {
            Replace(QFileInfo(path).isDir() ? path + u'/' + QLatin1String(file) : path, before, after);
        };
    };
    const auto remove = [](const char *file) {
        return [=](const QString &path) { QFile::remove(path + u'/' + QLatin1String(file)); };
    };
    const Case cases[] = {
        {"structure ver 3", true, replace("structure.xml", "<ver>2</ver>", "<ver>3</ver>"), later},
        {"format ver 3", true, replace("format.xml", "<ver>1</ver>", "<ver>3</ver>"), later},
        {"structure.xml missing", true, remove("structure.xml"), damaged},
        {"format.xml missing", true, remove("format.xml"), damaged},
        {"document.txt missing", true, remove("document.txt"), damaged},
        {"structure.xml unreadable", true,
            [](const QString &path) {
                QFile::remove(path + QStringLiteral("/structure.xml"));
                QDir(path).mkdir(QStringLiteral("structure.xml"));
            },
            QString::fromLocal8Bit(strerror(EISDIR))},
        {"wrong root", true, replace("format.xml", "<format>", "<formats>"), damaged},
        {"no ver after the root", true, replace("structure.xml", "<ver>2</ver>", ""), damaged},
        {"not XML", true, [](const QString &path) { WriteAll(path + QStringLiteral("/format.xml"), "format"); },
            QStringLiteral("I don't understand the file format")},
        {"syntax error", true, replace("structure.xml", "<knot cp=\"28\"", "<knot cp = \"28\""), QString()},
        {"text not UTF-8", true, replace("document.txt", "Welcome", "Welc\xff\xfe"), damaged},
        {"text length mismatch", true, replace("document.txt", "Welcome", "Welcome!"), QStringLiteral("")},
        {"knot without cp", true, replace("structure.xml", "<knot cp=\"28\"", "<knot"), QStringLiteral("")},
        {"knots out of order", true,
            replace("structure.xml", "<knot cp=\"28\"", "<knot cp=\"1\"><x/></knot><knot cp=\"0\""),
            QStringLiteral("")},
        {"knot beyond the text", true, replace("structure.xml", "cp=\"148\"", "cp=\"154\""), QStringLiteral("")},
        {"picture list with another element", true,
            replace("structure.xml", "<image source=\"embed\">shot.png</image>", "<picture>shot.png</picture>"),
            QStringLiteral("")},
        {"normal list not a list", true,
            replace("format.xml", "<normal_list>5</normal_list>", "<normal_list>4</normal_list>"), QStringLiteral("")},
        {"run not a pair", true, replace("format.xml", "<r>9,1</r>", "<r>9</r>"), QStringLiteral("")},
        {"structure ends early", true, replace("structure.xml", "</structure>", ""), QString()},
        {"single file ver 3", false, replace("", "<ver>2</ver>\n<format>", "<ver>3</ver>\n<format>"), later},
        {"single file wrong root", false, replace("", "<velluma>", "<document>"), damaged},
        {"single file missing", false, [](const QString &path) { QFile::remove(path); }, damaged},
        {"single file text length", false, replace("", "<run> tail</run>", "<run> tails</run>"), QStringLiteral("")},
        {"single file syntax", false, replace("", "<k1/>", "<k1/ >"), QString()},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        QTemporaryDir dir;
        QString path = dir.path() + QStringLiteral("/Help.TWwrite");
        if (c.packageForm) {
            CopyFolder(kData + QStringLiteral("/Good.TWwrite"), path);
        } else {
            path = dir.path() + QStringLiteral("/help.xml");
            QFile::copy(kData + QStringLiteral("/good.xml"), path);
        }
        c.damage(path);
        m_log.clear();
        VLLoadFailure failure;
        EXPECT_FALSE(VLLoadHelpDocument(path, &failure));
        if (c.reason.isNull()) {
            EXPECT_TRUE(failure.reason.startsWith(QStringLiteral("this is not a valid XML file (offset 0x")))
                << failure.reason.toStdString();
        } else {
            EXPECT_EQ(failure.reason, c.reason) << failure.detail.toStdString();
        }
        if (failure.reason.isEmpty()) {
            EXPECT_FALSE(failure.detail.isEmpty());
        }
        EXPECT_TRUE(m_log.contains(QStringLiteral("Can't read help file: ") + failure.reason))
            << m_log.join(u'\n').toStdString();
    }
}

TEST_F(HelpReader, SavedFuzzInputsReplay)
{
    int replayed = 0;
    for (const char *folder : {"/seeds", "/regressions"}) {
        QDirIterator it(kData + QLatin1String(folder), QDir::Files);
        while (it.hasNext()) {
            const QString path = it.next();
            QTemporaryDir scratch;
            EXPECT_EQ(ExerciseHelpReader(ReadAll(path), scratch.path()), QString()) << path.toStdString();
            ++replayed;
        }
    }
    EXPECT_GE(replayed, 3);
    // The seeds load (their form is chosen by the first byte).
    QTemporaryDir scratch;
    for (const char *seed : {"/seeds/package", "/seeds/single", "/seeds/small-package"}) {
        const QByteArray input = ReadAll(kData + QLatin1String(seed));
        ExerciseHelpReader(input, scratch.path());
        const QString path
            = scratch.path() + (input.at(0) ? QStringLiteral("/Fuzz.TWwrite") : QStringLiteral("/help.xml"));
        VLLoadFailure failure;
        EXPECT_TRUE(VLLoadHelpDocument(path, &failure)) << seed << ": " << failure.detail.toStdString();
    }
}

TEST(HelpCheckCommand, PrintsTheOutlineOrTheReason)
{
    ScopedXdgHome home;
    const QString good = kData + QStringLiteral("/Good.TWwrite");
    const ProcessResult outline
        = RunTanner({QStringLiteral("help"), QStringLiteral("--check"), good}, home.environment());
    ASSERT_EQ(outline.exitCode, 0) << outline.err.toStdString();
    EXPECT_EQ(QString::fromUtf8(outline.out),
        QStringLiteral(
            "Welcome\n  Backing up\n    Choosing a device\nRules\nAppendix\nLast\n"
            "6 chapters, 154 characters, 19 knots, 2 bookmarks, 4 pictures, 2 styles, 8 property records\n"));

    const ProcessResult json = RunTanner({QStringLiteral("help"), QStringLiteral("--check"),
                                             kData + QStringLiteral("/good.xml"), QStringLiteral("--json")},
        home.environment());
    ASSERT_EQ(json.exitCode, 0) << json.err.toStdString();
    const QJsonObject loaded = QJsonDocument::fromJson(json.out).object();
    EXPECT_EQ(loaded.value(QStringLiteral("textLength")).toInt(), 154);
    EXPECT_TRUE(loaded.value(QStringLiteral("text")).toString().startsWith(QStringLiteral("\u0000Welcome")));
    const QJsonObject knot = loaded.value(QStringLiteral("knots")).toArray().at(0).toObject();
    EXPECT_EQ(knot.value(QStringLiteral("type")).toString(), QStringLiteral("chapter"));
    EXPECT_EQ(knot.value(QStringLiteral("kink")).toString(), QStringLiteral("beg"));
    EXPECT_EQ(loaded.value(QStringLiteral("outline"))
                  .toArray()
                  .at(0)
                  .toObject()
                  .value(QStringLiteral("topics"))
                  .toArray()
                  .at(0)
                  .toObject()
                  .value(QStringLiteral("topics"))
                  .toArray()
                  .at(0)
                  .toString(),
        QStringLiteral("Choosing a device"));
    const QJsonObject table = loaded.value(QStringLiteral("properties")).toArray().at(4).toObject();
    EXPECT_EQ(table.value(QStringLiteral("type")).toString(), QStringLiteral("table"));
    EXPECT_EQ(
        table.value(QStringLiteral("values")).toObject().value(QStringLiteral("stripecolor")).toInteger(), 0x64030201);

    QTemporaryDir dir;
    const QString missing = dir.path() + QStringLiteral("/Missing.TWwrite");
    const ProcessResult failed
        = RunTanner({QStringLiteral("help"), QStringLiteral("--check"), missing}, home.environment());
    EXPECT_EQ(failed.exitCode, 2);
    EXPECT_TRUE(failed.out.isEmpty());
    EXPECT_TRUE(failed.err.startsWith("Can't read help file: The document has been damaged.\n"))
        << failed.err.toStdString();
    const ProcessResult failedJson = RunTanner(
        {QStringLiteral("help"), QStringLiteral("--check"), missing, QStringLiteral("--json")}, home.environment());
    EXPECT_EQ(failedJson.exitCode, 2);
    EXPECT_EQ(QJsonDocument::fromJson(failedJson.out).object().value(QStringLiteral("error")).toString(),
        QStringLiteral("The document has been damaged."));
    EXPECT_EQ(RunTanner({QStringLiteral("help"), QStringLiteral("--check")}, home.environment()).exitCode, 64);
}

// A package handed to the user is untrusted: its files are read only when they are regular files
// (a FIFO never blocks the load, a device is never read without end), and its pictures come from
// inside it.
TEST_F(HelpReader, HostileFilesAreRefusedAndPicturesStayInsideThePackage)
{
    const QString nodes = m_dir.path() + QStringLiteral("/nodes");
    QDir().mkpath(nodes);
    ASSERT_EQ(::mkfifo(QFile::encodeName(nodes + QStringLiteral("/fifo")).constData(), 0600), 0);
    QStringList targets {nodes + QStringLiteral("/fifo")};
    if (::mknod(QFile::encodeName(nodes + QStringLiteral("/zero")).constData(), S_IFCHR | 0666, makedev(1, 5)) == 0)
        targets << nodes + QStringLiteral("/zero");
    else
        std::printf("A device is not tried: making device nodes needs CAP_MKNOD.\n");
    for (const char *file : {"document.txt", "structure.xml"}) {
        for (const QString &target : std::as_const(targets)) {
            SCOPED_TRACE(std::string(file) + " -> " + target.toStdString());
            const QString copy = m_dir.path() + QStringLiteral("/Hostile.TWwrite");
            QDir(copy).removeRecursively();
            CopyFolder(kData + QStringLiteral("/Good.TWwrite"), copy);
            const QString victim = copy + u'/' + QLatin1String(file);
            QFile::remove(victim);
            ASSERT_TRUE(QFile::link(target, victim));
            VLLoadFailure failure;
            EXPECT_FALSE(VLLoadHelpDocument(copy, &failure));
            EXPECT_EQ(failure.reason, u"It is not a regular file.") << failure.detail.toStdString();
        }
    }

    // A picture named out of the package, by ".." or by a link, is not read: the caution image
    // stands in for it.
    const QString outside = m_dir.path() + QStringLiteral("/outside.png");
    ASSERT_TRUE(QFile::copy(kData + QStringLiteral("/Good.TWwrite/Images/shot.png"), outside));
    Replace(package() + QStringLiteral("/structure.xml"), "<image source=\"embed\">shot.png</image>",
        "<image source=\"embed\">../../outside.png</image>");
    ASSERT_TRUE(QFile::link(outside, package() + QStringLiteral("/Images/linked.png")));
    Replace(package() + QStringLiteral("/structure.xml"), "<image source=\"embed\">diagram.tiff</image>",
        "<image source=\"embed\">linked.png</image>");
    VLLoadFailure failure;
    const auto document = VLLoadHelpDocument(package(), &failure);
    ASSERT_TRUE(document) << failure.detail.toStdString();
    EXPECT_TRUE(document->picture(1)->image->caution);
    EXPECT_TRUE(document->picture(2)->image->caution);
}
