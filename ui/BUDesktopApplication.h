// Starts the desktop application: the application object, the kernel, the main window, the
// state, and the write-back at the end (also after SIGINT, SIGTERM or SIGHUP). Main thread.
#pragma once

int RunDesktopApplication(int argc, char **argv);
