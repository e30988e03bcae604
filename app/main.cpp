// tanner-backup: with a command, the command-line front end; without one, the desktop
// application. The desktop window is not part of this build yet, so a bare start prints the help.
#include "cli/BUCommandLine.h"

int main(int argc, char **argv)
{
    return RunCommandLine(argc, argv);
}
