#ifndef OPERATIONS_H
#define OPERATIONS_H

#include "exposedPort.h"
#include "pseudoTerminal.h"

#include <functional>
#include <string>
#include <vector>

/// A query or a send operation of a started port, as a call-back may call it.
struct operation
{
    char const* name;
    /// What is not as promised, or nothing.
    std::function<std::string(kit::exposedPort&)> call;
    /// What it brings onto the line sooner or later, piece by piece.
    std::vector<kit::bytes> written;
    /// By way of the transmit queue.
    bool isQueued;
    /// It waits for nobody: not for the line, and not for a call-back that takes its time.
    bool neverWaits;
};

std::vector<operation> const& everyOperation();

#endif
