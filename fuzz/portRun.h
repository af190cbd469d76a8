#ifndef FUZZ_PORTRUN_H
#define FUZZ_PORTRUN_H

#include "exposedPort.h"
#include "portLedger.h"
#include "portLine.h"
#include "recordingLog.h"
#include "referenceDecoder.h"
#include "settableTime.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace fuzz
{

/// What kind of run it is.
struct runTraits
{
    /// True: one thread uses the port and waits after each operation until all has come about that must, and what comes
    /// about is known in advance. False: another thread receives all the time, nothing is waited for, and only what
    /// holds in any order of events is demanded.
    bool isSettled = true;
    bool hasLongTimeouts = true; ///< of acknowledgements: false brings time-outs about
};

/// A port on a line that a hostile peer holds, and the judge of both.
class portRun
{
  public:
    explicit portRun(runTraits const& ofRun);
    ~portRun();
    portRun(portRun const&) = delete;
    portRun& operator=(portRun const&) = delete;

    // What the application does.
    void start();
    void stop();
    void sendMessage(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data, bool trackAck);
    void sendMessages(std::size_t number, std::uint16_t id, std::uint16_t flags, bool trackAck);
    void sendDtMessages(std::size_t number, std::uint16_t id, std::uint16_t flags);
    void resendMessage(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data);
    void sendRaw(kit::bytes const& content);
    void sendResyncSequence();
    void sendHandshakeReject(unsigned id, bool extra);
    void removeMsgIdFromTxQueue(unsigned id);
    void clearTransmitQueue();
    void serviceTransmitQueue();
    void getMessage(bool waitOnInvalid);
    void setAutoAcknowledge(bool enable);
    void setHandshakeTimeout(double timeout_sec);
    void setReceiveGap(double gap_sec);
    void configure(unsigned speed, unsigned dataBits, PARITY_TYPE parity, unsigned stopBits);
    void advanceClock(double by_sec) { clock.now_sec = clock.now_sec + by_sec; }

    // What the peer does.
    void write(kit::bytes const& data);
    void plug(); ///< another line under the same name; the one before is pulled out
    void unplug();

    /// Waits until all that must come about has; a fault when it does not.
    void settle();

    /// Stops the port, and looks whether every message is where it should be.
    void finish();

    std::uint16_t idOfPending() const; ///< of the tracker's first event; 0 when there is none

  private:
    enum class expectation { nothing, delivered, invalid, failed };

    kit::exposedReceive* receiver() const { return static_cast<kit::exposedReceive*>(port.receiver.get()); }
    kit::exposedSendAckReq& tracker() const { return kit::exposedSendAckReq::of(port.sendAckReq); }
    bool lineWorks() const { return port.serial.isOpen() && isConnected; }

    void readLine();
    void tell(sentItem const& item, int status);
    gssipMessage enterQueued(std::uint16_t id, std::uint16_t flags, std::vector<std::uint16_t> const& data,
                             bool trackAck);
    void excuseWhatMayBeLost();
    void forgetPending();

    std::vector<gssipMessage> queued() const;
    std::vector<gssipSendAckReqEvent> pending() const;
    bool gateIsOpen() const;

    std::string headerErrorText() const
    {
        return "gssipReceive(" + std::to_string(port.portId) + ") Header Checksum ERROR Detected";
    }
    bool hasReceivedAll() const;
    bool isTransmitQuiet();
    bool isAccountedFor(ledger::entry const& entry, std::vector<gssipMessage> const& inQueue) const;
    bool isPendingAsExpected();
    void openGate();
    void checkGate();
    bool isGateShutForLong() const;
    void checkTracker() const;
    void checkLog() const;
    void await(std::function<bool()> const& condition, char const* what);

    expectation expectMessages(bool waitOnInvalid, kit::decodedFrame& last, int& status);
    bool expectMessage(kit::decodedFrame const& frame, int& status, bool& handled);
    void expectAnswer(kit::decodedFrame const& frame, bool isValid, int& status);
    void expectTracked(kit::decodedFrame const& answer);
    bool isQueued(std::uint16_t id) const;
    void checkReceived(bool waitOnInvalid);
    void receiveAlways();

    runTraits const traits;
    pluggableLine line;
    kit::settableTime clock{1000.0};
    kit::recordingLog log;
    mutable kit::exposedPort port{line.name(), clock, &log, false};

    itemSplitter splitter;
    ledger messages;
    std::vector<sentItem> expected; ///< what the port sends on the caller's thread, in that order
    std::vector<sentItem> seen;     ///< of that, what has come

    kit::bytes stream;            ///< towards the port since its last start
    std::size_t taken = 0;        ///< of the messages in it
    std::size_t headerErrors = 0; ///< in former streams
    std::size_t invalidLines = 0;
    std::size_t rejectLines = 0;
    bool gateOpen = false;
    bool longWaitMayLast =
        false; ///< it began before the time-out was made short, and the gate has not been opened since
    static constexpr std::size_t MAY_PASS = SIZE_MAX;
    std::size_t passedShutGate = MAY_PASS; ///< how many had passed when the gate was seen shut, without a time limit
    bool isConnected = false;              ///< the open device is the line that is plugged in
    bool wasDisturbed = false;             ///< failed reads may have been logged

    std::atomic<bool> leaving{false};
    std::thread application; ///< receives all the time, in a run that is not settled
};

} // namespace fuzz

#endif
