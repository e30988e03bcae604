// What the command line prints: control characters shown escaped on a terminal and passed as they
// are to a pipe, output that cannot be written as a failure, and refusals in JSON with --json.
#include "tests/support/TestSupport.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <cerrno>
#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace tanner::test;

namespace {

// Runs the program with its standard output on a terminal (a pseudo-terminal of the test's own)
// and returns what the terminal received.
QByteArray RunOnTerminal(const QStringList &args)
{
    int master = -1, slave = -1;
    if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0)
        return {};
    QList<QByteArray> argv {QByteArray(TANNER_BINARY)};
    for (const QString &arg : args)
        argv.append(QFile::encodeName(arg));
    std::vector<char *> pointers;
    for (QByteArray &arg : argv)
        pointers.push_back(arg.data());
    pointers.push_back(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(slave, STDOUT_FILENO);
        ::close(master);
        ::close(slave);
        ::execv(pointers[0], pointers.data());
        ::_exit(127);
    }
    ::close(slave);
    QByteArray out;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(master, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break; // EIO once the child has closed the terminal
        out.append(buffer, n);
    }
    ::close(master);
    ::waitpid(child, nullptr, 0);
    return out.replace("\r\n", "\n");
}

} // namespace

// A folder name (or a server's text, or a device's item) holding escape sequences could retitle,
// clear or take over a terminal: there it is shown escaped; a pipe gets the bytes as they are.
TEST(CommandLineOutput, ControlCharactersAreEscapedOnATerminalOnly)
{
    ScopedXdgHome home;
    const QString odd = home.path()
        + QStringLiteral("/a\x1b]0;owned\x07\x9b"
                         "b");
    ASSERT_TRUE(QDir().mkpath(odd));
    ASSERT_EQ(RunTanner({QStringLiteral("folders"), QStringLiteral("add"), odd}, home.environment()).exitCode, 0);

    const ProcessResult piped = RunTanner({QStringLiteral("folders")}, home.environment());
    EXPECT_TRUE(piped.out.contains(QFile::encodeName(odd) + '\n')) << piped.out.toStdString();

    const QByteArray shown = RunOnTerminal({QStringLiteral("folders")});
    ASSERT_FALSE(shown.isEmpty()) << "no pseudo-terminal";
    EXPECT_FALSE(shown.contains('\x1b')) << shown.toStdString();
    EXPECT_FALSE(shown.contains('\x07'));
    EXPECT_TRUE(shown.contains("/a\\x1b]0;owned\\x07\\x9bb\n")) << shown.toStdString();
}

// Output that cannot be written (a full disk) is an error, whatever the command; with --json a
// refusal is JSON too, and a device typed with a completion's slash is that device.
TEST(CommandLineOutput, FailedWritesAndRefusals)
{
    ScopedXdgHome home;
    const QString full = home.path() + QStringLiteral("/full");
    if (::mknod(QFile::encodeName(full).constData(), S_IFCHR | 0666, makedev(1, 7)) != 0) {
        std::printf("A full device is not tried: making device nodes needs CAP_MKNOD.\n");
    } else {
        for (const QString &command : {QStringLiteral("folders"), QStringLiteral("analyze Disk --json"),
                 QStringLiteral("help --check %1 --json").arg(QStringLiteral(TANNER_TEST_DATA_DIR "/help/good.xml")),
                 QStringLiteral("--help")}) {
            SCOPED_TRACE(command.toStdString());
            QProcess process;
            process.setProcessEnvironment(home.environment());
            process.setStandardOutputFile(full);
            process.start(QStringLiteral(TANNER_BINARY), command.split(u' '));
            ASSERT_TRUE(process.waitForFinished(30000));
            EXPECT_EQ(process.exitCode(), 2);
            EXPECT_TRUE(process.readAllStandardError().contains("Can't write the output: No space left on device"));
        }
    }

    const QString volumes = home.path() + QStringLiteral("/volumes");
    QDir().mkpath(volumes);
    QProcessEnvironment environment = home.environment();
    environment.insert(QStringLiteral("TANNER_VOLUMES_ROOT"), volumes);
    auto json = [&](const QStringList &args) {
        const ProcessResult result = RunTanner(args, environment);
        QJsonParseError error;
        const QJsonObject object = QJsonDocument::fromJson(result.out, &error).object();
        EXPECT_EQ(error.error, QJsonParseError::NoError) << result.out.toStdString() << result.err.toStdString();
        return std::make_pair(result.exitCode, object);
    };
    auto [status, object] = json({QStringLiteral("analyze"), QStringLiteral("Disk/"), QStringLiteral("--json")});
    EXPECT_EQ(object[u"target"].toString(), u"Disk");
    EXPECT_FALSE(object[u"error"].toString().isEmpty());

    std::tie(status, object)
        = json({QStringLiteral("analyze"), volumes + QStringLiteral("/Disk"), QStringLiteral("--json")});
    EXPECT_EQ(status, 64);
    EXPECT_TRUE(object[u"error"].toString().contains(u"is a path, not the name of a device"));

    ASSERT_EQ(
        RunTanner({QStringLiteral("folders"), QStringLiteral("remove"), QDir::homePath()}, environment).exitCode, 0);
    std::tie(status, object) = json({QStringLiteral("backup"), QStringLiteral("Disk"), QStringLiteral("--json")});
    EXPECT_EQ(status, 2);
    EXPECT_EQ(object[u"status"].toString(), u"There are no backup folders.");
    EXPECT_TRUE(object[u"transactions"].toArray().isEmpty());
}
