#include "referenceDecoder.h"

#include <iterator>
#include <tuple>

namespace kit
{
namespace
{

constexpr std::size_t headerBytes = 10;

auto fieldsOf(decodedFrame const& of)
{
    return std::tie(of.som, of.id, of.count, of.flags, of.headerChecksum, of.data, of.dataChecksum);
}

class decoder
{
  public:
    explicit decoder(bytes const& wholeStream) : stream(wholeStream) {}

    decodedStream run()
    {
        while (findStart() && takeFrame())
        {}
        result.rest.assign(std::next(stream.begin(), static_cast<std::ptrdiff_t>(position)), stream.end());
        return result;
    }

  private:
    std::size_t left() const { return stream.size() - position; }

    std::uint16_t word(std::size_t index) const
    {
        std::size_t const at = position + 2 * index;
        return static_cast<std::uint16_t>(stream[at] + 256 * stream[at + 1]);
    }

    bool findStart()
    {
        result.expected = decodedStream::START;
        while (left() >= 2 && (stream[position] != 0xFF || stream[position + 1] != 0x81))
        {
            ++position;
        }
        return left() >= 2;
    }

    /// False when the stream ends inside the frame.
    bool takeFrame()
    {
        if (left() < headerBytes)
        {
            result.expected = decodedStream::HEADER;
            return false;
        }
        if ((word(0) + word(1) + word(2) + word(3) + word(4)) % 65536 != 0)
        {
            ++result.headerErrors;
            result.headerErrorsAt.push_back(position);
            result.framesBeforeError.push_back(result.frames.size());
            position += headerBytes - 1;
            return true;
        }
        std::size_t const size = word(2) == 0 ? headerBytes : 2 * (word(2) + std::size_t{6});
        if (left() < size)
        {
            result.expected = decodedStream::DATA;
            return false;
        }
        keepFrame(size);
        position += size - 1;
        return true;
    }

    void keepFrame(std::size_t size)
    {
        decodedFrame frame{word(0), word(1), word(2), word(3), word(4), {}, 0, position, position + size};
        for (std::size_t index = 0; index < frame.count; ++index)
        {
            frame.data.push_back(word(5 + index));
        }
        frame.dataChecksum = frame.count == 0 ? std::uint16_t{0} : word(5 + std::size_t{frame.count});
        result.frames.push_back(frame);
    }

    bytes const& stream;
    std::size_t position = 0;
    decodedStream result;
};

} // namespace

bool decodedFrame::operator==(decodedFrame const& other) const
{
    return fieldsOf(*this) == fieldsOf(other);
}

std::ostream& operator<<(std::ostream& out, decodedFrame const& shown)
{
    out << std::hex << "som " << shown.som << " id " << shown.id << " count " << shown.count << " flags " << shown.flags
        << " header checksum " << shown.headerChecksum << " data checksum " << shown.dataChecksum << " data";
    for (std::uint16_t const word : shown.data)
    {
        out << ' ' << word;
    }
    return out << std::dec;
}

decodedFrame viewOf(gssipMessage const& message)
{
    return {message.getSOM(),
            message.getId(),
            message.getDataWordSize(),
            message.getProtocolFlags(),
            message.getHeaderChecksum(),
            message.getData(),
            message.getDataChecksum(),
            0,
            0};
}

decodedStream decode(bytes const& stream)
{
    return decoder(stream).run();
}

} // namespace kit
