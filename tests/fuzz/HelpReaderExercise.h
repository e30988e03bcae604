// Loads one input as a help document, in the form its first byte chooses, and checks the loaded
// document's promises. Shared by the fuzz target and the regression test, so that every saved
// input replays exactly.
//
// Input: first byte even: the rest is one single-file document. Odd: the rest is the package's
// "structure.xml", "format.xml" and "document.txt" separated by kHelpPartSeparator (a missing part
// leaves its file missing); the package's "Images" holds a.png (a real PNG) and b.tiff (not a
// picture).
#pragma once

#include "help/VLDocumentJson.h"
#include "help/VLHelpEngine.h"
#include "help/VLHelpReader.h"
#include "help/VLTopicOutline.h"
#include "keelson/KSLog.h"
#include "keelson/KSStringKeelson.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>

namespace tanner::test {

inline constexpr char kHelpPartSeparator[] = "\n--8<--\n";

// The whole input as the byte that chooses the form and the parts.
inline QByteArray HelpFuzzInput(bool package, const QList<QByteArray> &parts)
{
    QByteArray input(1, package ? '\1' : '\0');
    for (qsizetype i = 0; i < parts.size(); ++i)
        input += (i ? QByteArray(kHelpPartSeparator) : QByteArray()) + parts[i];
    return input;
}

inline bool _WriteHelpPart(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

// Empty when all went well, else the promise that was broken. `folder` is an existing scratch folder.
inline QString ExerciseHelpReader(const QByteArray &input, const QString &folder)
{
    static const bool ready = VLSetUpHelpEngine();
    if (!ready)
        return QStringLiteral("the engine could not be set up");
    if (input.isEmpty())
        return {};

    QString path;
    const QByteArray body = input.mid(1);
    if (quint8(input[0]) % 2 == 0) {
        path = folder + QStringLiteral("/help.xml");
        if (!_WriteHelpPart(path, body))
            return QStringLiteral("cannot write the input");
    } else {
        path = folder + QStringLiteral("/Fuzz.TWwrite");
        QDir(path).removeRecursively();
        QDir().mkpath(path + QStringLiteral("/Images"));
        static const QByteArray png = QByteArray::fromBase64(
            "iVBORw0KGgoAAAANSUhEUgAAAAEAAAABCAYAAAAfFcSJAAAADUlEQVR42mP8z8BQDwAEhQGAhKmMIQAAAABJRU5ErkJggg==");
        _WriteHelpPart(path + QStringLiteral("/Images/a.png"), png);
        _WriteHelpPart(path + QStringLiteral("/Images/b.tiff"), "not a picture");
        QList<QByteArray> parts;
        for (qsizetype from = 0;;) {
            const qsizetype at = body.indexOf(kHelpPartSeparator, from);
            parts.append(body.mid(from, at < 0 ? -1 : at - from));
            if (at < 0)
                break;
            from = at + qsizetype(sizeof kHelpPartSeparator - 1);
        }
        const char *names[] = {"structure.xml", "format.xml", "document.txt"};
        for (qsizetype i = 0; i < 3 && i < parts.size(); ++i)
            _WriteHelpPart(path + u'/' + QLatin1String(names[i]), parts[i]);
    }

    QString lastLog;
    SetLogSink([&lastLog](const QString &line) { lastLog = line; });
    VLLoadFailure failure;
    const std::unique_ptr<VLDocument> document = VLLoadHelpDocument(path, &failure);
    SetLogSink({});
    if (!document) {
        if (lastLog != QStringLiteral("Can't read help file: ") + failure.reason)
            return QStringLiteral("a failure was not logged: ") + lastLog;
        if (failure.reason.isEmpty() && failure.detail.isEmpty())
            return QStringLiteral("a failure has neither reason nor detail");
        return {};
    }

    // Every cp table is in order and within the text; knots stand on their own characters.
    const qint64 length = document->textLength();
    if (document->text().size() != length)
        return QStringLiteral("the text's length differs from textLength");
    const auto ordered = [length](const KSArrayCP &table, bool inside) {
        qint64 previous = 0;
        for (std::size_t i = 0; i < table.count(); ++i) {
            const qint64 cp = table.cpAtIndex(i);
            if (cp < previous || cp > length || (inside && cp == length))
                return false;
            previous = cp;
        }
        return table.maxCp() == length;
    };
    if (!ordered(document->knots(), true) || !ordered(document->charRuns(), false)
        || !ordered(document->paraRuns(), false) || !ordered(document->chapterStarts(), true)
        || !ordered(document->bookmarkStarts(), true) || !ordered(document->listStarts(), true)
        || !ordered(document->tableStarts(), true))
        return QStringLiteral("a cp table is out of order or beyond the text");
    for (std::size_t i = 0; i < document->knotCount(); ++i) {
        if (document->knotAt(i).type == kKnotUnknown)
            return QStringLiteral("an unknown knot was kept");
    }
    if (document->bookmarkIds().count() < document->bookmarkStarts().count())
        return QStringLiteral("a bookmark has no identifier");
    // The first style is the file's own Normal when it has one, spelled as the file spells it.
    if (!document->isLocked() || !IsFuzzyEqualToString(document->styleName(0), u"Normal"))
        return QStringLiteral("the document was not finished as help");

    // Every query answers without fault.
    for (std::size_t i = 0; i <= document->chapterCount(); ++i)
        document->chapterName(i);
    for (qint64 cp = 0; cp <= length; cp += 1 + length / 64) {
        document->property(document->charPropertyAt(quint32(cp)));
        document->property(document->paraPropertyAt(quint32(cp)));
        document->plainText(quint32(cp), 16);
    }
    VLBuildTopicOutline(*document);
    VLDocumentToJson(*document);
    return {};
}

} // namespace tanner::test
