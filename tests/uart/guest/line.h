#ifndef UART_LINE_H
#define UART_LINE_H

#include <cstdint>
#include <string>

namespace uart
{

class line;

/// Makes a line to test on.
using lineMaker = line (*)();

/// Two devices that are wired to each other, and what can be done to the line between them. Ends are 0 and 1; what is
/// sent from an end is meant where an end stands for a direction.
class line
{
  public:
    /// A pair of the four serial ports: 0 or 1. What keeps their line is outside of the machine.
    static line betweenUarts(unsigned pair);
    /// Two USB adapters, whose line is kept by the program that emulates them. It sees how its ends are set.
    static line betweenAdapters();
    ~line();
    line(line&& other) noexcept;
    line(line const&) = delete;
    line& operator=(line const&) = delete;

    std::string device(unsigned end) const;

    /// The line does not see how its ends are set: it must be told, in both directions.
    void setSpeed(unsigned bitsPerSecond, unsigned bitsPerCharacter = 10);
    void hold(unsigned end, bool isHeld);
    void lose(unsigned end, double share);
    void flip(unsigned end, double share);
    /// A perfect line in both directions.
    void mend();
    /// The device at that end receives a break.
    void sendBreak(unsigned end);

    /// Takes an adapter out, or puts it in again.
    void pull(unsigned end);
    void plug(unsigned end);

    struct counts
    {
        std::uint64_t carried;
        std::uint64_t spoilt;
    };
    counts count(unsigned end);

  private:
    line(int commandDescriptor, std::string devicePrefix, unsigned first);

    std::string ask(std::string const& verb, unsigned end, std::string const& values);
    void tell(std::string const& verb, unsigned end, std::string const& values);

    int descriptor;
    std::string prefix;
    unsigned firstNumber;
};

inline line firstPair()
{
    return line::betweenUarts(0);
}

inline line secondPair()
{
    return line::betweenUarts(1);
}

} // namespace uart

#endif
