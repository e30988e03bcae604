// The desktop application as a loadable module: tanner-backup loads it only when it opens the
// window, so that the command line starts with Qt Core alone.
#include "help/window/KSHelpWindowApplication.h"
#include "ui/BUDesktopApplication.h"

#include <cstring>

extern "C" __attribute__((visibility("default"))) int TannerRunDesktopApplication(int argc, char **argv)
{
    if (argc >= 2 && std::strcmp(argv[1], "help") == 0)
        return RunHelpWindowApplication(argc, argv);
    return RunDesktopApplication(argc, argv);
}
