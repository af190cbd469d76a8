// A burst with `sendDtMessages`: messages that must follow one another, with none of another thread between them.
// Run it as `burst` (on a null modem of its own) or as `burst DEVICE`.

#include "gssipPort.h"
#include "partner.h"

#include <algorithm>
#include <iostream>
#include <thread>
#include <vector>

namespace
{

constexpr std::uint16_t FIRST_OF_BURST = 100;
constexpr std::uint16_t BURST_LENGTH = 20;
constexpr std::uint16_t OTHERS = 50;

std::vector<gssipMessage> makeBurst()
{
    std::vector<gssipMessage> burst;
    for (std::uint16_t place = 0; place < BURST_LENGTH; ++place)
    {
        burst.emplace_back(static_cast<std::uint16_t>(FIRST_OF_BURST + place), 0, place);
    }
    return burst;
}

/// True when the burst stands whole and in order somewhere among what was received.
bool isWhole(std::vector<gssipMessage> const& received)
{
    std::vector<gssipMessage> const burst = makeBurst();
    auto const sameId = [](gssipMessage const& a, gssipMessage const& b) { return a.getId() == b.getId(); };
    return std::search(received.begin(), received.end(), burst.begin(), burst.end(), sameId) != received.end();
}

} // namespace

int main(int argc, char** argv)
{
    examples::exampleLine line(argc, argv);
    monotonicTimeStamp clock;
    streamLog log(std::cerr);
    gssipPort port(line.device(), clock, &log, false);
    if (!port.start())
    {
        std::cerr << "cannot start the port on " << line.device() << '\n';
        return 1;
    }

    std::thread another([&] {
        for (std::uint16_t count = 0; count < OTHERS; ++count)
        {
            port.sendMessage(gssipMessage(1, 0, 0), false);
        }
    });
    std::vector<gssipMessage> const burst = makeBurst();
    port.sendDtMessages(burst.begin(), BURST_LENGTH); // copies them; all are tracked, if they request acknowledgement
    another.join();

    if (line.otherSide() == nullptr)
    {
        std::this_thread::sleep_for(std::chrono::seconds(2)); // the port sends what is queued only until it is stopped
        return 0;
    }
    std::vector<gssipMessage> const received = line.otherSide()->waitFor(BURST_LENGTH + OTHERS);
    std::cout << received.size() << " messages received, the burst " << (isWhole(received) ? "whole\n" : "broken\n");
    return received.size() == BURST_LENGTH + OTHERS && isWhole(received) ? 0 : 1;
}
