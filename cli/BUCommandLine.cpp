#include "cli/BUCommandLine.h"

#include "app/BUAppController.h"
#include "keelson/KSKernel.h"
#include "keelson/KSSignalWatcher.h"
#include "keelson/KSStrings.h"

#include <QCoreApplication>

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

struct Command {
    const char *name;
    int (*run)(const BUCommandArgs &);
    const char *help;
};

const Command kCommands[] = {
    {"folders", RunFoldersCommand,
        "  folders                       List the backup folders (a missing one is marked).\n"
        "  folders add PATH...           Add folders; two folders may not share a name.\n"
        "  folders remove NAME|PATH      Remove a folder from the list (nothing is deleted).\n"},
    {"rules", RunRulesCommand,
        "  rules folders|files           List the rules for folders or for files.\n"
        "  rules add-folder ARCHIVE      Add a folder rule, e.g. \"00Caches\" (name is Caches).\n"
        "  rules add-file ARCHIVE        Add a file rule, e.g. \"10tmp\" (extension is tmp).\n"
        "  rules remove-folder ARCHIVE   Remove a folder rule.\n"
        "  rules remove-file ARCHIVE     Remove a file rule.\n"
        "  rules add-defaults            Add the default rules that are missing.\n"},
    {"devices", RunDevicesCommand,
        "  devices                       List the mounted backup devices: recent ones, then the others,\n"
        "                                each with the time of its last backup.\n"
        "  devices --watch               List them again whenever a volume is mounted or unmounted.\n"
        "                                Devices are the writable volumes mounted in $TANNER_VOLUMES_ROOT,\n"
        "                                else /run/media/$USER, else /media/$USER.\n"},
    {"logs", RunLogsCommand,
        "  logs                          Print what a problem report would gather: crash reports, core\n"
        "                                dumps, system log lines of the program, its own log\n"
        "                                ($XDG_STATE_HOME/Tannerwick/com.tannerwick.backup.log), and the\n"
        "                                history of runs (see history).\n"},
    {"analyze", RunAnalyzeCommand,
        "  analyze DEVICE [--json]       List what a backup to the device would do, without doing it.\n"},
    {"backup", RunBackupCommand,
        "  backup DEVICE [--json] [--yes] Make the device an exact mirror of the backup folders.\n"
        "                                A backup that would delete half or more of what the device\n"
        "                                holds is refused unless --yes is given.\n"
        "                                Exit status: 0 done, 1 some actions failed, 2 error, 3 the\n"
        "                                device holds other items at its top level, 130 canceled.\n"},
    {"history", RunHistoryCommand,
        "  history [DEVICE] [--json]     List the analyses and backups on record, newest first (the last\n"
        "                                100 of each device): when, outcome, counts, duration, and the\n"
        "                                failed actions of each device's last run.\n"},
    {"help", RunHelpCommand,
        "  help                          List the topics of the manual.\n"
        "  help TOPIC                    Show the first topic whose name begins with TOPIC (any case).\n"
        "  help --search WORDS           List the topics that hold all the words, with the line that\n"
        "                                holds them. Exit status 2 when nothing matches. With\n"
        "                                --file PATH, read another help package.\n"
        "  help --check PATH [--json]    Load a help package (a .TWwrite folder) or a single help file as\n"
        "                                the help window does; print its topic outline and counts, or\n"
        "                                with --json the whole loaded document. Exit status 2 when it\n"
        "                                cannot be read (\"Can't read help file: REASON\" on stderr).\n"
        "  help --window [--file PATH]   Open the help window on the application's help, or on a help\n"
        "                                package or file (nothing is remembered for a file).\n"},
    {"check-updates", RunCheckUpdatesCommand,
        "  check-updates [--json]        Ask the Tannerwick downloads page whether a newer version exists.\n"
        "                                Exit status: 0 this is the newest, 10 an update exists, 2 the\n"
        "                                check failed.\n"},
    {"news", RunNewsCommand,
        "  news [--json]                 Print the Tannerwick news not shown before, and remember it as\n"
        "                                shown. Exit status: 0 done, 2 the check failed.\n"},
};

} // namespace

QString CommandLineHelp()
{
    QString text
        = QStringLiteral("Usage: tanner-backup COMMAND [ARGUMENTS]\n"
                         "\n"
                         "Tanner Backup mirrors chosen folders onto a backup device: every backup folder becomes a\n"
                         "folder of the same name at the top of the device, and the device is made an exact copy.\n"
                         "\n"
                         "Commands:\n");
    for (const Command &command : kCommands)
        text += QString::fromUtf8(command.help);
    text += QStringLiteral("  --help                        Show this help.\n"
                           "  --version                     Show the version.\n"
                           "\n"
                           "A rule ARCHIVE is two digits and a name. The first digit is 1 when a file rule looks at\n"
                           "the extension, 0 when it looks at the name without its extension (folder rules always\n"
                           "look at the whole name). The second digit is the relation: 0 is, 1 contains,\n"
                           "2 starts with, 3 ends with. Matching ignores case.\n"
                           "\n"
                           "Settings are kept in $XDG_CONFIG_HOME/Tannerwick/Tanner Backup.conf.");
    return text;
}

QString TerminalSafeText(const QString &text)
{
    QString out;
    out.reserve(text.size());
    for (const QChar c : text) {
        const char16_t unit = c.unicode();
        // C0 controls but line feed and tab, DEL, C1 controls, and bytes 0x80-0x9F of a name that
        // is not UTF-8 (which some terminals take for C1 controls) are shown as escapes.
        if ((unit < 0x20 && unit != u'\n' && unit != u'\t') || unit == 0x7F || (unit >= 0x80 && unit <= 0x9F))
            out += QStringLiteral("\\x%1").arg(int(unit), 2, 16, QLatin1Char('0'));
        else if (unit >= 0xDC80 && unit <= 0xDC9F)
            out += QStringLiteral("\\x%1").arg(int(unit - 0xDC00), 2, 16, QLatin1Char('0'));
        else
            out += c;
    }
    return out;
}

void PrintLine(std::FILE *stream, const QString &text)
{
    // Text from a server or a device may hold escape sequences that retitle or clear a terminal,
    // or set its clipboard: a terminal is shown them escaped; files and pipes get the bytes.
    const bool terminal = ::isatty(::fileno(stream)) == 1;
    WriteBytes(stream, FileNameToBytes(terminal ? TerminalSafeText(text) : text) + '\n');
}

namespace {
int g_outputError = 0; // the first failed write to standard output
} // namespace

void WriteBytes(std::FILE *stream, const QByteArray &bytes)
{
    errno = 0;
    if (std::fwrite(bytes.constData(), 1, std::size_t(bytes.size()), stream) != std::size_t(bytes.size())
        && stream == stdout && g_outputError == 0)
        g_outputError = errno ? errno : EIO;
}

int FinishOutput(int status)
{
    // Output that could not be written (a full disk, a closed pipe) is a failure, not a success
    // with nothing printed.
    errno = 0;
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
        const int error = g_outputError ? g_outputError : errno ? errno : EIO;
        PrintError(QStringLiteral("Can't write the output: %1").arg(QString::fromLocal8Bit(std::strerror(error))));
        return kExitError;
    }
    return status;
}

void PrintError(const QString &message, const QString &moreInfo)
{
    PrintLine(stderr, QStringLiteral("tanner-backup: ") + message);
    if (!moreInfo.isEmpty())
        PrintLine(stderr, QStringLiteral("  ") + moreInfo);
}

int RunCommandLine(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Tannerwick"));
    QCoreApplication::setApplicationName(QStringLiteral("Tanner Backup"));

    BUCommandArgs invocation;
    for (int i = 1; i < argc; ++i) {
        const QString arg = FileNameFromBytes(QByteArrayView(argv[i], qsizetype(std::strlen(argv[i]))));
        if (i == 1)
            invocation.command = arg;
        else
            invocation.args.append(arg);
    }

    if (invocation.command.isEmpty() || invocation.command == u"--help" || invocation.command == u"-h") {
        PrintLine(stdout, CommandLineHelp());
        return FinishOutput(kExitOk);
    }
    if (invocation.command == u"--version") {
        KSKernel::sharedInstance();
        PrintLine(stdout, g_appName + u' ' + g_appVersionString);
        return FinishOutput(kExitOk);
    }
    if (invocation.command == u"__complete")
        return FinishOutput(RunCompleteCommand(invocation));
    const Command *found = nullptr;
    for (const Command &command : kCommands) {
        if (invocation.command == QLatin1String(command.name))
            found = &command;
    }
    if (!found) {
        PrintError(QStringLiteral("unknown command \"%1\"; try tanner-backup --help").arg(invocation.command));
        return kExitUsage;
    }

    // The same start-up and termination as the desktop application.
    KSSignalWatcher::sharedInstance();
    BUAppController &controller = BUAppController::sharedInstance();
    controller.applicationWillFinishLaunching();
    controller.applicationDidFinishLaunching();
    if (!controller.settingsProblem().isEmpty())
        PrintError(controller.settingsProblem(), QStringLiteral("Nothing is read from it or saved to it."));
    int status = found->run(invocation);
    if (!controller.applicationWillTerminate()) {
        PrintError(controller.saveError());
        if (status == kExitOk)
            status = kExitFailed;
    }
    return FinishOutput(status);
}
