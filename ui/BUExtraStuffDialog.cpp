#include "ui/BUExtraStuffDialog.h"

#include "help/BUHelpBookmarks.h"
#include "ui/BUHelpOverBox.h"
#include "ui_ExtraStuffDialog.h"

#include <QShortcut>
#include <QTimer>

namespace {

std::function<void(BUExtraStuffDialog &)> &TestHook()
{
    static std::function<void(BUExtraStuffDialog &)> hook;
    return hook;
}

} // namespace

BUExtraStuffModel::BUExtraStuffModel(const QStringList &extraStuff, QObject *parent)
    : QAbstractTableModel(parent), extraStuff(extraStuff)
{
}

int BUExtraStuffModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : int(extraStuff.size());
}

int BUExtraStuffModel::columnCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : 1;
}

QVariant BUExtraStuffModel::data(const QModelIndex &index, int role) const
{
    if (!index.isValid() || index.row() >= extraStuff.size() || role != Qt::DisplayRole)
        return {};
    return extraStuff[index.row()];
}

void BUExtraStuffDialog::setTestHook(std::function<void(BUExtraStuffDialog &)> hook)
{
    TestHook() = std::move(hook);
}

void BUExtraStuffDialog::runDialogForTarget(const QString &deviceName, const QStringList &extraStuff, QWidget *parent)
{
    BUExtraStuffDialog dialog(deviceName, extraStuff, parent);
    dialog.setWindowModality(Qt::ApplicationModal);
    if (TestHook())
        QTimer::singleShot(0, &dialog, [&dialog] { TestHook()(dialog); });
    dialog.exec();
}

BUExtraStuffDialog::BUExtraStuffDialog(const QString &deviceName, const QStringList &extraStuff, QWidget *parent)
    : QDialog(parent), ui(std::make_unique<Ui::ExtraStuffDialog>()), model(extraStuff)
{
    ui->setupUi(this);
    // Every "###" of the designed text, once: a name that itself holds "###" is not rescanned.
    ui->warningField->setText(ui->warningField->text().replace(QStringLiteral("###"), deviceName));
    ui->extraStuffTable->setModel(&model);
    connect(ui->dismissButton, &QPushButton::clicked, this, &BUExtraStuffDialog::dismiss);
    // The help on devices that hold other things; the dialog stays up.
    connect(
        ui->helpButton, &QPushButton::clicked, this, [this] { OpenHelpOverBox(this, BUHelpBookmark::kExtraItems); });
    connect(new QShortcut(QKeySequence(Qt::Key_F1), this), &QShortcut::activated, ui->helpButton, &QPushButton::click);
}

BUExtraStuffDialog::~BUExtraStuffDialog() = default;

QString BUExtraStuffDialog::warningText() const
{
    return ui->warningField->text();
}

void BUExtraStuffDialog::dismiss()
{
    ui->extraStuffTable->setModel(nullptr);
    accept();
}
