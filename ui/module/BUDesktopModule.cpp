// The desktop application as a loadable module: tanner-backup loads it only when it opens the
// window, so that the command line starts with Qt Core alone.
#include "ui/BUDesktopApplication.h"

extern "C" __attribute__((visibility("default"))) int TannerRunDesktopApplication(int argc, char **argv)
{
    return RunDesktopApplication(argc, argv);
}
