// The document vocabulary: the numbered tags of the help package's XML and the word lists of its
// enumerated values. The numbers are part of the file format and never change.
//
// Threads: the tables are constant. The key decoder and encoder are built once by the engine's
// set-up at launch (VLHelpEngine.h) and only read afterwards.
#pragma once

#include <QHash>
#include <QString>
#include <QStringView>

#include <span>

// Tag numbers of the elements and attributes the reader switches on.
enum VLTag : quint32 {
    kTagAscent = 1000,
    kTagBase = 1001,
    kTagBin = 1002,
    kTagChar = 1003,
    kTagClass = 1004,
    kTagCp = 1005,
    kTagDiv = 1007,
    kTagDocprop = 1008,
    kTagFonts = 1015,
    kTagFormat = 1017,
    kTagId = 1020,
    kTagKink = 1022,
    kTagK0 = 1023,
    kTagK1 = 1024,
    kTagKnots = 1025,
    kTagKnot = 1026,
    kTagLength = 1027,
    kTagLev = 1028,
    kTagMagic = 1031,
    kTagMark = 1032,
    kTagName = 1034,
    kTagNext = 1035,
    kTagNormalChapter = 1036,
    kTagNormalFrame = 1037,
    kTagNormalList = 1038,
    kTagNormalTable = 1039,
    kTagNo = 1040,
    kTagPage = 1041,
    kTagPanes = 1042,
    kTagPane = 1043,
    kTagPara = 1044,
    kTagSource = 1047,
    kTagImages = 1048,
    kTagProperties = 1053,
    kTagProp = 1054,
    kTagRun = 1056,
    kTagShowPage = 1065,
    kTagStructure = 1069,
    kTagStyles = 1070,
    kTagText = 1073,
    kTagType = 1074,
    kTagVelluma = 1075,
    kTagValue = 1076,
    kTagVer = 1077,
    kTagZoom = 1087,
    kTagLead = 1168,
    // Property names that are also knot children.
    kTagAlign = 1089,
    kTagBookmark = 1099,
    kTagColor = 1137,
    kTagImage = 1188,
    kTagOpacity = 1183,
};

// The 87 element and attribute names (decoder only) and the 135 property names (decoder and
// encoder), as (number, name) pairs.
struct VLVocabularyEntry {
    quint32 tag;
    const char *name;
};
std::span<const VLVocabularyEntry> VLElementNames();
std::span<const VLVocabularyEntry> VLPropertyNames();

// Name -> number for every name; number -> name for the property names only.
QHash<QString, quint32> VLMakeKeyDecoder();
QHash<quint32, QString> VLMakeKeyEncoder();

// The enumerated lists (index = value). Looked up ignoring case; no match gives 0.
enum class VLWordList : quint8 {
    None,
    KnotType,
    Kink,
    Divider,
    Variable,
    VerticalAlign,
    RecordType,
    PictureSource,
    HorizontalAlign,
    Underline,
    Capitals,
    BorderKind,
    BorderLine,
    PageBreak,
    PageNumberPosition,
    NumberFormat,
    FrameWrap,
    FrameBase,
    FrameHorizontalOffset,
    FrameVerticalOffset,
    MarkerType,
    TabAlign,
    TabLeader,
};
std::span<const QStringView> VLWords(VLWordList list);
// The word of a value, or an empty string beyond the list.
QString VLWord(VLWordList list, quint32 value);
