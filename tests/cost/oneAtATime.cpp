// Sends or receives messages one at a time, for a tracer that counts the port's system calls.
//
//     oneAtATime MODE COUNT TRACER...          the far end; runs the tracer with this program as the near end
//     oneAtATime --near-end DEVICE MODE COUNT  the near end, a port
//
// The far end is a process of its own, so that the calls counted are the port's and its application's. Who has to let
// time pass sleeps, with a call that nothing else here makes.

#include "frames.h"
#include "gssipPort.h"
#include "monotonicTimeStamp.h"
#include "pseudoTerminal.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

using kit::bytes;
using kit::frame;

constexpr std::uint16_t ACK = gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG;
constexpr std::uint16_t DATA_WORDS = 15;
constexpr std::size_t FRAME_BYTES = 42;
constexpr std::size_t REPLY_BYTES = 10;
constexpr auto BETWEEN = std::chrono::milliseconds(4);

std::vector<std::uint16_t> const& data()
{
    static std::vector<std::uint16_t> const words(DATA_WORDS, 0x1234);
    return words;
}

gssipMessage message(std::uint16_t flags)
{
    gssipMessage made(1, flags, DATA_WORDS);
    made.setData(data());
    return made;
}

void pause()
{
    std::this_thread::sleep_for(BETWEEN);
}

void expect(bool isRight, char const* what)
{
    if (!isRight)
    {
        throw std::runtime_error(what);
    }
}

struct mode
{
    std::function<void(gssipPort&, unsigned)> nearEnd;
    std::function<void(kit::pseudoTerminal&, unsigned)> farEnd;
};

void send(gssipPort& port, unsigned count)
{
    gssipMessage const sent = message(0);
    for (unsigned i = 0; i < count; ++i)
    {
        port.sendMessage(sent, false);
        pause();
    }
}

void takeFrames(kit::pseudoTerminal& line, unsigned count)
{
    for (unsigned i = 0; i < count; ++i)
    {
        expect(line.read(FRAME_BYTES).size() == FRAME_BYTES, "a message did not come");
    }
}

/// With another thread in `getMessage`, where acknowledgements are matched.
void sendTracked(gssipPort& port, unsigned count)
{
    std::thread taking([&port] {
        gssipMessage never;
        port.getMessage(never, true);
    });
    gssipMessage const sent = message(gssipMessage::ACK_REQ_FLAG);
    for (unsigned i = 0; i < count; ++i)
    {
        port.sendMessage(sent, true);
        pause();
    }
    port.stop();
    taking.join();
}

void acknowledgeFrames(kit::pseudoTerminal& line, unsigned count)
{
    for (unsigned i = 0; i < count; ++i)
    {
        takeFrames(line, 1);
        line.write(frame(1, ACK));
    }
}

void receive(gssipPort& port, unsigned count)
{
    gssipMessage received;
    for (unsigned i = 0; i < count; ++i)
    {
        expect(port.getMessage(received, true) == 0, "no message");
    }
}

void writeFrames(kit::pseudoTerminal& line, unsigned count)
{
    for (unsigned i = 0; i < count; ++i)
    {
        line.write(frame(1, 0, data()));
        pause();
    }
}

void writeRequests(kit::pseudoTerminal& line, unsigned count)
{
    for (unsigned i = 0; i < count; ++i)
    {
        line.write(frame(1, gssipMessage::ACK_REQ_FLAG, data()));
        expect(line.read(REPLY_BYTES).size() == REPLY_BYTES, "no acknowledgement");
        pause();
    }
}

/// As many messages a burst as a single read may take, and a pause.
void writeBursts(kit::pseudoTerminal& line, unsigned count)
{
    bytes burst;
    for (unsigned i = 0; i < count; ++i)
    {
        bytes const next = frame(1, 0, data());
        burst.insert(burst.end(), next.begin(), next.end());
        if (burst.size() + FRAME_BYTES > 4000 || i + 1 == count)
        {
            line.write(burst);
            burst.clear();
            pause();
        }
    }
}

/// Only what lies there already is taken, so that the application does not sleep for each message.
void receiveBursts(gssipPort& port, unsigned count)
{
    gssipMessage received;
    for (unsigned taken = 0; taken < count;)
    {
        pause();
        unsigned const ready = port.getNumberRxQueuedMessages();
        for (unsigned i = 0; i < ready; ++i, ++taken)
        {
            expect(port.getMessage(received, true) == 0, "no message");
        }
    }
}

std::map<std::string, mode> const& modes()
{
    static std::map<std::string, mode> const all{
        {"sent", {send, takeFrames}},
        {"sentAndAcknowledged", {sendTracked, acknowledgeFrames}},
        {"received", {receive, writeFrames}},
        {"receivedAndAcknowledged", {receive, writeRequests}},
        {"receivedInBursts", {receiveBursts, writeBursts}},
    };
    return all;
}

int runNearEnd(std::string const& device, mode const& chosen, unsigned count)
{
    monotonicTimeStamp clock;
    gssipPort port(device, clock, nullptr, false);
    port.setHandshakeTimeout_sec(0.0);
    expect(port.start(), "the port does not start");
    std::cout << "started" << std::endl;
    chosen.nearEnd(port, count);
    port.stop();
    return EXIT_SUCCESS;
}

/// Runs the tracer; the pipe's end tells when the port has been started.
pid_t runTracer(std::vector<std::string> command, int toParent)
{
    pid_t const child = fork();
    if (child == 0)
    {
        dup2(toParent, STDOUT_FILENO);
        std::vector<char*> arguments;
        for (std::string& argument : command)
        {
            arguments.push_back(argument.data());
        }
        arguments.push_back(nullptr);
        execvp(arguments.front(), arguments.data());
        _exit(127);
    }
    return child;
}

int runFarEnd(mode const& chosen, unsigned count, std::vector<std::string> command)
{
    kit::pseudoTerminal line;
    for (std::string& argument : command)
    {
        argument = argument == "DEVICE" ? line.name() : argument;
    }
    int ends[2]{};
    expect(pipe(ends) == 0, "no pipe");
    pid_t const child = runTracer(command, ends[1]);
    close(ends[1]);
    char first = 0;
    expect(read(ends[0], &first, 1) == 1, "the near end does not start");
    chosen.farEnd(line, count);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : EXIT_FAILURE;
}

int run(std::vector<std::string> const& arguments, std::string const& self)
{
    if (arguments.size() == 4 && arguments[0] == "--near-end")
    {
        return runNearEnd(arguments[1], modes().at(arguments[2]), static_cast<unsigned>(std::stoul(arguments[3])));
    }
    expect(arguments.size() >= 2, "usage: oneAtATime MODE COUNT TRACER...");
    std::vector<std::string> command(arguments.begin() + 2, arguments.end());
    for (std::string const& argument :
         {self, std::string("--near-end"), std::string("DEVICE"), arguments[0], arguments[1]})
    {
        command.push_back(argument);
    }
    return runFarEnd(modes().at(arguments[0]), static_cast<unsigned>(std::stoul(arguments[1])), command);
}

} // namespace

int main(int count, char** values)
{
    try
    {
        return run({values + 1, values + count}, values[0]);
    }
    catch (std::exception const& fault)
    {
        std::cerr << "oneAtATime: " << fault.what() << '\n';
        return EXIT_FAILURE;
    }
}
