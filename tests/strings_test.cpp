// The case-insensitive comparison, the file-name codec and the character classes.
#include "keelson/KSStrings.h"
#include "tests/support/TestSupport.h"

#include <QRandomGenerator>

TEST(CaseInsensitiveCompare, FoldsCaseAndCanonicalForms)
{
    EXPECT_EQ(CaseInsensitiveCompare(u"Photos", u"photos"), KSOrderedSame);
    EXPECT_EQ(CaseInsensitiveCompare(u"apple", u"Banana"), KSOrderedAscending);
    EXPECT_EQ(CaseInsensitiveCompare(u"b", u"AB"), KSOrderedDescending);
    EXPECT_EQ(CaseInsensitiveCompare(u"ab", u"AB C"), KSOrderedAscending);
    // Composed "É" against "e" + combining acute, in either case and position.
    EXPECT_EQ(CaseInsensitiveCompare(u"\u00C9t\u00E9", u"e\u0301te\u0301"), KSOrderedSame);
    EXPECT_EQ(CaseInsensitiveCompare(u"Cafe\u0301", u"CAF\u00C9"), KSOrderedSame);
    EXPECT_NE(CaseInsensitiveCompare(u"Cafe", u"Caf\u00E9"), KSOrderedSame);
}

TEST(CaseInsensitiveCompare, FastPathAgreesWithFoldedComparison)
{
    // The ASCII path must order exactly as the folded forms do, or sorted lists would disagree.
    QRandomGenerator random(42);
    const QString alphabet = QStringLiteral("aAbBzZ09 ._-~\u00E9\u00C9e\u0301");
    for (int round = 0; round < 20000; ++round) {
        QString a, b;
        for (int k = int(random.bounded(6)); k > 0; --k)
            a += alphabet[int(random.bounded(alphabet.size()))];
        for (int k = int(random.bounded(6)); k > 0; --k)
            b += alphabet[int(random.bounded(alphabet.size()))];
        const int expected = QString::compare(CaseFoldedString(a), CaseFoldedString(b));
        const int sign = expected < 0 ? -1 : (expected > 0 ? 1 : 0);
        ASSERT_EQ(int(CaseInsensitiveCompare(a, b)), sign) << a.toStdString() << " vs " << b.toStdString();
    }
}

TEST(CaseInsensitiveFind, AnchorsAndEmptyNeedle)
{
    EXPECT_TRUE(CaseInsensitiveFind(u"MyDeviceSupportFiles", u"devicesupport", KSSearchAnchor::None));
    EXPECT_TRUE(CaseInsensitiveFind(u"SyncServices", u"syncservice", KSSearchAnchor::Start));
    EXPECT_FALSE(CaseInsensitiveFind(u"xSyncService", u"syncservice", KSSearchAnchor::Start));
    EXPECT_TRUE(CaseInsensitiveFind(u"notes.TXT", u".txt", KSSearchAnchor::End));
    EXPECT_TRUE(CaseInsensitiveFind(u"re\u0301sume\u0301", u"\u00C9SUM", KSSearchAnchor::None));
    EXPECT_FALSE(CaseInsensitiveFind(u"anything", u"", KSSearchAnchor::None));
}

TEST(FileNameCodec, EveryByteStringRoundTrips)
{
    const QByteArray latin1("caf\xe9 r\xe9sum\xe9.txt");
    const QString decoded = FileNameFromBytes(latin1);
    const QChar escaped(char16_t(0xDCE9));
    EXPECT_EQ(decoded,
        QStringLiteral("caf") + escaped + QStringLiteral(" r") + escaped + QStringLiteral("sum") + escaped
            + QStringLiteral(".txt"));
    EXPECT_EQ(FileNameToBytes(decoded), latin1);
    EXPECT_EQ(FileNameFromBytes("caf\xc3\xa9"), QStringLiteral("caf\u00E9"));
    EXPECT_EQ(FileNameFromBytes("\xf0\x9f\x98\x80"), QStringLiteral("\U0001F600"));
    // Invalid forms: overlong, encoded surrogate, beyond U+10FFFF, truncated sequence.
    for (const QByteArray &bytes : {QByteArray("\xc0\xaf"), QByteArray("\xed\xa0\x80"), QByteArray("\xf4\x90\x80\x80"),
             QByteArray("ab\xe2\x82")}) {
        const QString name = FileNameFromBytes(bytes);
        for (QChar c : name)
            EXPECT_FALSE(c.unicode() >= 0xD800 && c.unicode() < 0xDC80);
        EXPECT_EQ(FileNameToBytes(name), bytes);
    }
    QRandomGenerator random(7);
    for (int round = 0; round < 5000; ++round) {
        QByteArray bytes(int(random.bounded(1, 24)), Qt::Uninitialized);
        for (char &c : bytes)
            c = char(random.bounded(1, 256)); // names never hold NUL
        ASSERT_EQ(FileNameToBytes(FileNameFromBytes(bytes)), bytes) << bytes.toHex().toStdString();
    }
}

TEST(PathPieces, ExtensionAndLastComponent)
{
    EXPECT_EQ(PathExtension(u"report.plist.tmp"), QStringLiteral("tmp"));
    EXPECT_EQ(DeletingPathExtension(u"report.plist.tmp"), QStringLiteral("report.plist"));
    EXPECT_EQ(PathExtension(u"log"), QString());
    EXPECT_EQ(DeletingPathExtension(u"log"), QStringLiteral("log"));
    EXPECT_EQ(LastPathComponent(u"/home/ann/Photos/"), QStringLiteral("Photos"));
    EXPECT_EQ(LastPathComponent(u"/"), QStringLiteral("/"));
}

TEST(TypeOfChar, ClassesOfLatin1AndBeyond)
{
    EXPECT_EQ(TypeOfChar(u'a'), kCharLower);
    EXPECT_EQ(TypeOfChar(u'Q'), kCharUpper);
    EXPECT_EQ(TypeOfChar(u'7'), kCharDigit);
    EXPECT_EQ(TypeOfChar(u'\n'), kCharSpace); // white space wins over control
    EXPECT_EQ(TypeOfChar(u' '), kCharSpace);
    EXPECT_EQ(TypeOfChar(u'<'), kCharPunct);
    EXPECT_EQ(TypeOfChar(u'$'), kCharPunct);
    EXPECT_EQ(TypeOfChar(char16_t(1)), kCharControl);
    EXPECT_EQ(TypeOfChar(u'\u00E9'), kCharLower);
    EXPECT_EQ(TypeOfChar(u'\u0416'), kCharUpper);
    EXPECT_EQ(TypeOfChar(u'\u4E2D'), kCharOther);
    EXPECT_EQ(TypeOfChar(u'\u2713'), kCharPunct);
}
