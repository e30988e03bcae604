// tanner-backup: without arguments the desktop application, with a command the command-line
// front end (a build without the window prints the help instead).
//
// The window lives in a module next to the program (or in ../lib/tanner-backup/ once installed),
// loaded only when it is wanted: a command never maps the GUI libraries. The module carries its
// own copy of the engine; nothing here touches the engine before the choice is made.
#include "cli/BUCommandLine.h"

#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <malloc.h>
#include <string>
#include <unistd.h>

#ifdef TANNER_WITH_GUI
namespace {

constexpr int kExitUnavailable = 69;

std::string ProgramFolder()
{
    char path[4096];
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return ".";
    path[length] = 0;
    const char *slash = std::strrchr(path, '/');
    return slash ? std::string(path, std::size_t(slash - path)) : std::string(".");
}

int RunDesktopModule(int argc, char **argv)
{
    const std::string folder = ProgramFolder();
    const std::string candidates[]
        = {folder + "/tanner-backup-desktop.so", folder + "/../lib/tanner-backup/tanner-backup-desktop.so"};
    std::string reason;
    for (const std::string &candidate : candidates) {
        if (::access(candidate.c_str(), F_OK) != 0)
            continue;
        void *module = ::dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!module) {
            reason = ::dlerror();
            break;
        }
        using Entry = int (*)(int, char **);
        const auto entry = reinterpret_cast<Entry>(::dlsym(module, "TannerRunDesktopApplication"));
        if (entry)
            return entry(argc, argv);
        reason = ::dlerror();
        break;
    }
    if (reason.empty())
        reason = "it is missing";
    std::fprintf(stderr,
        "tanner-backup: the window can't be opened -- its part \"%s\" could not be loaded: %s.\n"
        "Commands still work: tanner-backup --help\n",
        candidates[0].c_str(), reason.c_str());
    return kExitUnavailable;
}

} // namespace
#endif

int main(int argc, char **argv)
{
    // One malloc arena for every thread: the analysis lists folders on several threads, and an
    // arena per thread would keep each one's freed memory to itself (a few megabytes more
    // resident for a comparison, no faster).
    ::mallopt(M_ARENA_MAX, 1);
    // Blocks of 128 KiB and more (the transaction list, the folder trees, the sort's order) are
    // mapped of their own and given back whole when freed. Left to itself, malloc raises this
    // bound to the largest block freed so far, and the next big blocks then come from the heap,
    // where what they leave behind stays resident for the rest of the run (W1: 1 MB).
    ::mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    ::mallopt(M_TRIM_THRESHOLD, 256 * 1024);
#ifdef TANNER_WITH_GUI
    if (argc <= 1 || (argc >= 3 && std::strcmp(argv[1], "help") == 0 && std::strcmp(argv[2], "--window") == 0))
        return RunDesktopModule(argc, argv);
#endif
    return RunCommandLine(argc, argv);
}
