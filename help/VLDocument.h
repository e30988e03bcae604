// The help engine's document record: the text of a document in UTF-16 with its character
// positions (cps), the knots embedded in it, its pictures, styles and property records, and the
// tables that attach formatting to stretches of text. A help package (VLHelpReader.h) loads into
// one; the help window shows it.
//
// Character positions. A cp is the index of a UTF-16 unit in the text, from 0 to textLength().
// Every cp table (knots, runs, the per-kind start lists) is a KSArrayCP whose maxCp is the text
// length; an entry lasts from its cp up to the next entry's cp.
//
// Knots. A knot is an object embedded in the text as one character (U+0000 or U+0001) with an
// entry in the knot table at that cp; its type says what it is, its kink which part of a larger
// stretch it marks ("beg", "mid", "end" of a chapter, list, table, row or bookmark; a vertical
// alignment; a divider's shape).
//
// Threads: a document is used by one thread at a time (the help window's: the main thread; the
// command line's; a loader's until it hands the document over). Nothing in it is shared with other
// documents except the engine's font name list, which has its own lock (VLHelpEngine.h).
#pragma once

#include "help/VLProperties.h"
#include "keelson/KSArray.h"
#include "keelson/KSArrayCP.h"
#include "keelson/KSArrayString.h"

#include <QByteArray>
#include <QString>
#include <QStringView>

#include <memory>
#include <vector>

enum VLKnotType : quint32 {
    kKnotUnknown = 0,
    kKnotAutonum,
    kKnotBookmark,
    kKnotChapter,
    kKnotCheckbox,
    kKnotDivider,
    kKnotLink,
    kKnotList,
    kKnotNote,
    kKnotPic,
    kKnotShort,
    kKnotTable,
    kKnotRow,
    kKnotTag,
    kKnotToc,
    kKnotToce,
    kKnotVar,
};

enum VLKink : quint32 {
    kKinkNone = 0,
    kKinkBeg,
    kKinkMid,
    kKinkEnd,
    kKinkVaTop,
    kKinkVaBottom,
    kKinkVaCenter,
    kKinkVaFull,
    // kKinkVaFull + 1 onwards: the divider shapes, in the order of VLWordList::Divider.
};

// The characters that stand for knots in the text.
inline constexpr char16_t kKnotChar0 = 0x0000;
inline constexpr char16_t kKnotChar1 = 0x0001;

// One knot (the record of a knot table entry; its cp is the entry's key).
struct VLKnot {
    quint32 type; // VLKnotType; 0 only while loading (unknown knots are removed)
    quint32 kink; // VLKink
    qint32 property; // property record index, -1 when none
    qint32 primary; // by type: style class, picture index, divider shape, heading level code
                    // (17 to 20), variable kind, Kolor; a checkbox's checked state in its low byte;
                    // -1 for a row knot that does not begin its row
    qint32 secondary; // vertical alignment or bookmark number; the "magic"/"showPage" flag in its
                      // low byte; -1 for a variable
    quint16 variable; // a variable's value, or a zoom
    quint16 opacity;
};
static_assert(sizeof(VLKnot) == 24);

// A picture as the package holds it: its encoded bytes (PNG, JPEG, TIFF, ...). The window decodes
// them when it draws, so the engine needs no image library.
struct VLImage {
    QByteArray data;
    bool caution = false; // the stand-in shown for a picture that could not be read
};

// One picture table entry.
struct VLPicture {
    VLImage *image; // owned by the document; null when there is no image (undecodable Base64)
    QString *fileName; // owned; the file name it was read from (null for Base64 and the stand-in)
    QString *name; // owned; the file name without extension, or a generated unique identifier
    quint32 width, height, flags, reserved; // zero at load
};

// One style table entry; the style's name is the entry's string.
struct VLStyle {
    quint8 bin; // 254 when not given
    quint8 reserved[3];
    quint32 type; // VLRecordType, or kRecordUnusedStyle for a placeholder
    qint32 base; // index of the style it is based on
    qint32 next; // style of the next paragraph
    qint32 prop; // property record index
    qint32 charProp; // character property index
};
static_assert(sizeof(VLStyle) == 24);

// A document flag.
enum VLDocumentFlag : quint32 {
    kDocHasUnknownKnots = 1 << 0,
    kDocHasEmbeddedPictures = 1 << 1,
    kDocLocked = 1 << 2,
    kDocChangesBlocked = 1 << 3,
    kDocShownAsHelp = 1 << 4, // the display state of a help document (view flags, extents) is set
};

class VLDocument {
public:
    ~VLDocument();
    VLDocument(const VLDocument &) = delete;
    VLDocument &operator=(const VLDocument &) = delete;

    // --- The record ---------------------------------------------------------------------------
    quint32 kind() const { return m_kind; }
    // The first number of "length" in "structure.xml"; kept, not otherwise used.
    quint32 firstCount() const { return m_firstCount; }
    // Number of UTF-16 units; the largest cp.
    quint32 textLength() const { return m_textLength; }
    quint32 flags() const { return m_flags; }
    bool isLocked() const { return m_flags & kDocLocked; }

    // --- Text ------------------------------------------------------------------------------------
    // The unit at a cp (0 beyond the text).
    char16_t charAt(quint32 cp) const;
    // The raw text of [cp, cp + length), knot characters included; clipped to the text.
    QString rawText(quint32 cp, quint32 length) const;
    // As rawText, with each knot character left out.
    QString plainText(quint32 cp, quint32 length) const;
    // The whole text as one view; valid until the text is replaced.
    QStringView text() const;

    // --- Knots -------------------------------------------------------------------------------
    KSArrayCP &knots() { return *m_knots; }
    const KSArrayCP &knots() const { return *m_knots; }
    std::size_t knotCount() const { return m_knots->count(); }
    // The knot at an index (a zero knot beyond the count) and its cp.
    VLKnot knotAt(std::size_t index, qint32 *cp = nullptr) const;
    // Bit n set when a "var" knot of variable kind n occurs.
    quint32 variableMask() const { return m_variableMask; }

    // --- Per-kind start lists: the cp of each "beg" knot of that kind, in order ----------------
    const KSArrayCP &bookmarkStarts() const { return *m_bookmarkStarts; }
    const KSArrayCP &chapterStarts() const { return *m_chapterStarts; }
    const KSArrayCP &listStarts() const { return *m_listStarts; }
    const KSArrayCP &tableStarts() const { return *m_tableStarts; }
    std::size_t chapterCount() const { return m_chapterStarts->count(); }
    // The i-th chapter's beginning knot's cp (0xFFFFFFFF beyond the count).
    quint32 chapterCp(std::size_t chapter) const;
    // The raw text after the chapter's beginning knot up to the end of its heading (the first
    // paragraph, line or page break, knot character or end of text); "" beyond the count. Leading
    // tabs give the heading's outline level.
    QString chapterName(std::size_t chapter) const;

    // --- Bookmark identifiers: one entry per bookmark, its record the bookmark's index (qint32),
    //     its string a unique identifier ---------------------------------------------------------
    const KSArrayString &bookmarkIds() const { return *m_bookmarkIds; }
    // Gives every bookmark index from 0 to the number of bookmarks - 1 an entry, adding the
    // missing ones with a newly generated identifier.
    bool identifyBookmarks();

    // --- Pictures ------------------------------------------------------------------------------
    std::size_t pictureCount() const { return m_pictures->count(); }
    // The entry at an index; null beyond the count.
    const VLPicture *picture(std::size_t index) const;
    // Takes ownership of the three objects (each may be null); false when memory runs out.
    bool appendPicture(std::unique_ptr<VLImage> image, const QString *fileName, const QString &name);

    // --- Styles ----------------------------------------------------------------------------------
    KSArrayString &styles() { return *m_styles; }
    const KSArrayString &styles() const { return *m_styles; }
    VLStyle styleAt(std::size_t index) const;
    QString styleName(std::size_t index) const;
    // Makes sure a style named "Normal" is at index 0 (moving the file's own "Normal" there, or
    // adding the built-in one) and keeps every base and next index pointing at the same style.
    bool rebuildStyleList();

    // --- Formatting -------------------------------------------------------------------------------
    // Runs: records are qint32 property indexes; the run covering cp c is the entry with the
    // greatest cp not above c.
    KSArrayCP &charRuns() { return *m_charRuns; }
    KSArrayCP &paraRuns() { return *m_paraRuns; }
    const KSArrayCP &charRuns() const { return *m_charRuns; }
    const KSArrayCP &paraRuns() const { return *m_paraRuns; }
    // The property index of the run covering cp (-1 when no run covers it).
    qint32 charPropertyAt(quint32 cp) const;
    qint32 paraPropertyAt(quint32 cp) const;

    // Property records, each kVLPropertyRecordSize bytes starting with a VLPropertyHeader.
    std::size_t propertyCount() const { return m_properties->count(); }
    // The record at an index; null beyond the count (or for a negative index).
    const void *property(qint64 index) const;
    // The record at the index when it has the type; else null.
    const void *property(qint64 index, quint32 type) const;
    // Appends a copy, storing its own index in it; the index, or -1 when memory runs out.
    qint32 appendProperty(const void *record);
    void removeAllProperties() { m_properties->deleteAllEntries(); }

    // Page and document settings (a record of type doc).
    const void *documentProperties() const { return m_docProperties.data(); }
    void setDocumentProperties(const void *record);
    // The list settings applied from the normal list record.
    const void *normalListProperties() const { return m_normalListProperties.data(); }

    qint32 normalChapter() const { return m_normalChapter; }
    qint32 normalTable() const { return m_normalTable; }
    qint32 normalList() const { return m_normalList; }
    void setNormalChapter(qint32 index) { m_normalChapter = index; }
    void setNormalTable(qint32 index) { m_normalTable = index; }
    void setNormalList(qint32 index) { m_normalList = index; }
    // Copies the normal list record's settings into the document; false when the index does not
    // name a list record.
    bool applyNormalList();

    // The engine's font index of each of the document's font numbers ("fonts" in "format.xml").
    const std::vector<quint32> &fontMap() const { return m_fontMap; }

    // --- Selection and display -------------------------------------------------------------------
    quint32 selectionStart() const { return m_selectionStart; }
    quint32 selectionEnd() const { return m_selectionEnd; }
    void setSelection(quint32 start, quint32 end);
    quint32 viewExtent(int which) const { return m_viewExtents[which & 1]; }
    qint32 scrollPosition(int which) const { return m_scrollPositions[which & 1]; }

private:
    friend std::unique_ptr<VLDocument> NewVellumaDoc(quint32 kind);
    friend class VLHelpReader;
    explicit VLDocument(quint32 kind);
    bool initialise();
    // Loader's side.
    bool resetCpTables(quint32 textLength);
    bool storeText(QStringView text);
    void removeUnknownKnots();
    void finishAsHelp();

    quint32 m_kind;
    quint32 m_firstCount = 0;
    quint32 m_textLength = 0;
    std::unique_ptr<KSArrayCP> m_blockMap; // cps only: where each block starts
    std::unique_ptr<KSArray> m_blocks; // char16_t * each, owned
    quint32 m_selectionStart = 0, m_selectionEnd = 0;
    std::unique_ptr<KSArrayCP> m_knots;
    std::unique_ptr<KSArrayString> m_bookmarkIds;
    std::unique_ptr<KSArray> m_pictures;
    quint32 m_variableMask = 0;
    std::unique_ptr<KSArrayCP> m_bookmarkStarts, m_chapterStarts, m_listStarts, m_tableStarts;
    std::unique_ptr<KSArrayString> m_styles;
    std::unique_ptr<KSArrayCP> m_charRuns, m_paraRuns;
    std::unique_ptr<KSArray> m_properties;
    QByteArray m_docProperties, m_normalListProperties;
    qint32 m_normalChapter = -1, m_normalTable = -1, m_normalList = -1;
    std::vector<quint32> m_fontMap;
    quint32 m_flags = 0;
    quint32 m_viewExtents[2] = {0, 0};
    qint32 m_scrollPositions[2] = {0, 0};
};

// A new record of the kind with empty tables, an empty text, a "Normal" style at index 0, normal
// chapter and table property records and the normal list settings; null when memory runs out.
std::unique_ptr<VLDocument> NewVellumaDoc(quint32 kind);
inline constexpr quint32 kVLPreferencesDocumentKind = 3;
inline constexpr quint32 kVLClipDocumentKind = 2;
inline constexpr quint32 kVLHelpDocumentKind = 1;
