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
#include <QDirIterator>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTimer>

#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

#include <iostream>
#include <map>

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

// The temporary files of copies under root (not the marks of a run).
inline QStringList TemporaryFiles(const QString &root)
{
    QStringList found;
    QDirIterator it(root, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        if (it.fileName().startsWith(QStringLiteral(".tanner-partial-")) && it.fileName() != u".tanner-partial-run")
            found.append(path);
    }
    return found;
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

// How a mirror differs from its source, walked relative to open folders (so that depth is no limit),
// names as bytes: each line a relative path and what is wrong. Names beginning with "." take no
// part on either side (the sources' are never backed up, the device's are the program's own), nor
// do the source's links and other special items, which are never copied.
inline QStringList MirrorDifferences(int sourceFd, int mirrorFd, const QByteArray &at = {})
{
    struct Item {
        unsigned char type;
    };
    auto list = [](int fd, bool specialsToo) {
        std::map<QByteArray, Item> items;
        DIR *folder = ::fdopendir(::dup(fd));
        if (!folder)
            return items;
        while (const dirent *entry = ::readdir(folder)) {
            if (entry->d_name[0] == '.')
                continue;
            struct stat status = {};
            ::fstatat(fd, entry->d_name, &status, AT_SYMLINK_NOFOLLOW);
            const unsigned char type = S_ISDIR(status.st_mode) ? DT_DIR : S_ISREG(status.st_mode) ? DT_REG : DT_UNKNOWN;
            if (type != DT_UNKNOWN || specialsToo)
                items.emplace(QByteArray(entry->d_name), Item {type});
        }
        ::closedir(folder);
        return items;
    };
    auto content = [](int fd, const QByteArray &name) {
        QByteArray data;
        const int file = ::openat(fd, name.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        if (file < 0)
            return QByteArray("<unreadable>");
        char buffer[65536];
        for (ssize_t n; (n = ::read(file, buffer, sizeof buffer)) > 0;)
            data.append(buffer, n);
        ::close(file);
        return data;
    };
    QStringList differences;
    const auto source = list(sourceFd, false);
    const auto mirror = list(mirrorFd, true);
    for (const auto &[name, item] : mirror) {
        if (source.find(name) == source.end())
            differences.append(FileNameFromBytes(at + name) + QStringLiteral(": only on the device"));
    }
    for (const auto &[name, item] : source) {
        const QString path = FileNameFromBytes(at + name);
        const auto found = mirror.find(name);
        if (found == mirror.end()) {
            differences.append(path + QStringLiteral(": missing on the device"));
        } else if (found->second.type != item.type) {
            differences.append(path + QStringLiteral(": of another type"));
        } else if (item.type == DT_REG) {
            if (content(sourceFd, name) != content(mirrorFd, name))
                differences.append(path + QStringLiteral(": other content"));
        } else {
            const int s = ::openat(sourceFd, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            const int m = ::openat(mirrorFd, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (s < 0 || m < 0)
                differences.append(path + QStringLiteral(": cannot be opened"));
            else
                differences += MirrorDifferences(s, m, at + name + '/');
            if (s >= 0)
                ::close(s);
            if (m >= 0)
                ::close(m);
        }
    }
    return differences;
}

inline QStringList MirrorDifferences(const QString &source, const QString &mirror)
{
    const int s = ::open(FileNameToBytes(source).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int m = ::open(FileNameToBytes(mirror).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    QStringList differences = s >= 0 && m >= 0 ? MirrorDifferences(s, m) : QStringList {QStringLiteral("no folder")};
    if (s >= 0)
        ::close(s);
    if (m >= 0)
        ::close(m);
    return differences;
}

// Records the reports of a backup run on the queue, as the window would receive them.
class RecordingReceiver : public QObject, public BUEngineReceiver {
public:
    QObject *reportContext() override { return this; }
    void analysisComplete(const BUAnalysisReport &report) override { analysis = report; }
    void backupStatus(const BUBackupStatusReport &report) override
    {
        statuses.append(report);
        ApplyBackupStatus(report.trans, report.copied, report.notes);
    }
    void backupComplete(const BUBackupCompleteReport &report) override
    {
        complete = report;
        m_loop.quit();
    }
    void copyProgress(qsizetype, double) override
    {
        if (cancelOnFirstProgress && m_operation)
            m_operation->cancel();
    }
    // Runs the sorted g_transactions and waits for the end (at most two minutes).
    void runBackup(const QString &device, const QStringList &folders)
    {
        KSOperationQueue queue;
        m_operation = std::make_shared<BUBackupOperation>(this, device, g_transactions, folders);
        queue.addOperation(m_operation);
        QTimer::singleShot(120000, &m_loop, &QEventLoop::quit);
        m_loop.exec();
    }

    BUAnalysisReport analysis;
    QList<BUBackupStatusReport> statuses;
    std::optional<BUBackupCompleteReport> complete;
    bool cancelOnFirstProgress = false; // Cancel as the first big file's progress arrives

private:
    QEventLoop m_loop;
    std::shared_ptr<BUBackupOperation> m_operation;
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
    // Mounts the device as a file system of a kind: "tmpfs", "ext4", "ext4-128" (inodes of 128
    // bytes, which keep whole seconds), "ext4-casefold" (every
    // folder made on it folds case), "fusefat" or "exfat-fuse". False (with the reason printed)
    // when that kind cannot be made or mounted here.
    bool mountDeviceOfKind(const QString &kind)
    {
        const QString image = m_images.path() + QStringLiteral("/device.img");
        bool mounted = false;
        if (kind == u"tmpfs")
            mounted = MountTmpfs(m_device, 64 << 20);
        else if (kind == u"ext4")
            mounted = MountExt4Image(image, 32, m_device);
        else if (kind == u"ext4-128")
            mounted = MountExt4Image(image, 32, m_device, {QStringLiteral("-I"), QStringLiteral("128")});
        else if (kind == u"ext4-casefold")
            mounted = MountExt4Image(image, 32, m_device, {QStringLiteral("-O"), QStringLiteral("casefold")});
        else
            mounted = MountFuseImage(kind, image, 32, m_device);
        if (!mounted) {
            std::cout << "[ NOT HERE ] " << kind.toStdString() << ": cannot make or mount it here\n";
            return false;
        }
        m_mounted.prepend(m_device);
        if (kind == u"ext4-casefold") {
            QDir().rmdir(device(QStringLiteral("lost+found"))); // only an empty folder takes the flag
            QProcess chattr;
            chattr.start(QStringLiteral("chattr"), {QStringLiteral("+F"), m_device});
            if (!chattr.waitForFinished() || chattr.exitCode() != 0) {
                std::cout << "[ NOT HERE ] ext4-casefold: the root folder cannot be made to fold case\n";
                return false;
            }
        }
        return true;
    }
    void unmountDevice()
    {
        for (const QString &mounted : std::as_const(m_mounted))
            QProcess::execute(QStringLiteral("umount"), {mounted});
        m_mounted.clear();
        QFile::remove(m_images.path() + QStringLiteral("/device.img"));
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

    // Analyses and backs up the folders, expecting success; then the device mirrors each folder
    // byte for byte and a second analysis lists nothing.
    void backupAndExpectMirror(QStringList folders = {})
    {
        if (folders.isEmpty())
            folders = {m_source};
        ClearTransactions();
        BUAnalyzeOperation analysis(QStringLiteral("Dev"), nullptr, folders, {}, {});
        const BUAnalysisReport report = analysis.analyze();
        ASSERT_FALSE(report.error.has_value()) << report.error->toStdString();
        SortTransactions(g_transactions);
        RecordingReceiver receiver;
        receiver.runBackup(QStringLiteral("Dev"), folders);
        ASSERT_TRUE(receiver.complete.has_value());
        EXPECT_FALSE(receiver.complete->error.has_value()) << receiver.complete->error->toStdString();
        EXPECT_EQ(g_failedTransactions, 0) << failures(receiver).toStdString();
        for (const QString &folder : std::as_const(folders))
            EXPECT_EQ(MirrorDifferences(folder, device(LastPathComponent(folder))), QStringList())
                << folder.toStdString();
        ClearTransactions();
        BUAnalyzeOperation again(QStringLiteral("Dev"), nullptr, folders, {}, {});
        const BUAnalysisReport second = again.analyze();
        EXPECT_FALSE(second.error.has_value());
        EXPECT_EQ(transactionLines(), QStringList()) << "a second analysis lists nothing";
    }
    static QString failures(const RecordingReceiver &receiver)
    {
        QString text;
        for (const BUBackupStatusReport &status : receiver.statuses) {
            for (auto it = status.trans.cbegin(); it != status.trans.cend(); ++it) {
                if (!it.value().isEmpty())
                    text += g_transactions.at(it.key()).path() + QStringLiteral(": ") + it.value() + u'\n';
            }
        }
        return text;
    }

    QTemporaryDir m_volumes;
    QTemporaryDir m_sources;
    QTemporaryDir m_images;
    QString m_device;
    QString m_source;
    QStringList m_mounted;
};

} // namespace tanner::test
