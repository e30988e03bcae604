// The analysis and the backup of a generated tree against reference lists kept in tests/data/engine:
// what the engine lists and what the device holds afterwards must not change when the way it reads,
// compares or copies changes. The tree comes from a fixed seed: folders and files at several
// depths, names in NFC and NFD, in other letter cases on the device, in Latin-1 bytes, names the
// analysis refuses or the rules ignore, newer, older, resized and re-moded files, extended
// attributes, owners, links, FIFOs, stale and left-over device items, and one file big enough for
// the streaming copy.
//
// After a deliberate change of behaviour, write new lists with TANNER_WRITE_REFERENCE=1.
#include "tests/EngineTestHelpers.h"

#include <QDirIterator>
#include <QThread>

#include <algorithm>
#include <dirent.h>
#include <sys/xattr.h>

using namespace tanner::test;

namespace {

constexpr qint64 kBaseTime = 1600000000;

// splitmix64: the same sequence on every machine and library.
struct Random {
    uint64_t state;
    uint64_t next()
    {
        uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    int below(int n) { return int(next() % uint64_t(n)); }
    QByteArray bytes(qsizetype size)
    {
        QByteArray data(size, Qt::Uninitialized);
        for (qsizetype i = 0; i < size; i += 8) {
            const uint64_t word = next();
            std::memcpy(data.data() + i, &word, std::size_t(std::min<qsizetype>(8, size - i)));
        }
        return data;
    }
};

struct Item {
    QByteArray content;
    mode_t mode = 0644;
    uid_t owner = 0;
    qint64 seconds = kBaseTime;
    long nanoseconds = 0;
    QByteArray tag; // user.xdg.tags, none when empty
};

void WriteItem(const QByteArray &path, const Item &item, bool folder)
{
    if (folder) {
        ASSERT_EQ(::mkdir(path.constData(), item.mode), 0) << path.constData();
    } else {
        WriteFileBytes(path, item.content);
    }
    ASSERT_EQ(::chmod(path.constData(), item.mode), 0);
    ASSERT_EQ(::lchown(path.constData(), item.owner, item.owner), 0);
    if (!item.tag.isEmpty()) {
        ASSERT_EQ(::lsetxattr(path.constData(), "user.xdg.tags", item.tag.constData(), item.tag.size(), 0), 0);
    }
}

void SetTime(const QByteArray &path, const Item &item)
{
    const timespec times[2] = {{item.seconds, 0}, {item.seconds, item.nanoseconds}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.constData(), times, AT_SYMLINK_NOFOLLOW), 0) << path.constData();
}

// A line of a reference list: bytes outside printable ASCII as \xHH, so that every name survives.
QByteArray Escaped(const QByteArray &bytes)
{
    QByteArray out;
    for (const char c : bytes) {
        const auto u = uint8_t(c);
        if (u >= 0x20 && u < 0x7F && u != '\\')
            out += c;
        else
            out += "\\x" + QByteArray::number(u, 16).rightJustified(2, '0');
    }
    return out;
}

uint64_t Digest(const QByteArray &bytes)
{
    uint64_t hash = 14695981039346656037ULL;
    for (const char c : bytes)
        hash = (hash ^ uint8_t(c)) * 1099511628211ULL;
    return hash;
}

QByteArray ReadAll(const QByteArray &path)
{
    QFile file(QFile::decodeName(path));
    const int fd = ::open(path.constData(), O_RDONLY | O_NOFOLLOW);
    if (fd < 0 || !file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle))
        return QByteArray("<unreadable>");
    return file.readAll();
}

QByteArray Tag(const QByteArray &path)
{
    char value[64];
    const ssize_t size = ::lgetxattr(path.constData(), "user.xdg.tags", value, sizeof value);
    return size < 0 ? QByteArray() : QByteArray(value, size);
}

// Every item below a folder, in byte order of the paths: type, mode, owner, time, size, digest.
void DescribeTree(const QByteArray &root, const QByteArray &relative, QList<QByteArray> *lines)
{
    const QByteArray folder = relative.isEmpty() ? root : root + '/' + relative;
    DIR *listing = ::opendir(folder.constData());
    ASSERT_NE(listing, nullptr) << folder.constData();
    QList<QByteArray> names;
    while (const dirent *entry = ::readdir(listing)) {
        const QByteArray name(entry->d_name);
        if (name != "." && name != "..")
            names.append(name);
    }
    ::closedir(listing);
    std::sort(names.begin(), names.end());
    for (const QByteArray &name : std::as_const(names)) {
        const QByteArray child = relative.isEmpty() ? name : relative + '/' + name;
        const QByteArray path = root + '/' + child;
        struct stat status = {};
        ASSERT_EQ(::lstat(path.constData(), &status), 0);
        QByteArray line = Escaped(child) + ' ';
        if (S_ISLNK(status.st_mode)) {
            lines->append(line + "link");
            continue;
        }
        line += QByteArray(S_ISDIR(status.st_mode) ? "folder " : "file ")
            + QByteArray::number(status.st_mode & 07777, 8) + ' ' + QByteArray::number(status.st_uid) + ':'
            + QByteArray::number(status.st_gid) + ' ' + QByteArray::number(qint64(status.st_mtim.tv_sec)) + ' ';
        if (S_ISDIR(status.st_mode)) {
            lines->append(line + Escaped(Tag(path)));
            DescribeTree(root, child, lines);
        } else {
            lines->append(line + QByteArray::number(qint64(status.st_size)) + ' '
                + QByteArray::number(Digest(ReadAll(path)), 16) + ' ' + Escaped(Tag(path)));
        }
    }
}

// Compares with the reference list of that name, or writes it when asked to.
void ExpectReference(const char *name, const QList<QByteArray> &lines)
{
    const QString path = QStringLiteral(TANNER_TEST_DATA_DIR "/engine/") + QString::fromUtf8(name);
    QByteArray text;
    for (const QByteArray &line : lines)
        text += line + '\n';
    if (qEnvironmentVariableIsSet("TANNER_WRITE_REFERENCE")) {
        QDir().mkpath(QFileInfo(path).path());
        QFile out(path);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly | QIODevice::Truncate));
        out.write(text);
        return;
    }
    QFile in(path);
    ASSERT_TRUE(in.open(QIODevice::ReadOnly)) << path.toStdString();
    const QList<QByteArray> expected = in.readAll().split('\n');
    const QList<QByteArray> actual = text.split('\n');
    for (qsizetype i = 0; i < std::max(expected.size(), actual.size()); ++i) {
        ASSERT_EQ((i < actual.size() ? actual[i] : QByteArray("<end>")).toStdString(),
            (i < expected.size() ? expected[i] : QByteArray("<end>")).toStdString())
            << name << " line " << i + 1;
    }
}

class EquivalenceTest : public DeviceTest {
protected:
    // Writes the source and the device's earlier state; the items whose attributes change after
    // the device copies were made go to m_changedLater.
    void generate()
    {
        Random random {20261122};
        const QByteArray src = FileNameToBytes(source());
        const QByteArray dev = FileNameToBytes(device(QStringLiteral("Docs")));

        // Folders: (source name, device name: empty for none, "=" for the same); the first four
        // are refused or ignored on the source.
        const QList<QPair<QByteArray, QByteArray>> specialFolders
            = {{"Caches", "="}, {"draft~", "="}, {"!private", ""}, {".hidden", "="}, {"Caf\xc3\xa9", "CAFE\xcc\x81"},
                {"Form.nib", "="}, {"lat\xe9n", "="}, {"\xe5\x90\x8d\xe5\x89\x8d", ""}};
        QList<QByteArray> folders = {""}; // source folders, relative
        QMap<QByteArray, QByteArray> mirrors; // source folder -> device folder, when there is one
        mirrors.insert("", "");
        // Special names go where both sides look at them.
        auto plain = [&](const QByteArray &folder) {
            return mirrors.contains(folder)
                && std::none_of(specialFolders.begin(), specialFolders.begin() + 4,
                    [&folder](const auto &special) { return folder.contains(special.first); });
        };
        for (qsizetype i = 0, special = 0; i < folders.size() && folders.size() < 120; ++i) {
            const int depth = folders[i].isEmpty() ? 0 : int(folders[i].count('/')) + 1;
            const int children = depth == 0 ? 5 : depth >= 5 ? 0 : 1 + random.below(depth < 2 ? 4 : 3);
            for (int c = 0; c < children; ++c) {
                QByteArray name = "dir" + QByteArray::number(folders.size());
                QByteArray mirror = random.below(10) == 0 ? name.toUpper() : name;
                if (special < specialFolders.size() && plain(folders[i]) && random.below(3) == 0) {
                    name = specialFolders[special].first;
                    mirror = specialFolders[special].second == "=" ? name : specialFolders[special].second;
                    ++special;
                } else if (random.below(7) == 0) {
                    mirror.clear();
                }
                const QByteArray path = folders[i].isEmpty() ? name : folders[i] + '/' + name;
                folders.append(path);
                if (name == "Form.nib")
                    m_changedLater.append(src + '/' + path); // a nib folder never gets an Update
                if (mirrors.contains(folders[i]) && !mirror.isEmpty()) {
                    const QByteArray parent = mirrors.value(folders[i]);
                    mirrors.insert(path, parent.isEmpty() ? mirror : parent + '/' + mirror);
                }
            }
        }
        ASSERT_GE(folders.size(), 60);

        QDir().mkpath(device(QStringLiteral("Docs")));
        for (const QByteArray &folder : std::as_const(folders)) {
            if (folder.isEmpty())
                continue;
            Item item;
            item.mode = random.below(4) == 0 ? 0750 : 0755;
            WriteItem(src + '/' + folder, item, true);
            if (mirrors.contains(folder))
                WriteItem(dev + '/' + mirrors.value(folder), item, true);
        }

        // Files, with what the device holds of each.
        const QList<QPair<QByteArray, QByteArray>> specialFiles
            = {{"caf\xe9.txt", "older"}, {"R\xc3\xa9sum\xc3\xa9.txt", "re\xcc\x81sume\xcc\x81.TXT"},
                {"backup~.txt", "same"}, {"~", ""}, {"~.txt", ""}, {"!secret.txt", "same"}, {".hidden.txt", "other"},
                {"x.tmp", "same"}, {"my cache.dat", "same"}, {"big.bin", ""}};
        int number = 0, special = 0;
        for (const QByteArray &folder : std::as_const(folders)) {
            const QByteArray from = folder.isEmpty() ? src : src + '/' + folder;
            const bool mirrored = mirrors.contains(folder);
            const QByteArray to = dev + (mirrors.value(folder).isEmpty() ? QByteArray() : '/' + mirrors.value(folder));
            const int count = random.below(8);
            for (int f = 0; f < count; ++f) {
                QByteArray name = "file" + QByteArray::number(number++) + (random.below(3) ? ".txt" : ".dat");
                int fate = random.below(100);
                QByteArray deviceName = name;
                if (special < specialFiles.size() && plain(folder) && random.below(4) == 0) {
                    name = specialFiles[special].first;
                    const QByteArray &how = specialFiles[special].second;
                    deviceName = how == "same" || how == "older" || how == "other" ? name : how;
                    fate = how == "older" ? 55 : how == "other" ? 85 : how.isEmpty() ? 75 : 0;
                    ++special;
                } else if (fate >= 96) {
                    deviceName = name.toUpper();
                }
                Item item;
                item.content = random.bytes(name == "big.bin" ? (17 << 20) + 123 : random.below(20000));
                item.mode = QList<mode_t> {0644, 0600, 0755, 0640}[random.below(4)];
                item.owner = random.below(6) == 0 ? 1234 : 0;
                item.seconds = kBaseTime + random.below(1000000);
                item.nanoseconds = random.below(1000000000);
                item.tag = random.below(8) == 0 ? "tag" + QByteArray::number(random.below(5)) : QByteArray();
                WriteItem(from + '/' + name, item, false);
                SetTime(from + '/' + name, item);
                if (!mirrored || (fate >= 70 && fate < 80))
                    continue; // nothing on the device: a Copy
                Item copy = item;
                // Times count to the nanosecond: a copy earlier within the same second is copied again.
                copy.nanoseconds = random.below(1000000000);
                if (fate >= 50 && fate < 60)
                    copy.seconds -= 1 + random.below(1000); // older: a Copy
                else if (fate >= 60 && fate < 70)
                    copy.seconds += 1 + random.below(1000); // newer: left alone
                else if (fate >= 80 && fate < 88)
                    copy.content = random.bytes(random.below(20000)); // resized, dated no earlier: left alone
                else if (fate >= 88 && fate < 96)
                    m_changedLater.append(from + '/' + name); // attributes change after the copy
                WriteItem(to + '/' + deviceName, copy, false);
                SetTime(to + '/' + deviceName, copy);
            }
            if (mirrored && random.below(5) == 0) {
                Item stale;
                stale.content = random.bytes(random.below(5000));
                const QByteArray path = to + "/stale" + QByteArray::number(number++) + ".bin";
                WriteItem(path, stale, false);
                SetTime(path, stale);
            }
        }
        ASSERT_EQ(special, specialFiles.size()) << "every special name is placed";

        // Items of one side only.
        const QByteArray someMirror = dev + '/' + mirrors.value(mirrors.lastKey());
        WriteTree(device(), {{"Docs/Old Stuff/inner/deep.txt", "old"}});
        WriteFileBytes(someMirror + "/.tanner-partial-00000000deadbeef", "left over");
        WriteFileBytes(dev + "/link-to-etc", "a file on the device");
        ASSERT_EQ(::symlink("/etc", (dev + "/device-link").constData()), 0);
        ASSERT_EQ(::symlink("/etc", (src + "/link-to-etc").constData()), 0);
        ASSERT_EQ(::mkfifo((src + "/pipe").constData(), 0644), 0);
        m_changedLater.append(src + '/' + folders[1]);

        // Folder times last: every entry made inside a folder sets its time.
        for (auto it = folders.crbegin(); it != folders.crend(); ++it) {
            Item item;
            item.seconds = kBaseTime - 1000 - int(it - folders.crbegin());
            SetTime(it->isEmpty() ? src : src + '/' + *it, item);
            if (mirrors.contains(*it)) {
                item.seconds -= 7;
                SetTime(mirrors.value(*it).isEmpty() ? dev : dev + '/' + mirrors.value(*it), item);
            }
        }
    }

    // The changes that come after the device copies were made, in a later second.
    void changeAttributesLater()
    {
        QThread::sleep(1);
        for (const QByteArray &path : std::as_const(m_changedLater)) {
            struct stat status = {};
            ASSERT_EQ(::lstat(path.constData(), &status), 0) << path.constData();
            ASSERT_EQ(::chmod(path.constData(), (status.st_mode & 07777) ^ 0010), 0);
            ASSERT_EQ(::lsetxattr(path.constData(), "user.xdg.tags", "later", 5, 0), 0);
        }
    }

    QList<QByteArray> m_changedLater;
};

} // namespace

TEST_F(EquivalenceTest, AnalysisAndBackupMatchTheReference)
{
    mountDevice(96 << 20);
    generate();
    changeAttributesLater();
    const BURuleList folderRules = {BUIgnoreRule(QStringLiteral("00Caches"))};
    const BURuleList fileRules = {BUIgnoreRule(QStringLiteral("10tmp")), BUIgnoreRule(QStringLiteral("01cache"))};

    const BUAnalysisReport report = analyze(folderRules, fileRules);
    ASSERT_FALSE(report.error.has_value()) << report.error->toStdString();
    QList<QByteArray> lines;
    const QByteArray sources = FileNameToBytes(m_sources.path()) + '/';
    const QByteArray deviceRoot = FileNameToBytes(device()) + '/';
    for (const BUTransaction &t : std::as_const(g_transactions)) {
        QByteArray path = FileNameToBytes(t.path());
        path = path.startsWith(sources) ? "source " + path.mid(sources.size())
                                        : "device " + path.mid(path.startsWith(deviceRoot) ? deviceRoot.size() : 0);
        lines.append(t.actionName().toLatin1() + (t.isFolder() ? " folder " : " file ") + Escaped(path) + ' '
            + QByteArray::number(qint64(t.fileSize())));
    }
    // Items that differ only in letter case may come in either order; the list is compared as a set.
    std::sort(lines.begin(), lines.end());
    lines.prepend("total " + QByteArray::number(qint64(g_totalBytes)) + " mirror items "
        + QByteArray::number(report.mirrorItems) + " to delete " + QByteArray::number(report.itemsToDelete));
    ExpectReference("equivalence-analysis.txt", lines);

    // Each copy has the source's bytes, mode, owner, tag and time on the device.
    QList<BUTransaction> copies;
    for (const BUTransaction &t : std::as_const(g_transactions)) {
        if (t.action() == BUTransaction::kCopy && !t.isFolder())
            copies.append(t);
    }
    RecordingReceiver receiver;
    backup(receiver);
    ASSERT_TRUE(receiver.complete.has_value());
    EXPECT_FALSE(receiver.complete->error.has_value()) << receiver.complete->error->toStdString();
    EXPECT_EQ(g_failedTransactions, 0);
    for (qsizetype row = 0; row < g_transactions.size(); ++row) {
        if (g_outcomes.failed(row))
            ADD_FAILURE() << g_transactions.at(row).path().toStdString() << ": "
                          << g_outcomes.errorText(row).toStdString();
    }
    for (const BUTransaction &t : std::as_const(copies)) {
        const QByteArray from = FileNameToBytes(t.path());
        QByteArray to;
        BUDeviceRoot root;
        ASSERT_TRUE(root.open(QStringLiteral("Dev"), nullptr));
        QByteArray name;
        const int parent = root.openParent(
            root.relativePath(FileNameFromBytes(deviceRoot + from.mid(sources.size()))), &name, true, nullptr);
        ASSERT_GE(parent, 0) << from.constData();
        to = "/proc/self/fd/" + QByteArray::number(parent) + '/' + name;
        struct stat a = {}, b = {};
        ASSERT_EQ(::lstat(from.constData(), &a), 0);
        ASSERT_EQ(::lstat(to.constData(), &b), 0) << from.constData();
        EXPECT_EQ(ReadAll(from), ReadAll(to)) << from.constData();
        EXPECT_EQ(a.st_mode, b.st_mode) << from.constData();
        EXPECT_EQ(a.st_uid, b.st_uid) << from.constData();
        EXPECT_EQ(a.st_mtim.tv_sec, b.st_mtim.tv_sec) << from.constData();
        EXPECT_EQ(a.st_mtim.tv_nsec, b.st_mtim.tv_nsec) << from.constData();
        EXPECT_EQ(Tag(from), Tag(to)) << from.constData();
        ::close(parent);
    }

    lines.clear();
    DescribeTree(FileNameToBytes(device()), {}, &lines);
    ExpectReference("equivalence-device.txt", lines);

    // The device is now a mirror: a second analysis finds nothing to do.
    analyze(folderRules, fileRules);
    EXPECT_TRUE(g_transactions.isEmpty()) << transactionLines().join(u'\n').toStdString();
}
