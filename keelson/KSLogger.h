// The application's own log file, and the gathering of everything the system and the application
// have logged about the application into one text for a problem report.
//
// The log file is $XDG_STATE_HOME/Tannerwick/<bundle id>.log (default ~/.local/state), one
// record a line: "YYYY-MM-DD hh:mm:ss <bundle id> <message>". When it reaches 4,194,304 bytes it
// is cut to its newer half at a line boundary before the next record. Several processes share
// the file: each record is appended whole by one write (O_APPEND), and the cut is made under an
// exclusive lock of the file (flock) while appends hold a shared one.
//
// Threads: logString, shutDown and the writing helpers may be called from any thread; records are
// written whole, one at a time. A message logged on a thread that is already inside logString
// (the logger's own diagnostics) is dropped. The gathering methods and the sources and alertHook
// members belong to the main thread.
#pragma once

#include <QString>
#include <QStringList>

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

class KSFileReaderWriter;

class KSLogger {
public:
    static KSLogger &sharedInstance();
    KSLogger(const KSLogger &) = delete;
    KSLogger &operator=(const KSLogger &) = delete;

    // Makes logString the sink of LogString. Main thread, before worker threads start.
    static void install();

    static constexpr uint64_t kSizeLimit = 4194304;
    // "===== ===== ===== ===== =====\n", between the gathered parts.
    static QString delimiter();
    // Where the log file lies, from the environment at the time of the call.
    static QString logFilePath();

    // Writes one record. Opens (and creates) the file on first use; a file that cannot be created
    // or opened drops the message; a full file that cannot be shortened sends it to stderr.
    void logString(const QString &message);
    // Closes the file; the next record opens it again (at the path the environment then gives).
    void shutDown();
    // Keeps the newer half of the open file, cut after a line feed; false when the file is below
    // 8192 bytes or a read or write failed.
    bool shortenFile(uint64_t size);
    // Appends the string's bytes at the end of the open file in one write.
    bool appendStringToLogFile(const QString &text);
    // Called with each record after it is written, while the record's lock is still held.
    void setRecordObserver(std::function<void(const QString &record)> observer);

    // Where the gathering looks. The defaults are the system's places; tests point them elsewhere.
    struct Sources {
        QStringList crashFolders {QStringLiteral("/var/crash")}; // apport's crash reports
        QString coredumpctl = QStringLiteral("coredumpctl");
        QString journalctl = QStringLiteral("journalctl");
        QString systemLog = QStringLiteral("/var/log/syslog"); // read when the journal has nothing
        QString ownLog; // empty: logFilePath()
    };
    Sources sources;
    // Tells the user that nothing was found (the window's alert box, the command line's stderr).
    std::function<void(const QString &message, const QString &moreInfo)> alertHook;
    // The program's own records that a report gathers after its log (the history of runs), or an
    // empty text.
    std::function<QString()> ownRecordsHook;

    // Crash reports and system messages together, or a null string after telling the user (through
    // alertHook) that there is none. Empty arguments mean the executable's name and the bundle id.
    QString allLogsForApp(const QString &name = {}, const QString &bundleID = {});
    // Crash reports whose file names contain the name, then the core dumps of the executable,
    // each numbered. filterDays > 0 leaves out those older than that many days.
    QString logsForApp(const QString &name, unsigned filterDays);
    // The system log's lines about the application, then the own log. The date filter applies when
    // the previous gathering had one (allLogsForApp gathers the reports first with the same value).
    QString messagesForApp(const QString &name, const QString &bundleID, unsigned filterDays);
    // Appends each readable file of the folder whose name contains the application's name.
    void appendLogs(QString &text, const QString &folder);
    // Whether a crash report's "Date/Time:" is on or before the cutoff day.
    static bool excludeLog(QStringView report, int cutoffDay);
    // Adds the kept lines of a text; see extractLogLines. With a cutoff, a text whose dates ran
    // past this year is read again with an earlier first year.
    void addMessages(QString &messages, const QString &text, int cutoffDay, int thisYear, bool filterByName);
    void addMessagesFromFile(QString &messages, const QString &path, int cutoffDay, int thisYear, bool filterByName);
    // Keeps the lines about the application (or all when not filtering by name) that are dated
    // after the cutoff; indented lines go with the line before them.
    void extractLogLines(const QStringList &lines, int cutoffDay, QString &messages, bool filterByName);
    // The day of a log line: from a "YYYY-MM-DD" start, or from "Mon dd" with the year of the
    // running day (plus one when the month went back); otherwise the running day.
    static int dateFromLogLine(QStringView line, int currentDay);

    unsigned filterDays() const { return m_filterDays; }
    unsigned startingYear() const { return m_startingYear; }
    void setStartingYear(unsigned year) { m_startingYear = year; }

private:
    KSLogger() = default;
    bool openLogFile();
    void writeRecord(const QString &message);
    void appendCoreDumps(QString &text);
    QString journalLines(int cutoffDay);

    // Writing. m_writeLock orders whole records from all threads.
    std::mutex m_writeLock;
    std::unique_ptr<KSFileReaderWriter> m_logReaderWriter; // the size, and the cut
    int m_appendFd = -1; // O_APPEND: the records
    std::function<void(const QString &)> m_recordObserver;
    bool m_shutDownRegistered = false;

    // Gathering (main thread).
    QString m_appName;
    QString m_bundleID;
    unsigned m_filterDays = 0;
    unsigned m_logIndex = 1;
    unsigned m_startingYear = 0;
};
