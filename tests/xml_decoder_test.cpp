// The XML decoder: what help documents and SVG pictures rely on, including the reader's
// deliberate oddities, and every saved fuzz input replayed.
#include "keelson/KSStringKeelson.h"
#include "keelson/KSStrings.h"
#include "keelson/KSXmlDecoder.h"
#include "tests/fuzz/XmlDecoderExercise.h"
#include "tests/support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cerrno>

using namespace Qt::Literals::StringLiterals;

namespace {

constexpr quint32 kRoot = 1, kPara = 2, kBold = 3, kItem = 4, kNumeric = 5;

std::unique_ptr<KSXmlDecoder> Xml(const char *body)
{
    return KSXmlDecoder::initWithString(QStringLiteral("<?xml version=\"1.0\"?>") + QString::fromUtf8(body));
}

class XmlDecoder : public testing::Test {
protected:
    void SetUp() override
    {
        KSXmlDecoder::addDecoderKey(kRoot, QStringLiteral("r"));
        KSXmlDecoder::addDecoderKey(kPara, QStringLiteral("p"));
        KSXmlDecoder::addDecoderKey(kBold, QStringLiteral("b"));
        KSXmlDecoder::addDecoderKey(kItem, QStringLiteral("item"));
        KSXmlDecoder::addDecoderKey(kNumeric, QStringLiteral("1a"));
    }
};

} // namespace

TEST_F(XmlDecoder, CreationSkipsCommentsAndDeclarationsAndRefusesOtherText)
{
    auto decoder = KSXmlDecoder::initWithString(
        QStringLiteral("\n<!-- made by hand -->\n<?xml version=\"1.0\"?>\n<!DOCTYPE r [<!ENTITY e \"x\">]>\n"
                       "<!-- again --><r a='1'>t</r>"));
    ASSERT_TRUE(decoder);
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->xmlTag(), QStringLiteral("r"));
    EXPECT_EQ(decoder->key(), kRoot);
    EXPECT_EQ(decoder->stringAttributeForTag(QStringLiteral("a")), QStringLiteral("1"));
    EXPECT_EQ(decoder->value(), QStringLiteral("t"));
    EXPECT_TRUE(decoder->endTag());
    EXPECT_EQ(decoder->level(), 0);
    EXPECT_FALSE(decoder->getNextTag());
    EXPECT_TRUE(decoder->error().isEmpty());
    EXPECT_TRUE(decoder->isDone());

    for (const char *refused : {"plain text <?xml version=\"1.0\"?><r/>", "", "  <!-- nothing else -->", "<html/>"})
        EXPECT_FALSE(KSXmlDecoder::initWithString(QString::fromUtf8(refused))) << refused;
    EXPECT_TRUE(KSXmlDecoder::initWithString(QStringLiteral("<svg/>")));
    EXPECT_FALSE(KSXmlDecoder::initWithStringOrData(QByteArray("<?xml?><r>\xff</r>")));
    EXPECT_TRUE(KSXmlDecoder::initWithStringOrData(QByteArray("\xef\xbb\xbf<?xml?><r/>")));

    QTemporaryDir dir;
    KSXmlFileError error;
    EXPECT_FALSE(KSXmlDecoder::initWithFile(dir.filePath(QStringLiteral("missing.xml")), &error));
    EXPECT_EQ(error.domain, KSXmlFileError::PosixDomain);
    EXPECT_EQ(error.code, ENOENT);
    EXPECT_FALSE(error.reason.isEmpty());
    QFile text(dir.filePath(QStringLiteral("notes.txt")));
    ASSERT_TRUE(text.open(QIODevice::WriteOnly));
    text.write("just notes\n");
    text.close();
    error = {};
    EXPECT_FALSE(KSXmlDecoder::initWithFile(text.fileName(), &error));
    EXPECT_EQ(error.domain, KSXmlFileError::OSStatusDomain);
    EXPECT_EQ(error.code, 0);
    EXPECT_EQ(error.reason, QStringLiteral("I don't understand the file format"));
    error = {KSXmlFileError::PosixDomain, EIO, QStringLiteral("kept")};
    EXPECT_FALSE(KSXmlDecoder::initWithFile(text.fileName(), &error));
    EXPECT_EQ(error.reason, QStringLiteral("kept"));
}

TEST_F(XmlDecoder, TagsValuesLevelsAndAttributes)
{
    auto decoder = Xml("<r><e x='1'/><a>text &lt;b&gt; &amp;amp;</a>\n <u t=\"a&amp;b &#x41;\" empty=\"\"></u></r>");
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->level(), 1);
    EXPECT_TRUE(decoder->value().isNull());
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->xmlTag(), QStringLiteral("e"));
    EXPECT_EQ(decoder->key(), 0u); // unknown names are not an error
    EXPECT_TRUE(decoder->startTag());
    EXPECT_TRUE(decoder->endTag());
    EXPECT_EQ(decoder->attributes(), (KSXmlDecoder::Attributes {{QStringLiteral("x"), QStringLiteral("1")}}));
    EXPECT_EQ(decoder->integerAttributeForTag(QStringLiteral("x")), 1);
    EXPECT_EQ(decoder->level(), 1);
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->value(), QStringLiteral("text <b> &amp;"));
    EXPECT_TRUE(decoder->endTag());
    EXPECT_EQ(decoder->level(), 1);
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->xmlTag(), QStringLiteral("u"));
    EXPECT_EQ(decoder->stringAttributeForTag(QStringLiteral("t")), QStringLiteral("a&b A"));
    EXPECT_TRUE(decoder->stringAttributeForTag(QStringLiteral("empty")).isEmpty());
    EXPECT_FALSE(decoder->stringAttributeForTag(QStringLiteral("empty")).isNull());
    EXPECT_TRUE(decoder->stringAttributeForTag(QStringLiteral("absent")).isNull());
    EXPECT_TRUE(decoder->orderedAttributes().isEmpty()); // only SVG keeps the order
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->xmlTag(), QStringLiteral("r"));
    EXPECT_FALSE(decoder->startTag());
    EXPECT_EQ(decoder->level(), 0);
    EXPECT_FALSE(decoder->getNextTag());
    EXPECT_TRUE(decoder->error().isEmpty());

    // White space before a child is the value in XML, indentation in SVG.
    decoder = Xml("<r>\n <p/></r>");
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->value(), QStringLiteral("\n "));
    EXPECT_EQ(decoder->level(), 1);
    decoder = KSXmlDecoder::initWithString(QStringLiteral("<svg>\n <p/></svg>"));
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_TRUE(decoder->value().isNull());
    EXPECT_EQ(decoder->level(), 1);

    // Numbers, symbolic values and the instance's own key map.
    decoder = Xml("<r><n> 42px</n><p>item</p></r>");
    decoder->setKeyDecoder(KSXmlDecoder::KeyMap {{QStringLiteral("r"), 9}, {QStringLiteral("item"), 8}});
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->key(), 9u);
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->integerValue(), 42);
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->key(), 0u);
    EXPECT_EQ(decoder->decodeValue(), 8u);
}

TEST_F(XmlDecoder, SvgKeepsAttributeOrder)
{
    auto decoder = KSXmlDecoder::initWithString(QStringLiteral(
        "<svg width=\"10\" height='20' viewBox=\"0 0 1 1\"><path d=\"M0\" fill=\"red\" d=\"M1\"/></svg>"));
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->orderedAttributes(),
        (QStringList {u"width"_s, u"10"_s, u"height"_s, u"20"_s, u"viewBox"_s, u"0 0 1 1"_s}));
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->orderedAttributes(), (QStringList {u"d"_s, u"M0"_s, u"fill"_s, u"red"_s, u"d"_s, u"M1"_s}));
    EXPECT_EQ(decoder->stringAttributeForTag(QStringLiteral("d")), QStringLiteral("M1")); // a repeat overwrites

    // An XML document whose root is "svg" is an SVG document too.
    decoder = Xml("<svg a=\"1\" b=\"2\"/>");
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->orderedAttributes(), (QStringList {u"a"_s, u"1"_s, u"b"_s, u"2"_s}));
}

TEST_F(XmlDecoder, SyntaxErrorsNumericTagsAndSpacesInAttributeNames)
{
    // The offset is where the reader stood: here the space behind the attribute name.
    auto decoder = Xml("<a b = \"1\"/>");
    EXPECT_FALSE(decoder->getNextTag());
    EXPECT_EQ(decoder->error(), QStringLiteral("this is not a valid XML file (offset 0x19)"));
    EXPECT_TRUE(decoder->isDone());
    EXPECT_FALSE(decoder->getNextTag());
    EXPECT_FALSE(Xml("<a b=\"1\" c= \"2\"/>")->getNextTag());
    EXPECT_FALSE(Xml("<a b=1/>")->getNextTag());

    decoder = Xml("<r>text");
    EXPECT_FALSE(decoder->getNextTag());
    EXPECT_EQ(decoder->error(), QStringLiteral("this is not a valid XML file (offset 0x1b)"));
    decoder = Xml("<r>ab<![CDATA[cd</r>    \n");
    EXPECT_FALSE(decoder->getNextTag());
    EXPECT_EQ(decoder->error(), QStringLiteral("malformed CDATA at offset 0x1a"));
    decoder = KSXmlDecoder::initWithString(QStringLiteral("<?xml version=\"1.0\"<r/>"));
    ASSERT_TRUE(decoder);
    EXPECT_FALSE(decoder->getNextTag());
    EXPECT_EQ(decoder->error(), QStringLiteral("this is not a valid XML file (offset 0x0)"));

    decoder = Xml("<r><1a>x</1a></r>");
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_FALSE(decoder->getNextTag());
    decoder = Xml("<r><1a>x</1a></r>");
    decoder->setAllowNumericTags(true);
    ASSERT_TRUE(decoder->getNextTag());
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->key(), kNumeric);
    EXPECT_EQ(decoder->value(), QStringLiteral("x"));

    EXPECT_FALSE(Xml("<r my attr=\"v\"/>")->getNextTag());
    decoder = Xml("<r my attr=\"v\" other=\"w\"/>");
    decoder->setAllowSpaceInAttr(true);
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->stringAttributeForTag(QStringLiteral("my attr")), QStringLiteral("v"));
    EXPECT_EQ(decoder->stringAttributeForTag(QStringLiteral("other")), QStringLiteral("w"));
}

TEST_F(XmlDecoder, CharacterReferencesEntitiesAndTables)
{
    const std::pair<QString, QString> cases[] = {
        {u"&#x41;"_s, u"A"_s},
        {u"&#65;"_s, u"A"_s},
        {u"&#65 x"_s, u"Ax"_s}, // the space terminates and is consumed
        {u"&#x1F600;"_s, QString(QChar(0xF600))}, // only 16 bits are kept
        {u"&#xG;"_s, QString(QChar(16))}, // letters past "F" are not refused
        {u"a&sect;b"_s, u"ab"_s}, // unknown entities are deleted
        {u"x&#x41"_s, u"x41"_s}, // unterminated: only the prefix goes
        {u"&amp;lt;"_s, u"&lt;"_s}, // decoded once
        {u"&quot;&apos;&nbsp;&gt;"_s, u"\"' >"_s},
        {u"&notAnEntityAtAll; & b; &a<b;"_s, u"&notAnEntityAtAll; & b; &a<b;"_s},
        {u"no ampersand"_s, u"no ampersand"_s},
    };
    for (const auto &[escaped, decoded] : cases)
        EXPECT_EQ(KSXmlDecoder::decodeEscapes(escaped), decoded) << escaped.toStdString();

    static constexpr QStringView kAlign[] = {u"left", u"center", u"justify", u"right"};
    EXPECT_EQ(KSXmlDecoder::decodeValue(u"JUSTIFY", kAlign), 2);
    EXPECT_EQ(KSXmlDecoder::decodeValue(u"", kAlign), 0);
    EXPECT_EQ(KSXmlDecoder::decodeValue(u"middle", kAlign), 0);
    EXPECT_EQ(KSXmlDecoder::decodeValue(u"left", {}), 0);
    EXPECT_TRUE(IsFuzzyEqualToString(u"\u00C9T\u00C9", u"e\u0301te\u0301"));
    EXPECT_FALSE(IsFuzzyEqualToString(u"", QStringView()));

    EXPECT_EQ(TypeOfChar(u"a\u00AD", 1), kCharControl); // the soft hyphen is a format character
    EXPECT_EQ(TypeOfChar(u"\u01C5", 0), kCharUpper); // title case
    EXPECT_EQ(TypeOfChar(u"x\n", 1), kCharSpace);
    EXPECT_EQ(TypeOfChar(u"x", 1), kCharOther);
    EXPECT_EQ(TypeOfChar(u"x", -1), kCharOther);
}

TEST_F(XmlDecoder, CdataDoublesTextBeforeIt)
{
    auto decoder = Xml("<r><a>ab<![CDATA[cd]]></a><b><![CDATA[x<y & z]]></b><c>1<![CDATA[2]]>3</c></r>");
    ASSERT_TRUE(decoder->getNextTag());
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->value(), QStringLiteral("abab"));
    EXPECT_TRUE(decoder->endTag());
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->value(), QStringLiteral("x<y & z"));
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->value(), QStringLiteral("113"));
}

TEST_F(XmlDecoder, SkipJumpsToTheLastClosingTagAndSkipToSetsLevelTwo)
{
    auto decoder = Xml("<r><skip><i>1</i></skip><keep/><skip>2</skip><end/></r>");
    ASSERT_TRUE(decoder->getNextTag());
    ASSERT_TRUE(decoder->getNextTag());
    ASSERT_EQ(decoder->level(), 2);
    const KSXmlDecoder::SkipState state = decoder->skipTag();
    EXPECT_EQ(state.level, 2);
    EXPECT_EQ(decoder->level(), 1);
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->xmlTag(), QStringLiteral("end")); // "keep" went with the skip
    decoder->unskipTag(state);
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->xmlTag(), QStringLiteral("i"));

    decoder = Xml("<r><open><x/></r>");
    ASSERT_TRUE(decoder->getNextTag());
    ASSERT_TRUE(decoder->getNextTag());
    decoder->skipTag();
    EXPECT_TRUE(decoder->isDone());
    EXPECT_FALSE(decoder->getNextTag());
    EXPECT_TRUE(decoder->error().isEmpty());

    decoder = Xml("<r><a><b><list><item>1</item></list></b></a></r>");
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_FALSE(decoder->skipToTag(QStringLiteral("missing")));
    EXPECT_EQ(decoder->xmlTag(), QStringLiteral("r"));
    ASSERT_TRUE(decoder->skipToTag(QStringLiteral("list")));
    EXPECT_EQ(decoder->level(), 2); // the real depth is 4
    EXPECT_EQ(decoder->xmlTag(), QStringLiteral("list"));
    EXPECT_TRUE(decoder->value().isNull());
    EXPECT_FALSE(decoder->endTag());
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->key(), kItem);
    EXPECT_EQ(decoder->level(), 2);
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->level(), 1);
}

TEST_F(XmlDecoder, LookAheadExtractAndCoalesce)
{
    auto decoder = Xml("<r><a k=\"v\">t</a><c/></r>");
    ASSERT_TRUE(decoder->getNextTag());
    KSXmlDecoder::Attributes attributes;
    QString value;
    EXPECT_EQ(decoder->followingTagWithAttributes(&attributes, &value), QStringLiteral("a"));
    EXPECT_EQ(attributes.value(QStringLiteral("k")), QStringLiteral("v"));
    EXPECT_EQ(value, QStringLiteral("t"));
    EXPECT_EQ(decoder->xmlTag(), QStringLiteral("r"));
    EXPECT_EQ(decoder->key(), kRoot);
    EXPECT_EQ(decoder->level(), 1);
    EXPECT_TRUE(decoder->value().isNull());
    EXPECT_FALSE(decoder->tagHasAttributes());
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->xmlTag(), QStringLiteral("a"));
    EXPECT_TRUE(decoder->followingTagWithAttributes(nullptr, nullptr) == QStringLiteral("c"));

    decoder = Xml("<r><a k=\"1\"><b>x</b></a><c/></r>");
    ASSERT_TRUE(decoder->getNextTag());
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->extractTag(), QStringLiteral("<a k=\"1\"><b>x</b></a>"));
    EXPECT_EQ(decoder->level(), 1);
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->xmlTag(), QStringLiteral("c"));
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_TRUE(decoder->extractTag().isNull()); // a closing tag
    EXPECT_TRUE(decoder->followingTagWithAttributes(nullptr, nullptr).isNull());

    // A space goes between pieces unless one side has white space, even before punctuation; an
    // entity that opens a text run is skipped with the white space before the run.
    decoder = Xml("<r><p>Hello <b>world</b>!</p><p>one<b>two</b> three<i>four</i></p><p>a<b>b</b>&amp;c</p><end/></r>");
    ASSERT_TRUE(decoder->getNextTag());
    for (const char *joined : {"Hello world !", "one two three four", "a b c"}) {
        ASSERT_TRUE(decoder->getNextTag());
        decoder->coalesceMixedContent();
        EXPECT_EQ(decoder->value(), QString::fromUtf8(joined));
        EXPECT_EQ(decoder->key(), kPara);
        EXPECT_TRUE(decoder->startTag());
        EXPECT_TRUE(decoder->endTag());
        EXPECT_EQ(decoder->level(), 1);
    }
    ASSERT_TRUE(decoder->getNextTag());
    EXPECT_EQ(decoder->xmlTag(), QStringLiteral("end"));
}

TEST(XmlDecoderInputs, CorpusAndSavedFuzzInputsReadSafely)
{
    const QDir corpus(QStringLiteral(TANNER_TEST_DATA_DIR "/xml"));
    QStringList files;
    for (const QString &name : corpus.entryList(QDir::Files))
        files << corpus.filePath(name);
    const QDir regressions(corpus.filePath(QStringLiteral("regressions")));
    for (const QString &name : regressions.entryList(QDir::Files))
        files << regressions.filePath(name);
    ASSERT_GE(files.size(), 5);
    for (const QString &path : files) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
        EXPECT_EQ(tanner::test::ExerciseXmlDecoder(file.readAll()), QString()) << path.toStdString();
    }
}
