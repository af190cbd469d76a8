#ifndef EXAMPLES_DEMOMONITOR_H
#define EXAMPLES_DEMOMONITOR_H

#include <ostream>
#include <string>

namespace examples
{

/// Receives on a real device, acknowledges what asks for it, and prints what arrives until SIGINT, SIGTERM or SIGHUP
/// comes.
///
/// Returns the exit status: 128 + the signal, or 1 when the device cannot be used, which is then told on `errors`.
/// To be called before the program has other threads, which would take the signals.
int monitorDevice(std::string const& device, unsigned speed, std::ostream& out, std::ostream& errors);

} // namespace examples

#endif
