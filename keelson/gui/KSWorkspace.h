// Desktop integration: revealing a file in the file manager and opening links. Main thread.
#pragma once

#include <QString>
#include <QUrl>

#include <functional>

// Shows the item selected in its folder (org.freedesktop.FileManager1.ShowItems over D-Bus);
// when no file manager answers, opens the folder that holds it. Nothing for an empty path.
void KSShowInFileManager(const QString &path);
// Opens a web or mail link with the desktop's handler; false when none took it.
bool KSOpenUrl(const QUrl &url);

// Tests: receives what would be revealed or opened instead of the desktop.
void KSSetWorkspaceTestHook(std::function<void(const QString &what)> hook);
