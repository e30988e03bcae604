#include "help/VLHelpReader.h"

#include "help/VLCautionImage.h"
#include "help/VLHelpEngine.h"
#include "keelson/KSFileReader.h"
#include "keelson/KSLog.h"
#include "keelson/KSStringKeelson.h"
#include "keelson/KSStrings.h"
#include "keelson/KSXmlDecoder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStringDecoder>
#include <QUuid>

#include <cerrno>
#include <cstring>

namespace {

bool _LooksLikeImage(const QByteArray &data)
{
    const auto starts = [&data](const char *magic, qsizetype at = 0) {
        return data.size() >= at + qsizetype(std::strlen(magic))
            && std::memcmp(data.constData() + at, magic, std::strlen(magic)) == 0;
    };
    return starts("\x89PNG\r\n\x1a\n") || starts("\xff\xd8\xff") || starts("GIF87a") || starts("GIF89a")
        || starts("II*") || starts("MM\0*") || starts("BM") || (starts("RIFF") && starts("WEBP", 8))
        || ((starts("<svg") || starts("<?xml")) && data.contains("<svg"));
}

QString _SystemReason(int code)
{
    char buffer[256];
    return QString::fromLocal8Bit(strerror_r(code, buffer, sizeof buffer));
}

QString _NewIdentifier()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}

} // namespace

// One load: the document being filled and the decoder of the file being read.
class VLHelpReader {
public:
    VLHelpReader(VLDocument &document, VLLoadFailure &failure) : m_doc(document), m_failure(failure) { }
    bool readPackage(const QString &path);
    bool readSingleFile(const QString &path);

private:
    bool fail(const QString &reason, const QString &detail = {});
    bool failDamaged(const QString &detail) { return fail(QString::fromUtf8(kVLDamagedMessage), detail); }
    bool failEnded(const char *section);
    bool openXml(const QString &path, const QString &name);
    bool expectTag(quint32 key, const char *name);
    bool checkVersion();
    bool skipElement();
    // Reads the current element's children one by one until its closing tag; `child` handles one
    // start tag and answers false to stop the load.
    template <typename Child> bool readChildren(const char *section, Child child);
    // The same from inside an element whose first children were already read.
    template <typename Child> bool readRest(const char *section, Child child);

    // Reads the section's children; `started`: the reader is already inside it (after "ver").
    bool readStructure(bool started = false);
    bool readKnots();
    bool readKnot();
    bool readImages();
    bool readImage();
    bool readFormat(bool started = false);
    bool readFonts();
    bool readProperties();
    bool readProperty(void *record, quint32 type);
    bool readStyles();
    bool readRuns(KSArrayCP &runs, const char *section);
    bool readText();
    bool storeText(QStringView text);
    bool finish();

    std::unique_ptr<VLImage> loadImageFile(const QString &path, QString *loadedFrom);

    VLDocument &m_doc;
    VLLoadFailure &m_failure;
    std::unique_ptr<KSXmlDecoder> m_xml;
    QString m_fileName; // the file being read, for details
    QString m_imagesFolder; // the package's "Images"; empty for the single-file form
    QString m_pictureFolder; // while a picture is loaded: the folder it must lie in, if any
    bool m_textStored = false;
};

bool VLHelpReader::fail(const QString &reason, const QString &detail)
{
    if (m_failure.reason.isEmpty() && m_failure.detail.isEmpty()) {
        m_failure.reason = reason;
        m_failure.detail = detail;
    }
    return false;
}

// The decoder stopped before the section's closing tag: its syntax message, else no reason.
bool VLHelpReader::failEnded(const char *section)
{
    if (!m_xml->error().isEmpty())
        return fail(m_xml->error(), m_fileName + QStringLiteral(": ") + m_xml->error());
    return fail(QString(), QStringLiteral("%1 ends inside <%2>").arg(m_fileName, QLatin1String(section)));
}

bool VLHelpReader::openXml(const QString &path, const QString &name)
{
    m_fileName = name;
    KSXmlFileError error;
    m_xml = KSXmlDecoder::initWithFile(path, &error);
    if (!m_xml) {
        if (error.domain == KSXmlFileError::PosixDomain && error.code != ENOENT && error.code != ENOTDIR)
            return fail(error.reason, QStringLiteral("%1: %2").arg(name, error.reason));
        if (error.domain == KSXmlFileError::PosixDomain)
            return failDamaged(QStringLiteral("%1 is missing").arg(name));
        return fail(error.reason, QStringLiteral("%1 is not XML").arg(name));
    }
    m_xml->setKeyDecoder(VLDocumentKeyDecoder());
    return true;
}

bool VLHelpReader::expectTag(quint32 key, const char *name)
{
    if (m_xml->getNextTag() && m_xml->startTag() && m_xml->key() == key)
        return true;
    if (!m_xml->error().isEmpty())
        return failEnded(name);
    return failDamaged(QStringLiteral("%1: <%2> expected").arg(m_fileName, QLatin1String(name)));
}

bool VLHelpReader::checkVersion()
{
    const qint64 version = m_xml->integerValue();
    if (version > 2)
        return fail(QString::fromUtf8(kVLLaterVersionMessage),
            QStringLiteral("%1: format version %2; this program reads 2 and earlier").arg(m_fileName).arg(version));
    return true;
}

bool VLHelpReader::skipElement()
{
    if (!m_xml->startTag() || m_xml->endTag())
        return true;
    const qsizetype outer = m_xml->level() - 1;
    while (m_xml->getNextTag()) {
        if (!m_xml->startTag() && m_xml->level() <= outer)
            return true;
    }
    return false;
}

template <typename Child> bool VLHelpReader::readChildren(const char *section, Child child)
{
    if (m_xml->endTag())
        return true; // an empty element
    return readRest(section, child);
}

template <typename Child> bool VLHelpReader::readRest(const char *section, Child child)
{
    const qsizetype inner = m_xml->level();
    while (m_xml->getNextTag()) {
        if (!m_xml->startTag()) {
            if (m_xml->level() < inner)
                return true;
            continue;
        }
        if (!child())
            return false;
    }
    return failEnded(section);
}

// --- structure -----------------------------------------------------------------------------------

bool VLHelpReader::readStructure(bool started)
{
    const auto child = [this] {
        switch (m_xml->key()) {
        case kTagVer:
            return checkVersion();
        case kTagLength: {
            qint64 first = 0, length = 0;
            if (!VLReadNumberPair(m_xml->value(), &first, &length))
                return fail(QString(),
                    QStringLiteral("%1: <length> is not a number pair: \"%2\"").arg(m_fileName, m_xml->value()));
            if (length < 0 || length > INT32_MAX - 1)
                return fail(
                    QString(), QStringLiteral("%1: the text length %2 is out of range").arg(m_fileName).arg(length));
            m_doc.m_firstCount = quint32(first);
            m_doc.m_textLength = quint32(length);
            return true;
        }
        case kTagKnots:
            return readKnots();
        case kTagImages:
            return readImages();
        default:
            return skipElement() || failEnded("structure");
        }
    };
    return started ? readRest("structure", child) : readChildren("structure", child);
}

bool VLHelpReader::readKnots()
{
    m_doc.resetCpTables(m_doc.m_textLength);
    return readChildren("knots", [this] {
        if (m_xml->key() != kTagKnot)
            return skipElement() || failEnded("knots");
        return readKnot();
    });
}

bool VLHelpReader::readKnot()
{
    const KSXmlDecoder::Attributes &attributes = m_xml->attributes();
    const qint64 cp
        = attributes.contains(QStringLiteral("cp")) ? m_xml->integerAttributeForTag(QStringLiteral("cp")) : -1;
    if (cp < 0 || cp > INT32_MAX - 1)
        return fail(QString(), QStringLiteral("%1: a knot has no cp").arg(m_fileName));
    VLKnot knot {};
    knot.type = quint32(m_xml->decodeAttribute(QStringLiteral("type"), VLWords(VLWordList::KnotType)));
    knot.kink = quint32(m_xml->decodeAttribute(QStringLiteral("kink"), VLWords(VLWordList::Kink)));
    knot.property = -1;
    if (knot.type == kKnotRow && knot.kink != kKinkBeg)
        knot.primary = -1;
    if (knot.type == kKnotVar)
        knot.secondary = -1;

    const bool read = readChildren("knot", [this, &knot] {
        const qint64 v = m_xml->integerValue();
        switch (m_xml->key()) {
        case kTagClass:
        case kTagImage:
            knot.primary = qint32(v);
            break;
        case kTagDiv:
            knot.primary = m_xml->decodeValueFromValues(VLWords(VLWordList::Divider));
            break;
        case kTagLev:
            knot.primary = VLLevelCode(v);
            break;
        case kTagMagic:
        case kTagShowPage:
            knot.secondary = qint32((quint32(knot.secondary) & ~0xFFu) | (quint32(v) & 0xFF));
            break;
        case kTagProp:
            knot.property = qint32(v);
            break;
        case kTagType:
            knot.primary = m_xml->decodeValueFromValues(VLWords(VLWordList::Variable));
            break;
        case kTagValue:
            if (knot.type == kKnotVar)
                knot.variable = quint16(v);
            else if (knot.type == kKnotCheckbox)
                knot.primary = qint32((quint32(knot.primary) & ~0xFFu) | (quint32(v) & 0xFF));
            break;
        case kTagZoom:
            knot.variable = quint16(v);
            break;
        case kTagAlign:
            knot.secondary = m_xml->decodeValueFromValues(VLWords(VLWordList::VerticalAlign));
            break;
        case kTagBookmark:
            knot.secondary = qint32(v);
            break;
        case kTagColor:
            knot.primary = qint32(VLReadKolor(m_xml->value()));
            break;
        case kTagOpacity:
            knot.opacity = quint16(v);
            break;
        default:
            break;
        }
        return skipElement() || failEnded("knot");
    });
    if (!read)
        return false;

    KSArrayCP &knots = *m_doc.m_knots;
    const std::size_t count = knots.count();
    if (count && knots.cpAtIndex(count - 1) > cp)
        return fail(QString(),
            QStringLiteral("%1: the knot at cp %2 comes after one at cp %3")
                .arg(m_fileName)
                .arg(cp)
                .arg(knots.cpAtIndex(count - 1)));
    if (knots.maxCp() < cp)
        knots.setMaxCp(qint32(cp)); // checked against the text's length when the text is stored
    if (!knots.insertEntry(&knot, count, qint32(cp)))
        return fail(QString::fromUtf8(kVLTextMemoryMessage));
    if (knot.type == kKnotUnknown)
        m_doc.m_flags |= kDocHasUnknownKnots;
    if (knot.type == kKnotVar)
        m_doc.m_variableMask |= 1u << (quint32(knot.primary) % 32);
    if (knot.kink == kKinkBeg) {
        KSArrayCP *starts = knot.type == kKnotBookmark ? m_doc.m_bookmarkStarts.get()
            : knot.type == kKnotChapter                ? m_doc.m_chapterStarts.get()
            : knot.type == kKnotList                   ? m_doc.m_listStarts.get()
            : knot.type == kKnotTable                  ? m_doc.m_tableStarts.get()
                                                       : nullptr;
        if (starts) {
            if (starts->maxCp() < cp)
                starts->setMaxCp(qint32(cp));
            if (!starts->insertEntry(nullptr, starts->count(), qint32(cp)))
                return fail(QString::fromUtf8(kVLTextMemoryMessage));
        }
    }
    return true;
}

// --- pictures --------------------------------------------------------------------------------------

bool VLHelpReader::readImages()
{
    return readChildren("images", [this] {
        if (m_xml->key() != kTagImage)
            return fail(QString(), QStringLiteral("%1: the picture list holds <%2>").arg(m_fileName, m_xml->xmlTag()));
        return readImage() && (skipElement() || failEnded("image"));
    });
}

std::unique_ptr<VLImage> VLHelpReader::loadImageFile(const QString &path, QString *loadedFrom)
{
    const auto read = [this](const QString &file) -> std::unique_ptr<VLImage> {
        if (!m_pictureFolder.isEmpty()) {
            // A picture of the package or of the program's resources lies inside that folder:
            // no "..", no link that leads out of it.
            const QString real = QFileInfo(file).canonicalFilePath();
            const QString folder = QFileInfo(m_pictureFolder).canonicalFilePath();
            if (real.isEmpty() || folder.isEmpty() || !PathIsInside(real, folder) || real == folder)
                return nullptr;
        }
        auto image = std::make_unique<VLImage>();
        if (ReadRegularFile(file, kVLMaxPictureSize, &image->data) != 0)
            return nullptr;
        return _LooksLikeImage(image->data) ? std::move(image) : nullptr;
    };
    std::unique_ptr<VLImage> image = read(path);
    *loadedFrom = path;
    const QString extension = PathExtension(path);
    if (!image && IsFuzzyEqualToString(extension, u"tiff")) {
        const QString png = path.chopped(extension.size()) + QStringLiteral("png");
        image = read(png);
        *loadedFrom = png;
    }
    if (image)
        return image;
    LogString("Can't read image %@", path);
    loadedFrom->clear();
    auto caution = std::make_unique<VLImage>();
    caution->data = VLCautionImageData();
    caution->caution = true;
    return caution;
}

bool VLHelpReader::readImage()
{
    const int source = m_xml->decodeAttribute(QStringLiteral("source"), VLWords(VLWordList::PictureSource));
    const QString text = m_xml->value().trimmed();
    std::unique_ptr<VLImage> image;
    QString loadedFrom;
    QString name;
    const QString fileName = LastPathComponent(text);
    if (source == 0 && m_imagesFolder.isEmpty()) {
        // Embedded in a single file: the picture's bytes in Base64.
        QString base64 = text;
        base64.removeIf([](QChar c) { return c.isSpace(); });
        auto decoded = QByteArray::fromBase64Encoding(base64.toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
        if (decoded) {
            image = std::make_unique<VLImage>();
            image->data = std::move(decoded.decoded);
        }
        name = _NewIdentifier();
        m_doc.m_flags |= kDocHasEmbeddedPictures;
    } else if (source == 0 || source == 1) {
        const QString folder = source == 0 ? QFileInfo(m_imagesFolder).absolutePath() : VLResourceDirectory();
        m_pictureFolder = folder;
        image = loadImageFile((source == 0 ? m_imagesFolder : folder) + u'/' + text, &loadedFrom);
        m_pictureFolder.clear();
        name = DeletingPathExtension(fileName);
        if (source == 0)
            m_doc.m_flags |= kDocHasEmbeddedPictures;
    } else {
        QString path = text;
        if (path == u"~" || path.startsWith(u"~/"))
            path = QDir::homePath() + path.mid(1);
        image = loadImageFile(path, &loadedFrom);
        name = _NewIdentifier();
    }
    const QString stored = loadedFrom.isEmpty() ? QString() : LastPathComponent(loadedFrom);
    if (!m_doc.appendPicture(std::move(image), loadedFrom.isEmpty() ? nullptr : &stored, name))
        return fail(QString::fromUtf8(kVLTextMemoryMessage));
    return true;
}

// --- format ------------------------------------------------------------------------------------------

bool VLHelpReader::readFormat(bool started)
{
    m_doc.removeAllProperties();
    m_doc.m_normalList = -1;
    m_doc.m_normalTable = -1;
    m_doc.m_fontMap.clear();
    const auto child = [this] {
        switch (m_xml->key()) {
        case kTagVer:
            return checkVersion();
        case kTagNormalChapter:
            m_doc.m_normalChapter = qint32(m_xml->integerValue());
            return true;
        case kTagNormalList:
            m_doc.m_normalList = qint32(m_xml->integerValue());
            return true;
        case kTagNormalTable:
            m_doc.m_normalTable = qint32(m_xml->integerValue());
            return true;
        case kTagFonts:
            return readFonts();
        case kTagProperties:
            return readProperties();
        case kTagStyles:
            return readStyles();
        case kTagChar:
            return readRuns(*m_doc.m_charRuns, "char");
        case kTagPara:
            return readRuns(*m_doc.m_paraRuns, "para");
        case kTagDocprop: {
            QByteArray record(kVLPropertyRecordSize, Qt::Uninitialized);
            VLInitialiseRecord(record.data(), kRecordDoc);
            if (!readProperty(record.data(), kRecordDoc))
                return false;
            m_doc.setDocumentProperties(record.constData());
            return true;
        }
        default:
            return skipElement() || failEnded("format"); // normal_frame, no, page, panes, pane, ...
        }
    };
    if (!(started ? readRest("format", child) : readChildren("format", child)))
        return false;
    if (m_doc.m_normalList != -1 && !m_doc.applyNormalList())
        return fail(QString(),
            QStringLiteral("%1: the normal list %2 is not a list record").arg(m_fileName).arg(m_doc.m_normalList));
    return true;
}

bool VLHelpReader::readFonts()
{
    return readChildren("fonts", [this] {
        m_doc.m_fontMap.push_back(VLFontIndexForName(m_xml->value().trimmed()));
        return skipElement() || failEnded("fonts");
    });
}

bool VLHelpReader::readProperties()
{
    return readChildren("properties", [this] {
        if (m_xml->key() != kTagProp)
            return skipElement() || failEnded("properties");
        const quint32 type = quint32(m_xml->decodeAttribute(QStringLiteral("type"), VLWords(VLWordList::RecordType)));
        QByteArray record(kVLPropertyRecordSize, Qt::Uninitialized);
        VLInitialiseRecord(record.data(), type);
        if (!readProperty(record.data(), type))
            return false;
        if (type == kRecordChar) {
            const VLAtom *font = VLAtomForTag(kRecordChar, 1150);
            const qint64 number = VLAtomValue(record.constData(), *font);
            const std::vector<quint32> &map = m_doc.m_fontMap;
            VLSetAtomValue(
                record.data(), *font, number >= 0 && quint64(number) < map.size() ? map[std::size_t(number)] : 0);
        }
        if (m_doc.appendProperty(record.constData()) < 0)
            return fail(QString::fromUtf8(kVLTextMemoryMessage));
        return true;
    });
}

bool VLHelpReader::readProperty(void *record, quint32 type)
{
    return readChildren("prop", [this, record, type] {
        const VLAtom *atom = VLAtomForTag(type, m_xml->key());
        if (!atom)
            return skipElement() || failEnded("prop");
        const QString &value = m_xml->value();
        switch (atom->kind) {
        case VLValueKind::Flag:
            VLSetAtomValue(record, *atom, m_xml->integerValue() != 0);
            break;
        case VLValueKind::Integer:
        case VLValueKind::Font:
            VLSetAtomValue(record, *atom, qint32(m_xml->integerValue()));
            break;
        case VLValueKind::Colour:
            VLSetAtomValue(record, *atom, VLReadKolor(value));
            break;
        case VLValueKind::Enum:
            VLSetAtomValue(record, *atom, m_xml->decodeValueFromValues(VLWords(atom->list)));
            break;
        case VLValueKind::CharFormatName: {
            const VLAtom *format = VLCharacterFormatNamed(value.trimmed());
            VLSetAtomValue(record, *atom, format ? format->id : 0);
            break;
        }
        case VLValueKind::Characters: {
            const auto decoded
                = QByteArray::fromBase64Encoding(value.trimmed().toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
            VLSetAtomCount(record, *atom, 0);
            if (decoded && decoded.decoded.size() % 2 == 0) {
                for (qsizetype i = 0; i + 1 < decoded.decoded.size() && i / 2 < atom->slotCount; i += 2)
                    VLAppendAtomValue(record, *atom, quint8(decoded.decoded[i]) | quint8(decoded.decoded[i + 1]) << 8);
            }
            break;
        }
        case VLValueKind::Tab: {
            VLTabStop tab;
            tab.x = quint32(m_xml->integerAttributeForTag(QStringLiteral("x")));
            tab.align = quint32(m_xml->decodeAttribute(QStringLiteral("align"), VLWords(VLWordList::TabAlign)));
            tab.lead = quint32(m_xml->decodeAttribute(QStringLiteral("lead"), VLWords(VLWordList::TabLeader)));
            VLAppendAtomValue(record, *atom, qint32(VLPackTabStop(tab))); // at most 25: extra ones are ignored
            break;
        }
        case VLValueKind::Marker: {
            const int slot = VLAtomCount(record, *atom);
            if (slot < atom->slotCount) {
                const auto unit = [this](const QString &attribute) -> char16_t {
                    const auto bytes = QByteArray::fromBase64Encoding(
                        m_xml->stringAttributeForTag(attribute).toLatin1(), QByteArray::AbortOnBase64DecodingErrors);
                    if (!bytes || bytes.decoded.size() < 2)
                        return 0;
                    return char16_t(quint8(bytes.decoded[0]) | quint8(bytes.decoded[1]) << 8);
                };
                VLListMarker marker;
                marker.type = quint8(m_xml->decodeAttribute(QStringLiteral("type"), VLWords(VLWordList::MarkerType)));
                marker.nof = quint8(m_xml->decodeAttribute(QStringLiteral("nof"), VLWords(VLWordList::NumberFormat)));
                marker.prefix = unit(QStringLiteral("prefix"));
                marker.suffix = unit(QStringLiteral("suffix"));
                VLSetAtomMarker(record, *atom, slot, marker);
                VLSetAtomCount(record, *atom, slot + 1);
            }
            break;
        }
        }
        return skipElement() || failEnded("prop");
    });
}

bool VLHelpReader::readStyles()
{
    m_doc.m_styles->deleteAllEntries();
    return readChildren("styles", [this] {
        VLStyle style {};
        const QString name = m_xml->stringAttributeForTag(QStringLiteral("name"));
        style.type = quint32(m_xml->decodeAttribute(QStringLiteral("type"), VLWords(VLWordList::RecordType)));
        style.bin = m_xml->attributes().contains(QStringLiteral("bin"))
            ? quint8(m_xml->integerAttributeForTag(QStringLiteral("bin")))
            : 254;
        style.base = style.next = style.prop = style.charProp = -1;
        const bool read = readChildren("style", [this, &style] {
            const qint32 v = qint32(m_xml->integerValue());
            switch (m_xml->key()) {
            case kTagBase:
                style.base = v;
                break;
            case kTagChar:
                style.charProp = v;
                break;
            case kTagNext:
                style.next = v;
                break;
            case kTagProp:
                style.prop = v;
                break;
            default:
                break;
            }
            return skipElement() || failEnded("style");
        });
        if (!read)
            return false;
        if (m_doc.m_styles->addEntry(&style, &name) == KSNotFound)
            return fail(QString::fromUtf8(kVLTextMemoryMessage));
        return true;
    });
}

bool VLHelpReader::readRuns(KSArrayCP &runs, const char *section)
{
    runs.deleteAllEntries();
    runs.setMaxCp(qint32(m_doc.m_textLength));
    return readChildren(section, [this, &runs, section] {
        qint64 cp = 0, property = 0;
        if (!VLReadNumberPair(m_xml->value(), &cp, &property))
            return fail(QString(),
                QStringLiteral("%1: a run of <%2> is not a number pair: \"%3\"")
                    .arg(m_fileName, QLatin1String(section), m_xml->value()));
        const std::size_t count = runs.count();
        if (cp < 0 || cp > INT32_MAX - 1 || (count && runs.cpAtIndex(count - 1) > cp))
            return fail(QString(),
                QStringLiteral("%1: the runs of <%2> are out of order at cp %3")
                    .arg(m_fileName, QLatin1String(section))
                    .arg(cp));
        if (runs.maxCp() < cp)
            runs.setMaxCp(qint32(cp));
        const qint32 index = qint32(property);
        if (!runs.insertEntry(&index, count, qint32(cp)))
            return fail(QString::fromUtf8(kVLTextMemoryMessage));
        return skipElement() || failEnded(section);
    });
}

// --- text -------------------------------------------------------------------------------------------

bool VLHelpReader::storeText(QStringView text)
{
    if (quint64(text.size()) != m_doc.m_textLength)
        return fail(QString(),
            QStringLiteral("the text holds %1 characters where the structure says %2")
                .arg(text.size())
                .arg(m_doc.m_textLength));
    if (!m_doc.storeText(text))
        return fail(QString::fromUtf8(kVLTextMemoryMessage));
    m_textStored = true;
    return true;
}

bool VLHelpReader::readText()
{
    QString text;
    const bool read = readChildren("text", [this, &text] {
        switch (m_xml->key()) {
        case kTagRun:
            text += m_xml->value();
            break;
        case kTagK0:
            text += QChar(kKnotChar0);
            break;
        case kTagK1:
            text += QChar(kKnotChar1);
            break;
        default:
            break;
        }
        return skipElement() || failEnded("text");
    });
    return read && storeText(text);
}

// --- the two forms ---------------------------------------------------------------------------------

bool VLHelpReader::readPackage(const QString &path)
{
    m_imagesFolder = path + QStringLiteral("/Images");
    if (!openXml(path + QStringLiteral("/structure.xml"), QStringLiteral("structure.xml"))
        || !expectTag(kTagStructure, "structure") || !expectTag(kTagVer, "ver") || !checkVersion()
        || !readStructure(true))
        return false;
    if (!openXml(path + QStringLiteral("/format.xml"), QStringLiteral("format.xml")) || !expectTag(kTagFormat, "format")
        || !expectTag(kTagVer, "ver") || !checkVersion() || !readFormat(true))
        return false;

    m_fileName = QStringLiteral("document.txt");
    const QString textPath = path + QStringLiteral("/document.txt");
    QByteArray bytes;
    QString reason;
    if (const int code = ReadRegularFile(textPath, kMaxXmlFileSize, &bytes, &reason)) {
        if (code == ENOENT)
            return failDamaged(QStringLiteral("document.txt is missing"));
        return fail(
            code == EINVAL || code == EFBIG ? reason : _SystemReason(code), QStringLiteral("document.txt: ") + reason);
    }
    QStringDecoder toUtf16(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString text = toUtf16(bytes);
    if (toUtf16.hasError())
        return failDamaged(QStringLiteral("document.txt is not UTF-8 text"));
    return storeText(text) && finish();
}

bool VLHelpReader::readSingleFile(const QString &path)
{
    if (!openXml(path, LastPathComponent(path)) || !expectTag(kTagVelluma, "velluma"))
        return false;
    while (m_xml->getNextTag()) {
        if (!m_xml->startTag())
            continue;
        bool ok = true;
        switch (m_xml->key()) {
        case kTagFormat:
            ok = readFormat();
            break;
        case kTagImages:
            ok = readImages();
            break;
        case kTagStructure:
            ok = readStructure();
            break;
        case kTagVer:
            ok = checkVersion();
            break;
        case kTagText:
            ok = readText();
            break;
        default:
            break;
        }
        if (!ok)
            return false;
    }
    if (!m_xml->error().isEmpty())
        return fail(m_xml->error(), m_fileName + QStringLiteral(": ") + m_xml->error());
    if (!m_textStored && !storeText(QStringView()))
        return false;
    return finish();
}

// Every cp table within the text; then the document made ready to show as help.
bool VLHelpReader::finish()
{
    const qint32 length = qint32(m_doc.m_textLength);
    const auto within = [length](const KSArrayCP &table, bool knots) {
        const std::size_t count = table.count();
        return count == 0 || (knots ? table.cpAtIndex(count - 1) < length : table.cpAtIndex(count - 1) <= length);
    };
    if (!within(*m_doc.m_knots, true))
        return fail(QString(),
            QStringLiteral("a knot lies at cp %1, beyond the text's %2 characters")
                .arg(m_doc.m_knots->cpAtIndex(m_doc.m_knots->count() - 1))
                .arg(length));
    if (!within(*m_doc.m_charRuns, false) || !within(*m_doc.m_paraRuns, false))
        return fail(QString(), QStringLiteral("a run starts beyond the text's %1 characters").arg(length));
    for (KSArrayCP *table : {m_doc.m_knots.get(), m_doc.m_bookmarkStarts.get(), m_doc.m_chapterStarts.get(),
             m_doc.m_listStarts.get(), m_doc.m_tableStarts.get(), m_doc.m_charRuns.get(), m_doc.m_paraRuns.get()})
        table->setMaxCp(length);

    if (m_doc.m_flags & kDocHasUnknownKnots)
        m_doc.removeUnknownKnots();
    m_doc.finishAsHelp();
    if (!m_doc.identifyBookmarks() || !m_doc.rebuildStyleList())
        return fail(QString::fromUtf8(kVLTextMemoryMessage));
    return true;
}

// --- public ---------------------------------------------------------------------------------------------

bool VLIsHelpPackagePath(const QString &path)
{
    QString name = LastPathComponent(path);
    while (name.isEmpty() && path.endsWith(u'/') && path.size() > 1)
        name = LastPathComponent(QStringView(path).chopped(1));
    const QString extension = PathExtension(name);
    return IsFuzzyEqualToString(extension, u"TWwrite") || IsFuzzyEqualToString(extension, u"TWwrite_autosave");
}

bool VLReadHelpDocument(VLDocument &document, const QString &path, VLLoadFailure *failure)
{
    VLLoadFailure ignored;
    VLLoadFailure &out = failure ? *failure : ignored;
    out = {};
    if (!VLHelpEngineIsReady()) {
        out.reason = QString::fromUtf8(kVLEngineNotReadyMessage);
        return false;
    }
    VLHelpReader reader(document, out);
    return VLIsHelpPackagePath(path) ? reader.readPackage(path) : reader.readSingleFile(path);
}

std::unique_ptr<VLDocument> VLLoadHelpDocument(const QString &path, VLLoadFailure *failure)
{
    VLLoadFailure ignored;
    VLLoadFailure &out = failure ? *failure : ignored;
    std::unique_ptr<VLDocument> document = NewVellumaDoc(kVLHelpDocumentKind);
    if (!document) {
        out = {QString::fromUtf8(kVLTextMemoryMessage), {}};
    } else if (VLReadHelpDocument(*document, path, &out)) {
        return document;
    }
    LogString(kVLCantReadHelpFormat, out.reason);
    return nullptr;
}
