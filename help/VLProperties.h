// Property records: the formatting attached to stretches of a document (character, paragraph,
// chapter, frame, table, list, border and document settings). A record is a fixed block of bytes
// whose fields ("atoms") are described by its type's atom table: each atom has a small identifier,
// a field width of 1, 2, 4 or 8 bytes, a value kind, a place in the record, a description shown
// when a style is described to the user, and the tag of the "format.xml" element that carries it.
//
// Every record, whatever its type, has the same size (kVLPropertyRecordSize) so that a document's
// records live in one KSArray; a record starts with a VLPropertyHeader.
//
// Threads: the atom tables are constant once built (on first use, thread-safe); records belong to
// their document.
#pragma once

#include "help/VLVocabulary.h"

#include <QString>

#include <cstdint>
#include <span>

// The packed 32-bit colour: red in bits 0-7, green 8-15, blue 16-23, opacity in percent in 24-31.
using Kolor = quint32;
inline constexpr Kolor kKolorWhiteMalformed = 0xFFFFFFFF; // a short or malformed colour text

enum VLRecordType : quint32 {
    kRecordChar = 0,
    kRecordPara = 1,
    kRecordChap = 2,
    kRecordFrame = 3,
    kRecordTable = 4,
    kRecordList = 5,
    kRecordNone = 6,
    kRecordBorder = 7,
    kRecordDoc = 8,
    kRecordTypeCount = 9,
    kRecordUnusedStyle = 255, // a style's type: an unused placeholder style
};

enum class VLValueKind : quint8 {
    Flag, // integer text, stored as 1 when nonzero
    Integer, // integer text stored in the atom's width (also lengths, heights, sizes, pages)
    Colour, // Kolor
    Enum, // a word of the atom's list, by index
    Characters, // Base64 of at most 4 UTF-16 units: a count and the units
    Tab, // tab stops: attributes x, align, lead packed in one word; at most 25
    Marker, // list-level markers: attributes type, nof, prefix, suffix; at most 9
    CharFormatName, // the name of a character format ("bold", "underline"...), stored as that atom's id
    Font, // the file's font number, replaced through the document's font map
};

// Tab stop word: position in bits 0-24, leader in 25-27, alignment in 28-30.
struct VLTabStop {
    quint32 x = 0;
    quint32 align = 0; // VLWordList::TabAlign
    quint32 lead = 0; // VLWordList::TabLeader
};
quint32 VLPackTabStop(const VLTabStop &tab);
VLTabStop VLUnpackTabStop(quint32 word);
inline constexpr int kVLMaxTabStops = 25;

// One list level's marker, 8 bytes in the record.
struct VLListMarker {
    quint8 type = 0; // VLWordList::MarkerType
    quint8 nof = 0; // VLWordList::NumberFormat
    char16_t prefix = 0;
    char16_t suffix = 0;
    quint16 reserved = 0;
};
static_assert(sizeof(VLListMarker) == 8);
inline constexpr int kVLMaxListLevels = 9;

struct VLAtom {
    quint8 id; // 1-based within its type
    quint8 width; // bytes of one value: 1, 2, 4 or 8
    quint8 slotCount; // values held: 1, or the most of an array (tabs, markers, characters)
    VLValueKind kind;
    VLWordList list; // for Enum atoms
    quint32 tag; // the element that carries it
    const char *description;
    qint64 base; // value of a fresh record (first slot only)
    quint16 offset; // place in the record; an array has a count byte there, then its slotCount
};

struct VLPropertyHeader {
    qint32 index; // the record's own index in its document's property table (-1 when outside it)
    quint8 type; // VLRecordType
    quint8 reserved[3];
};
inline constexpr std::size_t kVLPropertyRecordSize = 512;

// The atoms of a record type (empty for kRecordNone and types beyond the list).
std::span<const VLAtom> VLAtomsForType(quint32 type);
const VLAtom *VLAtomForTag(quint32 type, quint32 tag);
const VLAtom *VLAtomForId(quint32 type, quint32 id);
// The element name of an atom (from the key encoder's vocabulary).
QString VLAtomName(const VLAtom &atom);

// A record of the type holding its base values; the index is -1.
void VLInitialiseRecord(void *record, quint32 type);
inline const VLPropertyHeader &VLRecordHeader(const void *record)
{
    return *static_cast<const VLPropertyHeader *>(record);
}

// Plain values: read sign-extended from the atom's width (an 8-byte atom holds a sign-extended
// 32-bit value); written truncated to it. For arrays, `slot` picks the value.
qint64 VLAtomValue(const void *record, const VLAtom &atom, int slot = 0);
void VLSetAtomValue(void *record, const VLAtom &atom, qint64 value, int slot = 0);
// Arrays (Tab, Marker, Characters): values in use.
int VLAtomCount(const void *record, const VLAtom &atom);
void VLSetAtomCount(void *record, const VLAtom &atom, int count);
// Appends to an array; false when it is full.
bool VLAppendAtomValue(void *record, const VLAtom &atom, qint64 value);
VLListMarker VLAtomMarker(const void *record, const VLAtom &atom, int slot);
void VLSetAtomMarker(void *record, const VLAtom &atom, int slot, const VLListMarker &marker);
QString VLAtomCharacters(const void *record, const VLAtom &atom);

// The character atom whose flag description (or the word "underline") matches the name ignoring
// case; null when none does.
const VLAtom *VLCharacterFormatNamed(QStringView name);
