// The program's user messages and the manual: every message of the catalog (app/BUUserMessages.h)
// is explained in the manual's "Messages" part, and every message text written in the code is in
// the catalog.
#include "app/BUUserMessages.h"
#include "tests/support/TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

namespace {

QString SourceRoot()
{
    return QDir::cleanPath(QStringLiteral(TANNER_TEST_DATA_DIR "/../.."));
}

QString ReadText(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    return QString::fromUtf8(file.readAll());
}

QString CollapseSpaces(QString text)
{
    text.remove(QChar(1)); // knots
    text.replace(QChar(0x2028), u' ');
    return text.replace(QRegularExpression(QStringLiteral("\\s+")), QStringLiteral(" "));
}

// The pieces of a message between the values the code fills in.
QStringList Fragments(const QString &message)
{
    static const QRegularExpression placeholder(QStringLiteral("%[-,.0-9]*(?:lld|ld|d|f|s|x|C|@)|%[0-9]|###"));
    QStringList pieces;
    for (const QString &piece : message.split(placeholder))
        pieces.append(CollapseSpaces(piece));
    return pieces;
}

// The message as a pattern: its pieces in order, each value standing for some words.
QRegularExpression MessagePattern(const QString &message)
{
    QStringList escaped;
    for (const QString &piece : Fragments(message.trimmed()))
        escaped.append(QRegularExpression::escape(piece));
    return QRegularExpression(escaped.join(QStringLiteral(".{1,80}?")));
}

// A C++ string literal of a source file, adjacent literals joined, with the statement it is in.
struct Literal {
    QString text;
    QString statement; // from the statement's start up to the literal
    int line;
};

// Reads the string literals of C++ source (not comments, character literals or #include lines).
QList<Literal> StringLiterals(const QString &source)
{
    QList<Literal> literals;
    qsizetype statementStart = 0;
    int line = 1;
    bool joinNext = false;
    for (qsizetype i = 0; i < source.size(); ++i) {
        const QChar c = source[i];
        if (c == u'\n') {
            ++line;
        } else if (source.mid(i, 2) == u"//") {
            i = source.indexOf(u'\n', i) - 1;
            if (i < 0)
                break;
        } else if (source.mid(i, 2) == u"/*") {
            const qsizetype end = source.indexOf(QStringLiteral("*/"), i + 2);
            line += int(source.mid(i, end - i).count(u'\n'));
            i = end + 1;
        } else if (c == u'#' && (i == 0 || source[i - 1] == u'\n')) {
            i = source.indexOf(u'\n', i) - 1; // a preprocessor line
            if (i < 0)
                break;
        } else if (c == u'\'') {
            i += source[i + 1] == u'\\' ? 3 : 2;
        } else if (c == u';' || c == u'{' || c == u'}') {
            statementStart = i + 1;
            joinNext = false;
        } else if (c == u'"') {
            QString text;
            qsizetype j = i + 1;
            for (; j < source.size() && source[j] != u'"'; ++j) {
                if (source[j] != u'\\') {
                    text += source[j];
                    continue;
                }
                const QChar escaped = source[++j];
                if (escaped == u'n')
                    text += u'\n';
                else if (escaped == u'r')
                    text += u'\r';
                else if (escaped == u't')
                    text += u'\t';
                else if (escaped == u'x' || escaped == u'u') {
                    const qsizetype digits = escaped == u'u' ? 4 : 2;
                    text += QChar(source.mid(j + 1, digits).toUShort(nullptr, 16));
                    j += digits;
                } else
                    text += escaped;
            }
            if (joinNext && !literals.isEmpty())
                literals.last().text += text;
            else
                literals.append({text, source.mid(statementStart, i - statementStart), line});
            i = j;
            // Only white space up to the next quote joins the next literal to this one.
            qsizetype k = i + 1;
            while (k < source.size() && source[k].isSpace())
                ++k;
            joinNext = k < source.size() && source[k] == u'"';
        } else if (!c.isSpace()) {
            joinNext = false;
        }
    }
    return literals;
}

// Whether a literal reads as words for a person: two words or more of letters. Not paths, rule
// archives (two digits and a name), pieces of JSON, or terminal control lines.
bool ReadsAsWords(const QString &text)
{
    static const QRegularExpression word(QStringLiteral("[A-Za-z]{2,}"));
    static const QRegularExpression notWords(QStringLiteral("^(/|<|[01][0-3]|\\r)|\": "));
    return text.contains(u' ') && text.count(word) >= 2 && !notWords.match(text).hasMatch();
}

// Texts of the code that are words but not messages: labels of the window and the command line's
// lists, the mail that Contact opens, the About box, formats of names and dates.
const QStringList kNotMessages = {
    QStringLiteral("Recent Devices"),
    QStringLiteral("System Volume Information"),
    QStringLiteral("[Picture: "),
    QStringLiteral("Other Devices"),
    QStringLiteral("New Ignore Rule"),
    QStringLiteral("Edit Ignore Rule"),
    QStringLiteral("starts with"),
    QStringLiteral("ends with"),
    QStringLiteral("Name %@ \"%@\""),
    QStringLiteral("Tanner Backup"),
    QStringLiteral("Logs for %@ %@"),
    QStringLiteral("Problem report"),
    QStringLiteral("Question or comment"),
    QStringLiteral("--- Please do not delete this line: %@, Mac OS %@ ---\n\n"),
    QStringLiteral("--- Please do not delete this line: %@, %@ ---\n\n"),
    QStringLiteral("%,lld of %,lld %@, %@ of %@"),
    QStringLiteral("%.2f MB of %.2f MB"),
    QStringLiteral("About %@"),
    QStringLiteral("Version %@"),
    QStringLiteral("Manual backup for paranoid control freaks."),
    QStringLiteral("Unknown error %1"),
    QStringLiteral("%,lu chapters, %,u characters, %,lu knots, %,lu bookmarks, %,lu pictures, %,lu styles, "
                   "%,lu property records"),
    QStringLiteral("tanner-backup: "),
    QStringLiteral(" maximized"),
    // The history's outcome labels, and the formats of its lines and of the log's lines of a run.
    QStringLiteral("Up to date"),
    QStringLiteral("Failed items"),
    QStringLiteral("Serious error"),
    QStringLiteral("Extra items"),
    QStringLiteral("Not started"),
    QStringLiteral("Analysis of \"%@\""),
    QStringLiteral("Backup to \"%@\""),
    QStringLiteral("%,lld s"),
    QStringLiteral(" (%,lld s"),
    QStringLiteral("%,lld to copy, %,lld to update, %,lld to delete, %@"),
    QStringLiteral("%,lld copied, %,lld updated, %,lld deleted, %,lld failed"),
    QStringLiteral(", %@ of %@ copied"),
    QStringLiteral("History of runs, newest first:\n"),
    QStringLiteral("yyyy-MM-dd HH:mm"),
    QStringLiteral("yyyy-MM-dd HH:mm:ss"),
    QStringLiteral("%d min %02d s"),
    QStringLiteral("Show History of \"%@\""),
    QStringLiteral("All Devices"),
    QStringLiteral("%@ \"%@\", started %@, took %@."),
    QStringLiteral("Analysis of"),
    QStringLiteral("Backup folders: "),
    QStringLiteral("Planned: %@, %@, %@; %@ to copy."),
    QStringLiteral("Done: %,lld copied, %,lld updated, %,lld deleted, %@ copied."),
    QStringLiteral("action failed."),
    QStringLiteral("actions failed."),
    QStringLiteral("action was not tried."),
    QStringLiteral("actions were not tried."),
    QStringLiteral("Previous Topic"), // the help window's buttons and title
    QStringLiteral("Next Topic"),
    QStringLiteral("%1 Help — %2"),
    QStringLiteral("Help Font"),
    QStringLiteral("<A HREF=\""), // the link the update check looks for in the downloads page
    QStringLiteral("Usage: tanner-backup COMMAND [ARGUMENTS]\n\nTanner Backup mirrors chosen folders onto a "
                   "backup device: every backup folder becomes a\nfolder of the same name at the top of the "
                   "device, and the device is made an exact copy.\n\nCommands:\n"),
};

// Files whose texts are not messages to the user: the help reader's details of a damaged file for
// help authors (its messages are in its header), and the words of the help format.
const QStringList kNotMessageFiles = {
    QStringLiteral("help/VLHelpReader.cpp"),
    QStringLiteral("help/VLProperties.cpp"),
    QStringLiteral("help/VLVocabulary.cpp"),
};

bool InCatalog(const QString &text)
{
    for (const BUUserMessages::Entry &entry : BUUserMessages::kAll) {
        if (QString::fromUtf8(entry.text).contains(text.trimmed()))
            return true;
    }
    return false;
}

} // namespace

TEST(UserMessages, TheManualExplainsEveryMessageOfTheCatalog)
{
    const QString package = QFileInfo(QStringLiteral(TANNER_BINARY)).absolutePath() + QStringLiteral("/Help.TWwrite");
    const QString text = ReadText(package + QStringLiteral("/document.txt"));
    if (text.isNull())
        GTEST_SKIP() << "no help package at " << package.toStdString() << " (it is built with the window)";
    const qsizetype start = text.indexOf(QStringLiteral("\u0001Messages\n"));
    ASSERT_GE(start, 0) << "the manual has no topic \"Messages\"";
    const QString messages = CollapseSpaces(text.sliced(start));

    int missing = 0;
    for (const BUUserMessages::Entry &entry : BUUserMessages::kAll) {
        const QString message = QString::fromUtf8(entry.text);
        if (!MessagePattern(message).match(messages).hasMatch()) {
            ADD_FAILURE() << entry.name << " is not in the manual's \"Messages\": " << message.toStdString();
            ++missing;
        }
    }
    EXPECT_EQ(missing, 0);

    // The pattern lets a value stand for words, but the words around it must all be there.
    EXPECT_TRUE(
        MessagePattern(QStringLiteral("Backup to %@ failed.")).match(QStringLiteral("Backup to X failed.")).hasMatch());
    EXPECT_FALSE(
        MessagePattern(QStringLiteral("Backup to %@ failed.")).match(QStringLiteral("Backup to failed.")).hasMatch());
    EXPECT_FALSE(MessagePattern(QStringLiteral("%@.\n\nThe file \"%@\" could not be created."))
                     .match(QStringLiteral("Full. The folder \"x\" could not be created."))
                     .hasMatch());
}

TEST(UserMessages, EveryMessageOfTheCodeIsInTheCatalog)
{
    const QString root = SourceRoot();
    ASSERT_TRUE(QFileInfo(root + QStringLiteral("/app/BUUserMessages.h")).isFile()) << root.toStdString();
    int sources = 0;
    QStringList uncatalogued;
    for (const QString &folder : {QStringLiteral("app"), QStringLiteral("backup"), QStringLiteral("cli"),
             QStringLiteral("ui"), QStringLiteral("keelson"), QStringLiteral("help")}) {
        QDirIterator files(root + u'/' + folder, {QStringLiteral("*.cpp"), QStringLiteral("*.h")}, QDir::Files,
            QDirIterator::Subdirectories);
        while (files.hasNext()) {
            const QString path = files.next();
            const QString relative = QDir(root).relativeFilePath(path);
            if (relative == u"app/BUUserMessages.h" || kNotMessageFiles.contains(relative))
                continue;
            ++sources;
            for (const Literal &literal : StringLiterals(ReadText(path))) {
                // Log lines are for the log file, the command help of --help is a listing of its own.
                if (!ReadsAsWords(literal.text) || literal.statement.contains(QStringLiteral("LogString("))
                    || literal.statement.contains(QStringLiteral("LogException(")) || literal.text.startsWith(u"  ")
                    || kNotMessages.contains(literal.text) || InCatalog(literal.text))
                    continue;
                uncatalogued.append(
                    QDir(root).relativeFilePath(path) + u':' + QString::number(literal.line) + u' ' + literal.text);
            }
        }
    }
    EXPECT_GT(sources, 50);
    EXPECT_TRUE(uncatalogued.isEmpty()) << "messages missing from app/BUUserMessages.h:\n"
                                        << uncatalogued.join(u'\n').toStdString();

    // The extra-items dialog's text is designed in its interface file.
    const QString ui = ReadText(root + QStringLiteral("/resources/ExtraStuffDialog.ui"));
    const QRegularExpression designed(
        QStringLiteral("name=\"warningField\".*?<property name=\"text\"><string>(.*?)</string>"),
        QRegularExpression::DotMatchesEverythingOption);
    const QRegularExpressionMatch match = designed.match(ui);
    ASSERT_TRUE(match.hasMatch());
    QString dialogText = match.captured(1);
    dialogText.replace(QStringLiteral("&quot;"), QStringLiteral("\""))
        .replace(QStringLiteral("&lt;"), QStringLiteral("<"))
        .replace(QStringLiteral("&gt;"), QStringLiteral(">"))
        .replace(QStringLiteral("&amp;"), QStringLiteral("&"));
    EXPECT_EQ(dialogText, QString::fromUtf8(BUUserMessages::kExtraItemsDialog));
}

TEST(UserMessages, TheLiteralReaderJoinsPiecesAndSkipsComments)
{
    const QList<Literal> literals = StringLiterals(QStringLiteral(
        "#include \"a b c.h\"\n// \"not this one\"\nint x = f('\"', \"first \"\n  \"second\"); /* \"nor\" */\n"
        "LogString(\"log %@\", QStringLiteral(\"an \\\"argument\\\"\"));\n"));
    ASSERT_EQ(literals.size(), 3);
    EXPECT_EQ(literals[0].text, QStringLiteral("first second"));
    EXPECT_EQ(literals[0].line, 3);
    EXPECT_EQ(literals[2].text, QStringLiteral("an \"argument\""));
    EXPECT_TRUE(literals[2].statement.contains(QStringLiteral("LogString(")));
}
