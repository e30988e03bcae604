#include "keelson/gui/KSAppUpdater.h"

#include "keelson/FormatString.h"
#include "keelson/KSKernel.h"
#include "keelson/gui/KSUpdaterWindow.h"
#include "keelson/gui/KSWorkspace.h"
#include "keelson/net/KSAppUpdaterThread.h"

#include "ui_KSCheckUpdates.h"

#include <QApplication>
#include <QDateTime>
#include <QLabel>

namespace {

constexpr int kDaySeconds = 86400;
constexpr int kUnknownLengthMaximum = 5242880;

// Puts the application's name into every label of the dialog but the one given.
void _PutNameIntoPanes(QWidget *window, const QLabel *except)
{
    for (QLabel *label : window->findChildren<QLabel *>()) {
        if (label != except && label->text().contains(QStringLiteral("###")))
            label->setText(label->text().replace(QStringLiteral("###"), g_appName));
    }
}

} // namespace

KSAppUpdater &KSAppUpdater::sharedInstance()
{
    // Never destroyed: its window must not outlive the application object in a destructor.
    static KSAppUpdater *updater = new KSAppUpdater;
    return *updater;
}

KSAppUpdater::KSAppUpdater()
{
    m_lastCheckDate = KSUpdateSettings::lastUpdateCheck();
    m_autoCheck = KSUpdateSettings::autoUpdate();
    m_checkMonthly = KSUpdateSettings::autoUpdateMonthly();
    if (!qobject_cast<QApplication *>(QCoreApplication::instance()))
        return; // no window without a desktop
    m_window = std::make_unique<QDialog>();
    ui = std::make_unique<Ui::KSCheckUpdates>();
    ui->setupUi(m_window.get());
    m_availableStringCopy = ui->availableField->text();
    _PutNameIntoPanes(m_window.get(), ui->availableField);
    ui->checkSpinner->setRange(0, 0);

    // A transfer still running when the application ends stops before the application object goes.
    connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, this, [this] {
        if (m_currentDownload) {
            m_currentDownload->cancel();
            m_currentDownload->wait();
        }
    });
    connect(ui->proceedButton, &QPushButton::clicked, this, &KSAppUpdater::proceed);
    connect(ui->cancelButton, &QPushButton::clicked, this, &KSAppUpdater::cancel);
    connect(m_window.get(), &QDialog::rejected, this, [this] {
        if (m_currentDownload)
            m_currentDownload->cancel(); // closed from the title bar or with Escape
    });
    connect(ui->autoCheckBox, &QCheckBox::toggled, this, [this](bool on) {
        m_autoCheck = on;
        KSUpdateSettings::setAutoUpdate(on);
        ui->monthlyCheckBox->setEnabled(on);
        startAutoCheck();
    });
    connect(ui->monthlyCheckBox, &QCheckBox::toggled, this, [this](bool on) {
        m_checkMonthly = on;
        KSUpdateSettings::setAutoUpdateMonthly(on);
    });
}

KSAppUpdater::~KSAppUpdater() = default;

void KSAppUpdater::showPane(Pane pane)
{
    m_currentPane = pane;
    ui->panes->setCurrentIndex(pane);
    ui->proceedButton->setEnabled(pane != kCheckingPane && pane != kDownloadPane);
    switch (pane) {
    case kMainPane:
    case kCheckingPane:
        ui->proceedButton->setText(QStringLiteral("Check Now"));
        break;
    case kAvailablePane:
    case kDownloadPane:
        ui->proceedButton->setText(QStringLiteral("Download"));
        break;
    default:
        ui->proceedButton->setText(QStringLiteral("OK"));
        break;
    }
    ui->cancelButton->setVisible(pane <= kDownloadPane);
}

void KSAppUpdater::runModalIfHidden()
{
    KSRunUpdateDialogIfHidden(m_window.get());
}

void KSAppUpdater::displayUpdateDialog()
{
    if (!m_window || m_window->isVisible())
        return;
    {
        const QSignalBlocker autoBlocker(ui->autoCheckBox), monthlyBlocker(ui->monthlyCheckBox);
        ui->autoCheckBox->setChecked(m_autoCheck);
        ui->monthlyCheckBox->setChecked(m_checkMonthly);
        ui->monthlyCheckBox->setEnabled(m_autoCheck);
    }
    if (m_currentDownload && m_checkRequest)
        m_reportFailure = true; // an automatic check is running: its answer now goes to the user
    showPane(m_currentDownload ? (m_checkRequest ? kCheckingPane : kDownloadPane) : kMainPane);
    runModalIfHidden();
}

void KSAppUpdater::startAutoCheck()
{
    if (!m_window)
        return;
    KSSetAutoCheckTimer(
        this, m_autoCheckTimer, m_autoCheck, std::chrono::seconds(kDaySeconds), [this] { autoCheckTimerFired(); });
}

void KSAppUpdater::autoCheckTimerFired()
{
    if (!m_window || m_currentDownload || m_window->isVisible())
        return;
    if (m_lastCheckDate && !UpdateCheckDue(m_lastCheckDate, m_checkMonthly, QDateTime::currentDateTime()))
        return;
    startCheck(false);
}

void KSAppUpdater::startThread(std::unique_ptr<KSAppUpdaterThread> thread)
{
    m_currentDownload = thread.release();
    m_currentDownload->setParent(this);
    connect(m_currentDownload, &QThread::finished, this, &KSAppUpdater::threadFinished);
    connect(m_currentDownload, &KSAppUpdaterThread::doneLengthChanged, this, &KSAppUpdater::reportDownloadProgress);
    m_currentDownload->start();
}

void KSAppUpdater::startCheck(bool reportFailure)
{
    if (!m_window || m_currentDownload)
        return;
    m_updatePath.clear();
    m_checkRequest = true;
    m_success = false;
    m_reportFailure = reportFailure;
    startThread(std::make_unique<KSAppUpdaterThread>());
}

void KSAppUpdater::proceed()
{
    switch (m_currentPane) {
    case kMainPane:
        showPane(kCheckingPane);
        startCheck(true);
        break;
    case kAvailablePane: {
        ui->downloadSpinner->setRange(0, 0);
        ui->downloadSpinner->setValue(0);
        m_progressMaximum = 0;
        ui->downloadAmountField->clear();
        showPane(kDownloadPane);
        m_success = false;
        m_checkRequest = false;
        m_reportFailure = true;
        auto thread = std::make_unique<KSAppUpdaterThread>();
        thread->downloadPath = m_updatePath;
        thread->checkRequest = false;
        startThread(std::move(thread));
        break;
    }
    default:
        m_window->done(QDialog::Accepted);
        break;
    }
}

void KSAppUpdater::cancel()
{
    if (m_currentDownload)
        m_currentDownload->cancel();
    if (m_window)
        m_window->done(QDialog::Rejected);
}

void KSAppUpdater::threadFinished()
{
    if (!m_currentDownload)
        return;
    m_currentDownload->wait();
    if (m_checkRequest)
        reportCheckResults();
    else
        reportDownloadResults();
}

void KSAppUpdater::reportCheckResults()
{
    std::unique_ptr<KSAppUpdaterThread> thread(m_currentDownload);
    m_currentDownload = nullptr;
    if (thread->wasCancelled())
        return;
    m_success = thread->wasSuccessful();
    if (m_success) {
        m_lastCheckDate = QDateTime::currentSecsSinceEpoch();
        KSUpdateSettings::setLastUpdateCheck(m_lastCheckDate);
        m_updatePath = thread->updatePath();
        m_versionPath = thread->downloadVersion();
    }
    if (!m_updatePath.isEmpty()) {
        ui->availableField->setText(
            QString(m_availableStringCopy).replace(QStringLiteral("###"), m_versionPath.text()));
        showPane(kAvailablePane);
    } else if (m_reportFailure) {
        ui->checkFailedReasonField->setText(thread->failureReason());
        showPane(m_success ? kUpToDatePane : kCheckFailedPane);
    } else {
        return; // an automatic check says nothing unless there is something new
    }
    thread.reset();
    runModalIfHidden();
}

void KSAppUpdater::reportDownloadResults()
{
    reportDownloadProgress(); // the last blocks' figures
    std::unique_ptr<KSAppUpdaterThread> thread(m_currentDownload);
    m_currentDownload = nullptr;
    if (thread->wasCancelled())
        return;
    m_success = thread->wasSuccessful();
    if (m_success) {
        KSShowInFileManager(thread->downloadedFile());
        m_window->done(QDialog::Accepted);
    } else {
        ui->downloadFailedReasonField->setText(thread->failureReason());
        showPane(kDownloadFailedPane);
    }
}

void KSAppUpdater::reportDownloadProgress()
{
    if (!m_currentDownload || m_checkRequest)
        return;
    const qint64 done = m_currentDownload->doneLength(), total = m_currentDownload->totalLength();
    const double megabyte = 1048576.0;
    int maximum = kUnknownLengthMaximum;
    if (total > 0) {
        ui->downloadAmountField->setText(
            FormatString("%.2f MB of %.2f MB", double(done) / megabyte, double(total) / megabyte));
        maximum = int(std::min<qint64>(total, INT_MAX));
    } else {
        ui->downloadAmountField->setText(FormatString("%.2f MB", double(done) / megabyte));
    }
    if (maximum != m_progressMaximum) {
        m_progressMaximum = maximum;
        ui->downloadSpinner->setRange(0, maximum);
    }
    ui->downloadSpinner->setValue(int(std::min<qint64>(done, maximum)));
}
