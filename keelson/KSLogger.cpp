#include "keelson/KSLogger.h"

#include "keelson/KSDayIndex.h"
#include "keelson/KSFileReaderWriter.h"
#include "keelson/KSKernel.h"
#include "keelson/KSLog.h"
#include "keelson/KSStrings.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStringDecoder>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

// Set while this thread is inside logString: what the logger's own calls log is dropped.
thread_local bool t_logging = false;

const char *const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

QString _BundleID()
{
    return g_bundleID.isEmpty() ? QStringLiteral("com.tannerwick.backup") : g_bundleID;
}

QString _ProcessName()
{
    return QString::fromLocal8Bit(program_invocation_short_name);
}

int _ThisYear()
{
    return DayIndexForToday() / 10000;
}

bool _IsBlank(QChar c)
{
    return c == u' ' || c == u'\t';
}

// The text of a file that is valid UTF-8, or a null string.
QString _ReadUtf8File(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    const QByteArray bytes = file.readAll();
    QStringDecoder decoder(QStringDecoder::Utf8);
    QString text = decoder(bytes);
    if (decoder.hasError())
        return QString();
    return text.isNull() ? QStringLiteral("") : text;
}

// Runs a tool of the system; its output when it ran and succeeded, else a null string.
QString _ToolOutput(const QString &program, const QStringList &args)
{
    QProcess process;
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(program, args);
    if (!process.waitForStarted(5000))
        return QString();
    if (!process.waitForFinished(30000)) {
        process.kill();
        process.waitForFinished();
        return QString();
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return QString();
    return QString::fromUtf8(process.readAllStandardOutput());
}

// The day after the cutoff as "YYYY-MM-DD", for the tools' --since.
QString _SinceDate(int cutoffDay)
{
    const int day = AddToDayIndex(cutoffDay, 0, 1);
    return QStringLiteral("%1-%2-%3")
        .arg(day / 10000, 4, 10, QLatin1Char('0'))
        .arg((day / 100) % 100, 2, 10, QLatin1Char('0'))
        .arg(day % 100, 2, 10, QLatin1Char('0'));
}

} // namespace

KSLogger &KSLogger::sharedInstance()
{
    // Never destroyed, so that code running at exit can still log.
    static KSLogger *logger = new KSLogger;
    return *logger;
}

void KSLogger::install()
{
    KSLogger &logger = sharedInstance();
    SetLogSink([&logger](const QString &message) { logger.logString(message); });
}

QString KSLogger::delimiter()
{
    return QStringLiteral("===== ===== ===== ===== =====\n");
}

QString KSLogger::logFilePath()
{
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (state.isEmpty() || !QDir::isAbsolutePath(state))
        state = QDir::homePath() + QStringLiteral("/.local/state");
    return state + QStringLiteral("/Tannerwick/") + _BundleID() + QStringLiteral(".log");
}

void KSLogger::setRecordObserver(std::function<void(const QString &)> observer)
{
    std::lock_guard lock(m_writeLock);
    m_recordObserver = std::move(observer);
}

void KSLogger::logString(const QString &message)
{
    if (t_logging)
        return;
    t_logging = true;
    {
        std::lock_guard lock(m_writeLock);
        writeRecord(message);
    }
    t_logging = false;
}

bool KSLogger::openLogFile()
{
    const QString path = logFilePath();
    if (!QDir().mkpath(QFileInfo(path).absolutePath()))
        return false;
    const QByteArray bytes = FileNameToBytes(path);
    // Records are appended through their own descriptor: each lands whole at the end of the file,
    // whatever other processes append meanwhile.
    const int fd = ::open(bytes.constData(), O_WRONLY | O_APPEND | O_CREAT | O_NOCTTY | O_CLOEXEC, 0644);
    if (fd < 0)
        return false;
    m_logReaderWriter = KSFileReaderWriter::open(path);
    if (!m_logReaderWriter) {
        ::close(fd);
        return false;
    }
    m_appendFd = fd;
    if (!m_shutDownRegistered && QCoreApplication::instance()) {
        m_shutDownRegistered = true;
        QObject::connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, QCoreApplication::instance(),
            [] { KSLogger::sharedInstance().shutDown(); });
    }
    return true;
}

void KSLogger::writeRecord(const QString &message)
{
    if (!m_logReaderWriter && !openLogFile())
        return;
    // Several processes share the file: it is cut under an exclusive lock of the file, records
    // are appended under a shared one, so no record is appended into a file being cut.
    uint64_t size = m_logReaderWriter->actualFileSize();
    if (size >= kSizeLimit) {
        ::flock(m_appendFd, LOCK_EX);
        size = m_logReaderWriter->actualFileSize(); // another process may have cut it meanwhile
        const bool room = size < kSizeLimit || shortenFile(size);
        ::flock(m_appendFd, LOCK_UN);
        if (!room) {
            const QByteArray line = FileNameToBytes(message);
            std::fprintf(stderr, "%s\n", line.constData());
            return;
        }
    }
    const QDateTime now = QDateTime::currentDateTime();
    const QCalendar::YearMonthDay date = g_calendar.partsFromDate(now.date());
    const QTime time = now.time();
    const QString header = FormatString("%d-%02d-%02d %02d:%02d:%02d %@ ", date.year, date.month, date.day, time.hour(),
        time.minute(), time.second(), _BundleID());
    ::flock(m_appendFd, LOCK_SH);
    const bool written = appendStringToLogFile(header + message + u'\n');
    ::flock(m_appendFd, LOCK_UN);
    if (!written)
        return;
    m_logReaderWriter->sync();
    if (m_recordObserver)
        m_recordObserver(header + message);
}

void KSLogger::shutDown()
{
    std::lock_guard lock(m_writeLock);
    m_logReaderWriter.reset();
    if (m_appendFd >= 0)
        ::close(m_appendFd);
    m_appendFd = -1;
}

bool KSLogger::appendStringToLogFile(const QString &text)
{
    if (m_appendFd < 0)
        return false;
    // Names outside UTF-8 keep their bytes, as everywhere else. One write, so that the record is
    // never split by another process's; a write the system cuts short is finished after it.
    const QByteArray bytes = FileNameToBytes(text);
    for (qsizetype done = 0; done < bytes.size();) {
        const ssize_t count = ::write(m_appendFd, bytes.constData() + done, std::size_t(bytes.size() - done));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return false;
        done += count;
    }
    return true;
}

bool KSLogger::shortenFile(uint64_t size)
{
    if (!m_logReaderWriter || size < 8192)
        return false;
    const uint64_t block = KSFileReader::blockSize();
    char buffer[4096];
    uint64_t start = size / 2;
    for (uint64_t i = 0; i < 4; ++i) {
        const uint64_t offset = size / 2 + i * block;
        if (offset >= size)
            break;
        const uint64_t length = std::min(block, size - offset);
        if (!m_logReaderWriter->readDataTo(buffer, length, offset))
            return false;
        const char *feed = static_cast<const char *>(std::memchr(buffer, '\n', length));
        if (feed) {
            start = offset + uint64_t(feed - buffer) + 1;
            break;
        }
    }
    uint64_t written = 0;
    for (uint64_t from = start; from < size;) {
        const uint64_t length = std::min(block, size - from);
        if (!m_logReaderWriter->readDataTo(buffer, length, from)
            || !m_logReaderWriter->writeData(buffer, length, written))
            return false;
        from += length;
        written += length;
    }
    return m_logReaderWriter->truncateToLength(written);
}

QString KSLogger::allLogsForApp(const QString &name, const QString &bundleID)
{
    const QString appName = name.isEmpty() ? _ProcessName() : name;
    const QString identifier = bundleID.isEmpty() ? _BundleID() : bundleID;
    const QString reports = logsForApp(appName, 0);
    QString messages = messagesForApp(appName, identifier, 0);
    if (const QString records = ownRecordsHook ? ownRecordsHook() : QString(); !records.isEmpty())
        messages += (messages.isEmpty() ? QString() : delimiter()) + records;
    QString result;
    if (!reports.isEmpty() && !messages.isEmpty())
        result = reports + delimiter() + messages;
    else
        result = reports.isEmpty() ? messages : reports;
    if (result.isEmpty()) {
        if (alertHook)
            alertHook(QStringLiteral("No log information."),
                FormatString("I could not find any crash reports or log entries for %@.", appName));
        return QString();
    }
    return result;
}

QString KSLogger::logsForApp(const QString &name, unsigned filterDays)
{
    m_appName = name;
    m_filterDays = filterDays;
    m_logIndex = 1;
    QString text;
    for (const QString &folder : std::as_const(sources.crashFolders))
        appendLogs(text, folder);
    appendCoreDumps(text);
    return text;
}

void KSLogger::appendLogs(QString &text, const QString &folder)
{
    const int cutoff = m_filterDays ? AddToDayIndex(DayIndexForToday(), 0, -int(m_filterDays)) : 0;
    const QDir dir(folder);
    const QStringList entries
        = dir.entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString &entry : entries) {
        const QString path = dir.filePath(entry);
        if (entry.contains(m_appName) && !QFileInfo(path).isDir()) {
            const QString report = _ReadUtf8File(path);
            if (report.isNull() || (m_filterDays && excludeLog(report, cutoff)))
                continue;
            text += FormatString("%d. %@", m_logIndex++, delimiter()) + report + u'\n';
        } else if (CaseInsensitiveCompare(entry, u"Retired") == KSOrderedSame && QFileInfo(path).isDir()) {
            appendLogs(text, path);
        }
    }
}

// systemd-coredump's record of each crash of the executable, numbered like a crash report.
void KSLogger::appendCoreDumps(QString &text)
{
    if (sources.coredumpctl.isEmpty() || m_appName.isEmpty())
        return;
    QStringList args {QStringLiteral("info"), QStringLiteral("--no-pager")};
    if (m_filterDays)
        args << QStringLiteral("--since") << _SinceDate(AddToDayIndex(DayIndexForToday(), 0, -int(m_filterDays)));
    args << m_appName;
    const QString output = _ToolOutput(sources.coredumpctl, args);
    if (output.trimmed().isEmpty())
        return;
    text += FormatString("%d. %@", m_logIndex++, delimiter()) + output + u'\n';
}

QString KSLogger::journalLines(int cutoffDay)
{
    if (sources.journalctl.isEmpty() || m_appName.isEmpty())
        return QString();
    // The executable's own lines, or those it logged under its name; ISO dates carry the year.
    QStringList args {
        QStringLiteral("--no-pager"), QStringLiteral("-q"), QStringLiteral("-o"), QStringLiteral("short-iso")};
    if (cutoffDay)
        args << QStringLiteral("--since") << _SinceDate(cutoffDay);
    args << QStringLiteral("_COMM=") + m_appName.left(15) << QStringLiteral("+")
         << QStringLiteral("SYSLOG_IDENTIFIER=") + m_appName;
    return _ToolOutput(sources.journalctl, args);
}

QString KSLogger::messagesForApp(const QString &name, const QString &bundleID, unsigned filterDays)
{
    const int thisYear = _ThisYear();
    int cutoff = 0;
    if (m_filterDays) {
        m_startingYear = unsigned(thisYear);
        cutoff = AddToDayIndex(DayIndexForToday(), 0, -int(m_filterDays));
    } else {
        m_startingYear = 0;
    }
    m_filterDays = filterDays;
    m_appName = name;
    m_bundleID = bundleID;

    QString messages;
    const QString journal = journalLines(cutoff);
    if (!journal.trimmed().isEmpty())
        addMessages(messages, journal, cutoff, thisYear, true);
    else
        addMessagesFromFile(messages, sources.systemLog, cutoff, thisYear, true);
    const QString ownLog = sources.ownLog.isEmpty() ? logFilePath() : sources.ownLog;
    addMessagesFromFile(messages, ownLog, cutoff, thisYear, false);
    return messages;
}

void KSLogger::addMessagesFromFile(
    QString &messages, const QString &path, int cutoffDay, int thisYear, bool filterByName)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return;
    // The own log keeps the bytes of names outside UTF-8; the codec gives them back unchanged.
    addMessages(messages, FileNameFromBytes(file.readAll()), cutoffDay, thisYear, filterByName);
}

void KSLogger::addMessages(QString &messages, const QString &text, int cutoffDay, int thisYear, bool filterByName)
{
    QStringList lines = text.split(u'\n');
    for (QString &line : lines) {
        if (line.endsWith(u'\r'))
            line.chop(1);
    }
    const qsizetype before = messages.size();
    extractLogLines(lines, cutoffDay, messages, filterByName);
    if (cutoffDay && int(m_startingYear) > thisYear) {
        // The first line's year was guessed too late: start earlier by the overshoot, once.
        messages.truncate(before);
        m_startingYear = unsigned(int(m_startingYear) + 2 * (thisYear - int(m_startingYear)));
        extractLogLines(lines, cutoffDay, messages, filterByName);
    }
}

void KSLogger::extractLogLines(const QStringList &lines, int cutoffDay, QString &messages, bool filterByName)
{
    int runningDay = int(m_startingYear) * 10000 + 101;
    bool previousKept = false;
    for (const QString &line : lines) {
        if (line.isEmpty())
            continue;
        bool keep;
        if (line.front().isSpace()) {
            keep = previousKept;
        } else {
            if (cutoffDay)
                runningDay = dateFromLogLine(line, runningDay);
            const bool named = !filterByName || line.contains(m_appName) || line.contains(m_bundleID);
            keep = named && (!cutoffDay || runningDay > cutoffDay);
        }
        previousKept = keep;
        if (keep) {
            QString kept = line;
            kept.replace(QStringLiteral("\\n"), QStringLiteral("\n"));
            messages += kept + u'\n';
        }
    }
    if (cutoffDay)
        m_startingYear = unsigned(runningDay / 10000);
}

int KSLogger::dateFromLogLine(QStringView line, int currentDay)
{
    if (line.size() < 11)
        return currentDay;
    // "2024-03-07 14:05:01" (this log, syslog's old style) or "2024-03-07T14:05:01" (ISO 8601, the
    // journal's short-iso and rsyslog's default on current systems).
    if (line[0].isDigit() && line[4] == u'-' && line[7] == u'-' && (line[10] == u' ' || line[10] == u'T')) {
        bool okYear, okMonth, okDay;
        const int year = line.sliced(0, 4).toInt(&okYear);
        const int month = line.sliced(5, 2).toInt(&okMonth);
        const int day = line.sliced(8, 2).toInt(&okDay);
        return okYear && okMonth && okDay ? year * 10000 + month * 100 + day : currentDay;
    }
    int month = 0;
    for (int i = 0; i < 12; ++i) {
        if (line.startsWith(QLatin1String(kMonths[i])))
            month = i + 1;
    }
    if (month == 0)
        return currentDay;
    qsizetype position = 4;
    while (position < line.size() && _IsBlank(line[position]))
        ++position;
    int day = 0;
    while (position < line.size() && line[position].isDigit() && day < 100)
        day = day * 10 + line[position++].digitValue();
    if (day == 0)
        return currentDay;
    int year = currentDay / 10000;
    if ((currentDay / 100) % 100 > month)
        ++year; // the log went past a new year
    return year * 10000 + month * 100 + day;
}

bool KSLogger::excludeLog(QStringView report, int cutoffDay)
{
    const qsizetype label = report.indexOf(u"Date/Time:");
    if (label < 0)
        return false;
    qsizetype position = label + 10;
    while (position < report.size() && _IsBlank(report[position]))
        ++position;
    int numbers[3] = {0, 0, 0};
    int count = 0;
    bool inNumber = false;
    for (; position < report.size() && count < 3; ++position) {
        const QChar c = report[position];
        if (c.isDigit()) {
            if (numbers[count] < 100000) // longer numbers are no date; keep the sum from overflowing
                numbers[count] = numbers[count] * 10 + c.digitValue();
            inNumber = true;
        } else if (c.isPunct() && inNumber) {
            ++count;
            inNumber = false;
        } else {
            break; // a blank, or anything else, ends the date
        }
    }
    return numbers[0] * 10000 + numbers[1] * 100 + numbers[2] <= cutoffDay;
}
