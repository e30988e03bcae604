// Lays a loaded help document out for the help window: its text through a QTextDocument with
// exactly one text position per character position (a knot is one object character, a picture an
// image at its knot's cp, a paragraph end a block boundary), its character and paragraph
// formatting, pictures, lists, links and tables (a QTextTable whose cells are filled in reading
// order; the positions the table adds are anchors of the cp map). Main thread.
#pragma once

#include "help/window/KSHelpContent.h"

#include <memory>

class VLDocument;

// Takes the document; `path` is where it was read from.
std::unique_ptr<KSHelpContent> KSHelpContentFromDocument(std::unique_ptr<VLDocument> document, const QString &path);

// Loads the file (package or single file) and lays it out; null after the loader has logged
// "Can't read help file: %@" with the reason, which `reason` receives.
std::unique_ptr<KSHelpContent> KSLoadHelpContent(const QString &path, QString *reason = nullptr);
