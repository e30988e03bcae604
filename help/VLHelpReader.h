// Reads a help document into a VLDocument, in either of its two forms:
//   - a package: a folder whose name ends in ".TWwrite" or ".TWwrite_autosave" (any case) holding
//     "structure.xml" (knots, text length, pictures), "format.xml" (fonts, property records,
//     styles, character and paragraph runs), "document.txt" (the text, UTF-8, one character per
//     knot) and the folder "Images";
//   - any other path: one XML file with the root "velluma" holding the same sections inline and
//     the text as "run" elements with "k0"/"k1" for the knots' characters.
// A loaded help document has its unknown knots removed (a space left in their place), its
// bookmarks identified, its style list rebuilt, and is locked.
//
// Failures leave a reason in the system's words: "The document has been damaged.", the
// later-version message, the XML decoder's syntax message, the system's reason for a file that
// exists but cannot be read, or "I can't allocate memory for the document's text.". Some failures
// have no reason (a text whose length differs from the structure's, a picture list holding other
// elements...); for those, and to say more about the others, `detail` names what was wrong for
// authors and scripts (it is not shown to the user).
//
// Threads: any one thread at a time per document, once VLSetUpHelpEngine has run.
#pragma once

#include "help/VLDocument.h"

#include <QString>

#include <memory>

inline constexpr char kVLDamagedMessage[] = "The document has been damaged.";
// The largest picture file a document may name.
inline constexpr qint64 kVLMaxPictureSize = qint64(32) << 20;
inline constexpr char kVLLaterVersionMessage[]
    = "This file was created by a later version of Tanner Write. Please visit our website to upgrade the app.";
inline constexpr char kVLTextMemoryMessage[] = "I can't allocate memory for the document's text.";
inline constexpr char kVLEngineNotReadyMessage[] = "The help engine could not be set up.";
// Logged, with the reason, when a help document cannot be read.
inline constexpr char kVLCantReadHelpFormat[] = "Can't read help file: %@";

struct VLLoadFailure {
    QString reason; // in the system's words; may be empty
    QString detail; // what exactly was wrong, for authors; may be empty
};

// Loads the document at `path` into `document` (made by NewVellumaDoc); false with the failure.
bool VLReadHelpDocument(VLDocument &document, const QString &path, VLLoadFailure *failure);

// What the help window does: a new document loaded from the path, or null after logging
// "Can't read help file: %@" with the reason.
std::unique_ptr<VLDocument> VLLoadHelpDocument(const QString &path, VLLoadFailure *failure = nullptr);

// Whether a path names the package form.
bool VLIsHelpPackagePath(const QString &path);

// Value encodings of the files.
// A colour "(r, g, b)" or "(r, g, b, a)": a text shorter than 9 units or with fewer than three
// parts gives white with opacity byte 255 (kKolorWhiteMalformed).
Kolor VLReadKolor(QStringView text);
// "first,second": exactly two parts, else false.
bool VLReadNumberPair(QStringView text, qint64 *first, qint64 *second);
// The heading level code of "lev" n: 17 for 17, else 17 + min(n - 1 taken unsigned, 3).
qint32 VLLevelCode(qint64 n);
