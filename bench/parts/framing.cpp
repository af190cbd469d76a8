// Framing from memory.

#include "memoryReceiver.h"
#include "messageOf.h"
#include "scanQueue.h"
#include "timing.h"

#include <atomic>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>

namespace bench
{
namespace
{

constexpr std::size_t KIB = 1024;
constexpr std::size_t BACKLOG = 64 * KIB;

/// A log that only notices that it is called.
class countingLog : public asciiLogInterface
{
  public:
    void log(std::int32_t const&, std::string const&) override { ++lines; }
    void log(double const&, std::int32_t const&, std::string const&) override { ++lines; }

    std::atomic<std::size_t> lines{0};
};

void check(bool isAsExpected)
{
    if (!isAsExpected)
    {
        throw std::logic_error("framed something else than what was there");
    }
}

/// What is framed: bytes, how many messages they hold, and how many headers with a wrong checksum.
struct material
{
    std::vector<std::uint8_t> bytes;
    std::size_t messages = 0;
    std::size_t badHeaders = 0;
};

class framed
{
  public:
    explicit framed(material toFrame) : what(std::move(toFrame)) {}

    void prepare()
    {
        check(isFirst || receiver.messages() == what.messages);
        isFirst = false;
        receiver.fill(what.bytes);
    }
    void work() { receiver.run(what.messages + what.badHeaders); }

  private:
    material const what;
    bool isFirst = true;
    countingClock clock;
    countingLog log;
    gssipPort port{"/dev/null", clock, &log, false};
    memoryReceiver receiver{port, &log};
};

/// The same messages whatever the size of the lots that they come in, all of them kept: so it is not the queue's growth
/// that makes a difference, but what stands behind the frame.
class framedInLots
{
  public:
    explicit framedInLots(material lotToFrame) : lot(std::move(lotToFrame)), count(MESSAGES / lot.messages) {}

    void prepare()
    {
        check(isFirst || receiver.messages() == count * lot.messages);
        isFirst = false;
        receiver.forgetMessages();
    }
    void work()
    {
        for (std::size_t i = 0; i < count; ++i)
        {
            receiver.append(lot.bytes);
            receiver.run(lot.messages);
        }
    }

    /// Of 256 KiB in lots of 4 KiB.
    static constexpr std::size_t MESSAGES = 64 * (4 * KIB / 42);

  private:
    material const lot;
    std::size_t const count;
    bool isFirst = true;
    countingClock clock;
    countingLog log;
    gssipPort port{"/dev/null", clock, &log, false};
    memoryReceiver receiver{port, &log};
};

class scanned
{
  public:
    explicit scanned(material toScan) : what(std::move(toScan)) {}

    void prepare() { queue.clear(); }
    void work() { queue.run(what.bytes); }

  private:
    material const what;
    scanQueue queue;
};

class copied
{
  public:
    explicit copied(material const& toCopy) : what(toCopy), copy(toCopy.bytes.size()) {}

    void prepare() {}
    void work()
    {
        std::memcpy(copy.data(), what.bytes.data(), copy.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    }

  private:
    material const what;
    std::vector<std::uint8_t> copy;
};

/// As many copies as fit into that many bytes, at least one.
std::vector<std::uint8_t> repeated(std::vector<std::uint8_t> const& piece, std::size_t bytes)
{
    std::vector<std::uint8_t> all;
    do
    {
        all.insert(all.end(), piece.begin(), piece.end());
    } while (all.size() + piece.size() <= bytes);
    return all;
}

material framesOf(std::size_t frameBytes, std::size_t backlog)
{
    material made;
    made.bytes = repeated(messageOf(frameBytes).getHeaderAndDataUint8(), backlog);
    made.messages = made.bytes.size() / frameBytes;
    return made;
}

/// Noise without a start word, and a frame at its end, which shows that the end has been reached.
material withFrame(std::vector<std::uint8_t> noise)
{
    std::vector<std::uint8_t> const frame = messageOf(10).getHeaderAndDataUint8();
    noise.insert(noise.end(), frame.begin(), frame.end());
    return {std::move(noise), 1, 0};
}

material randomNoise(std::size_t bytes)
{
    std::mt19937 random(1);
    std::vector<std::uint8_t> noise(bytes);
    std::uint8_t before = 0;
    for (std::uint8_t& byte : noise)
    {
        byte = static_cast<std::uint8_t>(random());
        byte = before == 0xFF && byte == 0x81 ? std::uint8_t{0} : byte;
        before = byte;
    }
    return withFrame(std::move(noise));
}

material fillerNoise(std::size_t bytes)
{
    return withFrame(std::vector<std::uint8_t>(bytes, 0xFF));
}

/// Headers without data, each with a wrong checksum: nothing costs more a byte.
material worstNoise(std::size_t bytes)
{
    std::vector<std::uint8_t> header = messageOf(10).getHeaderAndDataUint8();
    header[8] ^= 1U;
    material made;
    made.bytes = repeated(header, bytes);
    made.badHeaders = made.bytes.size() / header.size();
    return made;
}

template <typename Subject>
auto as(material (*make)(std::size_t))
{
    return [make](std::size_t size) { return std::make_unique<Subject>(make(size)); };
}

material byFrameLength(std::size_t frameBytes)
{
    return framesOf(frameBytes, BACKLOG);
}

material byCount(std::size_t messages)
{
    return framesOf(42, messages * 42);
}

material byBacklog(std::size_t bytes)
{
    return framesOf(42, bytes);
}

} // namespace

void addFraming()
{
    for (std::size_t const frameBytes : {42U, 266U, 4096U})
    {
        add("framing", "port", frameBytes, as<framed>(byFrameLength));
        add("framing", "scanQueue", frameBytes, as<scanned>(byFrameLength));
    }
    for (std::size_t backlog = 4 * KIB; backlog <= 256 * KIB; backlog *= 2)
    {
        add("backlog", "port", backlog, as<framed>(byBacklog));
        add("backlog", "scanQueue", backlog, as<scanned>(byBacklog));
    }
    for (std::size_t const messages : {framedInLots::MESSAGES / 64, framedInLots::MESSAGES})
    {
        add("lots", "port", messages, as<framedInLots>(byCount));
    }
    add("randomNoise", "port", BACKLOG, as<framed>(randomNoise));
    add("randomNoise", "memcpy", BACKLOG, as<copied>(randomNoise));
    add("fillerNoise", "port", BACKLOG, as<framed>(fillerNoise));
    add("fillerNoise", "memcpy", BACKLOG, as<copied>(fillerNoise));
    add("worstNoise", "port", BACKLOG, as<framed>(worstNoise));
    add("worstNoise", "scanQueue", BACKLOG, as<scanned>(worstNoise));
}

} // namespace bench
