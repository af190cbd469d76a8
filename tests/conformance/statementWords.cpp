#include "statementWords.h"

#include <limits>
#include <sstream>

namespace conformance
{
namespace
{

constexpr char const* hexDigits = "0123456789ABCDEFabcdef";
constexpr std::size_t longestRepetition = 1000000;

bool consistsOf(std::string const& text, char const* characters)
{
    return !text.empty() && text.find_first_not_of(characters) == std::string::npos;
}

/// A hexadecimal value that stands for itself or, behind an asterisk, for several: `00*20`.
struct repeatedValue
{
    std::uint32_t value = 0;
    std::size_t times = 1;
};

std::size_t repetitionOf(std::string const& word, std::size_t asterisk)
{
    if (asterisk == std::string::npos)
    {
        return 1;
    }
    std::string const times = word.substr(asterisk + 1);
    if (!consistsOf(times, "0123456789") || times.size() > 7 || std::stoul(times) > longestRepetition || times == "0")
    {
        throw statementError("'" + word + "': the number behind * is to be 1 to " + std::to_string(longestRepetition));
    }
    return std::stoul(times);
}

repeatedValue repeatedHex(std::string const& word, std::size_t digits, char const* what)
{
    std::size_t const asterisk = word.find('*');
    std::string const value = word.substr(0, asterisk);
    if (!consistsOf(value, hexDigits) || value.size() != digits)
    {
        throw statementError("'" + word + "' is no " + what + " (" + std::to_string(digits) + " hexadecimal digits)");
    }
    return {static_cast<std::uint32_t>(std::stoul(value, nullptr, 16)), repetitionOf(word, asterisk)};
}

std::string withColonsApart(std::string const& text)
{
    std::string result;
    for (char const each : text)
    {
        result += each == ':' ? std::string(" : ") : std::string(1, each);
    }
    return result;
}

} // namespace

statementWords::statementWords(std::string const& text)
{
    std::istringstream stream(withColonsApart(text));
    for (std::string word; stream >> word;)
    {
        words.push_back(word);
    }
}

bool statementWords::accept(std::string const& word)
{
    if (atEnd() || current() != word)
    {
        return false;
    }
    ++next;
    return true;
}

void statementWords::require(std::string const& word)
{
    if (!accept(word))
    {
        throw statementError("'" + word + "' is missing" + (atEnd() ? "" : " before '" + current() + "'"));
    }
}

void statementWords::requireEnd() const
{
    if (!atEnd())
    {
        throw statementError("'" + current() + "' is too much");
    }
}

std::string statementWords::take(std::string const& what)
{
    if (atEnd())
    {
        throw statementError(what + " is missing");
    }
    return words[next++];
}

double statementWords::takeSeconds()
{
    std::string const word = take("a number of seconds");
    std::size_t const point = word.find('.');
    std::string const fraction = point == std::string::npos ? "0" : word.substr(point + 1);
    if (!consistsOf(word.substr(0, point), "0123456789") || !consistsOf(fraction, "0123456789") || word.size() > 12)
    {
        throw statementError("'" + word + "' is no number of seconds");
    }
    return std::stod(word);
}

unsigned statementWords::takeCount(std::string const& what)
{
    std::string const word = take(what);
    if (!consistsOf(word, "0123456789") || word.size() > 7)
    {
        throw statementError("'" + word + "' is no " + what);
    }
    return static_cast<unsigned>(std::stoul(word));
}

std::uint32_t statementWords::takeHex(std::string const& what, std::size_t digits)
{
    std::string const word = take(what);
    if (!consistsOf(word, hexDigits) || word.size() > digits)
    {
        throw statementError("'" + word + "' is no " + what + " (up to " + std::to_string(digits) +
                             " hexadecimal digits)");
    }
    return static_cast<std::uint32_t>(std::stoul(word, nullptr, 16));
}

bytes statementWords::takeBytes()
{
    bytes result;
    do
    {
        repeatedValue const values = repeatedHex(take("a byte"), 2, "byte");
        result.insert(result.end(), values.times, static_cast<std::uint8_t>(values.value));
    } while (!atEnd());
    return result;
}

messageFields statementWords::takeFields()
{
    messageFields fields;
    require("id");
    fields.id = static_cast<std::uint16_t>(takeHex("id", 4));
    require("flags");
    fields.flags = static_cast<std::uint16_t>(takeHex("flags word", 4));
    if (accept("data"))
    {
        takeData(fields);
    }
    if (accept("data-checksum"))
    {
        fields.dataChecksum = static_cast<std::uint16_t>(takeHex("data checksum", 4));
    }
    return fields;
}

bool statementWords::nextIsHex() const
{
    return !atEnd() && consistsOf(current().substr(0, 1), hexDigits) && current() != "data-checksum";
}

void statementWords::takeData(messageFields& fields)
{
    do
    {
        repeatedValue const values = repeatedHex(take("a data word"), 4, "data word");
        fields.data.insert(fields.data.end(), values.times, static_cast<std::uint16_t>(values.value));
    } while (nextIsHex());
    if (fields.data.size() > std::numeric_limits<std::uint16_t>::max())
    {
        throw statementError("a message has at most 65535 data words, not " + std::to_string(fields.data.size()));
    }
}

} // namespace conformance
