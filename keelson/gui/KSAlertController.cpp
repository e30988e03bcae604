#include "keelson/gui/KSAlertController.h"

#include "keelson/KSKernel.h"
#include "ui_KSAlertWindow.h"

#include <QCloseEvent>
#include <QKeyEvent>
#include <QStyle>

KSAlertController::KSAlertController(
    const QString &message, const QString &moreInfo, const QStringList &buttonStrings, bool *suppress, QWidget *parent)
    : QDialog(parent), ui(std::make_unique<Ui::KSAlertWindow>()), suppressPtr(suppress), buttonStrings(buttonStrings)
{
    ui->setupUi(this);
    setWindowTitle(g_appName.isEmpty() ? QStringLiteral("Tanner Backup") : g_appName);
    const int iconSize = style()->pixelMetric(QStyle::PM_MessageBoxIconSize, nullptr, this);
    ui->iconLabel->setPixmap(style()->standardIcon(QStyle::SP_MessageBoxWarning, nullptr, this).pixmap(iconSize));
    QFont bold = ui->messageField->font();
    bold.setBold(true);
    ui->messageField->setFont(bold);
    ui->messageField->setText(message);

    // The box sizes itself to its text: what is absent takes no room.
    ui->infoField->setVisible(!moreInfo.isEmpty());
    ui->infoField->setText(moreInfo);
    ui->suppressionButton->setVisible(suppressPtr != nullptr);
    if (suppressPtr && buttonStrings.size() < 2)
        ui->suppressionButton->setText(QStringLiteral("Don't show this message again"));

    ui->helpButton->setVisible(false);
    connect(ui->helpButton, &QPushButton::clicked, this, [this] {
        if (help)
            help(this);
    });

    QPushButton *buttons[] = {ui->button1, ui->button2, ui->button3};
    const int tags[] = {kFirstButton, kSecondButton, kThirdButton};
    for (int i = 0; i < 3; ++i) {
        buttons[i]->setProperty("tag", tags[i]);
        if (i < buttonStrings.size())
            buttons[i]->setText(buttonStrings[i]);
        // A missing second button is out of sight, yet Escape still answers with its tag.
        buttons[i]->setVisible(i == 0 || i < buttonStrings.size());
        connect(buttons[i], &QPushButton::clicked, this, [this, button = buttons[i]] { closeAlert(button); });
    }
    adjustSize();
}

KSAlertController::~KSAlertController() = default;

QAbstractButton *KSAlertController::suppressionButton() const
{
    return ui->suppressionButton;
}

QAbstractButton *KSAlertController::button(int response) const
{
    switch (response) {
    case kFirstButton:
        return ui->button1;
    case kSecondButton:
        return ui->button2;
    case kThirdButton:
        return ui->button3;
    default:
        return nullptr;
    }
}

void KSAlertController::setHelpAction(std::function<void(QWidget *)> action)
{
    help = std::move(action);
    ui->helpButton->setVisible(bool(help));
    adjustSize();
}

QAbstractButton *KSAlertController::helpButton() const
{
    return ui->helpButton;
}

int KSAlertController::runModal()
{
    setWindowModality(Qt::ApplicationModal);
    return exec();
}

void KSAlertController::beginSheetModalForWindow(QWidget *host, std::function<void(int)> completionHandler)
{
    setParent(host, windowFlags());
    setWindowModality(Qt::WindowModal);
    connect(this, &QDialog::finished, this, [this, completionHandler](int response) {
        hide();
        if (completionHandler)
            completionHandler(response);
    });
    open();
}

void KSAlertController::closeAlert(QAbstractButton *sender)
{
    const int response = sender->property("tag").toInt();
    if (suppressPtr)
        *suppressPtr = ui->suppressionButton->isChecked();
    done(response);
}

void KSAlertController::keyPressEvent(QKeyEvent *event)
{
    switch (event->key()) {
    case Qt::Key_Return:
    case Qt::Key_Enter:
        closeAlert(ui->button1);
        return;
    case Qt::Key_Escape:
        closeAlert(ui->button2);
        return;
    case Qt::Key_F1:
        // The help of the question, as its Help button gives it; the box waits for its answer.
        if (help)
            help(this);
        return;
    default:
        break;
    }
    // Ctrl + the first letter of the third button's title presses it (Ctrl-D for "Don't Save"). A
    // question with help is one to read: no shortcut a habit could press answers it (Ctrl-B would
    // otherwise answer "Backup" to the large-deletion question that Ctrl-B brought up).
    if (!help && ui->button3->isVisible() && (event->modifiers() & Qt::ControlModifier) && !event->text().isEmpty()
        && !ui->button3->text().isEmpty()) {
        const QString title = ui->button3->text().remove(u'&');
        const QChar typed = event->key() >= Qt::Key_A && event->key() <= Qt::Key_Z
            ? QChar(u'a' + (event->key() - Qt::Key_A))
            : event->text().front();
        if (!title.isEmpty() && typed.toLower() == title.front().toLower()) {
            closeAlert(ui->button3);
            return;
        }
    }
    QDialog::keyPressEvent(event);
}

void KSAlertController::closeEvent(QCloseEvent *event)
{
    // The window's close button answers like Escape.
    event->ignore();
    closeAlert(ui->button2);
}
