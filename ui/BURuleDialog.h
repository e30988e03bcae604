// Creates a new ignore rule or edits one, for files (domain 2) or folders (domain 1), as a
// window-modal sheet on the main window. On OK the rule goes into the domain's list of the
// application controller, the list stays sorted and free of duplicates, and ruleCommitted tells
// the window which rule to select. Main thread.
#pragma once

#include "backup/BUIgnoreRule.h"

#include <QDialog>

#include <memory>

namespace Ui {
class RuleDialog;
}

class BURuleDialog : public QDialog {
    Q_OBJECT
public:
    static constexpr quint64 kNewRuleIndex = 4294967295ULL;

    // Opens the sheet on `host`; the dialog deletes itself when closed.
    static BURuleDialog *editRule(quint64 ruleIndex, int ruleDomain, QWidget *host);
    BURuleDialog(quint64 ruleIndex, int ruleDomain, QWidget *parent = nullptr);
    ~BURuleDialog() override;

    // Puts `rule` into `list`: a duplicate is dropped, an edit into a copy of another rule merges
    // into it, an edit replaces the rule at `editedIndex`; then the list is sorted.
    static void commitRule(BURuleList &list, const BUIgnoreRule &rule, quint64 editedIndex);

    QString compareValue() const;
    void setCompareValue(const QString &value);
    void chooseExample();
    void handleOK();
    void handleCancel();

signals:
    void ruleCommitted(const BUIgnoreRule &rule);

private:
    void controlTextDidChange();
    bool extensionChosen() const;

    std::unique_ptr<Ui::RuleDialog> ui;
    quint64 ruleIndex;
    int ruleDomain;
};
