#include "cli/BUCommandLine.h"
#include "keelson/KSLogger.h"
#include "keelson/KSStrings.h"

#include <unistd.h>

int RunLogsCommand(const BUCommandArgs &invocation)
{
    if (!invocation.args.isEmpty()) {
        PrintError(QStringLiteral("logs takes no arguments"));
        return kExitUsage;
    }
    KSLogger &logger = KSLogger::sharedInstance();
    // The window shows "nothing found" in its alert box; here it is an error on stderr.
    logger.alertHook = [](const QString &message, const QString &moreInfo) { PrintError(message, moreInfo); };
    const QString text = logger.allLogsForApp();
    logger.alertHook = nullptr;
    if (text.isNull())
        return kExitFailed;
    // Crash reports and system logs quote what programs wrote: a terminal sees controls escaped.
    WriteBytes(stdout, FileNameToBytes(::isatty(STDOUT_FILENO) == 1 ? TerminalSafeText(text) : text));
    return kExitOk;
}
