#include "machine.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace cable
{
namespace
{

/// A port that sends into a full socket keeps its characters, as one does whose line is busy: so the socket must hold
/// few.
void keepSmall(int socket)
{
    int const least = 1;
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &least, sizeof least);
}

void addSocket(std::vector<std::string>& command, std::string const& name, int descriptor)
{
    command.insert(command.end(), {"-chardev", "socket,id=" + name + ",fd=" + std::to_string(descriptor)});
}

[[noreturn]] void run(std::vector<std::string> const& command)
{
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string const& each : command)
    {
        arguments.push_back(const_cast<char*>(each.c_str()));
    }
    arguments.push_back(nullptr);
    execvp(arguments.front(), arguments.data());
    std::perror(arguments.front());
    _exit(127);
}

} // namespace

plug::plug()
{
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    fcntl(ours(), F_SETFL, O_NONBLOCK);
    fcntl(ours(), F_SETFD, FD_CLOEXEC);
    keepSmall(machines());
}

plug::~plug()
{
    close(ends[0]);
    handOver();
}

void plug::handOver()
{
    if (ends[1] >= 0)
    {
        close(ends[1]);
        ends[1] = -1;
    }
}

machine::machine(std::vector<std::string> command, std::vector<plug>& lines, plug& commands)
{
    std::string card = "pci-serial-4x";
    for (std::size_t port = 0; port < lines.size(); ++port)
    {
        std::string const name = "line" + std::to_string(port);
        addSocket(command, name, lines[port].machines());
        card += ",chardev" + std::to_string(port + 1) + "=" + name;
    }
    addSocket(command, "commands", commands.machines());
    addSocket(command, "monitor", monitor.machines());
    command.insert(command.end(),
                   {"-device", card, "-device", "pci-serial,chardev=commands", "-mon", "chardev=monitor,mode=control"});
    process = fork();
    if (process == 0)
    {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        run(command);
    }
    if (process < 0)
    {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    for (plug& each : lines)
    {
        each.handOver();
    }
    commands.handOver();
    monitor.handOver();
    tellMonitor(R"({"execute":"qmp_capabilities"})");
}

void machine::sendBreak(unsigned port)
{
    tellMonitor(R"({"execute":"chardev-send-break","arguments":{"id":"line)" + std::to_string(port) + R"("}})");
}

void machine::readMonitor() const
{
    std::array<char, 4096> ignored{};
    while (::read(monitor.ours(), ignored.data(), ignored.size()) > 0)
    {}
}

void machine::tellMonitor(std::string const& text) const
{
    if (::write(monitor.ours(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    {
        throw std::runtime_error("the machine's monitor takes no command");
    }
}

int machine::wait() const
{
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR)
    {}
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace cable
