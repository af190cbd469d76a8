#ifndef FUZZ_INPUTREADER_H
#define FUZZ_INPUTREADER_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace fuzz
{

/// Takes values off an input, from its front to its end; behind the end everything is 0.
///
/// One byte more or less in the middle of an input changes what follows and not what stands before, and a mutator can
/// write what is read here.
class inputReader
{
  public:
    inputReader(std::uint8_t const* input, std::size_t size) : next(input), end(input + size) {}

    bool isEmpty() const { return next == end; }

    std::uint8_t byte() { return isEmpty() ? std::uint8_t{0} : *next++; }

    std::uint16_t word()
    {
        unsigned const low = byte();
        return static_cast<std::uint16_t>(low + 256U * byte());
    }

    /// From 0 to `limit` - 1; at most 256 different values.
    unsigned below(unsigned limit) { return byte() % limit; }

    bool flag() { return (byte() & 1U) != 0; }

    /// Any double at all.
    double real()
    {
        std::uint8_t image[sizeof(double)];
        std::generate(std::begin(image), std::end(image), [this] { return byte(); });
        double value = 0;
        std::memcpy(&value, image, sizeof value);
        return value;
    }

    /// As many bytes, or what is left.
    std::vector<std::uint8_t> bytes(std::size_t count)
    {
        std::size_t const taken = std::min<std::size_t>(count, static_cast<std::size_t>(end - next));
        std::vector<std::uint8_t> result(next, next + taken);
        next += taken;
        return result;
    }

    std::vector<std::uint8_t> rest() { return bytes(static_cast<std::size_t>(end - next)); }

    /// So many words, 0 behind the end.
    std::vector<std::uint16_t> words(std::size_t count)
    {
        std::vector<std::uint16_t> result(count);
        std::generate(result.begin(), result.end(), [this] { return word(); });
        return result;
    }

  private:
    std::uint8_t const* next;
    std::uint8_t const* end;
};

} // namespace fuzz

#endif
