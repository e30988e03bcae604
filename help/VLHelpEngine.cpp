#include "help/VLHelpEngine.h"

#include "help/VLDocument.h"
#include "help/VLVocabulary.h"
#include "keelson/KSLog.h"
#include "keelson/KSXmlDecoder.h"

#include <QCoreApplication>
#include <QDir>
#include <QMutex>

#include <memory>

namespace {

struct Engine {
    std::unique_ptr<VLDocument> preferences;
    std::unique_ptr<VLDocument> clip;
    QHash<QString, quint32> keyDecoder;
    QHash<quint32, QString> keyEncoder;
    bool ready = false;
    QString resourceDirectory;
};

Engine &_Engine()
{
    static Engine engine;
    return engine;
}

struct FontTable {
    QMutex lock;
    QStringList names;
    QHash<QString, quint32> indexes;
    bool made = false;
};

FontTable &_Fonts()
{
    static FontTable fonts;
    return fonts;
}

void _MakeFontList()
{
    FontTable &fonts = _Fonts();
    QMutexLocker locker(&fonts.lock);
    if (fonts.made)
        return;
    fonts.made = true;
    // Index 0 is the font of a character record whose font number is beyond the document's map.
    fonts.names.append(QStringLiteral("Helvetica"));
    fonts.indexes.insert(fonts.names.first(), 0);
}

} // namespace

QByteArray &VLScratchStorage()
{
    thread_local QByteArray storage(128, '\0');
    return storage;
}

bool VLSetUpHelpEngine()
{
    Engine &engine = _Engine();
    if (engine.ready)
        return true;
    VLScratchStorage();
    engine.preferences = NewVellumaDoc(kVLPreferencesDocumentKind);
    engine.clip = NewVellumaDoc(kVLClipDocumentKind);
    if (engine.preferences && engine.clip) {
        engine.keyDecoder = VLMakeKeyDecoder();
        engine.keyEncoder = VLMakeKeyEncoder();
        KSXmlDecoder::setClassKeyDecoder(engine.keyDecoder);
        engine.ready = true;
    } else {
        LogString("The help engine could not be set up: there is not enough memory.");
    }
    _MakeFontList();
    return engine.ready;
}

bool VLHelpEngineIsReady()
{
    return _Engine().ready;
}

VLDocument *VLPreferencesDocument()
{
    return _Engine().preferences.get();
}

VLDocument *VLClipDocument()
{
    return _Engine().clip.get();
}

const QHash<QString, quint32> &VLDocumentKeyDecoder()
{
    return _Engine().keyDecoder;
}

const QHash<quint32, QString> &VLDocumentKeyEncoder()
{
    return _Engine().keyEncoder;
}

quint32 VLFontIndexForName(const QString &name)
{
    _MakeFontList();
    FontTable &fonts = _Fonts();
    QMutexLocker locker(&fonts.lock);
    const auto found = fonts.indexes.constFind(name);
    if (found != fonts.indexes.cend())
        return found.value();
    const quint32 index = quint32(fonts.names.size());
    fonts.names.append(name);
    fonts.indexes.insert(name, index);
    return index;
}

QString VLFontName(quint32 index)
{
    _MakeFontList();
    FontTable &fonts = _Fonts();
    QMutexLocker locker(&fonts.lock);
    return index < quint32(fonts.names.size()) ? fonts.names.at(index) : QString();
}

QStringList VLFontNames()
{
    _MakeFontList();
    FontTable &fonts = _Fonts();
    QMutexLocker locker(&fonts.lock);
    return fonts.names;
}

QString VLResourceDirectory()
{
    Engine &engine = _Engine();
    if (!engine.resourceDirectory.isEmpty())
        return engine.resourceDirectory;
    const QString program = QCoreApplication::instance() ? QCoreApplication::applicationDirPath() : QDir::currentPath();
    const QString installed = QDir::cleanPath(program + QStringLiteral("/../share/tanner-backup"));
    return QDir(installed).exists() ? installed : program;
}

void VLSetResourceDirectory(const QString &path)
{
    _Engine().resourceDirectory = path;
}
