#include "keelson/gui/KSWorkspace.h"

#include "keelson/KSStrings.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QFileInfo>

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

void KSShowInFileManager(const QString &path)
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
    QDesktopServices::openUrl(QUrl(FileUri(QFileInfo(path).absolutePath())));
}

bool KSOpenUrl(const QUrl &url)
{
    if (TestHook()) {
        TestHook()(url.toString(QUrl::FullyEncoded));
        return true;
    }
    return QDesktopServices::openUrl(url);
}
