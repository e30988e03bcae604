// Reading folders on a cold disk: a folder's listing, a large folder's entries with their
// properties read by several threads at once, and a warmer that reads whole folder trees into the
// kernel's caches ahead of a walk. The analysis uses them; none of them decides anything.
#pragma once

#include "backup/BUDeviceRoot.h"
#include "backup/BUFileStats.h"
#include "keelson/KSStrings.h"

#include <QByteArray>
#include <QList>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <mutex>
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

// A folder's entries in listing order, read from an open descriptor that it owns.
class FolderListing {
public:
    explicit FolderListing(int fd) : m_folder(fd >= 0 ? ::fdopendir(fd) : nullptr)
    {
        if (fd >= 0 && !m_folder)
            ::close(fd);
    }
    ~FolderListing()
    {
        if (m_folder)
            ::closedir(m_folder);
    }
    FolderListing(const FolderListing &) = delete;
    FolderListing &operator=(const FolderListing &) = delete;

    int fd() const { return m_folder ? ::dirfd(m_folder) : -1; }
    // The next name other than "." and ".."; false at the end or on an error (errorNumber).
    bool next(const char **name, unsigned char *type)
    {
        for (;;) {
            errno = 0;
            const dirent *entry = ::readdir(m_folder);
            if (!entry) {
                errorNumber = errno;
                return false;
            }
            const char *n = entry->d_name;
            if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0)))
                continue;
            *name = n;
            *type = entry->d_type;
            return true;
        }
    }
    int errorNumber = 0;

private:
    DIR *m_folder;
};

// Starts a helper thread; false when the system refuses one (a limit on processes): the helpers
// only speed the work up, and whoever starts them carries on with those it has.
template <typename Work> bool StartHelperThread(std::vector<std::thread> &threads, Work &&work)
{
    try {
        threads.emplace_back(std::forward<Work>(work));
        return true;
    } catch (const std::system_error &) {
        return false;
    }
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

// Reads folder trees into the kernel's caches with several threads at once, ahead of the walk
// that builds a tree one folder after another: each folder's entries and its subfolders'
// properties. On a cold disk the walk then finds most of what it asks for already in memory.
// (Reading the files' properties here as well was measured slower: it takes the disk from the
// folders that the walk waits for.) Nothing is kept, and nothing but folders is opened.
class TreeWarmer {
public:
    // roots: absolute source paths, read in this order, or "" for the device root (the folders
    // of the device are opened beneath its root, never through a link).
    TreeWarmer(BUDeviceRoot *device, const QList<QByteArray> &roots, bool deviceSide)
        : m_device(device), m_deviceSide(deviceSide), m_folders(roots.crbegin(), roots.crend())
    {
        for (int i = 0; i < kThreads && StartHelperThread(m_threads, [this] { run(); }); ++i) { }
    }
    ~TreeWarmer()
    {
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_changed.notify_all();
        for (std::thread &thread : m_threads)
            thread.join();
    }
    TreeWarmer(const TreeWarmer &) = delete;
    TreeWarmer &operator=(const TreeWarmer &) = delete;

private:
    static constexpr int kThreads = 8; // a cold disk answers more requests at once than one by one
    static constexpr int kSample = 64;
    static constexpr std::chrono::microseconds kCachedFolderTime {100};

    void run()
    {
        for (;;) {
            QByteArray folder;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_changed.wait(lock, [this] { return m_stop || !m_folders.empty() || m_busy == 0; });
                if (m_stop || m_folders.empty())
                    return; // stopped, or no folder left and none being read
                folder = std::move(m_folders.back());
                m_folders.pop_back();
                ++m_busy;
            }
            const auto start = std::chrono::steady_clock::now();
            std::vector<QByteArray> found = read(folder);
            const auto spent = std::chrono::steady_clock::now() - start;
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                for (QByteArray &child : found)
                    m_folders.push_back(std::move(child));
                --m_busy;
                // Folders that come back this quickly are in memory already: the walks need no
                // help, and the warming would only take processor time from them.
                m_spent += spent;
                if (++m_read == kSample && m_spent < kSample * kCachedFolderTime)
                    m_stop = true;
            }
            m_changed.notify_all();
        }
    }

    std::vector<QByteArray> read(const QByteArray &folder)
    {
        std::vector<QByteArray> children;
        const int fd = m_deviceSide ? m_device->openFolder(FileNameFromBytes(folder), false, nullptr)
                                    : ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0)
            return children;
        FolderListing listing(fd);
        const char *name;
        unsigned char type;
        while (!m_stop && listing.next(&name, &type)) {
            if (name[0] == '.' || (type != DT_DIR && type != DT_UNKNOWN))
                continue;
            BUItemProperties properties;
            if (!ReadItemProperties(listing.fd(), name, &properties, nullptr) || !properties.isDirectory()
                || m_device->isRootFolder(properties))
                continue;
            children.push_back(folder.isEmpty() ? QByteArray(name) : folder + '/' + name);
        }
        return children;
    }

    BUDeviceRoot *m_device;
    bool m_deviceSide;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<QByteArray> m_folders; // to list
    int m_busy = 0; // folders being listed
    int m_read = 0;
    std::chrono::steady_clock::duration m_spent {};
    std::atomic<bool> m_stop {false};
    std::vector<std::thread> m_threads;
};
