// The help window driven as a user meets it: the topic outline, zoom, quick search and the flash
// of a hit, back and forward, what it remembers across two runs, a named file shown in the look
// of the preferences, its menu commands, speaking and the saved copy, and how a document's text,
// tables included, keeps one position for every cp.
#include "help/VLDocument.h"
#include "help/VLHelpEngine.h"
#include "help/VLHelpReader.h"
#include "help/VLProperties.h"
#include "help/window/KSHelpContent.h"
#include "help/window/KSHelpDocumentView.h"
#include "help/window/KSHelpPackageCopy.h"
#include "help/window/KSSpeechManager.h"
#include "help/window/KSVellumaHelpWC.h"
#include "keelson/KSKernel.h"
#include "keelson/KSLog.h"
#include "keelson/KSUserDefaults.h"
#include "keelson/gui/KSFileChooser.h"
#include "keelson/gui/KSWorkspace.h"
#include "tests/support/GuiTestSupport.h"
#include "tests/support/TestSupport.h"

#include <QAbstractItemModelTester>
#include <QAction>
#include <QApplication>
#include <QButtonGroup>
#include <QClipboard>
#include <QComboBox>
#include <QDir>
#include <QFile>
#include <QFontInfo>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPointer>
#include <QRegularExpression>
#include <QScrollBar>
#include <QTemporaryDir>
#include <QTest>
#include <QTextBlock>
#include <QTextEdit>
#include <QTextTable>
#include <QToolBar>
#include <QToolButton>
#include <QTreeView>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

using namespace tanner::test;

namespace {

// Six chapters: two top-level topics with subtopics and a third-level entry, each long enough
// to scroll.
std::unique_ptr<KSHelpContent> SampleContent(const QString &path = QStringLiteral("/help/Sample.TWwrite"))
{
    const QStringList names
        = {QStringLiteral("Welcome"), QStringLiteral("\tBacking up"), QStringLiteral("\t\tChoosing a device"),
            QStringLiteral("Rules"), QStringLiteral("\tFolder rules"), QStringLiteral("\tFile rules")};
    std::vector<QStringList> bodies;
    for (int chapter = 0; chapter < names.size(); ++chapter) {
        QStringList body;
        for (int i = 0; i < 40; ++i)
            body.append(QStringLiteral("Paragraph %1 of chapter %2 says something worth reading.").arg(i).arg(chapter));
        bodies.push_back(body);
    }
    bodies[3][5] = QStringLiteral("An ignore rule such as 10tmp leaves out temporary files.");
    bodies[5][2] = QStringLiteral("Another ignore rule matches names.");
    return KSHelpContentFromChapters(names, bodies, path);
}

// Every cp of the document shows at a position of its own that maps back to it: text as itself,
// a paragraph end as a block boundary, a knot as one object character.
void ExpectEveryCpAtItsOwnPosition(const VLDocument &document, const KSHelpContent &content, bool *sawPicture)
{
    const QString text = document.text().toString();
    std::vector<std::pair<qint32, VLKnot>> knots;
    for (std::size_t i = 0; i < document.knotCount(); ++i) {
        qint32 cp = 0;
        const VLKnot knot = document.knotAt(i, &cp);
        knots.emplace_back(cp, knot);
    }
    ASSERT_EQ(content.textLength, quint32(text.size()));
    std::size_t knot = 0;
    int previous = -1;
    for (quint32 cp = 0; cp < content.textLength; ++cp) {
        const int position = content.map.positionForCp(cp);
        ASSERT_EQ(content.map.cpForPosition(position), cp);
        ASSERT_GT(position, previous) << cp;
        previous = position;
        const QChar shown = content.text->characterAt(position);
        const char16_t unit = text[cp].unicode();
        if (knot < knots.size() && quint32(knots[knot].first) == cp) {
            QTextCursor cursor(content.text.get());
            cursor.setPosition(position + 1);
            if (knots[knot].second.type == kKnotPic && cursor.charFormat().isImageFormat()) {
                *sawPicture = true;
                EXPECT_EQ(shown, QChar::ObjectReplacementCharacter);
            } else {
                EXPECT_TRUE(shown == QChar(0x200B) || shown == QChar(0x2610) || shown == QChar(0x2611)) << cp;
            }
            ++knot;
        } else if (unit == 10) {
            EXPECT_EQ(shown, QChar::ParagraphSeparator) << cp;
        } else {
            EXPECT_EQ(shown, text[cp]) << cp;
        }
    }
}

QAction *Action(QWidget *window, const char *name)
{
    return window->findChild<QAction *>(QString::fromLatin1(name));
}

class HelpWindow : public ::testing::Test {
protected:
    void SetUp() override
    {
        EnsureApplication();
        KSKernel::sharedInstance();
        KSSetWorkspaceTestHook([this](const QString &what) { revealed.append(what); });
    }
    void TearDown() override
    {
        KSSetWorkspaceTestHook({});
        KSSetNextChooserAnswer(std::nullopt);
        // Every test starts without help windows, and none outlives the process's checks.
        QList<QPointer<QWidget>> windows;
        for (QWidget *widget : QApplication::topLevelWidgets()) {
            if (dynamic_cast<KSVellumaHelpWC *>(widget))
                windows.append(widget);
        }
        for (const QPointer<QWidget> &window : windows)
            delete window.data();
    }
    KSVellumaHelpWC *open(std::unique_ptr<KSHelpContent> content, bool isFile = false)
    {
        auto *window = new KSVellumaHelpWC(std::move(content), isFile);
        window->resize(700, 420);
        window->show();
        EXPECT_TRUE(QTest::qWaitForWindowExposed(window));
        return window;
    }

    ScopedXdgHome home;
    QStringList revealed;
};

} // namespace

TEST(HelpTopics, LeadingTabsNestTheOutlineAndEveryChapterKeepsItsItem)
{
    // A, B under A, C under B, then D.
    KSHelpTopics outline({QStringLiteral("A"), QStringLiteral("\tB"), QStringLiteral("\t\tC"), QStringLiteral("D")});
    ASSERT_EQ(outline.topics().size(), 2u);
    EXPECT_EQ(outline.chapterMap().size(), 4u);
    const KSHelpTopic *a = outline.topics()[0];
    EXPECT_EQ(a->name, u"A");
    ASSERT_EQ(a->topics.size(), 1u);
    const KSHelpTopic *b = a->topics[0];
    EXPECT_EQ(b->name, u"B");
    EXPECT_EQ(b->level, 1);
    ASSERT_EQ(b->topics.size(), 1u);
    EXPECT_TRUE(b->topics[0]->plain);
    EXPECT_EQ(b->topics[0]->name, u"C");
    EXPECT_FALSE(outline.expandable(b->topics[0]));
    EXPECT_EQ(outline.topics()[1]->name, u"D");
    EXPECT_FALSE(outline.expandable(outline.topics()[1]));
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(outline.chapterMap()[std::size_t(i)]->index, i);

    // Two tabs before any one-tab heading, one tab before any top-level one: not shown, slots kept.
    KSHelpTopics orphans({QStringLiteral("\t\tLost"), QStringLiteral("\tAlso lost"), QStringLiteral("\t\tUnder lost"),
        QStringLiteral("Top"), QStringLiteral("\t\t\tThree tabs")});
    EXPECT_EQ(orphans.chapterMap().size(), 5u);
    ASSERT_EQ(orphans.topics().size(), 1u);
    EXPECT_EQ(orphans.topics()[0]->name, u"Top");
    EXPECT_TRUE(orphans.topics()[0]->topics.empty()); // a new top-level topic has no level-1 parent
    KSHelpTopicModel model;
    model.setTopics(&orphans);
    EXPECT_FALSE(model.indexForItem(orphans.chapterMap()[0]).isValid());
    EXPECT_FALSE(model.indexForItem(orphans.chapterMap()[2]).isValid());
    EXPECT_EQ(model.rowCount(), 1);

    KSHelpTopics none({});
    EXPECT_TRUE(none.topics().empty());
    EXPECT_TRUE(none.chapterMap().empty());

    KSHelpTopics sample(SampleContent()->chapterNames);
    model.setTopics(&sample);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    EXPECT_EQ(model.rowCount(), 2);
    const QModelIndex backingUp = model.index(0, 0, model.index(0, 0));
    EXPECT_EQ(model.data(backingUp, Qt::DisplayRole).toString(), u"Backing up");
    EXPECT_EQ(model.parent(backingUp), model.index(0, 0));
    EXPECT_EQ(KSHelpTopicModel::itemForIndex(model.index(0, 0, backingUp)), sample.chapterMap()[2]);
}

TEST(HelpZoom, StepsAndTheResetAbove400Percent)
{
    EXPECT_EQ(KSHelpZoomIn(4.0), 4.0);
    EXPECT_EQ(KSHelpZoomIn(5.0), 1.0);
    EXPECT_EQ(KSHelpZoomOut(5.0), 1.0);
    EXPECT_EQ(KSHelpZoomOut(0.5), 0.5);
    EXPECT_EQ(KSHelpZoomIn(1.1), 1.25);
    EXPECT_EQ(KSHelpZoomOut(1.1), 1.0);
    EXPECT_EQ(KSHelpZoomIn(1.0), 1.25);
    EXPECT_EQ(KSHelpZoomOut(1.0), 0.75);
    EXPECT_EQ(KSHelpZoomIn(3.5), 3.5); // the first step above it is the last one
    EXPECT_EQ(KSHelpZoomIn(0.2), 0.5);
}

TEST(HelpFind, CaretCodesFindTypesAndTheCut)
{
    EXPECT_EQ(KSTextFromCaretCodes(QStringLiteral("a^tb^pc^^d^-e^lf^x")),
        QStringLiteral("a\tb\nc^d") + QChar(0xAD) + u'e' + QChar(0x2028) + QStringLiteral("f^x"));
    const QString special = QStringLiteral("^ \t\n") + QChar(1) + QChar(0xAD) + QChar(0x2028) + QChar(11) + QChar(12);
    EXPECT_EQ(KSTextFromCaretCodes(KSCaretCodesFromText(special)), special);

    EXPECT_EQ(KSQuickSearchRequest(QString()).findType, kFindNothing);
    EXPECT_EQ(KSQuickSearchRequest(QStringLiteral("^g")).findType, 8);
    EXPECT_EQ(KSQuickSearchRequest(QStringLiteral("^c")).findType, 4);
    EXPECT_EQ(KSQuickSearchRequest(QStringLiteral("^d")).findType, 6);
    EXPECT_EQ(KSQuickSearchRequest(QStringLiteral("^>")).findType, 5);
    EXPECT_EQ(KSQuickSearchRequest(QStringLiteral("^gx")).findType, kFindText);
    const KSFindRequest longSearch = KSQuickSearchRequest(QString(300, u'x'));
    EXPECT_EQ(longSearch.findType, kFindText);
    EXPECT_EQ(longSearch.findString.size(), 255);

    EXPECT_TRUE(KSCanFindPrevious(KSQuickSearchRequest(QStringLiteral("word^t"))));
    EXPECT_FALSE(KSCanFindPrevious(KSQuickSearchRequest(QStringLiteral("end^p"))));
    EXPECT_FALSE(KSCanFindPrevious(KSQuickSearchRequest(QStringLiteral("a^gb"))));
    EXPECT_TRUE(KSCanFindPrevious(KSQuickSearchRequest(QStringLiteral("^g"))));
    EXPECT_FALSE(KSCanFindPrevious({}));

    EXPECT_EQ(KSSelectionFindRequest(QStringLiteral("  padded \n"), kInitialSearchOptionMask).findString, u"padded");
    EXPECT_EQ(KSSelectionFindRequest(QStringLiteral(" padded"), 0).findString, u" padded");
    EXPECT_EQ(KSSelectionFindRequest(QStringLiteral("   "), kInitialSearchOptionMask).findType, kFindNothing);
}

TEST(HelpContent, CpMapKeepsEveryCpExactAroundAddedPositions)
{
    KSCpMap map;
    // cps 0-9 at positions 0-9; the layout adds 2 positions before cp 10 and 1 before cp 20.
    map.addAnchor(10, 12);
    map.addAnchor(20, 23);
    for (quint32 cp = 0; cp < 30; ++cp)
        EXPECT_EQ(map.cpForPosition(map.positionForCp(cp)), cp) << cp;
    EXPECT_EQ(map.positionForCp(5), 5);
    EXPECT_EQ(map.positionForCp(15), 17);
    EXPECT_EQ(map.positionForCp(25), 28);
    EXPECT_EQ(map.cpForPosition(10), 10u); // added positions belong to the cp after them
    EXPECT_EQ(map.cpForPosition(11), 10u);
    EXPECT_EQ(map.cpForPosition(22), 20u);
}

TEST_F(HelpWindow, ToolbarZoomAndTheRememberedZoom)
{
    KSVellumaHelpWC *window = open(SampleContent());
    QToolBar *toolbar = window->findChild<QToolBar *>(QStringLiteral("CF78FC39-F3E9-4420-AD9B-AD6F1F178826"));
    ASSERT_NE(toolbar, nullptr);
    QWidget *navigation = window->findChild<QWidget *>(QStringLiteral("6C175095-3CEC-4322-93A5-5CDD1013BC3E"));
    QWidget *topic = window->findChild<QWidget *>(QStringLiteral("D14FE854-0640-4542-B35E-428BC171A36B"));
    ASSERT_TRUE(navigation && topic);
    EXPECT_EQ(navigation->findChildren<QToolButton *>().size(), 2);
    EXPECT_EQ(topic->findChildren<QToolButton *>().size(), 2);
    auto *zoomMenu = window->findChild<QComboBox *>(QStringLiteral("zoomMenu"));
    ASSERT_NE(zoomMenu, nullptr);
    EXPECT_EQ(zoomMenu->count(), 10);
    EXPECT_EQ(zoomMenu->currentData().toInt(), 100);

    const qreal normal = window->findChild<QTextEdit *>()->document()->defaultFont().pointSizeF();
    Action(window, "zoomInAction")->trigger();
    EXPECT_EQ(window->zoom(), 1.25);
    EXPECT_EQ(zoomMenu->currentData().toInt(), 125);
    EXPECT_NEAR(window->findChild<QTextEdit *>()->document()->defaultFont().pointSizeF(), normal * 1.25, 0.01);
    zoomMenu->setCurrentIndex(zoomMenu->findData(400));
    emit zoomMenu->activated(zoomMenu->currentIndex());
    EXPECT_EQ(window->zoom(), 4.0);
    Action(window, "zoomInAction")->trigger();
    EXPECT_EQ(window->zoom(), 4.0);
    EXPECT_EQ(OpenSettingsFile(UserDefaultsPath())->value(QStringLiteral("ks.helpZoom")).toInt(), 400);
    window->close();

    // The next window opens at the zoom last used.
    KSVellumaHelpWC *again = open(SampleContent());
    EXPECT_EQ(again->zoom(), 4.0);
    EXPECT_NEAR(again->findChild<QTextEdit *>()->document()->defaultFont().pointSizeF(), normal * 4, 0.01);
    again->close();
}

TEST_F(HelpWindow, QuickSearchFindsJumpsAndRemembers)
{
    KSVellumaHelpWC *window = open(SampleContent());
    window->resize(1000, 420); // the whole tool bar in sight
    auto *field = window->findChild<QLineEdit *>(QStringLiteral("searchField"));
    ASSERT_NE(field, nullptr);
    // From the start of the document (bit 8), ignoring case (bit 3), trimming selections (bit 1):
    // the caret at the end does not hide the first hit.
    window->jumpToTopic(5, -1, false);
    window->setSelection(window->content().textLength, window->content().textLength);
    field->setText(QStringLiteral("IGNORE rule"));
    emit field->returnPressed();
    EXPECT_EQ(window->searchOptionMask(), (1u << 1) | (1u << 3) | (1u << 8));
    EXPECT_EQ(window->currentTopic(), 3);
    // The topics that hold the words, offered beside the field; each opens at its hit.
    auto *topics = window->findChild<QToolButton *>(QStringLiteral("searchTopicsButton"));
    ASSERT_NE(topics, nullptr);
    EXPECT_TRUE(WaitUntil([topics] { return topics->isVisible(); })); // once the tool bar is laid out
    EXPECT_EQ(topics->text(), QStringLiteral("2 topics"));
    QStringList offered;
    for (QAction *topic : topics->menu()->actions())
        offered.append(topic->text());
    EXPECT_EQ(offered, QStringList({QStringLiteral("Rules"), QStringLiteral("File rules")}));
    topics->menu()->actions().at(1)->trigger();
    EXPECT_EQ(window->currentTopic(), 5);
    EXPECT_EQ(window->content().plainText(window->selectionStart(), window->selectionEnd()), u"ignore rule");
    window->findPrevious();
    const KSHelpContent &content = window->content();
    EXPECT_EQ(content.plainText(window->selectionStart(), window->selectionEnd()), u"ignore rule");
    EXPECT_TRUE(Action(window, "findPreviousAction")->isEnabled());

    EXPECT_TRUE(window->findNext());
    EXPECT_EQ(window->currentTopic(), 5);
    EXPECT_EQ(window->windowTitle(), QStringLiteral("Tanner Backup Help — File rules"));
    const int beeps = window->beepCount();
    EXPECT_TRUE(window->findNext()); // past the last one, round to the first
    EXPECT_EQ(window->currentTopic(), 3);
    EXPECT_TRUE(window->findPrevious()); // and back round the start to the last
    EXPECT_EQ(window->currentTopic(), 5);
    EXPECT_EQ(window->beepCount(), beeps);
    // Nothing anywhere: a beep and "Not found".
    auto *status = window->findChild<QLabel *>(QStringLiteral("searchStatus"));
    ASSERT_NE(status, nullptr);
    EXPECT_FALSE(status->isVisible());
    field->setText(QStringLiteral("zebra crossing"));
    emit field->returnPressed();
    EXPECT_EQ(window->beepCount(), beeps + 1);
    EXPECT_TRUE(WaitUntil([status] { return status->isVisible(); }));
    EXPECT_EQ(status->text(), QStringLiteral("Not found"));
    EXPECT_TRUE(WaitUntil([topics] { return !topics->isVisible(); }));
    field->setText(QStringLiteral("IGNORE rule"));
    emit field->returnPressed();
    EXPECT_TRUE(WaitUntil([status] { return !status->isVisible(); }));
    EXPECT_EQ(window->currentTopic(), 3);

    // Case now counts: nothing matches the upper-case text.
    Action(window, "ignoreCaseAction")->trigger();
    EXPECT_FALSE(Action(window, "ignoreCaseAction")->isChecked());
    EXPECT_FALSE(window->findFromStart());

    // Special items: "^c" goes to the next chapter start.
    field->setText(QStringLiteral("^c"));
    emit field->returnPressed();
    EXPECT_EQ(KSVellumaHelpWC::findRequest().findType, 4);
    EXPECT_EQ(window->currentTopic(), 0); // from the start
    EXPECT_TRUE(window->findNext());
    EXPECT_EQ(window->currentTopic(), 1);

    // The selection becomes the search, with caret codes for its special characters.
    window->jumpToTopic(0, -1, false);
    window->setSelection(content.chapterCps[1] - 5, content.chapterCps[1] + 4);
    window->useSelectionForFind();
    EXPECT_EQ(field->text(), QStringLiteral("ing.^p^tBa"));
    EXPECT_FALSE(Action(window, "findPreviousAction")->isEnabled()); // a paragraph end only goes forward

    EXPECT_EQ(ReadStringList(*OpenSettingsFile(UserDefaultsPath()), QStringLiteral("ks.help.search")),
        QStringList({QStringLiteral("^c"), QStringLiteral("IGNORE rule"), QStringLiteral("zebra crossing")}));
    window->close();
}

TEST_F(HelpWindow, BackAndForwardFollowTheNavigationStack)
{
    KSVellumaHelpWC *window = open(SampleContent());
    auto *back = window->findChild<QToolButton *>(QStringLiteral("backButton"));
    auto *forward = window->findChild<QToolButton *>(QStringLiteral("forwardButton"));
    auto *outline = window->findChild<QTreeView *>(QStringLiteral("topicList"));
    window->jumpToTopic(0, -1, true);
    EXPECT_FALSE(back->isEnabled());
    window->jumpNextChapter();
    // Choosing a topic in the outline jumps and records too.
    outline->setCurrentIndex(outline->model()->index(1, 0));
    EXPECT_EQ(window->currentTopic(), 3);
    EXPECT_EQ(window->navigationStack().count(), 3);
    EXPECT_TRUE(back->isEnabled());
    EXPECT_FALSE(forward->isEnabled());

    back->click();
    EXPECT_EQ(window->currentTopic(), 1);
    EXPECT_EQ(outline->currentIndex().data().toString(), u"Backing up");
    back->click();
    EXPECT_EQ(window->currentTopic(), 0);
    EXPECT_FALSE(back->isEnabled());
    EXPECT_TRUE(forward->isEnabled());
    const int beeps = window->beepCount();
    window->navigate(true); // nothing before the first place
    EXPECT_EQ(window->beepCount(), beeps + 1);
    forward->click();
    EXPECT_EQ(window->currentTopic(), 1);
    EXPECT_EQ(window->navigationStack().count(), 3); // moving along the stack records nothing

    // A new jump from the middle drops what lay ahead.
    window->jumpToTopic(5, -1, true);
    EXPECT_EQ(window->navigationStack().count(), 3);
    EXPECT_FALSE(forward->isEnabled());
    back->click();
    EXPECT_EQ(window->currentTopic(), 1);
    EXPECT_EQ(window->selectionStart(), window->content().chapterCps[1]);

    // The topic segments step through chapters and stop at the ends.
    window->findChild<QToolButton *>(QStringLiteral("nextTopicButton"))->click();
    EXPECT_EQ(window->currentTopic(), 2);
    window->jumpToTopic(5, -1, false);
    EXPECT_FALSE(window->findChild<QToolButton *>(QStringLiteral("nextTopicButton"))->isEnabled());
    window->jumpToTopic(6, -1, true); // beyond the last chapter
    EXPECT_EQ(window->currentTopic(), 5);
    window->close();
}

TEST_F(HelpWindow, TopicPositionAndOpenTopicsComeBackButNotForANamedFile)
{
    quint32 shown = 0;
    {
        KSVellumaHelpWC *window = open(SampleContent());
        window->jumpToTopic(4, -1, true);
        auto *outline = window->findChild<QTreeView *>(QStringLiteral("topicList"));
        outline->collapse(outline->model()->index(0, 0));
        // Read on: scroll some lines into the chapter.
        auto *text = window->findChild<QTextEdit *>();
        text->verticalScrollBar()->setValue(text->verticalScrollBar()->value() + 200);
        shown = window->firstVisibleCp();
        EXPECT_GT(shown, window->content().chapterCps[4]);
        window->close();
    }
    auto stored = OpenSettingsFile(UserDefaultsPath());
    EXPECT_EQ(stored->value(QStringLiteral("ks.helpTopic")).toInt(), 4);
    EXPECT_EQ(
        stored->value(QStringLiteral("ks.helpPosition")).toLongLong(), qint64(shown - SampleContent()->chapterCps[4]));
    {
        KSVellumaHelpWC *window = open(SampleContent());
        window->jumpToTopic(-1, -1, true);
        EXPECT_EQ(window->currentTopic(), 4);
        EXPECT_EQ(window->firstVisibleCp(), shown);
        EXPECT_EQ(window->windowTitle(), QStringLiteral("Tanner Backup Help — Folder rules"));
        auto *outline = window->findChild<QTreeView *>(QStringLiteral("topicList"));
        EXPECT_FALSE(outline->isExpanded(outline->model()->index(0, 0)));
        EXPECT_TRUE(outline->isExpanded(outline->model()->index(1, 0)));
        window->close();
    }
    {
        // A named file: everything expanded, titled by the file, and nothing stored.
        KSVellumaHelpWC *window = open(SampleContent(QStringLiteral("/tmp/Guide.TWwrite")), true);
        EXPECT_EQ(window->filePath(), u"/tmp/Guide.TWwrite");
        window->jumpToTopic(0, -1, true);
        EXPECT_EQ(window->windowTitle(), QStringLiteral("Guide — Welcome"));
        auto *outline = window->findChild<QTreeView *>(QStringLiteral("topicList"));
        EXPECT_TRUE(outline->isExpanded(outline->model()->index(0, 0)));
        window->jumpToTopic(2, -1, true);
        window->close();
    }
    EXPECT_EQ(OpenSettingsFile(UserDefaultsPath())->value(QStringLiteral("ks.helpTopic")).toInt(), 4);
}

TEST_F(HelpWindow, MenuCommandsFollowTheState)
{
    KSVellumaHelpWC *window = open(SampleContent());
    window->jumpToTopic(0, -1, true);
    window->useSelectionForFind(); // no selection: nothing to find
    EXPECT_EQ(KSVellumaHelpWC::findRequest().findType, kFindNothing);
    EXPECT_FALSE(Action(window, "copyAction")->isEnabled());
    EXPECT_FALSE(Action(window, "previousTopicAction")->isEnabled());
    EXPECT_TRUE(Action(window, "nextTopicAction")->isEnabled());
    EXPECT_FALSE(Action(window, "findNextAction")->isEnabled());
    EXPECT_FALSE(Action(window, "findFromStartAction")->isEnabled());
    EXPECT_FALSE(Action(window, "findPreviousAction")->isEnabled());
    EXPECT_TRUE(Action(window, "ignoreCaseAction")->isChecked());
    EXPECT_TRUE(Action(window, "trimSelectionAction")->isChecked());
    EXPECT_TRUE(Action(window, "fromStartOptionAction")->isChecked());
    Action(window, "fromStartOptionAction")->trigger();
    EXPECT_EQ(window->searchOptionMask(), 10u);
    EXPECT_FALSE(Action(window, "fromStartOptionAction")->isChecked());

    window->setSelection(window->content().chapterCps[0] + 1, window->content().chapterCps[0] + 8);
    window->validateMenuItems();
    EXPECT_TRUE(Action(window, "copyAction")->isEnabled());
    Action(window, "copyAction")->trigger();
    EXPECT_EQ(QGuiApplication::clipboard()->text(), u"Welcome");
    Action(window, "selectAllAction")->trigger();
    EXPECT_EQ(window->selectionEnd(), window->content().textLength);

    window->jumpToTopic(5, -1, true);
    window->validateMenuItems();
    EXPECT_TRUE(Action(window, "previousTopicAction")->isEnabled());
    EXPECT_FALSE(Action(window, "nextTopicAction")->isEnabled());

    // Nothing is enabled while the mouse drags a selection.
    auto *viewport = window->findChild<QTextEdit *>()->viewport();
    QTest::mousePress(viewport, Qt::LeftButton, {}, QPoint(20, 20));
    window->validateMenuItems();
    EXPECT_FALSE(Action(window, "previousTopicAction")->isEnabled());
    EXPECT_FALSE(Action(window, "selectAllAction")->isEnabled());
    QTest::mouseRelease(viewport, Qt::LeftButton, {}, QPoint(60, 20));
    EXPECT_TRUE(Action(window, "selectAllAction")->isEnabled());
    window->close();
}

TEST_F(HelpWindow, SpeakingIsOffAndSaysWhyWithoutAUsableEngine)
{
    KSVellumaHelpWC *window = open(SampleContent());
    window->jumpToTopic(1, -1, true);
    QAction *speak = Action(window, "startSpeakingAction");
    KSSpeechManager &speech = KSSpeechManager::sharedInstance();
    struct Installed {
        ~Installed() { KSSpeechManager::sharedInstance().useEngines(std::nullopt); }
    } installedAgain;

    // No engine at all, then only one that cannot be started.
    speech.useEngines(QStringList());
    window->validateMenuItems();
    EXPECT_FALSE(speak->isEnabled());
    EXPECT_TRUE(speak->toolTip().contains(u"none is installed")) << speak->toolTip().toStdString();
    EXPECT_FALSE(speech.speakString(QStringLiteral("Hello")));
    EXPECT_FALSE(speech.isSpeaking());
    speech.useEngines(QStringList {QStringLiteral("no-such-engine")});
    window->validateMenuItems();
    EXPECT_FALSE(speak->isEnabled());
    EXPECT_TRUE(speak->toolTip().contains(u"(no-such-engine) could be started")) << speak->toolTip().toStdString();
    EXPECT_TRUE(speech.engineName().isEmpty());
    window->close();
}

TEST_F(HelpWindow, SpeakingUsesTheInstalledEngine)
{
    KSVellumaHelpWC *window = open(SampleContent());
    window->jumpToTopic(1, -1, true);
    QAction *speak = Action(window, "startSpeakingAction");
    KSSpeechManager &speech = KSSpeechManager::sharedInstance();
    window->validateMenuItems();
    if (!speech.isAvailable()) {
        EXPECT_FALSE(speak->isEnabled());
        EXPECT_EQ(speak->toolTip(), speech.unavailableReason());
        window->close();
        GTEST_SKIP() << "no speech engine is installed; checked that Start Speaking is off and says why";
    }
    EXPECT_TRUE(speak->isEnabled());
    EXPECT_NE(speak->toolTip(), speech.unavailableReason());
    speak->trigger();
    EXPECT_EQ(window->beepCount(), 0);
    WaitUntil([&] { return speech.isSpeaking() || !speech.speakingError().isEmpty(); }, std::chrono::seconds(10));
    if (!speech.isSpeaking()) {
        window->close();
        GTEST_SKIP() << "the speech engine " << speech.engineName().toStdString()
                     << " started but could not speak here: " << speech.speakingError().toStdString();
    }
    speech.stopSpeaking();
    EXPECT_TRUE(WaitUntil([&] { return !speech.isSpeaking(); }, std::chrono::seconds(10)));
    window->close();
}

TEST_F(HelpWindow, SavedCopyGoesUnderAFreeNameAndIsRevealed)
{
    QTemporaryDir packages;
    const QString package = packages.path() + QStringLiteral("/Help.TWwrite");
    WriteTree(package,
        {{QStringLiteral("structure.xml"), "<structure/>"}, {QStringLiteral("format.xml"), "<format/>"},
            {QStringLiteral("document.txt"), "text"}, {QStringLiteral("Images/"), {}},
            {QStringLiteral("Images/pic.png"), "png"}});
    KSVellumaHelpWC *window = open(SampleContent(package));
    QTemporaryDir target;
    KSSetNextChooserAnswer(QStringList {target.path()});
    Action(window, "saveHelpFileAction")->trigger();
    EXPECT_EQ(KSLastChooserMessage(), u"Select a folder in which to save a copy of the help file");
    const QString first = target.path() + QStringLiteral("/Tanner Backup Help.TWwrite");
    EXPECT_EQ(ReadTree(first), ReadTree(package));
    KSSetNextChooserAnswer(QStringList {target.path()});
    Action(window, "saveHelpFileAction")->trigger();
    const QString second = target.path() + QStringLiteral("/Tanner Backup Help 2.TWwrite");
    EXPECT_EQ(ReadTree(second), ReadTree(package));
    EXPECT_EQ(revealed, QStringList({first, second}));

    // Cancelled: nothing; a package that is not there: a beep and nothing copied.
    KSSetNextChooserAnswer(QStringList {});
    Action(window, "saveHelpFileAction")->trigger();
    EXPECT_EQ(revealed.size(), 2);
    QString reason;
    EXPECT_FALSE(KSCopyPackage(
        packages.path() + QStringLiteral("/Missing.TWwrite"), target.path() + QStringLiteral("/x"), &reason));
    EXPECT_TRUE(reason.contains(u"missing"));
    EXPECT_FALSE(QFileInfo::exists(target.path() + QStringLiteral("/x")));
    window->close();
}

TEST_F(HelpWindow, ADocumentShowsEveryCpAtItsOwnPosition)
{
    const QString path = QStringLiteral(TANNER_TEST_DATA_DIR "/help/Good.TWwrite");
    ASSERT_TRUE(VLSetUpHelpEngine());
    std::unique_ptr<VLDocument> document = VLLoadHelpDocument(path);
    ASSERT_NE(document, nullptr);
    QString reason;
    std::unique_ptr<KSHelpContent> content = KSLoadHelpContent(path, &reason);
    ASSERT_NE(content, nullptr) << reason.toStdString();
    bool sawPicture = false;
    ExpectEveryCpAtItsOwnPosition(*document, *content, &sawPicture);
    EXPECT_EQ(content->text->characterCount() - 1, document->text().size()); // no table: nothing added
    EXPECT_TRUE(sawPicture);
    // Chapters and their names come from the document; the first run's formatting shows.
    ASSERT_EQ(content->chapterCps.size(), document->chapterCount());
    EXPECT_EQ(content->chapterNames[1], document->chapterName(1));
    QTextCursor first(content->text.get());
    first.setPosition(content->map.positionForCp(2));
    EXPECT_EQ(first.charFormat().fontWeight(), QFont::Bold);
    // Its size kept in proportion to the body text's, which the help font sets.
    const QTextCharFormat heading = first.charFormat();
    const double relative
        = heading.hasProperty(kRelativeSizeProperty) ? heading.doubleProperty(kRelativeSizeProperty) : 1.0;
    EXPECT_DOUBLE_EQ(relative * content->normalFont.pointSizeF(), 14);

    // The window on the file: the outline of its headings, titled by the file.
    KSVellumaHelpWC *window = KSVellumaHelpWC::displayFileAsHelp(path);
    ASSERT_NE(window, nullptr);
    EXPECT_EQ(window->windowTitle(), QStringLiteral("Good — Welcome"));
    EXPECT_EQ(KSVellumaHelpWC::displayFileAsHelp(path), window); // the same window to the front
    EXPECT_EQ(window->topicOutline().chapterMap().size(), document->chapterCount());
    window->jumpNextChapter();
    EXPECT_EQ(window->selectionStart(), document->chapterCp(1));
    window->close();

    EXPECT_EQ(KSVellumaHelpWC::displayFileAsHelp(path + QStringLiteral("-missing"), &reason), nullptr);
    EXPECT_FALSE(reason.isEmpty());
}

TEST_F(HelpWindow, ATableIsLaidOutInCellsAndKeepsEveryCp)
{
    // Two rows, the second with a third cell; a cell of two paragraphs, one holding a table of its
    // own (shown as its text in the cell); text before and after.
    const QString path = QStringLiteral(TANNER_TEST_DATA_DIR "/help/Table.TWwrite");
    ASSERT_TRUE(VLSetUpHelpEngine());
    std::unique_ptr<VLDocument> document = VLLoadHelpDocument(path);
    ASSERT_NE(document, nullptr);
    QString reason;
    std::unique_ptr<KSHelpContent> content = KSLoadHelpContent(path, &reason);
    ASSERT_NE(content, nullptr) << reason.toStdString();
    bool sawPicture = false;
    ExpectEveryCpAtItsOwnPosition(*document, *content, &sawPicture);

    const QString text = document->text().toString();
    auto cellOf = [&](const QString &word) {
        QTextCursor cursor(content->text.get());
        cursor.setPosition(content->map.positionForCp(quint32(text.indexOf(word))));
        QTextTable *table = cursor.currentTable();
        return table ? std::make_pair(table->cellAt(cursor).row(), table->cellAt(cursor).column())
                     : std::make_pair(-1, -1);
    };
    EXPECT_EQ(cellOf(QStringLiteral("Before")), std::make_pair(-1, -1));
    EXPECT_EQ(cellOf(QStringLiteral("Name")), std::make_pair(0, 0));
    EXPECT_EQ(cellOf(QStringLiteral("Deep")), std::make_pair(0, 0));
    EXPECT_EQ(cellOf(QStringLiteral("in bytes")), std::make_pair(0, 1));
    EXPECT_EQ(cellOf(QStringLiteral("One")), std::make_pair(1, 0));
    EXPECT_EQ(cellOf(QStringLiteral("extra")), std::make_pair(1, 2));
    EXPECT_EQ(cellOf(QStringLiteral("After")), std::make_pair(-1, -1));
    QTextCursor inTable(content->text.get());
    inTable.setPosition(content->map.positionForCp(quint32(text.indexOf(u"One"))));
    ASSERT_NE(inTable.currentTable(), nullptr);
    EXPECT_EQ(inTable.currentTable()->rows(), 2);
    EXPECT_EQ(inTable.currentTable()->columns(), 3);
    // The positions the table adds map to the cp after them; copying a cell gives its text.
    EXPECT_EQ(content->map.cpForPosition(content->map.positionForCp(quint32(text.indexOf(u"Name"))) - 1),
        quint32(text.indexOf(u"Name")) - 1);
    const auto one = quint32(text.indexOf(u"One"));
    EXPECT_EQ(content->plainText(one, one + 3), QStringLiteral("One"));
    // Spoken cell by cell in reading order, the pieces the other way round for a backward selection.
    const int from = content->map.positionForCp(quint32(text.indexOf(u"Before")));
    const int to = content->map.positionForCp(content->textLength);
    EXPECT_EQ(KSSpokenText(*content->text, from, to, false),
        QStringLiteral("Before. Name Deep Size in bytes One 1 extra After. "));
    EXPECT_EQ(KSSpokenText(*content->text, from, to, true),
        QStringLiteral("After. extra 1 One in bytes Size Name Deep Before. "));

    // The window finds text in a cell and selects it there.
    KSVellumaHelpWC *window = open(std::move(content), true);
    window->setSelection(quint32(text.indexOf(u"extra")), quint32(text.indexOf(u"extra")) + 5);
    EXPECT_EQ(window->findChild<QTextEdit *>()->textCursor().selectedText(), QStringLiteral("extra"));
    EXPECT_EQ(window->selectionStart(), quint32(text.indexOf(u"extra")));
    window->setSelection(one, one + 3); // up to the cell's end, not into the next cell
    EXPECT_EQ(window->findChild<QTextEdit *>()->textCursor().selectedText(), QStringLiteral("One"));
    EXPECT_EQ(window->selectionEnd(), one + 3);
    window->close();
}

TEST_F(HelpWindow, TheApplicationsHelpOpensOnceAndFollowsItsLinks)
{
    KSVellumaHelpWC::setApplicationHelpPath(QStringLiteral(TANNER_HELP_PACKAGE));
    KSVellumaHelpWC *window = KSVellumaHelpWC::displayHelp();
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(window->filePath().isEmpty());
    const KSHelpContent &content = window->content();
    ASSERT_FALSE(content.chapterCps.empty());
    EXPECT_EQ(
        window->windowTitle(), QStringLiteral("Tanner Backup Help — ") + window->topicOutline().chapterMap()[0]->name);
    EXPECT_EQ(KSVellumaHelpWC::displayHelp(), window);

    // The first link is drawn as one and leads to its bookmark's sentence, recorded for Back.
    ASSERT_FALSE(content.linkTargets.isEmpty());
    quint32 link = content.textLength;
    for (auto it = content.linkTargets.cbegin(); it != content.linkTargets.cend(); ++it)
        link = std::min(link, it.key());
    const quint32 target = content.linkTargets.value(link);
    QTextCursor cursor(content.text.get());
    cursor.setPosition(content.map.positionForCp(link) + 2);
    EXPECT_EQ(cursor.charFormat().anchorHref(), QStringLiteral("cp:%1").arg(link));
    window->setSelection(link, link);
    window->followLink(link);
    EXPECT_EQ(window->currentTopic(), content.chapterAt(target));
    EXPECT_EQ(window->selectionStart(), target);
    EXPECT_GT(window->selectionEnd(), target);
    window->navigate(true);
    EXPECT_EQ(window->currentTopic(), content.chapterAt(link));

    // The same bookmark through its number.
    const auto number = std::size_t(
        std::find(content.bookmarkCps.begin(), content.bookmarkCps.end(), target) - content.bookmarkCps.begin());
    ASSERT_LT(number, content.bookmarkCps.size());
    window->close();
    KSVellumaHelpWC *again = KSVellumaHelpWC::displayHelp(int(number));
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->selectionStart(), target);
    again->close();
}

TEST_F(HelpWindow, AFindHitFlashesAndANamedFileTakesThePreferences)
{
    ASSERT_TRUE(VLSetUpHelpEngine());
    VLDocument &preferences = *VLPreferencesDocument();
    // The user's own normal chapter record and a style of theirs, each with a byte to know it by,
    // and a placeholder style that stays behind.
    QByteArray record(kVLPropertyRecordSize, '\0');
    VLInitialiseRecord(record.data(), kRecordChap);
    record[kVLPropertyRecordSize - 1] = 'c';
    const qint32 oldChapter = preferences.normalChapter();
    preferences.setNormalChapter(preferences.appendProperty(record.constData()));
    VLInitialiseRecord(record.data(), kRecordPara);
    record[kVLPropertyRecordSize - 1] = 'p';
    const QString tip = QStringLiteral("Tip"), spare = QStringLiteral("Spare");
    const auto tipIndex = qint32(preferences.styles().count());
    VLStyle style {254, {}, kRecordPara, 0, tipIndex, preferences.appendProperty(record.constData()), -1};
    preferences.styles().addEntry(&style, &tip);
    style.type = kRecordUnusedStyle;
    preferences.styles().addEntry(&style, &spare);
    const auto styleIndex = [](const VLDocument &document, const QString &name) {
        std::size_t at = KSNotFound;
        return document.styles().findString(name, false, &at) && at < document.styles().count() ? qint64(at) : -1;
    };
    const auto lastByte = [](const VLDocument &document, qint64 index) {
        const void *found = document.property(index);
        return found ? static_cast<const char *>(found)[kVLPropertyRecordSize - 1] : '\0';
    };

    const QString path = QStringLiteral(TANNER_TEST_DATA_DIR "/help/Table.TWwrite");
    KSVellumaHelpWC *window = KSVellumaHelpWC::displayFileAsHelp(path);
    ASSERT_NE(window, nullptr);
    const auto &document = *static_cast<const VLDocument *>(window->content().document.get());
    EXPECT_EQ(lastByte(document, document.normalChapter()), 'c');
    const qint64 tipAt = styleIndex(document, tip);
    ASSERT_GE(tipAt, 0);
    EXPECT_EQ(styleIndex(document, spare), -1);
    EXPECT_EQ(document.styleName(0), QStringLiteral("Normal"));
    EXPECT_EQ(document.styleAt(std::size_t(tipAt)).next, tipAt);
    EXPECT_EQ(document.styleAt(std::size_t(tipAt)).base, 0);
    EXPECT_EQ(lastByte(document, document.styleAt(std::size_t(tipAt)).prop), 'p');

    // A hit inside a table cell, where positions and cps part: marked over exactly its text, then
    // unmarked once the flash is over.
    KSVellumaHelpWC::setFlashDuration(50);
    const QString text = document.text().toString();
    const auto extra = quint32(text.indexOf(u"extra"));
    const KSCpMap &map = window->content().map;
    ASSERT_NE(map.positionForCp(extra), int(extra));
    auto *field = window->findChild<QLineEdit *>(QStringLiteral("searchField"));
    field->setText(QStringLiteral("extra"));
    emit field->returnPressed();
    EXPECT_EQ(window->selectionStart(), extra);
    auto *view = window->findChild<QTextEdit *>();
    ASSERT_EQ(view->extraSelections().size(), 1);
    const QTextEdit::ExtraSelection flash = view->extraSelections().first();
    EXPECT_EQ(flash.cursor.selectionStart(), map.positionForCp(extra));
    EXPECT_EQ(flash.cursor.selectionEnd(), map.endPositionForCp(extra + 5));
    EXPECT_EQ(flash.cursor.selectedText(), QStringLiteral("extra"));
    EXPECT_TRUE(flash.format.hasProperty(QTextFormat::BackgroundBrush));
    QTest::qWait(200);
    EXPECT_TRUE(view->extraSelections().isEmpty());
    KSVellumaHelpWC::setFlashDuration(500);
    window->close();

    // The application's own help keeps its look.
    KSVellumaHelpWC::setApplicationHelpPath(QStringLiteral(TANNER_HELP_PACKAGE));
    KSVellumaHelpWC *help = KSVellumaHelpWC::displayHelp();
    ASSERT_NE(help, nullptr);
    const auto &own = *static_cast<const VLDocument *>(help->content().document.get());
    EXPECT_EQ(styleIndex(own, tip), -1);
    EXPECT_NE(lastByte(own, own.normalChapter()), 'c');
    help->close();

    preferences.styles().deleteEntryAtIndex(std::size_t(tipIndex) + 1);
    preferences.styles().deleteEntryAtIndex(std::size_t(tipIndex));
    preferences.setNormalChapter(oldChapter);
}

TEST(HelpWindowCommand, AFileThatCannotBeReadIsReported)
{
    ScopedXdgHome home;
    const ProcessResult result = RunTanner({QStringLiteral("help"), QStringLiteral("--window"),
                                               QStringLiteral("--file"), home.path() + QStringLiteral("/None.TWwrite")},
        home.environment());
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(result.err.contains("Can't read help file")) << result.err.toStdString();
}

// A picture is decoded at about the size it is shown at, not at its own: a 5600 x 5600 picture
// (a few kilobytes of PNG, 125 MB decoded) keeps no more than twice a column's width.
TEST_F(HelpWindow, APictureIsDecodedAtTheSizeItIsShown)
{
    ASSERT_TRUE(VLSetUpHelpEngine());
    QTemporaryDir dir;
    const QString package = dir.path() + QStringLiteral("/Big.TWwrite");
    const QString source = QStringLiteral(TANNER_TEST_DATA_DIR "/help/Good.TWwrite");
    for (const QString &name : {QStringLiteral("structure.xml"), QStringLiteral("format.xml"),
             QStringLiteral("document.txt"), QStringLiteral("Images/diagram.png")}) {
        QDir().mkpath(QFileInfo(package + u'/' + name).absolutePath());
        ASSERT_TRUE(QFile::copy(source + u'/' + name, package + u'/' + name));
    }
    QImage big(5600, 5600, QImage::Format_Mono);
    big.fill(1);
    ASSERT_TRUE(big.save(package + QStringLiteral("/Images/shot.png")));
    big = QImage();

    QString reason;
    std::unique_ptr<KSHelpContent> content = KSLoadHelpContent(package, &reason);
    ASSERT_NE(content, nullptr) << reason.toStdString();
    int pictures = 0;
    for (QTextBlock block = content->text->begin(); block.isValid(); block = block.next()) {
        for (auto it = block.begin(); !it.atEnd(); ++it) {
            const QTextImageFormat format = it.fragment().charFormat().toImageFormat();
            if (!format.isValid())
                continue;
            const QImage image
                = content->text->resource(QTextDocument::ImageResource, QUrl(format.name())).value<QImage>();
            ASSERT_FALSE(image.isNull());
            EXPECT_LE(image.width(), 2 * format.width()) << format.name().toStdString();
            EXPECT_LE(format.width(), 560);
            ++pictures;
        }
    }
    EXPECT_GE(pictures, 1);
}

// The manual in a dark theme and in the user's font: text without a colour of its own takes the
// palette's, links a link colour that reads on the page, and the help font sets the family and size
// of the text, headings keeping their proportion.
TEST_F(HelpWindow, ThePageFollowsThePaletteAndTheHelpFont)
{
    KSVellumaHelpWC::setApplicationHelpPath(QStringLiteral(TANNER_HELP_PACKAGE));
    KSVellumaHelpWC *window = KSVellumaHelpWC::displayHelp();
    ASSERT_NE(window, nullptr);
    auto fragments = [](const QTextDocument &text, const std::function<void(const QTextFragment &)> &each) {
        for (QTextBlock block = text.begin(); block.isValid(); block = block.next())
            for (auto it = block.begin(); !it.atEnd(); ++it)
                each(it.fragment());
    };
    int coloured = 0, sized = 0, family = 0, headings = 0;
    fragments(*window->content().text, [&](const QTextFragment &fragment) {
        const QTextCharFormat format = fragment.charFormat();
        coloured += format.hasProperty(QTextFormat::ForegroundBrush) && !format.isAnchor();
        sized += format.hasProperty(QTextFormat::FontPointSize) && !format.hasProperty(kRelativeSizeProperty);
        family += format.hasProperty(QTextFormat::FontFamilies)
            && format.fontFamilies().toStringList() != QStringList {QStringLiteral("Monospace")};
        headings += format.hasProperty(kRelativeSizeProperty);
    });
    // A numbered item's tab goes to where its other lines start: no wide gap after "1.".
    int items = 0;
    for (QTextBlock block = window->content().text->begin(); block.isValid(); block = block.next()) {
        if (!QRegularExpression(QStringLiteral("^\\d+\\.\t")).match(block.text()).hasMatch())
            continue;
        ++items;
        const QTextBlockFormat format = block.blockFormat();
        ASSERT_LT(format.textIndent(), 0);
        ASSERT_FALSE(format.tabPositions().isEmpty());
        EXPECT_EQ(format.tabPositions().first().position, format.leftMargin());
    }
    EXPECT_GT(items, 0);
    EXPECT_EQ(coloured, 0);
    EXPECT_EQ(sized, 0);
    EXPECT_EQ(family, 0);
    EXPECT_GT(headings, 0);
    // The font dialog opens on the font on screen: the document's body font, resolved.
    EXPECT_EQ(window->helpFont().pointSizeF(), 12.0);
    QFont offered;
    KSVellumaHelpWC::setNextFontAnswer([&offered](QFont *font) {
        offered = *font;
        return false;
    });
    window->showFonts();
    EXPECT_EQ(offered.family(), QFontInfo(window->helpFont()).family());
    EXPECT_EQ(offered.pointSizeF(), 12.0);

    // Dark: the links read on the page.
    QPalette dark;
    dark.setColor(QPalette::Window, QColor(0x35, 0x35, 0x35));
    dark.setColor(QPalette::WindowText, Qt::white);
    dark.setColor(QPalette::Base, QColor(0x2a, 0x2a, 0x2a));
    dark.setColor(QPalette::Text, Qt::white);
    dark.setColor(QPalette::Link, QColor(0x1a, 0x5f, 0xb4)); // a light theme's blue, as some dark themes keep
    const QPalette light = QApplication::palette();
    QApplication::setPalette(dark);
    QApplication::processEvents();
    auto luminance = [](const QColor &c) {
        auto channel = [](double v) { return v <= 0.03928 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4); };
        return 0.2126 * channel(c.redF()) + 0.7152 * channel(c.greenF()) + 0.0722 * channel(c.blueF());
    };
    int links = 0;
    fragments(*window->content().text, [&](const QTextFragment &fragment) {
        if (!fragment.charFormat().isAnchor())
            return;
        ++links;
        const double a = luminance(fragment.charFormat().foreground().color()),
                     b = luminance(dark.color(QPalette::Base));
        EXPECT_GE((std::max(a, b) + 0.05) / (std::min(a, b) + 0.05), 4.5) << fragment.text().toStdString();
    });
    EXPECT_GT(links, 0);
    QApplication::setPalette(light);
    window->close();

    // The user's help font: its family and size for the text, headings in proportion.
    OpenSettingsFile(SharedDefaultsPath())
        ->setValue(
            QStringLiteral("com.tannerwick.shared.helpfont"), QFont(QStringLiteral("DejaVu Serif"), 20).toString());
    KSVellumaHelpWC *serif = KSVellumaHelpWC::displayHelp();
    ASSERT_NE(serif, nullptr);
    const QTextDocument &shown = *serif->content().text;
    EXPECT_EQ(shown.defaultFont().family(), QStringLiteral("DejaVu Serif"));
    EXPECT_DOUBLE_EQ(shown.defaultFont().pointSizeF(), 20.0 * serif->zoom());
    fragments(shown, [&](const QTextFragment &fragment) {
        const QTextCharFormat format = fragment.charFormat();
        if (format.hasProperty(kRelativeSizeProperty))
            EXPECT_DOUBLE_EQ(
                format.fontPointSize(), 20.0 * serif->zoom() * format.doubleProperty(kRelativeSizeProperty));
    });
    serif->close();
}

// A named file's window: its copy is of that file, it leaves the zoom setting alone, and a picture
// whose bytes only begin like a PNG is a missing picture (the caution sign and the log line).
TEST_F(HelpWindow, ANamedFileIsItsOwnAndABrokenPictureIsMissing)
{
    const QString single = QStringLiteral(TANNER_TEST_DATA_DIR "/help/good.xml");
    KSVellumaHelpWC *window = KSVellumaHelpWC::displayFileAsHelp(single);
    ASSERT_NE(window, nullptr);
    window->zoomIn();
    EXPECT_FALSE(OpenSettingsFile(UserDefaultsPath())->contains(QStringLiteral("ks.helpZoom")));
    QTemporaryDir target;
    KSSetNextChooserAnswer(QStringList {target.path()});
    Action(window, "saveHelpFileAction")->trigger();
    const QString copy = target.path() + QStringLiteral("/good.xml");
    EXPECT_EQ(revealed, QStringList {copy});
    QFile original(single), saved(copy);
    ASSERT_TRUE(original.open(QIODevice::ReadOnly) && saved.open(QIODevice::ReadOnly));
    EXPECT_EQ(saved.readAll(), original.readAll());
    window->close();

    QTemporaryDir packages;
    const QString package = packages.path() + QStringLiteral("/Broken.TWwrite");
    QString why;
    ASSERT_TRUE(KSCopyPackage(QStringLiteral(TANNER_TEST_DATA_DIR "/help/Good.TWwrite"), package, &why))
        << why.toStdString();
    QFile picture(package + QStringLiteral("/Images/shot.png"));
    ASSERT_TRUE(picture.open(QIODevice::WriteOnly | QIODevice::Truncate));
    picture.write(QByteArray("\x89PNG\r\n\x1a\n", 8) + QByteArray(200, 'x'));
    picture.close();
    QStringList logged;
    SetLogSink([&logged](const QString &line) { logged.append(line); });
    std::unique_ptr<KSHelpContent> content = KSLoadHelpContent(package);
    SetLogSink({});
    ASSERT_NE(content, nullptr);
    EXPECT_TRUE(logged.contains(QStringLiteral("Can't read image shot.png"))) << logged.join(u'|').toStdString();
    const auto &document = *static_cast<const VLDocument *>(content->document.get());
    bool caution = false;
    for (std::size_t i = 0; i < document.pictureCount(); ++i)
        caution = caution || (document.picture(i)->image && document.picture(i)->image->caution);
    EXPECT_TRUE(caution);
    int images = 0;
    for (QTextBlock block = content->text->begin(); block.isValid(); block = block.next())
        for (auto it = block.begin(); !it.atEnd(); ++it)
            images += it.fragment().charFormat().isImageFormat();
    EXPECT_GE(images, 1);
}
