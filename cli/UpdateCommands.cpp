// The update and news checks from the command line, for scripts and machines without a desktop:
// the same fetch, scan and cuts as the dialogs, printed as text or as one JSON document.
#include "cli/BUCommandLine.h"
#include "keelson/KSDayIndex.h"
#include "keelson/KSKernel.h"
#include "keelson/KSSignalWatcher.h"
#include "keelson/net/KSAppUpdaterThread.h"
#include "keelson/net/KSNewsText.h"
#include "keelson/net/KSUpdateCheck.h"

#include <QDateTime>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

enum : int { kExitCheckFailed = 2, kExitUpdateAvailable = 10 };

// Reads "[--json]"; false (after the usage message) for anything else.
bool _ParseJsonFlag(const BUCommandArgs &invocation, bool *json)
{
    *json = false;
    for (const QString &arg : invocation.args) {
        if (arg != u"--json") {
            PrintError(QStringLiteral("%1 takes only --json").arg(invocation.command));
            return false;
        }
        *json = true;
    }
    return true;
}

// Runs the thread to its end; Ctrl-C cancels it.
void _RunToEnd(KSAppUpdaterThread &thread)
{
    QEventLoop loop;
    QObject::connect(&thread, &QThread::finished, &loop, &QEventLoop::quit);
    QObject::connect(&KSSignalWatcher::sharedInstance(), &KSSignalWatcher::signalReceived, &loop,
        [&thread](int) { thread.cancel(); });
    thread.start();
    if (!thread.isFinished())
        loop.exec();
    thread.wait();
}

void _PrintJson(const QJsonObject &object)
{
    PrintLine(stdout, QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Indented)).trimmed());
}

QJsonValue _DateJson(int dayIndex)
{
    if (dayIndex <= 0)
        return QJsonValue::Null;
    return QStringLiteral("%1-%2-%3")
        .arg(dayIndex / 10000, 4, 10, QLatin1Char('0'))
        .arg((dayIndex / 100) % 100, 2, 10, QLatin1Char('0'))
        .arg(dayIndex % 100, 2, 10, QLatin1Char('0'));
}

} // namespace

int RunCheckUpdatesCommand(const BUCommandArgs &invocation)
{
    bool json = false;
    if (!_ParseJsonFlag(invocation, &json))
        return kExitUsage;
    KSAppUpdaterThread thread;
    _RunToEnd(thread);

    QJsonObject out {{QStringLiteral("installed"), g_appVersionString}};
    if (!thread.wasSuccessful()) {
        if (json) {
            out.insert(QStringLiteral("error"), thread.failureReason());
            _PrintJson(out);
        } else {
            PrintError(QStringLiteral("The update check failed."), thread.failureReason());
        }
        return kExitCheckFailed;
    }
    KSUpdateSettings::setLastUpdateCheck(QDateTime::currentSecsSinceEpoch());
    const bool available = !thread.updatePath().isEmpty();
    if (json) {
        out.insert(QStringLiteral("available"), available ? QJsonValue(thread.downloadVersion().text()) : QJsonValue());
        out.insert(QStringLiteral("address"), available ? QJsonValue(thread.updatePath()) : QJsonValue());
        out.insert(QStringLiteral("error"), QJsonValue());
        _PrintJson(out);
    } else if (available) {
        PrintLine(stdout,
            QStringLiteral("%1 %2 is available (this is %3): %4")
                .arg(g_appName, thread.downloadVersion().text(), g_appVersionString, thread.updatePath()));
    } else {
        PrintLine(stdout, QStringLiteral("%1 %2 is the newest version.").arg(g_appName, g_appVersionString));
    }
    return available ? int(kExitUpdateAvailable) : int(kExitOk);
}

int RunNewsCommand(const BUCommandArgs &invocation)
{
    bool json = false;
    if (!_ParseJsonFlag(invocation, &json))
        return kExitUsage;
    KSNewsUpdaterThread thread;
    _RunToEnd(thread);
    if (!thread.wasSuccessful()) {
        if (json)
            _PrintJson({{QStringLiteral("items"), QJsonArray()}, {QStringLiteral("error"), thread.failureReason()}});
        else
            PrintError(QStringLiteral("The news check failed."), thread.failureReason());
        return kExitCheckFailed;
    }
    KSUpdateSettings::setLastNewsCheck(DayIndexForToday());

    const int previous = KSUpdateSettings::lastNewsDate();
    KSStyledText news = StyledTextFromPage(thread.pageText());
    int latest = 0;
    const bool hasItems = HandleNewsText(news, previous, &latest);
    const bool fresh = hasItems && latest > previous;
    if (fresh)
        KSUpdateSettings::setLastNewsDate(latest);

    if (json) {
        QJsonArray items;
        int date = 0;
        for (qsizetype item = fresh ? FindNextNewsItem(news.text, 0, &date) : -1; item >= 0;) {
            int nextDate = 0;
            const qsizetype next = FindNextNewsItem(news.text, item + 1, &nextDate);
            const QString text = news.text.mid(item, next < 0 ? -1 : next - item).trimmed();
            items.append(QJsonObject {{QStringLiteral("date"), _DateJson(date)}, {QStringLiteral("text"), text}});
            item = next;
            date = nextDate;
        }
        _PrintJson({{QStringLiteral("items"), items}, {QStringLiteral("latest"), _DateJson(fresh ? latest : previous)},
            {QStringLiteral("error"), QJsonValue()}});
    } else if (fresh) {
        PrintLine(stdout, news.text);
    } else if (!hasItems) {
        PrintLine(stdout, QStringLiteral("The news page holds no news."));
    } else {
        PrintLine(stdout, QStringLiteral("There is no news since %1.").arg(NewsDateText(previous)));
    }
    return kExitOk;
}
