// The command-line front end: the same state, start-up and termination as the desktop
// application, one command per run. Main thread.
#pragma once

#include <QString>
#include <QStringList>

#include <cstdio>

// Runs `tanner-backup ARGS...`; returns the process exit status.
int RunCommandLine(int argc, char **argv);

// The text of `tanner-backup --help`: every command's usage and what it does. The manual page and
// the shell completion are made from it, so they list the same commands.
QString CommandLineHelp();

// Writes a line as the bytes it stands for (names outside UTF-8 come out as they are on disk).
// On a terminal, control characters are shown escaped (TerminalSafeText).
void PrintLine(std::FILE *stream, const QString &text);
// Writes bytes as they are; a failed write to standard output is remembered for FinishOutput.
void WriteBytes(std::FILE *stream, const QByteArray &bytes);
// The text with control characters (but line feed and tab) written as "\xHH".
QString TerminalSafeText(const QString &text);
// Flushes standard output; a write that failed turns the status into kExitError with a message.
int FinishOutput(int status);
// An error for the user on stderr: "tanner-backup: MESSAGE", and the explanation when given.
void PrintError(const QString &message, const QString &moreInfo = {});

// A command's arguments after its name, decoded with the file-name codec.
struct BUCommandArgs {
    QString command;
    QStringList args;
};

// Exit statuses shared by the commands.
enum BUExitStatus : int { kExitOk = 0, kExitFailed = 1, kExitError = 2, kExitUsage = 64 };

// Command handlers, one family per source file.
int RunFoldersCommand(const BUCommandArgs &invocation);
int RunRulesCommand(const BUCommandArgs &invocation);
int RunDevicesCommand(const BUCommandArgs &invocation);
int RunLogsCommand(const BUCommandArgs &invocation);
int RunAnalyzeCommand(const BUCommandArgs &invocation);
int RunBackupCommand(const BUCommandArgs &invocation);
int RunHistoryCommand(const BUCommandArgs &invocation);
int RunHelpCommand(const BUCommandArgs &invocation);
int RunCheckUpdatesCommand(const BUCommandArgs &invocation);
int RunNewsCommand(const BUCommandArgs &invocation);
// Hidden: `__complete [WORD...]` prints what may follow the words typed so far, one a line (used
// by the bash completion).
int RunCompleteCommand(const BUCommandArgs &invocation);
// help without --check: the topics of the application's help (cli/HelpTopicCommands.cpp).
int RunHelpTopicsCommand(const BUCommandArgs &invocation);
