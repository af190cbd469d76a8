#include "demoPrinting.h"

#include "gssipMessage.h"
#include "monotonicTimeStamp.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <utility>

namespace examples
{
namespace
{

std::string hex(bytes const& image, std::size_t first, std::size_t count)
{
    std::string text;
    for (std::size_t place = first; place < first + count; ++place)
    {
        std::array<char, 4> digits{};
        std::snprintf(digits.data(), digits.size(), "%02X ", unsigned{image[place]});
        text += digits.data();
    }
    return text;
}

std::string padded(std::string text, std::size_t width)
{
    text.resize(std::max(width, text.size()), ' ');
    return text;
}

std::string layOut(std::string const& time, std::string const& where, std::string const& id, std::string const& flags,
                   std::string const& image, std::string const& remark)
{
    std::string line = padded(time, 8) + "  " + padded(where, 7) + "  " + padded(id, 6) + "  " + padded(flags, 28) +
                       "  " + padded(image, 41) + "  " + remark;
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

} // namespace

std::string flagsInWords(std::uint16_t flags)
{
    static std::array<std::pair<std::uint16_t, char const*>, 7> const names{{
        {gssipMessage::REPLY_FLAG, "reply"},
        {gssipMessage::ACK_REQ_FLAG, "ack-request"},
        {gssipMessage::HANDSHAKE_FLAG, "handshake"},
        {gssipMessage::ACK_FLAG, "ack"},
        {gssipMessage::NAK_FLAG, "nak"},
        {gssipMessage::REJECT_FLAG, "reject"},
        {gssipMessage::REJECT_EXTRA_FLAG, "extra"},
    }};
    std::string words;
    unsigned unnamed = flags;
    for (auto const& [flag, name] : names)
    {
        if ((flags & flag) != 0)
        {
            words += (words.empty() ? "" : " ") + std::string(name);
            unnamed &= ~unsigned{flag};
        }
    }
    if (unnamed != 0)
    {
        words += (words.empty() ? "" : " ") + idText(static_cast<std::uint16_t>(unnamed));
    }
    return words.empty() ? "none" : words;
}

std::string hexShortened(bytes const& image)
{
    constexpr std::size_t MOST = 14;
    constexpr std::size_t BEGINNING = 11;
    constexpr std::size_t END = 2;
    std::string text = image.size() <= MOST ? hex(image, 0, image.size())
                                            : hex(image, 0, BEGINNING) + ".. " + hex(image, image.size() - END, END);
    text.erase(text.find_last_not_of(' ') + 1);
    return text;
}

std::string idText(std::uint16_t id)
{
    std::array<char, 8> text{};
    std::snprintf(text.data(), text.size(), "0x%04X", unsigned{id});
    return text.data();
}

eventPrinter::eventPrinter(std::ostream& stream) : out(stream), start_sec(monotonicTimeStamp().getTime_sec()) {}

double eventPrinter::sinceStart_sec() const
{
    return monotonicTimeStamp().getTime_sec() - start_sec;
}

void eventPrinter::columnTitles()
{
    plain(layOut("  time/s", "where", "id", "flags", "bytes", "remarks"));
}

void eventPrinter::event(eventLine const& line)
{
    std::lock_guard<std::mutex> const lock(outMutex);
    std::array<char, 352> time{}; // the longest double takes 309 digits before its point
    std::snprintf(time.data(), time.size(), "%8.3f", sinceStart_sec());
    bool const onlyRemark = line.id.empty() && line.image.empty();
    out << (onlyRemark ? layOut(time.data(), line.where, line.remark, "", "", "")
                       : layOut(time.data(), line.where, line.id, line.flags, hexShortened(line.image), line.remark))
        << std::endl;
}

void eventPrinter::plain(std::string const& text)
{
    std::lock_guard<std::mutex> const lock(outMutex);
    out << text << std::endl;
}

} // namespace examples
