// The library's pull reader for XML text. It walks a document held in memory as one string and
// hands back one tag at a time with its attributes and the text that follows it, mapping every
// tag name to a number through a key map so that callers switch on numbers. It is not a general
// XML parser: it accepts exactly what the help files and small SVG images need, and some of its
// answers (noted below) are odd on purpose because documents written for it rely on them.
//
// Typical use:
//     auto decoder = KSXmlDecoder::initWithFile(path, &error);
//     while (decoder->getNextTag()) switch (decoder->key()) { ... default: decoder->skipTag(); }
//     if (!decoder->error().isEmpty()) ...
//
// Threads: a decoder is used by one thread at a time. The class-wide key map is filled at
// start-up (addDecoderKey) before any decoder runs, and only read afterwards, without a lock.
#pragma once

#include <QHash>
#include <QString>
#include <QStringList>
#include <QStringView>

#include <memory>
#include <optional>
#include <span>

// Why initWithFile refused a file: the system's error (errno) when it could not be read, or
// code 0 in the OS-status domain with the reason "I don't understand the file format".
struct KSXmlFileError {
    enum Domain { NoDomain, PosixDomain, OSStatusDomain };
    Domain domain = NoDomain;
    int code = 0;
    QString reason;
    bool isNull() const { return domain == NoDomain; }
};

// The largest file initWithFile reads.
inline constexpr qint64 kMaxXmlFileSize = qint64(64) << 20;

class KSXmlDecoder {
public:
    using KeyMap = QHash<QString, quint32>;
    using Attributes = QHash<QString, QString>;

    // The key of a run of text read while coalesceMixedContent joins mixed content.
    static constexpr quint32 kMixedTextKey = 55555;

    // Where skipTag started, for unskipTag.
    struct SkipState {
        qsizetype index = 0;
        qsizetype level = 0;
    };

    // Creation answers null when the text is not acceptable: after leading comments,
    // declarations and white space it must begin with "<?xml" or "<svg".
    static std::unique_ptr<KSXmlDecoder> initWithString(const QString &text);
    static std::unique_ptr<KSXmlDecoder> initWithStringOrData(const QString &text);
    // Data must be valid UTF-8 (a byte-order mark is dropped).
    static std::unique_ptr<KSXmlDecoder> initWithStringOrData(const QByteArray &data);
    // Reads the file as UTF-8. `error`, when given, receives the system's error if the file
    // cannot be read, or (only when it is still null) the format refusal.
    static std::unique_ptr<KSXmlDecoder> initWithFile(const QString &path, KSXmlFileError *error);

    KSXmlDecoder(const KSXmlDecoder &) = delete;
    KSXmlDecoder &operator=(const KSXmlDecoder &) = delete;

    // The class-wide map from tag name to tag number, used by decoders without their own.
    static void addDecoderKey(quint32 key, const QString &tag);
    static KeyMap classKeyDecoder();
    static void setClassKeyDecoder(const KeyMap &map);
    // Older callers switch unknown values on; it has no effect.
    static void allowUnknownValues(bool allow);

    // Character and entity references decoded: "&#x41;", "&#65;" and "&#65 " give "A", values
    // keep their low 16 bits, a reference running to the end of the text loses only its
    // prefix, then the named entities as UnescapeForHtml does.
    static QString decodeEscapes(const QString &s);
    // Index of the first entry of `values` equal to `string` ignoring case; 0 when the string is
    // empty, the table is empty or nothing matches (tables put their default first).
    static int decodeValue(QStringView string, std::span<const QStringView> values);
    // The platform's integer reading of a text: leading white space, an optional sign, decimal
    // digits up to the first other unit; saturates on overflow; 0 when there are no digits.
    static qint64 integerReading(QStringView s);

    // Advances to the next tag; false at the end of the document or on an error.
    bool getNextTag();
    bool isDone() const { return m_charIndex >= m_length || !m_error.isEmpty(); }
    void forceDone() { m_charIndex = m_length; }

    // Skips the rest of the current element by jumping to the LAST "</name>" of the document
    // (correct for names that occur once, which are the only ones callers skip) and consuming it;
    // without one the reader is done. Answers where it started.
    SkipState skipTag();
    void unskipTag(const SkipState &state);
    // Jumps behind the next literal "<name>" and makes it the current tag, with the level set to 2
    // whatever the real depth.
    bool skipToTag(const QString &name);
    // The next tag's name, reading it without consuming it: the reader's position and current
    // tag are restored. Null when there is none.
    QString followingTagWithAttributes(Attributes *attributes, QString *value);
    // The raw text of the current element, from its "<" to the ">" of the next "</name>", which
    // is consumed. Null for a closing tag or when there is no closing tag.
    QString extractTag();
    // Joins the current element's text and the text of the elements inside it into `value`, with
    // a space between pieces unless one side has white space there ("Hello world !").
    void coalesceMixedContent();

    bool tagHasAttributes() const { return !m_attributes.isEmpty(); }
    QString stringAttributeForTag(const QString &name) const { return m_attributes.value(name); }
    qint64 integerAttributeForTag(const QString &name) const;
    qint64 integerValue() const;
    qint64 longValue() const { return integerValue(); }
    // The key map's number for the text in `value`; 0 when not found.
    quint32 decodeValue() const;
    int decodeValueFromValues(std::span<const QStringView> values) const { return decodeValue(m_value, values); }
    int decodeAttribute(const QString &name, std::span<const QStringView> values) const;

    // The instance's own key map; without one the class-wide map is used.
    const std::optional<KeyMap> &keyDecoder() const { return m_keyDecoder; }
    void setKeyDecoder(std::optional<KeyMap> map);
    qsizetype level() const { return m_level; }
    const QString &error() const { return m_error; }
    void setError(const QString &error) { m_error = error; }
    const QString &xmlTag() const { return m_xmlTag; }
    quint32 key() const { return m_key; }
    const Attributes &attributes() const { return m_attributes; }
    // SVG only: name, value, name, value... in document order; empty for other documents.
    const QStringList &orderedAttributes() const { return m_orderedAttributes; }
    // Decoded text after the current start tag; null when there is none.
    const QString &value() const { return m_value; }
    bool startTag() const { return m_startTag; }
    bool endTag() const { return m_endTag; }
    bool allowNumericTags() const { return m_allowNumericTags; }
    void setAllowNumericTags(bool allow) { m_allowNumericTags = allow; }
    bool allowSpaceInAttr() const { return m_allowSpaceInAttr; }
    void setAllowSpaceInAttr(bool allow) { m_allowSpaceInAttr = allow; }

private:
    explicit KSXmlDecoder(QString text);

    char16_t unitAt(qsizetype i) const { return i >= 0 && i < m_xml.size() ? m_xml[i].unicode() : u'\0'; }
    const KeyMap &activeKeyMap() const;
    void lookUpName(qsizetype start, qsizetype end, QString *name, quint32 *key);
    bool identifyNextTag(bool peek);
    bool readValue();
    bool readAttributes();
    bool fail();
    qsizetype lastClosingTag(const QString &name);

    std::optional<KeyMap> m_keyDecoder;
    QString m_xml;
    qsizetype m_length = 0;
    qsizetype m_charIndex = 0;
    qsizetype m_tagStartIndex = 0;
    qsizetype m_level = 0;
    QString m_error;
    QString m_xmlTag;
    quint32 m_key = 0;
    Attributes m_attributes;
    QStringList m_orderedAttributes;
    QString m_value;
    bool m_startTag = false;
    bool m_endTag = false;
    bool m_haveRoot = false;
    bool m_svg = false;
    bool m_coalescing = false;
    bool m_textRun = false;
    bool m_allowNumericTags = false;
    bool m_allowSpaceInAttr = false;
    // Names not in the key map, kept so that repeated names share one string.
    QHash<QString, quint32> m_unknownNames;
    // skipTag's answers: for each name, where its last "</name>" starts (built on first use).
    std::optional<QHash<QString, qsizetype>> m_lastClosingTags;
};
