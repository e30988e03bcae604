#include "help/window/KSHelpContent.h"

#include <QTextBlock>
#include <QTextCursor>

#include <algorithm>

void KSCpMap::addAnchor(quint32 cp, int position)
{
    if (!m_anchors.empty() && m_anchors.back().cp == cp) {
        m_anchors.back().position = position;
        return;
    }
    m_anchors.push_back({cp, position});
}

int KSCpMap::positionForCp(quint32 cp) const
{
    auto it = std::upper_bound(
        m_anchors.begin(), m_anchors.end(), cp, [](quint32 value, const Anchor &a) { return value < a.cp; });
    if (it == m_anchors.begin())
        return int(cp);
    --it;
    return it->position + int(cp - it->cp);
}

quint32 KSCpMap::cpForPosition(int position) const
{
    position = std::max(position, 0);
    auto next = std::upper_bound(
        m_anchors.begin(), m_anchors.end(), position, [](int value, const Anchor &a) { return value < a.position; });
    // Before the first anchor, cps and positions are equal.
    quint32 cp = quint32(position);
    if (next != m_anchors.begin()) {
        const Anchor &anchor = *(next - 1);
        cp = anchor.cp + quint32(position - anchor.position);
    }
    return next != m_anchors.end() && cp >= next->cp ? next->cp : cp;
}

int KSHelpContent::chapterAt(quint32 cp) const
{
    auto it = std::upper_bound(chapterCps.begin(), chapterCps.end(), cp);
    return it == chapterCps.begin() ? 0 : int(it - chapterCps.begin()) - 1;
}

qint64 KSHelpContent::bookmarkAfter(quint32 cp, int offset) const
{
    auto it = std::upper_bound(bookmarkCps.begin(), bookmarkCps.end(), cp);
    const auto index = std::size_t(it - bookmarkCps.begin()) + std::size_t(std::max(offset, 0));
    return index < bookmarkCps.size() ? qint64(bookmarkCps[index]) : -1;
}

int KSHelpContent::bookmarksBetween(quint32 from, quint32 to) const
{
    auto first = std::lower_bound(bookmarkCps.begin(), bookmarkCps.end(), from);
    auto last = std::lower_bound(bookmarkCps.begin(), bookmarkCps.end(), to);
    return last > first ? int(last - first) : 0;
}

quint32 KSHelpContent::chapterEnd(int chapter) const
{
    const auto next = std::size_t(chapter) + 1;
    return next < chapterCps.size() ? chapterCps[next] : textLength;
}

QString KSHelpContent::plainText(quint32 start, quint32 end) const
{
    if (!text || end <= start)
        return {};
    QTextCursor cursor(text.get());
    cursor.setPosition(map.positionForCp(start));
    cursor.setPosition(map.endPositionForCp(end), QTextCursor::KeepAnchor);
    QString plain = cursor.selectedText();
    plain.replace(QChar::ParagraphSeparator, u'\n');
    plain.replace(QChar(0xFDD0), u'\n'); // a table's beginning and end
    plain.replace(QChar(0xFDD1), u'\n');
    plain.remove(QChar(0x200B)); // the stand-ins of invisible objects
    return plain;
}

QString KSSpokenText(const QTextDocument &document, int start, int end, bool backwards)
{
    QStringList pieces;
    for (QTextBlock block = document.findBlock(start); block.isValid() && block.position() <= end;
         block = block.next()) {
        const int from = std::max(start, block.position()) - block.position();
        const int to = std::min(end, block.position() + block.length() - 1) - block.position();
        QString piece = block.text().mid(from, std::max(0, to - from));
        piece.remove(QChar::ObjectReplacementCharacter).remove(QChar(0x200B));
        if (!piece.trimmed().isEmpty())
            pieces.append(piece);
    }
    if (backwards)
        std::reverse(pieces.begin(), pieces.end());
    QString text;
    for (const QString &piece : pieces)
        text += piece + u' ';
    return text;
}

std::unique_ptr<KSHelpContent> KSHelpContentFromChapters(
    const QStringList &names, const std::vector<QStringList> &paragraphs, const QString &path)
{
    auto content = std::make_unique<KSHelpContent>();
    content->path = path;
    content->chapterNames = names;
    content->text = std::make_unique<QTextDocument>();
    QTextCursor cursor(content->text.get());
    QTextCharFormat heading;
    heading.setFontWeight(QFont::Bold);
    heading.setProperty(QTextFormat::FontSizeAdjustment, 1);
    for (qsizetype i = 0; i < names.size(); ++i) {
        if (cursor.position() > 0)
            cursor.insertBlock();
        const auto cp = quint32(cursor.position());
        content->chapterCps.push_back(cp);
        content->marks.push_back({cp, kHelpKnotChapter});
        cursor.insertText(QString(QChar(0x200B)) + names[i], heading);
        const QStringList body = std::size_t(i) < paragraphs.size() ? paragraphs[std::size_t(i)] : QStringList();
        for (const QString &paragraph : body) {
            cursor.insertBlock();
            cursor.insertText(paragraph, QTextCharFormat());
        }
    }
    content->textLength = quint32(content->text->characterCount() - 1);
    return content;
}
