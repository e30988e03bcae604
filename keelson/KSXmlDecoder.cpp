#include "keelson/KSXmlDecoder.h"

#include "keelson/FormatString.h"
#include "keelson/KSFileReader.h"
#include "keelson/KSStringKeelson.h"
#include "keelson/KSStrings.h"

#include <QSet>
#include <QStringDecoder>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// SkipXmlComments' answers.
constexpr int kSkipSyntaxError = 0;
constexpr int kSkipAtTag = 1;
constexpr int kSkipAtText = 23;

KSXmlDecoder::KeyMap &_ClassKeyMap()
{
    static KSXmlDecoder::KeyMap map;
    return map;
}

bool _IsSpace(char16_t c)
{
    return TypeOfChar(c) == kCharSpace;
}

bool _IsLetter(char16_t c)
{
    const int type = TypeOfChar(c);
    return type == kCharUpper || type == kCharLower;
}

bool _IsDigit(char16_t c)
{
    return TypeOfChar(c) == kCharDigit;
}

// Units of an attribute name (unless spaces in names are allowed).
bool _IsAttributeNameUnit(char16_t c)
{
    const int type = TypeOfChar(c);
    return (type >= kCharUpper && type <= kCharDigit) || c == u'-' || c == u':' || c == u'_';
}

// Every unit a tag name may hold.
bool _IsNameUnit(char16_t c)
{
    const int type = TypeOfChar(c);
    return (type >= kCharUpper && type <= kCharDigit) || c == u'_' || c == u':' || c == u'-' || c == u'.';
}

// Moves `position` over white space, entities, comments and declarations (a document type, or a
// CDATA block outside any element). Answers kSkipAtTag when it rests on a "<" that starts a tag or
// at the end of the text, kSkipAtText when it rests on text (only while coalescing), else
// kSkipSyntaxError.
int SkipXmlComments(QStringView text, qsizetype &position, bool coalescing)
{
    const int atText = coalescing ? kSkipAtText : kSkipSyntaxError;
    const qsizetype size = text.size();
    qsizetype i = position;
    int result = kSkipAtTag;
    while (i < size) {
        const char16_t c = text[i].unicode();
        if (_IsSpace(c)) {
            ++i;
        } else if (c == u'&') {
            const char16_t next = i + 1 < size ? text[i + 1].unicode() : u'\0';
            if (next == u'<' || _IsSpace(next)) {
                result = atText;
                break;
            }
            const qsizetype semicolon = text.indexOf(u';', i + 1);
            i = semicolon < 0 ? size : semicolon + 1;
        } else if (c == u'<') {
            if (i + 6 >= size || text[i + 1] != u'!')
                break;
            if (text[i + 2] == u'-' && text[i + 3] == u'-') {
                const qsizetype close = text.indexOf(u"-->", i + 4);
                if (close < 0) {
                    result = kSkipSyntaxError;
                    break;
                }
                i = close + 3;
            } else {
                qsizetype depth = 0;
                qsizetype j = i;
                for (; j < size; ++j) {
                    if (text[j] == u'<')
                        ++depth;
                    else if (text[j] == u'>' && --depth == 0)
                        break;
                }
                i = j < size ? j + 1 : size;
            }
        } else {
            result = atText;
            break;
        }
    }
    position = i;
    return result;
}

// One left-to-right pass over the references that begin with `prefix`. A reference runs to the
// first " " or ";" and becomes one UTF-16 unit (the low 16 bits of its value); one without a
// terminator loses only its prefix. The search goes on one unit after the replaced place, so a
// unit produced here never starts another reference in the same pass. Linear: all references
// after the last terminator are unterminated, which is known without scanning them.
void _DecodeReferences(QString &s, QStringView prefix, bool hex)
{
    qsizetype at = s.indexOf(prefix);
    if (at < 0)
        return;
    const QStringView in(s);
    const qsizetype size = in.size();
    qsizetype lastTerminator = size - 1;
    while (lastTerminator >= 0 && in[lastTerminator] != u' ' && in[lastTerminator] != u';')
        --lastTerminator;

    QString out;
    out.reserve(size);
    qsizetype copied = 0;
    while (at >= 0) {
        out.append(in.sliced(copied, at - copied));
        const qsizetype digits = at + prefix.size();
        qsizetype next;
        if (digits > lastTerminator) {
            copied = digits;
            next = digits + 1;
        } else {
            quint32 value = 0;
            qsizetype j = digits;
            for (; in[j] != u' ' && in[j] != u';'; ++j) {
                const quint32 c = in[j].unicode();
                quint32 digit;
                if (!hex)
                    digit = c - 48;
                else if (c >= u'0' && c <= u'9')
                    digit = c - u'0';
                else if (c >= u'a' && c <= u'f')
                    digit = c - u'a' + 10;
                else
                    digit = c - 55;
                value = (value * (hex ? 16 : 10) + digit) & 0xFFFF;
            }
            out.append(QChar(char16_t(value)));
            copied = j + 1;
            next = j + 1;
        }
        at = next < size ? in.indexOf(prefix, next) : -1;
    }
    out.append(in.sliced(copied));
    s = out;
}

// The platform's integer reading: leading white space, an optional sign, then decimal digits up
// to the first other unit; saturates on overflow; 0 when there are no digits.
qint64 _IntegerReading(QStringView s)
{
    qsizetype i = 0;
    while (i < s.size() && _IsSpace(s[i].unicode()))
        ++i;
    bool negative = false;
    if (i < s.size() && (s[i] == u'-' || s[i] == u'+'))
        negative = s[i++] == u'-';
    quint64 magnitude = 0;
    const quint64 limit
        = negative ? quint64(std::numeric_limits<qint64>::max()) + 1 : quint64(std::numeric_limits<qint64>::max());
    for (; i < s.size() && s[i] >= u'0' && s[i] <= u'9'; ++i) {
        magnitude = magnitude * 10 + (s[i].unicode() - u'0');
        if (magnitude >= limit) {
            magnitude = limit;
            break;
        }
    }
    if (negative)
        return magnitude == limit ? std::numeric_limits<qint64>::min() : -qint64(magnitude);
    return qint64(magnitude);
}

} // namespace

KSXmlDecoder::KSXmlDecoder(QString text) : m_xml(std::move(text))
{
}

std::unique_ptr<KSXmlDecoder> KSXmlDecoder::initWithString(const QString &text)
{
    qsizetype start = 0;
    if (SkipXmlComments(text, start, false) != kSkipAtTag || start >= text.size())
        return nullptr;
    std::unique_ptr<KSXmlDecoder> decoder(new KSXmlDecoder(start ? text.sliced(start) : text));
    if (decoder->m_xml.startsWith(u"<?xml"))
        return decoder;
    if (!decoder->m_xml.startsWith(u"<svg"))
        return nullptr;
    decoder->m_xmlTag = QStringLiteral("svg");
    decoder->m_svg = true;
    return decoder;
}

std::unique_ptr<KSXmlDecoder> KSXmlDecoder::initWithStringOrData(const QString &text)
{
    return initWithString(text);
}

std::unique_ptr<KSXmlDecoder> KSXmlDecoder::initWithStringOrData(const QByteArray &data)
{
    QStringDecoder toUtf16(QStringDecoder::Utf8);
    const QString text = toUtf16(data);
    if (toUtf16.hasError())
        return nullptr;
    return initWithString(text);
}

std::unique_ptr<KSXmlDecoder> KSXmlDecoder::initWithFile(const QString &path, KSXmlFileError *error)
{
    // Documents of the help engine and pictures: 64 MiB is far more than any of them.
    QByteArray contents;
    QString reason;
    if (const int code = ReadRegularFile(path, kMaxXmlFileSize, &contents, &reason)) {
        if (error)
            *error = {KSXmlFileError::PosixDomain, code, reason};
        return nullptr;
    }
    std::unique_ptr<KSXmlDecoder> decoder = initWithStringOrData(contents);
    if (!decoder && error && error->isNull())
        *error = {KSXmlFileError::OSStatusDomain, 0, QStringLiteral("I don't understand the file format")};
    return decoder;
}

void KSXmlDecoder::addDecoderKey(quint32 key, const QString &tag)
{
    _ClassKeyMap().insert(tag, key);
}

KSXmlDecoder::KeyMap KSXmlDecoder::classKeyDecoder()
{
    return _ClassKeyMap();
}

void KSXmlDecoder::setClassKeyDecoder(const KeyMap &map)
{
    _ClassKeyMap() = map;
}

void KSXmlDecoder::allowUnknownValues(bool allow)
{
    Q_UNUSED(allow);
}

void KSXmlDecoder::setKeyDecoder(std::optional<KeyMap> map)
{
    m_keyDecoder = std::move(map);
}

const KSXmlDecoder::KeyMap &KSXmlDecoder::activeKeyMap() const
{
    return m_keyDecoder ? *m_keyDecoder : _ClassKeyMap();
}

QString KSXmlDecoder::decodeEscapes(const QString &s)
{
    if (s.isEmpty() || !s.contains(u'&'))
        return s;
    QString decoded = s;
    _DecodeReferences(decoded, u"&#x", true);
    _DecodeReferences(decoded, u"&#", false);
    UnescapeForHtml(decoded);
    return decoded;
}

int KSXmlDecoder::decodeValue(QStringView string, std::span<const QStringView> values)
{
    if (string.isEmpty())
        return 0;
    for (size_t i = 0; i < values.size(); ++i) {
        if (IsFuzzyEqualToString(string, values[i]))
            return int(i);
    }
    return 0;
}

bool KSXmlDecoder::fail()
{
    if (m_error.isEmpty())
        m_error = FormatString("this is not a valid XML file (offset 0x%x)", quint32(m_charIndex));
    return false;
}

// Sets the name and key for the text between start and end without copying names that were seen
// before: known names share the key map's string, unknown ones a per-decoder one.
void KSXmlDecoder::lookUpName(qsizetype start, qsizetype end, QString *name, quint32 *key)
{
    const QString probe = QString::fromRawData(m_xml.constData() + start, end - start);
    const KeyMap &map = activeKeyMap();
    const auto known = map.constFind(probe);
    if (known != map.cend()) {
        *name = known.key();
        *key = known.value();
        return;
    }
    auto unknown = m_unknownNames.constFind(probe);
    if (unknown == m_unknownNames.cend())
        unknown = m_unknownNames.insert(QString(probe.constData(), probe.size()), 0);
    *name = unknown.key();
    *key = 0;
}

bool KSXmlDecoder::identifyNextTag(bool peek)
{
    qsizetype position = m_charIndex;
    const int found = SkipXmlComments(m_xml, position, m_coalescing);
    if (found == kSkipSyntaxError)
        return false;
    if (found == kSkipAtText) {
        if (!peek) {
            m_charIndex = position;
            m_xmlTag = QStringLiteral("?");
            m_key = kMixedTextKey;
            m_startTag = true;
            m_endTag = false;
            m_textRun = true;
        }
        return true;
    }

    const qsizetype size = m_xml.size();
    qsizetype i = position + 1;
    const bool closing = unitAt(i) == u'/';
    if (closing)
        ++i;
    const qsizetype nameStart = i;
    if (i < size) {
        const char16_t first = m_xml[i].unicode();
        if (_IsLetter(first) || first == u'_' || first == u':' || (m_allowNumericTags && _IsDigit(first))) {
            ++i;
            while (i < size && _IsNameUnit(m_xml[i].unicode()))
                ++i;
        }
    }
    if (i == nameStart || i >= size)
        return false;

    if (peek) {
        if (!closing)
            return true;
        quint32 key = m_key;
        if (QStringView(m_xml).sliced(nameStart, i - nameStart) != m_xmlTag) {
            QString name;
            lookUpName(nameStart, i, &name, &key);
        }
        if (key == m_key) {
            m_charIndex = i + 1;
            m_endTag = true;
        }
        return true;
    }
    lookUpName(nameStart, i, &m_xmlTag, &m_key);
    m_charIndex = i;
    m_startTag = !closing;
    m_endTag = closing;
    m_textRun = false;
    return true;
}

bool KSXmlDecoder::getNextTag()
{
    if (!m_error.isEmpty())
        return false;
    if (m_charIndex == 0) {
        m_length = m_xml.size() - 1;
        if (!m_svg) {
            const qsizetype declarationEnd = m_xml.indexOf(u"?>");
            if (declarationEnd < 0)
                return fail();
            m_charIndex = declarationEnd + 2;
        }
    } else if (m_charIndex >= m_length) {
        return false;
    }

    m_tagStartIndex = m_charIndex;
    if (!identifyNextTag(false))
        return fail();
    m_value = QString();
    m_attributes.clear();
    m_orderedAttributes.clear();
    if (m_textRun) {
        readValue();
        return true;
    }
    if (!m_haveRoot) {
        m_haveRoot = true;
        if (!m_svg && m_xmlTag == u"svg")
            m_svg = true;
    }
    if (m_charIndex >= m_length) {
        if (m_endTag)
            --m_level;
        return true;
    }
    if (m_endTag) {
        ++m_charIndex; // over the ">" of a closing tag
        --m_level;
        return true;
    }

    while (m_charIndex < m_length && _IsSpace(m_xml[m_charIndex].unicode()))
        ++m_charIndex;
    if (m_charIndex >= m_length)
        return fail();
    const char16_t c = m_xml[m_charIndex].unicode();
    if (c == u'/') {
        if (unitAt(m_charIndex + 1) != u'>')
            return fail();
        m_charIndex += 2;
        m_endTag = true;
        return true;
    }
    if (c == u'>') {
        ++m_charIndex;
    } else if (_IsLetter(c)) {
        if (!readAttributes())
            return fail();
        if (m_endTag)
            return true;
    } else {
        return fail();
    }
    if (!readValue())
        return fail();
    if (!m_endTag)
        ++m_level;
    return true;
}

// Reads the text after an opening tag (or a text run) up to the next tag, and consumes the
// element's closing tag when it follows directly.
bool KSXmlDecoder::readValue()
{
    const QChar *data = m_xml.constData();
    qsizetype start = m_charIndex;
    while (m_charIndex < m_length && _IsSpace(data[m_charIndex].unicode()))
        ++m_charIndex;
    if (m_charIndex >= m_length)
        return false;
    const qsizetype afterBlank = m_charIndex;
    bool firstRun = true;
    bool blankSuppressed = false;
    for (;;) {
        const qsizetype lt
            = m_charIndex < m_length ? QStringView(data + m_charIndex, m_length - m_charIndex).indexOf(u'<') : -1;
        if (lt < 0) {
            m_charIndex = std::max(m_charIndex, m_length);
            return false;
        }
        m_charIndex += lt;
        if (m_svg && firstRun && m_charIndex == afterBlank) {
            blankSuppressed = true; // an SVG element's indentation is not its text
        } else if (m_charIndex > start) {
            const QString text = decodeEscapes(m_xml.sliced(start, m_charIndex - start));
            m_value = m_value.isNull() ? text : m_value + text;
        }
        firstRun = false;
        if (m_charIndex + 12 < m_length && QStringView(data + m_charIndex, 9) == u"<![CDATA[") {
            const qsizetype close = m_xml.indexOf(u"]]>", m_charIndex + 9);
            if (close < 0) {
                if (m_error.isEmpty())
                    m_error = FormatString("malformed CDATA at offset 0x%x", quint32(m_charIndex));
                return false;
            }
            // Text before the section doubles and the section is dropped: documents rely on it.
            m_value = m_value.isEmpty() ? m_xml.sliced(m_charIndex + 9, close - m_charIndex - 9) : m_value + m_value;
            m_charIndex = close + 3;
            start = m_charIndex;
            continue;
        }
        break;
    }
    identifyNextTag(true);
    if (!m_endTag && blankSuppressed)
        m_value = QString();
    return true;
}

bool KSXmlDecoder::readAttributes()
{
    const qsizetype size = m_xml.size();
    for (;;) {
        while (m_charIndex < m_length && _IsSpace(m_xml[m_charIndex].unicode()))
            ++m_charIndex;
        if (m_charIndex >= m_length)
            return false;
        const qsizetype nameStart = m_charIndex;
        if (m_allowSpaceInAttr) {
            while (m_charIndex < size && m_xml[m_charIndex] != u'/' && m_xml[m_charIndex] != u'='
                && m_xml[m_charIndex] != u'>')
                ++m_charIndex;
        } else {
            while (m_charIndex < size && _IsAttributeNameUnit(m_xml[m_charIndex].unicode()))
                ++m_charIndex;
        }
        const qsizetype nameEnd = m_charIndex;
        if (nameEnd == nameStart)
            break;
        if (unitAt(m_charIndex) != u'=' || m_charIndex >= m_length - 4)
            return false;
        const char16_t quote = m_xml[++m_charIndex].unicode();
        if (quote != u'"' && quote != u'\'')
            return false;
        const qsizetype valueStart = m_charIndex + 1;
        const qsizetype close = m_xml.indexOf(QChar(quote), valueStart);
        if (close < 0)
            return false;
        m_charIndex = close;
        if (m_charIndex >= m_length)
            return false;
        ++m_charIndex;
        const QString name = m_xml.sliced(nameStart, nameEnd - nameStart);
        const QString value = decodeEscapes(m_xml.sliced(valueStart, close - valueStart));
        m_attributes.insert(name, value);
        if (m_svg)
            m_orderedAttributes << name << value;
    }
    const char16_t c = unitAt(m_charIndex);
    if (c == u'/' && unitAt(m_charIndex + 1) == u'>') {
        m_endTag = true;
        m_charIndex += 2;
    } else if (c == u'>') {
        ++m_charIndex;
    } else {
        return false;
    }
    m_value = QString();
    return true;
}

// Where the last "</name>" lying wholly before `m_length` starts, if that is at or after the
// position; else -1. Names that a tag can have are answered from an index of the document's
// closing tags built once, so that skipping stays linear in the size of the document.
qsizetype KSXmlDecoder::lastClosingTag(const QString &name)
{
    if (m_charIndex >= m_length)
        return -1;
    const QStringView text = QStringView(m_xml).first(m_length);
    if (name.isEmpty() || !std::all_of(name.cbegin(), name.cend(), [](QChar c) { return _IsNameUnit(c.unicode()); })) {
        const qsizetype found = text.sliced(m_charIndex).lastIndexOf(QString(QStringLiteral("</") + name + u'>'));
        return found < 0 ? -1 : m_charIndex + found;
    }
    if (!m_lastClosingTags) {
        QHash<QString, qsizetype> index;
        for (qsizetype p = text.indexOf(u"</"); p >= 0; p = text.indexOf(u"</", p + 2)) {
            qsizetype q = p + 2;
            while (q < text.size() && _IsNameUnit(text[q].unicode()))
                ++q;
            if (q == p + 2 || q >= text.size() || text[q] != u'>')
                continue;
            const QString probe = QString::fromRawData(m_xml.constData() + p + 2, q - p - 2);
            const auto seen = index.find(probe);
            if (seen != index.end())
                *seen = p;
            else
                index.insert(QString(probe.constData(), probe.size()), p);
        }
        m_lastClosingTags = std::move(index);
    }
    const qsizetype found = m_lastClosingTags->value(name, -1);
    return found >= m_charIndex ? found : -1;
}

KSXmlDecoder::SkipState KSXmlDecoder::skipTag()
{
    const SkipState state {m_charIndex, m_level};
    const qsizetype found = lastClosingTag(m_xmlTag);
    if (found >= 0) {
        m_charIndex = found;
        getNextTag();
    } else {
        m_charIndex = m_length;
    }
    return state;
}

void KSXmlDecoder::unskipTag(const SkipState &state)
{
    m_charIndex = std::clamp(state.index, qsizetype(0), m_xml.size());
    m_level = state.level;
}

bool KSXmlDecoder::skipToTag(const QString &name)
{
    const QString opening = u'<' + name + u'>';
    const qsizetype from = m_charIndex + 1;
    const qsizetype found = from < m_xml.size() ? m_xml.indexOf(opening, from) : -1;
    if (found < 0)
        return false;
    m_charIndex = found + opening.size();
    m_level = 2; // callers count from here, whatever the real depth
    m_xmlTag = name;
    m_key = activeKeyMap().value(name, 0);
    m_value = QString();
    m_endTag = false;
    m_attributes.clear();
    return true;
}

QString KSXmlDecoder::followingTagWithAttributes(Attributes *attributes, QString *value)
{
    const QString savedTag = m_xmlTag;
    const Attributes savedAttributes = m_attributes;
    const QString savedValue = m_value;
    const quint32 savedKey = m_key;
    const bool savedEndTag = m_endTag;
    const qsizetype savedIndex = m_charIndex;
    const qsizetype savedLevel = m_level;
    QString name;
    if (getNextTag()) {
        name = m_xmlTag;
        if (attributes)
            *attributes = m_attributes;
        if (value)
            *value = m_value;
    }
    m_xmlTag = savedTag;
    m_attributes = savedAttributes;
    m_value = savedValue;
    m_key = savedKey;
    m_endTag = savedEndTag;
    m_charIndex = savedIndex;
    m_level = savedLevel;
    return name;
}

QString KSXmlDecoder::extractTag()
{
    if (!m_startTag)
        return {};
    const QString closing = QStringLiteral("</") + m_xmlTag + u'>';
    const qsizetype found = m_charIndex < m_xml.size() ? m_xml.indexOf(closing, m_charIndex) : -1;
    if (found < 0)
        return {};
    m_charIndex = found + closing.size();
    --m_level;
    const qsizetype start = std::clamp(m_tagStartIndex, qsizetype(0), m_charIndex);
    return m_xml.sliced(start, m_charIndex - start);
}

void KSXmlDecoder::coalesceMixedContent()
{
    if (!m_startTag)
        return;
    QString text = m_value.isNull() ? QStringLiteral("") : m_value;
    const quint32 savedKey = m_key;
    const Attributes savedAttributes = m_attributes;
    const QStringList savedOrderedAttributes = m_orderedAttributes;
    const qsizetype startLevel = m_level;
    m_coalescing = true;
    while (getNextTag() && m_level >= startLevel) {
        if (m_value.isEmpty())
            continue;
        if (!text.isEmpty() && !_IsSpace(text.back().unicode()) && !_IsSpace(m_value.front().unicode()))
            text += u' ';
        text += m_value;
    }
    m_coalescing = false;
    m_key = savedKey;
    m_attributes = savedAttributes;
    m_orderedAttributes = savedOrderedAttributes;
    m_startTag = true;
    m_endTag = true;
    m_value = text;
}

qint64 KSXmlDecoder::integerAttributeForTag(const QString &name) const
{
    return _IntegerReading(m_attributes.value(name));
}

qint64 KSXmlDecoder::integerReading(QStringView s)
{
    return _IntegerReading(s);
}

qint64 KSXmlDecoder::integerValue() const
{
    return _IntegerReading(m_value);
}

quint32 KSXmlDecoder::decodeValue() const
{
    return m_value.isNull() ? 0 : activeKeyMap().value(m_value, 0);
}

int KSXmlDecoder::decodeAttribute(const QString &name, std::span<const QStringView> values) const
{
    return decodeValue(m_attributes.value(name), values);
}
