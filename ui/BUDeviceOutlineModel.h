// The device outline's model: two groups, "Recent Devices" (the application controller's
// mountedRecentDrives) and "Other Devices" (otherDrives), each with its devices; a second column
// shows when each device was last backed up, or "Analyzing" / "In progress" for the device a job
// runs on. Main thread.
#pragma once

#include <QAbstractItemModel>

class BUDeviceOutlineModel : public QAbstractItemModel {
    Q_OBJECT
public:
    enum Group : int { kRecentGroup = 0, kOtherGroup = 1 };
    enum Column : int { kNameColumn = 0, kLastBackupColumn = 1 };

    explicit BUDeviceOutlineModel(QObject *parent = nullptr);

    // The device lists were rebuilt.
    void reload();
    // The job state changed: only the last-backup texts are redrawn. `target`: the job's device.
    void setJobState(bool analyzeInProgress, bool backupInProgress, const QString &target = {});
    void setIs24HourTime(bool value) { is24HourTime = value; }
    // Backup dates changed: redraw the last-backup column.
    void refreshLastBackup();

    QModelIndex groupIndex(int group) const;
    QModelIndex deviceIndex(int group, int row) const;
    // The device name of an index, or empty for a group row.
    QString deviceName(const QModelIndex &index) const;
    // The row of a device by name, in either group; invalid when it is not listed.
    QModelIndex indexOfDevice(const QString &name) const;

    QModelIndex index(int row, int column, const QModelIndex &parent = {}) const override;
    QModelIndex parent(const QModelIndex &child) const override;
    int rowCount(const QModelIndex &parent = {}) const override;
    int columnCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    Qt::ItemFlags flags(const QModelIndex &index) const override;

private:
    const QStringList &groupList(int group) const;

    bool analyzeInProgress = false;
    bool backupInProgress = false;
    QString jobTarget;
    bool is24HourTime = true;
};
