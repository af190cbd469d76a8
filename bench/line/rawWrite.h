#ifndef BENCH_RAWWRITE_H
#define BENCH_RAWWRITE_H

#include "process.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace bench
{

inline std::size_t countOf(ssize_t result, char const* what)
{
    if (result <= 0)
    {
        throw std::system_error(errno, std::generic_category(), what);
    }
    return static_cast<std::size_t>(result);
}

/// One write(2) a message, unless the line has no room for all of it.
inline void writeAll(int descriptor, std::uint8_t const* bytes, std::size_t count)
{
    for (std::size_t done = 0; done < count;)
    {
        done += countOf(::write(descriptor, bytes + done, count - done), "write");
    }
}

inline std::size_t readSome(int descriptor, std::uint8_t* bytes, std::size_t capacity)
{
    return countOf(::read(descriptor, bytes, capacity), "read");
}

inline void readAll(int descriptor, std::uint8_t* bytes, std::size_t count)
{
    for (std::size_t done = 0; done < count;)
    {
        done += readSome(descriptor, bytes + done, count - done);
    }
}

/// The floor of the line itself: write(2) against read(2) on the callers' threads.
class rawWrite
{
  public:
    using message = std::vector<std::uint8_t>;

    rawWrite(int descriptor, std::size_t receivedBytes) : line(descriptor), length(receivedBytes) {}

    static message make(std::size_t bytes) { return message(bytes, 0x55); }

    void send(message const& toSend) { writeAll(line, toSend.data(), toSend.size()); }

    void receive(message& received)
    {
        received.resize(length);
        readAll(line, received.data(), length);
    }

  private:
    int const line;
    std::size_t const length;
};

} // namespace bench

#endif
