#include "keelson/gui/KSWorkspace.h"

#include "keelson/KSStrings.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QFileInfo>
#include <QProcess>

namespace {

std::function<void(const QString &)> &TestHook()
{
    static std::function<void(const QString &)> hook;
    return hook;
}

// file:// URL of a path that may hold bytes outside UTF-8: percent-encode the raw bytes.
QString FileUri(const QString &path)
{
    return QStringLiteral("file://") + QString::fromLatin1(FileNameToBytes(path).toPercentEncoding("/"));
}

} // namespace

void KSSetWorkspaceTestHook(std::function<void(const QString &)> hook)
{
    TestHook() = std::move(hook);
}

void KSShowInFileManager(const QString &path, std::function<void()> failed)
{
    if (path.isEmpty())
        return;
    if (TestHook()) {
        TestHook()(path);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.FileManager1"),
        QStringLiteral("/org/freedesktop/FileManager1"), QStringLiteral("org.freedesktop.FileManager1"),
        QStringLiteral("ShowItems"));
    call << QStringList {FileUri(path)} << QString();
    const QDBusMessage reply = QDBusConnection::sessionBus().call(call, QDBus::Block, 3000);
    if (reply.type() == QDBusMessage::ReplyMessage)
        return;
    if (!KSOpenUrl(QUrl(FileUri(QFileInfo(path).absolutePath())), failed) && failed)
        failed();
}

bool KSOpenUrl(const QUrl &url, std::function<void()> failed)
{
    if (TestHook()) {
        TestHook()(url.toString(QUrl::FullyEncoded));
        return true;
    }
    // xdg-open answers with its status once the handler has taken the link (or at once when there
    // is none), so a link nobody can open is told apart from one that opened.
    auto *opener = new QProcess;
    opener->setProgram(QStringLiteral("xdg-open"));
    opener->setArguments({url.toString(QUrl::FullyEncoded)});
    opener->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    opener->setStandardOutputFile(QProcess::nullDevice());
    QObject::connect(opener, &QProcess::finished, opener, [opener, failed](int code, QProcess::ExitStatus status) {
        if ((code != 0 || status != QProcess::NormalExit) && failed)
            failed();
        opener->deleteLater();
    });
    opener->start();
    if (opener->waitForStarted(5000))
        return true;
    delete opener;
    return false;
}
