// The analysis on real folders and a real device: what it lists, what it leaves alone, and how it
// fails. The transactions are checked in table order.
#include "backup/BUAnalysisTrees.h"
#include "backup/BUError.h"
#include "keelson/KSKernel.h"
#include "tests/EngineTestHelpers.h"

#include <QThread>

#include <cerrno>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/xattr.h>

using namespace tanner::test;

namespace {

void MakeSocket(const QString &path)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    const QByteArray bytes = FileNameToBytes(path);
    std::memcpy(address.sun_path, bytes.constData(), std::min<std::size_t>(bytes.size(), sizeof address.sun_path - 1));
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    ::close(fd);
}

} // namespace

TEST(Transactions, TableOrderAndErrorCodes)
{
    BUTransaction copyFolder(QStringLiteral("/s/B"), QStringLiteral("/s"));
    copyFolder.setFolder(true);
    BUTransaction deleteFile(QStringLiteral("/v/D/z"), QString());
    deleteFile.setAction(BUTransaction::kDelete);
    BUTransaction copyLower(QStringLiteral("/s/b.txt"), QStringLiteral("/s"));
    BUTransaction copyUpper(QStringLiteral("/s/B.TXT"), QStringLiteral("/s"));
    EXPECT_EQ(deleteFile.compare(copyFolder), -1) << "action wins over kind";
    EXPECT_EQ(copyFolder.compare(copyLower), -1) << "folders before files";
    EXPECT_EQ(copyLower.compare(copyUpper), 0) << "paths compare without case";
    EXPECT_EQ(copyLower.actionName(), QStringLiteral("Copy"));

    // Items named within a folder's place read and sort like whole paths, across places too.
    const auto docs = BUTransaction::makePlace(QStringLiteral("/s"), QStringLiteral("/"), QStringLiteral("B.TXTa.md"));
    const auto docsAgain = BUTransaction::makePlace(QStringLiteral("/s"), QStringLiteral("/"), QStringLiteral("c"));
    const auto top = BUTransaction::makePlace(QStringLiteral("/"), QString(), QStringLiteral("s"));
    const BUTransaction upper(docs, 0, 5), markdown(docs, 5, 4), third(docsAgain, 0, 1), atTop(top, 0, 1);
    EXPECT_EQ(upper.path(), QStringLiteral("/s/B.TXT"));
    EXPECT_EQ(atTop.path(), QStringLiteral("/s"));
    EXPECT_EQ(upper.rootPath(), QStringLiteral("/"));
    EXPECT_TRUE(atTop.rootPath().isNull());
    EXPECT_EQ(upper.compare(copyLower), 0);
    EXPECT_EQ(markdown.compare(upper), -1);
    EXPECT_EQ(third.compare(markdown), 1);
    EXPECT_EQ(atTop.compare(upper), -1) << "a folder's path before its items'";
    EXPECT_TRUE(BUTransaction().path().isEmpty());

    // A place keeps its path after the root it shares; the whole path reads back, and places whose
    // kept paths agree below different roots are different folders.
    auto item = [](const QString &folder, const QString &root) {
        return BUTransaction(BUTransaction::makePlace(folder, root, QStringLiteral("f")), 0, 1);
    };
    EXPECT_EQ(
        item(QStringLiteral("/home/a/Docs/x"), QStringLiteral("/home/a")).path(), QStringLiteral("/home/a/Docs/x/f"));
    EXPECT_EQ(item(QStringLiteral("/home/a"), QStringLiteral("/home/a")).path(), QStringLiteral("/home/a/f"));
    EXPECT_EQ(item(QStringLiteral("/home/ab/x"), QStringLiteral("/home/a")).path(), QStringLiteral("/home/ab/x/f"));
    EXPECT_EQ(item(QStringLiteral("/home/a/x"), QStringLiteral("/home/a/")).path(), QStringLiteral("/home/a/x/f"));
    const BUTransaction underX(
        BUTransaction::makePlace(QStringLiteral("/x/n"), QStringLiteral("/x"), QStringLiteral("b")), 0, 1);
    const BUTransaction underY(
        BUTransaction::makePlace(QStringLiteral("/y/n"), QStringLiteral("/y"), QStringLiteral("a")), 0, 1);
    EXPECT_EQ(underX.compare(underY), -1) << "/x/n/b before /y/n/a";
    EXPECT_EQ(item(QStringLiteral("/m/n"), QStringLiteral("/m")).compare(item(QStringLiteral("/m/n"), QString())), 0);

    // Names and paths beyond Latin-1 read back whole and sort with the Latin-1 ones; a name longer
    // than any Linux name is kept whole.
    const QString greek = QStringLiteral("\u03A9mega"), accented = QStringLiteral("\u00C9t\u00E9.txt");
    const auto wideNames = BUTransaction::makePlace(QStringLiteral("/s"), QStringLiteral("/"), accented + greek);
    const auto widePath = BUTransaction::makePlace(QStringLiteral("/s/\u65E5\u672C"), QStringLiteral("/"), accented);
    const BUTransaction wideAccented(wideNames, 0, uint32_t(accented.size())),
        omega(wideNames, uint32_t(accented.size()), uint32_t(greek.size())), inJapanese(widePath, 0, 7);
    const BUTransaction narrowAccented(
        BUTransaction::makePlace(QStringLiteral("/s"), QString(), QStringLiteral("\u00E9T\u00C9.TXT")), 0, 7);
    EXPECT_EQ(omega.path(), QStringLiteral("/s/\u03A9mega"));
    EXPECT_EQ(inJapanese.path(), QStringLiteral("/s/\u65E5\u672C/\u00C9t\u00E9.txt"));
    EXPECT_EQ(wideAccented.compare(narrowAccented), 0) << "the same name stored narrow and wide";
    EXPECT_EQ(wideAccented.compare(omega), -1);
    EXPECT_EQ(omega.compare(inJapanese), -1) << "\u03A9 sorts before \u65E5";
    const QString longName(300, u'n');
    const BUTransaction longOne(BUTransaction::makePlace(QStringLiteral("/s/"), QString(), longName), 0, 300);
    EXPECT_EQ(longOne.path(), QStringLiteral("/s/") + longName);
    // A name too far into its folder's names for a transaction to point at is kept whole.
    const QString manyNames = QString(1 << 24, u'x') + QStringLiteral("far.txt");
    const BUTransaction far(
        BUTransaction::makePlace(QStringLiteral("/s/big"), QStringLiteral("/s"), manyNames), uint32_t(1 << 24), 7);
    EXPECT_EQ(far.path(), QStringLiteral("/s/big/far.txt"));
    EXPECT_EQ(far.rootPath(), QStringLiteral("/s"));

    // A size of 4 GiB or more moves the item into a place of its own, keeping the rest.
    BUTransaction sized(docs, 0, 5);
    sized.setFolder(true);
    sized.setReplacesItem(true);
    sized.setFileSize(4294967295.0);
    const BUTransaction copied = sized;
    sized.setFileSize(5e12);
    EXPECT_EQ(sized.fileSize(), 5e12);
    EXPECT_EQ(copied.fileSize(), 4294967295.0);
    EXPECT_EQ(sized.path(), QStringLiteral("/s/B.TXT"));
    EXPECT_EQ(sized.rootPath(), QStringLiteral("/"));
    EXPECT_EQ(sized.compare(copied), 0);
    EXPECT_TRUE(sized.isFolder() && sized.replacesItem());
    sized.setFileSize(12);
    EXPECT_EQ(sized.fileSize(), 12);
    EXPECT_EQ(sized.path(), QStringLiteral("/s/B.TXT"));
    EXPECT_EQ(sized.action(), uint32_t(BUTransaction::kCopy));
    sized.setAction(BUTransaction::kDelete);
    sized.setFolder(false);
    EXPECT_TRUE(sized.replacesItem() && !sized.isFolder() && sized.action() == BUTransaction::kDelete);
    sized.setAction(9);
    EXPECT_EQ(sized.action(), uint32_t(BUTransaction::kCopy)) << "any other action is a Copy";
    sized.setFileSize(1e18);
    EXPECT_EQ(sized.fileSize(), double((uint64_t(1) << 48) - 1)) << "beyond 256 TiB counts as 256 TiB";

    const QList<QPair<int, int>> posix = {
        {EPERM, 513}, {ENOENT, 4}, {EACCES, 257}, {EEXIST, 516}, {ENODEV, 642}, {ENOSPC, 640}, {EROFS, 642}, {EIO, 0}};
    for (const auto &[errorNumber, code] : posix)
        EXPECT_EQ(CocoaDomainErrorCode(BUError::posix(errorNumber)), code) << errorNumber;
    EXPECT_EQ(CocoaDomainErrorCode(BUError::cocoa(260, ENOENT)), 4);
    EXPECT_EQ(CocoaDomainErrorCode(BUError::cocoa(513, EACCES)), 513);
    EXPECT_EQ(CocoaDomainErrorCode(BUError()), 0);
    EXPECT_EQ(ErrorReason(BUError {BUErrorDomain::Posix, 5, QString()}), QStringLiteral("An unknown error occurred."));
    EXPECT_EQ(ErrorReason(BUError {BUErrorDomain::Posix, 5, QStringLiteral("it\u2019s \u201Cx\u201D")}),
        QStringLiteral("it's \"x\""));
}

TEST(Transactions, PlacesLiveAsLongAsTheirTransactionsOnAnyThread)
{
    const auto shared = BUTransaction::makePlace(QStringLiteral("/s/Docs"), QStringLiteral("/s"), QStringLiteral("ab"));
    {
        const BUTransaction first(shared, 0, 1);
        BUTransaction second = first;
        EXPECT_EQ(shared->ref.loadRelaxed(), 3);
        const BUTransaction moved = std::move(second);
        EXPECT_EQ(shared->ref.loadRelaxed(), 3);
        BUTransaction other(shared, 1, 1);
        other = moved;
        EXPECT_EQ(other.path(), QStringLiteral("/s/Docs/a"));
        EXPECT_EQ(shared->ref.loadRelaxed(), 4);
    }
    EXPECT_EQ(shared->ref.loadRelaxed(), 1);

    // Two threads make and drop places, past the first chunks of handles, while a third place
    // stays readable; each keeps what it made, and the freed handles serve again.
    auto work = [](int thread) {
        BUTransactionList made;
        for (int round = 0; round < 2; ++round) {
            for (int i = 0; i < 3000; ++i) {
                const QString root = QStringLiteral("/t%1").arg(thread);
                made.append(BUTransaction(root + QStringLiteral("/f%1").arg(i), root));
            }
            for (qsizetype i = 0; i < made.size(); ++i) {
                if (made.at(i).path() != QStringLiteral("/t%1/f%2").arg(thread).arg(i))
                    return false;
            }
            made.clear();
        }
        return true;
    };
    bool done[2] = {false, false};
    QThread *threads[2] = {QThread::create([&] { done[0] = work(0); }), QThread::create([&] { done[1] = work(1); })};
    for (QThread *thread : threads)
        thread->start();
    for (QThread *thread : threads) {
        thread->wait();
        delete thread;
    }
    EXPECT_TRUE(done[0] && done[1]);
    EXPECT_EQ(BUTransaction(shared, 1, 1).rootPath(), QStringLiteral("/s"));
}

TEST(Transactions, SortingKeepsEqualOnesInTheirOrderWhateverTheBuffer)
{
    // Names equal but for case in two spellings of one folder, across actions and kinds, in a
    // shuffled order: every buffer size, down to one transaction, gives the library's stable order.
    BUTransactionList list;
    uint32_t seed = 7;
    auto next = [&seed] { return seed = seed * 1103515245U + 12345U; };
    const QString folders[] = {QStringLiteral("/s/Docs"), QStringLiteral("/s/DOCS"), QStringLiteral("/s/a")};
    for (int i = 0; i < 5000; ++i) {
        const QString name = QStringLiteral("f%1").arg(next() % 300);
        BUTransaction transaction(
            folders[next() % 3] + u'/' + (next() % 2 ? name.toUpper() : name), QStringLiteral("/s"));
        transaction.setAction(next() % 3);
        transaction.setFolder(next() % 4 == 0);
        transaction.setFileSize(i); // tells equal ones apart
        list.append(transaction);
    }
    BUTransactionList expected = list;
    std::stable_sort(expected.begin(), expected.end(),
        [](const BUTransaction &a, const BUTransaction &b) { return a.compare(b) < 0; });
    for (const qsizetype buffer : {1, 7, 700, 16384}) {
        BUTransactionList sorted = list;
        SortTransactions(sorted, buffer);
        ASSERT_EQ(sorted.size(), expected.size());
        for (qsizetype i = 0; i < sorted.size(); ++i) {
            ASSERT_EQ(sorted.at(i).fileSize(), expected.at(i).fileSize()) << "buffer " << buffer << ", row " << i;
            ASSERT_EQ(sorted.at(i).path(), expected.at(i).path());
        }
    }
}

TEST(Transactions, OutcomesAreKeptByRow)
{
    ClearTransactions();
    for (int i = 0; i < 200; ++i)
        g_transactions.append(BUTransaction(QStringLiteral("/s/f%1").arg(i), QStringLiteral("/s")));
    const double copiedBefore = g_copiedBytes;
    EXPECT_EQ(ApplyBackupStatus({{130, QStringLiteral("gone")}, {3, QString()}}, 10), 130);
    EXPECT_EQ(ApplyBackupStatus({{64, QStringLiteral("locked")}, {199, QStringLiteral("gone")}, {500, {}}}, 5), 199);
    EXPECT_EQ(g_copiedBytes - copiedBefore, 15);
    EXPECT_EQ(g_errors, (QStringList {QStringLiteral("gone"), QStringLiteral("locked")})) << "each text once";
    for (const qsizetype row : {3, 64, 130, 199})
        EXPECT_TRUE(g_outcomes.isDone(row)) << row;
    EXPECT_FALSE(g_outcomes.isDone(4) || g_outcomes.isDone(63) || g_outcomes.isDone(500) || g_outcomes.isDone(-1));
    EXPECT_FALSE(g_outcomes.failed(3));
    EXPECT_EQ(g_outcomes.errorIndex(64), 1u) << "reported after a later row";
    EXPECT_EQ(g_outcomes.errorIndex(130), 0u);
    EXPECT_EQ(g_outcomes.errorIndex(199), 0u);
    g_outcomes.setErrorIndex(64, 0);
    EXPECT_EQ(g_outcomes.errorIndex(64), 0u);
    EXPECT_EQ(g_outcomes.errorIndex(130), 0u);
    EXPECT_EQ(g_outcomes.errorText(64), QStringLiteral("gone"));
    EXPECT_TRUE(g_outcomes.errorText(3).isNull());
    EXPECT_EQ(g_outcomes.firstFailure(65), 130);
    EXPECT_EQ(g_outcomes.firstFailure(64), 64);
    EXPECT_EQ(g_outcomes.firstFailure(200), -1);
    ClearTransactions();
    EXPECT_TRUE(g_transactions.isEmpty());
    EXPECT_TRUE(g_errors.isEmpty());
    EXPECT_FALSE(g_outcomes.isDone(3) || g_outcomes.failed(130)) << "a new list starts with no outcomes";
}

TEST(FolderTrees, NamesStayPutWhileTheTreeGrows)
{
    using namespace BUAnalysis;
    FolderTree tree(10);
    ASSERT_TRUE(tree.isValid());
    QStringList names;
    for (int i = 0; i < 5000; ++i)
        names.append(i == 2500 ? QString(20000, u'x') : QStringLiteral("folder %1").arg(i)); // one longer than a block
    const FolderEntry blank {kNone, kNone, kNone, kNone, {}};
    for (qsizetype i = 0; i < names.size(); ++i)
        ASSERT_EQ(tree.add(blank, names[i]), uint64_t(i));
    const QStringView first = _Name(tree, 0);
    ASSERT_EQ(tree.add(blank, QStringLiteral("one more")), 5000U); // the entries move, the names do not
    EXPECT_EQ(_Name(tree, 0).data(), first.data());
    for (qsizetype i = 0; i < names.size(); ++i)
        ASSERT_EQ(_Name(tree, uint64_t(i)), names[i]) << i;
    EXPECT_EQ(tree.add(blank, QString(70000, u'y')), KSNotFound) << "longer than any path";
    EXPECT_EQ(tree.count(), 5001U);

    _Entry(tree, 7)->match = 4999;
    EXPECT_EQ(uint64_t(_Entry(tree, 7)->match), 4999U);
    EXPECT_EQ(uint64_t(_Entry(tree, 7)->parent), kNone);
    EXPECT_EQ(uint64_t(EntryLink(EntryLink::kMaxEntries)), kNone) << "an index too large for four bytes is none";
}

TEST_F(DeviceTest, ExtraItemsAtTheTopLevelStopTheAnalysis)
{
    mountDevice();
    WriteTree(device(), {{"Docs/a.txt", "a"}, {".dot-file", "x"}, {".dot-folder/", {}}});
    WriteTree(source(), {{"a.txt", "a"}});
    BUAnalysisReport report = analyze();
    EXPECT_FALSE(report.extra.has_value());
    EXPECT_FALSE(report.error.has_value());

    WriteTree(device(), {{"stray.txt", "x"}, {"docs/", {}}, {"Zebra/", {}}});
    report = analyze();
    ASSERT_TRUE(report.extra.has_value());
    // A folder whose name differs only in case from the backup folder's counts as extra.
    EXPECT_EQ(*report.extra, (QStringList {"docs", "stray.txt", "Zebra"}));
    EXPECT_TRUE(report.error.has_value());
    EXPECT_TRUE(g_transactions.isEmpty());
}

TEST_F(DeviceTest, ListsWhatMakesTheDeviceAMirror)
{
    mountDevice();
    const qint64 old = 1500000000;
    const Tree both = {{"same.txt", "same"}, {"older.txt", "device is newer"}, {"newer.txt", "v1"},
        {"resized.txt", "short"}, {"mode.txt", "m"}, {"tagged.txt", "t"}, {"!bang.txt", "b"}, {"draft~.txt", "d"},
        {"Readme.TXT", "r"}, {"Caches/c.txt", "c"}, {"a.tmp", "tmp"}, {"Form.NIB/", {}}, {"sub/", {}}};
    WriteTree(source(), both);
    WriteTree(device(), both);
    WriteTree(device(),
        {{"Docs/gone.txt", "g"}, {"Docs/OldFolder/inner/x", "x"}, {"Docs/.hidden", "h"},
            {"Docs/.tanner-partial-0123456789abcdef", "partial"}});
    QFile::rename(device(QStringLiteral("Readme.TXT")), device(QStringLiteral("Docs/readme.txt")));
    for (const QString &name : both.keys()) {
        if (!name.endsWith(u'/') && name != u"Readme.TXT")
            QFile::rename(device(name), device(QStringLiteral("Docs/") + name));
    }
    QDir(device()).rename(QStringLiteral("Form.NIB"), QStringLiteral("Docs/Form.NIB"));
    QDir(device()).rename(QStringLiteral("sub"), QStringLiteral("Docs/sub"));
    QDir(device()).rename(QStringLiteral("Caches"), QStringLiteral("Docs/Caches"));
    for (const char *name : {"same.txt", "older.txt", "resized.txt", "mode.txt", "tagged.txt", "Readme.TXT",
             "!bang.txt", "draft~.txt", "a.tmp", "Caches/c.txt"}) {
        const QString file = QString::fromUtf8(name);
        SetModificationTime(source(file), old);
        SetModificationTime(
            device(QStringLiteral("Docs/") + (file == u"Readme.TXT" ? QStringLiteral("readme.txt") : file)), old);
    }
    SetModificationTime(source(QStringLiteral("older.txt")), old - 100);
    SetModificationTime(device(QStringLiteral("Docs/newer.txt")), old);
    WriteTree(source(), {{"resized.txt", "a longer text"}});
    SetModificationTime(source(QStringLiteral("resized.txt")), old);

    // Attribute changes count only when they are later than the device copy's last change.
    QThread::sleep(1);
    ::chmod(FileNameToBytes(source(QStringLiteral("mode.txt"))).constData(), 0600);
    ::chmod(FileNameToBytes(source(QStringLiteral("Form.NIB"))).constData(), 0700);
    ASSERT_EQ(
        ::setxattr(FileNameToBytes(source(QStringLiteral("tagged.txt"))).constData(), "user.xdg.tags", "red", 3, 0), 0);
    WriteTree(source(),
        {{"new.txt", "new"}, {"~", "tilde"}, {"~.txt", "tilde"}, {"NewFolder/deeper/f", "f"}, {".hidden-source", "h"}});
    WriteFileBytes(FileNameToBytes(source()) + "/caf\xe9", "latin-1 name");
    ::mkfifo(FileNameToBytes(source(QStringLiteral("fifo"))).constData(), 0644);
    MakeSocket(source(QStringLiteral("socket")));
    QFile::link(QStringLiteral("/etc"), source(QStringLiteral("link-to-etc")));
    QFile::link(QStringLiteral("/etc/passwd"), device(QStringLiteral("Docs/device-link")));

    BURuleList folderRules = {BUIgnoreRule(QStringLiteral("00Caches"))};
    BURuleList fileRules = {BUIgnoreRule(QStringLiteral("10tmp"))};
    const BUAnalysisReport report = analyze(folderRules, fileRules);
    EXPECT_FALSE(report.error.has_value()) << report.error.value_or(QString()).toStdString();
    const QStringList expected = {
        "Delete folder Docs/Caches",
        "Delete folder Docs/OldFolder",
        "Delete file Docs/!bang.txt",
        "Delete file Docs/.tanner-partial-0123456789abcdef",
        "Delete file Docs/a.tmp",
        "Delete file Docs/draft~.txt",
        "Delete file Docs/gone.txt",
        "Delete file Docs/readme.txt", // the device keeps case: a rename at the source is a new name
        "Update file Docs/mode.txt",
        "Update file Docs/tagged.txt",
        "Copy folder Docs/NewFolder",
        "Copy folder Docs/NewFolder/deeper",
        "Copy file Docs/" + QString::fromLatin1("caf") + FileNameFromBytes("\xe9"),
        "Copy file Docs/new.txt",
        "Copy file Docs/newer.txt",
        "Copy file Docs/NewFolder/deeper/f", // "." sorts before letters
        "Copy file Docs/Readme.TXT",
        "Copy file Docs/~",
        "Copy file Docs/~.txt",
    };
    EXPECT_EQ(transactionLines(), expected);
    EXPECT_EQ(g_totalBytes, 1.0 + 12 + 3 + 2 + 5 + 5 + 1);
}

// A folder of thousands of entries is read in blocks whose properties several threads read at
// once; the outcome and the table order must be those of a small folder.
TEST_F(DeviceTest, LargeFolderListsTheSameAsSmallOnes)
{
    mountDevice();
    const qint64 old = 1500000000;
    QStringList expected;
    QDir().mkpath(device(QStringLiteral("Docs")));
    for (int i = 0; i < 2600; ++i) {
        const QString name = QStringLiteral("f%1.txt").arg(i, 4, 10, QLatin1Char('0'));
        const int fate = i % 4; // 0 new, 1 older on the device, 2 the same, 3 gone from the source
        if (fate != 3) {
            WriteFileBytes(FileNameToBytes(source(name)), "s");
            SetModificationTime(source(name), old);
        }
        if (fate != 0) {
            WriteFileBytes(FileNameToBytes(device(QStringLiteral("Docs/") + name)), "d");
            SetModificationTime(device(QStringLiteral("Docs/") + name), fate == 1 ? old - 10 : old);
        }
        if (fate == 0 || fate == 1)
            expected.append(QStringLiteral("Copy file Docs/") + name);
        else if (fate == 3)
            expected.prepend(QStringLiteral("Delete file Docs/") + name);
    }
    std::sort(expected.begin(), expected.begin() + 650); // the deletes were prepended backwards
    WriteTree(source(), {{".dot.txt", "x"}, {"Sub/inner.txt", "i"}});
    QFile::link(QStringLiteral("/etc/passwd"), source(QStringLiteral("f9999-link.txt")));
    ::mkfifo(FileNameToBytes(source(QStringLiteral("f9999.fifo"))).constData(), 0644);
    expected.insert(650, QStringLiteral("Copy folder Docs/Sub"));
    expected.append(QStringLiteral("Copy file Docs/Sub/inner.txt"));

    const BUAnalysisReport report = analyze();
    EXPECT_FALSE(report.error.has_value()) << report.error.value_or(QString()).toStdString();
    EXPECT_EQ(transactionLines(), expected);
    EXPECT_EQ(g_totalBytes, 1300.0 + 1);
}

// A failure ends the comparison at once while the readers still hold more files than the
// comparison lets them keep: the analysis must still finish and report it.
TEST_F(DeviceTest, FailureWhileTheReadersAreFullIsReported)
{
    mountDevice();
    for (int folder = 0; folder < 200; ++folder) {
        const QByteArray path = FileNameToBytes(source(QStringLiteral("F%1").arg(folder)));
        ASSERT_EQ(::mkdir(path.constData(), 0755), 0);
        for (int file = 0; file < 200; ++file)
            WriteFileBytes(path + "/f" + QByteArray::number(file), {});
    }
    const QString missing = m_sources.path() + QStringLiteral("/Missing");
    BUAnalyzeOperation operation(QStringLiteral("Dev"), nullptr, {missing, source()}, {}, {});
    const BUAnalysisReport report = operation.analyze();
    ASSERT_TRUE(report.error.has_value());
    EXPECT_EQ(*report.error,
        QStringLiteral("I can't backup to \"Dev\" because I can't examine the contents of the folder \"") + missing
            + QStringLiteral("\" -- No such file or directory."));
}

TEST_F(DeviceTest, AdvancedUserMarkKeepsNamesOut)
{
    mountDevice();
    WriteTree(source(), {{QString(QChar(0x273D)) + QStringLiteral("draft.txt"), "d"}});
    g_advancedUser = true;
    analyze();
    EXPECT_EQ(transactionLines(), (QStringList {"Copy folder Docs"}));
    g_advancedUser = false;
    analyze();
    EXPECT_EQ(transactionLines().size(), 2);
}

TEST_F(DeviceTest, NeverWalksIntoTheDeviceMountedInsideASource)
{
    // The volumes root lies inside the backup folder.
    qputenv("TANNER_VOLUMES_ROOT", QFile::encodeName(source(QStringLiteral("media"))));
    m_device = source(QStringLiteral("media/Dev"));
    mountDevice();
    WriteTree(source(), {{"a.txt", "a"}});
    WriteTree(device(), {{"Docs/on-device.txt", "x"}});
    const BUAnalysisReport report = analyze();
    EXPECT_FALSE(report.error.has_value());
    EXPECT_EQ(transactionLines(),
        (QStringList {"Delete file Docs/on-device.txt", "Copy folder Docs/media", "Copy file Docs/a.txt"}));
}

TEST_F(DeviceTest, FailsOnAnUnmountedDeviceAndOnCancel)
{
    QDir().mkpath(device()); // the mount folder an ejected device leaves behind
    BUAnalysisReport report = analyze();
    ASSERT_TRUE(report.error.has_value());
    EXPECT_EQ(
        *report.error, QStringLiteral("I can't backup to \"Dev\" because I can't examine the contents of the disk."));

    mountDevice();
    BUAnalyzeOperation operation(QStringLiteral("Dev"), nullptr, {source()}, {}, {});
    operation.cancel();
    report = operation.analyze();
    EXPECT_TRUE(report.cancel);
    EXPECT_EQ(*report.error, QStringLiteral("I can't backup to \"Dev\" because canceled."));
}
