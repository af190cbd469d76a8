// Two USB serial adapters whose serial ends are wired to each other, plugged into the kernel's virtual hub. Runs until
// it is killed, and obeys lines of text on the socket /run/adapters. N is the adapter that sends:
//
//     hold N 0|1        lose N SHARE        flip N SHARE        mend N
//     count N           answers with the characters carried and the characters spoilt
//     break N           adapter N receives a break
//     plug N, pull N    puts it in, or out
//
// Every line is answered by one: "ok", what was asked for, or "?" for a line that makes no sense.

#include "serialChip.h"

#include <array>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <poll.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace
{

using adapter::bitLine;
using adapter::serialChip;

constexpr unsigned ADAPTERS = 2;
constexpr std::int64_t BREAK_NS = 20'000'000;

class rig
{
  public:
    std::string answer(std::string const& line)
    {
        std::istringstream words(line);
        std::string verb;
        unsigned number = 0;
        double value = 0.0;
        words >> verb >> number;
        if (!words || number >= ADAPTERS)
        {
            return "?";
        }
        words >> value;
        return verb == "count" ? std::to_string(lines[number].charactersCarried()) + ' ' +
                                     std::to_string(lines[number].charactersSpoilt())
                               : obey(verb, number, value);
    }

    void handleRequests(unsigned number) { chips[number].handleRequests(); }

    void advance()
    {
        for (unsigned times = 0; times < 2; ++times) // what one draws the other one may receive
        {
            for (serialChip& each : chips)
            {
                each.advance(adapter::now_ns());
            }
        }
        for (serialChip& each : chips)
        {
            each.nameDevice();
        }
    }

    bool isBusy() const { return chips[0].isBusy() || chips[1].isBusy(); }
    std::array<serialChip, ADAPTERS> const& all() const { return chips; }

  private:
    std::string obey(std::string const& verb, unsigned number, double value)
    {
        std::map<std::string, std::function<void()>> const orders{
            {"speed", [] {}}, // the line knows its ends
            {"hold", [&] { lines[number].hold(value != 0.0); }},
            {"lose", [&] { lines[number].lose(value); }},
            {"flip", [&] { lines[number].flip(value); }},
            {"mend", [&] { lines[number].mend(); }},
            {"break", [&] { lines[number ^ 1U].sendBreak(adapter::now_ns(), BREAK_NS); }},
            {"plug", [&] { chips[number].plugIn(); }},
            {"pull", [&] { chips[number].pull(); }},
        };
        auto const order = orders.find(verb);
        if (order == orders.end())
        {
            return "?";
        }
        order->second();
        return "ok";
    }

    std::array<bitLine, ADAPTERS> lines; // numbered as the adapters that send
    std::array<serialChip, ADAPTERS> chips{serialChip(0, lines[0], lines[1]), serialChip(1, lines[1], lines[0])};
};

int listenAt(char const* path)
{
    int const listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    if (bind(listener, reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0 || listen(listener, 8) != 0)
    {
        std::perror(path);
        _exit(1);
    }
    return listener;
}

/// One line from a client, and its answer; false when the client has gone.
bool serve(rig& adapters, int client)
{
    std::array<char, 256> text{};
    ssize_t const count = recv(client, text.data(), text.size(), 0); // clients wait for their answers: a line each
    if (count <= 0)
    {
        return false;
    }
    std::string const reply = adapters.answer({text.data(), static_cast<std::size_t>(count)}) + '\n';
    return send(client, reply.data(), reply.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(reply.size());
}

void run()
{
    rig adapters;
    for (unsigned number = 0; number < ADAPTERS; ++number)
    {
        adapters.answer("plug " + std::to_string(number));
    }
    int const listener = listenAt("/run/adapters");
    std::vector<int> clients;
    for (;;)
    {
        adapters.advance();
        std::vector<pollfd> waiting{{listener, POLLIN, 0}};
        for (serialChip const& each : adapters.all())
        {
            waiting.push_back({each.socket(), POLLIN, 0});
        }
        for (int const client : clients)
        {
            waiting.push_back({client, POLLIN, 0});
        }
        poll(waiting.data(), waiting.size(), adapters.isBusy() ? 1 : 50);
        for (unsigned number = 0; number < ADAPTERS; ++number)
        {
            if (waiting[1 + number].revents != 0)
            {
                adapters.handleRequests(number);
            }
        }
        if ((waiting.front().revents & POLLIN) != 0)
        {
            clients.push_back(accept(listener, nullptr, nullptr));
        }
        std::vector<int> remaining = clients;
        for (std::size_t place = 1 + ADAPTERS; place < waiting.size(); ++place)
        {
            int const client = waiting[place].fd;
            if (waiting[place].revents != 0 && !serve(adapters, client))
            {
                close(client);
                remaining.erase(std::find(remaining.begin(), remaining.end(), client));
            }
        }
        clients = remaining;
    }
}

/// This program stands for hardware, and so goes ahead of everything else.
void goAhead()
{
    sched_param priority{};
    priority.sched_priority = 80;
    sched_setscheduler(0, SCHED_RR, &priority);
}

} // namespace

int main()
{
    try
    {
        goAhead();
        run();
    }
    catch (std::exception const& fault)
    {
        std::printf("uart-adapters: %s\n", fault.what());
        return 1;
    }
}
