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

// Every byte sequence of up to three bytes in the places a name holds it (alone, after text, after
// a stray byte), and four-byte sequences over the bounds of their ranges: each comes back byte for
// byte, and valid UTF-8 decodes to its characters, U+FEFF (EF BB BF) included wherever it stands.
TEST(FileNameCodec, EveryShortSequenceRoundTripsAndDecodesAsItsCharacters)
{
    auto check = [](const QByteArray &bytes) {
        const QString name = FileNameFromBytes(bytes);
        if (FileNameToBytes(name) != bytes) {
            ADD_FAILURE() << bytes.toHex().toStdString();
            return false;
        }
        // Valid UTF-8 after an ASCII letter: QString::fromUtf8 decodes it faithfully there.
        const QByteArray prefixed = "a" + bytes;
        if (QString::fromUtf8(prefixed).toUtf8() == prefixed
            && FileNameFromBytes(prefixed) != QString::fromUtf8(prefixed)) {
            ADD_FAILURE() << "decoded as other characters: " << bytes.toHex().toStdString();
            return false;
        }
        return true;
    };
    for (int a = 1; a < 256; ++a) {
        for (int b = 0; b < 256; ++b) {
            QByteArray bytes(1, char(a));
            if (b > 0)
                bytes.append(char(b));
            for (const QByteArray &context : {bytes, "x" + bytes + "y", "\xff" + bytes})
                ASSERT_TRUE(check(context));
        }
    }
    for (int a = 0xC0; a < 256; ++a) {
        for (int b = 1; b < 256; ++b) {
            for (int c = 1; c < 256; ++c) {
                const char bytes[] = {char(a), char(b), char(c)};
                ASSERT_TRUE(check(QByteArray(bytes, 3)));
            }
        }
    }
    const int bounds[] = {0x01, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0, 0xBF, 0xC0, 0xFF};
    for (int a = 0xF0; a <= 0xF5; ++a)
        for (int b : bounds)
            for (int c : bounds)
                for (int d : bounds) {
                    const char bytes[] = {char(a), char(b), char(c), char(d)};
                    ASSERT_TRUE(check(QByteArray(bytes, 4)));
                }
    EXPECT_EQ(FileNameFromBytes("\xef\xbb\xbf"), QString(QChar(0xFEFF)));
    EXPECT_EQ(FileNameFromBytes("x\xef\xbb\xbfy\xe9\xef\xbb\xbf"),
        QStringLiteral("x\uFEFFy") + QChar(char16_t(0xDCE9)) + QChar(0xFEFF));
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
