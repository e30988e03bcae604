// The news check's window controller: the "KSNewsUpdates" dialog, the hourly timer of the
// automatic check (which fetches at most once a day, and only when the user turned it on), and
// the check on demand. The dialog shows the items newer than the last one shown. Main thread.
#pragma once

#include <QObject>
#include <QString>

#include <memory>

class KSNewsUpdaterThread;
class QDialog;
class QLabel;
class QTimer;
struct KSStyledText;
namespace Ui {
class KSNewsUpdates;
}

class KSNewsUpdater : public QObject {
    Q_OBJECT
public:
    static KSNewsUpdater &sharedInstance();
    ~KSNewsUpdater() override;

    enum Pane : int { kMainPane, kCheckingPane, kNewsPane, kNoNewsPane, kFailedPane };

    void displayUpdateDialog();
    void startAutoCheck();
    void autoCheckTimerFired();
    void startCheck(bool reportFailure);
    void proceed();
    void cancel();
    // Cuts the page's text to the news worth showing (see HandleNewsText); false without items.
    bool handleNewsText(KSStyledText &news, int previousDate, int *latestDate);
    void updateDateField(QLabel *field, int dayIndex);

    QDialog *window() const { return m_window.get(); }
    Pane currentPane() const { return m_currentPane; }
    bool isWorking() const { return m_currentDownload != nullptr; }
    int today() const { return m_today; }

private:
    KSNewsUpdater();
    void showPane(Pane pane);
    void runModalIfHidden();
    void reportCheckResults();

    std::unique_ptr<QDialog> m_window;
    std::unique_ptr<Ui::KSNewsUpdates> ui;
    QTimer *m_autoCheckTimer = nullptr;
    KSNewsUpdaterThread *m_currentDownload = nullptr;
    bool m_reportFailure = false;
    int m_today = 0;
    Pane m_currentPane = kMainPane;
};
