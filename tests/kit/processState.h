#ifndef KIT_PROCESSSTATE_H
#define KIT_PROCESSSTATE_H

#include "waitUntil.h"

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <sys/types.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace kit
{

/// A thread of this process, as the system shows it.
struct threadState
{
    pid_t id = 0;
    std::string name;
    std::uint64_t blockedSignals = 0; ///< bit n - 1 stands for signal n
};

/// Empty when the thread has gone, also when it goes just now: then the file can be opened, but not read.
inline std::string taskFile(pid_t id, char const* file)
try
{
    std::ifstream stream("/proc/self/task/" + std::to_string(id) + "/" + file);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}
catch (std::ios_base::failure const&)
{
    return {};
}

/// The value behind `field` in a thread's status; empty when the thread has gone.
inline std::string statusField(pid_t id, std::string const& field)
{
    std::string const status = taskFile(id, "status");
    std::size_t const at = status.find("\n" + field + ":\t");
    if (at == std::string::npos)
    {
        return {};
    }
    std::size_t const begin = at + field.size() + 3;
    return status.substr(begin, status.find('\n', begin) - begin);
}

/// Every thread of this process.
inline std::vector<threadState> processThreads()
{
    std::vector<threadState> threads;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/task"))
    {
        pid_t const id = std::stoi(entry.path().filename().string());
        std::string name = taskFile(id, "comm");
        std::string const blocked = statusField(id, "SigBlk");
        if (!name.empty() && !blocked.empty())
        {
            name.pop_back(); // its line feed
            threads.push_back({id, name, std::stoull(blocked, nullptr, 16)});
        }
    }
    return threads;
}

/// What a thread shows that has blocked every signal: the C library keeps some for itself, and so does an emulator.
inline std::uint64_t everySignalBlocked()
{
    std::uint64_t blocked = 0;
    std::thread([&blocked] {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        blocked = std::stoull(statusField(gettid(), "SigBlk"), nullptr, 16);
    }).join();
    return blocked;
}

/// True when the thread sleeps and goes on sleeping: it waits for something, not just for its turn on a processor.
inline bool isAsleep(pid_t id)
{
    std::string const switches = statusField(id, "voluntary_ctxt_switches");
    for (int sample = 0; sample < 4; ++sample)
    {
        std::string const state = statusField(id, "State");
        if (state.empty() || state.front() != 'S')
        {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return !switches.empty() && statusField(id, "voluntary_ctxt_switches") == switches;
}

/// Waits until the thread sleeps; false when that has not happened within the limit.
inline bool waitUntilAsleep(pid_t id)
{
    return waitUntil([id] { return isAsleep(id); });
}

/// Tells the threads that came after its construction from those that were there.
class threadWatch
{
  public:
    threadWatch()
    {
        std::thread([] {}).join(); // a sanitizer's own thread comes with the first
        for (threadState const& thread : processThreads())
        {
            before.insert(thread.id);
        }
    }

    std::vector<threadState> added() const
    {
        std::vector<threadState> threads = processThreads();
        auto const known = [this](threadState const& thread) { return before.count(thread.id) != 0; };
        threads.erase(std::remove_if(threads.begin(), threads.end(), known), threads.end());
        return threads;
    }

    /// The names of the threads that came, sorted.
    std::vector<std::string> namesAdded() const
    {
        std::vector<std::string> names;
        for (threadState const& thread : added())
        {
            names.push_back(thread.name);
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    std::set<pid_t> idsAdded() const
    {
        std::set<pid_t> ids;
        for (threadState const& thread : added())
        {
            ids.insert(thread.id);
        }
        return ids;
    }

    /// The id of the added thread of that name; 0 when there is none.
    pid_t idOf(std::string const& name) const
    {
        for (threadState const& thread : added())
        {
            if (thread.name == name)
            {
                return thread.id;
            }
        }
        return 0;
    }

    /// Waits until the system shows that many more threads than at first; one that has been joined shows a little
    /// longer.
    bool waitForAdded(std::size_t count) const
    {
        return waitUntil([&] { return added().size() == count; });
    }

  private:
    std::set<pid_t> before;
};

/// The files that this process holds open, by their paths.
inline std::vector<std::string> openFiles()
{
    std::vector<std::string> paths;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    {
        std::error_code gone; // the descriptor of this very iteration
        std::string const path = std::filesystem::read_symlink(entry.path(), gone).string();
        if (!gone)
        {
            paths.push_back(path);
        }
    }
    return paths;
}

inline bool holdsOpen(std::string const& path)
{
    std::vector<std::string> const paths = openFiles();
    return std::find(paths.begin(), paths.end(), path) != paths.end();
}

} // namespace kit

#endif
