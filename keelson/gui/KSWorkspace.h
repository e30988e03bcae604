// Desktop integration: revealing a file in the file manager and opening links. Main thread.
#pragma once

#include <QString>
#include <QUrl>

#include <functional>

// Shows the item selected in its folder (org.freedesktop.FileManager1.ShowItems over D-Bus);
// when no file manager answers, opens the folder that holds it. Nothing for an empty path.
// `failed` runs (on the main thread, perhaps later) when nothing could show it.
void KSShowInFileManager(const QString &path, std::function<void()> failed = {});
// Opens a web or mail link with the desktop's handler (xdg-open); false when no handler could be
// started. A handler that starts and then fails (none set up for the link) calls `failed` when
// it ends, on the main thread.
bool KSOpenUrl(const QUrl &url, std::function<void()> failed = {});

// Tests: receives what would be revealed or opened instead of the desktop.
void KSSetWorkspaceTestHook(std::function<void(const QString &what)> hook);
