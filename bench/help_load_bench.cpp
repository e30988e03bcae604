// Generates a help document of about 5 MB of text with realistic formatting (chapters at three
// outline levels, paragraphs in several styles, bold, italic and link runs every few words, links,
// bookmarks and pictures) in both forms, a package and a single file, and an equivalent HTML
// rendering. Times loading each form (files read included) against Qt's own import of the HTML
// (the file read and QTextDocument::setHtml), and measures the resident memory each loaded
// document adds. Prints a Markdown table.
// Usage: help_load_bench [megabytes of text] [rounds]   (defaults 5 and 5)
#include "help/VLHelpEngine.h"
#include "help/VLHelpReader.h"

#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QTemporaryDir>
#include <QTextDocument>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <malloc.h>
#include <unistd.h>
#include <vector>

namespace {

const char *const kWords[] = {"backup", "device", "folder", "mirror", "the", "of", "a", "rule", "ignore", "copy",
    "update", "delete", "analysis", "transaction", "file", "name", "and", "to", "is", "when", "every", "résumé",
    "source", "press", "choose", "list", "window", "table", "error", "time", "date", "mount", "volume", "—"};

struct Generated {
    QByteArray structure, format, text, single, html;
    qint64 textLength = 0;
    qint64 pictureBytes = 0;
    int pictures = 0;
};

QByteArray Png()
{
    return QByteArray::fromBase64("iVBORw0KGgoAAAANSUhEUgAAABAAAAAQCAIAAACQkWg2AAAAKUlEQVR42mP8z8DAQApgHFUwqmBUwaiC"
                                  "UQWjCkYVjCoYVTCqYFQBAEcpAf8gUEWcAAAAAElFTkSuQmCC");
}

QByteArray Escape(const QString &s)
{
    return s.toHtmlEscaped().toUtf8();
}

// Property records: 0 plain, 1 bold, 2 italic, 3 link (char); 4 body, 5 heading, 6 list item (para).
const char kFormatProperties[]
    = "<properties>\n"
      "<prop type=\"char\"><size>12</size><font>0</font></prop>\n"
      "<prop type=\"char\"><size>12</size><bold>1</bold><font>0</font></prop>\n"
      "<prop type=\"char\"><size>12</size><italic>1</italic><font>0</font></prop>\n"
      "<prop type=\"char\"><size>12</size><underline>single</underline><color>(0, 0, 200)</color></prop>\n"
      "<prop type=\"para\"><align>justify</align><after>6</after><indentl>0</indentl></prop>\n"
      "<prop type=\"para\"><before>12</before><after>6</after><keepnext>1</keepnext></prop>\n"
      "<prop type=\"para\"><indentl>18</indentl><indent1>-9</indent1><tab x=\"18\" align=\"left\"/>"
      "<prefix>IiA=</prefix></prop>\n"
      "<prop type=\"list\"><levels>1</levels><mark type=\"bullet\" nof=\"1\" suffix=\"LgA=\"/></prop>\n"
      "</properties>\n"
      "<styles><style name=\"Normal\" type=\"para\"><prop>4</prop></style><style name=\"Heading\" type=\"para\" "
      "bin=\"1\"><prop>5</prop><next>0</next></style></styles>\n";

Generated Generate(qint64 targetUnits)
{
    Generated g;
    QString text;
    text.reserve(targetUnits + 4096);
    QByteArray knots, images, charRuns, paraRuns, runs, html;
    html += "<html><body>\n";
    quint32 seed = 12345;
    const auto next = [&seed](quint32 range) {
        seed = seed * 1664525u + 1013904223u;
        return (seed >> 8) % range;
    };
    int bookmark = 0, chapter = 0;
    qint32 lastChar = -1, lastPara = -1;
    const auto charRun = [&](qint32 property) {
        if (property != lastChar)
            charRuns += "<r>" + QByteArray::number(text.size()) + ',' + QByteArray::number(property) + "</r>\n";
        lastChar = property;
    };
    const auto paraRun = [&](qint32 property) {
        if (property != lastPara)
            paraRuns += "<r>" + QByteArray::number(text.size()) + ',' + QByteArray::number(property) + "</r>\n";
        lastPara = property;
    };
    const auto knot = [&](const char *type, const char *kink, const QByteArray &children, char16_t c) {
        knots += "<knot cp=\"" + QByteArray::number(text.size()) + "\" type=\"" + type + "\" kink=\"" + kink + '"'
            + (children.isEmpty() ? QByteArray("/>\n") : '>' + children + "</knot>\n");
        text += QChar(c);
    };
    const auto words = [&](int count, QByteArray &htmlOut) {
        for (int w = 0; w < count; ++w) {
            const quint32 style = next(10);
            const qint32 property = style == 0 ? 1 : style == 1 ? 2 : 0;
            charRun(property);
            const QString word = QString::fromUtf8(kWords[next(std::size(kWords))]) + u' ';
            htmlOut += property == 1 ? "<b>" + Escape(word) + "</b>"
                : property == 2      ? "<i>" + Escape(word) + "</i>"
                                     : Escape(word);
            text += word;
        }
    };
    while (text.size() < targetUnits) {
        // A chapter: its heading at level 0, 1 or 2, then paragraphs.
        const int level = chapter % 5 == 0 ? 0 : chapter % 5 < 3 ? 1 : 2;
        paraRun(5);
        charRun(1);
        knot("chapter", "beg", "<lev>" + QByteArray::number(level + 1) + "</lev>", u'\0');
        const QString heading = QString(level, u'\t') + QStringLiteral("Topic %1 of the manual").arg(chapter);
        text += heading + u'\n';
        html += "<h" + QByteArray::number(level + 1) + '>' + Escape(heading.mid(level)) + "</h"
            + QByteArray::number(level + 1) + ">\n";
        const int paragraphs = 8 + int(next(16));
        for (int p = 0; p < paragraphs; ++p) {
            const bool item = next(6) == 0;
            paraRun(item ? 6 : 4);
            QByteArray paragraph;
            if (p == 2 && chapter % 4 == 0) {
                charRun(0);
                knot("pic", "-", "<image>" + QByteArray::number(g.pictures) + "</image>", u'\1');
                paragraph += "<img src=\"Images/p" + QByteArray::number(g.pictures) + ".png\"/>";
                images += "<image source=\"embed\">p" + QByteArray::number(g.pictures) + ".png</image>\n";
                ++g.pictures;
            }
            if (p == 1) {
                charRun(0);
                knot("bookmark", "beg", "<bookmark>" + QByteArray::number(bookmark++) + "</bookmark>", u'\0');
            }
            words(40 + int(next(160)), paragraph);
            if (next(3) == 0) {
                charRun(3);
                knot("link", "beg", "<bookmark>" + QByteArray::number(next(std::max(bookmark, 1))) + "</bookmark>",
                    u'\0');
                const QString label = QStringLiteral("see topic %1").arg(next(chapter + 1));
                text += label;
                knot("link", "end", {}, u'\0');
                paragraph += "<a href=\"#t\">" + Escape(label) + "</a>";
                words(5, paragraph);
            }
            text += u'\n';
            html += (item ? "<ul><li>" + paragraph + "</li></ul>\n" : "<p>" + paragraph + "</p>\n");
        }
        ++chapter;
    }
    html += "</body></html>\n";
    g.textLength = text.size();
    g.html = html;
    g.text = text.toUtf8();
    const QByteArray length = "<length>1," + QByteArray::number(text.size()) + "</length>\n";
    const QByteArray formatBody = "<normal_chapter>-1</normal_chapter>\n<fonts><f>Helvetica</f><f>Menlo</f></fonts>\n"
        + QByteArray(kFormatProperties) + "<char>\n" + charRuns + "</char>\n<para>\n" + paraRuns + "</para>\n";
    g.structure = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<structure>\n<ver>2</ver>\n" + length + "<knots>\n"
        + knots + "</knots>\n<images>\n" + images + "</images>\n</structure>\n";
    g.format = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<format>\n<ver>2</ver>\n" + formatBody + "</format>\n";

    // The single file: the same sections, the pictures in Base64, the text as runs.
    QByteArray embedded;
    for (int i = 0; i < g.pictures; ++i)
        embedded += "<image source=\"embed\" type=\"png\">" + Png().toBase64() + "</image>\n";
    QByteArray textRuns;
    qsizetype start = 0;
    for (qsizetype i = 0; i <= text.size(); ++i) {
        if (i < text.size() && text[i] != u'\0' && text[i] != u'\1')
            continue;
        if (i > start)
            textRuns += "<run>" + Escape(text.sliced(start, i - start)) + "</run>";
        if (i < text.size())
            textRuns += text[i] == u'\0' ? "<k0/>" : "<k1/>";
        start = i + 1;
    }
    g.single = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<velluma>\n<ver>2</ver>\n<format>\n<ver>2</ver>\n"
        + formatBody + "</format>\n<structure>\n" + length + "<knots>\n" + knots + "</knots>\n</structure>\n<images>\n"
        + embedded + "</images>\n<text>" + textRuns + "</text>\n</velluma>\n";
    g.pictureBytes = qint64(g.pictures) * Png().size();
    return g;
}

void Write(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size()) {
        std::fprintf(stderr, "cannot write %s\n", qPrintable(path));
        std::exit(1);
    }
}

qint64 Resident()
{
    malloc_trim(0);
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return 0;
    const QList<QByteArray> fields = statm.readAll().split(' ');
    return fields.size() > 1 ? fields[1].toLongLong() * sysconf(_SC_PAGESIZE) : 0;
}

// CPU time of this thread in milliseconds: less disturbed than the wall clock on a shared machine.
double ThreadCpuMs()
{
    timespec t {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) * 1e3 + double(t.tv_nsec) / 1e6;
}

double Median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    mallopt(M_ARENA_MAX, 1); // as the program does
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    qputenv("QT_QPA_PLATFORM", qgetenv("QT_QPA_PLATFORM").isEmpty() ? "offscreen" : qgetenv("QT_QPA_PLATFORM"));
    QGuiApplication app(argc, argv);
    const double megabytes = argc > 1 ? std::atof(argv[1]) : 5;
    const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;
    if (!VLSetUpHelpEngine())
        return 1;

    QTemporaryDir dir;
    const QString package = dir.path() + QStringLiteral("/Bench.TWwrite");
    const QString single = dir.path() + QStringLiteral("/bench.xml");
    const QString htmlPath = dir.path() + QStringLiteral("/bench.html");
    qint64 textLength = 0, pictureBytes = 0;
    {
        const Generated g = Generate(qint64(megabytes * 1e6));
        QDir().mkpath(package + QStringLiteral("/Images"));
        QDir().mkpath(dir.path() + QStringLiteral("/Images"));
        Write(package + QStringLiteral("/structure.xml"), g.structure);
        Write(package + QStringLiteral("/format.xml"), g.format);
        Write(package + QStringLiteral("/document.txt"), g.text);
        for (int i = 0; i < g.pictures; ++i) {
            Write(package + QStringLiteral("/Images/p%1.png").arg(i), Png());
            Write(dir.path() + QStringLiteral("/Images/p%1.png").arg(i), Png());
        }
        Write(single, g.single);
        Write(htmlPath, g.html);
        textLength = g.textLength;
        pictureBytes = g.pictureBytes;
        std::printf("Generated: %lld characters of text, %d pictures; package %.1f MB (text %.1f MB), single file "
                    "%.1f MB, HTML %.1f MB\n",
            textLength, g.pictures, (g.structure.size() + g.format.size() + g.text.size()) / 1e6, g.text.size() / 1e6,
            g.single.size() / 1e6, g.html.size() / 1e6);
    }

    const auto timeLoad = [&](const QString &path, qint64 *resident, double *cpuMs) {
        std::vector<double> times, cpu;
        for (int r = 0; r < rounds; ++r) {
            const qint64 before = Resident();
            QElapsedTimer timer;
            timer.start();
            const double cpuStart = ThreadCpuMs();
            VLLoadFailure failure;
            std::unique_ptr<VLDocument> document = VLLoadHelpDocument(path, &failure);
            cpu.push_back(ThreadCpuMs() - cpuStart);
            times.push_back(timer.nsecsElapsed() / 1e6);
            if (!document) {
                std::fprintf(stderr, "load failed: %s %s\n", qPrintable(failure.reason), qPrintable(failure.detail));
                std::exit(1);
            }
            *resident = Resident() - before;
        }
        *cpuMs = Median(cpu);
        return Median(times);
    };
    qint64 packageResident = 0, singleResident = 0, qtResident = 0;
    double packageCpu = 0, singleCpu = 0;
    const double packageMs = timeLoad(package, &packageResident, &packageCpu);
    const double singleMs = timeLoad(single, &singleResident, &singleCpu);

    std::vector<double> qtTimes, qtCpuTimes;
    for (int r = 0; r < rounds; ++r) {
        const qint64 before = Resident();
        QElapsedTimer timer;
        timer.start();
        const double cpuStart = ThreadCpuMs();
        QFile file(htmlPath);
        file.open(QIODevice::ReadOnly);
        auto document = std::make_unique<QTextDocument>();
        document->setBaseUrl(QUrl::fromLocalFile(dir.path() + u'/'));
        document->setHtml(QString::fromUtf8(file.readAll()));
        qtCpuTimes.push_back(ThreadCpuMs() - cpuStart);
        qtTimes.push_back(timer.nsecsElapsed() / 1e6);
        qtResident = Resident() - before;
    }
    const double qtMs = Median(qtTimes);
    const double qtCpu = Median(qtCpuTimes);

    const auto perChar = [&](qint64 resident) { return double(resident - pictureBytes) / double(textLength); };
    std::printf("\n| Load (median of %d) | Wall time | CPU time | Ratio to setHtml (wall / CPU) | Resident memory "
                "added | Bytes per character (pictures apart) |\n|---|---|---|---|---|---|\n",
        rounds);
    const auto row = [&](const char *name, double ms, double cpu, qint64 resident) {
        std::printf("| %s | %.0f ms | %.0f ms | %.3f / %.3f | %.1f MB | %.2f |\n", name, ms, cpu, ms / qtMs,
            cpu / qtCpu, resident / 1e6, perChar(resident));
    };
    row("Package form", packageMs, packageCpu, packageResident);
    row("Single-file form", singleMs, singleCpu, singleResident);
    row("QTextDocument::setHtml", qtMs, qtCpu, qtResident);
    std::printf("\nPictures: %lld bytes in all.\n", pictureBytes);
    return 0;
}
