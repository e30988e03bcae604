// What a help window shows of a document: its text laid out by Qt's rich-text engine, with one
// text position for every character position (cp) of the document, and the document's chapters,
// bookmarks, links and embedded objects by cp. Main thread.
#pragma once

#include <QFont>
#include <QHash>
#include <QStringList>
#include <QTextDocument>
#include <QTextFormat>

#include <memory>
#include <vector>

// Maps cps to positions of the laid-out text and back. Where the layout adds positions of its own
// (a table's cell boundaries), an anchor records the shift: from an anchor on, cp and position
// advance together.
class KSCpMap {
public:
    // Records that `cp` is shown at `position`; anchors are added in increasing order.
    void addAnchor(quint32 cp, int position);
    int positionForCp(quint32 cp) const;
    // Where a stretch ending at `end` (exclusive) ends: just after its last cp, so that a stretch
    // that ends in a table cell does not reach into the next one.
    int endPositionForCp(quint32 end) const { return end == 0 ? 0 : positionForCp(end - 1) + 1; }
    // A position the layout added maps to the cp that follows it.
    quint32 cpForPosition(int position) const;
    void clear() { m_anchors.clear(); }

private:
    struct Anchor {
        quint32 cp;
        int position;
    };
    std::vector<Anchor> m_anchors;
};

// A character format's size as a multiple of the normal font's: a heading keeps its proportion to
// the body text whatever the help font's size.
inline constexpr int kRelativeSizeProperty = QTextFormat::UserProperty + 4;

// An embedded object the special finds look for.
struct KSHelpMark {
    quint32 cp;
    quint32 type; // knot type (chapter, divider, picture...)
};

struct KSHelpContent {
    QString path; // what was loaded
    QStringList chapterNames; // raw, with their leading tabs
    std::vector<quint32> chapterCps;
    std::vector<quint32> bookmarkCps;
    std::vector<KSHelpMark> marks; // in cp order
    QHash<quint32, quint32> linkTargets; // a link's cp -> its bookmark's cp
    quint32 textLength = 0;
    std::unique_ptr<QTextDocument> text;
    KSCpMap map;
    std::shared_ptr<void> document; // the engine's document record, kept alive with what shows it
    // The document's own font for its body text (the family and size of most of its characters).
    // Text in it carries no family, size or colour of its own: it takes the help font and the
    // palette's text colour. Other sizes are kept relative to its size (kRelativeSizeProperty).
    QFont normalFont;

    // The chapter holding a cp (the last chapter starting at or before it; 0 when none does).
    int chapterAt(quint32 cp) const;
    // The cp of the first bookmark after `cp`, moved on by `offset` bookmarks; -1 when none.
    qint64 bookmarkAfter(quint32 cp, int offset) const;
    // Bookmarks lying in [from, to).
    int bookmarksBetween(quint32 from, quint32 to) const;
    // The first cp after the chapter (the text length for the last one).
    quint32 chapterEnd(int chapter) const;
    // The plain text of [start, end), for copying and speaking.
    QString plainText(quint32 start, quint32 end) const;
};

// The text to speak of the positions [start, end) of a laid-out help text: paragraph by paragraph,
// so that a table is read cell by cell in reading order (the pieces in the opposite order when
// `backwards`), each non-empty piece followed by a single space, objects left out.
QString KSSpokenText(const QTextDocument &document, int start, int end, bool backwards);

// Knot types the window tells apart.
enum KSHelpKnotType : quint32 {
    kHelpKnotBookmark = 2,
    kHelpKnotChapter = 3,
    kHelpKnotDivider = 5,
    kHelpKnotLink = 6,
    kHelpKnotPicture = 9,
    kHelpKnotTable = 11,
    kHelpKnotRow = 12,
};

// Content made of plain chapters: each chapter's beginning object, its heading (the name, tabs
// and all) and its paragraphs. Used for documents of plain text.
std::unique_ptr<KSHelpContent> KSHelpContentFromChapters(
    const QStringList &names, const std::vector<QStringList> &paragraphs, const QString &path = {});
