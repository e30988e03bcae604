// Reading folders on a cold disk: a folder's listing, and a large folder's entries with their
// properties read by several threads at once. The analysis uses them; neither decides anything.
#pragma once

#include "backup/BUDeviceRoot.h"
#include "backup/BUFileStats.h"
#include "keelson/KSStrings.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/syscall.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

// Starts one helper thread; false when the system refuses it (a limit on processes): a helper only
// speeds the work up, and whoever starts it carries on without.
template <typename Work> bool StartHelperThread(std::thread &thread, Work &&work)
{
    try {
        thread = std::thread(std::forward<Work>(work));
        return true;
    } catch (const std::system_error &) {
        return false;
    }
}

// The length of path that one open takes at most: a longer path is opened a part at a time.
inline constexpr std::size_t kPathPart = 2048;

// Opens a path of any length (beyond PATH_MAX), a part of at most kPathPart bytes at a time, each
// part below the folder that the last one opened; at most two descriptors are open at once. The
// parts before the last are folders, followed as an open of the whole path would follow them.
inline int OpenLongPath(int folderFd, const char *path, int flags)
{
    std::size_t length = std::strlen(path);
    int base = folderFd;
    while (length >= kPathPart) {
        std::size_t cut = kPathPart - 1;
        while (cut > 0 && path[cut] != '/')
            --cut;
        if (cut == 0) {
            if (base != folderFd)
                ::close(base);
            errno = ENAMETOOLONG; // one name longer than a part: no file system has one
            return -1;
        }
        const std::string part(path, cut);
        const int next = ::openat(base, part.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        const int saved = errno;
        if (base != folderFd)
            ::close(base);
        if (next < 0) {
            errno = saved;
            return -1;
        }
        base = next;
        while (path[cut] == '/')
            ++cut;
        path += cut;
        length -= cut;
    }
    const int fd = ::openat(base, path, flags | O_CLOEXEC);
    if (base != folderFd) {
        const int saved = errno;
        ::close(base);
        errno = saved;
    }
    return fd;
}

// A folder's entries in listing order, read from an open descriptor that it owns.
// The entries are read straight into a buffer of the listing's own (getdents64) rather than
// through a DIR, whose 32 KiB buffer comes from the heap: sixteen readers list at once, and the
// folders of a typical tree fit in a few kilobytes.
class FolderListing {
public:
    explicit FolderListing(int fd) : m_fd(fd) { }
    ~FolderListing()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    FolderListing(const FolderListing &) = delete;
    FolderListing &operator=(const FolderListing &) = delete;

    int fd() const { return m_fd; }
    // The next name other than "." and ".."; false at the end or on an error (errorNumber).
    bool next(const char **name, unsigned char *type)
    {
        for (;;) {
            if (m_position >= m_filled) {
                if (m_fd < 0) {
                    errorNumber = EBADF;
                    return false;
                }
                long read;
                do
                    read = ::syscall(SYS_getdents64, m_fd, m_buffer, sizeof m_buffer);
                while (read < 0 && errno == EINTR);
                if (read <= 0) {
                    errorNumber = read < 0 ? errno : 0;
                    return false;
                }
                m_filled = std::size_t(read);
                m_position = 0;
            }
            // The kernel's record (linux_dirent64): inode, offset, record length, type, name.
            const char *record = m_buffer + m_position;
            unsigned short length;
            std::memcpy(&length, record + kLengthAt, sizeof length);
            m_position += length;
            const char *n = record + kNameAt;
            if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0)))
                continue;
            *name = n;
            *type = static_cast<unsigned char>(record[kTypeAt]);
            return true;
        }
    }
    int errorNumber = 0;

private:
    static constexpr std::size_t kLengthAt = 16, kTypeAt = 18, kNameAt = 19;
    int m_fd;
    std::size_t m_filled = 0;
    std::size_t m_position = 0;
    alignas(8) char m_buffer[8192];
};

// One more helper thread in threads, as above; whoever starts them carries on with those it has.
template <typename Work> bool StartHelperThread(std::vector<std::thread> &threads, Work &&work)
{
    threads.reserve(threads.size() + 1); // a started thread is never dropped for want of room
    std::thread thread;
    if (!StartHelperThread(thread, std::forward<Work>(work)))
        return false;
    threads.push_back(std::move(thread));
    return true;
}

// A folder's entries a block at a time, with the properties of its files read ahead. A block that
// comes back full (a large folder) has them read by several threads at once: a flat folder of a
// hundred thousand files would otherwise wait on a cold disk for one file after another. Names
// live in one buffer per block, not an allocation each.
class FolderReader {
public:
    explicit FolderReader(FolderListing &listing) : m_listing(listing) { }

    // The next entry, as FolderListing::next; *known holds its properties when they were read
    // ahead, else null (a folder, a dot name, a small folder, or a read that failed and is left
    // to the caller, which reports it).
    bool next(const char **name, unsigned char *type, const BUItemProperties **known)
    {
        if (m_position == m_items.size() && !fill())
            return false;
        const Item &item = m_items[m_position++];
        *name = m_names.data() + item.nameOffset;
        *type = item.type;
        *known = item.state == State::Read ? &item.properties : nullptr;
        return true;
    }

private:
    static constexpr std::size_t kBlock = 1024;
    static constexpr std::size_t kChunk = 64;
    static constexpr int kThreads = 4;
    enum class State : uint8_t { Skipped, Wanted, Read };
    struct Item {
        std::size_t nameOffset;
        unsigned char type;
        State state;
        BUItemProperties properties;
    };

    bool fill()
    {
        m_items.clear();
        m_names.clear();
        m_position = 0;
        const char *name;
        unsigned char type;
        while (m_items.size() < kBlock && m_listing.next(&name, &type)) {
            const std::size_t offset = m_names.size();
            m_names.insert(m_names.end(), name, name + std::strlen(name) + 1);
            const bool wanted = name[0] != '.' && type != DT_DIR;
            m_items.push_back({offset, type, wanted ? State::Wanted : State::Skipped, {}});
        }
        if (m_items.size() == kBlock)
            readAhead();
        return !m_items.empty();
    }

    void readAhead()
    {
        std::atomic<std::size_t> nextChunk {0};
        auto work = [this, &nextChunk] {
            for (;;) {
                const std::size_t start = nextChunk.fetch_add(kChunk);
                if (start >= m_items.size())
                    return;
                for (std::size_t i = start; i < std::min(start + kChunk, m_items.size()); ++i) {
                    Item &item = m_items[i];
                    if (item.state == State::Wanted
                        && ReadItemProperties(
                            m_listing.fd(), m_names.data() + item.nameOffset, &item.properties, nullptr))
                        item.state = State::Read;
                }
            }
        };
        std::vector<std::thread> helpers;
        for (int i = 1; i < kThreads && StartHelperThread(helpers, work); ++i) { }
        work();
        for (std::thread &helper : helpers)
            helper.join();
    }

    FolderListing &m_listing;
    std::vector<Item> m_items;
    std::vector<char> m_names;
    std::size_t m_position = 0;
};
