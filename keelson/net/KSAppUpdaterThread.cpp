#include "keelson/net/KSAppUpdaterThread.h"

#include "keelson/KSKernel.h"
#include "keelson/KSLog.h"
#include "keelson/KSMakerAddresses.h"

#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTimer>
#include <QUrl>
#include <QUuid>

#include <pthread.h>

namespace {

std::atomic<long long> g_checkTimeoutMs {30000};
std::atomic<long long> g_downloadTimeoutMs {600000};
std::atomic<long long> g_checkDeadlineMs {120000};
std::atomic<long long> g_pageLimit {4 << 20};
// A program download whose server announced no size.
constexpr qint64 kProgramLimit = qint64(1) << 30;

// The name the server suggests (Content-Disposition), else the address's last path component.
QString _SuggestedName(QNetworkReply *reply)
{
    static const QRegularExpression filename(QStringLiteral("filename\\s*=\\s*\"?([^\";]+)\"?"));
    const QString disposition = QString::fromLatin1(reply->rawHeader("Content-Disposition"));
    QString name = filename.match(disposition).captured(1);
    if (name.isEmpty())
        name = reply->url().fileName();
    name = QFileInfo(name.trimmed()).fileName(); // never a path of the server's choosing
    if (name.isEmpty() || name.startsWith(u'.'))
        name = QStringLiteral("download");
    return name;
}

// `name` in `folder`, numbered "name (2).deb" ... when it is taken.
QString _FreePath(const QString &folder, const QString &name)
{
    const QFileInfo info(name);
    const QString base = info.completeBaseName(), suffix = info.suffix();
    QString path = folder + u'/' + name;
    for (int n = 2; QFileInfo::exists(path) || QFileInfo(path).isSymLink(); ++n)
        path = folder + u'/' + base + QStringLiteral(" (%1)").arg(n) + (suffix.isEmpty() ? QString() : u'.' + suffix);
    return path;
}

} // namespace

KSAppUpdaterThread::KSAppUpdaterThread(QObject *parent) : QThread(parent)
{
    setObjectName(QStringLiteral("update check"));
}

KSAppUpdaterThread::~KSAppUpdaterThread()
{
    cancel();
    wait();
}

void KSAppUpdaterThread::setTimeouts(std::chrono::milliseconds check, std::chrono::milliseconds download)
{
    g_checkTimeoutMs = check.count();
    g_downloadTimeoutMs = download.count();
}

void KSAppUpdaterThread::setCheckLimits(std::chrono::milliseconds deadline, qint64 pageBytes)
{
    g_checkDeadlineMs = deadline.count();
    g_pageLimit = pageBytes;
}

void KSAppUpdaterThread::cancel()
{
    QMutexLocker locker(&m_lock);
    m_cancelled = true;
    if (QObject *reply = m_context.data())
        QMetaObject::invokeMethod(
            reply, [reply] { static_cast<QNetworkReply *>(reply)->abort(); }, Qt::QueuedConnection);
}

void KSAppUpdaterThread::fail(const QString &reason)
{
    m_success = false;
    m_failureReason = reason;
}

void KSAppUpdaterThread::run()
{
    pthread_setname_np(pthread_self(), objectName().toUtf8().left(15).constData());
    m_success = false;
    if (downloadPath.isEmpty()) {
        const QString page = checkPage.isEmpty() ? DownloadsPageUrl() : checkPage;
        const QString file = QDir::tempPath() + u'/' + QUuid::createUuid().toString(QUuid::WithoutBraces);
        if (!transfer(page, file, false))
            return;
        QFile text(file);
        const bool read = text.open(QIODevice::ReadOnly);
        const QByteArray bytes = read ? text.read(g_pageLimit.load()) : QByteArray();
        text.remove();
        if (!read) {
            LogString("Download %@ failed: %@", page, text.errorString());
            fail(text.errorString());
            return;
        }
        m_pageText = QString::fromUtf8(bytes);
        checkForNewVersion(m_pageText);
        m_success = true;
    } else {
        if (!transfer(downloadPath, QString(), true))
            return;
        m_success = true;
    }
}

void KSAppUpdaterThread::checkForNewVersion(const QString &pageText)
{
    m_finding = CheckForNewVersion(
        pageText, g_appName, g_appVersionString, checkPage.isEmpty() ? DownloadsPageUrl() : checkPage);
}

QString KSAppUpdaterThread::programFilePath(const QString &name)
{
    QString folder = downloadFolder.isEmpty() ? QStandardPaths::writableLocation(QStandardPaths::DownloadLocation)
                                              : downloadFolder;
    if (folder.isEmpty() || !QDir().mkpath(folder))
        return {};
    return _FreePath(folder, name);
}

// Fetches `address` into `filePath` (a program download names its file from the response).
// False, with the reason kept and the file deleted, on any failure.
bool KSAppUpdaterThread::transfer(const QString &address, const QString &filePath, bool isProgram)
{
    m_doneLength = 0;
    m_totalLength = 0;
    QNetworkAccessManager manager;
    QNetworkRequest request {QUrl(address)};
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::PreferNetwork);
    QNetworkReply *reply = manager.get(request);
    {
        QMutexLocker locker(&m_lock);
        m_context = reply;
        if (m_cancelled)
            reply->abort();
    }

    QFile file;
    QString writeError;
    bool timedOut = false;
    QEventLoop loop;
    QTimer idle;
    idle.setSingleShot(true);
    idle.setInterval(std::chrono::milliseconds(isProgram ? g_downloadTimeoutMs.load() : g_checkTimeoutMs.load()));
    QObject::connect(&idle, &QTimer::timeout, reply, [&timedOut, reply] {
        timedOut = true;
        reply->abort();
    });
    // A check also ends at its deadline, however slowly the server keeps sending.
    QTimer deadline;
    deadline.setSingleShot(true);
    deadline.setInterval(std::chrono::milliseconds(g_checkDeadlineMs.load()));
    QObject::connect(&deadline, &QTimer::timeout, reply, [&timedOut, reply] {
        timedOut = true;
        reply->abort();
    });
    if (!isProgram)
        deadline.start();
    // A page is small; a program is no larger than its server said.
    const qint64 pageLimit = g_pageLimit.load();
    auto limit = [&] {
        if (!isProgram)
            return pageLimit;
        return m_totalLength.load() > 0 ? m_totalLength.load() : kProgramLimit;
    };
    QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, [this, reply, &idle] {
        idle.start();
        bool known = false;
        const qint64 length = reply->header(QNetworkRequest::ContentLengthHeader).toLongLong(&known);
        m_totalLength = known && length > 0 ? length : 0;
    });
    QObject::connect(reply, &QNetworkReply::readyRead, reply, [&] {
        idle.start();
        if (!writeError.isEmpty() || reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() >= 400) {
            reply->readAll(); // an error page is not the file; the reply's error says what happened
            return;
        }
        if (!file.isOpen()) {
            const QString path = isProgram ? programFilePath(_SuggestedName(reply)) : filePath;
            if (path.isEmpty()) {
                LogString("Can't find or create download folder");
                writeError = QStringLiteral("I can't find or create the download folder.");
                reply->abort();
                return;
            }
            file.setFileName(path);
            if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
                writeError = file.errorString();
                reply->abort();
                return;
            }
        }
        const QByteArray block = reply->readAll();
        if (m_doneLength.load() + block.size() > limit()) {
            writeError = isProgram ? QStringLiteral("The server sent more than the size it announced.")
                                   : QStringLiteral("The page is larger than a page of the site can be.");
            reply->abort();
            return;
        }
        if (file.write(block) != block.size()) {
            writeError = file.errorString();
            reply->abort();
            return;
        }
        m_doneLength += block.size();
        emit doneLengthChanged();
    });
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    if (!reply->isFinished()) {
        idle.start();
        loop.exec();
    }
    {
        QMutexLocker locker(&m_lock);
        m_context = nullptr;
    }

    QString reason;
    if (m_cancelled)
        reason = QStringLiteral("The download was canceled.");
    else if (!writeError.isEmpty())
        reason = writeError;
    else if (timedOut)
        reason = QStringLiteral("The server did not answer in time.");
    else if (reply->error() != QNetworkReply::NoError)
        reason = reply->errorString();
    if (reason.isEmpty() && !file.isOpen()) {
        // An empty body: still a file, so that the check reads an empty page.
        file.setFileName(isProgram ? programFilePath(_SuggestedName(reply)) : filePath);
        if (file.fileName().isEmpty() || !file.open(QIODevice::WriteOnly | QIODevice::NewOnly))
            reason = QStringLiteral("I can't write the downloaded file.");
    }
    if (reason.isEmpty() && !file.flush())
        reason = file.errorString();
    file.close();
    if (!reason.isEmpty()) {
        if (!file.fileName().isEmpty())
            file.remove();
        LogString("Download %@ failed: %@", address, reason);
        fail(reason);
        return false;
    }
    if (isProgram)
        m_downloadedFile = file.fileName();
    return true;
}

KSNewsUpdaterThread::KSNewsUpdaterThread(QObject *parent) : KSAppUpdaterThread(parent)
{
    setObjectName(QStringLiteral("news check"));
    checkPage = NewsPageUrl();
}

void KSNewsUpdaterThread::checkForNewVersion(const QString &)
{
    // The news dialog and the command line read pageText() themselves.
}
