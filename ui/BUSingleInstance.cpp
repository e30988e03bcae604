#include "ui/BUSingleInstance.h"

#include <QCryptographicHash>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>

namespace {

constexpr int kAnswerTimeout = 3000; // ms
const QByteArray kActivate = QByteArrayLiteral("activate\n");
const QByteArray kDone = QByteArrayLiteral("done\n");

} // namespace

BUSingleInstance::BUSingleInstance(const QString &settingsPath, QObject *parent) : QObject(parent)
{
    const QByteArray key = QCryptographicHash::hash(QFile::encodeName(settingsPath), QCryptographicHash::Sha256);
    QString folder = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (folder.isEmpty())
        folder = QDir::tempPath();
    m_socketPath = folder + QStringLiteral("/tanner-backup-") + QString::fromLatin1(key.toHex().left(16));
}

bool BUSingleInstance::activateRunningInstance()
{
    // A connection is accepted by a running instance's socket even before its event loop runs:
    // connected means alive. Its answer only says that the window is in front; an instance that
    // is busy still reads the request when it gets to it.
    QLocalSocket socket;
    socket.connectToServer(m_socketPath);
    if (!socket.waitForConnected(kAnswerTimeout))
        return false;
    socket.write(kActivate);
    socket.waitForBytesWritten(kAnswerTimeout);
    while (!socket.canReadLine() && socket.waitForReadyRead(kAnswerTimeout)) { }
    return true;
}

BUSingleInstance::Start BUSingleInstance::start(std::function<void()> activate)
{
    if (activateRunningInstance())
        return Start::AlreadyRunning;
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    bool listening = m_server->listen(m_socketPath);
    if (!listening && m_server->serverError() == QAbstractSocket::AddressInUseError) {
        // Another start got there first, or the socket is left from an instance that did not end
        // normally and nobody answers on it.
        if (activateRunningInstance())
            return Start::AlreadyRunning;
        QLocalServer::removeServer(m_socketPath);
        listening = m_server->listen(m_socketPath);
    }
    if (!listening) {
        m_error = m_server->errorString();
        return Start::Unguarded;
    }
    connect(m_server, &QLocalServer::newConnection, this, [this, activate] {
        while (QLocalSocket *socket = m_server->nextPendingConnection()) {
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            connect(socket, &QLocalSocket::readyRead, this, [socket, activate] {
                if (!socket->canReadLine())
                    return;
                if (socket->readLine() == kActivate) {
                    activate();
                    socket->write(kDone);
                }
                socket->disconnectFromServer();
            });
        }
    });
    return Start::First;
}
