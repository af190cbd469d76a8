// What a started port costs a process in memory, as the system counts it. scripts/footprint runs this; the argument
// "locked" has the process lock its memory first.

#include "gssipMessage.h"
#include "gssipPort.h"
#include "monotonicTimeStamp.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

int checked(int result, char const* what)
{
    if (result < 0)
    {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return result;
}

/// A terminal whose other end is held here.
class line
{
  public:
    line() : master(checked(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC), "posix_openpt"))
    {
        checked(grantpt(master), "grantpt");
        checked(unlockpt(master), "unlockpt");
        std::array<char, 64> path{};
        checked(-ptsname_r(master, path.data(), path.size()), "ptsname_r");
        deviceName = path.data();
    }
    ~line() { close(master); }
    line(line const&) = delete;
    line& operator=(line const&) = delete;

    std::string const& name() const { return deviceName; }

    void write(std::vector<std::uint8_t> const& bytes) const
    {
        auto const written = ::write(master, bytes.data(), bytes.size());
        if (written != static_cast<ssize_t>(bytes.size()))
        {
            throw std::runtime_error("the terminal does not take a whole message");
        }
    }

    /// Reads away that many bytes that the port has sent.
    void take(std::size_t count) const
    {
        std::array<std::uint8_t, 4096> buffer{};
        while (count > 0)
        {
            auto const got = ::read(master, buffer.data(), std::min(count, buffer.size()));
            count -= static_cast<std::size_t>(checked(static_cast<int>(got), "read"));
        }
    }

  private:
    int master;
    std::string deviceName;
};

/// A port on a line of its own, started.
class startedPort
{
  public:
    startedPort() : port(terminal.name(), clock, nullptr, false)
    {
        if (port.configurePort(115200, 8, PARITY_NONE, 1, 0, 0.2, 0.6, 5) != 0 || !port.start())
        {
            throw std::runtime_error("a port does not start");
        }
    }

    /// As many messages of that many words in each direction; those that arrive ask for acknowledgement.
    void exchange(unsigned count, std::uint16_t words)
    {
        gssipMessage message(7, 0, words);
        gssipMessage request(9, gssipMessage::ACK_REQ_FLAG, words);
        request.setHeaderChecksum();
        request.setDataChecksum();
        gssipMessage const acknowledgement(9, gssipMessage::ACK_FLAG, 0);
        port.setHandshakeTimeout_sec(0.0);
        for (unsigned i = 0; i < count; ++i)
        {
            port.sendMessage(message, false);
            terminal.take(message.getSizeBytes());
            terminal.write(request.getHeaderAndDataUint8());
            gssipMessage received;
            if (port.getMessage(received, true) != 0 || received.getId() != 9)
            {
                throw std::runtime_error("a message does not arrive");
            }
            terminal.take(acknowledgement.getSizeBytes());
        }
    }

  private:
    monotonicTimeStamp clock;
    line terminal;
    gssipPort port;
};

/// Kilobytes.
struct usage
{
    long addressSpace = 0;
    long resident = 0;
    long privateDirty = 0;
    long threads = 0;
};

usage operator-(usage const& left, usage const& right)
{
    return {left.addressSpace - right.addressSpace, left.resident - right.resident,
            left.privateDirty - right.privateDirty, left.threads - right.threads};
}

/// The number behind that key in a file of lines "KEY: NUMBER ...".
long numberIn(std::string const& path, std::string const& key)
{
    std::ifstream file(path);
    for (std::string lineRead; std::getline(file, lineRead);)
    {
        if (lineRead.rfind(key + ":", 0) == 0)
        {
            return std::stol(lineRead.substr(key.size() + 1));
        }
    }
    throw std::runtime_error(path + " has no " + key);
}

/// What a process has in memory stands in its list of mappings: the counts in its status lag behind by up to 64 pages
/// for each thread.
usage now()
{
    std::string const status = "/proc/self/status";
    std::string const mappings = "/proc/self/smaps_rollup";
    return {numberIn(status, "VmSize"), numberIn(mappings, "Rss"), numberIn(mappings, "Private_Dirty"),
            numberIn(status, "Threads")};
}

/// A thread's stack as the system maps it.
struct stackOfThread
{
    std::string thread;
    long size = 0;
    long privateDirty = 0;
};

/// The stack pointer of a thread that sleeps in a system call: the last but one number that the system tells.
unsigned long stackPointer(std::filesystem::path const& task)
{
    std::ifstream file(task / "syscall");
    std::vector<std::string> words;
    for (std::string word; file >> word;)
    {
        words.push_back(word);
    }
    return words.size() < 3 ? 0 : std::stoul(words[words.size() - 2], nullptr, 16);
}

/// Looks up the mapping that holds an address.
stackOfThread mappingAt(unsigned long address)
{
    std::ifstream file("/proc/self/smaps");
    stackOfThread found;
    bool inside = false;
    for (std::string lineRead; std::getline(file, lineRead);)
    {
        std::istringstream words(lineRead);
        std::string first;
        words >> first;
        unsigned long begin = 0;
        unsigned long end = 0;
        char dash = 0;
        if (first.back() != ':')
        {
            std::istringstream range(first);
            range >> std::hex >> begin >> dash >> end;
            inside = begin <= address && address < end;
        }
        else if (inside && first == "Size:")
        {
            words >> found.size;
        }
        else if (inside && first == "Private_Dirty:")
        {
            words >> found.privateDirty;
        }
    }
    return found;
}

/// The stacks of all threads but the one that asks.
std::vector<stackOfThread> stacks()
{
    std::vector<stackOfThread> all;
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task"))
    {
        if (task.path().filename() == std::to_string(gettid()))
        {
            continue;
        }
        stackOfThread stack = mappingAt(stackPointer(task.path()));
        std::ifstream name(task.path() / "comm");
        std::getline(name, stack.thread);
        all.push_back(stack);
    }
    return all;
}

void print(std::string const& what, usage const& more)
{
    std::cout << "| " << std::left << std::setw(46) << what << std::right << " | " << std::setw(7) << more.threads
              << " | " << std::setw(13) << more.privateDirty << " | " << std::setw(8) << more.resident << " | "
              << std::setw(13) << more.addressSpace << " |\n";
}

/// Every thread of the library sleeps in a system call soon after a start or an exchange.
void letThreadsSleep()
{
    for (auto const& task : std::filesystem::directory_iterator("/proc/self/task"))
    {
        while (task.path().filename() != std::to_string(gettid()) && stackPointer(task.path()) == 0)
        {
            std::this_thread::yield();
        }
    }
}

usage quiet()
{
    letThreadsSleep();
    return now();
}

void measure()
{
    unsigned const further = 16;
    std::cout << "| KiB | threads | private dirty | resident | address space |\n|---|---:|---:|---:|---:|\n";
    usage const before = now();
    print("the process before", before);

    startedPort first;
    usage const withOne = quiet();
    print("the first started port adds", withOne - before);

    first.exchange(1000, 16);
    usage const afterExchange = quiet();
    print("1000 messages of 16 words each way add", afterExchange - withOne);

    first.exchange(4, 65535 / 32);
    usage const afterLong = quiet();
    print("messages of 2047 words add", afterLong - afterExchange);
    std::vector<stackOfThread> const stacksOfOne = stacks();

    std::vector<std::unique_ptr<startedPort>> others;
    for (unsigned i = 0; i < further; ++i)
    {
        others.push_back(std::make_unique<startedPort>());
    }
    usage const more = quiet() - afterLong;
    print("each of 16 further ports adds",
          {more.addressSpace / further, more.resident / further, more.privateDirty / further, more.threads / further});

    std::cout << "\n| stack of thread, KiB | size | private dirty |\n|---|---:|---:|\n";
    for (stackOfThread const& each : stacksOfOne)
    {
        std::cout << "| " << std::left << std::setw(20) << each.thread << std::right << " | " << std::setw(6)
                  << each.size << " | " << std::setw(4) << each.privateDirty << " |\n";
    }
}

} // namespace

int main(int argc, char** argv)
try
{
    if (argc > 1 && std::strcmp(argv[1], "locked") == 0 && mlockall(MCL_CURRENT | MCL_FUTURE) != 0)
    {
        std::cout << "not permitted to lock memory: " << std::strerror(errno) << '\n';
        return 77;
    }
    measure();
    return 0;
}
catch (std::exception const& error)
{
    std::cerr << error.what() << '\n';
    return 1;
}
