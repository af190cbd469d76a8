#ifndef UART_WIRE_H
#define UART_WIRE_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <random>

namespace cable
{

constexpr std::int64_t NEVER_NS = std::numeric_limits<std::int64_t>::max();

/// Nanoseconds of the monotonic clock.
std::int64_t now_ns();

/// One direction of a cable: takes characters from one socket and gives each to another at the time when its last bit
/// would arrive. What the line cannot carry yet stays with the sender.
class wire
{
  public:
    wire(int fromSocket, int toSocket) : from(fromSocket), to(toSocket) {}

    /// How long one character is on the line, start and stop bits included.
    void setCharacterTime_ns(std::int64_t time_ns) { characterTime_ns = time_ns; }
    /// A line that is held takes nothing more; what is on its way arrives.
    void hold(bool isHeld) { held = isHeld; }
    /// The share of characters that vanish.
    void lose(double share) { lossShare = share; }
    /// The share of characters of which one bit is turned over.
    void flip(double share) { flipShare = share; }
    /// Back to a perfect line. Speed and counts stay.
    void mend();

    std::uint64_t charactersCarried() const { return carried; }
    std::uint64_t charactersSpoilt() const { return spoilt; }

    /// Gives what is due and takes what the line can begin with.
    void step(std::int64_t time_ns);

    /// The socket to wait at for characters, or -1 while none would be taken.
    int awaitedSocket() const { return hasRoom() ? from : -1; }
    /// When the next character is due.
    std::int64_t due_ns() const { return onTheWay.empty() ? NEVER_NS : onTheWay.front().arrival_ns; }

  private:
    struct character
    {
        unsigned char value;
        bool isLost;
        std::int64_t arrival_ns;
    };

    bool hasRoom() const;
    void deliver(std::int64_t time_ns);
    void take(std::int64_t time_ns);
    bool happens(double share);
    character spoiltAsSet(unsigned char value);

    int from;
    int to;
    std::int64_t characterTime_ns = 1041667; // 9600 bit/s, 10 bits
    bool held = false;
    double lossShare = 0.0;
    double flipShare = 0.0;
    std::uint64_t carried = 0;
    std::uint64_t spoilt = 0;
    std::int64_t lineFree_ns = 0;
    std::deque<character> onTheWay;
    std::mt19937 dice{20381};
};

} // namespace cable

#endif
