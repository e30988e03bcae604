#include "tests/support/TestSupport.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <sched.h>
#include <sys/mount.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace tanner::test {

namespace {

bool RunTool(const QString &program, const QStringList &args)
{
    QProcess process;
    process.start(program, args);
    if (!process.waitForFinished(120000))
        return false;
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

} // namespace

QString MountUnavailableReason()
{
    static const QString reason = [] {
        if (::geteuid() != 0)
            return QStringLiteral("needs root to mount file systems in a private mount namespace");
        if (::unshare(CLONE_NEWNS) != 0)
            return QStringLiteral("unshare(CLONE_NEWNS) failed: %1").arg(QString::fromLocal8Bit(strerror(errno)));
        if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
            return QStringLiteral("can't make / private: %1").arg(QString::fromLocal8Bit(strerror(errno)));
        return QString();
    }();
    return reason;
}

bool MountTmpfs(const QString &path, qint64 sizeBytes, const QString &extraOptions)
{
    QDir().mkpath(path);
    QString options = QStringLiteral("mode=0755");
    if (sizeBytes > 0)
        options += QStringLiteral(",size=%1").arg(sizeBytes);
    if (!extraOptions.isEmpty())
        options += u',' + extraOptions;
    const QByteArray target = QFile::encodeName(path);
    return ::mount("tmpfs", target.constData(), "tmpfs", 0, options.toUtf8().constData()) == 0;
}

bool RemountReadOnly(const QString &path)
{
    const QByteArray target = QFile::encodeName(path);
    return ::mount(nullptr, target.constData(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}

bool BindMount(const QString &from, const QString &to)
{
    QDir().mkpath(to);
    return ::mount(QFile::encodeName(from).constData(), QFile::encodeName(to).constData(), nullptr, MS_BIND, nullptr)
        == 0;
}

bool LazyUnmount(const QString &path)
{
    const QByteArray target = QFile::encodeName(path);
    return ::umount2(target.constData(), MNT_DETACH) == 0;
}

bool MountExt4Image(const QString &imagePath, int sizeMiB, const QString &mountPoint, const QStringList &mkfsOptions)
{
    QFile image(imagePath);
    if (!image.open(QIODevice::WriteOnly) || !image.resize(qint64(sizeMiB) * 1024 * 1024))
        return false;
    image.close();
    if (!RunTool(QStringLiteral("mkfs.ext4"),
            QStringList {QStringLiteral("-q"), QStringLiteral("-F")} + mkfsOptions + QStringList {imagePath}))
        return false;
    QDir().mkpath(mountPoint);
    return RunTool(QStringLiteral("mount"), {QStringLiteral("-o"), QStringLiteral("loop"), imagePath, mountPoint});
}

bool MountFuseImage(const QString &kind, const QString &imagePath, int sizeMiB, const QString &mountPoint)
{
    QFile image(imagePath);
    if (!image.open(QIODevice::WriteOnly) || !image.resize(qint64(sizeMiB) * 1024 * 1024))
        return false;
    image.close();
    QDir().mkpath(mountPoint);
    if (kind == u"fusefat") {
        return RunTool(QStringLiteral("mkfs.vfat"), {imagePath})
            && RunTool(QStringLiteral("fusefat"), {QStringLiteral("-o"), QStringLiteral("rw+"), imagePath, mountPoint});
    }
    if (kind == u"ntfs-3g") {
        return RunTool(QStringLiteral("mkntfs"),
                   {QStringLiteral("-F"), QStringLiteral("-Q"), QStringLiteral("-q"), imagePath})
            && RunTool(QStringLiteral("ntfs-3g"), {imagePath, mountPoint});
    }
    if (kind == u"exfat-fuse") {
        // The loop device stays attached until the image is unmounted and the kernel lets it go.
        QProcess losetup;
        losetup.start(QStringLiteral("losetup"), {QStringLiteral("-f"), QStringLiteral("--show"), imagePath});
        if (!losetup.waitForFinished(60000) || losetup.exitCode() != 0)
            return false;
        const QString loop = QString::fromLocal8Bit(losetup.readAllStandardOutput()).trimmed();
        const bool mounted = RunTool(QStringLiteral("mkfs.exfat"), {loop})
            && RunTool(QStringLiteral("mount.exfat-fuse"), {loop, mountPoint});
        RunTool(QStringLiteral("losetup"), {QStringLiteral("-d"), loop}); // detached once unmounted
        return mounted;
    }
    return false;
}

QString MountFaultFs(const QString &root, const QString &mountPoint, const QString &rulesFile)
{
    const QString script = QStringLiteral(TANNER_SOURCE_DIR "/tests/support/faultfs.py");
    if (QProcess::execute(QStringLiteral("/usr/bin/python3"), {QStringLiteral("-c"), QStringLiteral("import fusepy")})
        != 0)
        return QStringLiteral("the fault-injecting file system needs python3-fusepy");
    if (!QFileInfo::exists(QStringLiteral("/dev/fuse")))
        return QStringLiteral("the fault-injecting file system needs /dev/fuse");
    QDir().mkpath(mountPoint);
    const QByteArray target = QFile::encodeName(mountPoint);
    struct statfs before = {};
    ::statfs(target.constData(), &before);
    if (!QProcess::startDetached(QStringLiteral("/usr/bin/python3"), {script, root, mountPoint, rulesFile}))
        return QStringLiteral("python3 could not be started");
    constexpr long kFuseMagic = 0x65735546;
    for (int attempt = 0; attempt < 200; ++attempt) {
        struct statfs now = {};
        if (::statfs(target.constData(), &now) == 0 && now.f_type == kFuseMagic && before.f_type != kFuseMagic)
            return QString();
        ::usleep(25000);
    }
    return QStringLiteral("the fault-injecting file system did not mount");
}

void WriteTree(const QString &root, const Tree &tree)
{
    for (auto it = tree.begin(); it != tree.end(); ++it) {
        const QString path = root + u'/' + it.key();
        if (it.key().endsWith(u'/')) {
            ASSERT_TRUE(QDir().mkpath(path)) << path.toStdString();
            continue;
        }
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
        ASSERT_EQ(file.write(it.value()), it.value().size());
    }
}

Tree ReadTree(const QString &root)
{
    Tree tree;
    QDirIterator it(
        root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    const QDir base(root);
    while (it.hasNext()) {
        const QString path = it.next();
        const QFileInfo info(path);
        const QString relative = base.relativeFilePath(path);
        if (info.isSymLink()) {
            tree.insert(relative, "->" + QFile::encodeName(info.symLinkTarget()));
        } else if (info.isDir()) {
            tree.insert(relative + u'/', {});
        } else {
            QFile file(path);
            tree.insert(relative, file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>"));
        }
    }
    return tree;
}

ScopedXdgHome::ScopedXdgHome()
{
    const QMap<QByteArray, QString> values = {
        {"HOME", m_dir.path() + QStringLiteral("/home")},
        {"XDG_CONFIG_HOME", configPath()},
        {"XDG_DATA_HOME", m_dir.path() + QStringLiteral("/data")},
        {"XDG_STATE_HOME", m_dir.path() + QStringLiteral("/state")},
    };
    for (auto it = values.begin(); it != values.end(); ++it) {
        if (qEnvironmentVariableIsSet(it.key().constData()))
            m_saved.insert(it.key(), qgetenv(it.key().constData()));
        QDir().mkpath(it.value());
        qputenv(it.key().constData(), QFile::encodeName(it.value()));
    }
}

ScopedXdgHome::~ScopedXdgHome()
{
    for (const char *name : {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_STATE_HOME"}) {
        if (m_saved.contains(name))
            qputenv(name, m_saved.value(name));
        else
            qunsetenv(name);
    }
}

QProcessEnvironment ScopedXdgHome::environment() const
{
    return QProcessEnvironment::systemEnvironment();
}

// Waits for a started process and collects what it printed; one that runs too long is killed.
static ProcessResult FinishedProcess(QProcess &process, int timeoutMs)
{
    ProcessResult result;
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        result.err = "timed out";
        return result;
    }
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}

ProcessResult RunTanner(const QStringList &args, const QProcessEnvironment &environment, int timeoutMs)
{
    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(QStringLiteral(TANNER_BINARY), args);
    return FinishedProcess(process, timeoutMs);
}

ProcessResult RunTannerWithBytes(const QList<QByteArray> &args, const QProcessEnvironment &environment, int timeoutMs)
{
    // The arguments pass through a shell's printf, whose octal escapes carry any byte.
    QString script = QStringLiteral("exec \"$TANNER\"");
    for (const QByteArray &arg : args) {
        QString escaped;
        for (const char c : arg)
            escaped += QStringLiteral("\\%1").arg(uint(uchar(c)), 3, 8, QLatin1Char('0'));
        script += QStringLiteral(" \"$(printf '%1')\"").arg(escaped);
    }
    QProcessEnvironment withBinary = environment;
    withBinary.insert(QStringLiteral("TANNER"), QStringLiteral(TANNER_BINARY));
    QProcess process;
    process.setProcessEnvironment(withBinary);
    process.start(QStringLiteral("/bin/sh"), {QStringLiteral("-c"), script});
    return FinishedProcess(process, timeoutMs);
}

} // namespace tanner::test
