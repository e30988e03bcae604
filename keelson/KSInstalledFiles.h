// The files installed with the program (the help package, ...) are found relative to the
// program itself: beside it in the build tree, in ../share/tanner-backup/ once installed.
#pragma once

#include <QString>

// The path of `name` in the first of those places that holds it, or an empty string.
// `programFolder` defaults to the running program's folder.
QString InstalledFilePath(const QString &name, const QString &programFolder = {});

// The application's help package, "Help.TWwrite" (empty when neither place holds it).
QString HelpPackagePath();
