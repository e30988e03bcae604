// The engine on real Linux names and real file systems: letter case as the device treats it,
// names that are any bytes, dot-named backup folders and the file system's own top-level items.
// After every backup the device must mirror the sources byte for byte and a second analysis must
// list nothing.
#include "tests/EngineTestHelpers.h"

#include <QFileInfo>
#include <QThread>

#include <sys/resource.h>

using namespace tanner::test;

namespace {

class NamesTest : public DeviceTest {
protected:
    // The rows that failed and their texts, after a backup.
    static QStringList failedRows(const RecordingReceiver &receiver)
    {
        QStringList rows;
        for (const BUBackupStatusReport &status : receiver.statuses) {
            for (auto it = status.trans.cbegin(); it != status.trans.cend(); ++it) {
                if (!it.value().isEmpty())
                    rows.append(
                        LastPathComponent(g_transactions.at(it.key()).path()) + QStringLiteral(": ") + it.value());
            }
        }
        rows.sort();
        return rows;
    }
};

const QStringList kKeepingCase = {QStringLiteral("tmpfs"), QStringLiteral("ext4")};
const QStringList kIgnoringCase
    = {QStringLiteral("fusefat"), QStringLiteral("exfat-fuse"), QStringLiteral("ext4-casefold")};

} // namespace

// On a device that keeps case, names that differ only in case are different items, each with its
// own data, and a rename that changes only case replaces the old spelling.
TEST_F(NamesTest, ADeviceThatKeepsCaseMirrorsEverySpelling)
{
    TANNER_REQUIRE_MOUNTS();
    for (const QString &kind : kKeepingCase) {
        SCOPED_TRACE(kind.toStdString());
        if (!mountDeviceOfKind(kind))
            continue;
        WriteTree(source(),
            {{"README", "upper"}, {"Readme", "mixed"}, {"Photos/a.jpg", "A"}, {"photos/a.jpg", "a"},
                {"photos/Deep/d", "d"}, {"Alpha.txt", "alpha"}, {"Sub/inner.txt", "inner"}});
        backupAndExpectMirror();

        // An edit to one twin, and renames that change only case.
        WriteTree(source(), {{"Readme", "edited"}});
        SetModificationTime(source(QStringLiteral("Readme")), QDateTime::currentSecsSinceEpoch() + 10);
        ASSERT_TRUE(QFile::rename(source(QStringLiteral("Alpha.txt")), source(QStringLiteral("alpha.txt"))));
        ASSERT_TRUE(QDir().rename(source(QStringLiteral("Sub")), source(QStringLiteral("SUB"))));
        ASSERT_TRUE(QDir().rename(source(QStringLiteral("Photos")), source(QStringLiteral("PHOTOS"))));
        ClearTransactions();
        analyze();
        EXPECT_EQ(transactionLines(),
            (QStringList {"Delete folder Docs/Photos", "Delete folder Docs/Sub", "Delete file Docs/Alpha.txt",
                "Copy folder Docs/PHOTOS", "Copy folder Docs/SUB", "Copy file Docs/alpha.txt",
                "Copy file Docs/PHOTOS/a.jpg", "Copy file Docs/Readme", "Copy file Docs/SUB/inner.txt"}));
        backupAndExpectMirror();
        unmountDevice();
        RemoveItemAt(AT_FDCWD, FileNameToBytes(source()).constData(), nullptr);
        QDir().mkpath(source());
    }
}

// On a device that ignores case the first of two names that differ only in case is mirrored and
// the other fails with the reason, every run alike: nothing flips from run to run, and nothing is
// left stale while the run says the device is up to date.
TEST_F(NamesTest, ADeviceThatIgnoresCaseKeepsTheFirstSpellingAndSaysWhy)
{
    TANNER_REQUIRE_MOUNTS();
    int tested = 0;
    for (const QString &kind : kIgnoringCase) {
        SCOPED_TRACE(kind.toStdString());
        if (!mountDeviceOfKind(kind))
            continue;
        ++tested;
        // Without twins the device mirrors the source exactly, whatever the case of the names.
        WriteTree(source(), {{"MixedCase.TXT", "m"}, {"Folder/Inner.txt", "i"}});
        backupAndExpectMirror();

        WriteTree(source(), {{"Twin/f", "folder"}, {"twin", "file"}, {"Note.txt", "first"}});
        // A listing order is what decides: find which spelling of each pair the folder lists first.
        WriteFileBytes(FileNameToBytes(source(QStringLiteral("NOTE.txt"))), "second");
        const QStringList listed = QDir(source()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Unsorted);
        const bool noteFirst = listed.indexOf(QStringLiteral("Note.txt")) < listed.indexOf(QStringLiteral("NOTE.txt"));
        for (int run = 0; run < 2; ++run) {
            SCOPED_TRACE(run);
            ClearTransactions();
            analyze();
            RecordingReceiver receiver;
            backup(receiver);
            ASSERT_TRUE(receiver.complete.has_value());
            EXPECT_FALSE(receiver.complete->error.has_value());
            const QString other = noteFirst ? QStringLiteral("NOTE.txt") : QStringLiteral("Note.txt");
            const QString kept = noteFirst ? QStringLiteral("Note.txt") : QStringLiteral("NOTE.txt");
            EXPECT_EQ(failedRows(receiver),
                (QStringList {other + QStringLiteral(": The device ignores case, so \"") + kept
                        + QStringLiteral("\" and \"") + other + QStringLiteral("\" can't both be kept on it."),
                    "twin: The device ignores case, so \"Twin\" and \"twin\" can't both be kept on it."}));
            EXPECT_EQ(g_failedTransactions, 2);
            const Tree onDevice = ReadTree(device(QStringLiteral("Docs")));
            EXPECT_EQ(onDevice.value(QStringLiteral("Twin/f")), QByteArray("folder"));
            EXPECT_EQ(onDevice.value(kept), QByteArray(noteFirst ? "first" : "second"));
            EXPECT_FALSE(onDevice.contains(other));
        }
        unmountDevice();
        RemoveItemAt(AT_FDCWD, FileNameToBytes(source()).constData(), nullptr);
        QDir().mkpath(source());
    }
    if (tested == 0)
        GTEST_SKIP() << "no file system that ignores case can be made or mounted here";
}

// Names are bytes: a byte-order mark inside or at the start of a name, Latin-1 bytes and stray
// continuation bytes are backed up under the very same bytes, and a device item that differs from
// a mirror item only by such a character is a different item.
TEST_F(NamesTest, EveryNameIsKeptByteForByte)
{
    TANNER_REQUIRE_MOUNTS();
    for (const QString &kind : kKeepingCase) {
        SCOPED_TRACE(kind.toStdString());
        if (!mountDeviceOfKind(kind))
            continue;
        const QByteArray root = FileNameToBytes(source());
        for (const QByteArray &folder : {QByteArray("\xef\xbb\xbf"
                                                    "folder"),
                 QByteArray("plain")})
            ASSERT_EQ(::mkdir(root + '/' + folder, 0755), 0);
        for (const QByteArray &name : {QByteArray("\xef\xbb\xbf"
                                                  "start"),
                 QByteArray("x\xef\xbb\xbfy"), QByteArray("caf\xe9"), QByteArray("\x80\xbf\xfe"),
                 QByteArray("e\xcc\x81"), QByteArray("\xc3\xa9"),
                 QByteArray("\xef\xbb\xbf"
                            "folder/\xef\xbb\xbf"),
                 QByteArray("plain/xy")})
            WriteFileBytes(root + '/' + name, name);
        // Strays on the device beside true mirror items: "x<U+FEFF>y" beside "xy".
        const QByteArray mirror = FileNameToBytes(device(QStringLiteral("Docs")));
        ASSERT_EQ(::mkdir(mirror, 0755), 0);
        ASSERT_EQ(::mkdir(mirror + "/plain", 0755), 0);
        WriteFileBytes(mirror + "/plain/x\xef\xbb\xbfy", "stray");
        WriteFileBytes(mirror + "/plain/xy", "plain/xy");
        ClearTransactions();
        analyze();
        EXPECT_EQ(transactionLines().filter(QStringLiteral("Delete")),
            QStringList {QStringLiteral("Delete file Docs/plain/x") + QChar(0xFEFF) + QStringLiteral("y")});
        backupAndExpectMirror();
        unmountDevice();
        RemoveItemAt(AT_FDCWD, root.constData(), nullptr);
        QDir().mkpath(source());
    }
}

// A backup folder whose name begins with "." is mirrored like any other, run after run, and the
// device's own items at its top level are neither extra nor touched.
TEST_F(NamesTest, DotNamedFoldersAndTheFileSystemsOwnItems)
{
    TANNER_REQUIRE_MOUNTS();
    for (const QString &kind : kKeepingCase) {
        SCOPED_TRACE(kind.toStdString());
        if (!mountDeviceOfKind(kind))
            continue;
        const QString dotted = m_sources.path() + QStringLiteral("/.config");
        WriteTree(dotted, {{"app/settings.conf", "v1"}, {"top.txt", "t"}});
        WriteTree(source(), {{"lost+found/kept.txt", "inside a mirror it is the user's"}});
        WriteTree(device(),
            {{"System Volume Information/IndexerVolumeGuid", "g"}, {"$RECYCLE.BIN/desktop.ini", "d"},
                {".Trash-1000/files/x", "x"}});
        QDir().mkpath(device(QStringLiteral("lost+found"))); // already there on ext4
        const Tree ownItems = ReadTree(device());
        backupAndExpectMirror({dotted, source()});
        WriteTree(dotted, {{"app/settings.conf", "v2"}, {"new.txt", "n"}});
        SetModificationTime(dotted + QStringLiteral("/app/settings.conf"), QDateTime::currentSecsSinceEpoch() + 10);
        backupAndExpectMirror({dotted, source()});
        Tree after = ReadTree(device());
        for (auto it = ownItems.cbegin(); it != ownItems.cend(); ++it)
            EXPECT_EQ(after.value(it.key(), "<gone>"), it.value()) << it.key().toStdString();
        // Only the top level is the file system's: an item of that name anywhere else is the user's.
        QDir().mkpath(device(QStringLiteral("Docs/lost+found/stale")));
        ClearTransactions();
        analyze();
        EXPECT_EQ(transactionLines(), QStringList {"Delete folder Docs/lost+found/stale"});
        unmountDevice();
        RemoveItemAt(AT_FDCWD, FileNameToBytes(dotted).constData(), nullptr);
        RemoveItemAt(AT_FDCWD, FileNameToBytes(source()).constData(), nullptr);
        QDir().mkpath(source());
    }
}

// A backup folder on the device itself is refused: its mirror would be the only copy. A device
// whose name extends another's is another device ("Dev2" is not inside "Dev").
TEST_F(NamesTest, WhereABackupFolderLives)
{
    mountDevice();
    WriteTree(device(), {{"Stuff/only-copy.txt", "x"}});
    for (const QString &folder : {device(QStringLiteral("Stuff")), device()}) {
        ClearTransactions();
        BUAnalyzeOperation analysis(QStringLiteral("Dev"), nullptr, {folder}, {}, {});
        EXPECT_EQ(analysis.analyze().error.value_or(QString()),
            QStringLiteral("I can't backup to \"Dev\" because the backup folder \"") + folder
                + QStringLiteral("\" is on that device itself, and a backup must be kept apart from its original."));
        EXPECT_TRUE(g_transactions.isEmpty());
    }
    RemoveItemAt(AT_FDCWD, FileNameToBytes(device(QStringLiteral("Stuff"))).constData(), nullptr);

    const QString other = m_volumes.path() + QStringLiteral("/Dev2");
    ASSERT_TRUE(MountTmpfs(other, 16 << 20));
    m_mounted.prepend(other);
    WriteTree(other, {{"Photos/a.jpg", "a"}, {"Photos/deep/b.jpg", "b"}});
    backupAndExpectMirror({other + QStringLiteral("/Photos")});
}

// Depth is limited by nothing but the file system: a source deeper than PATH_MAX is analysed, and a
// device folder 1,900 levels deep is deleted with few descriptors open, under a low limit.
TEST_F(NamesTest, DepthBeyondPathMax)
{
    mountDevice(256 << 20);
    // The source: 100 levels of 60-byte names, 6,100 bytes below the backup folder.
    const QByteArray level(60, 'n');
    int fd = ::open(FileNameToBytes(source()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(::mkdirat(fd, level.constData(), 0755), 0);
        const int next = ::openat(fd, level.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    const int file = ::openat(fd, "deepest.txt", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(file, 0);
    ::close(file);
    ::close(fd);
    // The device: a stale folder 1,900 levels deep.
    fd = ::open(FileNameToBytes(device()).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (const char *name : {"Docs", "stale"}) {
        ASSERT_EQ(::mkdirat(fd, name, 0755), 0);
        const int next = ::openat(fd, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    for (int i = 0; i < 1900; ++i) {
        ASSERT_EQ(::mkdirat(fd, "dd", 0755), 0);
        const int next = ::openat(fd, "dd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ::close(fd);
        fd = next;
    }
    ::close(fd);

    rlimit saved;
    ::getrlimit(RLIMIT_NOFILE, &saved);
    rlimit low = saved;
    low.rlim_cur = 256;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    const BUAnalysisReport report = analyze();
    EXPECT_FALSE(report.error.has_value()) << report.error.value_or(QString()).toStdString();
    const QStringList lines = transactionLines();
    EXPECT_EQ(lines.size(), 1 + 100 + 1);
    EXPECT_EQ(lines.value(0), QStringLiteral("Delete folder Docs/stale"));
    EXPECT_TRUE(lines.last().endsWith(QStringLiteral("/deepest.txt")));
    BUError error;
    const int docs = ::open(FileNameToBytes(device(QStringLiteral("Docs"))).constData(), O_RDONLY | O_DIRECTORY);
    EXPECT_TRUE(RemoveItemAt(docs, "stale", &error)) << error.failureReason.toStdString();
    ::close(docs);
    ::setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_FALSE(QFileInfo::exists(device(QStringLiteral("Docs/stale"))));
    backupAndExpectMirror();

    // Then the deepest file's mode and the mode and times of a folder 80 levels down change: the
    // Updates reach them and the folder keeps its times past the end of the run.
    auto openLevels = [&level](const QString &top, int levels) {
        int at = ::open(FileNameToBytes(top).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        for (int i = 0; i < levels && at >= 0; ++i) {
            const int next = ::openat(at, level.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
            ::close(at);
            at = next;
        }
        return at;
    };
    const QString mirror = device(LastPathComponent(source()));
    QThread::sleep(1); // the changes come after the device copies' own, to the second
    fd = openLevels(source(), 100);
    ASSERT_EQ(::fchmodat(fd, "deepest.txt", 0600, 0), 0);
    ::close(fd);
    const timespec times[2] = {{1000000000, 0}, {1000000000, 0}};
    fd = openLevels(source(), 79);
    ASSERT_EQ(::fchmodat(fd, level.constData(), 0750, 0), 0);
    ASSERT_EQ(::utimensat(fd, level.constData(), times, 0), 0);
    ::close(fd);
    analyze();
    const QStringList updates = transactionLines();
    ASSERT_EQ(updates.size(), 2) << updates.join(u'\n').toStdString();
    EXPECT_TRUE(updates[0].startsWith(QStringLiteral("Update ")));
    EXPECT_TRUE(updates[1].startsWith(QStringLiteral("Update ")));
    backupAndExpectMirror();
    struct stat status = {};
    fd = openLevels(mirror, 100);
    EXPECT_EQ(::fstatat(fd, "deepest.txt", &status, 0), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    ::close(fd);
    fd = openLevels(mirror, 79);
    EXPECT_EQ(::fstatat(fd, level.constData(), &status, 0), 0);
    EXPECT_EQ(status.st_mode & 07777, 0750U);
    EXPECT_EQ(status.st_mtim.tv_sec, 1000000000);
    ::close(fd);

    // A delete that deep: the folder that held the file gets its source's times back at the end.
    fd = openLevels(source(), 100);
    ASSERT_EQ(::unlinkat(fd, "deepest.txt", 0), 0);
    ASSERT_EQ(::utimensat(fd, ".", times, 0), 0);
    ::close(fd);
    backupAndExpectMirror();
    fd = openLevels(mirror, 100);
    EXPECT_EQ(::fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mtim.tv_sec, 1000000000) << "the deepest folder's time";
    ::close(fd);
}
