// Starts the desktop application: the application object, the kernel, the main window, the
// state, and the write-back at the end (also after SIGINT, SIGTERM or SIGHUP). Main thread.
#pragma once

#include <QIcon>

// The application's icon in every size it is drawn at, for its windows and the About box.
QIcon ApplicationIcon();

int RunDesktopApplication(int argc, char **argv);
