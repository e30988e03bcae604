#include "keelson/gui/KSNewsUpdater.h"

#include "keelson/KSDayIndex.h"
#include "keelson/KSKernel.h"
#include "keelson/KSMakerAddresses.h"
#include "keelson/gui/KSUpdaterWindow.h"
#include "keelson/gui/KSWorkspace.h"
#include "keelson/net/KSAppUpdaterThread.h"
#include "keelson/net/KSNewsText.h"
#include "keelson/net/KSUpdateCheck.h"

#include "ui_KSNewsUpdates.h"

#include <QApplication>

namespace {

constexpr int kHourSeconds = 3600;

} // namespace

KSNewsUpdater &KSNewsUpdater::sharedInstance()
{
    // Never destroyed: its window must not outlive the application object in a destructor.
    static KSNewsUpdater *updater = new KSNewsUpdater;
    return *updater;
}

KSNewsUpdater::KSNewsUpdater()
{
    if (!qobject_cast<QApplication *>(QCoreApplication::instance()))
        return;
    m_window = std::make_unique<QDialog>();
    ui = std::make_unique<Ui::KSNewsUpdates>();
    ui->setupUi(m_window.get());
    ui->mainField->setText(ui->mainField->text().replace(QStringLiteral("###"), g_appName));
    ui->checkSpinner->setRange(0, 0);
    // A transfer still running when the application ends stops before the application object goes.
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this, [this] {
        if (m_currentDownload) {
            m_currentDownload->cancel();
            m_currentDownload->wait();
        }
    });
    connect(ui->proceedButton, &QPushButton::clicked, this, &KSNewsUpdater::proceed);
    connect(ui->cancelButton, &QPushButton::clicked, this, &KSNewsUpdater::cancel);
    connect(m_window.get(), &QDialog::rejected, this, [this] {
        if (m_currentDownload)
            m_currentDownload->cancel();
    });
    connect(ui->newsPageLink, &QLabel::linkActivated, this, [] { KSOpenUrl(QUrl(NewsPageUrl())); });
    connect(ui->autoCheckBox, &QCheckBox::toggled, this, [this](bool on) {
        KSUpdateSettings::setAutoNewsCheck(on);
        startAutoCheck();
    });
}

KSNewsUpdater::~KSNewsUpdater() = default;

void KSNewsUpdater::showPane(Pane pane)
{
    m_currentPane = pane;
    ui->panes->setCurrentIndex(pane);
    ui->proceedButton->setEnabled(pane != kCheckingPane);
    ui->proceedButton->setText(pane <= kCheckingPane ? QStringLiteral("Check Now") : QStringLiteral("OK"));
    ui->cancelButton->setVisible(pane <= kCheckingPane);
}

void KSNewsUpdater::runModalIfHidden()
{
    KSRunUpdateDialogIfHidden(m_window.get());
}

void KSNewsUpdater::displayUpdateDialog()
{
    if (!m_window || m_window->isVisible())
        return;
    {
        const QSignalBlocker blocker(ui->autoCheckBox);
        ui->autoCheckBox->setChecked(KSUpdateSettings::autoNewsCheck());
    }
    if (m_currentDownload)
        m_reportFailure = true;
    showPane(m_currentDownload ? kCheckingPane : kMainPane);
    runModalIfHidden();
}

void KSNewsUpdater::startAutoCheck()
{
    if (!m_window)
        return;
    KSSetAutoCheckTimer(this, m_autoCheckTimer, KSUpdateSettings::autoNewsCheck(), std::chrono::seconds(kHourSeconds),
        [this] { autoCheckTimerFired(); });
}

void KSNewsUpdater::autoCheckTimerFired()
{
    m_today = DayIndexForToday();
    if (!m_window || m_currentDownload || m_window->isVisible())
        return;
    if (m_today <= KSUpdateSettings::lastNewsCheck())
        return; // at most once a day
    KSUpdateSettings::setLastNewsCheck(m_today);
    startCheck(false);
}

void KSNewsUpdater::startCheck(bool reportFailure)
{
    if (!m_window || m_currentDownload)
        return;
    m_reportFailure = reportFailure;
    m_currentDownload = new KSNewsUpdaterThread(this);
    connect(m_currentDownload, &QThread::finished, this, &KSNewsUpdater::reportCheckResults);
    m_currentDownload->start();
}

void KSNewsUpdater::proceed()
{
    if (m_currentPane == kMainPane) {
        showPane(kCheckingPane);
        startCheck(true);
    } else {
        m_window->done(QDialog::Accepted);
    }
}

void KSNewsUpdater::cancel()
{
    if (m_currentDownload)
        m_currentDownload->cancel();
    if (m_window)
        m_window->done(QDialog::Rejected);
}

bool KSNewsUpdater::handleNewsText(KSStyledText &news, int previousDate, int *latestDate)
{
    return HandleNewsText(news, previousDate, latestDate);
}

void KSNewsUpdater::updateDateField(QLabel *field, int dayIndex)
{
    field->setText(NewsDateText(dayIndex));
}

void KSNewsUpdater::reportCheckResults()
{
    if (!m_currentDownload)
        return;
    m_currentDownload->wait();
    std::unique_ptr<KSNewsUpdaterThread> thread(m_currentDownload);
    m_currentDownload = nullptr;
    if (thread->wasCancelled())
        return;
    if (!thread->wasSuccessful()) {
        if (!m_reportFailure)
            return; // an automatic check fails silently
        ui->failedReasonField->setText(thread->failureReason());
        showPane(kFailedPane);
        runModalIfHidden();
        return;
    }
    const int previous = KSUpdateSettings::lastNewsDate();
    KSStyledText news = StyledTextFromPage(thread->pageText());
    thread.reset();
    int latest = 0;
    if (!handleNewsText(news, previous, &latest)) {
        if (m_reportFailure) {
            showPane(kNoNewsPane);
            runModalIfHidden();
        }
        return;
    }
    const bool fresh = latest > previous;
    if (!fresh && !m_reportFailure)
        return; // nothing new since the last news shown
    if (fresh)
        KSUpdateSettings::setLastNewsDate(latest);
    updateDateField(ui->dateField, latest);
    ui->newsField->setPlainText(news.text); // in the text colour, without link looks
    showPane(kNewsPane);
    runModalIfHidden();
}
