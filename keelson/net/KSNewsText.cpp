#include "keelson/net/KSNewsText.h"

#include "keelson/FormatString.h"
#include "keelson/KSStringKeelson.h"

#include <QRegularExpression>

#include <algorithm>

namespace {

bool _IsDigit(QChar c)
{
    return c >= u'0' && c <= u'9';
}

// Reads "M/D/YYYY" at `at`; the day index, or 0 when the line does not begin with a date.
int _DateAt(const QString &text, qsizetype at)
{
    int parts[3] = {0, 0, 0};
    qsizetype i = at;
    for (int part = 0; part < 3; ++part) {
        const qsizetype begin = i;
        while (i < text.size() && _IsDigit(text[i]) && i - begin < (part == 2 ? 4 : 2))
            parts[part] = parts[part] * 10 + (text[i++].unicode() - u'0');
        if (i == begin || (part == 2 && i - begin != 4))
            return 0;
        if (part < 2) {
            if (i >= text.size() || text[i] != u'/')
                return 0;
            ++i;
        }
    }
    if (i < text.size() && _IsDigit(text[i]))
        return 0; // a longer number is not a date
    const int month = parts[0], day = parts[1], year = parts[2];
    if (month < 1 || month > 12 || day < 1 || day > 31)
        return 0;
    return year * 10000 + month * 100 + day;
}

bool _IsBlockTag(QStringView name)
{
    static const char *const blocks[] = {"p", "div", "br", "li", "ul", "ol", "h1", "h2", "h3", "h4", "h5", "h6", "tr",
        "table", "hr", "pre", "blockquote", "dt", "dd", "dl", "section", "article", "header", "footer", "title"};
    for (const char *block : blocks) {
        if (name.compare(QLatin1String(block), Qt::CaseInsensitive) == 0)
            return true;
    }
    return false;
}

// Numeric entities first ("&#38;", "&#x26;"), then the named ones of the library.
QString _DecodeEntities(QString text)
{
    static const QRegularExpression numeric(QStringLiteral("&#([xX]?)([0-9a-fA-F]{1,6});"));
    QString out;
    qsizetype copied = 0;
    for (auto it = numeric.globalMatch(text); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        bool ok = false;
        const uint code = match.captured(2).toUInt(&ok, match.captured(1).isEmpty() ? 10 : 16);
        out += QStringView(text).mid(copied, match.capturedStart() - copied);
        if (ok && code > 0 && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF))
            out += QString::fromUcs4(reinterpret_cast<const char32_t *>(&code), 1);
        copied = match.capturedEnd();
    }
    out += QStringView(text).mid(copied);
    UnescapeForHtml(out);
    return out;
}

class _PageReader {
public:
    explicit _PageReader(const QString &page) : m_page(page) { }

    KSStyledText read()
    {
        qsizetype i = 0;
        const qsizetype size = m_page.size();
        while (i < size) {
            const qsizetype lt = m_page.indexOf(u'<', i);
            appendText(QStringView(m_page).mid(i, (lt < 0 ? size : lt) - i));
            if (lt < 0)
                break;
            i = readTag(lt);
        }
        return std::move(m_out);
    }

private:
    void appendText(QStringView raw)
    {
        if (raw.isEmpty() || m_skipping)
            return;
        const QString decoded = _DecodeEntities(raw.toString());
        for (const QChar c : decoded) {
            if (c.isSpace() && !m_preformatted) {
                m_pendingSpace = true;
                continue;
            }
            if (m_pendingSpace && !m_out.text.isEmpty() && !m_out.text.endsWith(u'\n'))
                m_out.text += u' ';
            m_pendingSpace = false;
            m_out.text += c;
        }
    }

    void lineBreak()
    {
        m_pendingSpace = false;
        if (!m_out.text.isEmpty() && !m_out.text.endsWith(u'\n'))
            m_out.text += u'\n';
    }

    // Reads the tag at `lt` and returns the index after it.
    qsizetype readTag(qsizetype lt)
    {
        if (QStringView(m_page).mid(lt, 4) == u"<!--") {
            const qsizetype end = m_page.indexOf(QStringLiteral("-->"), lt + 4);
            return end < 0 ? m_page.size() : end + 3;
        }
        const qsizetype gt = m_page.indexOf(u'>', lt);
        if (gt < 0)
            return m_page.size();
        QStringView tag = QStringView(m_page).mid(lt + 1, gt - lt - 1).trimmed();
        const bool closing = tag.startsWith(u'/');
        if (closing)
            tag = tag.mid(1);
        qsizetype nameEnd = 0;
        while (nameEnd < tag.size() && !tag[nameEnd].isSpace() && tag[nameEnd] != u'/')
            ++nameEnd;
        const QStringView name = tag.left(nameEnd);
        const auto is
            = [&name](const char *what) { return name.compare(QLatin1String(what), Qt::CaseInsensitive) == 0; };

        if (is("head") || is("script") || is("style")) {
            m_skipping = !closing;
        } else if (is("a")) {
            if (!closing) {
                static const QRegularExpression href(QStringLiteral("href\\s*=\\s*(\"([^\"]*)\"|'([^']*)'|([^\\s>]+))"),
                    QRegularExpression::CaseInsensitiveOption);
                const QRegularExpressionMatch match = href.match(tag);
                m_linkStart = m_out.text.size() + (m_pendingSpace && !m_out.text.endsWith(u'\n') ? 1 : 0);
                m_linkHref = match.hasMatch()
                    ? _DecodeEntities(match.captured(2) + match.captured(3) + match.captured(4))
                    : QString();
            } else if (m_linkStart >= 0) {
                if (!m_linkHref.isEmpty() && m_out.text.size() > m_linkStart)
                    m_out.links.append({m_linkStart, m_out.text.size() - m_linkStart, m_linkHref});
                m_linkStart = -1;
            }
        } else if (_IsBlockTag(name)) {
            if (is("pre"))
                m_preformatted = !closing;
            lineBreak();
        }
        return gt + 1;
    }

    const QString &m_page;
    KSStyledText m_out;
    bool m_pendingSpace = false;
    bool m_skipping = false;
    bool m_preformatted = false;
    qsizetype m_linkStart = -1;
    QString m_linkHref;
};

void _TrimTrailingWhiteSpace(KSStyledText &news)
{
    qsizetype end = news.text.size();
    while (end > 0 && news.text[end - 1].isSpace())
        --end;
    news.remove(end, news.text.size());
}

} // namespace

void KSStyledText::remove(qsizetype from, qsizetype to)
{
    from = std::clamp<qsizetype>(from, 0, text.size());
    to = std::clamp<qsizetype>(to, from, text.size());
    if (from == to)
        return;
    const qsizetype cut = to - from;
    text.remove(from, cut);
    QList<Link> kept;
    for (Link link : std::as_const(links)) {
        qsizetype start = link.start, end = link.start + link.length;
        start = start >= to ? start - cut : std::min(start, from);
        end = end >= to ? end - cut : std::min(end, from);
        if (end > start)
            kept.append({start, end - start, link.href});
    }
    links = kept;
}

KSStyledText StyledTextFromPage(const QString &page)
{
    static const QRegularExpression tag(QStringLiteral("<[A-Za-z!/][^>]*>"));
    if (!page.contains(tag))
        return {page, {}};
    return _PageReader(page).read();
}

qsizetype FindNextNewsItem(const QString &text, qsizetype startIndex, int *date)
{
    qsizetype line = std::max<qsizetype>(startIndex, 0);
    if (line > 0 && text[line - 1] != u'\n') {
        line = text.indexOf(u'\n', line);
        line = line < 0 ? -1 : line + 1;
    }
    while (line >= 0 && line < text.size()) {
        const int found = _DateAt(text, line);
        if (found) {
            if (date)
                *date = found;
            return line;
        }
        line = text.indexOf(u'\n', line);
        line = line < 0 ? -1 : line + 1;
    }
    return -1;
}

bool HandleNewsText(KSStyledText &news, int previousDate, int *latestDate)
{
    int newest = 0;
    const qsizetype first = FindNextNewsItem(news.text, 0, &newest);
    if (first < 0)
        return false;
    news.remove(0, first);
    if (latestDate)
        *latestDate = newest;

    bool cutByDate = false;
    if (previousDate > 0 && newest > previousDate) {
        int date = newest;
        qsizetype item = 0;
        while ((item = FindNextNewsItem(news.text, item + 1, &date)) >= 0) {
            if (date <= previousDate) {
                news.remove(item, news.text.size());
                cutByDate = true;
                break;
            }
        }
    }
    if (!cutByDate) {
        const qsizetype closing = news.text.lastIndexOf(QStringLiteral("news\n"));
        if (closing >= 0)
            news.remove(news.text.lastIndexOf(u'\n', closing) + 1, news.text.size());
    }
    _TrimTrailingWhiteSpace(news);
    news.links.clear(); // the text keeps no link, underline or colour of its own
    return true;
}

QString NewsDateText(int dayIndex)
{
    static const char *const months[] = {"January", "February", "March", "April", "May", "June", "July", "August",
        "September", "October", "November", "December"};
    const int month = (dayIndex / 100) % 100;
    const QString name = month >= 1 && month <= 12 ? QString::fromLatin1(months[month - 1]) : QString();
    return FormatString("%@ %d, %d", name, dayIndex % 100, dayIndex / 10000);
}
