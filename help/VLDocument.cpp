#include "help/VLDocument.h"

#include "keelson/KSLog.h"
#include "keelson/KSStringKeelson.h"

#include <QUuid>

#include <cstdlib>
#include <cstring>

namespace {

constexpr std::size_t kRunRecordSize = sizeof(qint32);

// Where a heading ends: a paragraph, line or page break, or a knot.
bool _EndsHeading(char16_t c)
{
    return c == kKnotChar0 || c == kKnotChar1 || c == u'\n' || c == u'\r' || c == 0x000B || c == 0x000C || c == 0x2028
        || c == 0x2029;
}

QString _NewIdentifier()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}

// The index of the entry covering cp: the greatest cp not above it; KSNotFound when none.
std::size_t _CoveringIndex(const KSArrayCP &runs, quint32 cp)
{
    const std::size_t count = runs.count();
    if (count == 0 || qint64(cp) < runs.cpAtIndex(0))
        return KSNotFound;
    std::size_t index = runs.indexOfCp(qint32(cp));
    if (index >= count)
        index = count - 1;
    while (index + 1 < count && runs.cpAtIndex(index + 1) <= qint32(cp))
        ++index;
    while (index > 0 && runs.cpAtIndex(index) > qint32(cp))
        --index;
    return index;
}

} // namespace

VLDocument::VLDocument(quint32 kind) : m_kind(kind)
{
}

VLDocument::~VLDocument()
{
    if (m_blocks) {
        for (std::size_t i = 0; i < m_blocks->count(); ++i) {
            char16_t *block;
            m_blocks->getEntry(&block, i);
            std::free(block);
        }
    }
    if (m_pictures) {
        for (std::size_t i = 0; i < m_pictures->count(); ++i) {
            VLPicture entry;
            m_pictures->getEntry(&entry, i);
            delete entry.image;
            delete entry.fileName;
            delete entry.name;
        }
    }
}

bool VLDocument::initialise()
{
    m_blockMap = KSArrayCP::create(0, 1, 0, 0);
    m_blocks = KSArray::create(sizeof(char16_t *), 1);
    m_knots = KSArrayCP::create(sizeof(VLKnot), 0, 0, KSArrayCP::kFirstOfEqualCps);
    m_bookmarkIds = KSArrayString::create(sizeof(qint32));
    m_pictures = KSArray::create(sizeof(VLPicture));
    m_bookmarkStarts = KSArrayCP::create(0, 0, 0, KSArrayCP::kFirstOfEqualCps);
    m_chapterStarts = KSArrayCP::create(0, 0, 0, KSArrayCP::kFirstOfEqualCps);
    m_listStarts = KSArrayCP::create(0, 0, 0, KSArrayCP::kFirstOfEqualCps);
    m_tableStarts = KSArrayCP::create(0, 0, 0, KSArrayCP::kFirstOfEqualCps);
    m_styles = KSArrayString::create(sizeof(VLStyle));
    m_charRuns = KSArrayCP::create(kRunRecordSize, 0, 0, 0);
    m_paraRuns = KSArrayCP::create(kRunRecordSize, 0, 0, 0);
    m_properties = KSArray::create(kVLPropertyRecordSize);
    if (!m_blockMap || !m_blocks || !m_knots || !m_bookmarkIds || !m_pictures || !m_bookmarkStarts || !m_chapterStarts
        || !m_listStarts || !m_tableStarts || !m_styles || !m_charRuns || !m_paraRuns || !m_properties)
        return false;
    if (!storeText(QStringView()))
        return false;

    m_docProperties.resize(kVLPropertyRecordSize);
    VLInitialiseRecord(m_docProperties.data(), kRecordDoc);
    m_normalListProperties.resize(kVLPropertyRecordSize);
    VLInitialiseRecord(m_normalListProperties.data(), kRecordList);

    QByteArray record(kVLPropertyRecordSize, Qt::Uninitialized);
    VLInitialiseRecord(record.data(), kRecordChap);
    m_normalChapter = appendProperty(record.constData());
    VLInitialiseRecord(record.data(), kRecordTable);
    m_normalTable = appendProperty(record.constData());
    m_normalList = -1;
    return m_normalChapter >= 0 && m_normalTable >= 0 && rebuildStyleList();
}

std::unique_ptr<VLDocument> NewVellumaDoc(quint32 kind)
{
    std::unique_ptr<VLDocument> document(new (std::nothrow) VLDocument(kind));
    if (!document || !document->initialise())
        return nullptr;
    return document;
}

// --- Text -------------------------------------------------------------------------------------

QStringView VLDocument::text() const
{
    if (m_blocks->count() == 0)
        return {};
    const char16_t *block;
    m_blocks->getEntry(&block, 0);
    return QStringView(block, qsizetype(m_textLength));
}

char16_t VLDocument::charAt(quint32 cp) const
{
    return cp < m_textLength ? text()[cp].unicode() : 0;
}

QString VLDocument::rawText(quint32 cp, quint32 length) const
{
    if (cp >= m_textLength)
        return QString();
    return text().sliced(cp, std::min<qint64>(length, m_textLength - cp)).toString();
}

QString VLDocument::plainText(quint32 cp, quint32 length) const
{
    QString s = rawText(cp, length);
    s.removeIf([](QChar c) { return c.unicode() == kKnotChar0 || c.unicode() == kKnotChar1; });
    return s;
}

bool VLDocument::storeText(QStringView text)
{
    const std::size_t units = std::size_t(text.size());
    auto *block = static_cast<char16_t *>(AllocateMemory(std::max<std::size_t>(units, 1) * sizeof(char16_t)));
    if (!block)
        return false;
    if (units)
        std::memcpy(block, text.utf16(), units * sizeof(char16_t));
    for (std::size_t i = 0; i < m_blocks->count(); ++i) {
        char16_t *old;
        m_blocks->getEntry(&old, i);
        std::free(old);
    }
    m_blocks->deleteAllEntries();
    m_blocks->addEntry(&block); // the block array keeps room for at least ten: this cannot fail
    m_blockMap->deleteAllEntries();
    m_blockMap->insertEntry(nullptr, 0, 0);
    m_textLength = quint32(units);
    m_blockMap->setMaxCp(qint32(units));
    m_selectionStart = m_textLength;
    m_selectionEnd = 0;
    return true;
}

// --- Knots and chapters -------------------------------------------------------------------------

VLKnot VLDocument::knotAt(std::size_t index, qint32 *cp) const
{
    VLKnot knot;
    const qint32 at = m_knots->cpGetEntry(&knot, index);
    if (cp)
        *cp = at;
    return knot;
}

std::size_t VLDocument::knotIndexAt(quint32 cp) const
{
    if (cp >= m_textLength || m_knots->count() == 0)
        return KSNotFound;
    const std::size_t index = m_knots->indexOfCp(qint32(cp)); // the first of equal cps
    return index < m_knots->count() && m_knots->cpAtIndex(index) == qint32(cp) ? index : KSNotFound;
}

bool VLDocument::resetCpTables(quint32 textLength)
{
    for (KSArrayCP *table :
        {m_knots.get(), m_bookmarkStarts.get(), m_chapterStarts.get(), m_listStarts.get(), m_tableStarts.get()}) {
        table->deleteAllEntries();
        table->setMaxCp(qint32(textLength));
    }
    m_bookmarkIds->deleteAllEntries();
    m_variableMask = 0;
    m_flags &= ~quint32(kDocHasUnknownKnots);
    return true;
}

void VLDocument::removeUnknownKnots()
{
    char16_t *block = nullptr;
    if (m_blocks->count())
        m_blocks->getEntry(&block, 0);
    for (std::size_t i = m_knots->count(); i-- > 0;) {
        qint32 cp;
        const VLKnot knot = knotAt(i, &cp);
        if (knot.type != kKnotUnknown)
            continue;
        m_knots->deleteEntryAtIndex(i);
        if (block && cp >= 0 && quint32(cp) < m_textLength)
            block[cp] = u' ';
    }
    m_flags &= ~quint32(kDocHasUnknownKnots);
}

quint32 VLDocument::chapterCp(std::size_t chapter) const
{
    return chapter < m_chapterStarts->count() ? quint32(m_chapterStarts->cpAtIndex(chapter)) : 0xFFFFFFFF;
}

QString VLDocument::chapterName(std::size_t chapter) const
{
    if (chapter >= m_chapterStarts->count())
        return QStringLiteral("");
    const QStringView all = text();
    const qsizetype start = qsizetype(chapterCp(chapter)) + 1;
    qsizetype end = start;
    while (end < all.size() && !_EndsHeading(all[end].unicode()))
        ++end;
    return start < all.size() ? all.sliced(start, end - start).toString() : QStringLiteral("");
}

// --- Bookmarks --------------------------------------------------------------------------------

bool VLDocument::identifyBookmarks()
{
    const std::size_t bookmarks = m_bookmarkStarts->count();
    std::vector<bool> present(bookmarks, false);
    for (std::size_t i = 0; i < m_bookmarkIds->count(); ++i) {
        qint32 index;
        m_bookmarkIds->getEntry(&index, i);
        if (index >= 0 && std::size_t(index) < bookmarks)
            present[std::size_t(index)] = true;
    }
    for (std::size_t i = 0; i < bookmarks; ++i) {
        if (present[i])
            continue;
        const qint32 index = qint32(i);
        const QString identifier = _NewIdentifier();
        if (m_bookmarkIds->addEntry(&index, &identifier) == KSNotFound)
            return false;
    }
    return true;
}

// --- Pictures ---------------------------------------------------------------------------------

const VLPicture *VLDocument::picture(std::size_t index) const
{
    return index < m_pictures->count() ? static_cast<const VLPicture *>(m_pictures->entryAtIndex(index)) : nullptr;
}

bool VLDocument::appendPicture(std::unique_ptr<VLImage> image, const QString *fileName, const QString &name)
{
    VLPicture entry {};
    entry.image = image.get();
    entry.fileName = fileName ? new QString(*fileName) : nullptr;
    entry.name = new QString(name);
    if (m_pictures->addEntry(&entry) == KSNotFound) {
        delete entry.fileName;
        delete entry.name;
        return false;
    }
    image.release();
    return true;
}

// --- Styles -----------------------------------------------------------------------------------

VLStyle VLDocument::styleAt(std::size_t index) const
{
    VLStyle style;
    m_styles->getEntry(&style, index);
    return style;
}

QString VLDocument::styleName(std::size_t index) const
{
    const QString *name = m_styles->stringAtIndex(index);
    return name ? *name : QString();
}

bool VLDocument::rebuildStyleList()
{
    const QString normal = QStringLiteral("Normal");
    if (m_styles->count() && IsFuzzyEqualToString(styleName(0), normal))
        return true;
    std::size_t found = KSNotFound;
    for (std::size_t i = 1; i < m_styles->count() && found == KSNotFound; ++i) {
        if (IsFuzzyEqualToString(styleName(i), normal))
            found = i;
    }
    // Renumbers every base and next index through `map`.
    const auto renumber = [this](auto map) {
        for (std::size_t i = 0; i < m_styles->count(); ++i) {
            VLStyle style = styleAt(i);
            style.base = map(style.base);
            style.next = map(style.next);
            m_styles->replaceEntryAtIndex(i, &style);
        }
    };
    if (found != KSNotFound) {
        // Swap the file's Normal with the first style.
        const QString firstName = styleName(0), foundName = styleName(found);
        VLStyle first = styleAt(0), second = styleAt(found);
        m_styles->replaceEntry(&second, &foundName, 0);
        m_styles->replaceEntry(&first, &firstName, found);
        const qint32 a = 0, b = qint32(found);
        renumber([a, b](qint32 v) { return v == a ? b : v == b ? a : v; });
        return true;
    }
    VLStyle style {};
    style.bin = 254;
    style.type = kRecordPara;
    style.base = -1;
    style.next = 0;
    style.prop = -1;
    style.charProp = -1;
    renumber([](qint32 v) { return v >= 0 ? v + 1 : v; });
    return m_styles->insertEntry(&style, &normal, 0);
}

// --- Formatting --------------------------------------------------------------------------------

namespace {

// The property of the run that covers cp, or -1 before the first run.
qint32 _PropertyOfRunAt(const KSArrayCP &runs, quint32 cp)
{
    const std::size_t index = _CoveringIndex(runs, cp);
    qint32 property = -1;
    if (index != KSNotFound)
        runs.getEntry(&property, index);
    return property;
}

} // namespace

qint32 VLDocument::charPropertyAt(quint32 cp) const
{
    return _PropertyOfRunAt(*m_charRuns, cp);
}

qint32 VLDocument::paraPropertyAt(quint32 cp) const
{
    return _PropertyOfRunAt(*m_paraRuns, cp);
}

const void *VLDocument::property(qint64 index) const
{
    if (index < 0 || std::size_t(index) >= m_properties->count())
        return nullptr;
    return m_properties->entryAtIndex(std::size_t(index));
}

const void *VLDocument::property(qint64 index, quint32 type) const
{
    const void *record = property(index);
    return record && VLRecordHeader(record).type == type ? record : nullptr;
}

qint32 VLDocument::appendProperty(const void *record)
{
    const std::size_t index = m_properties->addEntry(record);
    if (index == KSNotFound || index > std::size_t(INT32_MAX))
        return -1;
    static_cast<VLPropertyHeader *>(m_properties->entryAtIndex(index))->index = qint32(index);
    return qint32(index);
}

void VLDocument::setDocumentProperties(const void *record)
{
    std::memcpy(m_docProperties.data(), record, kVLPropertyRecordSize);
}

bool VLDocument::applyNormalList()
{
    const void *record = property(m_normalList, kRecordList);
    if (!record)
        return false;
    std::memcpy(m_normalListProperties.data(), record, kVLPropertyRecordSize);
    return true;
}

// --- Selection and display -----------------------------------------------------------------------

void VLDocument::setSelection(quint32 start, quint32 end)
{
    m_selectionStart = std::min(start, m_textLength);
    m_selectionEnd = std::min(end, m_textLength);
}

void VLDocument::finishAsHelp()
{
    m_flags |= kDocLocked | kDocChangesBlocked | kDocShownAsHelp;
    m_viewExtents[0] = m_viewExtents[1] = 864;
    m_scrollPositions[0] = m_scrollPositions[1] = 0;
}
