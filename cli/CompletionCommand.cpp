// `tanner-backup __complete WORD...`: what may follow the words typed so far, for the bash
// completion. The commands and their arguments are read from the help text itself, so a command
// added to the help is completed without further work:
//   a lower-case word is typed as it is ("add", "--json"), "a|b" offers both, "[--json]" may come
//   anywhere after the required words, "PATH..." repeats; DEVICE stands for the mounted devices,
//   NAME for the backup folders' names, PATH for a folder and FILE for a file (the last two are
//   left to the shell, asked for by the lines "//directories" and "//files").
#include "app/BUAppController.h"
#include "cli/BUCommandLine.h"
#include "keelson/KSStrings.h"

#include <QSet>

namespace {

struct UsageToken {
    QStringList choices;
    bool optional = false;
    bool repeats = false;
};

struct Usage {
    QString command;
    QList<UsageToken> tokens; // after the command's name
};

bool IsPlaceholder(const QString &choice)
{
    return !choice.isEmpty() && choice == choice.toUpper() && choice.front().isLetter();
}

// The first word of a command's description: capitalised, with lower-case letters.
bool StartsDescription(const QString &word)
{
    return word.front().isUpper() && word != word.toUpper();
}

QList<Usage> ParseUsages(const QString &help)
{
    QList<Usage> usages;
    bool inCommands = false;
    for (const QString &line : help.split(u'\n')) {
        if (line == u"Commands:") {
            inCommands = true;
            continue;
        }
        if (!inCommands || line.isEmpty())
            continue; // commands may come in groups
        if (!line.startsWith(u' '))
            break; // the paragraphs after the commands
        if (line.size() < 3 || !line.startsWith(QStringLiteral("  ")) || line[2] == u' ')
            continue; // the rest of a description
        QString usageText = line.mid(2);
        if (const qsizetype gap = usageText.indexOf(QStringLiteral("  ")); gap >= 0)
            usageText.truncate(gap);
        const QStringList words = usageText.split(u' ', Qt::SkipEmptyParts);
        Usage usage;
        usage.command = words.front();
        for (qsizetype i = 1; i < words.size() && !StartsDescription(words[i]); ++i) {
            QString word = words[i];
            UsageToken token;
            if (word.startsWith(u'[') && word.endsWith(u']')) {
                token.optional = true;
                word = word.mid(1, word.size() - 2);
            }
            if (word.endsWith(QStringLiteral("..."))) {
                token.repeats = true;
                word.chop(3);
            }
            token.choices = word.split(u'|', Qt::SkipEmptyParts);
            usage.tokens.append(token);
        }
        usages.append(usage);
    }
    return usages;
}

bool Accepts(const UsageToken &token, const QString &word)
{
    for (const QString &choice : token.choices) {
        if (IsPlaceholder(choice) || choice == word)
            return true;
    }
    return false;
}

// Appends to `next` the tokens that may follow `words` (the words after the command's name)
// in this usage; nothing when the words do not fit it.
void NextTokens(const Usage &usage, const QStringList &words, QList<UsageToken> &next)
{
    QList<UsageToken> required, optional;
    for (const UsageToken &token : usage.tokens)
        (token.optional ? optional : required).append(token);
    QSet<QString> used;
    qsizetype position = 0;
    bool repeated = false;
    for (const QString &word : words) {
        bool isOption = false;
        for (const UsageToken &token : std::as_const(optional)) {
            if (!IsPlaceholder(token.choices.front()) && token.choices.contains(word) && !used.contains(word)) {
                used.insert(word);
                isOption = true;
            }
        }
        if (isOption)
            continue;
        if (position >= required.size() || !Accepts(required[position], word))
            return;
        if (required[position].repeats) {
            repeated = true;
        } else {
            ++position;
            repeated = false;
        }
    }
    if (position < required.size())
        next.append(required[position]);
    if (position >= required.size() || repeated) {
        for (const UsageToken &token : std::as_const(optional)) {
            if (!used.contains(token.choices.front()))
                next.append(token);
        }
    }
}

} // namespace

int RunCompleteCommand(const BUCommandArgs &invocation)
{
    const QList<Usage> usages = ParseUsages(CommandLineHelp());
    QStringList candidates;
    auto offer = [&candidates](const QString &candidate) {
        if (!candidates.contains(candidate))
            candidates.append(candidate);
    };
    if (invocation.args.isEmpty()) {
        for (const Usage &usage : usages)
            offer(usage.command);
    } else {
        QList<UsageToken> next;
        for (const Usage &usage : usages) {
            if (usage.command == invocation.args.front())
                NextTokens(usage, invocation.args.sliced(1), next);
        }
        bool stateLoaded = false;
        BUAppController &controller = BUAppController::sharedInstance();
        for (const UsageToken &token : std::as_const(next)) {
            for (const QString &choice : token.choices) {
                if (!IsPlaceholder(choice)) {
                    offer(choice);
                    continue;
                }
                if (choice == u"PATH")
                    offer(QStringLiteral("//directories"));
                else if (choice == u"FILE")
                    offer(QStringLiteral("//files"));
                if (choice != u"DEVICE" && choice != u"NAME")
                    continue;
                // Read the state as every command does, but never write it back: completing
                // changes nothing.
                if (!stateLoaded) {
                    controller.applicationWillFinishLaunching();
                    controller.applicationDidFinishLaunching();
                    stateLoaded = true;
                }
                if (choice == u"DEVICE") {
                    for (const QString &device : controller.mountedRecentDrives() + controller.otherDrives())
                        offer(device);
                } else {
                    for (const QString &folder : std::as_const(controller.backupFolders()))
                        offer(LastPathComponent(folder));
                }
            }
        }
    }
    for (const QString &candidate : std::as_const(candidates))
        PrintLine(stdout, candidate);
    return kExitOk;
}
