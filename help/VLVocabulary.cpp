#include "help/VLVocabulary.h"

#include "keelson/KSXmlDecoder.h"

namespace {

const VLVocabularyEntry kElementNames[] = {
    {1000, "ascent"},
    {1001, "base"},
    {1002, "bin"},
    {1003, "char"},
    {1004, "class"},
    {1005, "cp"},
    {1006, "current"},
    {1007, "div"},
    {1008, "docprop"},
    {1009, "draft"},
    {1010, "drawsize"},
    {1011, "dropcache"},
    {1012, "ellist"},
    {1013, "item"},
    {1014, "facing"},
    {1015, "fonts"},
    {1016, "fpanel"},
    {1017, "format"},
    {1018, "frames"},
    {1019, "frame"},
    {1020, "id"},
    {1022, "kink"},
    {1023, "k0"},
    {1024, "k1"},
    {1025, "knots"},
    {1026, "knot"},
    {1027, "length"},
    {1028, "lev"},
    {1029, "count"},
    {1030, "locked"},
    {1031, "magic"},
    {1032, "mark"},
    {1033, "meta"},
    {1034, "name"},
    {1035, "next"},
    {1036, "normal_chapter"},
    {1037, "normal_frame"},
    {1038, "normal_list"},
    {1039, "normal_table"},
    {1040, "no"},
    {1041, "page"},
    {1042, "panes"},
    {1043, "pane"},
    {1044, "para"},
    {1045, "password"},
    {1046, "hint"},
    {1047, "source"},
    {1048, "images"},
    {1049, "plain"},
    {1050, "scroll"},
    {1051, "preview"},
    {1052, "print"},
    {1053, "properties"},
    {1054, "prop"},
    {1055, "relative"},
    {1056, "run"},
    {1057, "saveReceipt"},
    {1058, "endline"},
    {1059, "selend"},
    {1060, "selframe"},
    {1061, "selstart"},
    {1062, "shorthand"},
    {1063, "bounds"},
    {1064, "marks"},
    {1065, "showPage"},
    {1066, "rulers"},
    {1067, "tbounds"},
    {1068, "spelling"},
    {1069, "structure"},
    {1070, "styles"},
    {1071, "subver"},
    {1072, "sys_ver"},
    {1073, "text"},
    {1074, "type"},
    {1075, "velluma"},
    {1076, "value"},
    {1077, "ver"},
    {1079, "view"},
    {1080, "window"},
    {1081, "tabs"},
    {1082, "word"},
    {1083, "wrapl"},
    {1084, "wrapr"},
    {1085, "write_ver"},
    {1086, "zoomType"},
    {1087, "zoom"},
    {1168, "lead"},
};

const VLVocabularyEntry kPropertyNames[] = {
    {1088, "after"},
    {1089, "align"},
    {1090, "levels"},
    {1091, "autofit"},
    {1092, "back"},
    {1093, "backup"},
    {1094, "balance"},
    {1095, "btcolor"},
    {1096, "before"},
    {1097, "between"},
    {1098, "bold"},
    {1099, "bookmark"},
    {1100, "bline"},
    {1101, "boff"},
    {1102, "bthick"},
    {1103, "btype"},
    {1104, "bwidth"},
    {1105, "pagebot"},
    {1106, "bottom"},
    {1107, "caps"},
    {1108, "cleft"},
    {1109, "cright"},
    {1110, "chapstart"},
    {1111, "check"},
    {1112, "c1"},
    {1113, "c2"},
    {1114, "c3"},
    {1115, "c4"},
    {1116, "c5"},
    {1117, "c6"},
    {1118, "c7"},
    {1119, "c8"},
    {1120, "c9"},
    {1121, "c10"},
    {1122, "c11"},
    {1123, "c12"},
    {1124, "c13"},
    {1125, "c14"},
    {1126, "c15"},
    {1127, "c16"},
    {1128, "c17"},
    {1129, "c18"},
    {1130, "c19"},
    {1131, "c20"},
    {1132, "c21"},
    {1133, "c22"},
    {1134, "c23"},
    {1135, "c24"},
    {1136, "c25"},
    {1137, "color"},
    {1138, "colline"},
    {1139, "cols"},
    {1140, "custom"},
    {1141, "deftab"},
    {1142, "drop"},
    {1143, "endch"},
    {1144, "expand"},
    {1145, "fill"},
    {1146, "big1"},
    {1147, "format1"},
    {1148, "indent1"},
    {1149, "size"},
    {1150, "font"},
    {1151, "foff"},
    {1152, "fpush"},
    {1153, "framesTB"},
    {1154, "gutter"},
    {1155, "hoff"},
    {1156, "hpush"},
    {1157, "hdrtab"},
    {1158, "height"},
    {1159, "hidebmk"},
    {1160, "unleaded"},
    {1161, "ignorem"},
    {1162, "indent"},
    {1163, "incolor"},
    {1164, "insideonly"},
    {1165, "italic"},
    {1166, "keepnext"},
    {1167, "keep"},
    {1169, "indentl"},
    {1170, "left"},
    {1171, "multiple"},
    {1172, "mirrorh"},
    {1173, "mirrorl"},
    {1174, "mirrorp"},
    {1175, "hdrempty"},
    {1176, "nolink"},
    {1177, "nopreview"},
    {1178, "nixprint"},
    {1179, "nospell"},
    {1180, "nowrap"},
    {1181, "nof"},
    {1183, "opacity"},
    {1184, "outline"},
    {1185, "pageanchor"},
    {1186, "pagenum"},
    {1187, "pagepos"},
    {1188, "image"},
    {1189, "prefix"},
    {1190, "relsize"},
    {1191, "res"},
    {1192, "indentr"},
    {1193, "right"},
    {1194, "scale"},
    {1195, "shadow"},
    {1196, "header1"},
    {1197, "strike"},
    {1198, "stripe"},
    {1199, "stripecolor"},
    {1200, "style"},
    {1201, "sub"},
    {1202, "suffix"},
    {1203, "noback"},
    {1204, "noconv"},
    {1205, "noquotes"},
    {1206, "tab"},
    {1207, "tabdel"},
    {1208, "tb"},
    {1209, "tight"},
    {1210, "tile"},
    {1211, "title"},
    {1212, "titlerow"},
    {1213, "pagetop"},
    {1214, "top"},
    {1215, "underline"},
    {1216, "widow"},
    {1217, "width"},
    {1218, "wrap"},
    {1219, "xbase"},
    {1220, "xoff"},
    {1221, "x"},
    {1222, "ybase"},
    {1223, "y"},
    {1224, "ypos"},
};

using namespace Qt::Literals::StringLiterals;

const QStringView kKnotTypes[] = {u"", u"autonum", u"bookmark", u"chapter", u"checkbox", u"divider", u"link", u"list",
    u"note", u"pic", u"short", u"table", u"row", u"tag", u"toc", u"toce", u"var"};
const QStringView kKinks[] = {u"-", u"beg", u"mid", u"end", u"vatop", u"vabottom", u"vacenter", u"vafull", u"asterisk",
    u"2diamond", u"diamond", u"diamondLine", u"square", u"squareLine", u"circle", u"circleLine", u"pyramid"};
const QStringView kDividers[] = {u"asterisk", u"2diamond", u"diamond", u"diamondLine", u"square", u"squareLine",
    u"circle", u"circleLine", u"pyramid", u"plainLine", u"theEnd"};
const QStringView kVariables[] = {u"bookref", u"chapname", u"chapno", u"chapno1", u"date", u"docname", u"endref",
    u"link", u"pagecount", u"wordcount", u"pageno", u"bookpage", u"picno", u"time", u"bookrefpage", u"linkpage"};
const QStringView kVerticalAligns[] = {u"vatop", u"vabottom", u"vacenter", u"vafull"};
const QStringView kRecordTypes[] = {u"char", u"para", u"chap", u"frame", u"table", u"list", u"", u"border", u"doc"};
const QStringView kPictureSources[] = {u"embed", u"resource", u"path"};
const QStringView kHorizontalAligns[] = {u"left", u"center", u"justify", u"right"};
const QStringView kUnderlines[] = {u"None", u"Single", u"Word", u"Double", u"Dotted", u"Dashed", u"Thick"};
const QStringView kCapitals[] = {u"none", u"upper", u"lower", u"small", u"first"};
const QStringView kBorderKinds[]
    = {u"None", u"Left", u"Right", u"Left+right", u"Top", u"Bottom", u"Top+bottom", u"Box", u"Between", u"Box+between",
        u"Box+row1", u"Box+column1", u"Box+row1+column1", u"Row1", u"Row1box+between", u"Row1+columns"};
const QStringView kBorderLines[] = {u"Single", u"Double", u"Dots", u"Dashes", u"Serrated", u"Scallops", u"Gradient"};
const QStringView kPageBreaks[] = {u"page", u"column", u"even", u"odd", u"same"};
const QStringView kPageNumberPositions[]
    = {u"none", u"tl", u"tc", u"tr", u"ti", u"to", u"bl", u"bc", u"br", u"bi", u"bo"};
const QStringView kNumberFormats[] = {u"1", u"ru", u"rl", u"au", u"al", u"o", u"ot", u"c", u"s", u"16", u"8", u"2"};
const QStringView kFrameWraps[]
    = {u"overlap", u"underlay", u"avoid", u"wider", u"left", u"right", u"inside", u"outside"};
const QStringView kFrameBases[] = {u"Margin", u"Page"};
const QStringView kFrameHorizontalOffsets[] = {u"Left", u"Center", u"Right", u"Absolute", u"Inside", u"Outside"};
const QStringView kFrameVerticalOffsets[] = {u"Top", u"Center", u"Bottom", u"Absolute"};
const QStringView kMarkerTypes[] = {u"undef", u"bullet", u"check", u"#", u"pic"};
const QStringView kTabAligns[] = {u"left", u"right", u"center", u"decimal", u"bar"};
const QStringView kTabLeaders[] = {u"None", u"Dots", u"Hyphens", u"Equals", u"Line", u"Thick line"};

} // namespace

std::span<const VLVocabularyEntry> VLElementNames()
{
    return kElementNames;
}

std::span<const VLVocabularyEntry> VLPropertyNames()
{
    return kPropertyNames;
}

QHash<QString, quint32> VLMakeKeyDecoder()
{
    QHash<QString, quint32> decoder;
    decoder.reserve(qsizetype(std::size(kElementNames) + std::size(kPropertyNames)));
    for (const VLVocabularyEntry &entry : kElementNames)
        decoder.insert(QString::fromLatin1(entry.name), entry.tag);
    for (const VLVocabularyEntry &entry : kPropertyNames)
        decoder.insert(QString::fromLatin1(entry.name), entry.tag);
    return decoder;
}

QHash<quint32, QString> VLMakeKeyEncoder()
{
    QHash<quint32, QString> encoder;
    encoder.reserve(qsizetype(std::size(kPropertyNames)));
    for (const VLVocabularyEntry &entry : kPropertyNames)
        encoder.insert(entry.tag, QString::fromLatin1(entry.name));
    return encoder;
}

std::span<const QStringView> VLWords(VLWordList list)
{
    switch (list) {
    case VLWordList::None:
        return {};
    case VLWordList::KnotType:
        return kKnotTypes;
    case VLWordList::Kink:
        return kKinks;
    case VLWordList::Divider:
        return kDividers;
    case VLWordList::Variable:
        return kVariables;
    case VLWordList::VerticalAlign:
        return kVerticalAligns;
    case VLWordList::RecordType:
        return kRecordTypes;
    case VLWordList::PictureSource:
        return kPictureSources;
    case VLWordList::HorizontalAlign:
        return kHorizontalAligns;
    case VLWordList::Underline:
        return kUnderlines;
    case VLWordList::Capitals:
        return kCapitals;
    case VLWordList::BorderKind:
        return kBorderKinds;
    case VLWordList::BorderLine:
        return kBorderLines;
    case VLWordList::PageBreak:
        return kPageBreaks;
    case VLWordList::PageNumberPosition:
        return kPageNumberPositions;
    case VLWordList::NumberFormat:
        return kNumberFormats;
    case VLWordList::FrameWrap:
        return kFrameWraps;
    case VLWordList::FrameBase:
        return kFrameBases;
    case VLWordList::FrameHorizontalOffset:
        return kFrameHorizontalOffsets;
    case VLWordList::FrameVerticalOffset:
        return kFrameVerticalOffsets;
    case VLWordList::MarkerType:
        return kMarkerTypes;
    case VLWordList::TabAlign:
        return kTabAligns;
    case VLWordList::TabLeader:
        return kTabLeaders;
    }
    return {};
}

QString VLWord(VLWordList list, quint32 value)
{
    const std::span<const QStringView> words = VLWords(list);
    return value < words.size() ? words[value].toString() : QString();
}
