// Target: any sequence of operations on messages leaves what a plain record of fields says, and its bytes form a frame.
//
// Input: operations, one byte each, with their arguments behind them.

#include "fault.h"
#include "gssipMessage.h"
#include "inputReader.h"
#include "referenceDecoder.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <numeric>
#include <utility>
#include <vector>

namespace
{

using fuzz::inputReader;
using fuzz::require;
using kit::bytes;
using wordList = std::vector<std::uint16_t>;

constexpr std::size_t MESSAGES = 3;
constexpr unsigned MOST_LARGE = 1;    // of an input: they take time
constexpr std::size_t HARMLESS = 300; // words; what is longer is large

/// Low 16 bits of the negated sum.
std::uint16_t balanceOf(wordList const& words)
{
    std::uint64_t const sum = std::accumulate(words.begin(), words.end(), std::uint64_t{0});
    return static_cast<std::uint16_t>((0x10000U - sum % 0x10000U) % 0x10000U);
}

/// Bit by bit: NaN is the same as itself, and 0.0 is not -0.0.
bool isSameTime(double left, double right)
{
    std::array<std::uint64_t, 2> images{};
    std::memcpy(&images[0], &left, sizeof left);
    std::memcpy(&images[1], &right, sizeof right);
    return images[0] == images[1];
}

/// What a message is to hold, field by field.
struct record
{
    kit::decodedFrame fields = empty();
    double sent_sec = 0.0;
    double received_sec = 0.0;

    static kit::decodedFrame empty()
    {
        kit::decodedFrame fields;
        fields.som = 0x81FF;
        return fields;
    }

    /// As many data words as the count says, 0 where there are none.
    wordList wordsOnLine() const
    {
        wordList words = fields.data;
        words.resize(fields.count);
        return words;
    }

    std::uint16_t rightHeaderChecksum() const { return balanceOf({fields.som, fields.id, fields.count, fields.flags}); }
    std::uint16_t rightDataChecksum() const { return balanceOf(wordsOnLine()); }

    bool isValid() const
    {
        return fields.som == 0x81FF && fields.headerChecksum == rightHeaderChecksum() &&
               fields.data.size() == fields.count && (fields.count == 0 || fields.dataChecksum == rightDataChecksum());
    }

    bytes image() const
    {
        wordList words{fields.som, fields.id, fields.count, fields.flags, fields.headerChecksum};
        if (fields.count != 0)
        {
            wordList const data = wordsOnLine();
            words.insert(words.end(), data.begin(), data.end());
            words.push_back(fields.dataChecksum);
        }
        bytes result;
        result.reserve(2 * words.size());
        for (std::uint16_t const word : words)
        {
            result.push_back(static_cast<std::uint8_t>(word % 256));
            result.push_back(static_cast<std::uint8_t>(word / 256));
        }
        return result;
    }
};

/// A message, and what it is to hold.
struct observed
{
    gssipMessage message;
    record expected;

    /// Moved away or destroyed things leave some fields open: takes them as they are.
    void adoptOpenFields()
    {
        expected = {};
        expected.fields.dataChecksum = message.getDataChecksum();
        expected.sent_sec = message.getSendTimeStamp();
        expected.received_sec = message.getReceiveTimeStamp();
    }
};

void checkFields(gssipMessage const& message, record const& expected)
{
    require(kit::viewOf(message) == expected.fields, "a field differs from what was set");
    require(isSameTime(message.getSendTimeStamp(), expected.sent_sec), "the send time differs");
    require(isSameTime(message.getReceiveTimeStamp(), expected.received_sec), "the receive time differs");
    unsigned const flags = expected.fields.flags;
    require(message.isHeaderMessage() == (expected.fields.count == 0), "isHeaderMessage is wrong");
    require(message.isAckReqFlagSet() == ((flags & 0x4000U) != 0), "isAckReqFlagSet is wrong");
    require(message.isAckMsgFlagSet() == ((flags & 0x0800U) != 0), "isAckMsgFlagSet is wrong");
    require(message.isNakMsgFlagSet() == ((flags & 0x0400U) != 0), "isNakMsgFlagSet is wrong");
    require(message.isHandshakeFlagSet() == ((flags & 0x1000U) != 0), "isHandshakeFlagSet is wrong");
    require(message.isValid() == expected.isValid(), "isValid is wrong");
}

/// The image is what the fields say, and one frame, whole and alone, to whoever reads it from the line.
void checkImage(gssipMessage const& message, record const& expected)
{
    bytes const image = message.getHeaderAndDataUint8();
    require(image == expected.image(), "the bytes differ from what the fields say");
    require(image.size() == message.getSizeBytes(), "getSizeBytes is wrong");
    if (expected.fields.som == 0x81FF && expected.fields.headerChecksum == expected.rightHeaderChecksum())
    {
        kit::decodedStream const line = kit::decode(image);
        kit::decodedFrame sent = expected.fields;
        sent.data = expected.wordsOnLine();
        sent.dataChecksum = sent.count == 0 ? std::uint16_t{0} : sent.dataChecksum;
        require(line.frames.size() == 1 && line.frames.front() == sent && line.headerErrors == 0,
                "the bytes are not the one frame that they should be");
    }
}

class session
{
  public:
    session(std::uint8_t const* input, std::size_t size) : reader(input, size) {}

    void run()
    {
        while (!reader.isEmpty())
        {
            operate();
            for (observed const& each : messages)
            {
                checkUnlessLarge(each);
            }
        }
        for (observed const& each : messages)
        {
            checkFields(each.message, each.expected);
        }
        for (observed& each : messages)
        {
            checkImage(each.message, each.expected);
            complete(each);
        }
    }

  private:
    using operation = void (session::*)(observed&);

    void operate()
    {
        static std::array<operation, 24> const operations{
            &session::setSOM,         &session::setId,          &session::setFlags,         &session::setCount,
            &session::setCountByData, &session::storeHeaderSum, &session::computeHeaderSum, &session::storeDataSum,
            &session::computeDataSum, &session::setData,        &session::setOwnData,       &session::setTooMuchData,
            &session::changeWord,     &session::appendWords,    &session::resizeData,       &session::setTimes,
            &session::clear,          &session::construct,      &session::copyConstruct,    &session::copyAssign,
            &session::moveConstruct,  &session::moveAssign,     &session::serialise,        &session::complete,
        };
        std::uint8_t const code = reader.byte();
        (this->*operations[code % operations.size()])(messages[code / operations.size() % MESSAGES]);
    }

    /// What is large is checked at the end.
    static void checkUnlessLarge(observed const& each)
    {
        if (each.message.getData().size() <= HARMLESS && each.expected.fields.count <= HARMLESS)
        {
            checkFields(each.message, each.expected);
        }
    }

    std::size_t someCount()
    {
        unsigned const kind = reader.below(16);
        std::size_t const count = kind == 0 ? reader.word() : kind < 4 ? reader.byte() : reader.below(12);
        return count > HARMLESS && ++large > MOST_LARGE ? count % HARMLESS : count;
    }

    observed& other() { return messages[reader.below(MESSAGES)]; }

    void setSOM(observed& on)
    {
        on.expected.fields.som = reader.flag() ? reader.word() : std::uint16_t{0x81FF};
        on.message.setSOM(on.expected.fields.som);
    }

    void setId(observed& on)
    {
        on.expected.fields.id = reader.word();
        on.message.setId(on.expected.fields.id);
    }

    void setFlags(observed& on)
    {
        on.expected.fields.flags = reader.word();
        on.message.setProtocolFlags(on.expected.fields.flags);
    }

    void setCount(observed& on)
    {
        bool const resize = reader.flag();
        setCountOf(on, static_cast<std::uint16_t>(someCount()), resize);
    }

    static void setCountOf(observed& on, std::uint16_t count, bool resize)
    {
        on.message.setDataWordSize(count, resize);
        on.expected.fields.count = count;
        if (resize)
        {
            on.expected.fields.data.resize(count);
        }
    }

    /// The count is one of the words that the call moves.
    void setCountByData(observed& on)
    {
        wordList& data = on.message.getData();
        if (!data.empty())
        {
            std::size_t const place = reader.word() % data.size();
            data[place] = static_cast<std::uint16_t>(someCount());
            on.expected.fields.data[place] = data[place];
            std::uint16_t const count = data[place];
            on.message.setDataWordSize(data[place], true);
            on.expected.fields.count = count;
            on.expected.fields.data.resize(count);
        }
    }

    void storeHeaderSum(observed& on)
    {
        on.expected.fields.headerChecksum = reader.word();
        on.message.setHeaderChecksum(on.expected.fields.headerChecksum);
    }

    void computeHeaderSum(observed& on)
    {
        on.message.setHeaderChecksum();
        on.expected.fields.headerChecksum = on.expected.rightHeaderChecksum();
    }

    void storeDataSum(observed& on)
    {
        on.expected.fields.dataChecksum = reader.word();
        on.message.setDataChecksum(on.expected.fields.dataChecksum);
    }

    void computeDataSum(observed& on)
    {
        on.message.setDataChecksum();
        on.expected.fields.dataChecksum = on.expected.rightDataChecksum();
    }

    void setData(observed& on)
    {
        wordList const words = reader.words(someCount());
        require(on.message.setData(words), "setData refuses what fits");
        on.expected.fields.data = words;
        on.expected.fields.count = static_cast<std::uint16_t>(words.size());
    }

    /// What is set is what is held, or is held by another message.
    void setOwnData(observed& on)
    {
        observed const& from = other();
        bool const fits = from.expected.fields.data.size() <= 65535;
        require(on.message.setData(from.message.getData()) == fits, "setData misjudges data that a message holds");
        if (fits)
        {
            on.expected.fields.data = from.expected.fields.data;
            on.expected.fields.count = static_cast<std::uint16_t>(on.expected.fields.data.size());
        }
    }

    void setTooMuchData(observed& on)
    {
        if (++large <= MOST_LARGE)
        {
            require(!on.message.setData(wordList(65536 + reader.word(), reader.word())), "setData takes too much");
        }
    }

    void changeWord(observed& on)
    {
        if (!on.expected.fields.data.empty())
        {
            std::size_t const place = reader.word() % on.expected.fields.data.size();
            on.expected.fields.data[place] = reader.word();
            on.message.getData()[place] = on.expected.fields.data[place];
        }
    }

    void appendWords(observed& on)
    {
        wordList const words = reader.words(reader.below(8));
        on.message.getData().insert(on.message.getData().end(), words.begin(), words.end());
        on.expected.fields.data.insert(on.expected.fields.data.end(), words.begin(), words.end());
    }

    /// The data alone, also to more than a count can say.
    void resizeData(observed& on)
    {
        std::size_t const words = someCount() + (reader.below(16) == 0 && large < MOST_LARGE ? 65536 : 0);
        on.message.getData().resize(words);
        on.expected.fields.data.resize(words);
    }

    void setTimes(observed& on)
    {
        on.expected.sent_sec = reader.real();
        on.message.setSendTimeStamp(on.expected.sent_sec);
        on.expected.received_sec = reader.real();
        on.message.setReceiveTimeStamp(on.expected.received_sec);
    }

    void clear(observed& on)
    {
        on.message.clear();
        on.expected = {};
    }

    void construct(observed& on)
    {
        std::uint16_t const id = reader.word();
        std::uint16_t const flags = reader.word();
        auto const count = static_cast<std::uint16_t>(someCount());
        on.message = gssipMessage(id, flags, count);
        on.expected = {};
        on.expected.fields.id = id;
        on.expected.fields.flags = flags;
        on.expected.fields.count = count;
        on.expected.fields.data.resize(count);
        on.expected.fields.headerChecksum = on.expected.rightHeaderChecksum();
        require(on.message.isValid(), "a constructed message is not valid");
    }

    /// The copy lives on without its source.
    void copyConstruct(observed& on)
    {
        observed& from = other();
        gssipMessage copy(from.message);
        checkFields(copy, from.expected);
        record const expected = from.expected;
        from.message.clear();
        from.expected = {};
        checkFields(copy, expected);
        on.message = std::move(copy);
        on.expected = expected;
    }

    /// Also from itself.
    void copyAssign(observed& on)
    {
        observed const& from = other();
        on.message = from.message;
        on.expected = from.expected;
    }

    void moveConstruct(observed& on)
    {
        gssipMessage const moved(std::move(on.message));
        checkFields(moved, on.expected);
        on.adoptOpenFields();
    }

    void moveAssign(observed& on)
    {
        observed& from = other();
        if (&from != &on)
        {
            on.message = std::move(from.message);
            on.expected = from.expected;
            from.adoptOpenFields();
        }
    }

    /// Into a vector that holds something already.
    void serialise(observed& on)
    {
        bytes image(reader.word() % 512, 0xEE);
        on.message.getHeaderAndDataUint8(image);
        require(image == on.expected.image(), "the bytes differ when a vector is used again");
        checkImage(on.message, on.expected);
    }

    /// As before it is sent: from here on the message is valid, and comes back from the line as it is.
    void complete(observed& on)
    {
        on.expected.fields.som = 0x81FF;
        on.message.setSOM(0x81FF);
        setCountOf(on, on.expected.fields.count, true);
        computeHeaderSum(on);
        computeDataSum(on);
        require(on.message.isValid(), "a message is not valid with everything right");
        checkImage(on.message, on.expected);
    }

    inputReader reader;
    std::array<observed, MESSAGES> messages;
    unsigned large = 0;
};

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer calls it so
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* input, std::size_t size)
{
    session(input, size).run();
    return 0;
}
