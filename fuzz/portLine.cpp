#include "portLine.h"

#include "fault.h"
#include "frames.h"
#include "referenceDecoder.h"

#include <array>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <unistd.h>

namespace fuzz
{
namespace
{

constexpr std::uint8_t RAW_MARK = 0x5A;
constexpr std::size_t FILLER_BYTES = 20;
constexpr std::size_t HEADER_BYTES = 10;

std::uint16_t wordAt(kit::bytes const& from, std::size_t place)
{
    return static_cast<std::uint16_t>(from[place] + 256U * from[place + 1]);
}

/// Of a frame that stands alone: also the data must sum to 0.
void checkFrame(kit::bytes const& image)
{
    kit::decodedStream const decoded = kit::decode(image);
    require(decoded.frames.size() == 1 && decoded.headerErrors == 0, "a frame on the line has a wrong header");
    kit::decodedFrame const& frame = decoded.frames.front();
    require(image == kit::frame(frame.id, frame.flags, frame.data), "a frame on the line has a wrong checksum");
}

} // namespace

void pluggableLine::plug()
{
    terminal.emplace();
    int const master = terminal->masterDescriptor();
    require(fcntl(master, F_SETFL, O_NONBLOCK) == 0, "the line cannot be made not to block");
    std::filesystem::path const fresh = folder.path / "fresh";
    std::filesystem::create_symlink(terminal->name(), fresh);
    std::filesystem::rename(fresh, name());
}

/// The name goes too: the system soon gives the terminal's own to somebody else's.
void pluggableLine::unplug()
{
    std::filesystem::remove(name());
    terminal.reset();
}

std::size_t pluggableLine::write(kit::bytes const& data)
{
    ssize_t const count = terminal ? ::write(terminal->masterDescriptor(), data.data(), data.size()) : 0;
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

kit::bytes pluggableLine::read()
{
    kit::bytes all;
    std::array<std::uint8_t, 4096> chunk{};
    ssize_t count = 1;
    while (terminal && count > 0)
    {
        count = ::read(terminal->masterDescriptor(), chunk.data(), chunk.size());
        all.insert(all.end(), chunk.begin(), chunk.begin() + (count > 0 ? count : 0));
    }
    return all;
}

sentItem fillerItem()
{
    sentItem item;
    item.what = sentItem::kind::filler;
    item.image.assign(FILLER_BYTES, 0xFF);
    return item;
}

sentItem rawItem(kit::bytes const& content)
{
    sentItem item;
    item.what = sentItem::kind::raw;
    item.image = {RAW_MARK, static_cast<std::uint8_t>(content.size())};
    item.image.insert(item.image.end(), content.begin(), content.end());
    return item;
}

sentItem frameItem(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data)
{
    return {sentItem::kind::frame, id, flags, kit::frame(id, flags, data)};
}

std::optional<sentItem> itemSplitter::next()
{
    std::size_t const length = lengthOfFirst();
    if (length == 0 || pending.size() < length)
    {
        return std::nullopt;
    }
    sentItem item;
    auto const end = pending.begin() + static_cast<std::ptrdiff_t>(length);
    item.image.assign(pending.begin(), end);
    pending.erase(pending.begin(), end);
    if (item.image[0] == RAW_MARK)
    {
        item.what = sentItem::kind::raw;
    }
    else if (item.image[1] == 0xFF)
    {
        item.what = sentItem::kind::filler;
        require(item == fillerItem(), "a filler on the line is not 20 bytes of FF");
    }
    else
    {
        checkFrame(item.image);
        item.id = wordAt(item.image, 2);
        item.flags = wordAt(item.image, 6);
    }
    return item;
}

/// 0 while that cannot be told.
std::size_t itemSplitter::lengthOfFirst() const
{
    if (pending.size() < 2)
    {
        return 0;
    }
    if (pending[0] == RAW_MARK)
    {
        return 2U + pending[1];
    }
    require(pending[0] == 0xFF, "bytes on the line that nobody has sent");
    if (pending[1] == 0xFF)
    {
        return FILLER_BYTES;
    }
    require(pending[1] == 0x81, "bytes on the line that nobody has sent");
    if (pending.size() < HEADER_BYTES)
    {
        return 0;
    }
    std::size_t const words = wordAt(pending, 4);
    return words == 0 ? HEADER_BYTES : HEADER_BYTES + 2 * words + 2;
}

} // namespace fuzz
