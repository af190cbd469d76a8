// Changes inputs of the framing target so that whole frames come about: chance alone finds no checksum.

#include "frames.h"
#include "pseudoTerminal.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

// NOLINTNEXTLINE(readability-identifier-naming): of the fuzzer
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* input, std::size_t size, std::size_t mostBytes);

namespace
{

using kit::bytes;

constexpr std::size_t PREFIX = 2; // what stands before the stream
constexpr std::size_t HEADER_BYTES = 10;
constexpr std::size_t CHECKSUM_PLACE = 8;

class mutation
{
  public:
    mutation(bytes& changed, unsigned seed) : input(changed), random(seed) {}

    void apply()
    {
        static std::vector<std::function<void(mutation&)>> const ways{
            &mutation::insertFrame, &mutation::insertFrame,   &mutation::nestFrame,    &mutation::repairHeader,
            &mutation::fitCount,    &mutation::repairData,    &mutation::damageHeader, &mutation::insertRun,
            &mutation::cut,         &mutation::duplicatePart, &mutation::promiseMuch,
        };
        ways[below(ways.size())](*this);
    }

  private:
    std::size_t below(std::size_t limit) { return random() % limit; }

    std::uint16_t word()
    {
        static std::array<std::uint16_t, 10> const favourites{0,      1,      0xFFFF, 0x81FF, 0xFF81,
                                                              0x8800, 0x8400, 0x4000, 0x1000, 0xFFFE};
        return below(2) == 0 ? favourites[below(favourites.size())] : static_cast<std::uint16_t>(random());
    }

    std::vector<std::uint16_t> words()
    {
        std::vector<std::uint16_t> result(below(8) == 0 ? below(120) : below(5));
        std::generate(result.begin(), result.end(), [this] { return word(); });
        return result;
    }

    bytes someFrame()
    {
        std::vector<std::uint16_t> const data = words();
        switch (below(6))
        {
        case 0:
            return kit::frameWithBadHeader(word(), word(), data);
        case 1:
            return data.empty() ? kit::frame(word(), word()) : kit::frameWithBadData(word(), word(), data);
        default:
            return kit::frame(word(), word(), data);
        }
    }

    void insertAt(std::size_t place, bytes const& inserted)
    {
        input.insert(input.begin() + static_cast<std::ptrdiff_t>(place), inserted.begin(), inserted.end());
    }

    std::size_t somePlace() { return PREFIX + below(input.size() - PREFIX + 1); }

    /// A place where a header might stand; behind the input when there is none.
    std::size_t someHeader()
    {
        std::vector<std::size_t> places;
        for (std::size_t place = PREFIX; place + HEADER_BYTES <= input.size(); ++place)
        {
            if (input[place] == 0xFF && input[place + 1] == 0x81)
            {
                places.push_back(place);
            }
        }
        return places.empty() ? input.size() : places[below(places.size())];
    }

    std::uint16_t wordAt(std::size_t place) const
    {
        return static_cast<std::uint16_t>(input[place] + 256U * input[place + 1]);
    }

    void setWordAt(std::size_t place, std::uint16_t value)
    {
        input[place] = static_cast<std::uint8_t>(value % 256);
        input[place + 1] = static_cast<std::uint8_t>(value / 256);
    }

    /// The word behind `count` others that makes their sum 0.
    void balance(std::size_t place, std::size_t count)
    {
        unsigned sum = 0;
        for (std::size_t index = 0; index < count; ++index)
        {
            sum += wordAt(place + 2 * index);
        }
        setWordAt(place + 2 * count, static_cast<std::uint16_t>(0U - sum));
    }

    void insertFrame() { insertAt(somePlace(), someFrame()); }

    /// A frame whose data hold another, or the beginning of one.
    void nestFrame()
    {
        bytes inner = someFrame();
        inner.resize(std::min(inner.size(), 2 * below(inner.size())));
        std::vector<std::uint16_t> data;
        for (std::size_t place = 0; place + 1 < inner.size(); place += 2)
        {
            data.push_back(static_cast<std::uint16_t>(inner[place] + 256U * inner[place + 1]));
        }
        insertAt(somePlace(), kit::frame(word(), word(), data));
    }

    void repairHeader()
    {
        if (std::size_t const place = someHeader(); place < input.size())
        {
            balance(place, CHECKSUM_PLACE / 2);
        }
    }

    /// A header that promises what the input still holds, or a word more or less.
    void fitCount()
    {
        if (std::size_t const place = someHeader(); place < input.size())
        {
            std::size_t const words = (input.size() - place - HEADER_BYTES) / 2;
            setWordAt(place + 4, static_cast<std::uint16_t>(words - below(4)));
            balance(place, CHECKSUM_PLACE / 2);
        }
    }

    void repairData()
    {
        std::size_t const place = someHeader();
        if (place < input.size() && wordAt(place + 4) != 0 &&
            place + HEADER_BYTES + 2 * std::size_t{wordAt(place + 4)} + 2 <= input.size())
        {
            balance(place + HEADER_BYTES, wordAt(place + 4));
        }
    }

    void damageHeader()
    {
        if (std::size_t const place = someHeader(); place < input.size())
        {
            input[place + below(HEADER_BYTES)] ^= static_cast<std::uint8_t>(1U << below(8));
        }
    }

    void insertRun()
    {
        static bytes const favourites{0xFF, 0xFF, 0x81, 0x00};
        insertAt(somePlace(), bytes(1 + below(below(4) == 0 ? 140 : 20), favourites[below(favourites.size())]));
    }

    void cut()
    {
        std::size_t const place = somePlace();
        std::size_t const length = std::min(below(HEADER_BYTES + 4), input.size() - place);
        input.erase(input.begin() + static_cast<std::ptrdiff_t>(place),
                    input.begin() + static_cast<std::ptrdiff_t>(place + length));
    }

    void duplicatePart()
    {
        std::size_t const place = somePlace();
        std::size_t const length = std::min(below(64), input.size() - place);
        bytes const part(input.begin() + static_cast<std::ptrdiff_t>(place),
                         input.begin() + static_cast<std::ptrdiff_t>(place + length));
        insertAt(somePlace(), part);
    }

    /// A right header with a count that an input cannot hold.
    void promiseMuch()
    {
        input[0] ^= static_cast<std::uint8_t>(4U + 8U * below(2)); // whether it is kept
        std::size_t const place = somePlace();
        insertAt(place, kit::frame(word(), word()));
        setWordAt(place + 4, static_cast<std::uint16_t>(below(16) == 0 ? 65535 - below(2) : below(700)));
        balance(place, CHECKSUM_PLACE / 2);
    }

    bytes& input;
    std::minstd_rand random;
};

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the fuzzer calls it so
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* input, std::size_t size, std::size_t mostBytes,
                                               unsigned seed)
{
    if (size < PREFIX || seed % 4 == 0)
    {
        return LLVMFuzzerMutate(input, size, mostBytes);
    }
    bytes changed(input, input + size);
    mutation(changed, seed).apply();
    std::size_t const length = std::min(changed.size(), mostBytes);
    std::copy_n(changed.begin(), length, input);
    return length;
}
