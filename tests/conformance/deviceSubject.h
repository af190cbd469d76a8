#ifndef CONFORMANCE_DEVICESUBJECT_H
#define CONFORMANCE_DEVICESUBJECT_H

#include "serialPort.h"
#include "streamLog.h"
#include "subject.h"

#include <atomic>
#include <iostream>
#include <string>
#include <thread>

namespace conformance
{

/// The line's settings.
struct lineFraming
{
    unsigned speed = 9600;
    unsigned dataBits = 8;
    PARITY_TYPE parity = PARITY_NONE;
    unsigned stopBits = 1;
};

/// Another implementation at the far end of a serial line: what it writes can be seen, and nothing else.
class deviceSubject : public subject
{
  public:
    /// Opens the device; throws `std::system_error`. `applicationCommand` is run for what the application at the far
    /// end is to do; empty when there is none.
    deviceSubject(std::string const& device, lineFraming const& framing, std::string applicationCommand);
    ~deviceSubject() override;

    std::string whyNot(testVector const& vector) const override;
    void begin(portSettings const& settings) override;
    void end() override {}
    void put(bytes const& content) override;
    void send(sendMessage const& message, std::string const& request) override;
    void reject(sendReject const& rejected, std::string const& request) override;
    void filler(std::string const& request) override;
    bytes imageOf(messageFields const& fields) const override;
    bool showsApplication() const override { return false; }
    std::string portNumber() const override { return {}; }
    duration characterTime() const override;

  private:
    void open(lineFraming const& framing);
    void receive();
    void ask(std::string const& request) const;

    streamLog log{std::cerr};
    mutable serialPort line;
    std::string command;
    std::atomic<bool> closing{false};
    std::thread receiver;
};

} // namespace conformance

#endif
