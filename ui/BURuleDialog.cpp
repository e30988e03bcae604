#include "ui/BURuleDialog.h"

#include "app/BUAppController.h"
#include "help/BUHelpBookmarks.h"
#include "keelson/KSStrings.h"
#include "keelson/gui/KSFileChooser.h"
#include "ui/BUHelpOverBox.h"
#include "ui_RuleDialog.h"

#include <QShortcut>

BURuleDialog *BURuleDialog::editRule(quint64 ruleIndex, int ruleDomain, QWidget *host)
{
    auto *dialog = new BURuleDialog(ruleIndex, ruleDomain, host);
    dialog->setAttribute(Qt::WA_DeleteOnClose);
    dialog->setWindowModality(Qt::WindowModal);
    dialog->open();
    return dialog;
}

BURuleDialog::BURuleDialog(quint64 ruleIndex, int ruleDomain, QWidget *parent)
    : QDialog(parent), ui(std::make_unique<Ui::RuleDialog>()), ruleIndex(ruleIndex), ruleDomain(ruleDomain)
{
    ui->setupUi(this);
    BUAppController &controller = BUAppController::sharedInstance();
    const BURuleList &list = ruleDomain == 2 ? controller.ignoreFiles() : controller.ignoreFolders();
    if (ruleIndex != kNewRuleIndex && ruleIndex < quint64(list.size())) {
        const BUIgnoreRule &rule = list[qsizetype(ruleIndex)];
        ui->compareValueLineEdit->setText(rule.name());
        if (rule.relation() >= 0 && rule.relation() < 4)
            ui->relationComboBox->setCurrentIndex(rule.relation());
        ui->extensionRadioButton->setChecked(rule.useExtension());
    }
    setWindowTitle(ruleIndex == kNewRuleIndex ? QStringLiteral("New Ignore Rule") : QStringLiteral("Edit Ignore Rule"));
    ui->folderNameField->setVisible(ruleDomain != 2);
    ui->nameOptionMatrix->setVisible(ruleDomain == 2);
    ui->okButton->setEnabled(ruleIndex != kNewRuleIndex);
    ui->compareValueLineEdit->setFocus();

    connect(ui->compareValueLineEdit, &QLineEdit::textEdited, this, &BURuleDialog::controlTextDidChange);
    connect(ui->exampleButton, &QPushButton::clicked, this, &BURuleDialog::chooseExample);
    connect(ui->okButton, &QPushButton::clicked, this, &BURuleDialog::handleOK);
    connect(ui->cancelButton, &QPushButton::clicked, this, &BURuleDialog::handleCancel);
    // F1: the help on rules, over the dialog, which stays up.
    connect(new QShortcut(QKeySequence(Qt::Key_F1), this), &QShortcut::activated, this,
        [this] { OpenHelpOverBox(this, BUHelpBookmark::kAddingAndEditingARule); });
}

BURuleDialog::~BURuleDialog() = default;

QString BURuleDialog::compareValue() const
{
    return ui->compareValueLineEdit->text();
}

void BURuleDialog::setCompareValue(const QString &value)
{
    ui->compareValueLineEdit->setText(value);
}

bool BURuleDialog::extensionChosen() const
{
    return ui->extensionRadioButton->isChecked();
}

void BURuleDialog::controlTextDidChange()
{
    ui->okButton->setEnabled(!compareValue().isEmpty());
}

void BURuleDialog::chooseExample()
{
    QString message;
    if (ruleDomain == 1)
        message = QStringLiteral("Select a folder as an example to be ignored");
    else if (extensionChosen())
        message = QStringLiteral("Select a file as an example of an extension to be ignored");
    else
        message = QStringLiteral("Select a file as an example to be ignored");
    const QStringList chosen = KSChooseItems(this, message, KSChooserMode::FilesOrFolders);
    if (chosen.isEmpty())
        return;
    QString text = LastPathComponent(chosen.front());
    if (ruleDomain == 2)
        text = extensionChosen() ? PathExtension(text) : DeletingPathExtension(text);
    setCompareValue(text);
    ui->okButton->setEnabled(true); // even for an empty extension: "is" then matches files without one
}

void BURuleDialog::commitRule(BURuleList &list, const BUIgnoreRule &rule, quint64 editedIndex)
{
    qsizetype found = -1;
    for (qsizetype i = 0; i < list.size(); ++i) {
        if (list[i].isEqual(rule)) {
            found = i;
            break;
        }
    }
    const bool editing = editedIndex != kNewRuleIndex && editedIndex < quint64(list.size());
    if (found >= 0) {
        if (editing && quint64(found) != editedIndex)
            list.removeAt(qsizetype(editedIndex));
    } else if (editing) {
        list[qsizetype(editedIndex)] = rule;
    } else {
        list.append(rule);
    }
    SortRules(list);
}

void BURuleDialog::handleOK()
{
    BUAppController &controller = BUAppController::sharedInstance();
    BUIgnoreRule rule;
    BURuleList &list = ruleDomain == 1 ? controller.ignoreFolders() : controller.ignoreFiles();
    if (ruleDomain != 1)
        rule.setUseExtension(extensionChosen());
    rule.setName(compareValue());
    rule.setRelation(ui->relationComboBox->currentIndex());
    commitRule(list, rule, ruleIndex);
    controller.saveState();
    emit ruleCommitted(rule);
    handleCancel();
}

void BURuleDialog::handleCancel()
{
    done(QDialog::Rejected);
    close();
}
