#ifndef GSSIPPORT_H
#define GSSIPPORT_H

#include "asciiLogInterface.h"
#include "gssipExport.h"
#include "gssipMessage.h"
#include "gssipPortInterface.h"
#include "gssipSendAckReq.h"
#include "pthreadFlag.h"
#include "serialPort.h"
#include "timeStampInterface.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <pthread.h>
#include <string>
#include <tuple>
#include <vector>

class gssipReceive;

/// One GSSIP port on one serial device.
///
/// Construct one for each device, configure it, `start` it, send with `sendMessage`, receive with `getMessage` on a
/// thread of your own, `stop` it. The operations are described at `gssipPortInterface`.
///
/// **Threads.** A started port has four: "GP TX", which writes queued messages; "gssipSendAckReq", which resends what
/// was not acknowledged; and the receiver's reading and processing threads. They block all signals. The first two use
/// real-time scheduling (SCHED_RR, 51 and 50) where the process may.
///
/// **Call-backs.** The time-stamp source and the log are used on all of these threads and on the application's, virtual
/// operations likewise. They may call queries and send operations of the port. While the tracker computes a resend it
/// holds its own lock, and framing holds the receiver's: a call-back must not wait for another thread that receives. An
/// exception that leaves a call-back on a thread of the port costs the message or line at hand, nothing else.
///
/// **Lifetime.** The time-stamp source and the log must outlive the port. No other thread may be inside an operation
/// when the port is destroyed. A derived class stops the port in its own destructor: afterwards its overrides are gone.
/// Nothing survives `fork`.
class GSSIP_EXPORT gssipPort : public gssipPortInterface
{
  public:
    /// Neither opens the device nor starts a thread.
    ///
    /// \param portName  the device, for example "/dev/ttyS1"
    /// \param timeStamp the time-stamp source, in seconds
    /// \param log       the log sink; null drops every line
    /// \param option    kept for the application; the port itself does not read it
    gssipPort(std::string const& portName, timeStampInterface& timeStamp, asciiLogInterface* log, bool const& option);

    /// Stops the port if any of its threads exists.
    ~gssipPort() override;

    gssipPort(gssipPort const&) = delete;
    gssipPort& operator=(gssipPort const&) = delete;

    bool start() override;
    bool stop() override;
    int configurePort(unsigned const& speed, unsigned const& dataBits, PARITY_TYPE const& parity,
                      unsigned const& stopBits, unsigned const& interMsgGapChars, double const& ackTimeout_sec,
                      double const& handshakeTimeout_sec, unsigned const& rxInterCharGapChars) override;
    int getPortConfigStr(std::string& text) override;
    double getAcknowledgeTimeout_sec() override;
    void setAcknowledgeTimeout_sec(double const& timeout_sec) override;
    double getHandshakeTimeout_sec() override;
    void setHandshakeTimeout_sec(double const& timeout_sec) override;
    std::string getPort() override;
    unsigned sendMessage(gssipMessage const& message, bool trackAck) override;
    unsigned sendDtMessages(std::vector<gssipMessage>::const_iterator first, unsigned count) override;
    int sendResyncSequence() override;
    int sendHandshakeReject(unsigned id, bool extra) override;
    int resendMessage(gssipMessage& message) override;
    int send(std::uint8_t const* bytes, unsigned const& count, unsigned& sent) override;
    int getReceiveInterCharacterGap_sec(double& gap, double* effective) override;
    int setReceiveInterCharacterGap_sec(double const& gap) override;
    void setReceiveAutoAcknowledgeEnable(bool const& enable) override;
    bool getReceiveAutoAcknowledgeEnable() override;
    int getMessage(gssipMessage& message, bool waitOnInvalid) override;
    void removeMsgIdFromTxQueue(unsigned const& id) override;
    unsigned getNumberQueuedMessages() override;
    void clearTransmitQueue() override;

    /// Discards the whole transmit queue when it holds more than 100 messages; true when it did.
    /// For the application's own housekeeping: no queue is bounded, and nothing in the library calls this.
    bool serviceTransmitQueue();

    /// The number of received messages that wait for `getMessage`; 0 without a receiver. Never blocks.
    unsigned getNumberRxQueuedMessages() const;

  protected:
    friend class gssipReceive;
    friend class gssipSendAckReq;

    int initializeReceiveThread();
    int uninitializeReceiveThread();
    int initializeTransmitThread();
    int uninitializeTransmitThread();

    /// Entry of the transmit thread; `port` is the `gssipPort`. Returns null.
    static void* callTransmitThread(void* port);
    /// Body of the transmit thread: one message a cycle until `txRunning` is clear.
    /// Returns the last result of a write or of a registration.
    int transmitThread();

    /// Shuts the gate that the transmit thread passes before each message.
    void resetPortReady();
    /// Opens the gate. A thread that waits in it at this moment will pass, even if the gate is shut again before it
    /// has looked.
    int signalPortReady();
    /// Waits for the gate: 0 when it is open, else the error of the wait (ETIMEDOUT) or of the time conversion.
    /// A negative time-out waits without limit. The stop of the transmit thread ends the wait with 0.
    int waitForPortReady(double const& timeout_sec);

    /// Writes one whole message: computes both checksums, writes the frame in one piece, stamps the send time whether
    /// or not the write succeeded, and returns the result of the write. Every frame goes through here.
    int _gssipSend(gssipMessage& message);

    /// Answers a message that requests acknowledgement: ACK when it is valid, NAK when not. 0 when no answer was due.
    unsigned sendAcknowledgement(gssipMessage const& received);

    // Fixed after construction.
    std::uint32_t portId; ///< stands in every log line
    serialPort serial;    // safe by itself
    timeStampInterface& timeStamp;

    // Atomic: written by the application, read by every thread.
    std::atomic<bool> started;
    std::atomic<double> ackTimeout_sec;
    std::atomic<double> handshakeTimeout_sec;

    /// Held while a frame is written; taken in turn, after the tracker's `eventQMutex` if at all. Only the device's own
    /// lock is taken while it is held, and no call-back runs.
    pthread_mutex_t sendMutex;

    std::atomic<double> rxInterCharGap_sec; ///< as last set, not as rounded for the device
    std::atomic<bool> rxAutoAck;

    /// Null but from the start to the stop of the receive side; to be read with std::atomic_load. Callers of
    /// `getMessage` share it, so that its queue outlives the stop that they were waiting through.
    std::shared_ptr<gssipReceive> receiver;

    pthread_mutex_t readyMutex; ///< guards `portReady`; nothing is locked or called while it is held
    pthread_cond_t readyCond;   ///< with `readyMutex`: the gate was opened
    bool portReady;             // guarded by readyMutex

    pthread_mutex_t txMutex; ///< guards `txQueue`; nothing is locked or called while it is held
    pthread_cond_t txCond;   ///< with `txMutex`: a message was queued, or the transmit thread is to stop
    std::deque<std::tuple<gssipMessage, bool>> txQueue; ///< message and whether to track it; guarded by txMutex

    pthread_t txThread;    ///< valid while the transmit thread exists
    pthreadFlag txRunning; ///< set by the transmit thread once it runs; clear asks it to end

    gssipSendAckReq sendAckReq; // safe by itself
    bool portOption;
    asciiLogInterface* log; ///< never null

    /// The number of the next port to be constructed.
    static std::atomic<std::uint32_t> nextPortId;

  private:
    struct GSSIP_HIDDEN privateState;
    class GSSIP_HIDDEN queueAccess;
    class GSSIP_HIDDEN announced;

    void initializeSynchronisation();
    void destroySynchronisation();

    bool isOwnThread() const;
    bool anyThreadExists() const;
    void expectStop();
    int stopEverything();
    void endThreads();
    std::shared_ptr<gssipReceive> currentReceiver() const;
    int constructReceiver();

    int transmitNext(gssipMessage& message, int previousStatus);
    bool takeFromQueue(gssipMessage& message, bool& trackAck);
    bool mayTake() const;
    void appendTracked(std::vector<gssipMessage>::const_iterator first, unsigned count);
    int waitForGate(double timeout_sec);
    int writeFrame(gssipMessage& message, std::function<void()> const& beforeFirstByte);
    int writeImage(gssipMessage const& message, std::function<void()> const& beforeFirstByte);
    int writeTracked(gssipMessage& message, bool& offered);
    int writeUntracked(gssipMessage& message, bool& offered);
    void putBack(gssipMessage& message, bool trackAck);

    int deliver(gssipMessage const& message);
    bool acknowledgeAndTrack(gssipMessage const& message, std::uint64_t arrival, int& status, bool& handled);
    bool openGateFor(gssipMessage const& message, bool handled);
    void reportInvalid();

    std::unique_ptr<privateState> own;
};

#endif
