// Takes the README's screenshots of the real window, on real devices in a private mount
// namespace, with Qt's own grab. Run under a display: scripts/screenshots.sh.
#include "app/BUAppController.h"
#include "keelson/gui/KSAlert.h"
#include "keelson/gui/KSAlertController.h"
#include "tests/support/GuiTestSupport.h"
#include "tests/support/TestSupport.h"
#include "ui/BUExtraStuffDialog.h"
#include "ui/BUHistoryWindow.h"
#include "ui/BURuleDialog.h"
#include "ui/BUWindowController.h"

#include <QComboBox>
#include <QDir>
#include <QPushButton>
#include <QTreeView>

#include <cstdio>

using namespace tanner::test;

namespace {

QString g_out;

// Grabs the widget; with pending false, the reports still queued for it are left queued, so the
// picture shows the moment it was taken in.
void Save(QWidget *widget, const char *name, bool pending = true)
{
    if (pending)
        QApplication::processEvents();
    else
        QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
    const QString path = g_out + u'/' + QLatin1String(name);
    if (!widget->grab().save(path))
        std::fprintf(stderr, "can't write %s\n", qPrintable(path));
    else
        std::printf("%s\n", qPrintable(path));
}

void SelectDevice(QTreeView *outline, const QString &name)
{
    QAbstractItemModel *model = outline->model();
    for (int group = 0; group < 2; ++group) {
        for (int row = 0; row < model->rowCount(model->index(group, 0)); ++row) {
            const QModelIndex index = model->index(row, 0, model->index(group, 0));
            if (index.data().toString() == name)
                outline->setCurrentIndex(index);
        }
    }
}

bool RunToEnd(BUWindowController &window)
{
    return WaitUntil([&] { return !window.isRunning() && window.operationCount() == 0; }, std::chrono::seconds(120));
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: screenshot_tool OUTPUT_FOLDER\n");
        return 2;
    }
    g_out = QDir(QString::fromLocal8Bit(argv[1])).absolutePath();
    if (const QString reason = MountUnavailableReason(); !reason.isEmpty()) {
        std::fprintf(stderr, "screenshot_tool: %s\n", qPrintable(reason));
        return 1;
    }
    static int qtArgc = 1;
    static char name[] = "tanner-backup";
    static char *qtArgv[] = {name, nullptr};
    QApplication application(qtArgc, qtArgv);
    QApplication::setApplicationDisplayName(QStringLiteral("Tanner Backup"));

    ScopedXdgHome home;
    const QString volumes = home.path() + QStringLiteral("/volumes");
    qputenv("TANNER_VOLUMES_ROOT", QFile::encodeName(volumes));
    const QString disk = volumes + QStringLiteral("/Backup Disk");
    for (const char *device : {"Backup Disk", "USB Stick", "Archive 2024"})
        MountTmpfs(volumes + u'/' + QLatin1String(device), 512 << 20);
    // The folders where a person keeps them: /home, private to this mount namespace, holds a home
    // of the tool's own for the pictures, and the real one stays untouched.
    MountTmpfs(QStringLiteral("/home"), 512 << 20);
    const QString documents = QStringLiteral("/home/anna/Documents");
    const QString photos = QStringLiteral("/home/anna/Photos");
    Tree tree;
    for (int i = 0; i < 400; ++i)
        tree.insert(QStringLiteral("Letters/%1/letter-%2.txt").arg(2020 + i % 5).arg(i), QByteArray(3000 + i, 'l'));
    for (int i = 0; i < 60; ++i)
        tree.insert(QStringLiteral("Projects/report-%1.odt").arg(i), QByteArray(40000, 'r'));
    WriteTree(documents, tree);
    Tree pictures;
    for (int i = 0; i < 150; ++i)
        pictures.insert(QStringLiteral("Holidays/IMG_%1.jpg").arg(4000 + i), QByteArray(900000, 'p'));
    WriteTree(photos, pictures);

    BUAppController &controller = BUAppController::sharedInstance();
    controller.applicationWillFinishLaunching();
    BUWindowController window;
    window.resize(1100, 680);
    controller.applicationDidFinishLaunching();
    // The first start: the home folder is in the list, no device is picked yet.
    window.show();
    window.updateRuleList(0);
    Save(&window, "screenshot-first-start.png");
    controller.backupFolders() = {documents, photos};
    controller.recentDrives() = {QStringLiteral("Backup Disk"), QStringLiteral("Archive 2024")};
    controller.backupDates().insert(QStringLiteral("Archive 2024"), 20241103);
    controller.updateDrives();
    window.updateRuleList(0);
    window.show();
    auto *outline = window.findChild<QTreeView *>(QStringLiteral("diskOutline"));
    SelectDevice(outline, QStringLiteral("Backup Disk"));
    Save(&window, "screenshot-idle.png");
    // Analyze before the first backup: its verdict in the status line.
    outline->viewport()->setAttribute(Qt::WA_UnderMouse, false);
    window.backup(true);
    RunToEnd(window);
    Save(&window, "screenshot-analyze.png");

    // In progress: grab the window as the backup passes the middle of its reports.
    KSAlert::setTestAnswerer([](const KSAlert::Shown &) { return int(KSAlertController::kFirstButton); });
    int reports = 0;
    int phase = 0;
    QObject::connect(window.findChild<QAbstractItemView *>(QStringLiteral("actionTable"))->model(),
        &QAbstractItemModel::dataChanged, &window, [&] {
            if (++reports == 140 && phase == 0)
                Save(&window, "screenshot-progress.png");
        });
    window.backup(false);
    RunToEnd(window);

    // Cancelled in the middle: the window says so until the backup has stopped.
    QDir(disk + QStringLiteral("/Photos")).removeRecursively();
    reports = 0;
    phase = 1;
    QObject::connect(window.findChild<QAbstractItemView *>(QStringLiteral("actionTable"))->model(),
        &QAbstractItemModel::dataChanged, &window, [&] {
            if (phase == 1 && reports >= 60 && window.isBackupInProgress() && !window.isCanceling()) {
                phase = 2;
                window.cancel();
                Save(&window, "screenshot-canceling.png", false);
            }
        });
    window.backup(false);
    RunToEnd(window);
    window.backup(false);
    RunToEnd(window);

    // A failure: a folder the sources no longer have, stuck on a read-only mount.
    MountTmpfs(disk + QStringLiteral("/Documents/Old Drafts"), 1 << 20);
    WriteTree(disk + QStringLiteral("/Documents/Old Drafts"), {{QStringLiteral("draft.txt"), "d"}});
    RemountReadOnly(disk + QStringLiteral("/Documents/Old Drafts"));
    WriteTree(documents, {{QStringLiteral("Projects/summary.txt"), "new"}});
    window.backup(false);
    RunToEnd(window);
    Save(&window, "screenshot-failure.png");

    // The History window on the runs so far, the failure of the last one shown.
    {
        BUHistoryWindow *history = BUHistoryWindow::showHistory(&window, QStringLiteral("Backup Disk"));
        history->resize(900, 560);
        Save(history, "screenshot-history.png");
        history->close();
    }

    // The same window in a dark palette, as a desktop in dark mode hands it over.
    {
        const QPalette light = QApplication::palette();
        QPalette dark;
        dark.setColor(QPalette::Window, QColor(45, 45, 48));
        dark.setColor(QPalette::WindowText, QColor(230, 230, 230));
        dark.setColor(QPalette::Base, QColor(30, 30, 32));
        dark.setColor(QPalette::AlternateBase, QColor(40, 40, 44));
        dark.setColor(QPalette::Text, QColor(230, 230, 230));
        dark.setColor(QPalette::Button, QColor(55, 55, 60));
        dark.setColor(QPalette::ButtonText, QColor(230, 230, 230));
        dark.setColor(QPalette::Highlight, QColor(42, 110, 190));
        dark.setColor(QPalette::HighlightedText, Qt::white);
        dark.setColor(QPalette::Disabled, QPalette::Text, QColor(130, 130, 130));
        dark.setColor(QPalette::Disabled, QPalette::WindowText, QColor(130, 130, 130));
        dark.setColor(QPalette::Disabled, QPalette::ButtonText, QColor(130, 130, 130));
        QApplication::setPalette(dark);
        // The failed row in its red: another row selected.
        auto *table = window.findChild<QAbstractItemView *>(QStringLiteral("actionTable"));
        table->setCurrentIndex(table->model()->index(table->model()->rowCount() - 1, 0));
        Save(&window, "screenshot-dark.png");
        QApplication::setPalette(light);
    }

    // The rule dialog, editing a file rule.
    window.findChild<QComboBox *>(QStringLiteral("rulePicker"))->setCurrentIndex(2);
    BURuleDialog dialog(6, 2, &window);
    dialog.show();
    Save(&dialog, "screenshot-rule-dialog.png");
    dialog.close();
    Save(&window, "screenshot-rules.png");

    // The extra-items dialog.
    const QString usb = volumes + QStringLiteral("/USB Stick");
    WriteTree(usb,
        {{QStringLiteral("Holiday Movies/a.mp4"), "m"}, {QStringLiteral("notes.txt"), "n"},
            {QStringLiteral("Documents/x.txt"), "x"}});
    BUExtraStuffDialog::setTestHook([](BUExtraStuffDialog &extra) {
        extra.resize(520, 380);
        Save(&extra, "screenshot-extra-items.png");
        extra.dismiss();
    });
    SelectDevice(outline, QStringLiteral("USB Stick"));
    window.backup(false);
    RunToEnd(window);
    LazyUnmount(disk + QStringLiteral("/Documents/Old Drafts"));
    for (const char *device : {"Backup Disk", "USB Stick", "Archive 2024"})
        LazyUnmount(volumes + u'/' + QLatin1String(device));
    LazyUnmount(QStringLiteral("/home"));
    return 0;
}
