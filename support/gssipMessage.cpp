#include "gssipMessage.h"

#include "littleEndian.h"

#include <algorithm>
#include <numeric>

namespace
{

constexpr std::size_t MAX_DATA_WORDS = 65535;
constexpr std::size_t WORD_BYTES = 2;

/// The word that brings a sum to 0 modulo 65536.
std::uint16_t negated(std::uint32_t sum)
{
    return static_cast<std::uint16_t>(0U - sum);
}

} // namespace

gssipMessage::gssipMessage() noexcept = default;

gssipMessage::gssipMessage(std::uint16_t const& id, std::uint16_t const& flags, std::uint16_t const& count)
    : header{SOM, id, count, flags, 0}, data(count)
{
    setHeaderChecksum();
}

gssipMessage::~gssipMessage() = default;

gssipMessage& gssipMessage::operator=(gssipMessage const& other)
{
    if (this != &other)
    {
        header.reserve(other.header.size());
        data.reserve(other.data.size()); // from here on nothing can fail: all of the message changes, or nothing
        header = other.header;
        data = other.data;
        dataChecksum = other.dataChecksum;
        sendTimeStamp_sec = other.sendTimeStamp_sec;
        receiveTimeStamp_sec = other.receiveTimeStamp_sec;
    }
    return *this;
}

bool gssipMessage::isValid() const
{
    return getSOM() == SOM && getHeaderChecksum() == computeHeaderChecksum() && data.size() == getDataWordSize() &&
           (isHeaderMessage() || dataChecksum == computeDataChecksum());
}

void gssipMessage::clear() noexcept
{
    header.clear();
    data.clear();
    dataChecksum = 0;
    sendTimeStamp_sec = 0.0;
    receiveTimeStamp_sec = 0.0;
}

void gssipMessage::setSOM(std::uint16_t const& word)
{
    setHeaderAt(SOM_WORD, word);
}

void gssipMessage::setId(std::uint16_t const& id)
{
    setHeaderAt(ID_WORD, id);
}

void gssipMessage::setDataWordSize(std::uint16_t const& count, bool resize)
{
    std::uint16_t const words = count; // which may be one of the data words
    makeHeader();                      // first: when memory runs out nothing changes
    if (resize)
    {
        data.resize(words);
    }
    setHeaderAt(COUNT_WORD, words);
}

void gssipMessage::setProtocolFlags(std::uint16_t const& flags)
{
    setHeaderAt(FLAGS_WORD, flags);
}

void gssipMessage::setHeaderChecksum(std::uint16_t const& checksum)
{
    setHeaderAt(CHECKSUM_WORD, checksum);
}

void gssipMessage::setHeaderChecksum()
{
    setHeaderAt(CHECKSUM_WORD, computeHeaderChecksum());
}

void gssipMessage::setDataChecksum(std::uint16_t const& checksum)
{
    dataChecksum = checksum;
}

void gssipMessage::setDataChecksum()
{
    dataChecksum = computeDataChecksum();
}

std::uint16_t gssipMessage::getSOM() const
{
    return headerAt(SOM_WORD);
}

std::uint16_t gssipMessage::getId() const
{
    return headerAt(ID_WORD);
}

std::uint16_t gssipMessage::getDataWordSize() const
{
    return headerAt(COUNT_WORD);
}

std::uint16_t gssipMessage::getProtocolFlags() const
{
    return headerAt(FLAGS_WORD);
}

std::uint16_t gssipMessage::getHeaderChecksum() const
{
    return headerAt(CHECKSUM_WORD);
}

std::uint16_t gssipMessage::getDataChecksum() const
{
    return dataChecksum;
}

std::vector<std::uint16_t>& gssipMessage::getData()
{
    return data;
}

std::vector<std::uint16_t> const& gssipMessage::getData() const
{
    return data;
}

bool gssipMessage::setData(std::vector<std::uint16_t> const& words)
{
    if (words.size() > MAX_DATA_WORDS)
    {
        return false;
    }
    std::vector<std::uint16_t> copy(words); // made first: either everything changes or nothing
    setHeaderAt(COUNT_WORD, static_cast<std::uint16_t>(words.size()));
    data.swap(copy);
    return true;
}

bool gssipMessage::isHeaderMessage() const
{
    return getDataWordSize() == 0;
}

bool gssipMessage::isAckReqFlagSet() const
{
    return (getProtocolFlags() & ACK_REQ_FLAG) != 0;
}

bool gssipMessage::isAckMsgFlagSet() const
{
    return (getProtocolFlags() & ACK_FLAG) != 0;
}

bool gssipMessage::isNakMsgFlagSet() const
{
    return (getProtocolFlags() & NAK_FLAG) != 0;
}

bool gssipMessage::isHandshakeFlagSet() const
{
    return (getProtocolFlags() & HANDSHAKE_FLAG) != 0;
}

std::vector<std::uint8_t> gssipMessage::getHeaderAndDataUint8() const
{
    std::vector<std::uint8_t> image;
    getHeaderAndDataUint8(image);
    return image;
}

void gssipMessage::getHeaderAndDataUint8(std::vector<std::uint8_t>& image) const
{
    image.resize(getSizeBytes());
    std::uint8_t* out = image.data();
    for (std::size_t place = SOM_WORD; place < HEADER_WORDS; ++place)
    {
        gssipInternal::storeWord(headerAt(static_cast<headerWord>(place)), out);
        out += WORD_BYTES;
    }
    if (!isHeaderMessage())
    {
        std::size_t const held = dataWordsSent();
        std::uint8_t* const missing = out + held * WORD_BYTES;
        std::uint8_t* const checksum = out + getDataWordSize() * WORD_BYTES;
        gssipInternal::storeWords(data.data(), out, held);
        std::fill(missing, checksum, std::uint8_t{0});
        gssipInternal::storeWord(dataChecksum, checksum);
    }
}

unsigned gssipMessage::getSizeBytes() const
{
    unsigned const words = isHeaderMessage() ? HEADER_WORDS : HEADER_WORDS + getDataWordSize() + 1U;
    return words * WORD_BYTES;
}

void gssipMessage::setSendTimeStamp(double const& time_sec)
{
    sendTimeStamp_sec = time_sec;
}

double gssipMessage::getSendTimeStamp() const
{
    return sendTimeStamp_sec;
}

void gssipMessage::setReceiveTimeStamp(double const& time_sec)
{
    receiveTimeStamp_sec = time_sec;
}

double gssipMessage::getReceiveTimeStamp() const
{
    return receiveTimeStamp_sec;
}

std::uint16_t gssipMessage::headerAt(headerWord place) const
{
    if (header.empty())
    {
        return place == SOM_WORD ? SOM : std::uint16_t{0};
    }
    return header[place];
}

void gssipMessage::setHeaderAt(headerWord place, std::uint16_t value)
{
    makeHeader();
    header[place] = value;
}

void gssipMessage::makeHeader()
{
    if (header.empty())
    {
        header.assign({SOM, 0, 0, 0, 0});
    }
}

std::uint16_t gssipMessage::computeHeaderChecksum() const
{
    return negated(std::uint32_t{getSOM()} + getId() + getDataWordSize() + getProtocolFlags());
}

std::uint16_t gssipMessage::computeDataChecksum() const
{
    auto const end = data.begin() + static_cast<std::ptrdiff_t>(dataWordsSent());
    return negated(std::accumulate(data.begin(), end, std::uint32_t{0}));
}

/// How many of the words held go onto the line.
std::size_t gssipMessage::dataWordsSent() const
{
    return std::min<std::size_t>(data.size(), getDataWordSize());
}
