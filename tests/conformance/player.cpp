#include "player.h"

#include "inWords.h"

#include <stdexcept>

namespace conformance
{
namespace
{

constexpr duration untilAllHasCome{0.05};
constexpr std::uint16_t closingId = 0xFFFF;
constexpr std::uint16_t request = 0x4000;

bytes const closingRequest{0xFF, 0x81, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x40, 0x02, 0x3E};
bytes const closingAck{0xFF, 0x81, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x88, 0x02, 0xF6};

/// A reaction that is not the one expected.
class mismatch : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

std::uint16_t checksumOf(std::vector<std::uint16_t> const& words)
{
    unsigned sum = 0;
    for (std::uint16_t const word : words)
    {
        sum += word;
    }
    return static_cast<std::uint16_t>(0U - sum);
}

deliveredMessage asDelivered(expectMessage const& expected)
{
    messageFields const& fields = expected.fields;
    return {fields.id, fields.flags, fields.data, fields.dataChecksum.value_or(checksumOf(fields.data)),
            expected.invalid};
}

bool same(deliveredMessage const& one, deliveredMessage const& other)
{
    return one.id == other.id && one.flags == other.flags && one.data == other.data &&
           one.dataChecksum == other.dataChecksum && one.invalid == other.invalid;
}

std::string withPortNumber(std::string text, std::string const& number)
{
    std::size_t const at = text.find("(PORT");
    return at == std::string::npos ? text : text.replace(at + 1, 4, number);
}

/// Does what the statements say, one after the other.
class performer
{
  public:
    performer(subject& on, duration patienceGiven) : with(on), patience(patienceGiven) {}

    void perform(step const& next)
    {
        request = next.text;
        std::visit(*this, next.what);
    }

    void operator()(putBytes const& todo) { with.put(todo.content); }
    void operator()(markTime const& /*todo*/) { mark = steadyClock::now(); }
    void operator()(sendMessage const& todo) { with.send(todo, request); }
    void operator()(sendReject const& todo) { with.reject(todo, request); }
    void operator()(sendFiller const& /*todo*/) { with.filler(request); }

    void operator()(expectBytes const& expected)
    {
        duration const earliest = notBefore(expected);
        bytes come;
        for (std::uint8_t const byte : expected.content)
        {
            std::optional<timedByte> const next = with.seen.takeByte(limitAfter(earliest));
            if (!next)
            {
                fail(expected.content, "only " + std::to_string(come.size()) + " of them: " + inWords(come));
            }
            come.push_back(next->value);
            if (next->value != byte)
            {
                fail(expected.content, inWords(come) + restOfTheBytes());
            }
            if (come.size() == 1 && next->arrived - mark < earliest)
            {
                throw mismatch("expected no sooner than " + std::to_string(earliest.count()) +
                               " s after the mark, and came after " +
                               std::to_string(duration(next->arrived - mark).count()) + " s");
            }
        }
    }

    void operator()(expectMessage const& expected)
    {
        if (!with.showsApplication())
        {
            return;
        }
        deliveredMessage const wanted = asDelivered(expected);
        std::optional<deliveredMessage> const come = with.seen.takeMessage(limitAfter(duration(0)));
        if (!come || !same(*come, wanted))
        {
            throw mismatch("expected '" + inWords(wanted) + "', came " +
                           (come ? "'" + inWords(*come) + "'" : "no message, but " + with.seen.describe()));
        }
    }

    void operator()(expectLine const& expected)
    {
        if (!with.showsApplication())
        {
            return;
        }
        loggedLine const wanted{expected.level, withPortNumber(expected.text, with.portNumber())};
        std::optional<loggedLine> const come = with.seen.takeLine(limitAfter(duration(0)));
        if (!come || come->level != wanted.level || come->text != wanted.text)
        {
            throw mismatch("expected '" + inWords(wanted) + "', came " +
                           (come ? "'" + inWords(*come) + "'" : "no line, but " + with.seen.describe()));
        }
    }

    void operator()(expectSilence const& expected)
    {
        if (!with.seen.quietFor(duration(expected.duration_sec)))
        {
            with.seen.quietFor(untilAllHasCome);
            throw mismatch("expected nothing, came " + with.seen.describe());
        }
    }

    void operator()(expectImage const& expected)
    {
        bytes const image = with.imageOf(expected.fields);
        if (image != expected.image)
        {
            fail(expected.image, inWords(image));
        }
    }

  private:
    [[noreturn]] static void fail(bytes const& wanted, std::string const& come)
    {
        throw mismatch("expected the bytes " + inWords(wanted) + ", came " + come);
    }

    steadyClock::time_point limitAfter(duration earliest) const
    {
        return steadyClock::now() + std::chrono::duration_cast<steadyClock::duration>(earliest + patience);
    }

    duration notBefore(expectBytes const& expected) const
    {
        lineTime const time = expected.notBefore.value_or(lineTime{});
        return duration(time.seconds) + time.characters * with.characterTime();
    }

    /// What comes right behind a byte that is wrong helps to see why it is.
    std::string restOfTheBytes()
    {
        bytes rest;
        auto const limit = steadyClock::now() + std::chrono::duration_cast<steadyClock::duration>(untilAllHasCome);
        for (std::optional<timedByte> next = with.seen.takeByte(limit); next; next = with.seen.takeByte(limit))
        {
            rest.push_back(next->value);
        }
        return rest.empty() ? std::string{} : " " + inWords(rest);
    }

    subject& with;
    duration patience;
    std::string request;
    steadyClock::time_point mark;
};

/// Shows that nothing has come before, and that the other side is ready for another vector: it searches a start of
/// message, and its gate is open.
void exchange(performer& performs, bool answers)
{
    performs(putBytes{closingRequest});
    if (answers)
    {
        performs(expectBytes{closingAck, std::nullopt});
    }
    performs(expectMessage{{closingId, request, {}, std::nullopt}, false});
    performs(putBytes{closingAck});
}

/// A reaction that no statement has asked for stands before those to the closing exchange.
void close(performer& performs, bool answers)
try
{
    exchange(performs, answers);
}
catch (mismatch const& fault)
{
    throw mismatch(std::string("behind the last statement, in the closing exchange: ") + fault.what());
}

void expectNothingLeft(subject const& with)
{
    if (!with.seen.nothingLeft())
    {
        throw mismatch("behind the last statement nothing was expected, came " + with.seen.describe());
    }
}

verdict playSteps(testVector const& vector, std::string const& path, subject& with, duration patience)
{
    performer performs(with, patience);
    unsigned line = vector.steps.front().line;
    try
    {
        for (step const& each : vector.steps)
        {
            line = each.line;
            performs.perform(each);
        }
        close(performs, vector.settings.answers);
        expectNothingLeft(with);
        return {};
    }
    catch (mismatch const& fault)
    {
        with.seen.quietFor(untilAllHasCome);
        with.seen.forget();
        return {verdict::failed, path + ":" + std::to_string(line) + ": " + fault.what()};
    }
}

} // namespace

verdict play(testVector const& vector, std::string const& path, subject& with, duration patience)
{
    std::string const obstacle = with.whyNot(vector);
    if (!obstacle.empty())
    {
        return {verdict::skipped, obstacle};
    }
    with.begin(vector.settings);
    verdict const result = playSteps(vector, path, with, patience);
    with.end();
    return result;
}

std::string whyNoExchange(subject& with, duration patience)
try
{
    performer performs(with, patience);
    with.begin({});
    exchange(performs, true);
    with.end();
    return {};
}
catch (mismatch const& fault)
{
    return fault.what();
}

} // namespace conformance
