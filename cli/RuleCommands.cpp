#include "app/BUAppController.h"
#include "cli/BUCommandLine.h"
#include "keelson/FormatString.h"

namespace {

// Rules typed by a user are checked; stored ones are taken as they come.
bool ParseArchive(const QString &archive, BUIgnoreRule *rule)
{
    if (archive.size() < 3 || (archive[0] != u'0' && archive[0] != u'1') || archive[1] < u'0' || archive[1] > u'3') {
        PrintError(QStringLiteral("\"%1\" is not a rule.").arg(archive),
            QStringLiteral("A rule is a digit 0 or 1 (1: look at the extension), a digit 0 to 3 (is, "
                           "contains, starts with, ends with) and a name, e.g. \"10tmp\"."));
        return false;
    }
    *rule = BUIgnoreRule(archive);
    return true;
}

int ListRules(const BURuleList &rules, bool fileDomain)
{
    for (const BUIgnoreRule &rule : rules)
        PrintLine(stdout, RuleDisplayText(rule, fileDomain));
    return kExitOk;
}

int AddRule(BURuleList &rules, const QStringList &args)
{
    if (args.size() != 1) {
        PrintError(QStringLiteral("a rule command needs one rule"));
        return kExitUsage;
    }
    BUIgnoreRule rule;
    if (!ParseArchive(args.front(), &rule))
        return kExitFailed;
    AddRulesMerging(rules, {rule.archive()});
    return kExitOk;
}

int RemoveRule(BURuleList &rules, const QStringList &args, bool fileDomain)
{
    if (args.size() != 1) {
        PrintError(QStringLiteral("a rule command needs one rule"));
        return kExitUsage;
    }
    BUIgnoreRule rule;
    if (!ParseArchive(args.front(), &rule))
        return kExitFailed;
    const qsizetype before = rules.size();
    rules.removeIf([&](const BUIgnoreRule &r) { return r.isEqual(rule); });
    if (rules.size() == before) {
        PrintError(QStringLiteral("There is no rule %1.").arg(RuleDisplayText(rule, fileDomain)));
        return kExitFailed;
    }
    return kExitOk;
}

} // namespace

int RunRulesCommand(const BUCommandArgs &invocation)
{
    BUAppController &controller = BUAppController::sharedInstance();
    const QStringList &args = invocation.args;
    const QString sub = args.isEmpty() ? QString() : args.front();
    const QStringList rest = args.isEmpty() ? QStringList() : args.sliced(1);
    if (sub == u"folders" && rest.isEmpty())
        return ListRules(controller.ignoreFolders(), false);
    if (sub == u"files" && rest.isEmpty())
        return ListRules(controller.ignoreFiles(), true);
    if (sub == u"add-folder")
        return AddRule(controller.ignoreFolders(), rest);
    if (sub == u"add-file")
        return AddRule(controller.ignoreFiles(), rest);
    if (sub == u"remove-folder")
        return RemoveRule(controller.ignoreFolders(), rest, false);
    if (sub == u"remove-file")
        return RemoveRule(controller.ignoreFiles(), rest, true);
    if (sub == u"add-defaults" && rest.isEmpty()) {
        controller.addDefaultRules();
        return kExitOk;
    }
    PrintError(QStringLiteral("rules needs folders, files, add-folder, add-file, remove-folder, remove-file or "
                              "add-defaults; try tanner-backup --help"));
    return kExitUsage;
}
