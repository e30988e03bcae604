// Copies one source file into a folder of the device: the data goes to an unnamed file or to a
// temporary name that begins with "." in the target folder, gets the source's attributes there
// and only then takes its name, so that a crash or an ejection never leaves a partial file under
// a real name. Big files are written in a streaming pattern that keeps the page cache bounded and
// counts bytes as copied only once they have reached the device.
//
// Threads: one copier belongs to one thread (the backup worker); its callbacks run there.
#pragma once

#include "backup/BUError.h"
#include "backup/BUFileStats.h"

#include <QByteArray>

#include <functional>
#include <memory>
#include <sys/types.h>
#include <utility>
#include <vector>

// The prefix of the temporary names; the analysis lists leftovers of an interrupted run as
// items to delete.
inline constexpr char kTemporaryNamePrefix[] = ".tanner-partial-";
bool IsTemporaryName(const char *name);

class BUFileCopier {
public:
    BUFileCopier();
    ~BUFileCopier();
    BUFileCopier(const BUFileCopier &) = delete;
    BUFileCopier &operator=(const BUFileCopier &) = delete;

    // Told the bytes of the current file that have reached the device so far, after each window
    // of a big file.
    std::function<void(int64_t bytesWritten)> progress;
    // Asked between chunks; true stops the copy with ENODEV (the device was ejected).
    std::function<bool()> deviceGone;
    // Asked between chunks; true stops the copy, removes what it wrote and fails with
    // kUserCancelledError.
    std::function<bool()> cancelled;

    // Copies the file sourceName in the source folder sourceFolderFd (AT_FDCWD for a path; never
    // following a link) to `name` in the device folder, which must be free unless `replace`: then
    // the regular file there (the old copy) is replaced in one step once the new copy is whole and
    // has its attributes, and stays as it was whenever the copy fails. Errors are in the Cocoa file domain: reading the
    // source 257 (no permission), 260 (gone) or 256; writing 513 (no permission), 640 (full), 642 (read-only), 4
    // (folder gone), 516 (the name is taken) or 512.
    bool copyFile(int sourceFolderFd, const QByteArray &sourceName, int folderFd, const QByteArray &name,
        const BUVolumeKind &kind, BUError *error, bool replace = false);
    // Whether the last copy was stopped by `cancelled`.
    bool stoppedByCancel() const { return m_stoppedByCancel; }

private:
    // How the data moves: inside the kernel where the two file systems allow it, else through
    // the buffer.
    enum class Method { RangeCopy, Splice, ReadWrite };

    // Moves both files' positions past a hole of the source to its next data, whose end it
    // gives in *end (when nearer); false with errno (ENXIO: only a hole is left).
    static bool skipHole(int in, int out, int64_t *position, int64_t *end);
    bool waitForWriteBack(int out, int in, int64_t start, int64_t length, bool *streaming, BUError *error);
    // Moves up to `length` bytes from the current position of `in` to that of `out`, falling back
    // to the next method where one is refused. The count, 0 at the end of the source, or -1 with
    // errno (readFailed when a read gave it).
    ssize_t transfer(int in, int out, std::size_t length, bool *readFailed);

    std::unique_ptr<char, void (*)(void *)> m_buffer;
    bool m_unnamedFiles; // while the device's file systems take O_TMPFILE
    Method m_method = Method::RangeCopy;
    bool m_stoppedByCancel = false;
    std::vector<std::pair<dev_t, Method>> m_methods; // per source file system
};
