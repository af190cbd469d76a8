#ifndef GSSIPPORTINTERFACE_H
#define GSSIPPORTINTERFACE_H

#include "gssipExport.h"
#include "gssipMessage.h"
#include "serialPort.h"

#include <cstdint>
#include <string>
#include <vector>

/// The face of one GSSIP message port, as applications see it.
///
/// Operations that return `int` return 0 for success and an error number otherwise; no failure is reported by an
/// exception but the exhaustion of memory (`std::bad_alloc`, from which queues are as before). Unless an operation says
/// otherwise it may be called from any thread, at the same time as any other, also from the call-backs that the port
/// makes. `gssipPort` is the implementation; what is said here of blocking and of threads holds for it.
///
/// The order of the virtual operations is part of the binary interface.
class GSSIP_EXPORT gssipPortInterface
{
  public:
    /// Opens the device if it is not open, creates the receiver and starts the four threads.
    ///
    /// True when the port is started (also when it was already). False when the device cannot be opened or a thread
    /// cannot be created: the port then counts as stopped, may keep threads that wait, and can be started again.
    /// Requests for acknowledgement that were pending are forgotten; messages still queued are sent. Calls of `start`
    /// and `stop` from several threads are served one after the other. From a thread of the port's own (that is, from a
    /// call-back on it) a call that would change something returns false and changes nothing.
    virtual bool start() = 0;

    /// Closes the device and ends the threads.
    ///
    /// True when the port is stopped (also when it was already, and after a `start` that failed). A quiet port stops
    /// within milliseconds; a message on its way gets the time that the line needs, at most 2 s. What is queued stays
    /// queued. A thread that waits in `getMessage` returns with -1. For calls from the port's own threads see `start`.
    virtual bool stop() = 0;

    /// Sets the line and the time-outs; may be called before and after `start`.
    ///
    /// \param speed               bit/s, any rate that the driver can make
    /// \param dataBits            5 to 8
    /// \param parity              see PARITY_TYPE
    /// \param stopBits            1 or 2
    /// \param interMsgGapChars    pause to keep between two messages sent, in characters of that framing
    /// \param ackTimeout_sec      how long to wait for an acknowledgement, in seconds after the message was sent
    /// \param handshakeTimeout_sec how long the transmit thread waits for the port to become ready, in seconds;
    ///                            negative waits without limit
    /// \param rxInterCharGapChars receive gap in characters (see `setReceiveInterCharacterGap_sec`)
    /// \return the bitwise OR of the results of all steps; every step is taken whatever the others returned
    virtual int configurePort(unsigned const& speed, unsigned const& dataBits, PARITY_TYPE const& parity,
                              unsigned const& stopBits, unsigned const& interMsgGapChars, double const& ackTimeout_sec,
                              double const& handshakeTimeout_sec, unsigned const& rxInterCharGapChars) = 0;

    /// Replaces `text` by the settings of the device, then a line feed and the time-outs and the gap.
    virtual int getPortConfigStr(std::string& text) = 0;

    /// Seconds to wait for an acknowledgement, not counting the message's own time on the line.
    virtual double getAcknowledgeTimeout_sec() = 0;
    /// Takes effect with the next message that is registered. Must be finite; the value is not checked.
    virtual void setAcknowledgeTimeout_sec(double const& timeout_sec) = 0;

    /// Seconds that the transmit thread waits for the port to become ready before it sends all the same.
    virtual double getHandshakeTimeout_sec() = 0;
    /// Takes effect with the next message; negative waits without limit. The value is not checked.
    virtual void setHandshakeTimeout_sec(double const& timeout_sec) = 0;

    /// The name of the serial device.
    virtual std::string getPort() = 0;

    /// Queues a copy of the message for the transmit thread.
    ///
    /// \param message  its checksums and its send time are set when it is written
    /// \param trackAck true: a message that requests acknowledgement is resent once if none comes, false: it is not
    /// \return always 0; on a port whose device is not open the message is silently dropped
    ///
    /// Never waits for the line.
    virtual unsigned sendMessage(gssipMessage const& message, bool trackAck) = 0;

    /// Calls `sendMessage` for each message, in order. Messages of other threads may come between. Always 0.
    virtual unsigned sendMessages(std::vector<gssipMessage> const& messages, bool trackAck);

    /// Queues `count` messages from `first` on, all tracked, with no message of another thread between them.
    /// The range must exist. All or nothing when memory runs out. Always 0; dropped when the device is not open.
    virtual unsigned sendDtMessages(std::vector<gssipMessage>::const_iterator first, unsigned count) = 0;

    /// Writes 20 bytes of 0xFF, which no receiver takes for a message, between two messages. Blocks for the line.
    virtual int sendResyncSequence() = 0;

    /// Writes a handshake reject at once, ahead of queued messages, and opens the port-ready gate.
    ///
    /// \param id    the message carries its low 16 bits
    /// \param extra adds the extra bit to the flags and writes a log line of level 2 with the whole id
    /// \return the result of the write; blocks for the line
    virtual int sendHandshakeReject(unsigned id, bool extra) = 0;

    /// Writes a message at once, ahead of queued messages; sets its checksums and its send time. Blocks for the line.
    virtual int resendMessage(gssipMessage& message) = 0;

    /// Writes raw bytes, past the queue; they never mix with those of a message. Blocks for the line.
    /// `sent` is the number written. See `serialPort::send` for the results.
    virtual int send(std::uint8_t const* bytes, unsigned const& count, unsigned& sent) = 0;

    /// \param gap       the receive gap in seconds as last set
    /// \param effective null, or set to the gap that the device keeps: whole tenths of a second
    virtual int getReceiveInterCharacterGap_sec(double& gap, double* effective) = 0;

    /// Sets the receive gap; the device keeps it in tenths of a second, rounded up, from 0.1 to 25.5.
    virtual int setReceiveInterCharacterGap_sec(double const& gap) = 0;

    /// Whether `getMessage` answers messages that request acknowledgement with ACK or NAK; true at first.
    virtual void setReceiveAutoAcknowledgeEnable(bool const& enable) = 0;
    /// As last set; true at first. Never blocks.
    virtual bool getReceiveAutoAcknowledgeEnable() = 0;

    /// Takes the next received message that is meant for the application; blocks until there is one.
    ///
    /// Acknowledgements and negative acknowledgements without data are matched with sent messages and not returned;
    /// handshake messages are not returned either. This happens only inside this call: give it a thread of its own,
    /// one for each port.
    ///
    /// \param message       cleared on entry, then filled
    /// \param waitOnInvalid a message that fails `isValid` is logged; then true waits for the next one, false returns 1
    /// \return 0: a message, or, with `message` empty, that the port has no receiver (leave the loop when you stop the
    ///         port); -1: the port is being stopped; 1: an invalid message; otherwise the error of an acknowledgement
    ///         that could not be written or of a resend that could not be scheduled
    virtual int getMessage(gssipMessage& message, bool waitOnInvalid) = 0;

    /// Removes every queued message of that id; ids above 65535 match none.
    virtual void removeMsgIdFromTxQueue(unsigned const& id) = 0;

    /// The number of messages that wait for the transmit thread. Never blocks.
    virtual unsigned getNumberQueuedMessages() = 0;

    /// Removes every queued message.
    virtual void clearTransmitQueue() = 0;

    virtual ~gssipPortInterface() = default;
};

#endif
