#include "help/VLHelpEngine.h"

#include "help/VLDocument.h"
#include "help/VLVocabulary.h"
#include "keelson/KSArrayString.h"
#include "keelson/KSLog.h"
#include "keelson/KSXmlDecoder.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
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
    fonts.names.append(QStringLiteral("sans-serif")); // the desktop's sans-serif font
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

bool VLImportPreferences(VLDocument &document, const VLDocument *preferences)
{
    if (!preferences)
        return false;
    // Each record of the preferences is copied once; -1 stays -1.
    QHash<qint32, qint32> copied;
    const auto copyRecord = [&](qint32 index, quint32 type, bool *ok) -> qint32 {
        if (index < 0)
            return -1;
        const auto done = copied.constFind(index);
        if (done != copied.cend())
            return done.value();
        const void *record = type == kRecordNone ? preferences->property(index) : preferences->property(index, type);
        if (!record)
            return -1;
        const qint32 made = document.appendProperty(record);
        if (made < 0)
            *ok = false;
        copied.insert(index, made);
        return made;
    };
    bool ok = true;
    const qint32 chapter = copyRecord(preferences->normalChapter(), kRecordChap, &ok);
    const qint32 table = copyRecord(preferences->normalTable(), kRecordTable, &ok);
    if (!ok)
        return false;
    if (chapter >= 0)
        document.setNormalChapter(chapter);
    if (table >= 0)
        document.setNormalTable(table);

    // Styles: where each one of the preferences lands, then their base and next styles through it.
    KSArrayString &styles = document.styles();
    QHash<qint32, qint32> placed;
    for (std::size_t i = 0; i < preferences->styles().count(); ++i) {
        VLStyle style = preferences->styleAt(i);
        if (style.type == kRecordUnusedStyle)
            continue;
        const QString name = preferences->styleName(i);
        style.prop = copyRecord(style.prop, kRecordNone, &ok);
        style.charProp = copyRecord(style.charProp, kRecordChar, &ok);
        if (!ok)
            return false;
        std::size_t at = KSNotFound;
        if (!styles.findString(name, false, &at) || at >= styles.count()) {
            at = styles.addEntry(&style, &name);
            if (at == KSNotFound)
                return false;
        } else if (!styles.replaceEntry(&style, &name, at)) {
            return false;
        }
        placed.insert(qint32(i), qint32(at));
    }
    for (auto it = placed.cbegin(); it != placed.cend(); ++it) {
        VLStyle style = document.styleAt(std::size_t(it.value()));
        style.base = style.base < 0 ? -1 : placed.value(style.base, 0);
        style.next = style.next < 0 ? -1 : placed.value(style.next, it.value());
        styles.replaceEntryAtIndex(std::size_t(it.value()), &style);
    }
    return document.rebuildStyleList();
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

QString VLApplicationHelpPackagePath()
{
    const QString program = QCoreApplication::instance() ? QCoreApplication::applicationDirPath() : QDir::currentPath();
    const QString beside = program + QStringLiteral("/Help.TWwrite");
    if (QFileInfo::exists(beside))
        return beside;
    return QDir::cleanPath(program + QStringLiteral("/../share/tanner-backup/Help.TWwrite"));
}

QString VLResourceDirectory()
{
    Engine &engine = _Engine();
    if (!engine.resourceDirectory.isEmpty())
        return engine.resourceDirectory;
    return QFileInfo(VLApplicationHelpPackagePath()).path();
}

void VLSetResourceDirectory(const QString &path)
{
    _Engine().resourceDirectory = path;
}
