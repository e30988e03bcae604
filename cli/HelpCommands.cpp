// `tanner-backup help --check PATH [--json]`: loads a help package or a single help file exactly as
// the help window does, for help authors and scripts.
#include "cli/BUCommandLine.h"
#include "help/VLDocumentJson.h"
#include "help/VLHelpReader.h"
#include "help/VLTopicOutline.h"
#include "keelson/FormatString.h"

#include <QJsonDocument>
#include <QJsonObject>

namespace {

constexpr int kExitHelpUnreadable = 2;

void _PrintTopics(const std::vector<VLTopic> &topics)
{
    for (const VLTopic &topic : topics) {
        PrintLine(stdout, QString(topic.level * 2, u' ') + topic.name);
        _PrintTopics(topic.topics);
    }
}

void _PrintJson(const QJsonObject &json)
{
    WriteBytes(stdout, QJsonDocument(json).toJson(QJsonDocument::Indented));
}

} // namespace

int RunHelpCommand(const BUCommandArgs &invocation)
{
    if (!invocation.args.contains(QStringLiteral("--check")))
        return RunHelpTopicsCommand(invocation);
    QStringList args = invocation.args;
    const bool json = args.removeAll(QStringLiteral("--json")) > 0;
    if (args.size() != 2 || args.first() != u"--check") {
        PrintError(QStringLiteral("usage: tanner-backup help --check PATH [--json]"));
        return kExitUsage;
    }
    const QString path = args.at(1);
    VLLoadFailure failure;
    const std::unique_ptr<VLDocument> document = VLLoadHelpDocument(path, &failure);
    if (!document) {
        if (json) {
            QJsonObject error {{QStringLiteral("error"), failure.reason}};
            if (!failure.detail.isEmpty())
                error.insert(QStringLiteral("detail"), failure.detail);
            _PrintJson(error);
        } else {
            PrintLine(stderr, FormatString(kVLCantReadHelpFormat, failure.reason));
            if (!failure.detail.isEmpty())
                PrintLine(stderr, QStringLiteral("  ") + failure.detail);
        }
        return kExitHelpUnreadable;
    }
    if (json) {
        _PrintJson(VLDocumentToJson(*document));
        return kExitOk;
    }
    _PrintTopics(VLBuildTopicOutline(*document).topics);
    PrintLine(stdout,
        FormatString("%,lu chapters, %,u characters, %,lu knots, %,lu bookmarks, %,lu pictures, %,lu styles, "
                     "%,lu property records",
            document->chapterCount(), document->textLength(), document->knotCount(), document->bookmarkStarts().count(),
            document->pictureCount(), document->styles().count(), document->propertyCount()));
    return kExitOk;
}
