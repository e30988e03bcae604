// The worker thread of the update and news checks. Without a download path it is a check: it
// fetches the maker's downloads page into a temporary file, reads it and decides whether a newer
// version exists. With one it downloads that address into the user's download folder. A failed
// download deletes its file. Everything goes through a QNetworkAccessManager that lives on this
// thread; the thread's own event loop runs until the transfer ends.
//
// Threads: the owner (main thread) sets the inputs, calls start(), and may call cancel() at any
// time; it reads the results once finished() has been emitted. doneLength and totalLength may be
// read from any thread while the transfer runs; doneLengthChanged is emitted on this thread.
#pragma once

#include "keelson/net/KSUpdateCheck.h"

#include <QMutex>
#include <QPointer>
#include <QString>
#include <QThread>

#include <atomic>
#include <chrono>

class KSAppUpdaterThread : public QThread {
    Q_OBJECT
public:
    explicit KSAppUpdaterThread(QObject *parent = nullptr);
    ~KSAppUpdaterThread() override;

    // Inputs, set before start().
    QString downloadPath; // the address of a program download; empty for a check
    bool checkRequest = true;
    QString checkPage; // the page a check fetches; DownloadsPageUrl() when empty
    QString downloadFolder; // where a program download goes; the user's download folder when empty

    // Results, read after finished().
    bool wasSuccessful() const { return m_success; }
    QString failureReason() const { return m_failureReason; } // for the user; empty on success
    QString updatePath() const { return m_finding.updatePath; } // a check's newer version, or empty
    KSVersion downloadVersion() const { return m_finding.version; }
    QString downloadedFile() const { return m_downloadedFile; } // a finished program download
    QString pageText() const { return m_pageText; } // the text a check fetched

    qint64 doneLength() const { return m_doneLength.load(); }
    qint64 totalLength() const { return m_totalLength.load(); } // 0 while unknown

    // Stops the transfer; the thread then ends as a failure ("canceled"). Any thread.
    void cancel();
    bool wasCancelled() const { return m_cancelled.load(); }

    // How long a transfer may stay silent before it fails: 30 s for a check, 600 s for a
    // program download. Tests make them short.
    static void setTimeouts(std::chrono::milliseconds check, std::chrono::milliseconds download);
    // A check ends at its deadline (120 s) however slowly its page comes, and fails when the page
    // is larger than pageBytes (4 MiB); a program download fails when it passes the size its
    // server announced (1 GiB when none). Tests make them small.
    static void setCheckLimits(std::chrono::milliseconds deadline, qint64 pageBytes);

signals:
    void doneLengthChanged();

protected:
    void run() override;
    // A check's text (UTF-8 decoded). The update check reads it for a newer version; the news
    // thread keeps it as it is.
    virtual void checkForNewVersion(const QString &pageText);

private:
    bool transfer(const QString &address, const QString &filePath, bool isProgram);
    QString programFilePath(const QString &address);
    void fail(const QString &reason);

    bool m_success = false;
    QString m_failureReason;
    KSUpdateFinding m_finding;
    QString m_downloadedFile;
    QString m_pageText;
    std::atomic<qint64> m_doneLength {0};
    std::atomic<qint64> m_totalLength {0};
    std::atomic<bool> m_cancelled {false};
    QMutex m_lock; // guards m_context
    QPointer<QObject> m_context; // lives on this thread while a transfer runs
};

// The news check: fetches the news page (like a check) and keeps its text.
class KSNewsUpdaterThread : public KSAppUpdaterThread {
    Q_OBJECT
public:
    explicit KSNewsUpdaterThread(QObject *parent = nullptr);

protected:
    void checkForNewVersion(const QString &pageText) override;
};
