// The saved copy of a help package: the package folder copied whole into a folder the user chose,
// under a name not yet taken there. Main thread.
#pragma once

#include <QString>

// "<folder>/<base>.<extension>", or "<base> 2.<extension>", "<base> 3.<extension>"... for the
// first name that nothing in the folder has.
QString KSUniqueNameInFolder(const QString &folder, const QString &base, const QString &extension);

// Copies the folder `source` with everything in it to `target` (which must not exist); symbolic
// links are copied as links. False with a reason after removing what was copied.
bool KSCopyPackage(const QString &source, const QString &target, QString *reason);
