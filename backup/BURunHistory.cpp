#include "backup/BURunHistory.h"

#include "backup/BUAnalysisVerdict.h"
#include "keelson/FormatString.h"
#include "keelson/KSLog.h"
#include "keelson/KSStrings.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QMap>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr int kVersion = 1;

QString _Time(const QDateTime &time)
{
    return time.toOffsetFromUtc(time.offsetFromUtc()).toString(Qt::ISODateWithMs);
}

qint64 _Count(const QJsonObject &object, QLatin1StringView key)
{
    return std::max<qint64>(0, qint64(object.value(key).toDouble()));
}

QString _SystemReason(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// Reads a whole file; nullopt with errno when it cannot be opened or read.
std::optional<QByteArray> _ReadFile(const QByteArray &path, int *error)
{
    const int fd = ::open(path.constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *error = errno;
        return std::nullopt;
    }
    QByteArray bytes;
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            *error = errno;
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0)
            break;
        bytes.append(buffer, n);
    }
    ::close(fd);
    return bytes;
}

bool _WriteAll(int fd, const QByteArray &bytes)
{
    for (qsizetype done = 0; done < bytes.size();) {
        const ssize_t n = ::write(fd, bytes.constData() + done, std::size_t(bytes.size() - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += n;
    }
    return true;
}

// Writes the file whole or not at all: a temporary file beside it, synced, renamed over it, and
// the folder synced so that the rename itself survives a crash.
bool _ReplaceFile(const QString &path, const QByteArray &bytes, QString *error)
{
    const QByteArray target = FileNameToBytes(path);
    QByteArray temporary = target + ".XXXXXX";
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0) {
        *error = _SystemReason(errno);
        return false;
    }
    ::fchmod(fd, 0644);
    bool ok = _WriteAll(fd, bytes) && ::fsync(fd) == 0;
    const int writeError = errno;
    ok = ::close(fd) == 0 && ok;
    if (!ok || ::rename(temporary.constData(), target.constData()) != 0) {
        *error = _SystemReason(ok ? errno : writeError);
        ::unlink(temporary.constData());
        return false;
    }
    const QByteArray folder = FileNameToBytes(QFileInfo(path).absolutePath());
    const int folderFd = ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folderFd >= 0) {
        ::fsync(folderFd);
        ::close(folderFd);
    }
    return true;
}

// The history's own contents from the file's bytes; damaged when anything in them was not usable.
BURunHistory::Contents _Parse(const QByteArray &bytes)
{
    BURunHistory::Contents contents;
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        contents.damaged = true;
        contents.problem = FormatString(
            "it is not JSON (%@ at byte %lld)", parseError.errorString(), static_cast<long long>(parseError.offset));
        return contents;
    }
    const QJsonValue runs = document.object().value(QLatin1StringView("runs"));
    if (!document.isObject() || !runs.isArray()) {
        contents.damaged = true;
        contents.problem = QStringLiteral("it holds no list of runs");
        return contents;
    }
    qint64 unusable = 0;
    for (const QJsonValue &value : runs.toArray()) {
        const std::optional<BURunRecord> run = BURunRecord::fromJson(value.toObject());
        if (run)
            contents.runs.append(*run);
        else
            ++unusable;
    }
    if (unusable > 0) {
        contents.damaged = true;
        contents.problem = FormatString("%lld of its runs could not be read", static_cast<long long>(unusable));
    }
    return contents;
}

// Keeps the last kRunsPerDevice runs of each device, and the failures of each device's last run.
void _Trim(QList<BURunRecord> &runs)
{
    QMap<QString, int> seen;
    QList<BURunRecord> kept;
    for (qsizetype i = runs.size() - 1; i >= 0; --i) {
        int &count = seen[runs[i].device];
        if (++count > BURunHistory::kRunsPerDevice)
            continue;
        BURunRecord run = std::move(runs[i]);
        if (count > 1) {
            run.failuresLeftOut += run.failures.size();
            run.failures.clear();
        }
        kept.prepend(std::move(run));
    }
    runs = std::move(kept);
}

} // namespace

double BURunRecord::seconds() const
{
    return started.isValid() && ended.isValid() ? std::max<qint64>(0, started.msecsTo(ended)) / 1000.0 : 0;
}

QJsonObject BURunRecord::toJson() const
{
    QJsonArray folderList;
    for (const QString &folder : folders)
        folderList.append(folder);
    QJsonArray failureList;
    for (const BURunFailure &failure : failures)
        failureList.append(QJsonObject {{QStringLiteral("action"), failure.action},
            {QStringLiteral("path"), failure.path}, {QStringLiteral("reason"), failure.reason}});
    return QJsonObject {
        {QStringLiteral("device"), device},
        {QStringLiteral("kind"), analyzeOnly ? QStringLiteral("analysis") : QStringLiteral("backup")},
        {QStringLiteral("started"), _Time(started)},
        {QStringLiteral("ended"), _Time(ended)},
        {QStringLiteral("seconds"), seconds()},
        {QStringLiteral("folders"), folderList},
        {QStringLiteral("outcome"), outcome},
        {QStringLiteral("message"), message},
        {QStringLiteral("detail"), detail},
        {QStringLiteral("planned"),
            QJsonObject {{QStringLiteral("copies"), copies}, {QStringLiteral("updates"), updates},
                {QStringLiteral("deletes"), deletes}, {QStringLiteral("bytes"), bytesToCopy}}},
        {QStringLiteral("backupRan"), backupRan},
        {QStringLiteral("done"),
            QJsonObject {{QStringLiteral("copies"), copied}, {QStringLiteral("updates"), updated},
                {QStringLiteral("deletes"), deleted}, {QStringLiteral("bytes"), bytesCopied}}},
        {QStringLiteral("failed"), failed},
        {QStringLiteral("notTried"), notTried},
        {QStringLiteral("failures"), failureList},
        {QStringLiteral("failuresLeftOut"), failuresLeftOut},
    };
}

std::optional<BURunRecord> BURunRecord::fromJson(const QJsonObject &object)
{
    BURunRecord run;
    run.device = object.value(QLatin1StringView("device")).toString();
    run.started = QDateTime::fromString(object.value(QLatin1StringView("started")).toString(), Qt::ISODateWithMs);
    run.ended = QDateTime::fromString(object.value(QLatin1StringView("ended")).toString(), Qt::ISODateWithMs);
    if (run.device.isEmpty() || !run.started.isValid() || !run.ended.isValid())
        return std::nullopt;
    run.analyzeOnly = object.value(QLatin1StringView("kind")).toString() == u"analysis";
    for (const QJsonValue &folder : object.value(QLatin1StringView("folders")).toArray())
        run.folders.append(folder.toString());
    run.outcome = object.value(QLatin1StringView("outcome")).toString();
    run.message = object.value(QLatin1StringView("message")).toString();
    run.detail = object.value(QLatin1StringView("detail")).toString();
    const QJsonObject planned = object.value(QLatin1StringView("planned")).toObject();
    run.copies = _Count(planned, QLatin1StringView("copies"));
    run.updates = _Count(planned, QLatin1StringView("updates"));
    run.deletes = _Count(planned, QLatin1StringView("deletes"));
    run.bytesToCopy = std::max(0.0, planned.value(QLatin1StringView("bytes")).toDouble());
    run.backupRan = object.value(QLatin1StringView("backupRan")).toBool();
    const QJsonObject done = object.value(QLatin1StringView("done")).toObject();
    run.copied = _Count(done, QLatin1StringView("copies"));
    run.updated = _Count(done, QLatin1StringView("updates"));
    run.deleted = _Count(done, QLatin1StringView("deletes"));
    run.bytesCopied = std::max(0.0, done.value(QLatin1StringView("bytes")).toDouble());
    run.failed = _Count(object, QLatin1StringView("failed"));
    run.notTried = _Count(object, QLatin1StringView("notTried"));
    for (const QJsonValue &value : object.value(QLatin1StringView("failures")).toArray()) {
        const QJsonObject failure = value.toObject();
        run.failures.append(
            {failure.value(QLatin1StringView("action")).toString(), failure.value(QLatin1StringView("path")).toString(),
                failure.value(QLatin1StringView("reason")).toString()});
    }
    run.failuresLeftOut = _Count(object, QLatin1StringView("failuresLeftOut"));
    return run;
}

QString BURunOutcome::Label(const QString &code)
{
    if (code == kSucceeded)
        return QStringLiteral("Succeeded");
    if (code == kUpToDate)
        return QStringLiteral("Up to date");
    if (code == kAnalyzed)
        return QStringLiteral("Analyzed");
    if (code == kFailedItems)
        return QStringLiteral("Failed items");
    if (code == kSeriousError)
        return QStringLiteral("Serious error");
    if (code == kAnalysisFailed)
        return QStringLiteral("Failed");
    if (code == kExtraItems)
        return QStringLiteral("Extra items");
    if (code == kCanceled)
        return QStringLiteral("Canceled");
    if (code == kNotStarted)
        return QStringLiteral("Not started");
    return code;
}

bool BURunOutcome::IsTrouble(const QString &code)
{
    return code == kFailedItems || code == kSeriousError || code == kAnalysisFailed || code == kExtraItems;
}

QString BURunHistory::historyPath()
{
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (state.isEmpty() || !QDir::isAbsolutePath(state))
        state = QDir::homePath() + QStringLiteral("/.local/state");
    return state + QStringLiteral("/Tannerwick/backup-history.json");
}

BURunHistory::Contents BURunHistory::load(const QString &path)
{
    int error = 0;
    const std::optional<QByteArray> bytes = _ReadFile(FileNameToBytes(path), &error);
    if (!bytes) {
        Contents contents;
        if (error != ENOENT) {
            contents.damaged = true;
            contents.problem = _SystemReason(error);
        }
        return contents;
    }
    return _Parse(*bytes);
}

bool BURunHistory::append(const BURunRecord &run, QString *error, const QString &path)
{
    QString reason;
    if (!error)
        error = &reason;
    const QString folder = QFileInfo(path).absolutePath();
    QDir().mkpath(folder); // when it cannot be made, opening the lock below says why
    // The lock is a file of its own: the history itself is replaced by every write.
    const QByteArray lockPath = FileNameToBytes(path) + ".lock";
    const int lockFd = ::open(lockPath.constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lockFd < 0) {
        *error = _SystemReason(errno);
        return false;
    }
    while (::flock(lockFd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            *error = _SystemReason(errno);
            ::close(lockFd);
            return false;
        }
    }
    // Read again under the lock: another process may have added runs since anyone here looked.
    int readError = 0;
    const QByteArray target = FileNameToBytes(path);
    const std::optional<QByteArray> bytes = _ReadFile(target, &readError);
    Contents contents;
    if (bytes) {
        contents = _Parse(*bytes);
    } else if (readError != ENOENT) {
        contents.damaged = true;
        contents.problem = _SystemReason(readError);
    }
    if (contents.damaged) {
        const QString aside = path + QStringLiteral(".damaged-")
            + QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss-zzz"));
        const bool kept = bytes ? _ReplaceFile(aside, *bytes, error)
                                : ::rename(target.constData(), FileNameToBytes(aside).constData()) == 0;
        if (kept)
            LogString("The history of runs %@ could not be read whole (%@); it is kept as %@.", path, contents.problem,
                aside);
        else
            LogString("The history of runs %@ could not be read whole (%@) and cannot be kept aside.", path,
                contents.problem);
    }
    contents.runs.append(run);
    if (contents.runs.last().failures.size() > kFailuresKept) {
        contents.runs.last().failuresLeftOut += contents.runs.last().failures.size() - kFailuresKept;
        contents.runs.last().failures.resize(kFailuresKept);
    }
    _Trim(contents.runs);
    QJsonArray runs;
    for (const BURunRecord &kept : std::as_const(contents.runs))
        runs.append(kept.toJson());
    const QByteArray json
        = QJsonDocument(QJsonObject {{QStringLiteral("version"), kVersion}, {QStringLiteral("runs"), runs}})
              .toJson(QJsonDocument::Indented);
    const bool written = _ReplaceFile(path, json, error);
    ::flock(lockFd, LOCK_UN);
    ::close(lockFd);
    return written;
}

QList<BURunRecord> BURunHistory::newestFirst(const QList<BURunRecord> &runs, const QString &device)
{
    QList<BURunRecord> result;
    for (qsizetype i = runs.size() - 1; i >= 0; --i) {
        if (device.isEmpty() || runs[i].device == device)
            result.append(runs[i]);
    }
    return result;
}

QString BURunHistory::countsText(const BURunRecord &run)
{
    if (!run.backupRan) {
        if (run.outcome == BURunOutcome::kAnalyzed || run.outcome == BURunOutcome::kNotStarted)
            return FormatString("%,lld to copy, %,lld to update, %,lld to delete, %@",
                static_cast<long long>(run.copies), static_cast<long long>(run.updates),
                static_cast<long long>(run.deletes), ByteCountText(double(run.bytesToCopy)));
        return QString();
    }
    QString text = FormatString("%,lld copied, %,lld updated, %,lld deleted, %,lld failed",
        static_cast<long long>(run.copied), static_cast<long long>(run.updated), static_cast<long long>(run.deleted),
        static_cast<long long>(run.failed));
    if (run.notTried > 0)
        text += FormatString(", %,lld not tried", static_cast<long long>(run.notTried));
    return text
        + FormatString(
            ", %@ of %@ copied", ByteCountText(double(run.bytesCopied)), ByteCountText(double(run.bytesToCopy)));
}

QString BURunHistory::shownText(const BURunRecord &run)
{
    if (run.detail.isEmpty())
        return run.message;
    if (run.message.isEmpty())
        return run.detail;
    return run.message + (run.message.endsWith(u'.') ? QStringLiteral(" ") : QStringLiteral(". ")) + run.detail;
}

QString BURunHistory::describe(const BURunRecord &run)
{
    const double seconds = run.seconds();
    QString line
        = FormatString("%@  %@  %@  %@: %@", run.started.toLocalTime().toString(QStringLiteral("yyyy-MM-dd HH:mm")),
            run.device, run.analyzeOnly ? QStringLiteral("Analysis") : QStringLiteral("Backup"),
            BURunOutcome::Label(run.outcome), shownText(run));
    const QString counts = countsText(run);
    line += seconds < 10 ? FormatString(" (%.1f s", seconds)
                         : FormatString(" (%,lld s", static_cast<long long>(seconds));
    return line + (counts.isEmpty() ? QStringLiteral(")") : QStringLiteral("; ") + counts + u')');
}

QString BURunHistory::text(const QList<BURunRecord> &runs)
{
    QString text;
    for (const BURunRecord &run : runs) {
        text += describe(run) + u'\n';
        for (const BURunFailure &failure : run.failures)
            text += QStringLiteral("    ") + failure.action + u' ' + failure.path + QStringLiteral(": ")
                + failure.reason + u'\n';
        if (run.failuresLeftOut > 0 && !run.failures.isEmpty())
            text += FormatString("    and %,lld more failed actions\n", static_cast<long long>(run.failuresLeftOut));
    }
    return text;
}

QString BURunHistory::reportSection()
{
    const Contents contents = load();
    QString text;
    if (contents.damaged)
        text += FormatString("The history of runs %@ could not be read whole: %@.", historyPath(), contents.problem)
            + u'\n';
    if (!contents.runs.isEmpty())
        text += BURunHistory::text(newestFirst(contents.runs));
    return text.isEmpty() ? QString() : QStringLiteral("History of runs, newest first:\n") + text;
}
