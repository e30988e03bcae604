// `tanner-backup help [TOPIC | --search WORDS] [--file PATH]`: the application's help read in a
// terminal, the way man pages are. The topics are the help window's: the chapters of the help
// package, outlined by their headings' leading tabs.
#include "app/BUUserMessages.h"
#include "cli/BUCommandLine.h"
#include "help/VLHelpEngine.h"
#include "help/VLHelpReader.h"
#include "help/VLProperties.h"
#include "help/VLTopicOutline.h"
#include "keelson/FormatString.h"
#include "keelson/KSStrings.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace {

constexpr int kExitNothingFound = 2;
constexpr qsizetype kLineWidth = 78;
constexpr char16_t kKnotCharacter = 1;
constexpr char16_t kLineSeparator = 0x2028;

// The program's own help: beside the program in the build tree, in share/tanner-backup when
// installed.
QString _ApplicationHelpPath()
{
    const QString program = QCoreApplication::applicationDirPath();
    const QString beside = program + QStringLiteral("/Help.TWwrite");
    if (QFileInfo(beside).isDir())
        return beside;
    return QDir::cleanPath(program + QStringLiteral("/../share/tanner-backup/Help.TWwrite"));
}

struct Paragraph {
    QString text;
    bool verbatim = false; // an example: its lines are shown as they are
};

// Whether the character formatting at a cp is a fixed-pitch font, as examples are written in.
bool _IsFixedPitchAt(const VLDocument &document, quint32 cp)
{
    static const VLAtom *font = VLAtomForTag(kRecordChar, VLDocumentKeyDecoder().value(QStringLiteral("font")));
    const void *record = document.property(document.charPropertyAt(cp), kRecordChar);
    if (!record || !font)
        return false;
    const QString name = VLFontName(quint32(VLAtomValue(record, *font)));
    return name.contains(QStringLiteral("Mono"), Qt::CaseInsensitive)
        || name.contains(QStringLiteral("Courier"), Qt::CaseInsensitive);
}

// The paragraphs of a chapter after its heading, a picture standing as "[Picture]".
std::vector<Paragraph> _ChapterParagraphs(const VLDocument &document, std::size_t chapter)
{
    const quint32 start = document.chapterCp(chapter);
    const quint32 end = chapter + 1 < document.chapterCount() ? document.chapterCp(chapter + 1) : document.textLength();
    std::vector<quint32> pictures;
    for (std::size_t i = 0; i < document.knotCount(); ++i) {
        qint32 cp = 0;
        const VLKnot knot = document.knotAt(i, &cp);
        if (knot.type == kKnotPic && quint32(cp) >= start && quint32(cp) < end)
            pictures.push_back(quint32(cp));
    }
    std::vector<Paragraph> paragraphs;
    const QString raw = document.rawText(start, end - start);
    Paragraph current;
    bool heading = true;
    qsizetype paragraphStart = 0;
    auto close = [&](qsizetype at) {
        const bool wasHeading = heading;
        heading = false;
        if (!wasHeading && !current.text.trimmed().isEmpty()) {
            current.verbatim = current.text.contains(QChar(kLineSeparator))
                || _IsFixedPitchAt(document, start + quint32(paragraphStart) + 1);
            paragraphs.push_back(current);
        }
        current = Paragraph();
        paragraphStart = at + 1;
    };
    for (qsizetype i = 0; i < raw.size(); ++i) {
        const char16_t c = raw[i].unicode();
        if (c == u'\n') {
            close(i);
        } else if (c == kKnotCharacter) {
            if (std::binary_search(pictures.begin(), pictures.end(), start + quint32(i)))
                current.text += QStringLiteral("[Picture]");
            if (current.text.isEmpty())
                paragraphStart = i + 1; // the paragraph's text starts after its knots
        } else {
            current.text += QChar(c);
        }
    }
    close(raw.size());
    return paragraphs;
}

// A list item starts with its bullet or number and a tab.
bool _IsListItem(const QString &text)
{
    const qsizetype tab = text.indexOf(u'\t');
    return tab > 0 && tab <= 4 && (text.startsWith(QChar(0x2022)) || text.at(0).isDigit());
}

// A paragraph wrapped to the line width; a list item keeps its marker in front of its first line
// and its following lines under its text.
QStringList _Wrap(const QString &text, qsizetype indent = 0)
{
    QString marker;
    QString body = text;
    const qsizetype tab = text.indexOf(u'\t');
    if (_IsListItem(text)) {
        marker = text.left(tab) + u' ';
        body = text.mid(tab + 1);
        indent += 2;
    }
    body.replace(u'\t', u' ');
    const QString first = QString(indent, u' ') + marker;
    const QString rest(indent + marker.size(), u' ');
    QStringList lines;
    QString line = first;
    for (const QString &word : body.split(u' ', Qt::SkipEmptyParts)) {
        const bool empty = line.size() == (lines.isEmpty() ? first.size() : rest.size());
        if (!empty && line.size() + 1 + word.size() > kLineWidth) {
            lines.append(line);
            line = rest + word;
        } else {
            line += (empty ? QString() : QStringLiteral(" ")) + word;
        }
    }
    lines.append(line);
    return lines;
}

// Every topic of the outline in chapter order, with its level.
void _Flatten(const std::vector<VLTopic> &topics, std::vector<const VLTopic *> &into)
{
    for (const VLTopic &topic : topics) {
        into.push_back(&topic);
        _Flatten(topic.topics, into);
    }
}

void _PrintOutline(const VLTopicOutline &outline)
{
    std::vector<const VLTopic *> topics;
    _Flatten(outline.topics, topics);
    for (const VLTopic *topic : topics)
        PrintLine(stdout, QString(topic->level * 2, u' ') + topic->name);
}

void _PrintTopic(const VLDocument &document, const VLTopic &topic)
{
    PrintLine(stdout, topic.name);
    PrintLine(stdout, QString(topic.name.size(), topic.level == 0 ? u'=' : u'-'));
    bool lastWasItem = false;
    for (const Paragraph &paragraph : _ChapterParagraphs(document, topic.index)) {
        // The items of a list follow each other without a blank line.
        const bool item = !paragraph.verbatim && _IsListItem(paragraph.text);
        if (!(item && lastWasItem))
            PrintLine(stdout, QString());
        lastWasItem = item;
        if (paragraph.verbatim) {
            for (const QString &line : paragraph.text.split(QChar(kLineSeparator)))
                PrintLine(stdout, QStringLiteral("    ") + line);
        } else {
            PrintLine(stdout, _Wrap(paragraph.text).join(u'\n'));
        }
    }
    if (!topic.topics.empty()) {
        PrintLine(stdout, QString());
        PrintLine(stdout, QStringLiteral("Subtopics:"));
        for (const VLTopic &subtopic : topic.topics)
            PrintLine(stdout, QStringLiteral("  ") + subtopic.name);
    }
}

int _ShowTopic(const VLDocument &document, const VLTopicOutline &outline, const QString &wanted)
{
    std::vector<const VLTopic *> topics;
    _Flatten(outline.topics, topics);
    for (const VLTopic *topic : topics) {
        if (CaseInsensitiveFind(topic->name, wanted, KSSearchAnchor::Start)) {
            _PrintTopic(document, *topic);
            return kExitOk;
        }
    }
    PrintError(QString::fromUtf8(BUUserMessages::kNoTopicBegins).arg(wanted),
        QString::fromUtf8(BUUserMessages::kSeeTheTopics));
    return kExitNothingFound;
}

// The part of a paragraph around the first of the words it holds, cut to fit a line.
QString _MatchingLine(const QString &text, const QStringList &words)
{
    QString line = text;
    line.replace(u'\t', u' ').replace(QChar(kLineSeparator), u' ');
    const qsizetype room = kLineWidth - 4;
    if (line.size() <= room)
        return line;
    qsizetype at = 0;
    const QString folded = line.toCaseFolded();
    for (const QString &word : words) {
        const qsizetype found = folded.indexOf(word.toCaseFolded());
        if (found >= 0) {
            at = found;
            break;
        }
    }
    const qsizetype from = std::clamp<qsizetype>(at - room / 3, 0, line.size() - room);
    return (from > 0 ? QStringLiteral("...") : QString()) + line.mid(from, room - 6).trimmed()
        + (from + room - 6 < line.size() ? QStringLiteral("...") : QString());
}

int _Search(const VLDocument &document, const VLTopicOutline &outline, const QStringList &words)
{
    auto holds = [&words](const QString &text) {
        int count = 0;
        for (const QString &word : words)
            count += CaseInsensitiveFind(text, word, KSSearchAnchor::None) ? 1 : 0;
        return count;
    };
    std::vector<const VLTopic *> topics;
    _Flatten(outline.topics, topics);
    int found = 0;
    for (const VLTopic *topic : topics) {
        const std::vector<Paragraph> paragraphs = _ChapterParagraphs(document, topic->index);
        QString whole = topic->name;
        for (const Paragraph &paragraph : paragraphs)
            whole += u'\n' + paragraph.text;
        if (holds(whole) < int(words.size()))
            continue;
        // The line shown is the paragraph holding most of the words, the first of them on a tie.
        const Paragraph *best = nullptr;
        int bestCount = 0;
        for (const Paragraph &paragraph : paragraphs) {
            const int count = holds(paragraph.text);
            if (count > bestCount) {
                best = &paragraph;
                bestCount = count;
            }
        }
        PrintLine(stdout, topic->name);
        if (best && holds(topic->name) < int(words.size()))
            PrintLine(stdout, QStringLiteral("    ") + _MatchingLine(best->text, words));
        ++found;
    }
    if (found == 0) {
        PrintError(QString::fromUtf8(BUUserMessages::kNoTopicHolds).arg(words.join(u' ')),
            QString::fromUtf8(BUUserMessages::kSeeTheTopics));
        return kExitNothingFound;
    }
    return kExitOk;
}

} // namespace

int RunHelpTopicsCommand(const BUCommandArgs &invocation)
{
    QStringList args = invocation.args;
    QString path = _ApplicationHelpPath();
    const qsizetype file = args.indexOf(QStringLiteral("--file"));
    if (file >= 0) {
        if (file + 1 >= args.size()) {
            PrintError(QString::fromUtf8(BUUserMessages::kHelpUsage));
            return kExitUsage;
        }
        path = args.at(file + 1);
        args.remove(file, 2);
    }
    const bool search = !args.isEmpty() && args.first() == u"--search";
    if (search)
        args.removeFirst();
    const bool option
        = std::any_of(args.cbegin(), args.cend(), [](const QString &arg) { return arg.startsWith(u"--"); });
    if (option || (search && args.isEmpty())) {
        PrintError(QString::fromUtf8(BUUserMessages::kHelpUsage));
        return kExitUsage;
    }

    VLLoadFailure failure;
    const std::unique_ptr<VLDocument> document = VLLoadHelpDocument(path, &failure);
    if (!document) {
        PrintError(FormatString(kVLCantReadHelpFormat, failure.reason), path);
        return kExitNothingFound;
    }
    const VLTopicOutline outline = VLBuildTopicOutline(*document);
    if (search) {
        QStringList words;
        for (const QString &arg : std::as_const(args))
            words += arg.split(u' ', Qt::SkipEmptyParts);
        return _Search(*document, outline, words);
    }
    if (!args.isEmpty())
        return _ShowTopic(*document, outline, args.join(u' '));
    _PrintOutline(outline);
    return kExitOk;
}
