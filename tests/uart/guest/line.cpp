#include "line.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <termios.h>
#include <unistd.h>
#include <utility>

namespace uart
{
namespace
{

constexpr int PATIENCE_MS = 20000;

[[noreturn]] void throwErrno(std::string const& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

int openRaw(char const* name)
{
    int const descriptor = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (descriptor < 0)
    {
        throwErrno(name);
    }
    termios settings{};
    tcgetattr(descriptor, &settings);
    cfmakeraw(&settings);
    settings.c_cflag |= CLOCAL;
    tcsetattr(descriptor, TCSANOW, &settings);
    return descriptor;
}

int connectTo(char const* path)
{
    int const descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    if (::connect(descriptor, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0)
    {
        throwErrno(path);
    }
    return descriptor;
}

std::string readLine(int descriptor)
{
    std::string text;
    for (;;)
    {
        pollfd waiting{descriptor, POLLIN, 0};
        char next = 0;
        if (poll(&waiting, 1, PATIENCE_MS) != 1 || ::read(descriptor, &next, 1) != 1)
        {
            throw std::runtime_error("the cable does not answer");
        }
        if (next == '\n')
        {
            return text;
        }
        text += next;
    }
}

} // namespace

line line::betweenUarts(unsigned pair)
{
    return line(openRaw("/dev/ttyS4"), "/dev/ttyS", 2 * pair);
}

line line::betweenAdapters()
{
    return line(connectTo("/run/adapters"), "/dev/adapter", 0);
}

line::line(int commandDescriptor, std::string devicePrefix, unsigned first)
    : descriptor(commandDescriptor), prefix(std::move(devicePrefix)), firstNumber(first)
{
    mend();
}

line::line(line&& other) noexcept
    : descriptor(std::exchange(other.descriptor, -1)), prefix(std::move(other.prefix)), firstNumber(other.firstNumber)
{}

line::~line()
{
    if (descriptor >= 0)
    {
        ::close(descriptor);
    }
}

std::string line::device(unsigned end) const
{
    return prefix + std::to_string(firstNumber + end);
}

void line::setSpeed(unsigned bitsPerSecond, unsigned bitsPerCharacter)
{
    for (unsigned const end : {0U, 1U})
    {
        tell("speed", end, std::to_string(bitsPerSecond) + ' ' + std::to_string(bitsPerCharacter));
    }
}

void line::hold(unsigned end, bool isHeld)
{
    tell("hold", end, isHeld ? "1" : "0");
}

void line::lose(unsigned end, double share)
{
    tell("lose", end, std::to_string(share));
}

void line::flip(unsigned end, double share)
{
    tell("flip", end, std::to_string(share));
}

void line::mend()
{
    tell("mend", 0, "");
    tell("mend", 1, "");
}

void line::sendBreak(unsigned end)
{
    tell("break", end, "");
}

void line::pull(unsigned end)
{
    tell("pull", end, "");
}

void line::plug(unsigned end)
{
    tell("plug", end, "");
}

line::counts line::count(unsigned end)
{
    counts result{};
    std::istringstream(ask("count", end, "")) >> result.carried >> result.spoilt;
    return result;
}

/// Other processes use the same serial port to the cable: question and answer are kept together.
std::string line::ask(std::string const& verb, unsigned end, std::string const& values)
{
    std::string const text = verb + ' ' + std::to_string(firstNumber + end) + ' ' + values + '\n';
    flock(descriptor, LOCK_EX);
    if (::write(descriptor, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    {
        throwErrno("cannot tell the cable");
    }
    std::string answer = readLine(descriptor);
    flock(descriptor, LOCK_UN);
    return answer;
}

void line::tell(std::string const& verb, unsigned end, std::string const& values)
{
    std::string const answer = ask(verb, end, values);
    if (answer != "ok")
    {
        throw std::runtime_error("the cable answers '" + answer + "' to " + verb);
    }
}

} // namespace uart
