// The update check's window controller: the "KSCheckUpdates" dialog with its panes, the daily
// timer of the automatic check (weekly or monthly, off unless the user turned it on), the check
// on demand and the download of a newer version, each on a KSAppUpdaterThread. A failed check
// is shown only when the user asked for it. Main thread.
#pragma once

#include "keelson/net/KSUpdateCheck.h"

#include <QObject>
#include <QPointer>
#include <QString>

#include <memory>

class KSAppUpdaterThread;
class QDialog;
class QTimer;
namespace Ui {
class KSCheckUpdates;
}

class KSAppUpdater : public QObject {
    Q_OBJECT
public:
    // Created on first use; without a QApplication it has no window and does nothing.
    static KSAppUpdater &sharedInstance();
    ~KSAppUpdater() override;

    enum Pane : int {
        kMainPane,
        kCheckingPane,
        kAvailablePane,
        kDownloadPane,
        kUpToDatePane,
        kCheckFailedPane,
        kDownloadFailedPane
    };

    // The dialog on its main pane, run modally, for a check on demand.
    void displayUpdateDialog();
    // Starts or stops the daily timer as the automatic check is on or off; a new timer fires at once.
    void startAutoCheck();
    // Starts a check when it is due (and no thread runs and the dialog is not up).
    void autoCheckTimerFired();
    void startCheck(bool reportFailure);
    // The main button: check on the main pane, download on the available pane, else close.
    void proceed();
    // Stops the running thread and closes the dialog.
    void cancel();

    QDialog *window() const { return m_window.get(); }
    Pane currentPane() const { return m_currentPane; }
    bool isWorking() const { return m_currentDownload != nullptr; }
    QString updatePath() const { return m_updatePath; }

private:
    KSAppUpdater();
    void showPane(Pane pane);
    void runModalIfHidden();
    void threadFinished();
    void reportCheckResults();
    void reportDownloadResults();
    void reportDownloadProgress();
    void startThread(std::unique_ptr<KSAppUpdaterThread> thread);

    std::unique_ptr<QDialog> m_window;
    std::unique_ptr<Ui::KSCheckUpdates> ui;
    bool m_autoCheck = false;
    bool m_checkMonthly = false;
    QTimer *m_autoCheckTimer = nullptr;
    qint64 m_lastCheckDate = 0; // seconds since 1970; 0 = never
    KSAppUpdaterThread *m_currentDownload = nullptr;
    QString m_updatePath;
    KSVersion m_versionPath;
    bool m_success = false;
    bool m_checkRequest = false;
    bool m_reportFailure = false;
    QString m_availableStringCopy;
    Pane m_currentPane = kMainPane;
    int m_progressMaximum = 0;
};
