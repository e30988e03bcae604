// A small HTTP/1.1 server on 127.0.0.1 for the update and news tests, on a thread of its own so
// that a test may block while the program under test talks to it. Each path answers with a set
// response; anything else is a 404. Every connection is closed after its answer, so a body
// without Content-Length ends with the connection.
#pragma once

#include <QByteArray>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QThread>

namespace tanner::test {

class LoopbackHttpServer {
public:
    struct Response {
        Response() = default;
        Response(int status, QByteArray body, QByteArray contentType = "text/html; charset=utf-8",
            bool sendLength = true, qsizetype stallAfter = -1)
            : status(status), body(std::move(body)), contentType(std::move(contentType)), sendLength(sendLength),
              stallAfter(stallAfter)
        {
        }
        int status = 200;
        QByteArray body;
        QByteArray contentType = "text/html; charset=utf-8";
        bool sendLength = true; // false: no Content-Length, the end of the connection ends the body
        qsizetype stallAfter = -1; // >= 0: send this much of the body, then nothing more
        QByteArray extraHeaders; // "Name: value\r\n" lines
    };

    LoopbackHttpServer();
    ~LoopbackHttpServer();
    LoopbackHttpServer(const LoopbackHttpServer &) = delete;
    LoopbackHttpServer &operator=(const LoopbackHttpServer &) = delete;

    void setRoute(const QString &path, const Response &response);
    // "http://127.0.0.1:PORT" + path
    QString url(const QString &path) const;
    int requestCount(const QString &path) const;
    bool listening() const { return m_port != 0; }

private:
    friend class LoopbackServerThread;
    Response responseFor(const QString &path);

    mutable QMutex m_lock;
    QMap<QString, Response> m_routes;
    QMap<QString, int> m_counts;
    quint16 m_port = 0;
    QThread *m_thread = nullptr;
};

} // namespace tanner::test
