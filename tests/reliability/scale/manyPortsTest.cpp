// Hundreds of ports in one process, in pairs that talk to each other.

#include "entriesIn.h"
#include "gssipPort.h"
#include "lineRelay.h"
#include "memoryInUse.h"
#include "messages.h"
#include "monotonicTimeStamp.h"
#include "pseudoTerminal.h"
#include "sanitized.h"
#include "stopwatch.h"
#include "testSize.h"
#include "waitUntil.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <gtest/gtest.h>
#include <iostream>
#include <memory>
#include <numeric>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace
{

// A sanitizer's threads need a hundred times the memory; 32-bit addresses have room for few stacks of 8 MiB.
constexpr std::size_t PORTS = sizeof(void*) == 4 ? 60 : (kit::isSanitized ? 100 : 500);
constexpr std::size_t THREADS_OF_A_PORT = 4;

/// For each port three ends of terminals or event descriptors on its side and one on ours, and some more.
constexpr rlim_t DESCRIPTORS = 8 * PORTS;

/// What the machine does not allow, or nothing. Raises what the process may raise by itself.
std::string whatIsTooLittle()
{
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    if (files.rlim_cur < DESCRIPTORS && files.rlim_max >= DESCRIPTORS)
    {
        files.rlim_cur = DESCRIPTORS;
        setrlimit(RLIMIT_NOFILE, &files);
    }
    std::size_t terminals = 0;
    std::ifstream("/proc/sys/kernel/pty/max") >> terminals;
    std::size_t used = 0;
    std::ifstream("/proc/sys/kernel/pty/nr") >> used;
    if (files.rlim_cur < DESCRIPTORS)
    {
        return "this process may have " + std::to_string(files.rlim_max) + " descriptors";
    }
    return terminals < used + PORTS ? "there are " + std::to_string(terminals) + " pseudo-terminals" : std::string();
}

/// A port, the far end of its line, and a thread that receives.
class member
{
  public:
    explicit member(timeStampInterface& clock) : port(line.name(), clock, nullptr, false)
    {
        kit::lineRelay::prepare(line.masterDescriptor());
        port.setHandshakeTimeout_sec(0.05);   // both ends ask for acknowledgement
        port.setAcknowledgeTimeout_sec(60.0); // nothing is lost, so nothing is to be resent, however slow all is
    }
    ~member() { stop(); }
    member(member const&) = delete;
    member& operator=(member const&) = delete;

    bool start()
    {
        bool const started = port.start();
        receiver = std::thread([this] { receive(); });
        return started;
    }

    bool stop()
    {
        bool const stopped = port.stop();
        if (receiver.joinable())
        {
            receiver.join();
        }
        return stopped;
    }

    kit::pseudoTerminal line;
    gssipPort port;
    std::vector<std::uint16_t> received; ///< ids, in order; to be looked at after the stop
    std::atomic<std::size_t> count{0};   ///< of them

  private:
    void receive()
    {
        gssipMessage message;
        while (port.getMessage(message, true) == 0 && message.getId() != 0)
        {
            received.push_back(message.getId());
            ++count;
        }
    }

    std::thread receiver;
};

/// Ports 0 and 1 are a pair, and so on; one thread carries the bytes of all.
class crowd
{
  public:
    crowd()
    {
        for (std::size_t each = 0; each < PORTS; ++each)
        {
            members.push_back(std::make_unique<member>(clock));
            ways.push_back(std::make_unique<kit::oneWay>());
        }
        std::vector<kit::oneWay*> all;
        for (std::size_t each = 0; each < PORTS; ++each)
        {
            ways[each]->from = members[each]->line.masterDescriptor();
            ways[each]->to = members[partnerOf(each)]->line.masterDescriptor();
            all.push_back(ways[each].get());
        }
        relay = std::make_unique<kit::lineRelay>(all);
    }

    static std::size_t partnerOf(std::size_t place) { return place ^ 1U; }

    std::vector<std::unique_ptr<member>> members;

  private:
    monotonicTimeStamp clock;
    std::vector<std::unique_ptr<kit::oneWay>> ways;
    std::unique_ptr<kit::lineRelay> relay;
};

/// Each with its number in its id, every third asks for acknowledgement.
void sendAll(crowd& ports, std::size_t messages)
{
    for (std::size_t number = 1; number <= messages; ++number)
    {
        std::uint16_t const flags = number % 3 == 0 ? gssipMessage::ACK_REQ_FLAG : 0;
        for (auto const& each : ports.members)
        {
            each->port.sendMessage(kit::message(static_cast<std::uint16_t>(number), flags, {1, 2, 3}), true);
        }
    }
}

bool allHaveReceived(crowd const& ports, std::size_t messages)
{
    return kit::waitUntil(
        [&] {
            return std::all_of(ports.members.begin(), ports.members.end(),
                               [&](auto const& each) { return each->count >= messages; });
        },
        std::chrono::seconds(120));
}

/// One that has been joined may count a little longer.
bool hasThreads(std::size_t count)
{
    return kit::waitUntil([count] { return kit::threadsOfProcess() == count; });
}

TEST(ManyPorts, InPairs_ExchangeAllMessagesAndStop)
{
    std::string const tooLittle = whatIsTooLittle();
    if (!tooLittle.empty())
    {
        GTEST_SKIP() << tooLittle;
    }
    std::size_t const messages = bySize<std::size_t>(20, 500, 5000);
    std::vector<std::uint16_t> everyId(messages);
    std::iota(everyId.begin(), everyId.end(), std::uint16_t{1});

    crowd ports;
    std::size_t const threadsBefore = kit::threadsOfProcess();
    std::size_t const filesBefore = kit::descriptorsOfProcess();
    std::size_t const memoryBefore = kit::residentMemory_bytes();
    kit::stopwatch const starting;
    for (auto const& each : ports.members)
    {
        ASSERT_TRUE(each->start());
    }
    std::cout << PORTS << " ports started in " << starting.elapsed_sec() << " s; "
              << (kit::residentMemory_bytes() - memoryBefore) / 1024 / PORTS << " KiB and "
              << (kit::descriptorsOfProcess() - filesBefore) / PORTS << " descriptors each\n";
    EXPECT_TRUE(hasThreads(threadsBefore + (THREADS_OF_A_PORT + 1) * PORTS)) << "with one for each that receives";

    kit::stopwatch const talking;
    sendAll(ports, messages);
    EXPECT_TRUE(allHaveReceived(ports, messages));
    std::cout << PORTS * messages << " messages exchanged in " << talking.elapsed_sec() << " s\n";

    kit::stopwatch const stopping;
    for (auto const& each : ports.members)
    {
        EXPECT_TRUE(each->stop());
        EXPECT_EQ(each->received, everyId);
    }
    std::cout << "all stopped in " << stopping.elapsed_sec() << " s\n";
    EXPECT_TRUE(hasThreads(threadsBefore));
    EXPECT_EQ(kit::descriptorsOfProcess(), filesBefore);
}

} // namespace
