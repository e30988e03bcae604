#include "help/window/KSSpeechManager.h"

#include "keelson/KSLog.h"

#include <QTextToSpeech>

KSSpeechManager &KSSpeechManager::sharedInstance()
{
    static KSSpeechManager *manager = new KSSpeechManager;
    return *manager;
}

KSSpeechManager::KSSpeechManager() = default;

void KSSpeechManager::loadEngine()
{
    if (m_loaded)
        return;
    m_loaded = true;
    const QStringList engines = m_engines ? *m_engines : QTextToSpeech::availableEngines();
    if (engines.isEmpty()) {
        m_reason = QStringLiteral("Speaking needs a speech engine, and none is installed (install "
                                  "speech-dispatcher or Qt's flite speech plug-in).");
        return;
    }
    // The default engine first, then the others in the order Qt lists them.
    QStringList order;
    if (!m_engines)
        order.append(QString());
    order += engines;
    for (const QString &engine : order) {
        auto *speech = engine.isEmpty() ? new QTextToSpeech(this) : new QTextToSpeech(engine, this);
        if (speech->state() != QTextToSpeech::Error) {
            m_speech = speech;
            m_engine = engine.isEmpty() ? engines.front() : engine;
            break;
        }
        LogString("The speech engine %@ can't be used: %@", engine.isEmpty() ? engines.front() : engine,
            speech->errorString());
        delete speech;
    }
    if (!m_speech) {
        m_reason = QStringLiteral("Speaking needs a speech engine, and none of the installed ones (%1) could "
                                  "be started.")
                       .arg(engines.join(QStringLiteral(", ")));
        return;
    }
    connect(m_speech, &QTextToSpeech::stateChanged, this,
        [this](QTextToSpeech::State state) { emit speakingChanged(state == QTextToSpeech::Speaking); });
}

void KSSpeechManager::useEngines(const std::optional<QStringList> &engines)
{
    const bool wasSpeaking = isSpeaking();
    if (m_speech) {
        m_speech->stop();
        delete m_speech;
        m_speech = nullptr;
    }
    if (wasSpeaking)
        emit speakingChanged(false);
    m_engines = engines;
    m_engine.clear();
    m_reason.clear();
    m_loaded = false;
}

bool KSSpeechManager::isAvailable()
{
    loadEngine();
    return m_speech != nullptr;
}

QString KSSpeechManager::unavailableReason()
{
    loadEngine();
    return m_reason;
}

QString KSSpeechManager::engineName()
{
    loadEngine();
    return m_engine;
}

bool KSSpeechManager::speakString(const QString &text)
{
    if (!isAvailable() || text.trimmed().isEmpty())
        return false;
    m_speech->stop();
    m_speech->say(text);
    return true;
}

void KSSpeechManager::stopSpeaking()
{
    if (m_speech)
        m_speech->stop();
}

bool KSSpeechManager::isSpeaking()
{
    return m_speech && m_speech->state() == QTextToSpeech::Speaking;
}

QString KSSpeechManager::speakingError()
{
    if (!m_speech || m_speech->state() != QTextToSpeech::Error)
        return {};
    const QString reason = m_speech->errorString();
    return reason.isEmpty() ? QStringLiteral("the speech engine failed") : reason;
}
