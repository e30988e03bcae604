// The whole of a loaded document as JSON, for `tanner-backup help --check --json`, tests and tools:
// textLength, firstCount, text, chapters, outline, knots, bookmarks, lists, tables, variableMask,
// pictures, styles, properties, charRuns, paraRuns, normalChapter/Table/List and fonts. Types,
// kinks and record types are words; knot values the stored signed 32-bit integers; colours
// unsigned 32-bit integers. Threads: any; it reads the document only.
#pragma once

#include "help/VLDocument.h"

#include <QJsonObject>

QJsonObject VLDocumentToJson(const VLDocument &document);
// The values of every atom of a record, by the element name that carries it.
QJsonObject VLPropertyValuesToJson(const void *record);
