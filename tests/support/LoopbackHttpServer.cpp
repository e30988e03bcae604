#include "tests/support/LoopbackHttpServer.h"

#include <QSemaphore>
#include <QTcpServer>
#include <QTcpSocket>

namespace tanner::test {

class LoopbackServerThread : public QThread {
public:
    LoopbackServerThread(LoopbackHttpServer &owner, QSemaphore &ready) : m_owner(owner), m_ready(ready) { }

protected:
    void run() override
    {
        QTcpServer server;
        if (server.listen(QHostAddress::LocalHost, 0))
            m_owner.m_port = server.serverPort();
        QObject::connect(&server, &QTcpServer::newConnection, &server, [this, &server] {
            while (QTcpSocket *socket = server.nextPendingConnection())
                serve(socket);
        });
        m_ready.release();
        exec();
    }

private:
    void serve(QTcpSocket *socket)
    {
        m_requests.insert(socket, QByteArray());
        QObject::connect(socket, &QTcpSocket::disconnected, socket, [this, socket] {
            m_requests.remove(socket);
            socket->deleteLater();
        });
        QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket] {
            if (!m_requests.contains(socket)) {
                socket->readAll(); // answered already: one request a connection
                return;
            }
            QByteArray &request = m_requests[socket];
            request += socket->readAll();
            if (!request.contains("\r\n\r\n"))
                return;
            const QList<QByteArray> line = request.left(request.indexOf("\r\n")).split(' ');
            m_requests.remove(socket);
            const QString path = line.size() > 1 ? QString::fromLatin1(line[1]) : QString();
            const LoopbackHttpServer::Response response = m_owner.responseFor(path);
            QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status)
                + (response.status == 200        ? " OK"
                        : response.status == 404 ? " Not Found"
                                                 : " Error")
                + "\r\n";
            head += "Content-Type: " + response.contentType + "\r\n";
            if (response.sendLength)
                head += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
            head += response.extraHeaders + "Connection: close\r\n\r\n";
            socket->write(head);
            if (response.stallAfter >= 0) {
                socket->write(response.body.left(response.stallAfter));
                return; // the connection stays open and silent
            }
            socket->write(response.body);
            socket->disconnectFromHost();
        });
    }

    LoopbackHttpServer &m_owner;
    QSemaphore &m_ready;
    QMap<QTcpSocket *, QByteArray> m_requests;
};

LoopbackHttpServer::LoopbackHttpServer()
{
    QSemaphore ready;
    m_thread = new LoopbackServerThread(*this, ready);
    m_thread->start();
    ready.acquire();
}

LoopbackHttpServer::~LoopbackHttpServer()
{
    m_thread->quit();
    m_thread->wait();
    delete m_thread;
}

void LoopbackHttpServer::setRoute(const QString &path, const Response &response)
{
    QMutexLocker locker(&m_lock);
    m_routes.insert(path, response);
}

QString LoopbackHttpServer::url(const QString &path) const
{
    return QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(path);
}

int LoopbackHttpServer::requestCount(const QString &path) const
{
    QMutexLocker locker(&m_lock);
    return m_counts.value(path);
}

LoopbackHttpServer::Response LoopbackHttpServer::responseFor(const QString &path)
{
    QMutexLocker locker(&m_lock);
    ++m_counts[path];
    const auto found = m_routes.constFind(path);
    if (found != m_routes.constEnd())
        return *found;
    return Response {404, "<html><body>Not Found</body></html>"};
}

} // namespace tanner::test
