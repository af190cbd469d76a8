// Target: any sequence of operations on a started or stopped port, with a hostile peer on its line, ends; loses no
// message, writes none too often, and answers as it should.
//
// Input: the kind of run, then operations, one byte each, with their arguments behind them. With GSSIP_FUZZ_SHOW in the
// environment each is told before it is performed.

#include "frames.h"
#include "inputReader.h"
#include "portRun.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace
{

using fuzz::inputReader;
using fuzz::portRun;

constexpr unsigned MOST_OPERATIONS = 60; // an input that takes longer finds nothing more

/// Ids from a small set: the peer's answers are to hit.
constexpr unsigned IDS = 6;

class script
{
  public:
    script(std::uint8_t const* input, std::size_t size) : reader(input, size), run(traits(reader.byte())) {}

    void play()
    {
        run.start();
        for (unsigned operations = 0; operations < MOST_OPERATIONS && !reader.isEmpty(); ++operations)
        {
            operate();
        }
        run.finish();
    }

  private:
    struct operation
    {
        char const* name;
        void (script::*perform)();
    };

    static fuzz::runTraits traits(std::uint8_t options) { return {(options & 1U) == 0, (options & 2U) == 0}; }

    void operate()
    {
        static std::array<operation, 24> const operations{{
            {"send", &script::send},
            {"send one after the other", &script::sendList},
            {"send as one", &script::sendRun},
            {"receive", &script::receive},
            {"peer: ACK", &script::answerAck},
            {"peer: NAK", &script::answerNak},
            {"peer: ACK of what is pending", &script::ackPending},
            {"peer: NAK of what is pending", &script::nakPending},
            {"peer: message", &script::peerFrame},
            {"peer: message with wrong data", &script::peerBadData},
            {"peer: wrong header", &script::peerBadHeader},
            {"peer: bytes", &script::peerBytes},
            {"reject", &script::reject},
            {"resynchronise", &script::resync},
            {"raw bytes", &script::raw},
            {"resend", &script::resend},
            {"remove", &script::remove},
            {"clear", &script::clear},
            {"start or stop", &script::startOrStop},
            {"set the handshake time-out", &script::setTimeout},
            {"set something else", &script::setOther},
            {"pull the plug", &script::pull},
            {"plug another line in", &script::plug},
            {"settle", &script::settle},
        }};
        operation const& next = operations[reader.below(operations.size())];
        if (std::getenv("GSSIP_FUZZ_SHOW") != nullptr)
        {
            std::fprintf(stderr, "%s\n", next.name);
        }
        (this->*next.perform)();
    }

    std::uint16_t id() { return static_cast<std::uint16_t>(reader.below(IDS)); }
    std::uint16_t flags() { return static_cast<std::uint16_t>(256U * reader.byte()); }
    std::vector<std::uint16_t> data() { return reader.words(reader.below(6)); }

    void send()
    {
        std::uint16_t const of = id();
        std::uint16_t const with = flags();
        bool const track = reader.flag();
        run.sendMessage(of, with, data(), track);
    }

    void sendList()
    {
        std::uint16_t const of = id();
        std::uint16_t const with = flags();
        bool const track = reader.flag();
        run.sendMessages(reader.below(120), of, with, track);
        run.serviceTransmitQueue();
    }

    void sendRun()
    {
        std::uint16_t const of = id();
        std::uint16_t const with = flags();
        run.sendDtMessages(reader.below(8), of, with);
    }

    void receive() { run.getMessage(reader.flag()); }
    void answerAck() { run.write(kit::frame(id(), 0x8800)); }
    void answerNak() { run.write(kit::frame(id(), 0x8400)); }
    void ackPending() { run.write(kit::frame(run.idOfPending(), 0x8800)); }
    void nakPending() { run.write(kit::frame(run.idOfPending(), 0x8400)); }

    void peerFrame()
    {
        std::uint16_t const of = id();
        std::uint16_t const with = flags();
        run.write(kit::frame(of, with, data()));
    }

    void peerBadData()
    {
        std::uint16_t const of = id();
        std::uint16_t const with = flags();
        run.write(kit::frameWithBadData(of, with, reader.words(1 + reader.below(4))));
    }

    void peerBadHeader()
    {
        std::uint16_t const of = id();
        run.write(kit::frameWithBadHeader(of, flags()));
    }

    void peerBytes() { run.write(reader.bytes(reader.below(32))); }

    void reject()
    {
        unsigned const of = 65536U * reader.below(3) + id();
        run.sendHandshakeReject(of, reader.flag());
    }

    void resync() { run.sendResyncSequence(); }
    void raw() { run.sendRaw(reader.bytes(reader.below(32))); }

    void resend()
    {
        std::uint16_t const of = id();
        std::uint16_t const with = flags();
        run.resendMessage(of, with, data());
    }

    void remove() { run.removeMsgIdFromTxQueue(reader.below(2 * IDS)); }
    void clear() { run.clearTransmitQueue(); }

    void startOrStop()
    {
        unsigned const what = reader.below(4);
        if (what != 0)
        {
            run.stop();
        }
        if (what != 1)
        {
            run.start();
        }
    }

    void setTimeout()
    {
        static std::array<double, 4> const timeouts{0.001, -1.0, 1000.0, 0.0};
        run.setHandshakeTimeout(timeouts[reader.below(timeouts.size())]);
    }

    void setOther()
    {
        switch (reader.below(4))
        {
        case 0:
            return run.setAutoAcknowledge(reader.flag());
        case 1:
            return run.setReceiveGap(reader.real());
        case 2:
            return run.advanceClock(0.0001 * reader.byte());
        default:
            configure();
        }
    }

    void configure()
    {
        static std::array<unsigned, 4> const speeds{115200, 4000000, 250001, 0};
        unsigned const speed = speeds[reader.below(speeds.size())];
        unsigned const dataBits = 4 + reader.below(6);
        auto const parity = static_cast<PARITY_TYPE>(reader.below(7));
        run.configure(speed, dataBits, parity, reader.below(4));
    }

    void pull() { run.unplug(); }
    void plug() { run.plug(); }
    void settle() { run.settle(); }

    inputReader reader;
    portRun run;
};

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer calls it so
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* input, std::size_t size)
{
    script(input, size).play();
    return 0;
}
