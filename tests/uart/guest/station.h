#ifndef UART_STATION_H
#define UART_STATION_H

#include "exposedPort.h"
#include "monotonicTimeStamp.h"
#include "recordingLog.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace uart
{

/// What a message of a test has in front of its data: its number, by which the copies that arrive are counted.
gssipMessage numberedMessage(unsigned number, unsigned dataWords, std::uint16_t flags = gssipMessage::ACK_REQ_FLAG);

/// A line's settings, and time-outs that suit it.
struct lineSetup
{
    unsigned speed = 9600;
    double ackTimeout_sec = 5.0;
    double handshakeTimeout_sec = 0.6;
    PARITY_TYPE parity = PARITY_NONE;

    double byteTime_sec() const { return (parity == PARITY_NONE ? 10.0 : 11.0) / speed; }
};

/// A port that counts what it sends again.
class countingPort : public kit::exposedPort
{
  public:
    using kit::exposedPort::exposedPort;
    ~countingPort() override { stop(); }

    int resendMessage(gssipMessage& message) override;

    std::atomic<unsigned> resent{0};
    std::atomic<double> lastResent_sec{0.0}; ///< monotonic clock
};

/// An application on one end of a line: a port, and a thread that receives and counts.
class station
{
  public:
    explicit station(std::string const& device);
    ~station();
    station(station const&) = delete;
    station& operator=(station const&) = delete;

    int configure(lineSetup const& setup);
    /// Starts port and receiving.
    bool start();
    /// Ends both; false when the port could not be stopped.
    bool stop();

    /// Sends that many tracked messages, with numbers from `first` on.
    void send(unsigned first, unsigned count, unsigned dataWords);

    /// How many messages are queued or await their acknowledgement.
    std::size_t outstanding();
    /// Waits until that many different messages have come; false when none has come for `patience_sec`.
    bool awaitReceived(unsigned count, double patience_sec);
    /// Waits until no message awaits its acknowledgement any more.
    bool awaitSettled(double patience_sec, std::chrono::microseconds look = std::chrono::milliseconds(5));

    /// How many bytes of a message are still to come whose header has come.
    std::size_t promised();

    unsigned received() const;        ///< how many different messages have come
    unsigned repeated() const;        ///< how many of them came more than once
    unsigned disordered() const;      ///< how often a number came that was lower than the one before
    unsigned spoilt() const;          ///< how many came with another content than they were sent with
    double newestArrival_sec() const; ///< when the newest message came out of `getMessage`, by `clock`
    unsigned mostCopies() const;      ///< of one message
    void forget();                    ///< counts from nothing

    kit::recordingLog log;
    monotonicTimeStamp clock;
    countingPort port;

  private:
    void receive();
    void count(gssipMessage const& message);

    std::atomic<bool> leaving{false};
    std::thread receiver;

    mutable std::mutex mutex; ///< guards what follows
    std::vector<std::uint8_t> copies = std::vector<std::uint8_t>(65536);
    unsigned different = 0;
    unsigned repeats = 0;
    unsigned disorders = 0;
    unsigned newest = 0;
    unsigned wrong = 0;
    double arrival_sec = 0.0;
};

} // namespace uart

#endif
