// One window per user and settings file: a second start finds the first one's local socket (in
// the user's runtime folder), asks it to bring its window to the front, and ends without touching
// the state. Main thread.
#pragma once

#include <QObject>
#include <QString>

#include <functional>

class QLocalServer;

class BUSingleInstance : public QObject {
public:
    // The socket belongs to the settings file: another XDG_CONFIG_HOME is another application.
    explicit BUSingleInstance(const QString &settingsPath, QObject *parent = nullptr);

    enum class Start {
        First, // this one listens: each later start calls `activate`
        AlreadyRunning, // a running instance answered and shows its window: this one should end
        Unguarded, // no socket could be made (why: error()); the application runs all the same
    };
    Start start(std::function<void()> activate);

    QString socketPath() const { return m_socketPath; }
    QString error() const { return m_error; }

private:
    bool activateRunningInstance();

    QString m_socketPath;
    QString m_error;
    QLocalServer *m_server = nullptr;
};
