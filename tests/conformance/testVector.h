#ifndef CONFORMANCE_TESTVECTOR_H
#define CONFORMANCE_TESTVECTOR_H

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace conformance
{

using bytes = std::vector<std::uint8_t>;

/// A message as a vector writes it down.
struct messageFields
{
    std::uint16_t id = 0;
    std::uint16_t flags = 0;
    std::vector<std::uint16_t> data;
    std::optional<std::uint16_t> dataChecksum; ///< none: the right one
};

/// What a vector may ask of the side under test before it begins.
struct portSettings
{
    double acknowledgeTimeout_sec = 60.0;
    double handshakeTimeout_sec = 60.0;
    bool answers = true;        ///< answers requests by itself
    bool returnsInvalid = true; ///< gives the application a message with a wrong data checksum, and says so
};

/// A time on the line: seconds, and a number of characters at the line's speed.
struct lineTime
{
    double seconds = 0.0;
    unsigned characters = 0;
};

// The statements of a vector, see README.md.

struct putBytes
{
    bytes content;
};

struct expectBytes
{
    bytes content;
    std::optional<lineTime> notBefore; ///< counted from the last mark
};

struct expectMessage
{
    messageFields fields;
    bool invalid = false;
};

struct expectLine
{
    std::int32_t level = 0;
    std::string text; ///< PORT stands for the port's number
};

struct expectSilence
{
    double duration_sec = 0.0;
};

struct markTime
{};

struct sendMessage
{
    messageFields fields;
    bool tracked = false;
};

struct sendReject
{
    std::uint32_t id = 0;
    bool extra = false;
};

struct sendFiller
{};

struct expectImage
{
    messageFields fields;
    bytes image;
};

using statement = std::variant<putBytes, expectBytes, expectMessage, expectLine, expectSilence, markTime, sendMessage,
                               sendReject, sendFiller, expectImage>;

struct step
{
    unsigned line = 0;
    std::string text; ///< as in the file, blanks and comments apart
    statement what;
};

struct testVector
{
    std::string name;
    portSettings settings;
    std::vector<step> steps;
};

struct vectorFile
{
    std::string path;
    std::vector<testVector> vectors;
};

} // namespace conformance

#endif
