// The transaction table's model over the shared transaction list: columns status (a tick or a
// cross; before the backup, a warning sign on a copy the device can't hold beside its namesake,
// with the reason as the row's tooltip), action, type (a folder icon), name and location (with the
// error text under it for a failed transaction). The location says its side: "Source:" for a
// folder of the backup folders, "Device:" for a folder on the backup device. Rows are plain data; nothing per row is a
// widget, so 200,000 rows stay responsive. Main thread.
#pragma once

#include <QAbstractTableModel>
#include <QColor>
#include <QIcon>
#include <QPalette>

class BUTransaction;

class BUTransactionTableModel : public QAbstractTableModel {
    Q_OBJECT
public:
    enum Column : int { kStatusColumn = 0, kActionColumn, kTypeColumn, kNameColumn, kLocationColumn, kColumnCount };

    explicit BUTransactionTableModel(QObject *parent = nullptr);

    // The list was replaced or emptied.
    void reload();
    // Rows [first, last] changed their marks; one signal for the whole range.
    void rowsChanged(int first, int last);

    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

    // The red of failed rows, crosses and failure statuses: sRGB 195, 33, 33, lightened on a dark
    // background (darkened on a light one) until it reads at 4.5:1 or better against each of the
    // palette's backgrounds (base, alternate rows and window).
    static QColor alertRed(const QPalette &palette);
    static QColor alertRed();
    // The WCAG contrast ratio of two colours, 1 to 21.
    static double contrast(const QColor &a, const QColor &b);

    // The location column's text: the parent folder, without the volumes root.
    static QString locationOf(const QString &path);
    // The item a row is about, on the side its location names: the source item, or for a Delete
    // and a failure on the device the item on the device.
    QString sidePath(int row) const;
    // The device the listed transactions go to: a failed copy or update whose source can still
    // be read failed on the device, and its location names the device folder.
    void setDeviceName(const QString &name) { deviceName = name; }
    const QString &listedDevice() const { return deviceName; }

private:
    // The path on the device of an item of the sources (its mirror), or empty when the row is not
    // about the device side.
    QString devicePathOf(const BUTransaction &transaction) const;
    QString locationText(const BUTransaction &transaction, bool failed) const;

    QIcon folderImage;
    QIcon conflictImage;
    QString deviceName;
};
