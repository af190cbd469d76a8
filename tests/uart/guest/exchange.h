#ifndef UART_EXCHANGE_H
#define UART_EXCHANGE_H

#include "line.h"
#include "station.h"

#include <string>

namespace uart
{

/// Two stations on the ends of a line, both with the same settings.
struct stationPair
{
    stationPair(line const& wires, lineSetup const& setup);
    /// False, and a failed expectation, when one of the two cannot start.
    bool start();
    void stop();

    lineSetup setup;
    station left;
    station right;
};

/// Sends that many tracked messages from each end, a few at a time; false when nothing goes for `patience_sec`.
bool feedBoth(stationPair& ends, unsigned first, unsigned count, double patience_sec);

/// Sends that many tracked messages from each end to the other at the same time, and expects each once and in order.
/// Prints the rate and what was sent again.
void exchangeBothWays(stationPair& ends, unsigned first, unsigned count, std::string const& title);

/// How many messages go from each end of a line that spoils characters.
constexpr unsigned MESSAGES_ON_A_BAD_LINE = 500;

/// Sends so many tracked messages from each end while the line spoils two of 1000 characters, and expects that
/// resending brings what did not arrive at the first try.
void exchangeOnABadLine(stationPair& ends, std::string const& title);

/// A few messages each way: the line is as it should be.
void expectExchange(stationPair& ends, unsigned first, std::string const& when);

} // namespace uart

#endif
