// The application-modal warning shown when the device's top level holds items that are not
// mirrors of the backup folders: it names the device and lists the items, and its "Help" button
// opens the help on such devices. Nothing is changed on the device. Main thread.
#pragma once

#include <QAbstractTableModel>
#include <QDialog>
#include <QStringList>

#include <memory>

namespace Ui {
class ExtraStuffDialog;
}

// The one-column list of the items, in the order given.
class BUExtraStuffModel : public QAbstractTableModel {
    Q_OBJECT
public:
    explicit BUExtraStuffModel(const QStringList &extraStuff, QObject *parent = nullptr);
    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;

private:
    QStringList extraStuff;
};

class BUExtraStuffDialog : public QDialog {
    Q_OBJECT
public:
    // Runs the dialog modally and returns when the user dismisses it.
    static void runDialogForTarget(const QString &deviceName, const QStringList &extraStuff, QWidget *parent = nullptr);
    BUExtraStuffDialog(const QString &deviceName, const QStringList &extraStuff, QWidget *parent = nullptr);
    ~BUExtraStuffDialog() override;

    QString warningText() const;
    void dismiss();

    // Tests: called with each dialog once it is shown, instead of waiting for a person.
    static void setTestHook(std::function<void(BUExtraStuffDialog &)> hook);

private:
    std::unique_ptr<Ui::ExtraStuffDialog> ui;
    BUExtraStuffModel model;
};
