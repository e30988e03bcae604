#include "help/window/KSHelpDocumentView.h"

#include "help/VLDocument.h"
#include "help/VLHelpEngine.h"
#include "help/VLHelpReader.h"

#include <QImage>
#include <QTextBlock>
#include <QTextCursor>
#include <QTextList>
#include <QUrl>

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

class Layout {
public:
    Layout(const VLDocument &document, KSHelpContent &content)
        : document(document), content(content), cursor(content.text.get())
    {
    }
    void run();

private:
    QTextCharFormat charFormat(quint32 cp);
    void startBlock(quint32 cp);
    void insertKnot(quint32 cp, const VLKnot &knot);

    const VLDocument &document;
    KSHelpContent &content;
    QTextCursor cursor;
    QHash<qint32, QTextCharFormat> charFormats;
    QHash<qint32, QTextBlockFormat> blockFormats;
    QTextList *list = nullptr;
    qint64 linkStart = -1;
    QHash<qint32, quint32> bookmarkByNumber;
    QHash<quint32, qint32> linkBookmark;
};

QTextCharFormat Layout::charFormat(quint32 cp)
{
    const qint32 index = document.charPropertyAt(cp);
    auto it = charFormats.find(index);
    if (it == charFormats.end())
        it = charFormats.insert(index, _CharFormat(document, index));
    if (linkStart < 0)
        return *it;
    QTextCharFormat link = *it;
    link.setAnchor(true);
    link.setAnchorHref(QStringLiteral("cp:%1").arg(linkStart));
    link.setFontUnderline(true);
    link.setForeground(QColor(0x1A, 0x5F, 0xB4));
    return link;
}

void Layout::startBlock(quint32 cp)
{
    const qint32 index = document.paraPropertyAt(cp);
    auto it = blockFormats.find(index);
    if (it == blockFormats.end())
        it = blockFormats.insert(index, _BlockFormat(document, index));
    cursor.setBlockFormat(*it);
    if (list)
        list->add(cursor.block());
}

void Layout::insertKnot(quint32 cp, const VLKnot &knot)
{
    content.marks.push_back({cp, knot.type});
    switch (knot.type) {
    case kKnotPic: {
        const VLPicture *picture = document.picture(std::size_t(std::max(knot.primary, 0)));
        QImage image;
        if (picture && picture->image)
            image.loadFromData(picture->image->data);
        if (!image.isNull()) {
            const QUrl name(QStringLiteral("picture:%1").arg(cp));
            content.text->addResource(QTextDocument::ImageResource, name, image);
            QTextImageFormat format;
            format.setName(name.toString());
            // A picture wider than a comfortable text column is shown at the column's width.
            const double scale = image.width() > kMaxPictureWidth ? double(kMaxPictureWidth) / image.width() : 1.0;
            format.setWidth(image.width() * scale);
            format.setHeight(image.height() * scale);
            cursor.insertImage(format);
            return;
        }
        break;
    }
    case kKnotCheckbox:
        cursor.insertText(QString(QChar((knot.primary & 0xFF) ? 0x2611 : 0x2610)), charFormat(cp));
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
    default:
        break;
    }
    cursor.insertText(QString(QChar(kStandIn)), charFormat(cp));
}

void Layout::run()
{
    const QStringView text = document.text();
    const auto length = quint32(text.size());
    std::size_t knotIndex = 0;
    qint32 knotCp = -1;
    VLKnot knot = document.knotCount() ? document.knotAt(0, &knotCp) : VLKnot {};
    if (!document.knotCount())
        knotCp = -1;
    startBlock(0);
    quint32 cp = 0;
    while (cp < length) {
        if (knotCp >= 0 && quint32(knotCp) == cp) {
            insertKnot(cp, knot);
            ++cp;
            ++knotIndex;
            knotCp = -1;
            if (knotIndex < document.knotCount())
                knot = document.knotAt(knotIndex, &knotCp);
            continue;
        }
        if (_IsBreak(text[cp].unicode())) {
            cursor.insertBlock(QTextBlockFormat(), charFormat(cp));
            ++cp;
            startBlock(cp);
            continue;
        }
        // A stretch of plain text with one character format.
        const qint32 format = document.charPropertyAt(cp);
        quint32 end = cp + 1;
        while (end < length && (knotCp < 0 || end < quint32(knotCp)) && !_IsBreak(text[end].unicode())
            && document.charPropertyAt(end) == format)
            ++end;
        cursor.insertText(text.mid(cp, end - cp).toString(), charFormat(cp));
        cp = end;
    }
    for (auto it = linkBookmark.cbegin(); it != linkBookmark.cend(); ++it) {
        const auto target = bookmarkByNumber.constFind(it.value());
        if (target != bookmarkByNumber.cend())
            content.linkTargets.insert(it.key(), *target);
    }
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
    Layout(*document, *content).run();
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
