// `tanner-backup help --window [--file PATH]`: the help window on its own, on the application's
// help or, with a path, on a package or help file an author wrote. Main thread.
#pragma once

// argv[1] is "help"; returns the exit status (2 for bad arguments, 1 when the file can't be read).
int RunHelpWindowApplication(int argc, char **argv);
