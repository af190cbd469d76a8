#ifndef UART_COMMANDS_H
#define UART_COMMANDS_H

#include "machine.h"
#include "wire.h"

#include <string>
#include <vector>

namespace cable
{

/// Answers the lines of text with which the machine sets its own cable. N is the port that sends:
///
///     speed N BITS_PER_SECOND BITS_PER_CHARACTER
///     hold N 0|1
///     lose N SHARE
///     flip N SHARE
///     mend N             a perfect line again
///     count N            answers with the characters carried and the characters spoilt
///     break N            port N receives a break
///
/// Every line is answered by one: "ok", what was asked for, or "?" for a line that makes no sense.
class commands
{
  public:
    commands(int ownSocket, std::vector<wire>& allWires, machine& ownMachine)
        : socket(ownSocket), wires(allWires), target(ownMachine)
    {}

    /// Reads what has come and answers; false when the machine has gone.
    bool step();

  private:
    std::string answer(std::string const& line);
    std::string apply(std::string const& verb, unsigned port, std::vector<double> const& values);

    int socket;
    std::vector<wire>& wires; // numbered as the ports that send
    machine& target;
    std::string unfinished;
};

} // namespace cable

#endif
