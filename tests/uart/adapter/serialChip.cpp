#include "serialChip.h"

#include <algorithm>
#include <array>
#include <dirent.h>
#include <unistd.h>

namespace adapter
{
namespace
{

constexpr std::size_t SEND_ROOM = 128;
constexpr std::size_t RECEIVE_ROOM = 256;
constexpr std::size_t PACKET_SIZE = 64;
constexpr std::size_t STATUS_SIZE = 2;
/// Characters are drawn so long ahead, since the program does not wake up for each one.
constexpr std::int64_t LEAD_NS = 2'000'000;

// What the driver asks for by vendor requests.
enum vendorRequest : unsigned {
    SET_SPEED = 3,
    SET_FRAMING = 4,
    GET_MODEM_STATUS = 5,
    SET_LATENCY = 9,
    GET_LATENCY = 10,
    READ_MEMORY = 0x90
};

enum lineStatusBit : unsigned {
    OVERRUN = 0x02,
    PARITY = 0x04,
    FRAMING = 0x08,
    BREAK = 0x10,
    ROOM = 0x20,
    EMPTY = 0x40
};

constexpr unsigned char MODEM_STATUS = 0x31; // clear to send, data set ready

unsigned errorsOf(character const& from)
{
    return (from.hasParityError ? PARITY : 0U) | (from.hasFramingError ? FRAMING : 0U) | (from.isBreak ? BREAK : 0U);
}

bytes textDescriptor(std::string const& text)
{
    bytes result{static_cast<unsigned char>(2 + 2 * text.size()), 3};
    for (char const letter : text)
    {
        result.insert(result.end(), {static_cast<unsigned char>(letter), 0});
    }
    return result;
}

} // namespace

serialChip::serialChip(unsigned hubPort, bitLine& toLine, bitLine& fromLine) : port(hubPort), out(toLine), in(fromLine)
{}

void serialChip::plugIn()
{
    if (!inHub)
    {
        reset();
        inHub = std::make_unique<plug>(port);
    }
}

void serialChip::pull()
{
    if (inHub)
    {
        inHub->pull();
    }
}

void serialChip::reset()
{
    settings = {};
    applySettings();
    latency_ns = 16'000'000;
    toSend.clear();
    received.clear();
    inputs.clear();
    outputs.clear();
    outputDone = 0;
    hasLost = false;
    hasToldStatus = false;
}

void serialChip::handleRequests()
{
    if (inHub && !inHub->step([this](request const& asked) { take(asked); },
                              [this](std::uint32_t number) { return cancel(number); }))
    {
        inHub.reset();
        unlink(nameOfLink().c_str());
        isNamed = false;
    }
}

void serialChip::advance(std::int64_t time_ns)
{
    receive(time_ns); // a line goes on without a chip
    if (!inHub)
    {
        received.clear();
        return;
    }
    fillFromOutputs();
    send(time_ns);
    fillFromOutputs();
    answerInputs(time_ns);
}

bool serialChip::isBusy() const
{
    return inHub && (!toSend.empty() || !received.empty() || in.hasCharacters() || !hasToldStatus);
}

void serialChip::nameDevice()
{
    DIR* const entries = inHub && !isNamed ? opendir(folderOfDevice().c_str()) : nullptr;
    if (entries == nullptr)
    {
        return;
    }
    while (dirent const* const entry = readdir(entries))
    {
        std::string const name = entry->d_name;
        if (name.compare(0, 6, "ttyUSB") == 0)
        {
            unlink(nameOfLink().c_str());
            isNamed = symlink(("/dev/" + name).c_str(), nameOfLink().c_str()) == 0;
        }
    }
    closedir(entries);
}

std::string serialChip::nameOfLink() const
{
    return "/dev/adapter" + std::to_string(port);
}

std::string serialChip::folderOfDevice() const
{
    return "/sys/bus/usb/devices/1-" + std::to_string(port + 1) + ":1.0";
}

void serialChip::take(request const& asked)
{
    if (asked.endpoint == 0)
    {
        control(asked);
    }
    else if (asked.isInput)
    {
        inputs.push_back(asked);
    }
    else
    {
        outputs.push_back(asked);
    }
}

bool serialChip::cancel(std::uint32_t number)
{
    auto const isMeant = [number](request const& each) { return each.number == number; };
    auto const input = std::find_if(inputs.begin(), inputs.end(), isMeant);
    if (input != inputs.end())
    {
        inputs.erase(input);
        return true;
    }
    auto const output = std::find_if(outputs.begin(), outputs.end(), isMeant);
    if (output == outputs.end())
    {
        return false;
    }
    outputDone = output == outputs.begin() ? 0 : outputDone;
    outputs.erase(output);
    return true;
}

void serialChip::control(request const& asked)
{
    constexpr unsigned FROM_DEVICE = 0x80;
    constexpr unsigned VENDOR = 0x40;
    unsigned const type = asked.setup[0];
    if ((type & FROM_DEVICE) != 0)
    {
        controlInput(asked);
        return;
    }
    unsigned const value = asked.setup[2] | static_cast<unsigned>(asked.setup[3]) << 8;
    if ((type & VENDOR) != 0 && asked.setup[1] == SET_SPEED)
    {
        setSpeed(value | static_cast<unsigned>(asked.setup[4]) << 16);
    }
    else if ((type & VENDOR) != 0 && asked.setup[1] == SET_FRAMING)
    {
        setFraming(value);
    }
    else if ((type & VENDOR) != 0 && asked.setup[1] == SET_LATENCY)
    {
        latency_ns = value * std::int64_t{1'000'000};
    }
    inHub->answerOutput(asked); // the rest sets modem lines and the like, which lead nowhere
}

void serialChip::controlInput(request const& asked)
{
    constexpr unsigned GET_DESCRIPTOR = 6;
    bytes data;
    switch (asked.setup[0] << 8 | asked.setup[1])
    {
    case 0x8000 | GET_DESCRIPTOR:
        data = descriptor(asked.setup[3], asked.setup[2]);
        break;
    case 0x8000: // status: powered by the hub
        data = {0, 0};
        break;
    case 0xC000 | GET_MODEM_STATUS:
        data = {MODEM_STATUS, static_cast<unsigned char>(lineStatus())};
        break;
    case 0xC000 | GET_LATENCY:
        data = {static_cast<unsigned char>(latency_ns / 1'000'000)};
        break;
    case 0xC000 | READ_MEMORY:
        data = {0, 0};
        break;
    default:
        break;
    }
    if (data.empty())
    {
        inHub->refuse(asked);
        return;
    }
    data.resize(std::min<std::size_t>(data.size(), asked.length));
    inHub->answerInput(asked, data);
}

bytes serialChip::descriptor(unsigned kind, unsigned index) const
{
    constexpr unsigned DEVICE = 1;
    constexpr unsigned CONFIGURATION = 2;
    constexpr unsigned TEXT = 3;
    switch (kind)
    {
    case DEVICE: // what the driver knows as its own, with texts 1 to 3
        return {18, DEVICE, 0x00, 0x02, 0, 0, 0, 8, 0x03, 0x04, 0x01, 0x60, 0x00, 0x06, 1, 2, 3, 1};
    case CONFIGURATION: // one interface with an endpoint for input and one for output
        return {9,
                CONFIGURATION,
                32,
                0,
                1,
                1,
                0,
                0xA0,
                45, // the configuration
                9,
                4,
                0,
                0,
                2,
                0xFF,
                0xFF,
                0xFF,
                2, // its interface
                7,
                5,
                0x81,
                2,
                PACKET_SIZE,
                0,
                0, // input
                7,
                5,
                0x02,
                2,
                PACKET_SIZE,
                0,
                0}; // output
    case TEXT:
        return index == 0 ? bytes{4, TEXT, 0x09, 0x04} : textDescriptor("adapter " + std::to_string(port));
    default:
        return {};
    }
}

/// The divisor of 3 MHz counts in eighths; which eighth stands in three bits above the whole part.
void serialChip::setSpeed(unsigned divisor)
{
    constexpr std::array<unsigned, 8> EIGHTHS{0, 4, 2, 1, 3, 5, 6, 7};
    constexpr std::int64_t CLOCK = 3'000'000;
    std::int64_t const eighths = (divisor & 0x3FFFU) * 8 + EIGHTHS[(divisor >> 14) & 7U];
    if (divisor == 0 || divisor == 1) // two speeds that have numbers of their own
    {
        settings.bit_ns = divisor == 0 ? 1'000'000'000 / CLOCK : 1'500'000'000 / CLOCK;
    }
    else
    {
        settings.bit_ns = 1'000'000'000 * eighths / 8 / CLOCK;
    }
    applySettings();
}

void serialChip::setFraming(unsigned bits)
{
    settings.dataBits = bits & 0xFFU;
    settings.check = static_cast<parity>((bits >> 8) & 7U);
    settings.stopBits = ((bits >> 11) & 3U) == 0 ? 1 : 2;
    applySettings();
}

void serialChip::applySettings()
{
    out.setSender(settings);
    in.setReceiver(settings);
}

void serialChip::fillFromOutputs()
{
    while (!outputs.empty() && toSend.size() < SEND_ROOM)
    {
        request const& first = outputs.front();
        std::size_t const count = std::min(SEND_ROOM - toSend.size(), first.data.size() - outputDone);
        auto const begin = first.data.begin() + static_cast<std::ptrdiff_t>(outputDone);
        toSend.insert(toSend.end(), begin, begin + static_cast<std::ptrdiff_t>(count));
        outputDone += count;
        if (outputDone < first.data.size())
        {
            return;
        }
        inHub->answerOutput(first);
        outputs.pop_front();
        outputDone = 0;
    }
}

void serialChip::send(std::int64_t time_ns)
{
    while (!toSend.empty() && !out.isHeld() && out.free_ns() < time_ns + LEAD_NS)
    {
        out.send(toSend.front(), time_ns);
        toSend.pop_front();
    }
}

void serialChip::receive(std::int64_t time_ns)
{
    while (std::optional<character> const next = in.receive(time_ns))
    {
        if (received.size() < RECEIVE_ROOM)
        {
            received.push_back(*next);
        }
        else
        {
            hasLost = true;
        }
    }
}

void serialChip::answerInputs(std::int64_t time_ns)
{
    while (!inputs.empty() && hasSomethingToTell(time_ns))
    {
        inHub->answerInput(inputs.front(), nextPacket());
        inputs.pop_front();
        hasToldStatus = true;
    }
}

/// A packet goes when it is full, when its first character has waited for the latency, or when the driver does not
/// know the status yet. (A real chip sends empty packets all the time, too.)
bool serialChip::hasSomethingToTell(std::int64_t time_ns) const
{
    if (!hasToldStatus)
    {
        return true;
    }
    if (received.empty())
    {
        return false;
    }
    return received.size() >= PACKET_SIZE - STATUS_SIZE || received.front().time_ns + latency_ns <= time_ns;
}

/// The errors in the status stand for every character of the packet.
bytes serialChip::nextPacket()
{
    bytes packet{MODEM_STATUS, 0};
    unsigned const errors = received.empty() ? 0U : errorsOf(received.front());
    while (!received.empty() && packet.size() < PACKET_SIZE && errorsOf(received.front()) == errors)
    {
        packet.push_back(received.front().value);
        received.pop_front();
    }
    packet[1] = static_cast<unsigned char>(lineStatus() | errors | (hasLost ? OVERRUN : 0U));
    hasLost = false;
    return packet;
}

unsigned serialChip::lineStatus() const
{
    bool const isEmpty = toSend.empty() && out.free_ns() <= now_ns();
    return (toSend.size() < SEND_ROOM ? unsigned{ROOM} : 0U) | (isEmpty ? unsigned{EMPTY} : 0U);
}

} // namespace adapter
