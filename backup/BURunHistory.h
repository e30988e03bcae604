// The history of runs: every analysis and backup that ended, kept per device (the last 100 runs
// of each) in a small file of the program's own, $XDG_STATE_HOME/Tannerwick/backup-history.json
// (default ~/.local/state). Only the last run of each device keeps its list of failed actions
// (at most 200); earlier runs keep their counts.
//
// The file is JSON: {"version": 1, "runs": [run, ...]}, oldest run first. It is always written
// whole (a temporary file, synced, renamed over the old one) under an flock of its own lock file,
// and read again under that lock before a run is added, so the window and any number of command
// lines may record runs at the same time and none is lost. Readers need no lock. A file that
// cannot be read as a history, or holds runs that cannot be used, is kept aside (".damaged-" and
// the time) when the next run is recorded, and a new one is started with what could be read.
//
// Threads: any; nothing here is shared between calls.
#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>

struct BURunFailure {
    QString action; // "Copy", "Update", "Delete"
    QString path;
    QString reason;
};

struct BURunRecord {
    QString device;
    bool analyzeOnly = false; // an analysis alone, not a backup
    QDateTime started;
    QDateTime ended;
    QStringList folders; // the backup folders of the run
    QString outcome; // one of the BURunOutcome codes below
    QString message; // the words the user saw: the status line, or the alert's message
    QString detail; // the alert's explanation, when there was one
    // What the analysis planned.
    qint64 copies = 0, updates = 0, deletes = 0;
    double bytesToCopy = 0;
    // What the backup did: done and not failed, by action; failed; never tried (a stop).
    qint64 copied = 0, updated = 0, deleted = 0;
    qint64 failed = 0, notTried = 0;
    double bytesCopied = 0;
    bool backupRan = false;
    QList<BURunFailure> failures; // the last run of a device only
    qint64 failuresLeftOut = 0; // failures beyond those listed

    double seconds() const;
    QJsonObject toJson() const;
    // Null for an entry that is not a run (no device or no times).
    static std::optional<BURunRecord> fromJson(const QJsonObject &object);
};

// Outcome codes, as the file and `history --json` write them.
namespace BURunOutcome {
inline const QString kSucceeded = QStringLiteral("succeeded"); // a backup with nothing failed
inline const QString kUpToDate = QStringLiteral("up-to-date"); // nothing to do
inline const QString kAnalyzed = QStringLiteral("analyzed"); // an analysis alone that found work
inline const QString kFailedItems = QStringLiteral("failed-items"); // some actions failed
inline const QString kSeriousError = QStringLiteral("serious-error"); // the backup was stopped by an error
inline const QString kAnalysisFailed = QStringLiteral("analysis-failed"); // the analysis could not be done
inline const QString kExtraItems = QStringLiteral("extra-items"); // the device holds other items
inline const QString kCanceled = QStringLiteral("canceled");
inline const QString kNotStarted = QStringLiteral("not-started"); // analysed, backup declined or held for review
// "Succeeded", "Up to date"... for people.
QString Label(const QString &code);
// Whether the outcome is one the user should look at.
bool IsTrouble(const QString &code);
} // namespace BURunOutcome

class BURunHistory {
public:
    static constexpr int kRunsPerDevice = 100;
    static constexpr int kFailuresKept = 200;

    // Where the history lies, from the environment at the time of the call.
    static QString historyPath();

    struct Contents {
        QList<BURunRecord> runs; // oldest first
        bool damaged = false; // the file exists but could not be read whole
        QString problem; // why, for people
    };
    // Reads the history; a missing file is an empty history.
    static Contents load(const QString &path = historyPath());
    // Adds a run under the lock, trims the history and writes it whole. False with the reason when
    // the file could not be written (the history is then as it was).
    static bool append(const BURunRecord &run, QString *error = nullptr, const QString &path = historyPath());

    // The runs of one device (all when the name is empty), newest first.
    static QList<BURunRecord> newestFirst(const QList<BURunRecord> &runs, const QString &device = {});
    // One line for people: "2026-11-25 14:05  Dev  Backup  Failed items: 1 backup action failed ...".
    static QString describe(const BURunRecord &run);
    // The words the user saw: the message, and the explanation after it when there was one.
    static QString shownText(const BURunRecord &run);
    // The counts of a run: "12 copied, 1 updated, 3 deleted, 1 failed, 4 not tried, 2.5 MB".
    static QString countsText(const BURunRecord &run);
    // Runs as text, one line each in the order given, with the failures of the runs that keep them.
    static QString text(const QList<BURunRecord> &runs);
    // The history for a problem report: a title and the text; empty when there is none.
    static QString reportSection();
};
