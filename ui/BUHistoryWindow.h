// The History window: the analyses and backups on record (BURunHistory), newest first, with
// their outcome, for all devices or one; a click on a run shows what it did and, for the last
// run of a device, the actions that failed with their reasons. One window at a time; it reads the
// history again whenever it comes to the front and whenever the main window records a run.
// Main thread.
#pragma once

#include "backup/BURunHistory.h"

#include <QDialog>
#include <QPointer>

#include <functional>

class QComboBox;
class QLabel;
class QMainWindow;
class QMenu;
class QModelIndex;
class QTreeView;
class QTreeWidget;

class BUHistoryWindow : public QDialog {
    Q_OBJECT
public:
    explicit BUHistoryWindow(QWidget *parent = nullptr);

    // Opens the window (or brings it forward) showing the runs of `device`, or all when empty.
    static BUHistoryWindow *showHistory(QWidget *parent, const QString &device = {});
    // The open window, if any.
    static BUHistoryWindow *openWindow();
    // Adds "History" to the menu and "Show History" to the device rows' context menu.
    static void installCommands(
        QMainWindow *window, QMenu *menu, QTreeView *outline, std::function<QString(const QModelIndex &)> deviceAt);

    // Reads the history again, keeping the device shown and the selected run when it is still there.
    void reload();
    void showDevice(const QString &device);
    QString shownDevice() const;
    // The runs listed, newest first.
    const QList<BURunRecord> &shownRuns() const { return runs; }
    void selectRun(int row);

protected:
    void changeEvent(QEvent *event) override;

private:
    void fillRuns();
    void showRunDetails();

    QComboBox *deviceFilter = nullptr;
    QTreeWidget *runList = nullptr;
    QLabel *runSummary = nullptr;
    QTreeWidget *failureList = nullptr;
    QLabel *problemField = nullptr;
    BURunHistory::Contents contents;
    QList<BURunRecord> runs;
};
