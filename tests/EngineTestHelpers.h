// Shared pieces of the engine tests: a volumes root with a device mounted in a private mount
// namespace, a source folder, the transactions of an analysis in a readable form, and a receiver
// that runs the backup on the operation queue and records its reports.
#pragma once

#include "backup/BUAnalyzeOperation.h"
#include "backup/BUBackupOperation.h"
#include "backup/BUDeviceRoot.h"
#include "backup/BUTransaction.h"
#include "keelson/KSOperationQueue.h"
#include "keelson/KSStrings.h"
#include "tests/support/TestSupport.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QTimer>

#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

namespace tanner::test {

inline void SetModificationTime(const QString &path, qint64 seconds)
{
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, FileNameToBytes(path).constData(), times, AT_SYMLINK_NOFOLLOW), 0)
        << path.toStdString();
}

// Writes a file under a name given as any bytes (QFile would re-encode a name that is not UTF-8).
inline void WriteFileBytes(const QByteArray &path, const QByteArray &content)
{
    const int fd = ::open(path.constData(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0) << path.constData();
    ASSERT_EQ(::write(fd, content.constData(), std::size_t(content.size())), content.size());
    ::close(fd);
}

inline qint64 ModificationTime(const QString &path)
{
    struct stat status = {};
    ::lstat(FileNameToBytes(path).constData(), &status);
    return status.st_mtim.tv_sec;
}

inline mode_t Mode(const QString &path)
{
    struct stat status = {};
    ::lstat(FileNameToBytes(path).constData(), &status);
    return status.st_mode & 07777;
}

// Every item below root, links not followed, as "path mode content-digest" lines in name
// order: what a tree outside the mirrors must still be after a backup.
inline QStringList TreeState(const QString &root)
{
    QStringList lines;
    const QByteArray base = FileNameToBytes(root);
    std::function<void(const QByteArray &)> walk = [&](const QByteArray &relative) {
        const QByteArray path = relative.isEmpty() ? base : base + '/' + relative;
        struct stat status = {};
        if (::lstat(path.constData(), &status) != 0)
            return;
        QByteArray digest;
        if (S_ISREG(status.st_mode)) {
            QFile file(FileNameFromBytes(path));
            if (file.open(QIODevice::ReadOnly))
                digest = QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha1).toHex();
        }
        lines.append(QStringLiteral("%1 %2 %3")
                         .arg(FileNameFromBytes(relative))
                         .arg(status.st_mode, 0, 8)
                         .arg(QString::fromLatin1(digest)));
        if (!S_ISDIR(status.st_mode))
            return;
        QStringList names = QDir(FileNameFromBytes(path))
                                .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System);
        names.sort();
        for (const QString &name : std::as_const(names))
            walk(relative.isEmpty() ? FileNameToBytes(name) : relative + '/' + FileNameToBytes(name));
    };
    walk(QByteArray());
    return lines;
}

// Records the reports of a backup run on the queue, as the window would receive them.
class RecordingReceiver : public QObject, public BUEngineReceiver {
public:
    QObject *reportContext() override { return this; }
    void analysisComplete(const BUAnalysisReport &report) override { analysis = report; }
    void backupStatus(const BUBackupStatusReport &report) override
    {
        statuses.append(report);
        ApplyBackupStatus(report.trans, report.copied);
    }
    void backupComplete(const BUBackupCompleteReport &report) override
    {
        complete = report;
        m_loop.quit();
    }
    // Runs the sorted g_transactions and waits for the end (at most two minutes).
    void runBackup(const QString &device, const QStringList &folders)
    {
        KSOperationQueue queue;
        queue.addOperation(std::make_shared<BUBackupOperation>(this, device, g_transactions, folders));
        QTimer::singleShot(120000, &m_loop, &QEventLoop::quit);
        m_loop.exec();
    }

    BUAnalysisReport analysis;
    QList<BUBackupStatusReport> statuses;
    std::optional<BUBackupCompleteReport> complete;

private:
    QEventLoop m_loop;
};

// A volumes root with the device "Dev" (a tmpfs) and a source folder "Docs".
class DeviceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        TANNER_REQUIRE_MOUNTS();
        if (!QCoreApplication::instance()) {
            static int argc = 1;
            static char name[] = "engine_test";
            static char *argv[] = {name, nullptr};
            new QCoreApplication(argc, argv);
        }
        qputenv("TANNER_VOLUMES_ROOT", QFile::encodeName(m_volumes.path()));
        m_device = m_volumes.path() + QStringLiteral("/Dev");
        m_source = m_sources.path() + QStringLiteral("/Docs");
        QDir().mkpath(m_source);
        ClearTransactions();
    }
    void TearDown() override
    {
        for (const QString &mounted : std::as_const(m_mounted))
            LazyUnmount(mounted);
        m_mounted.clear();
        qunsetenv("TANNER_VOLUMES_ROOT");
        // QDir cannot remove names that are not UTF-8; the engine's removal can.
        for (const QString &folder : {m_sources.path(), m_volumes.path()}) {
            const QByteArray bytes = FileNameToBytes(folder);
            RemoveItemAt(AT_FDCWD, bytes.constData(), nullptr);
            QDir().mkpath(folder);
        }
    }
    void mountDevice(qint64 sizeBytes = 64 << 20, const QString &options = {})
    {
        ASSERT_TRUE(MountTmpfs(m_device, sizeBytes, options));
        m_mounted.prepend(m_device);
    }
    QString device(const QString &relative = {}) const
    {
        return relative.isEmpty() ? m_device : m_device + u'/' + relative;
    }
    QString source(const QString &relative = {}) const
    {
        return relative.isEmpty() ? m_source : m_source + u'/' + relative;
    }

    // Runs the analysis of the one source folder on this thread and sorts its transactions.
    BUAnalysisReport analyze(const BURuleList &ignoreFolders = {}, const BURuleList &ignoreFiles = {})
    {
        ClearTransactions();
        BUAnalyzeOperation operation(QStringLiteral("Dev"), nullptr, {m_source}, ignoreFolders, ignoreFiles);
        const BUAnalysisReport report = operation.analyze();
        SortTransactions(g_transactions);
        return report;
    }
    // The transactions as "Copy file Docs/a.txt", paths below the source's parent or the device.
    QStringList transactionLines() const
    {
        QStringList lines;
        for (const BUTransaction &t : std::as_const(g_transactions)) {
            QString path = t.path();
            for (const QString &prefix : {m_device + u'/', m_sources.path() + u'/'}) {
                if (path.startsWith(prefix))
                    path = path.mid(prefix.size());
            }
            lines.append(
                t.actionName() + (t.isFolder() ? QStringLiteral(" folder ") : QStringLiteral(" file ")) + path);
        }
        return lines;
    }
    void backup(RecordingReceiver &receiver) { receiver.runBackup(QStringLiteral("Dev"), {m_source}); }

    QTemporaryDir m_volumes;
    QTemporaryDir m_sources;
    QString m_device;
    QString m_source;
    QStringList m_mounted;
};

} // namespace tanner::test
