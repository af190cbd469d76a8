// Target: any bytes become messages, and log lines, as an independent decoder says, however the line cuts them up.
//
// Input: options, a seed for the pieces, then the stream.

#include "fault.h"
#include "inputReader.h"
#include "portOnLine.h"
#include "referenceDecoder.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{

using fuzz::fault;
using fuzz::inputReader;
using fuzz::require;
using kit::bytes;

// Bits of the options.
constexpr unsigned AS_CONSTRUCTED = 1; ///< the buffer begins with the zeros of a new receiver
constexpr unsigned LOG_THROWS = 2;
constexpr unsigned FILLED = 4;        ///< an unfinished frame at the end is finished: it may be longer than any input
constexpr unsigned FILLED_VARIED = 8; ///< with bytes other than 0

constexpr std::size_t ZEROS_OF_NEW_RECEIVER = 4096;
constexpr std::size_t MOST_BYTES_ONE_BY_ONE = 4096; // what is longer comes in larger pieces

/// Every question for the time has an answer of its own: times tell the order in which things were done.
class tickingTime : public timeStampInterface
{
  public:
    double getTime_sec() override { return ++ticks; }

    std::atomic<unsigned> ticks{0};
};

class keepingLog : public asciiLogInterface
{
  public:
    void log(std::int32_t const& /*level*/, std::string const& /*text*/) override { fault("a line without a time"); }
    void log(double const& time_sec, std::int32_t const& level, std::string const& text) override
    {
        lines.push_back({time_sec, level, text}); // with the mutex of the framing held
        if (throws)
        {
            throw std::runtime_error("a log that throws");
        }
    }

    std::vector<kit::logLine> lines;
    bool throws = false;
};

/// What came of a stream.
struct outcome
{
    std::vector<kit::decodedFrame> frames;
    std::vector<double> frameTimes;
    std::vector<double> errorTimes;
    bytes rest;
    std::uint32_t state = 0;
};

/// What must come of it. Each frame and each rejected header asks for the time once.
outcome expectedOf(bytes const& stream)
{
    kit::decodedStream decoded = kit::decode(stream);
    outcome expected;
    double time_sec = 0;
    for (std::size_t frame = 0, error = 0; frame < decoded.frames.size() || error < decoded.headerErrors;)
    {
        if (error < decoded.headerErrors && decoded.framesBeforeError[error] == frame)
        {
            expected.errorTimes.push_back(++time_sec);
            ++error;
        }
        else
        {
            expected.frameTimes.push_back(++time_sec);
            ++frame;
        }
    }
    expected.frames = std::move(decoded.frames);
    expected.rest = std::move(decoded.rest);
    expected.state = decoded.expected;
    return expected;
}

void compare(outcome const& expected, outcome const& seen, std::string const& how)
{
    auto const same = [&](bool isSo, char const* what) {
        if (!isSo)
        {
            fault(std::string(what) + " differ from the decoder's, " + how);
        }
    };
    same(seen.frames == expected.frames, "messages");
    same(seen.errorTimes.size() == expected.errorTimes.size(), "numbers of rejected headers");
    same(seen.frameTimes == expected.frameTimes && seen.errorTimes == expected.errorTimes,
         "orders of messages and log lines");
    same(seen.rest == expected.rest, "bytes left over");
    same(seen.state == expected.state, "states");
}

/// One receiver for the whole run of the program. Its line is open and nothing arrives there, so that its reading
/// thread sleeps; its processing thread sleeps until it is given bytes.
class bench
{
  public:
    bench()
    {
        require(at.port.serial.open() == 0, "the line cannot be opened");
        receiver = std::make_unique<kit::exposedReceive>(at.port, &log);
    }

    void prepare(bool asConstructed, bool logThrows)
    {
        std::lock_guard<std::mutex> const lock(receiver->frameMutex);
        receiver->frameBuffer.assign(asConstructed ? ZEROS_OF_NEW_RECEIVER : 0, 0);
        receiver->state = gssipReceive::SOM_STATE;
        at.clock.ticks = 0;
        log.lines.clear();
        log.throws = logThrows;
    }

    /// As the reading thread does it; the processing thread does the rest.
    void giveToThread(bytes const& stream)
    {
        {
            std::lock_guard<std::mutex> const lock(receiver->frameMutex);
            append(stream, 0, stream.size());
        }
        receiver->frameCondition.notify_one();
        while (isFraming())
        {
            std::this_thread::yield();
        }
    }

    /// Piece by piece, with the steps called here; `pieceLength` tells how long the next piece is.
    void giveInSteps(bytes const& stream, std::function<std::size_t()> const& pieceLength)
    {
        std::lock_guard<std::mutex> const lock(receiver->frameMutex);
        for (std::size_t place = 0; place < stream.size();)
        {
            std::size_t const length = std::min(pieceLength(), stream.size() - place);
            append(stream, place, length);
            place += length;
            frame();
        }
    }

    outcome takeOutcome()
    {
        std::lock_guard<std::mutex> const lock(receiver->frameMutex);
        outcome seen;
        while (receiver->rxQueue.size() != 0)
        {
            gssipMessage message;
            require((*receiver)(message) == 0, "a message that waits cannot be taken");
            seen.frames.push_back(kit::viewOf(message));
            seen.frameTimes.push_back(message.getReceiveTimeStamp());
        }
        for (kit::logLine const& line : log.lines)
        {
            require(line.level == 2 && line.text == headerError, "a log line that nothing in the stream explains");
            seen.errorTimes.push_back(*line.time_sec);
        }
        seen.rest = receiver->frameBuffer;
        seen.state = receiver->state;
        return seen;
    }

  private:
    void append(bytes const& stream, std::size_t place, std::size_t length)
    {
        auto const first = stream.begin() + static_cast<std::ptrdiff_t>(place);
        receiver->frameBuffer.insert(receiver->frameBuffer.end(), first, first + static_cast<std::ptrdiff_t>(length));
        receiver->dataAvailable = true;
    }

    bool isFraming()
    {
        std::lock_guard<std::mutex> const lock(receiver->frameMutex);
        return receiver->dataAvailable;
    }

    void frame()
    {
        while (receiver->dataAvailable)
        {
            try
            {
                step();
            }
            catch (std::runtime_error const&)
            {
                require(log.throws, "an exception that nobody threw");
            }
        }
    }

    void step()
    {
        switch (receiver->state)
        {
        case gssipReceive::SOM_STATE:
            return receiver->processSOM_STATE();
        case gssipReceive::HEADER_STATE:
            return receiver->processHEADER_STATE();
        case gssipReceive::DATA_STATE:
            return receiver->processDATA_STATE();
        }
    }

    kit::portOnLine<kit::exposedPort, tickingTime> at;
    keepingLog log;
    std::string const headerError = "gssipReceive(" + at.id() + ") Header Checksum ERROR Detected";
    std::unique_ptr<kit::exposedReceive> receiver;
};

/// What the stream must be followed by to end the frame that it promises and does not hold; nothing when it holds all.
bytes filler(bytes const& stream, bool isVaried)
{
    kit::decodedStream const decoded = kit::decode(stream);
    if (decoded.expected != kit::decodedStream::DATA)
    {
        return {};
    }
    std::size_t const words = decoded.rest[4] + 256U * decoded.rest[5];
    bytes result(2 * (words + 6) - decoded.rest.size(), 0);
    for (std::size_t place = 0; isVaried && place < result.size(); ++place)
    {
        result[place] = static_cast<std::uint8_t>(place * 31 + place / 251);
    }
    return result;
}

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer calls it so
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* input, std::size_t size)
{
    static bench receiver;

    inputReader reader(input, size);
    unsigned const options = reader.byte();
    bool const asConstructed = (options & AS_CONSTRUCTED) != 0;
    std::minstd_rand pieces(reader.byte() + 1U);
    bytes stream = reader.rest();
    if ((options & FILLED) != 0)
    {
        bytes const behind = filler(stream, (options & FILLED_VARIED) != 0);
        stream.insert(stream.end(), behind.begin(), behind.end());
    }
    bytes all(asConstructed ? ZEROS_OF_NEW_RECEIVER : 0, 0);
    all.insert(all.end(), stream.begin(), stream.end());
    outcome const expected = expectedOf(all);
    auto const check = [&](char const* how, auto const& give) {
        receiver.prepare(asConstructed && !stream.empty(), (options & LOG_THROWS) != 0);
        give();
        if (!stream.empty())
        {
            compare(expected, receiver.takeOutcome(), how);
        }
    };
    check("in one piece", [&] { receiver.giveToThread(stream); });
    check("byte by byte", [&] {
        std::size_t const length = stream.size() <= MOST_BYTES_ONE_BY_ONE ? 1 : 509;
        receiver.giveInSteps(stream, [&] { return length; });
    });
    check("in pieces", [&] {
        std::size_t const longest = 1 + stream.size() / 4;
        receiver.giveInSteps(stream, [&] { return 1 + pieces() % longest; });
    });
    return 0;
}
