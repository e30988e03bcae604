// history: the runs on record, newest first, as text or as one JSON document with --json.
#include "app/BUUserMessages.h"
#include "backup/BURunHistory.h"
#include "cli/BUCommandLine.h"
#include "keelson/FormatString.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

int RunHistoryCommand(const BUCommandArgs &invocation)
{
    QString device;
    bool json = false;
    for (const QString &arg : invocation.args) {
        if (arg == u"--json") {
            json = true;
        } else if (device.isNull() && !arg.startsWith(u'-')) {
            device = arg;
        } else {
            PrintError(QStringLiteral("history takes one device name and --json"));
            return kExitUsage;
        }
    }
    const QString path = BURunHistory::historyPath();
    const BURunHistory::Contents contents = BURunHistory::load(path);
    if (contents.damaged)
        PrintError(FormatString(BUUserMessages::kHistoryDamaged, path, contents.problem),
            QString::fromUtf8(BUUserMessages::kHistoryDamagedShown));
    const QList<BURunRecord> runs = BURunHistory::newestFirst(contents.runs, device);
    if (json) {
        QJsonArray list;
        for (const BURunRecord &run : runs)
            list.append(run.toJson());
        const QJsonObject document {{QStringLiteral("path"), path}, {QStringLiteral("damaged"), contents.damaged},
            {QStringLiteral("problem"), contents.damaged ? QJsonValue(contents.problem) : QJsonValue()},
            {QStringLiteral("runs"), list}};
        PrintLine(stdout, QString::fromUtf8(QJsonDocument(document).toJson(QJsonDocument::Indented)).trimmed());
        return kExitOk;
    }
    if (runs.isEmpty()) {
        PrintLine(stdout,
            device.isEmpty() ? QStringLiteral("No runs on record")
                             : FormatString("No runs to \"%@\" on record", device));
        return kExitOk;
    }
    QString text = BURunHistory::text(runs);
    text.chop(1); // the last line feed
    PrintLine(stdout, text);
    return kExitOk;
}
