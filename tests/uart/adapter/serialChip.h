#ifndef UART_SERIALCHIP_H
#define UART_SERIALCHIP_H

#include "bitLine.h"
#include "usbRequests.h"

#include <deque>
#include <memory>
#include <string>

namespace adapter
{

/// A USB adapter with one serial port: what its host's driver (ftdi_sio) finds, a queue of 128 characters towards the
/// line and one of 256 from it.
class serialChip
{
  public:
    /// On that socket of the virtual hub, between two directions of a line.
    serialChip(unsigned hubPort, bitLine& toLine, bitLine& fromLine);

    void plugIn();
    void pull();
    int socket() const { return inHub ? inHub->socket() : -1; }

    /// Deals with what the driver asks for.
    void handleRequests();
    /// Sends what the line takes, and answers with what it has brought.
    void advance(std::int64_t time_ns);
    /// Whether there is something that goes on with time.
    bool isBusy() const;

    /// Gives the device file a name that lasts, when the kernel has made it: "/dev/adapter" and the number.
    void nameDevice();

  private:
    void reset();
    std::string nameOfLink() const;
    std::string folderOfDevice() const;
    void take(request const& asked);
    bool cancel(std::uint32_t number);
    void control(request const& asked);
    void controlInput(request const& asked);
    bytes descriptor(unsigned kind, unsigned index) const;
    void setSpeed(unsigned divisor);
    void setFraming(unsigned bits);
    void applySettings();

    void fillFromOutputs();
    void send(std::int64_t time_ns);
    void receive(std::int64_t time_ns);
    void answerInputs(std::int64_t time_ns);
    bool hasSomethingToTell(std::int64_t time_ns) const;
    bytes nextPacket();
    unsigned lineStatus() const;

    unsigned port;
    bitLine& out;
    bitLine& in;
    std::unique_ptr<plug> inHub;

    format settings;
    std::int64_t latency_ns = 16'000'000;
    std::deque<unsigned char> toSend;
    std::deque<character> received;
    bool hasLost = false;        ///< characters for which there was no room, and which the driver does not know of
    std::deque<request> inputs;  ///< not yet answered
    std::deque<request> outputs; ///< not yet answered, the first may be sent in part
    std::size_t outputDone = 0;  ///< of the first
    bool hasToldStatus = false;
    bool isNamed = false;
};

} // namespace adapter

#endif
