// The backup on a real device: what arrives there, how progress is reported, and what stops a run.
#include "tests/EngineTestHelpers.h"

#include <QDirIterator>
#include <QThread>

#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/xattr.h>

using namespace tanner::test;

namespace {

QByteArray Attribute(const QString &path, const char *name)
{
    char value[256];
    const ssize_t size = ::lgetxattr(FileNameToBytes(path).constData(), name, value, sizeof value);
    return size < 0 ? QByteArray() : QByteArray(value, size);
}

bool SetAppendOnly(const QString &path, bool on)
{
    const int fd = ::open(FileNameToBytes(path).constData(), O_RDONLY);
    int flags = 0;
    bool ok = fd >= 0 && ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = on ? (flags | FS_APPEND_FL) : (flags & ~FS_APPEND_FL);
    ok = ok && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    if (fd >= 0)
        ::close(fd);
    return ok;
}

} // namespace

TEST_F(DeviceTest, CopiesBytesAttributesAndFolderTimes)
{
    mountDevice();
    WriteTree(source(), {{"a.txt", "alpha"}, {"bin/run.sh", "#!/bin/sh\n"}, {"deep/er/x", "x"}, {"update.txt", "u"}});
    WriteFileBytes(FileNameToBytes(source()) + "/caf\xe9", "latin-1");
    WriteTree(device(), {{"Docs/stale.txt", "old"}, {"Docs/update.txt", "u"}, {"Docs/deep/", {}}});
    SetModificationTime(source(QStringLiteral("update.txt")), 1400000000);
    SetModificationTime(device(QStringLiteral("Docs/update.txt")), 1400000000);
    QThread::sleep(1); // the next attribute changes come after the device copy's
    ::chmod(FileNameToBytes(source(QStringLiteral("bin/run.sh"))).constData(), 0750);
    ::chmod(FileNameToBytes(source(QStringLiteral("update.txt"))).constData(), 0604);
    ASSERT_EQ(
        ::lsetxattr(FileNameToBytes(source(QStringLiteral("a.txt"))).constData(), "user.xdg.tags", "blue", 4, 0), 0);
    ASSERT_EQ(::lchown(FileNameToBytes(source(QStringLiteral("a.txt"))).constData(), 1234, 5678), 0);
    SetModificationTime(source(QStringLiteral("a.txt")), 1600000000);
    for (const char *folder : {"deep/er", "deep", "bin", ""})
        SetModificationTime(source(QString::fromUtf8(folder)), 1500000000 + std::strlen(folder));

    analyze();
    ASSERT_EQ(transactionLines(),
        (QStringList {"Delete file Docs/stale.txt", "Update file Docs/update.txt", "Copy folder Docs/bin",
            "Copy folder Docs/deep/er", "Copy file Docs/a.txt", "Copy file Docs/bin/run.sh",
            "Copy file Docs/caf" + FileNameFromBytes("\xe9"), "Copy file Docs/deep/er/x"}));
    RecordingReceiver receiver;
    backup(receiver);
    ASSERT_TRUE(receiver.complete.has_value());
    EXPECT_FALSE(receiver.complete->error.has_value()) << receiver.complete->error->toStdString();
    EXPECT_FALSE(receiver.complete->cancel);
    EXPECT_EQ(g_failedTransactions, 0);
    EXPECT_EQ(g_finishedTransactions, g_transactions.size());

    for (const char *folder : {"deep/er", "deep", "bin", ""})
        EXPECT_EQ(ModificationTime(device(QStringLiteral("Docs/") + QString::fromUtf8(folder))),
            1500000000 + qint64(std::strlen(folder)))
            << folder;
    EXPECT_EQ(::access((FileNameToBytes(device()) + "/Docs/caf\xe9").constData(), F_OK), 0) << "the same bytes";
    ::unlink((FileNameToBytes(device()) + "/Docs/caf\xe9").constData());
    EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))),
        (Tree {{"a.txt", "alpha"}, {"bin/", {}}, {"bin/run.sh", "#!/bin/sh\n"}, {"deep/", {}}, {"deep/er/", {}},
            {"deep/er/x", "x"}, {"update.txt", "u"}}));
    WriteFileBytes(FileNameToBytes(device()) + "/Docs/caf\xe9", "latin-1");
    struct stat latin = {};
    ::lstat((FileNameToBytes(source()) + "/caf\xe9").constData(), &latin);
    const timespec latinTimes[2] = {latin.st_atim, latin.st_mtim};
    ::utimensat(AT_FDCWD, (FileNameToBytes(device()) + "/Docs/caf\xe9").constData(), latinTimes, AT_SYMLINK_NOFOLLOW);
    EXPECT_EQ(Mode(device(QStringLiteral("Docs/bin/run.sh"))), 0750u);
    EXPECT_EQ(Mode(device(QStringLiteral("Docs/update.txt"))), 0604u);
    EXPECT_EQ(Attribute(device(QStringLiteral("Docs/a.txt")), "user.xdg.tags"), QByteArray("blue"));
    EXPECT_EQ(ModificationTime(device(QStringLiteral("Docs/a.txt"))), 1600000000);
    struct stat status = {};
    ::lstat(FileNameToBytes(device(QStringLiteral("Docs/a.txt"))).constData(), &status);
    EXPECT_EQ(status.st_uid, 1234u);
    EXPECT_EQ(status.st_gid, 5678u);
    EXPECT_TRUE(TemporaryFiles(device()).isEmpty());

    // Every file copy is reported alone, other transactions at most two of one kind together.
    for (const BUBackupStatusReport &status : receiver.statuses) {
        EXPECT_LE(status.trans.size(), 2);
        for (auto it = status.trans.cbegin(); it != status.trans.cend(); ++it) {
            const BUTransaction &t = g_transactions[it.key()];
            if (t.action() == BUTransaction::kCopy && !t.isFolder()) {
                EXPECT_EQ(status.trans.size(), 1);
            }
        }
    }
    EXPECT_EQ(g_copiedBytes, 5.0 + 10 + 7 + 1);

    analyze();
    EXPECT_TRUE(g_transactions.isEmpty()) << transactionLines().join(u'\n').toStdString();
}

TEST_F(DeviceTest, ReportsBatchesAndRefusesToLeaveTheDevice)
{
    mountDevice();
    RecordingReceiver empty;
    backup(empty);
    ASSERT_TRUE(empty.complete.has_value());
    EXPECT_TRUE(empty.statuses.isEmpty());
    EXPECT_FALSE(empty.complete->cancel || empty.complete->error.has_value());

    // Three deletes come as two and one; a delete outside the device removes nothing.
    QTemporaryDir outside;
    WriteTree(outside.path(), {{"keep.txt", "keep"}});
    WriteTree(device(), {{"Docs/1", "1"}, {"Docs/2", "2"}, {"Docs/3", "3"}});
    analyze();
    BUTransaction escape(outside.path() + QStringLiteral("/keep.txt"), QString());
    escape.setAction(BUTransaction::kDelete);
    g_transactions.append(escape);
    // A link on the device where a folder is expected is an error, never a way out.
    QDir().mkpath(source(QStringLiteral("linked")));
    WriteTree(source(), {{"linked/file.txt", "data"}});
    QFile::link(outside.path(), device(QStringLiteral("Docs/linked")));
    g_transactions.append(BUTransaction(source(QStringLiteral("linked/file.txt")), m_sources.path()));
    // Names the analysis found free but taken since are freed for the copy, even one locked with
    // the append-only flag; a big file's too, which is written under a temporary name.
    const QByteArray big((1 << 20) + 1, 'n');
    WriteTree(source(), {{"locked.txt", "new"}, {"big.bin", big}});
    WriteTree(device(), {{"Docs/locked.txt", "old"}, {"Docs/big.bin", "old"}});
    ASSERT_TRUE(SetAppendOnly(device(QStringLiteral("Docs/locked.txt")), true));
    g_transactions.append(BUTransaction(source(QStringLiteral("locked.txt")), m_sources.path()));
    g_transactions.append(BUTransaction(source(QStringLiteral("big.bin")), m_sources.path()));

    RecordingReceiver receiver;
    backup(receiver);
    ASSERT_TRUE(receiver.complete.has_value());
    ASSERT_GE(receiver.statuses.size(), 3);
    EXPECT_EQ(receiver.statuses[0].trans.keys(), (QList<qsizetype> {0, 1}));
    EXPECT_EQ(receiver.statuses[1].trans.keys(), (QList<qsizetype> {2, 3}));
    EXPECT_EQ(receiver.statuses[1].trans.value(3), QStringLiteral("Internal logic error"));
    EXPECT_TRUE(QFile::exists(outside.path() + QStringLiteral("/keep.txt")));
    EXPECT_FALSE(receiver.statuses[2].trans.value(4).isEmpty());
    EXPECT_FALSE(QFile::exists(outside.path() + QStringLiteral("/file.txt")));
    EXPECT_EQ(receiver.statuses[3].trans.value(5), QString());
    EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))).value(QStringLiteral("locked.txt")), QByteArray("new"));
    ASSERT_GE(receiver.statuses.size(), 5);
    EXPECT_EQ(receiver.statuses[4].trans.value(6, QStringLiteral("missing")), QString());
    EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))).value(QStringLiteral("big.bin")), big);
    EXPECT_FALSE(receiver.complete->error.has_value());
    EXPECT_EQ(g_failedTransactions, 2);
}

TEST_F(DeviceTest, FatalErrorsStopTheRun)
{
    struct Case {
        const char *what;
        std::function<void()> before; // between the analysis and the backup
        QString fatal;
        qint64 bigSize = 10; // of b.bin
    };
    const QString first = device(QStringLiteral("Docs/a.txt"));
    const QString file = device(QStringLiteral("Docs/b.bin"));
    const QList<Case> cases = {
        // Checked before the first change: nothing is written.
        {"too big for the device", [] {},
            QStringLiteral("The backup needs 4.20 MB on the device \"Dev\", which has only 1.05 MB free. Nothing was "
                           "changed on the device."),
            4 << 20},
        // A file that grew after the analysis passes the check and fills the device as it is written.
        {"device full",
            [this] {
                WriteTree(source(), {{"b.bin", QByteArray(4 << 20, 'b')}});
            },
            QStringLiteral("The device is full.\n\nThe file \"%1\" could not be created.").arg(file)},
        {"device read-only as a whole", [this] { ASSERT_TRUE(RemountReadOnly(device())); },
            QStringLiteral("The device \"Dev\" has been ejected.")},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TearDown();
        SetUp();
        mountDevice(1 << 20);
        QDir().mkpath(device(QStringLiteral("Docs")));
        WriteTree(source(), {{"a.txt", "a"}, {"b.bin", QByteArray(c.bigSize, 'b')}, {"c.txt", "c"}});
        analyze();
        ASSERT_EQ(g_transactions.size(), 3);
        c.before();
        RecordingReceiver receiver;
        backup(receiver);
        ASSERT_TRUE(receiver.complete.has_value());
        EXPECT_EQ(receiver.complete->error.value_or(QString()), c.fatal);
        EXPECT_FALSE(QFile::exists(device(QStringLiteral("Docs/c.txt")))) << "the run stops";
        if (c.fatal.startsWith(u"The backup needs")) {
            EXPECT_TRUE(receiver.statuses.empty());
            EXPECT_FALSE(QFile::exists(first));
        } else {
            EXPECT_GE(g_failedTransactions, 1);
        }
        EXPECT_TRUE(TemporaryFiles(device()).isEmpty());
        EXPECT_FALSE(QFile::exists(file));
    }
}

// Within one file system the data moves with copy_file_range, between two with sendfile; files of
// 1 MiB and more are reserved first, and those of 8 MiB and more stream in windows. Every way must
// give the same copy.
TEST_F(DeviceTest, CopiesWithinOneFileSystemAndAcrossTwoAlike)
{
    Tree tree;
    QByteArray big(9 << 20, '\0'), medium(3 << 20, '\0');
    for (qsizetype i = 0; i < big.size(); ++i)
        big[i] = char((i * 7919) >> 3);
    for (qsizetype i = 0; i < medium.size(); ++i)
        medium[i] = char(i % 251);
    tree.insert(QStringLiteral("big.bin"), big);
    tree.insert(QStringLiteral("sub/medium.bin"), medium);
    tree.insert(QStringLiteral("sub/small.txt"), "small");
    tree.insert(QStringLiteral("empty"), QByteArray());

    for (const bool oneFileSystem : {true, false}) {
        SCOPED_TRACE(oneFileSystem ? "one file system" : "two file systems");
        TearDown();
        SetUp();
        // One tmpfs holds the source, and, bound onto the device's mount point, the device.
        const QString shared = m_sources.path() + QStringLiteral("/shared");
        QDir().mkpath(shared);
        ASSERT_TRUE(MountTmpfs(shared, 64 << 20, {}));
        m_mounted.prepend(shared);
        m_source = shared + QStringLiteral("/Docs");
        QDir().mkpath(shared + QStringLiteral("/device"));
        QDir().mkpath(m_device);
        if (oneFileSystem) {
            ASSERT_EQ(::mount(FileNameToBytes(shared + QStringLiteral("/device")).constData(),
                          FileNameToBytes(m_device).constData(), nullptr, MS_BIND, nullptr),
                0);
            m_mounted.prepend(m_device);
        } else {
            mountDevice();
        }
        WriteTree(source(), tree);
        ::chmod(FileNameToBytes(source(QStringLiteral("big.bin"))).constData(), 0640);
        SetModificationTime(source(QStringLiteral("sub/medium.bin")), 1500000000);

        ASSERT_FALSE(analyze().error);
        RecordingReceiver receiver;
        backup(receiver);
        ASSERT_TRUE(receiver.complete);
        EXPECT_FALSE(receiver.complete->error);
        EXPECT_EQ(g_failedTransactions, 0);
        EXPECT_EQ(ReadTree(device(QStringLiteral("Docs"))), ReadTree(source()));
        EXPECT_EQ(Mode(device(QStringLiteral("Docs/big.bin"))), 0640u);
        EXPECT_EQ(ModificationTime(device(QStringLiteral("Docs/sub/medium.bin"))), 1500000000);
        EXPECT_TRUE(TemporaryFiles(device()).isEmpty());
    }
}
