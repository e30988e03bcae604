// tanner-backup: without arguments the desktop application, with a command the command-line
// front end (a build without the window prints the help instead).
#include "cli/BUCommandLine.h"

#ifdef TANNER_WITH_GUI
#include "ui/BUDesktopApplication.h"
#endif

int main(int argc, char **argv)
{
#ifdef TANNER_WITH_GUI
    if (argc <= 1)
        return RunDesktopApplication(argc, argv);
#endif
    return RunCommandLine(argc, argv);
}
