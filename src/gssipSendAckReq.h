#ifndef GSSIPSENDACKREQ_H
#define GSSIPSENDACKREQ_H

#include "asciiLogInterface.h"
#include "gssipExport.h"
#include "gssipMessage.h"
#include "gssipSendAckReqEvent.h"
#include "pthreadFlag.h"

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <memory>
#include <pthread.h>

class gssipPort;

/// Remembers every sent message that requests acknowledgement until it is acknowledged, resends it once when its time
/// runs out or a NAK comes, and forgets it when its time runs out again or a second NAK comes.
///
/// One thread, "gssipSendAckReq", started and stopped by the port, sleeps until the earliest deadline. Resending runs
/// with `eventQMutex` held, on that thread or on the one that hands in a NAK; the port's virtual `resendMessage` and
/// `getAcknowledgeTimeout_sec` and the application's clock are called there.
///
/// Results are 0 or an error number. Operations may be called from any thread unless they say otherwise.
class GSSIP_EXPORT gssipSendAckReq
{
  public:
    /// Creates mutex and condition, no thread. The port and the log must outlive the tracker; a null log drops every
    /// line.
    gssipSendAckReq(gssipPort& port, asciiLogInterface* log);
    /// The event thread must have been ended.
    ~gssipSendAckReq();
    gssipSendAckReq(gssipSendAckReq const&) = delete;
    gssipSendAckReq& operator=(gssipSendAckReq const&) = delete;

    int initializeEventQ();   ///< creates condition and mutex; the constructor calls it
    int uninitializeEventQ(); ///< destroys them; the destructor calls it

    /// Registers a message that has been written, if it requests acknowledgement. Its deadline counts from its send
    /// time. A failing time conversion is returned, and nothing is registered.
    int processSendAckRequest(gssipMessage& message);

    /// Matches a received message. `handled` becomes true exactly when it is an ACK or NAK without data, pending or
    /// not. An ACK settles the matching event with the earliest deadline; a NAK resends it, or drops it when it has
    /// been resent before.
    int processReceiveAckNak(gssipMessage const& message, bool& handled);

    /// The same for a message whose number, counted from 1 as messages were received, is known: tells an ACK of the
    /// message that is being written from one that had come earlier and waited. 0 is older than any.
    int processReceiveAckNak(gssipMessage const& message, bool& handled, std::uint64_t arrival);

    /// The deadline of a message whose time counts from `time` (seconds of the port's time-stamp source):
    /// acknowledgement time-out and the message's own time on the line later.
    int computeAckNakAbsTimeout(double const& time, gssipMessage const& message, timespec& absTimeout);

    /// The position in the queue of the first event that matches, or -1. The caller holds `eventQMutex`.
    int findFirstEventByEventId(unsigned const& eventId);
    int findFirstEventByMessageId(unsigned short const& messageId); ///< the same for the message's id

    /// Forgets every pending event.
    void clearQueue();

    /// Starts the event thread, which forgets what is pending from before; ends a former one first.
    int initializeEventThread();
    /// Ends the event thread if it exists; the result of waking it.
    int unnitializeEventThread();
    /// Entry of the event thread; `tracker` is the `gssipSendAckReq`. Returns null.
    static void* callEventThread(void* tracker);
    /// Body of the event thread. Returns when `eventThreadRunning` is clear, or with the error that ended it.
    int eventThread();

    /// Resends the event at `index` and gives it a new deadline counted from `time`, or drops it when it has been
    /// resent before. EINVAL for one that is past both. The caller holds `eventQMutex`.
    int processRetransmit(double const& time, int const& index);

  protected:
    friend class gssipPort;

    gssipPort& port;
    pthread_t eventThreadId;                 ///< valid while the event thread exists
    pthreadFlag eventThreadRunning;          ///< set by the event thread once it runs; clear asks it to end
    std::deque<gssipSendAckReqEvent> eventQ; ///< sorted by `eventLess`; guarded by eventQMutex
    std::uint32_t nextEventId;               // guarded by eventQMutex
    /// Guards `eventQ` and `nextEventId`; taken in turn (see `own`), before the port's `sendMutex`. Held while a
    /// message is resent.
    pthread_mutex_t eventQMutex;
    /// With `eventQMutex`: the front of the queue may have changed, or the thread is to stop.
    pthread_cond_t eventQCond;
    asciiLogInterface* log; ///< never null

  private:
    struct GSSIP_HIDDEN privateState;
    class GSSIP_HIDDEN queueAccess;

    /// What has become of a message between the start of its writing and its registration.
    enum class fate { none, awaited, acknowledged, refused };

    /// Tells that a message is about to be written, so that an acknowledgement that comes before the message is
    /// registered finds it. Ended by `registerMessage` or `endAnnouncement`.
    void announce(gssipMessage const& message);
    /// The driver is about to be offered the announced message's first byte; so many messages have been received.
    void announcedIsOnItsWay(std::uint64_t arrivals);
    void endAnnouncement();
    int registerMessage(gssipMessage const& message, bool wasAnnounced);

    bool anyThreadExists() const;
    bool mayRun() const;
    int awaitEventThread();

    // The caller of these holds `eventQMutex`.
    void sortQueue();
    void forget(int index);
    void forgetAll();
    void followClock();
    int enqueue(gssipSendAckReqEvent& event);
    int enqueueAs(fate outcome, gssipSendAckReqEvent& event);
    int matchPending(gssipMessage const& message, int index);
    void matchAnnounced(gssipMessage const& message, std::uint64_t arrival);
    int serveTimeout(std::uint32_t eventId);
    int resend(gssipSendAckReqEvent& event, double const& time);
    int renewDeadline(gssipSendAckReqEvent& event, double const& time);
    void dropEvent(std::uint32_t eventId);

    int serveQueue();

    std::unique_ptr<privateState> own;
};

#endif
