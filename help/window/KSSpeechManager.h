// Reading text aloud for the application's windows, on the desktop's speech engine (Qt's text to
// speech: speech-dispatcher, or the flite plug-in that needs no daemon). Where no engine can be
// loaded, speaking is unavailable and unavailableReason() says why; nothing fails. Main thread.
#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

#include <optional>

class QTextToSpeech;

class KSSpeechManager : public QObject {
    Q_OBJECT
public:
    static KSSpeechManager &sharedInstance();
    KSSpeechManager(const KSSpeechManager &) = delete;
    KSSpeechManager &operator=(const KSSpeechManager &) = delete;

    // Whether an engine is loaded and ready to speak.
    bool isAvailable();
    // Why speaking is unavailable, for the command's tooltip; empty when it is available.
    QString unavailableReason();
    // The engine in use ("flite", "speechd"...); empty when none.
    QString engineName();

    // Stops what is being said and says the text; false (nothing said) when unavailable or the
    // text holds nothing to say.
    bool speakString(const QString &text);
    void stopSpeaking();
    bool isSpeaking();
    // What went wrong with the last thing said (no audio output...); empty when nothing did.
    QString speakingError();

    // Chooses among these engines, in this order, instead of the installed ones (nullopt: the
    // installed ones again, the desktop's default first) and loads afresh. Lets the behaviour
    // without a usable engine be seen on a machine that has one, and the other way round.
    void useEngines(const std::optional<QStringList> &engines);

signals:
    void speakingChanged(bool speaking);

private:
    KSSpeechManager();
    void loadEngine();
    QTextToSpeech *m_speech = nullptr;
    QString m_engine;
    QString m_reason;
    bool m_loaded = false;
    std::optional<QStringList> m_engines;
};
