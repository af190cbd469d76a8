#include "usbRequests.h"

#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace adapter
{
namespace
{

constexpr char const* HUB = "/sys/devices/platform/vhci_hcd.0/";
constexpr std::size_t HEADER_SIZE = 48;
constexpr unsigned FULL_SPEED = 2;

enum command : std::uint32_t { SUBMIT = 1, UNLINK = 2, SUBMITTED = 3, UNLINKED = 4 };

void tellHub(std::string const& file, std::string const& text)
{
    std::ofstream stream(HUB + file);
    stream << text << std::flush;
    if (!stream)
    {
        throw std::runtime_error("the virtual hub refuses to " + file + ' ' + text);
    }
}

/// The number in network order at a place counted in words.
std::uint32_t wordAt(bytes const& packet, std::size_t place)
{
    std::uint32_t value = 0;
    for (std::size_t byte = 4 * place; byte < 4 * place + 4; ++byte)
    {
        value = value << 8 | packet[byte];
    }
    return value;
}

void setWord(bytes& packet, std::size_t place, std::uint32_t value)
{
    for (std::size_t byte = 4 * place + 4; byte > 4 * place; --byte)
    {
        packet[byte - 1] = static_cast<unsigned char>(value);
        value >>= 8;
    }
}

bytes header(command what, std::uint32_t number)
{
    bytes packet(HEADER_SIZE);
    setWord(packet, 0, what);
    setWord(packet, 1, number);
    return packet;
}

} // namespace

plug::plug(unsigned hubPort) : port(hubPort)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "socketpair");
    }
    own = ends[0];
    std::uint32_t const device = 1U << 16 | (port + 2);
    tellHub("attach", std::to_string(port) + ' ' + std::to_string(ends[1]) + ' ' + std::to_string(device) + ' ' +
                          std::to_string(FULL_SPEED));
    close(ends[1]); // the kernel's now
}

plug::~plug()
{
    close(own);
}

void plug::pull()
{
    tellHub("detach", std::to_string(port));
}

bool plug::step(std::function<void(request const&)> const& transfer, std::function<bool(std::uint32_t)> const& cancel)
{
    std::array<unsigned char, 4096> part{};
    ssize_t const count = recv(own, part.data(), part.size(), MSG_DONTWAIT);
    if (count <= 0)
    {
        return count < 0 && errno == EAGAIN;
    }
    unread.insert(unread.end(), part.begin(), part.begin() + count);
    while (takeOne(transfer, cancel))
    {}
    return true;
}

bool plug::takeOne(std::function<void(request const&)> const& transfer,
                   std::function<bool(std::uint32_t)> const& cancel)
{
    if (unread.size() < HEADER_SIZE)
    {
        return false;
    }
    request asked;
    asked.number = wordAt(unread, 1);
    if (wordAt(unread, 0) == UNLINK)
    {
        bytes packet = header(UNLINKED, asked.number);
        setWord(packet, 5, cancel(wordAt(unread, 5)) ? static_cast<std::uint32_t>(-ECONNRESET) : 0U);
        unread.erase(unread.begin(), unread.begin() + HEADER_SIZE);
        write(packet);
        return true;
    }
    asked.isInput = wordAt(unread, 3) == 1;
    asked.endpoint = wordAt(unread, 4);
    asked.length = wordAt(unread, 6);
    std::size_t const size = HEADER_SIZE + (asked.isInput ? 0 : asked.length);
    if (unread.size() < size)
    {
        return false;
    }
    std::copy(unread.begin() + 40, unread.begin() + HEADER_SIZE, asked.setup.begin());
    auto const end = unread.begin() + static_cast<std::ptrdiff_t>(size);
    asked.data.assign(unread.begin() + HEADER_SIZE, end);
    unread.erase(unread.begin(), end);
    transfer(asked);
    return true;
}

void plug::answerInput(request const& asked, bytes const& data) const
{
    answer(asked, 0, static_cast<std::uint32_t>(data.size()), data);
}

void plug::answerOutput(request const& asked) const
{
    answer(asked, 0, asked.length, {});
}

void plug::refuse(request const& asked) const
{
    answer(asked, -EPIPE, 0, {});
}

void plug::answer(request const& asked, std::int32_t status, std::uint32_t length, bytes const& data) const
{
    bytes packet = header(SUBMITTED, asked.number);
    setWord(packet, 5, static_cast<std::uint32_t>(status));
    setWord(packet, 6, length);
    packet.insert(packet.end(), data.begin(), data.end());
    write(packet);
}

void plug::write(bytes const& packet) const
{
    // A device that is just being pulled answers nobody; the next `step` tells.
    static_cast<void>(send(own, packet.data(), packet.size(), MSG_NOSIGNAL));
}

} // namespace adapter
