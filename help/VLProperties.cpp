#include "help/VLProperties.h"

#include "keelson/KSStringKeelson.h"

#include <array>
#include <cstring>
#include <vector>

namespace {

using Kind = VLValueKind;
using List = VLWordList;

struct AtomEntry {
    const char *name;
    Kind kind;
    quint8 width;
    quint8 slotCount;
    List list;
    const char *description;
    qint64 base;
};

constexpr Kolor kOpaqueBlack = 0x64000000;

constexpr AtomEntry Flag(const char *name, const char *description)
{
    return {name, Kind::Flag, 1, 1, List::None, description, 0};
}
constexpr AtomEntry Int(const char *name, quint8 width, const char *description, qint64 base = 0)
{
    return {name, Kind::Integer, width, 1, List::None, description, base};
}
constexpr AtomEntry Enum(const char *name, List list, const char *description)
{
    return {name, Kind::Enum, 1, 1, list, description, 0};
}
constexpr AtomEntry Colour(const char *name, const char *description, Kolor base = 0)
{
    return {name, Kind::Colour, 4, 1, List::None, description, qint64(base)};
}

// The border atoms shared by paragraphs, frames, tables and borders.
#define BORDER_ATOMS                                                                                                   \
    Enum("btype", List::BorderKind, "border=%@"), Enum("bline", List::BorderLine, "border line=%@"),                   \
        Int("bwidth", 2, "border width=%@"), Int("boff", 4, "border offset=%@"),                                       \
        Colour("color", "border color=%@", kOpaqueBlack), Colour("back", "back color=%@"),                             \
        Int("bthick", 4, "border thickness=%@"), Colour("incolor", "inside color=%@", kOpaqueBlack)

const AtomEntry kCharAtoms[] = {Int("style", 4, "style=%@"), Flag("bold", "bold"), Flag("italic", "italic"),
    Enum("underline", List::Underline, "underline=%@"), Enum("caps", List::Capitals, "caps=%@"),
    Flag("outline", "outline"), Flag("strike", "strike-through"), Int("relsize", 2, "rel. size=%@", 100),
    {"font", Kind::Font, 2, 1, List::None, "font=%@", 0}, Int("size", 2, "size=%@ point", 12),
    Int("expand", 4, "expand=%@"), Int("sub", 4, "subscript=%@"), Colour("color", "color=%@", kOpaqueBlack),
    Colour("back", "back color=%@"), Flag("shadow", "shadow"), Flag("nolink", "no link"),
    Flag("unleaded", "no leading")};

const AtomEntry kParaAtoms[] = {Int("style", 4, "style=%@"), Enum("align", List::HorizontalAlign, "align=%@"),
    Int("drop", 4, "drop=%@"), Flag("pagetop", "page break before"), Flag("pagebot", "page break after"),
    Flag("keep", "keep together"), Flag("keepnext", "keep with next"), Flag("big1", "big first letter"),
    {"format1", Kind::CharFormatName, 1, 1, List::None, "first line format=%@", 0}, Flag("hdrtab", "header tab"),
    {"prefix", Kind::Characters, 2, 4, List::None, "prefix=%@", 0},
    {"suffix", Kind::Characters, 2, 4, List::None, "suffix=%@", 0}, Int("indent1", 4, "first indent=%@"),
    Int("indentl", 4, "left indent=%@"), Int("indentr", 4, "right indent=%@"), Int("before", 4, "before=%@"),
    Int("after", 4, "after=%@"), Int("height", 4, "line height=%@"),
    {"tabdel", Kind::Tab, 4, kVLMaxTabStops, List::None, "deleted tabs=%@", 0},
    {"tab", Kind::Tab, 4, kVLMaxTabStops, List::None, "tabs=%@", 0}, BORDER_ATOMS, Flag("nospell", "no spelling"),
    Int("multiple", 2, "line spacing=%@", 100), Flag("check", "check box")};

const AtomEntry kChapAtoms[] = {Int("style", 4, "style=%@"), Enum("chapstart", List::PageBreak, "start=%@"),
    Flag("title", "title page"), Flag("balance", "balance columns"),
    Enum("pagepos", List::PageNumberPosition, "page number=%@"), Enum("nof", List::NumberFormat, "number format=%@"),
    Int("pagenum", 4, "first page=%@", 1), Int("cols", 4, "columns=%@", 1), Flag("colline", "column line"),
    Flag("custom", "custom columns"), Int("between", 4, "between=%@"), Int("c1", 4, "column 1=%@"),
    Int("c2", 4, "column 2=%@"), Int("c3", 4, "column 3=%@"), Int("c4", 4, "column 4=%@"), Int("c5", 4, "column 5=%@"),
    Int("c6", 4, "column 6=%@"), Int("c7", 4, "column 7=%@"), Int("c8", 4, "column 8=%@"), Int("c9", 4, "column 9=%@"),
    Int("c10", 4, "column 10=%@"), Int("hoff", 4, "header offset=%@"), Int("foff", 4, "footer offset=%@"),
    Flag("header1", "header on first page"), Flag("mirrorp", "mirror pages"),
    Flag("framesTB", "frames top and bottom")};

const AtomEntry kFrameAtoms[] = {Int("image", 4, "image=%@", -1), Enum("wrap", List::FrameWrap, "wrap=%@"),
    Flag("tight", "tight"), Int("y", 4, "y=%@"), Int("xoff", 4, "x offset=%@"), Int("pageanchor", 8, "page=%@"),
    Int("bookmark", 4, "bookmark=%@", -1), Int("top", 4, "top=%@"), Int("left", 4, "left=%@"),
    Int("height", 4, "height=%@"), Int("width", 4, "width=%@"), Enum("xbase", List::FrameBase, "x base=%@"),
    Enum("x", List::FrameHorizontalOffset, "x=%@"), Enum("ybase", List::FrameBase, "y base=%@"),
    Enum("ypos", List::FrameVerticalOffset, "y position=%@"), BORDER_ATOMS, Int("opacity", 2, "opacity=%@", 100)};

const AtomEntry kTableAtoms[] = {Int("style", 4, "style=%@"), Flag("titlerow", "title row"), Flag("keep", "keep"),
    Enum("align", List::HorizontalAlign, "align=%@"), Int("cols", 4, "columns=%@", 1), Int("top", 4, "top=%@"),
    Int("left", 4, "left=%@"), Int("bottom", 4, "bottom=%@"), Int("right", 4, "right=%@"),
    Int("before", 4, "before=%@"), Int("cleft", 4, "cell left=%@"), Int("after", 4, "after=%@"),
    Int("cright", 4, "cell right=%@"), Int("height", 4, "row height=%@"), Int("c1", 4, "column 1=%@"),
    Int("c2", 4, "column 2=%@"), Int("c3", 4, "column 3=%@"), Int("c4", 4, "column 4=%@"), Int("c5", 4, "column 5=%@"),
    Int("c6", 4, "column 6=%@"), Int("c7", 4, "column 7=%@"), Int("c8", 4, "column 8=%@"), Int("c9", 4, "column 9=%@"),
    Int("c10", 4, "column 10=%@"), BORDER_ATOMS, Flag("insideonly", "inside only"), Flag("autofit", "autofit"),
    Int("c11", 4, "column 11=%@"), Int("c12", 4, "column 12=%@"), Int("c13", 4, "column 13=%@"),
    Int("c14", 4, "column 14=%@"), Int("c15", 4, "column 15=%@"), Int("c16", 4, "column 16=%@"),
    Int("c17", 4, "column 17=%@"), Int("c18", 4, "column 18=%@"), Int("c19", 4, "column 19=%@"),
    Int("c20", 4, "column 20=%@"), Int("c21", 4, "column 21=%@"), Int("c22", 4, "column 22=%@"),
    Int("c23", 4, "column 23=%@"), Int("c24", 4, "column 24=%@"), Int("c25", 4, "column 25=%@"),
    Flag("stripe", "stripes"), Colour("stripecolor", "stripe color=%@")};

const AtomEntry kListAtoms[] = {Int("style", 4, "style=%@"), Flag("levels", "levels"), Flag("left", "left"),
    Int("indent", 4, "indent=%@"), {"mark", Kind::Marker, 8, kVLMaxListLevels, List::None, "markers=%@", 0}};

const AtomEntry kBorderAtoms[] = {BORDER_ATOMS};

const AtomEntry kDocAtoms[] = {Int("deftab", 4, "default tab=%@", 36), Int("gutter", 4, "gutter=%@"),
    Int("pagenum", 4, "first page=%@", 1), Flag("mirrorh", "mirror headers"), Flag("mirrorl", "mirror layout"),
    Flag("ignorem", "ignore margins"), Flag("widow", "widow control"), Flag("noconv", "no conversion"),
    Flag("nixprint", "don't print"), Flag("noback", "no background"), Colour("btcolor", "button color=%@"),
    Flag("noquotes", "no smart quotes"), Flag("backup", "backup"), Flag("hdrempty", "empty headers"),
    Flag("nowrap", "no wrap"), Int("top", 4, "top=%@", 72), Int("left", 4, "left=%@", 72),
    Int("bottom", 4, "bottom=%@", 72), Int("right", 4, "right=%@", 72), Flag("hpush", "headers push"),
    Flag("fpush", "footers push"), Flag("nopreview", "no preview"), Colour("back", "back color=%@"),
    Int("image", 4, "image=%@", -1), Flag("tile", "tile"), Flag("fill", "fill"), Int("opacity", 2, "opacity=%@", 100),
    Flag("nospell", "no spelling"), Int("scale", 4, "scale=%@", 100), Flag("hidebmk", "hide bookmarks")};

#undef BORDER_ATOMS

quint32 _TagOfName(const char *name)
{
    for (const auto &names : {VLPropertyNames(), VLElementNames()}) {
        for (const VLVocabularyEntry &entry : names) {
            if (std::strcmp(entry.name, name) == 0)
                return entry.tag;
        }
    }
    return 0;
}

std::vector<VLAtom> _BuildTable(std::span<const AtomEntry> entries)
{
    std::vector<VLAtom> atoms;
    std::size_t offset = sizeof(VLPropertyHeader);
    quint8 id = 1;
    for (const AtomEntry &entry : entries) {
        VLAtom atom {id++, entry.width, entry.slotCount, entry.kind, entry.list, _TagOfName(entry.name),
            entry.description, entry.base, quint16(offset)};
        Q_ASSERT(atom.tag != 0);
        offset += (entry.slotCount > 1 ? 1 : 0) + std::size_t(entry.width) * entry.slotCount;
        atoms.push_back(atom);
    }
    Q_ASSERT(offset <= kVLPropertyRecordSize);
    return atoms;
}

const std::array<std::vector<VLAtom>, kRecordTypeCount> &_Tables()
{
    static const std::array<std::vector<VLAtom>, kRecordTypeCount> tables
        = {_BuildTable(kCharAtoms), _BuildTable(kParaAtoms), _BuildTable(kChapAtoms), _BuildTable(kFrameAtoms),
            _BuildTable(kTableAtoms), _BuildTable(kListAtoms), {}, _BuildTable(kBorderAtoms), _BuildTable(kDocAtoms)};
    return tables;
}

unsigned char *_Slot(void *record, const VLAtom &atom, int slot)
{
    return static_cast<unsigned char *>(record) + atom.offset + (atom.slotCount > 1 ? 1 : 0) + slot * atom.width;
}

const unsigned char *_Slot(const void *record, const VLAtom &atom, int slot)
{
    return static_cast<const unsigned char *>(record) + atom.offset + (atom.slotCount > 1 ? 1 : 0) + slot * atom.width;
}

} // namespace

quint32 VLPackTabStop(const VLTabStop &tab)
{
    return (tab.x & 0x1FFFFFF) | ((tab.lead & 7) << 25) | ((tab.align & 7) << 28);
}

VLTabStop VLUnpackTabStop(quint32 word)
{
    return {word & 0x1FFFFFF, (word >> 28) & 7, (word >> 25) & 7};
}

std::span<const VLAtom> VLAtomsForType(quint32 type)
{
    if (type >= kRecordTypeCount)
        return {};
    return _Tables()[type];
}

const VLAtom *VLAtomForTag(quint32 type, quint32 tag)
{
    for (const VLAtom &atom : VLAtomsForType(type)) {
        if (atom.tag == tag)
            return &atom;
    }
    return nullptr;
}

const VLAtom *VLAtomForId(quint32 type, quint32 id)
{
    const std::span<const VLAtom> atoms = VLAtomsForType(type);
    return id >= 1 && id <= atoms.size() ? &atoms[id - 1] : nullptr;
}

QString VLAtomName(const VLAtom &atom)
{
    for (const auto &names : {VLPropertyNames(), VLElementNames()}) {
        for (const VLVocabularyEntry &entry : names) {
            if (entry.tag == atom.tag)
                return QString::fromLatin1(entry.name);
        }
    }
    return {};
}

void VLInitialiseRecord(void *record, quint32 type)
{
    std::memset(record, 0, kVLPropertyRecordSize);
    auto *header = static_cast<VLPropertyHeader *>(record);
    header->index = -1;
    header->type = quint8(type);
    for (const VLAtom &atom : VLAtomsForType(type)) {
        if (atom.base != 0)
            VLSetAtomValue(record, atom, atom.base);
    }
}

qint64 VLAtomValue(const void *record, const VLAtom &atom, int slot)
{
    const unsigned char *p = _Slot(record, atom, slot);
    switch (atom.width) {
    case 1:
        return qint64(*reinterpret_cast<const qint8 *>(p));
    case 2: {
        qint16 v;
        std::memcpy(&v, p, 2);
        return v;
    }
    case 4: {
        qint32 v;
        std::memcpy(&v, p, 4);
        return v;
    }
    default: {
        qint64 v;
        std::memcpy(&v, p, 8);
        return v;
    }
    }
}

void VLSetAtomValue(void *record, const VLAtom &atom, qint64 value, int slot)
{
    unsigned char *p = _Slot(record, atom, slot);
    switch (atom.width) {
    case 1:
        *p = quint8(value);
        break;
    case 2: {
        const quint16 v = quint16(value);
        std::memcpy(p, &v, 2);
        break;
    }
    case 4: {
        const quint32 v = quint32(value);
        std::memcpy(p, &v, 4);
        break;
    }
    default: {
        const qint64 v = qint32(value); // 8-byte atoms hold a sign-extended 32-bit value
        std::memcpy(p, &v, 8);
        break;
    }
    }
}

int VLAtomCount(const void *record, const VLAtom &atom)
{
    if (atom.slotCount <= 1)
        return 1;
    return std::min<int>(static_cast<const unsigned char *>(record)[atom.offset], atom.slotCount);
}

void VLSetAtomCount(void *record, const VLAtom &atom, int count)
{
    if (atom.slotCount > 1)
        static_cast<unsigned char *>(record)[atom.offset] = quint8(std::clamp(count, 0, int(atom.slotCount)));
}

bool VLAppendAtomValue(void *record, const VLAtom &atom, qint64 value)
{
    const int count = VLAtomCount(record, atom);
    if (atom.slotCount <= 1 || count >= atom.slotCount)
        return false;
    VLSetAtomValue(record, atom, value, count);
    VLSetAtomCount(record, atom, count + 1);
    return true;
}

VLListMarker VLAtomMarker(const void *record, const VLAtom &atom, int slot)
{
    VLListMarker marker;
    if (atom.kind == Kind::Marker && slot >= 0 && slot < atom.slotCount)
        std::memcpy(&marker, _Slot(record, atom, slot), sizeof marker);
    return marker;
}

void VLSetAtomMarker(void *record, const VLAtom &atom, int slot, const VLListMarker &marker)
{
    if (atom.kind == Kind::Marker && slot >= 0 && slot < atom.slotCount)
        std::memcpy(_Slot(record, atom, slot), &marker, sizeof marker);
}

QString VLAtomCharacters(const void *record, const VLAtom &atom)
{
    QString s;
    const int count = VLAtomCount(record, atom);
    for (int i = 0; i < count; ++i)
        s.append(QChar(char16_t(VLAtomValue(record, atom, i))));
    return s;
}

const VLAtom *VLCharacterFormatNamed(QStringView name)
{
    for (const VLAtom &atom : VLAtomsForType(kRecordChar)) {
        const QLatin1StringView description(atom.description);
        const bool isFlag = atom.kind == Kind::Flag;
        if ((isFlag && IsFuzzyEqualToString(name, QString(description)))
            || (atom.tag == 1215 && IsFuzzyEqualToString(name, u"underline")))
            return &atom;
    }
    return nullptr;
}
