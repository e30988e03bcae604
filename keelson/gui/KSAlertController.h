// The alert box itself: a message, optional further information, one to three buttons and an
// optional "Don't show this message again" check box and an optional "Help" button, sized to its
// text. Main thread.
#pragma once

#include <QDialog>
#include <QStringList>

#include <functional>
#include <memory>

namespace Ui {
class KSAlertWindow;
}
class QAbstractButton;

class KSAlertController : public QDialog {
    Q_OBJECT
public:
    // Response codes: the tags of the three buttons.
    enum Response : int { kFirstButton = 1000, kSecondButton = 1001, kThirdButton = 1002 };

    // suppress: where the check box's state is written on closing; null means no check box.
    KSAlertController(const QString &message, const QString &moreInfo, const QStringList &buttonStrings, bool *suppress,
        QWidget *parent = nullptr);
    ~KSAlertController() override;

    int runModal();
    // Window-modal on the host; the handler gets the response once the box is closed.
    void beginSheetModalForWindow(QWidget *host, std::function<void(int response)> completionHandler);
    void closeAlert(QAbstractButton *sender);
    QAbstractButton *suppressionButton() const;
    QAbstractButton *button(int response) const;
    // Shows the "Help" button: pressing it calls `help` with the box and leaves the box open.
    void setHelpAction(std::function<void(QWidget *box)> help);
    QAbstractButton *helpButton() const;

protected:
    void keyPressEvent(QKeyEvent *event) override;
    void closeEvent(QCloseEvent *event) override;

private:
    std::unique_ptr<Ui::KSAlertWindow> ui;
    bool *suppressPtr;
    QStringList buttonStrings;
    std::function<void(QWidget *box)> help;
};
