// The help window's speed: the time from opening help to the first painted page, for the
// application's help and for a generated 5 MB document, against the same content given to a
// QTextBrowser as HTML; then the longest frame while scrolling page by page and while finding
// words through the 5 MB document. Run with QT_QPA_PLATFORM=offscreen or under a display:
//     help_window_bench [FOLDER-FOR-THE-GENERATED-FILES [CHARACTERS]]
#include "help/VLHelpEngine.h"
#include "help/VLHelpReader.h"
#include "help/window/KSHelpDocumentView.h"
#include "help/window/KSVellumaHelpWC.h"
#include "keelson/KSKernel.h"

#include <QAbstractTextDocumentLayout>
#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QLineEdit>
#include <QScrollBar>
#include <QTemporaryDir>
#include <QTextBlock>
#include <QTextBrowser>

#include <algorithm>
#include <cstdio>

namespace {

const char *const kWords[] = {"backup", "device", "folder", "mirror", "rule", "copy", "update", "delete", "the", "a",
    "files", "analysis", "transaction", "window", "table", "names", "ignore", "when", "every", "source"};

// Writes a package of about `bytes` characters and the same text as HTML; returns the package.
QString WriteDocument(const QString &folder, qsizetype bytes, QString *htmlPath)
{
    const QString package = folder + QStringLiteral("/Big.TWwrite");
    QDir().mkpath(package + QStringLiteral("/Images"));
    QString text, html = QStringLiteral("<html><body>");
    QString knots, runs;
    unsigned seed = 1;
    auto word = [&seed] {
        seed = seed * 1103515245 + 12345;
        return QString::fromLatin1(kWords[(seed >> 16) % std::size(kWords)]);
    };
    int chapter = 0;
    while (text.size() < bytes) {
        const QString name
            = (chapter % 4 == 0 ? QString() : QStringLiteral("\t")) + QStringLiteral("Topic %1").arg(chapter);
        knots += QStringLiteral("<knot cp=\"%1\" type=\"chapter\" kink=\"beg\"><lev>1</lev></knot>\n").arg(text.size());
        runs += QStringLiteral("<r>%1,0</r>").arg(text.size());
        text += QChar(0) + name + u'\n';
        html += QStringLiteral("<h2>%1</h2>").arg(name.trimmed());
        runs += QStringLiteral("<r>%1,1</r>").arg(text.size());
        for (int paragraph = 0; paragraph < 30; ++paragraph) {
            QString line;
            QString htmlLine = QStringLiteral("<p>");
            for (int i = 0; i < 60; ++i) {
                const QString w = word();
                if (i == 7) {
                    runs += QStringLiteral("<r>%1,2</r><r>%2,1</r>")
                                .arg(text.size() + line.size())
                                .arg(text.size() + line.size() + w.size());
                    htmlLine += QStringLiteral("<b>%1</b> ").arg(w);
                } else {
                    htmlLine += w + u' ';
                }
                line += w + u' ';
            }
            text += line + u'\n';
            html += htmlLine + QStringLiteral("</p>");
        }
        ++chapter;
    }
    html += QStringLiteral("</body></html>");
    auto write = [](const QString &path, const QByteArray &data) {
        QFile file(path);
        return file.open(QIODevice::WriteOnly) && file.write(data) == data.size();
    };
    write(package + QStringLiteral("/document.txt"), text.toUtf8());
    write(package + QStringLiteral("/structure.xml"),
        QStringLiteral("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<structure><ver>2</ver><length>%1,%1</length>"
                       "<knots>\n%2</knots><images/></structure>\n")
            .arg(text.size())
            .arg(knots)
            .toUtf8());
    write(package + QStringLiteral("/format.xml"),
        QStringLiteral(
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<format><ver>1</ver><fonts><f>Sans Serif</f></fonts>"
            "<properties><prop type=\"char\"><bold>1</bold><size>16</size></prop><prop type=\"char\"></prop>"
            "<prop type=\"char\"><bold>1</bold></prop><prop type=\"para\"><after>6</after></prop></properties>"
            "<styles><style name=\"Normal\" type=\"para\"><prop>3</prop><char>1</char></style></styles>"
            "<char>%1</char><para><r>0,3</r></para></format>\n")
            .arg(runs)
            .toUtf8());
    *htmlPath = folder + QStringLiteral("/Big.html");
    write(*htmlPath, html.toUtf8());
    return package;
}

// Shows the widget and returns the milliseconds from `timer`'s start to its text's first paint.
double UntilFirstPaint(QWidget *window, QWidget *viewport, QElapsedTimer &timer)
{
    struct Watcher : QObject {
        bool painted = false;
        bool eventFilter(QObject *, QEvent *event) override
        {
            if (event->type() == QEvent::Paint)
                painted = true;
            return false;
        }
    } watcher;
    viewport->installEventFilter(&watcher);
    window->show();
    while (!watcher.painted)
        QApplication::processEvents(QEventLoop::AllEvents, 5);
    const double ms = double(timer.nsecsElapsed()) / 1e6;
    viewport->removeEventFilter(&watcher);
    return ms;
}

double OpenHelp(const QString &path, bool isFile, KSVellumaHelpWC **shown)
{
    QElapsedTimer timer;
    timer.start();
    KSVellumaHelpWC *window = KSVellumaHelpWC::create(path, isFile);
    if (!window)
        return -1;
    window->resize(900, 640);
    window->jumpToTopic(0, -1, false);
    const double ms = UntilFirstPaint(window, window->findChild<QTextBrowser *>()->viewport(), timer);
    *shown = window;
    return ms;
}

double OpenHtml(const QString &path, QTextBrowser **shown)
{
    QElapsedTimer timer;
    timer.start();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    auto *browser = new QTextBrowser;
    browser->resize(900, 640);
    browser->setHtml(QString::fromUtf8(file.readAll()));
    const double ms = UntilFirstPaint(browser, browser->viewport(), timer);
    *shown = browser;
    return ms;
}

} // namespace

int main(int argc, char **argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    QApplication application(argc, argv);
    QTemporaryDir scratch;
    const QString folder = argc > 1 ? QString::fromLocal8Bit(argv[1]) : scratch.path();
    const qsizetype size = argc > 2 ? QByteArray(argv[2]).toLongLong() : 5 * 1000 * 1000;
    QTemporaryDir home;
    qputenv("XDG_CONFIG_HOME", home.path().toLocal8Bit()); // nothing the window remembers is kept
    KSKernel::sharedInstance();
    VLSetUpHelpEngine();

    QString html;
    const QString big = WriteDocument(folder, size, &html);
    KSVellumaHelpWC *window = nullptr;
    QTextBrowser *browser = nullptr;
    {
        // Where the time goes: reading the package, laying it out in a text document.
        QElapsedTimer timer;
        timer.start();
        std::unique_ptr<VLDocument> document = VLLoadHelpDocument(big);
        const double read = double(timer.nsecsElapsed()) / 1e6;
        timer.restart();
        std::unique_ptr<KSHelpContent> content = KSHelpContentFromDocument(std::move(document), big);
        std::printf(
            "5 MB document: read %.1f ms, text document made %.1f ms\n", read, double(timer.nsecsElapsed()) / 1e6);
    }

    const QString appHelp = QStringLiteral(TANNER_HELP_PACKAGE);
    std::printf("application's help, first page painted: %.1f ms\n", OpenHelp(appHelp, false, &window));
    delete window;

    // The two sides alternate (help first, then the browser first), so that neither always runs
    // on a warmer machine; the last help window stays open for what follows.
    for (int round = 0; round < 2; ++round) {
        double helpMs = 0, htmlMs = 0;
        if (round == 0) {
            helpMs = OpenHelp(big, true, &window);
            htmlMs = OpenHtml(html, &browser);
        } else {
            delete window;
            htmlMs = OpenHtml(html, &browser);
            helpMs = OpenHelp(big, true, &window);
        }
        std::printf("5 MB document, first page painted (%s first): help window %.1f ms, QTextBrowser with HTML "
                    "%.1f ms\n",
            round == 0 ? "help" : "browser", helpMs, htmlMs);
        delete browser;
        browser = nullptr;
        if (!window)
            return 1;
    }

    {
        QElapsedTimer timer;
        timer.start();
        window->zoomIn();
        window->findChild<QTextBrowser *>()->viewport()->repaint();
        std::printf("zooming in: %.1f ms\n", double(timer.nsecsElapsed()) / 1e6);
        window->zoomOut();
    }

    // Scrolling page by page through the first 2,000 pages (or to the end), once the whole text
    // is laid out (the view lays a long text out in steps while it is shown).
    auto *text = window->findChild<QTextBrowser *>();
    text->document()->documentLayout()->blockBoundingRect(text->document()->lastBlock());
    for (int i = 0; i < 10; ++i)
        QApplication::processEvents();
    QScrollBar *bar = text->verticalScrollBar();
    double worst = 0, total = 0;
    int frames = 0;
    for (int value = 0; value < bar->maximum() && frames < 2000; value += bar->pageStep(), ++frames) {
        QApplication::processEvents(); // the layout of what lies further on goes on between frames
        QElapsedTimer frame;
        frame.start();
        bar->setValue(value);
        text->viewport()->repaint();
        const double ms = double(frame.nsecsElapsed()) / 1e6;
        worst = std::max(worst, ms);
        total += ms;
    }
    std::printf("scrolling: %d frames, longest %.1f ms, mean %.2f ms\n", frames, worst, frames ? total / frames : 0.0);

    // Finding a word again and again through the document.
    auto *field = window->findChild<QLineEdit *>(QStringLiteral("searchField"));
    field->setText(QStringLiteral("transaction mirror"));
    worst = total = 0;
    frames = 0;
    QElapsedTimer first;
    first.start();
    emit field->returnPressed();
    text->viewport()->repaint();
    worst = double(first.nsecsElapsed()) / 1e6;
    for (; frames < 300; ++frames) {
        QElapsedTimer frame;
        frame.start();
        const bool found = window->findNext();
        text->viewport()->repaint();
        const double ms = double(frame.nsecsElapsed()) / 1e6;
        worst = std::max(worst, ms);
        total += ms;
        if (!found)
            break;
    }
    std::printf("finding: %d finds, longest %.1f ms, mean %.2f ms\n", frames, worst, frames ? total / frames : 0.0);
    window->close();
    return 0;
}
