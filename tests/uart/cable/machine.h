#ifndef UART_MACHINE_H
#define UART_MACHINE_H

#include <string>
#include <sys/types.h>
#include <vector>

namespace cable
{

/// One end of a stream socket pair, never blocking; the other end is for the machine.
class plug
{
  public:
    plug();
    ~plug();
    plug(plug const&) = delete;
    plug& operator=(plug const&) = delete;

    int ours() const { return ends[0]; }
    int machines() const { return ends[1]; }
    /// Closes the machine's end here, once the machine has it: so our end shows when the machine has gone.
    void handOver();

  private:
    int ends[2] = {-1, -1};
};

/// The emulated machine: qemu as a child process that ends with this one.
class machine
{
  public:
    /// Starts it: `command` as given, behind it the serial ports (each a plug), the port for commands, and the monitor.
    machine(std::vector<std::string> command, std::vector<plug>& lines, plug& commands);

    /// Makes a port of the machine receive a break.
    void sendBreak(unsigned port);
    /// Reads away what the monitor says.
    void readMonitor() const;
    int monitorSocket() const { return monitor.ours(); }

    /// Waits for its end; its exit status, or 128 and the signal.
    int wait() const;

  private:
    void tellMonitor(std::string const& text) const;

    plug monitor;
    pid_t process = -1;
};

} // namespace cable

#endif
