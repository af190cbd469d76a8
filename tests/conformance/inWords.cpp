#include "inWords.h"

#include <iomanip>
#include <sstream>

namespace conformance
{
namespace
{

constexpr std::size_t longest = 40;

template <typename Value>
std::string hexList(std::vector<Value> const& values, int digits)
{
    std::ostringstream out;
    out << std::hex << std::uppercase << std::setfill('0');
    for (std::size_t index = 0; index < values.size() && index < longest; ++index)
    {
        out << (index == 0 ? "" : " ") << std::setw(digits) << static_cast<unsigned>(values[index]);
    }
    if (values.size() > longest)
    {
        out << " ... (" << std::dec << values.size() << " in all)";
    }
    return out.str();
}

std::string hexWord(std::uint16_t word)
{
    return hexList(std::vector<std::uint16_t>{word}, 4);
}

} // namespace

std::string inWords(bytes const& shown)
{
    return hexList(shown, 2);
}

std::string inWords(deliveredMessage const& shown)
{
    std::string text = std::string(shown.invalid ? "invalid" : "delivers") + " id " + hexWord(shown.id) + " flags " +
                       hexWord(shown.flags);
    if (!shown.data.empty())
    {
        text += " data " + hexList(shown.data, 4) + " data-checksum " + hexWord(shown.dataChecksum);
    }
    return text;
}

std::string inWords(loggedLine const& shown)
{
    return "log " + std::to_string(shown.level) + " " + shown.text;
}

} // namespace conformance
