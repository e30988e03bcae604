#include "help/window/KSHelpDocumentView.h"

#include "help/VLCautionImage.h"
#include "help/VLDocument.h"
#include "help/VLHelpEngine.h"
#include "help/VLHelpReader.h"
#include "keelson/KSLog.h"

#include <QBuffer>
#include <QImage>
#include <QImageReader>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextList>
#include <QTextTable>
#include <QUrl>

#include <cmath>

namespace {

constexpr char16_t kStandIn = 0x200B; // an invisible object: one position, nothing drawn
constexpr int kMaxPictureWidth = 560;

// The value of a property atom, by the tag of its element; `fallback` when the record has none.
qint64 _Atom(const void *record, quint32 type, quint32 tag, qint64 fallback = 0)
{
    const VLAtom *atom = record ? VLAtomForTag(type, tag) : nullptr;
    return atom ? VLAtomValue(record, *atom) : fallback;
}

// A colour, or an invalid one for "none" (no opacity) and the malformed white.
QColor _Colour(qint64 value)
{
    const auto kolor = quint32(value);
    const quint32 opacity = kolor >> 24;
    if (opacity == 0 || kolor == kKolorWhiteMalformed)
        return {};
    return QColor(int(kolor & 0xFF), int((kolor >> 8) & 0xFF), int((kolor >> 16) & 0xFF),
        int(std::min<quint32>(opacity, 100) * 255 / 100));
}

QTextCharFormat _CharFormat(const VLDocument &document, qint32 index)
{
    QTextCharFormat format;
    const void *record = document.property(index, kRecordChar);
    if (!record)
        return format;
    if (_Atom(record, kRecordChar, 1098))
        format.setFontWeight(QFont::Bold);
    if (_Atom(record, kRecordChar, 1165))
        format.setFontItalic(true);
    if (_Atom(record, kRecordChar, 1197))
        format.setFontStrikeOut(true);
    static const QTextCharFormat::UnderlineStyle underlines[] = {QTextCharFormat::NoUnderline,
        QTextCharFormat::SingleUnderline, QTextCharFormat::SingleUnderline, QTextCharFormat::SingleUnderline,
        QTextCharFormat::DotLine, QTextCharFormat::DashUnderline, QTextCharFormat::SingleUnderline};
    const qint64 underline = _Atom(record, kRecordChar, 1215);
    if (underline > 0 && underline < qint64(std::size(underlines)))
        format.setUnderlineStyle(underlines[underline]);
    static const QFont::Capitalization caps[]
        = {QFont::MixedCase, QFont::AllUppercase, QFont::AllLowercase, QFont::SmallCaps, QFont::Capitalize};
    const qint64 cap = _Atom(record, kRecordChar, 1107);
    if (cap > 0 && cap < qint64(std::size(caps)))
        format.setFontCapitalization(caps[cap]);
    const qint64 size = _Atom(record, kRecordChar, 1149);
    if (size >= 4 && size <= 400)
        format.setFontPointSize(double(size));
    const qint64 font = _Atom(record, kRecordChar, 1150, -1);
    const QString family = font >= 0 ? VLFontName(quint32(font)) : QString();
    if (!family.isEmpty())
        format.setFontFamilies({family});
    const qint64 sub = _Atom(record, kRecordChar, 1201);
    if (sub != 0)
        format.setVerticalAlignment(sub > 0 ? QTextCharFormat::AlignSuperScript : QTextCharFormat::AlignSubScript);
    if (const QColor colour = _Colour(_Atom(record, kRecordChar, 1137)); colour.isValid())
        format.setForeground(colour);
    if (const QColor colour = _Colour(_Atom(record, kRecordChar, 1092)); colour.isValid())
        format.setBackground(colour);
    return format;
}

QTextBlockFormat _BlockFormat(const VLDocument &document, qint32 index)
{
    QTextBlockFormat format;
    const void *record = document.property(index, kRecordPara);
    if (!record)
        return format;
    static const Qt::Alignment alignments[] = {Qt::AlignLeft, Qt::AlignHCenter, Qt::AlignJustify, Qt::AlignRight};
    const qint64 align = _Atom(record, kRecordPara, 1089);
    if (align >= 0 && align < qint64(std::size(alignments)))
        format.setAlignment(alignments[align]);
    format.setLeftMargin(double(std::max<qint64>(0, _Atom(record, kRecordPara, 1169))));
    format.setRightMargin(double(std::max<qint64>(0, _Atom(record, kRecordPara, 1192))));
    format.setTextIndent(double(_Atom(record, kRecordPara, 1148)));
    format.setTopMargin(double(std::max<qint64>(0, _Atom(record, kRecordPara, 1096))));
    format.setBottomMargin(double(std::max<qint64>(0, _Atom(record, kRecordPara, 1088))));
    return format;
}

QTextListFormat _ListFormat(const VLDocument &document, qint32 index)
{
    QTextListFormat format;
    format.setStyle(QTextListFormat::ListDisc);
    const void *record = document.property(index, kRecordList);
    const VLAtom *marks = record ? VLAtomForTag(kRecordList, 1032) : nullptr;
    if (!marks || VLAtomCount(record, *marks) == 0)
        return format;
    const VLListMarker marker = VLAtomMarker(record, *marks, 0);
    if (marker.type == 3) { // numbered
        static const QTextListFormat::Style styles[] = {QTextListFormat::ListDecimal, QTextListFormat::ListUpperRoman,
            QTextListFormat::ListLowerRoman, QTextListFormat::ListUpperAlpha, QTextListFormat::ListLowerAlpha};
        format.setStyle(marker.nof < std::size(styles) ? styles[marker.nof] : QTextListFormat::ListDecimal);
        if (marker.prefix)
            format.setNumberPrefix(QString(QChar(marker.prefix)));
        format.setNumberSuffix(marker.suffix ? QString(QChar(marker.suffix)) : QString());
    }
    return format;
}

bool _IsBreak(char16_t c)
{
    return c == 10 || c == 11 || c == 12 || c == 13;
}

// A table's shape, counted from its knots before it is laid out: the rows and the most cells a
// row has. A row begins at its "beg" row knot, each "mid" row knot begins the row's next cell.
struct TableShape {
    int rows = 0;
    int columns = 0;
    std::size_t endKnot = 0; // the index of the table's "end" knot
};

bool _TableShape(const VLDocument &document, std::size_t begKnot, TableShape *shape)
{
    int depth = 0, cells = 0;
    for (std::size_t i = begKnot + 1; i < document.knotCount(); ++i) {
        const VLKnot knot = document.knotAt(i);
        if (knot.type == kKnotTable && knot.kink == kKinkBeg) {
            ++depth;
        } else if (knot.type == kKnotTable && knot.kink == kKinkEnd) {
            if (depth-- == 0) {
                shape->endKnot = i;
                return shape->rows > 0;
            }
        } else if (knot.type == kKnotRow && depth == 0) {
            if (knot.kink == kKinkBeg) {
                ++shape->rows;
                cells = 1;
            } else if (knot.kink == kKinkMid && shape->rows > 0) {
                ++cells;
            }
            shape->columns = std::max(shape->columns, cells);
        }
    }
    return false; // a table without its end is shown as its rows' paragraphs
}

class Layout {
public:
    Layout(const VLDocument &document, KSHelpContent &content)
        : document(document), content(content), cursor(content.text.get())
    {
    }
    void run();
    // The character property that most of the text is in.
    qint32 normalProperty() const;

private:
    const QTextCharFormat &charFormat(qint32 index);
    const QTextBlockFormat &blockFormat(quint32 cp);
    void insertKnot(quint32 cp, std::size_t knotIndex, const VLKnot &knot);
    void moveTo(int position, quint32 cp);

    const VLDocument &document;
    KSHelpContent &content;
    QTextCursor cursor;
    QHash<qint32, QTextCharFormat> charFormats;
    QHash<qint32, QTextCharFormat> linkFormats;
    QHash<qint32, QTextBlockFormat> blockFormats;
    QTextList *list = nullptr;
    qint64 linkStart = -1;
    QHash<qint32, quint32> bookmarkByNumber;
    QHash<quint32, qint32> linkBookmark;
    // The table being filled, its row and cell, and the index of its "end" knot.
    QTextTable *table = nullptr;
    int row = -1, column = 0;
    std::size_t tableEnd = 0;
    int nested = 0; // tables inside the table: shown as their rows' paragraphs in its cell
    // Where the last run of text began, so that a property is looked up once per run.
    std::size_t runIndex = 0;
    quint32 runEnd = 0;
    qint32 runProperty = -1;
    QHash<qint32, quint64> charactersByProperty;
};

qint32 Layout::normalProperty() const
{
    qint32 normal = -1;
    quint64 most = 0;
    for (auto it = charactersByProperty.cbegin(); it != charactersByProperty.cend(); ++it) {
        if (it.value() > most || (it.value() == most && it.key() < normal)) {
            most = it.value();
            normal = it.key();
        }
    }
    return normal;
}

const QTextCharFormat &Layout::charFormat(qint32 index)
{
    auto it = charFormats.find(index);
    if (it == charFormats.end())
        it = charFormats.insert(index, _CharFormat(document, index));
    if (linkStart < 0)
        return *it;
    auto link = linkFormats.find(index);
    if (link == linkFormats.end()) {
        QTextCharFormat format = *it;
        format.setAnchor(true);
        format.setFontUnderline(true);
        format.setForeground(QColor(0x1A, 0x5F, 0xB4));
        link = linkFormats.insert(index, format);
    }
    link->setAnchorHref(QStringLiteral("cp:%1").arg(linkStart));
    return *link;
}

const QTextBlockFormat &Layout::blockFormat(quint32 cp)
{
    const qint32 index = document.paraPropertyAt(cp);
    auto it = blockFormats.find(index);
    if (it == blockFormats.end())
        it = blockFormats.insert(index, _BlockFormat(document, index));
    return *it;
}

// Puts the cursor at a position the layout chose (a table cell, the text after a table) for the
// text from `cp` on, and records the shift in the cp map.
void Layout::moveTo(int position, quint32 cp)
{
    cursor.setPosition(position);
    content.map.addAnchor(cp, position);
}

void Layout::insertKnot(quint32 cp, std::size_t knotIndex, const VLKnot &knot)
{
    content.marks.push_back({cp, knot.type});
    switch (knot.type) {
    case kKnotPic: {
        const VLPicture *picture = document.picture(std::size_t(std::max(knot.primary, 0)));
        // A picture wider than a comfortable text column is shown at the column's width, and is
        // decoded at that size (twice it, for sharp zooms and dense screens), never at its own:
        // a small file may hold a picture of hundreds of megabytes.
        QImage image;
        QSize shown;
        if (picture && picture->image) {
            QBuffer buffer;
            buffer.setData(picture->image->data);
            QImageReader reader(&buffer);
            const QSize full = reader.size(); // from the header, nothing decoded yet
            const auto fitted = [](QSize size) {
                if (size.width() > kMaxPictureWidth)
                    size = size.scaled(kMaxPictureWidth, size.height(), Qt::KeepAspectRatio);
                return size.expandedTo(QSize(1, 1));
            };
            if (full.isValid() && !full.isEmpty() && full.width() > 2 * fitted(full).width())
                reader.setScaledSize(fitted(full) * 2);
            image = reader.read();
            // Bytes that only look like a picture are a missing picture: its stand-in shows.
            if (image.isNull() && !picture->image->caution) {
                LogString("Can't read image %@",
                    picture->fileName   ? *picture->fileName
                        : picture->name ? *picture->name
                                        : QString());
                picture->image->caution = true;
                image.loadFromData(VLCautionImageData());
            }
            shown = fitted(full.isValid() && !full.isEmpty() && !picture->image->caution ? full : image.size());
        }
        if (!image.isNull()) {
            const QUrl name(QStringLiteral("picture:%1").arg(cp));
            content.text->addResource(QTextDocument::ImageResource, name, image);
            QTextImageFormat format;
            format.setName(name.toString());
            format.setWidth(shown.width());
            format.setHeight(shown.height());
            cursor.insertImage(format);
            return;
        }
        break;
    }
    case kKnotCheckbox:
        cursor.insertText(QString(QChar((knot.primary & 0xFF) ? 0x2611 : 0x2610)), charFormat(runProperty));
        return;
    case kKnotDivider: {
        QTextBlockFormat rule = cursor.blockFormat();
        rule.setProperty(
            QTextFormat::BlockTrailingHorizontalRulerWidth, QTextLength(QTextLength::PercentageLength, 100));
        cursor.setBlockFormat(rule);
        break;
    }
    case kKnotBookmark:
        if (knot.kink == kKinkBeg)
            bookmarkByNumber.insert(knot.secondary, cp);
        break;
    case kKnotLink:
        if (knot.kink == kKinkEnd) {
            linkStart = -1;
        } else {
            linkStart = cp;
            linkBookmark.insert(cp, knot.secondary);
        }
        break;
    case kKnotList:
        if (knot.kink == kKinkBeg) {
            list = cursor.createList(_ListFormat(document, knot.property));
        } else if (knot.kink == kKinkEnd) {
            list = nullptr;
        }
        break;
    case kKnotTable:
        if (knot.kink == kKinkBeg && !table) {
            // The knot stays in the paragraph before the table; the table follows it.
            TableShape shape;
            if (_TableShape(document, knotIndex, &shape)) {
                cursor.insertText(QString(QChar(kStandIn)), charFormat(runProperty));
                QTextTableFormat format;
                format.setCellPadding(4);
                format.setCellSpacing(0);
                format.setBorder(1);
                format.setBorderStyle(QTextFrameFormat::BorderStyle_Solid);
                format.setBorderCollapse(true);
                table = cursor.insertTable(shape.rows, shape.columns, format);
                content.map.addAnchor(cp + 1, cursor.position());
                tableEnd = shape.endKnot;
                row = -1;
                column = 0;
                return;
            }
        } else if (knot.kink == kKinkBeg) {
            ++nested;
        } else if (knot.kink == kKinkEnd && table && knotIndex == tableEnd) {
            moveTo(table->lastPosition() + 1, cp);
            table = nullptr;
            list = nullptr;
            nested = 0;
        } else if (knot.kink == kKinkEnd && nested > 0) {
            --nested;
        }
        break;
    case kKnotRow:
        if (nested > 0) {
            // a row of a table inside the table
        } else if (table && knot.kink == kKinkBeg && row + 1 < table->rows()) {
            ++row;
            column = 0;
            moveTo(table->cellAt(row, 0).firstPosition(), cp);
            cursor.setBlockFormat(blockFormat(cp));
            list = nullptr;
        } else if (table && knot.kink == kKinkMid && row >= 0 && column + 1 < table->columns()) {
            ++column;
            moveTo(table->cellAt(row, column).firstPosition(), cp);
            cursor.setBlockFormat(blockFormat(cp));
            list = nullptr;
        }
        break;
    default:
        break;
    }
    cursor.insertText(QString(QChar(kStandIn)), charFormat(runProperty));
}

void Layout::run()
{
    const QStringView text = document.text();
    const auto length = quint32(text.size());
    const KSArrayCP &runs = document.charRuns();
    const std::size_t runCount = runs.count();
    std::size_t knotIndex = 0;
    qint32 knotCp = -1;
    VLKnot knot = document.knotCount() ? document.knotAt(0, &knotCp) : VLKnot {};
    if (!document.knotCount())
        knotCp = -1;
    // One edit for the whole text: the document tells what changed once, at the end.
    cursor.beginEditBlock();
    cursor.setBlockFormat(blockFormat(0));
    quint32 cp = 0;
    while (cp < length) {
        if (cp >= runEnd) {
            // The character run holding cp: the runs are walked in order, one look-up each.
            while (runIndex < runCount && quint32(runs.cpAtIndex(runIndex)) <= cp)
                ++runIndex;
            runEnd = runIndex < runCount ? quint32(runs.cpAtIndex(runIndex)) : length;
            runProperty = document.charPropertyAt(cp);
        }
        if (knotCp >= 0 && quint32(knotCp) == cp) {
            insertKnot(cp, knotIndex, knot);
            ++cp;
            ++knotIndex;
            knotCp = -1;
            if (knotIndex < document.knotCount())
                knot = document.knotAt(knotIndex, &knotCp);
            continue;
        }
        if (_IsBreak(text[cp].unicode())) {
            ++cp;
            cursor.insertBlock(blockFormat(cp), charFormat(runProperty));
            if (list)
                list->add(cursor.block());
            continue;
        }
        // A stretch of plain text with one character format, up to a knot or a paragraph end.
        quint32 end = std::min(runEnd, knotCp >= 0 ? quint32(knotCp) : length);
        for (quint32 i = cp + 1; i < end; ++i) {
            if (_IsBreak(text[i].unicode())) {
                end = i;
                break;
            }
        }
        cursor.insertText(text.mid(cp, end - cp).toString(), charFormat(runProperty));
        charactersByProperty[runProperty] += end - cp;
        cp = end;
    }
    cursor.endEditBlock();
    for (auto it = linkBookmark.cbegin(); it != linkBookmark.cend(); ++it) {
        const auto target = bookmarkByNumber.constFind(it.value());
        if (target != bookmarkByNumber.cend())
            content.linkTargets.insert(it.key(), *target);
    }
}

// Text in the normal font carries none of its own: the window's help font and palette apply to it.
// Other sizes become multiples of the normal size; links take their colour from the window.
void _FollowTheWindow(KSHelpContent &content, const QTextCharFormat &normal)
{
    const QVariant family = normal.fontFamilies();
    const double size = normal.hasProperty(QTextFormat::FontPointSize) ? normal.fontPointSize() : 12.0;
    const bool coloured = normal.hasProperty(QTextFormat::ForegroundBrush);
    const QBrush colour = normal.foreground();
    const QString name = family.toStringList().value(0);
    content.normalFont = QFont(name.isEmpty() ? QStringLiteral("sans-serif") : name);
    content.normalFont.setPointSizeF(size);

    QTextDocument &text = *content.text;
    QTextCursor cursor(&text);
    cursor.beginEditBlock();
    for (QTextBlock block = text.begin(); block.isValid(); block = block.next()) {
        // A list item's marker is text: "1." or a bullet, a tab, then the words, with the first
        // line hanging out to the left. The tab goes to where the other lines start, not to the
        // next default stop far to the right. A tab that begins a heading (its level in the
        // chapter name) adds no gap.
        const QString words = block.text();
        qsizetype first = 0;
        while (first < words.size() && words[first] == QChar(kStandIn))
            ++first;
        QTextBlockFormat paragraph = block.blockFormat();
        if (paragraph.textIndent() < 0 && words.indexOf(u'\t', first) >= 0) {
            paragraph.setTabPositions({QTextOption::Tab(paragraph.leftMargin(), QTextOption::LeftTab)});
            cursor.setPosition(block.position());
            cursor.setBlockFormat(paragraph);
        } else if (first < words.size() && words[first] == u'\t') {
            paragraph.setTabPositions({QTextOption::Tab(1, QTextOption::LeftTab)});
            cursor.setPosition(block.position());
            cursor.setBlockFormat(paragraph);
        }
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            const QTextFragment fragment = it.fragment();
            QTextCharFormat format = fragment.charFormat();
            bool changed = false;
            if (format.hasProperty(QTextFormat::FontFamilies) && format.fontFamilies() == family) {
                format.clearProperty(QTextFormat::FontFamilies);
                format.clearProperty(QTextFormat::FontFamily);
                changed = true;
            }
            if (format.hasProperty(QTextFormat::FontPointSize)) {
                const double relative = format.fontPointSize() / size;
                format.clearProperty(QTextFormat::FontPointSize);
                if (std::abs(relative - 1.0) > 1e-6)
                    format.setProperty(kRelativeSizeProperty, relative);
                changed = true;
            }
            // An invisible stand-in of a knot shows no colour either.
            const bool standIn = fragment.text() == QString(fragment.length(), QChar(kStandIn));
            if (format.hasProperty(QTextFormat::ForegroundBrush)
                && (format.isAnchor() || standIn || (coloured && format.foreground() == colour))) {
                format.clearForeground();
                changed = true;
            }
            if (changed) {
                cursor.setPosition(fragment.position());
                cursor.setPosition(fragment.position() + fragment.length(), QTextCursor::KeepAnchor);
                cursor.setCharFormat(format);
            }
        }
    }
    cursor.endEditBlock();
}

} // namespace

std::unique_ptr<KSHelpContent> KSHelpContentFromDocument(std::unique_ptr<VLDocument> document, const QString &path)
{
    auto content = std::make_unique<KSHelpContent>();
    content->path = path;
    content->textLength = document->textLength();
    for (std::size_t i = 0; i < document->chapterCount(); ++i) {
        content->chapterNames.append(document->chapterName(i));
        content->chapterCps.push_back(document->chapterCp(i));
    }
    const KSArrayCP &bookmarks = document->bookmarkStarts();
    for (std::size_t i = 0; i < bookmarks.count(); ++i)
        content->bookmarkCps.push_back(quint32(bookmarks.cpAtIndex(i)));
    content->text = std::make_unique<QTextDocument>();
    content->text->setUndoRedoEnabled(false);
    Layout layout(*document, *content);
    layout.run();
    _FollowTheWindow(*content, _CharFormat(*document, layout.normalProperty()));
    content->document = std::shared_ptr<VLDocument>(std::move(document));
    return content;
}

std::unique_ptr<KSHelpContent> KSLoadHelpContent(const QString &path, QString *reason)
{
    VLSetUpHelpEngine();
    VLLoadFailure failure;
    std::unique_ptr<VLDocument> document = VLLoadHelpDocument(path, &failure);
    if (!document) {
        if (reason)
            *reason = failure.reason.isEmpty() ? failure.detail : failure.reason;
        return nullptr;
    }
    return KSHelpContentFromDocument(std::move(document), path);
}
