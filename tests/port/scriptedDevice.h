#ifndef SCRIPTEDDEVICE_H
#define SCRIPTEDDEVICE_H

#include "pseudoTerminal.h"
#include "serialPort.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

/// \file
/// A `serialPort` that does what a test tells it and notes every call. Link scriptedDevice.cpp into the test program:
/// it defines the operations of `serialPort` in front of the support library's.

/// The device of the one port of a test.
///
/// A call is noted as its name with its arguments, "setSpeed(9600)" for example. Asking whether it is open is not
/// noted, nor is the receiving. A result is looked up by the whole note first and by the name after that; it is 0 when
/// nothing has been told.
class scriptedDevice
{
  public:
    scriptedDevice();
    ~scriptedDevice();
    scriptedDevice(scriptedDevice const&) = delete;
    scriptedDevice& operator=(scriptedDevice const&) = delete;

    void answer(std::string const& call, int result);

    std::vector<std::string> calls() const;
    void forgetCalls();
    unsigned count(std::string const& call) const;

    /// What `send` was given, call by call.
    std::vector<kit::bytes> sent() const;

    // To be told before the calls that use them; they run on the caller's thread with no lock held.
    std::function<void()> duringOpen;
    std::function<void()> duringClose;
    std::function<void()> duringSend;

    double byteTime_sec = 0.001;           ///< given by `getByteTransmitTime` when that succeeds
    std::string text = "scripted";         ///< given by `getConfigString` in any case
    unsigned char vtimeInForce = 10;       ///< given by `getVminVtime` when that succeeds
    asciiLogInterface* logGiven = nullptr; ///< to the constructor of the device

    // For the operations of `serialPort`.
    int noted(std::string const& name, std::string const& arguments);
    bool isOpen() const;
    void setOpen(bool nowOpen);
    int waitForBytes();
    void interrupt();
    int keepSent(kit::bytes const& bytes);

  private:
    mutable std::mutex mutex; ///< guards everything below
    std::condition_variable changed;
    std::map<std::string, int> answers;
    std::vector<std::string> notes;
    std::vector<kit::bytes> frames;
    bool open = false;
    unsigned wakeUps = 0;
};

#endif
