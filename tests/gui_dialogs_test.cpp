// The alert box, the rule dialog and the extra-items dialog, driven as a person would.
#include "app/BUAppController.h"
#include "help/BUHelpBookmarks.h"
#include "help/window/KSVellumaHelpWC.h"
#include "keelson/gui/KSAlert.h"
#include "keelson/gui/KSAlertController.h"
#include "keelson/gui/KSFileChooser.h"
#include "tests/support/GuiTestSupport.h"
#include "tests/support/TestSupport.h"
#include "ui/BUExtraStuffDialog.h"
#include "ui/BURuleDialog.h"

#include <QAbstractItemModelTester>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDir>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>
#include <QPushButton>
#include <QRadioButton>
#include <QTableView>
#include <QTest>
#include <QWindow>

using namespace tanner::test;

namespace {

QStringList Archives(const BURuleList &rules)
{
    QStringList archives;
    for (const BUIgnoreRule &rule : rules)
        archives.append(rule.archive());
    return archives;
}

BURuleList Rules(const QStringList &archives)
{
    BURuleList rules;
    for (const QString &archive : archives)
        rules.append(BUIgnoreRule(archive));
    return rules;
}

} // namespace

TEST(AlertBox, KeysButtonsAndSuppression)
{
    EnsureApplication();
    {
        // One button, no information: the box shows only what it has; Escape still closes it.
        KSAlertController box(QStringLiteral("Backup to Disk failed."), QString(), {}, nullptr);
        box.show();
        EXPECT_FALSE(box.findChild<QLabel *>(QStringLiteral("infoField"))->isVisible());
        EXPECT_FALSE(box.suppressionButton()->isVisible());
        EXPECT_FALSE(box.button(KSAlertController::kSecondButton)->isVisible());
        EXPECT_FALSE(box.helpButton()->isVisible());
        QTest::keyClick(&box, Qt::Key_Escape);
        EXPECT_EQ(box.result(), KSAlertController::kSecondButton);
        KSAlertController enter(QStringLiteral("m"), QStringLiteral("info"), {}, nullptr);
        enter.show();
        QTest::keyClick(&enter, Qt::Key_Enter);
        EXPECT_EQ(enter.result(), KSAlertController::kFirstButton);
    }
    {
        bool suppress = true;
        KSAlertController box(QStringLiteral("Close?"), QStringLiteral("Unsaved."),
            {QStringLiteral("Save"), QStringLiteral("Cancel"), QStringLiteral("Don't Save")}, &suppress);
        box.show();
        EXPECT_TRUE(box.suppressionButton()->isVisible());
        box.suppressionButton()->click();
        QTest::keyClick(&box, Qt::Key_X, Qt::ControlModifier); // not the third button's letter
        EXPECT_EQ(box.result(), 0);
        QTest::keyClick(&box, Qt::Key_D, Qt::ControlModifier);
        EXPECT_EQ(box.result(), KSAlertController::kThirdButton);
        EXPECT_TRUE(suppress);
    }
    // The shared entry point goes through the test answerer and resets the suppression flag.
    QStringList seen;
    KSAlert::setTestAnswerer([&](const KSAlert::Shown &shown) {
        seen << shown.message << shown.moreInfo;
        return int(KSAlertController::kFirstButton);
    });
    bool suppress = true;
    EXPECT_EQ(KSAlert::sharedInstance().giveAlertMessage(QStringLiteral("a"), QStringLiteral("b"), {}, &suppress),
        KSAlertController::kFirstButton);
    EXPECT_FALSE(suppress);
    EXPECT_EQ(seen, (QStringList {QStringLiteral("a"), QStringLiteral("b")}));
    KSAlert::setTestAnswerer({});
}

TEST(AlertBox, HelpLeavesTheBoxWaitingForItsAnswer)
{
    EnsureApplication();
    QList<QWidget *> helped;
    KSAlertController box(QStringLiteral("This backup would delete 9 of the 10 items on \"Disk\"."),
        QStringLiteral("Check."), {QStringLiteral("Backup"), QStringLiteral("Cancel"), QStringLiteral("Review")},
        nullptr);
    box.setHelpAction([&](QWidget *asking) { helped.append(asking); });
    box.show();
    ASSERT_TRUE(box.helpButton()->isVisible());
    box.helpButton()->click();
    EXPECT_EQ(helped, QList<QWidget *> {&box});
    EXPECT_TRUE(box.isVisible());
    EXPECT_EQ(box.result(), 0);
    // F1 is the Help button; Ctrl + the third button's letter does not answer a question with help.
    QTest::keyClick(&box, Qt::Key_F1);
    EXPECT_EQ(helped, (QList<QWidget *> {&box, &box}));
    QTest::keyClick(&box, Qt::Key_R, Qt::ControlModifier);
    EXPECT_TRUE(box.isVisible());
    helped.removeLast();
    // Return on the focused "Help" still answers with the default button.
    box.helpButton()->setFocus();
    QTest::keyClick(box.helpButton(), Qt::Key_Return);
    EXPECT_EQ(helped.size(), 1);
    EXPECT_EQ(box.result(), KSAlertController::kFirstButton);

    // The shared entry point hands the action to the answerer, and only where one was given.
    int helps = 0;
    KSAlert::setTestAnswerer([&](const KSAlert::Shown &shown) {
        if (shown.help) {
            shown.help(nullptr);
            ++helps;
        }
        return int(KSAlertController::kSecondButton);
    });
    EXPECT_EQ(KSAlert::sharedInstance().giveAlertMessageWithHelp(
                  QStringLiteral("a"), QStringLiteral("b"), {}, [&](QWidget *asking) { helped.append(asking); }),
        KSAlertController::kSecondButton);
    KSAlert::sharedInstance().giveAlertMessage(QStringLiteral("c"), QStringLiteral("d"));
    EXPECT_EQ(helps, 1);
    EXPECT_EQ(helped, (QList<QWidget *> {&box, nullptr}));
    KSAlert::setTestAnswerer({});
}

TEST(RuleDialog, CommitMergesDuplicatesAndEdits)
{
    // A new rule equal to an existing one (name differing in case) leaves the list unchanged.
    BURuleList list = Rules({QStringLiteral("00Alpha"), QStringLiteral("00Beta")});
    BURuleDialog::commitRule(list, BUIgnoreRule(QStringLiteral("00ALPHA")), BURuleDialog::kNewRuleIndex);
    EXPECT_EQ(Archives(list), (QStringList {QStringLiteral("00Alpha"), QStringLiteral("00Beta")}));
    // Editing A into a copy of B removes A and keeps B.
    BURuleDialog::commitRule(list, BUIgnoreRule(QStringLiteral("00beta")), 0);
    EXPECT_EQ(Archives(list), QStringList {QStringLiteral("00Beta")});
    // Editing only the case keeps the old text; a real edit replaces and re-sorts.
    list = Rules({QStringLiteral("00Alpha"), QStringLiteral("00Beta")});
    BURuleDialog::commitRule(list, BUIgnoreRule(QStringLiteral("00alpha")), 0);
    EXPECT_EQ(Archives(list), (QStringList {QStringLiteral("00Alpha"), QStringLiteral("00Beta")}));
    BURuleDialog::commitRule(list, BUIgnoreRule(QStringLiteral("00Zeta")), 0);
    EXPECT_EQ(Archives(list), (QStringList {QStringLiteral("00Beta"), QStringLiteral("00Zeta")}));
    BURuleDialog::commitRule(list, BUIgnoreRule(QStringLiteral("01   ")), BURuleDialog::kNewRuleIndex);
    EXPECT_EQ(list.front().name(), QStringLiteral("   ")); // spaces only are taken as they are
}

TEST(RuleDialog, ExamplesAndOkButtonAsAPersonUsesThem)
{
    EnsureApplication();
    ScopedXdgHome home;
    BUAppController &controller = BUAppController::sharedInstance();
    controller.ignoreFiles() = Rules({QStringLiteral("10log")});

    BURuleDialog dialog(BURuleDialog::kNewRuleIndex, 2, nullptr);
    dialog.show();
    auto *ok = dialog.findChild<QPushButton *>(QStringLiteral("okButton"));
    auto *text = dialog.findChild<QLineEdit *>(QStringLiteral("compareValueLineEdit"));
    EXPECT_FALSE(ok->isEnabled());
    EXPECT_FALSE(dialog.findChild<QLabel *>(QStringLiteral("folderNameField"))->isVisible());
    QTest::keyClicks(text, QStringLiteral("x"));
    EXPECT_TRUE(ok->isEnabled());
    QTest::keyClick(text, Qt::Key_Backspace);
    EXPECT_FALSE(ok->isEnabled());

    dialog.findChild<QRadioButton *>(QStringLiteral("extensionRadioButton"))->setChecked(true);
    KSSetNextChooserAnswer(QStringList {QStringLiteral("/tmp/photo.jpg")});
    dialog.chooseExample();
    EXPECT_EQ(KSLastChooserMessage(), QStringLiteral("Select a file as an example of an extension to be ignored"));
    EXPECT_EQ(dialog.compareValue(), QStringLiteral("jpg"));
    KSSetNextChooserAnswer(QStringList {QStringLiteral("/tmp/README")});
    dialog.chooseExample();
    EXPECT_EQ(dialog.compareValue(), QString());
    EXPECT_TRUE(ok->isEnabled()); // an empty extension is a valid rule
    dialog.findChild<QRadioButton *>(QStringLiteral("nameRadioButton"))->setChecked(true);
    KSSetNextChooserAnswer(QStringList {QStringLiteral("/tmp/photo.jpg")});
    dialog.chooseExample();
    EXPECT_EQ(dialog.compareValue(), QStringLiteral("photo"));
    KSSetNextChooserAnswer(QStringList {});
    dialog.chooseExample(); // cancelled: nothing changes
    EXPECT_EQ(dialog.compareValue(), QStringLiteral("photo"));

    BUIgnoreRule committed;
    QObject::connect(&dialog, &BURuleDialog::ruleCommitted, [&](const BUIgnoreRule &rule) { committed = rule; });
    dialog.findChild<QComboBox *>(QStringLiteral("relationComboBox"))->setCurrentIndex(2);
    ok->click();
    EXPECT_EQ(committed.archive(), QStringLiteral("02photo"));
    EXPECT_EQ(Archives(controller.ignoreFiles()), (QStringList {QStringLiteral("02photo"), QStringLiteral("10log")}));

    // Editing shows the rule; a folder dialog takes the whole name of whatever was chosen.
    BURuleDialog edit(1, 2, nullptr);
    EXPECT_EQ(edit.compareValue(), QStringLiteral("log"));
    EXPECT_TRUE(edit.findChild<QRadioButton *>(QStringLiteral("extensionRadioButton"))->isChecked());
    BURuleDialog folders(BURuleDialog::kNewRuleIndex, 1, nullptr);
    KSSetNextChooserAnswer(QStringList {QStringLiteral("/tmp/photo.jpg")});
    folders.chooseExample();
    EXPECT_EQ(KSLastChooserMessage(), QStringLiteral("Select a folder as an example to be ignored"));
    EXPECT_EQ(folders.compareValue(), QStringLiteral("photo.jpg"));
}

TEST(ExtraItemsDialog, NamesTheDeviceOnceAndListsTheItems)
{
    EnsureApplication();
    const QStringList items = {QStringLiteral("Movies"), QStringLiteral("notes.txt"), QStringLiteral("zzz")};
    BUExtraStuffModel model(items);
    QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
    EXPECT_EQ(model.rowCount(), 3);
    EXPECT_EQ(model.index(1, 0).data().toString(), QStringLiteral("notes.txt"));

    bool shown = false;
    BUExtraStuffDialog::setTestHook([&](BUExtraStuffDialog &dialog) {
        shown = true;
        EXPECT_TRUE(dialog.warningText().contains(QStringLiteral("\"Disk ### 2\"")));
        EXPECT_FALSE(dialog.warningText().contains(QStringLiteral("\"Disk Disk")));
        auto *table = dialog.findChild<QTableView *>(QStringLiteral("extraStuffTable"));
        EXPECT_EQ(table->model()->rowCount(), 3);
        EXPECT_EQ(table->model()->index(2, 0).data().toString(), QStringLiteral("zzz"));
        dialog.findChild<QPushButton *>(QStringLiteral("dismissButton"))->click();
    });
    BUExtraStuffDialog::runDialogForTarget(QStringLiteral("Disk ### 2"), items);
    EXPECT_TRUE(shown);
    BUExtraStuffDialog::setTestHook({});
}

TEST(ExtraItemsDialog, HelpOpensItsTopicOverTheDialog)
{
    EnsureApplication();
    ScopedXdgHome home;
    KSVellumaHelpWC::setApplicationHelpPath(QStringLiteral(TANNER_HELP_PACKAGE));
    QPointer<KSVellumaHelpWC> help;
    BUExtraStuffDialog::setTestHook([&](BUExtraStuffDialog &dialog) {
        dialog.findChild<QPushButton *>(QStringLiteral("helpButton"))->click();
        for (QWidget *widget : QApplication::topLevelWidgets()) {
            if (auto *window = qobject_cast<KSVellumaHelpWC *>(widget); window && window->isVisible())
                help = window;
        }
        EXPECT_TRUE(dialog.isVisible());
        if (help) {
            // At the bookmark, and standing over the modal dialog so that it takes input.
            const KSHelpContent &content = help->content();
            const quint32 cp = content.bookmarkCps.at(std::size_t(BUHelpBookmark::kExtraItems));
            EXPECT_EQ(help->currentTopic(), content.chapterAt(cp));
            EXPECT_EQ(help->selectionStart(), cp);
            EXPECT_EQ(help->windowHandle()->transientParent(), dialog.windowHandle());
        }
        dialog.dismiss();
    });
    BUExtraStuffDialog::runDialogForTarget(QStringLiteral("Disk"), {QStringLiteral("Movies")});
    BUExtraStuffDialog::setTestHook({});
    ASSERT_FALSE(help.isNull());
    EXPECT_TRUE(help->isVisible()); // the help outlives the dialog, on its own again
    EXPECT_EQ(help->windowHandle()->transientParent(), nullptr);
    help->close();
    delete help.data();
}

TEST(RuleDialog, TheRealChooserTakesAFolderAsTheExample)
{
    // Not the answer a test injects: Qt's own dialog, driven as a person drives it.
    EnsureApplication();
    ScopedXdgHome home;
    const QString parent = home.path() + QStringLiteral("/examples");
    WriteTree(parent, {{QStringLiteral("node_modules/x.js"), "x"}, {QStringLiteral("notes.txt"), "n"}});
    auto choose = [&](const QString &item, QString *startedIn) {
        QTimer::singleShot(0, [&, item] {
            auto *chooser = qobject_cast<QFileDialog *>(QApplication::activeModalWidget());
            ASSERT_NE(chooser, nullptr);
            *startedIn = chooser->directory().absolutePath();
            chooser->setDirectory(parent);
            chooser->selectFile(item);
            chooser->findChild<QDialogButtonBox *>()->button(QDialogButtonBox::Open)->click();
            if (chooser->isVisible())
                chooser->reject(); // it went into the folder instead of taking it
        });
    };
    BURuleDialog folderRule(BURuleDialog::kNewRuleIndex, 1);
    QString startedIn;
    choose(QStringLiteral("node_modules"), &startedIn);
    folderRule.chooseExample();
    EXPECT_EQ(folderRule.compareValue(), QStringLiteral("node_modules"));
    EXPECT_EQ(startedIn, QDir::homePath()); // not the folder the program was started in
    // A file still does, also for a folder rule.
    choose(QStringLiteral("notes.txt"), &startedIn);
    folderRule.chooseExample();
    EXPECT_EQ(folderRule.compareValue(), QStringLiteral("notes.txt"));
}
