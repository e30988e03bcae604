// The help engine's process-wide set-up, done once at launch by the application controller
// (BUAppController::applicationDidFinishLaunching) before any help document is read:
//   1. a 128-byte zero-filled scratch block for the engine in the calling thread's storage;
//   2. the preferences document (NewVellumaDoc kind 3);
//   3. the clip document;
//   when both exist: the document key decoder (name -> tag number) and key encoder (number ->
//   property name) are made, and the decoder becomes KSXmlDecoder's class-wide key map;
//   4. the engine's font name list.
// If step 2 or 3 fails the vocabulary is not registered and help cannot be read.
//
// Threads: VLSetUpHelpEngine runs on the main thread before any decoder runs; afterwards the
// documents, maps and the resources folder are only read. The font name list may be read and
// extended from any thread (it has its own lock).
#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

class VLDocument;

// True when help can be read (also when it had been set up before).
bool VLSetUpHelpEngine();
bool VLHelpEngineIsReady();

// The calling thread's scratch block ("velluma.storage"): 128 bytes, zero-filled when made.
QByteArray &VLScratchStorage();

VLDocument *VLPreferencesDocument();
VLDocument *VLClipDocument();
// A file shown as help takes the look of the preferences: their normal chapter and normal table
// records and their styles (placeholders left out; a style of the same name is replaced), with the
// records the styles use; the style list is then rebuilt. False when memory runs out or there are
// no preferences (the engine is not set up); the document keeps what was brought in until then.
bool VLImportPreferences(VLDocument &document, const VLDocument *preferences = VLPreferencesDocument());
const QHash<QString, quint32> &VLDocumentKeyDecoder();
const QHash<quint32, QString> &VLDocumentKeyEncoder();

// The engine's font table: the index of a font name, added when new.
quint32 VLFontIndexForName(const QString &name);
QString VLFontName(quint32 index);
QStringList VLFontNames();

// The application's own help package, "Help.TWwrite": beside the program in the build tree, else
// in share/tanner-backup beside the program's bin folder when installed.
QString VLApplicationHelpPackagePath();
// Where pictures of source "resource" are found: the folder holding the application's help
// package. Settable for tests and tools.
QString VLResourceDirectory();
void VLSetResourceDirectory(const QString &path);
