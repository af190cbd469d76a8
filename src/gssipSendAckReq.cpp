#include "gssipSendAckReq.h"

#include "discardLog.h"
#include "gssipPort.h"
#include "ownedThread.h"
#include "portThread.h"
#include "steadyWait.h"
#include "threadFunctions.h"
#include "timeFunctions.h"
#include "turnstile.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <new>
#include <sched.h>
#include <string>
#include <utility>

using gssipInternal::fairSentry;
using gssipInternal::ownedThread;
using gssipInternal::turnstile;
using gssipInternal::wallClockFollower;

namespace
{

constexpr std::int32_t LEVEL_TRACKER_FAULT = 4;

constexpr char const* THREAD_NAME = "gssipSendAckReq";
constexpr int THREAD_PRIORITY = 50;

// How often an event has been handled after its time ran out or a NAK came.
constexpr std::uint32_t RESEND = 1;
constexpr std::uint32_t GIVE_UP = 2;

// Numbers of arrival. Nothing comes late enough to answer a message that is not on its way yet.
constexpr std::uint64_t NOT_YET = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t JUST_NOW = NOT_YET - 1;

std::string faultText(std::uint32_t portId, char const* what)
{
    std::array<char, 96> text{};
    std::snprintf(text.data(), text.size(), "gssipSendAckReq(%u Failed to %s", portId, what);
    return text.data();
}

template <typename Matches>
int findFirst(std::deque<gssipSendAckReqEvent> const& queue, Matches const& matches)
{
    auto const found = std::find_if(queue.begin(), queue.end(), matches);
    return found == queue.end() ? -1 : static_cast<int>(found - queue.begin());
}

} // namespace

struct gssipSendAckReq::privateState
{
    ownedThread thread;
    turnstile door; ///< before `eventQMutex`

    // Guarded by eventQMutex.
    wallClockFollower clock;
    std::uint16_t announcedId = 0;
    std::size_t inOrder = 0; ///< length of `eventQ` as it was left here, sorted

    /// Of the message that is being written and not yet registered. Changed under eventQMutex; that there is none is
    /// known without it to the writer, who alone announces.
    std::atomic<fate> announced{fate::none};

    /// The number of the first message to be received after the driver was offered the announced message's first byte:
    /// what came before cannot answer it. Without a lock, since the writer's locks come after `eventQMutex`.
    std::atomic<std::uint64_t> firstPossibleAnswer{NOT_YET};
};

/// Holds `eventQMutex`, taken in turn, with the deadlines in step with the wall clock.
class gssipSendAckReq::queueAccess
{
  public:
    explicit queueAccess(gssipSendAckReq& tracker) : lock(tracker.own->door, tracker.eventQMutex)
    {
        tracker.followClock();
    }

  private:
    fairSentry const lock;
};

gssipSendAckReq::gssipSendAckReq(gssipPort& owningPort, asciiLogInterface* logToUse)
    : port(owningPort), eventThreadId(), eventThreadRunning(false), nextEventId(0), eventQMutex(), eventQCond(),
      log(gssipInternal::discardLog::unless(logToUse)), own(std::make_unique<privateState>())
{
    if (initializeEventQ() != 0)
    {
        log->log(LEVEL_TRACKER_FAULT, faultText(port.portId, "initializeEventQ"));
    }
}

gssipSendAckReq::~gssipSendAckReq()
{
    if (uninitializeEventQ() != 0)
    {
        log->log(LEVEL_TRACKER_FAULT, faultText(port.portId, "unInitializeEventQ"));
    }
}

int gssipSendAckReq::initializeEventQ()
{
    int const status = pthread_cond_init(&eventQCond, nullptr);
    return status == 0 ? pthread_mutex_init(&eventQMutex, nullptr) : status;
}

int gssipSendAckReq::uninitializeEventQ()
{
    int const status = pthread_cond_destroy(&eventQCond);
    return status == 0 ? pthread_mutex_destroy(&eventQMutex) : status;
}

int gssipSendAckReq::computeAckNakAbsTimeout(double const& time, gssipMessage const& message, timespec& absTimeout)
{
    double byteTime_sec = 0.0;
    double txTime_sec = 0.0;
    if (port.serial.getByteTransmitTime(byteTime_sec) == 0)
    {
        txTime_sec = static_cast<double>(message.getSizeBytes()) * byteTime_sec;
    }
    double const ackTimeout_sec = port.getAcknowledgeTimeout_sec();
    double const now_sec = port.timeStamp.getTime_sec();
    return doubleToTimespec((ackTimeout_sec + txTime_sec) - (now_sec - time), absTimeout);
}

int gssipSendAckReq::processSendAckRequest(gssipMessage& message)
{
    return registerMessage(message, false);
}

int gssipSendAckReq::registerMessage(gssipMessage const& message, bool wasAnnounced)
{
    if (!message.isAckReqFlagSet())
    {
        return 0;
    }
    gssipSendAckReqEvent event{message, {}, 0, 0};
    for (;;) // once, unless the wall clock has been stepped
    {
        std::uint32_t const doubts = own->clock.doubts();
        if (int const status = computeAckNakAbsTimeout(message.getSendTimeStamp(), event.message, event.absTimeout);
            status != 0)
        {
            return status;
        }
        queueAccess const access(*this);
        if (own->clock.doubts() == doubts) // then the deadline is one of the clock that the others follow
        {
            fate const outcome = wasAnnounced ? own->announced.exchange(fate::none) : fate::none;
            return enqueueAs(outcome, event);
        }
    }
}

/// What was answered while it was being written needs no event, or one that is due at once.
int gssipSendAckReq::enqueueAs(fate outcome, gssipSendAckReqEvent& event)
{
    if (outcome == fate::acknowledged)
    {
        return 0;
    }
    if (outcome == fate::refused)
    {
        event.absTimeout = gssipInternal::toTimespec(gssipInternal::monotonicNow_ns() + own->clock.offset_ns());
    }
    return enqueue(event);
}

int gssipSendAckReq::enqueue(gssipSendAckReqEvent& event)
{
    event.eventId = nextEventId;
    bool const isLast = eventQ.empty() || eventLess(eventQ.back(), event);
    eventQ.push_back(std::move(event));
    ++nextEventId;
    if (isLast && eventQ.size() == own->inOrder + 1) // as a rule: nobody else has changed the queue
    {
        ++own->inOrder;
    }
    else
    {
        sortQueue();
    }
    return pthread_cond_signal(&eventQCond);
}

/// A queue that is in order already is looked at and not moved.
void gssipSendAckReq::sortQueue()
{
    if (!std::is_sorted(eventQ.begin(), eventQ.end(), eventLess))
    {
        std::sort(eventQ.begin(), eventQ.end(), eventLess);
    }
    own->inOrder = eventQ.size();
}

void gssipSendAckReq::forget(int index)
{
    eventQ.erase(eventQ.begin() + index);
    --own->inOrder;
}

void gssipSendAckReq::forgetAll()
{
    eventQ.clear();
    own->inOrder = 0;
}

void gssipSendAckReq::followClock()
{
    if (std::int64_t const step_ns = own->clock.takeStep_ns(); step_ns != 0)
    {
        for (gssipSendAckReqEvent& event : eventQ)
        {
            event.absTimeout = gssipInternal::shifted(event.absTimeout, step_ns);
        }
    }
}

void gssipSendAckReq::announce(gssipMessage const& message)
{
    fairSentry const lock(own->door, eventQMutex);
    own->firstPossibleAnswer = NOT_YET;
    own->announced = fate::awaited;
    own->announcedId = message.getId();
}

void gssipSendAckReq::announcedIsOnItsWay(std::uint64_t arrivals)
{
    own->firstPossibleAnswer = arrivals + 1;
}

void gssipSendAckReq::endAnnouncement()
{
    if (own->announced != fate::none)
    {
        fairSentry const lock(own->door, eventQMutex);
        own->announced = fate::none;
    }
}

int gssipSendAckReq::processReceiveAckNak(gssipMessage const& message, bool& handled)
{
    return processReceiveAckNak(message, handled, JUST_NOW);
}

int gssipSendAckReq::processReceiveAckNak(gssipMessage const& message, bool& handled, std::uint64_t arrival)
{
    handled = false;
    if (!message.isAckMsgFlagSet() && !message.isNakMsgFlagSet())
    {
        return 0;
    }
    if (!message.isHeaderMessage())
    {
        return 0;
    }
    fairSentry const lock(own->door, eventQMutex);
    int status = 0;
    int const index = findFirstEventByMessageId(message.getId());
    if (index == -1)
    {
        matchAnnounced(message, arrival);
    }
    else
    {
        status = matchPending(message, index);
    }
    handled = true;
    return status;
}

int gssipSendAckReq::matchPending(gssipMessage const& message, int index)
{
    if (message.isAckMsgFlagSet())
    {
        forget(index);
        return pthread_cond_signal(&eventQCond);
    }
    followClock();
    gssipInternal::portThread const mark(port); // a call-back that stopped the port now would wait for this very lock
    int const status = processRetransmit(message.getReceiveTimeStamp(), index);
    return status == 0 ? pthread_cond_signal(&eventQCond) : status;
}

/// The answer may be faster than the registration of what it answers; an ACK then outweighs a NAK.
void gssipSendAckReq::matchAnnounced(gssipMessage const& message, std::uint64_t arrival)
{
    if (own->announced == fate::none || own->announcedId != message.getId() || arrival < own->firstPossibleAnswer)
    {
        return;
    }
    if (message.isAckMsgFlagSet())
    {
        own->announced = fate::acknowledged;
    }
    else if (own->announced == fate::awaited)
    {
        own->announced = fate::refused;
    }
}

int gssipSendAckReq::findFirstEventByEventId(unsigned const& eventId)
{
    return findFirst(eventQ, [&](gssipSendAckReqEvent const& event) { return event.eventId == eventId; });
}

int gssipSendAckReq::findFirstEventByMessageId(unsigned short const& messageId)
{
    return findFirst(eventQ, [&](gssipSendAckReqEvent const& event) { return event.message.getId() == messageId; });
}

void gssipSendAckReq::clearQueue()
{
    queueAccess const access(*this);
    forgetAll();
}

int gssipSendAckReq::initializeEventThread()
{
    if (own->thread.exists())
    {
        unnitializeEventThread(); // never two on one queue
    }
    pthread_attr_t attributes;
    if (int const status = pthread_attr_init(&attributes); status != 0)
    {
        eventThreadRunning.clear();
        return status;
    }
    int status = setPthreadAttributes(PTHREAD_CREATE_JOINABLE, SCHED_RR, THREAD_PRIORITY, PTHREAD_EXPLICIT_SCHED,
                                      PTHREAD_SCOPE_SYSTEM, attributes);
    eventThreadRunning.clear();
    if (status != 0)
    {
        return status;
    }
    int const created = own->thread.create(eventThreadId, attributes, callEventThread, this);
    // A thread that does not exist cannot be named: its creation's failure stands for that of its naming.
    int const named = created == 0 ? pthread_setname_np(eventThreadId, THREAD_NAME) : created;
    // Both must have failed: a thread without its name does its work as well.
    status = created & named;
    if (status == 0)
    {
        status = pthread_attr_destroy(&attributes);
    }
    return status == 0 ? awaitEventThread() : status;
}

int gssipSendAckReq::awaitEventThread()
{
    own->thread.awaitRunning();
    while (eventThreadRunning.isClear())
    {
        // Not entered: the thread sets the flag before it announces itself.
    }
    return 0;
}

int gssipSendAckReq::unnitializeEventThread()
{
    own->thread.requestStop();
    eventThreadRunning.clear();
    int status = 0;
    {
        queueAccess const access(*this);
        status = pthread_cond_signal(&eventQCond);
    }
    own->thread.join(eventThreadId);
    eventThreadRunning.clear(); // again: the thread may have started only after the stop
    return status;
}

void* gssipSendAckReq::callEventThread(void* tracker)
{
    static_cast<gssipSendAckReq*>(tracker)->eventThread();
    return nullptr;
}

int gssipSendAckReq::eventThread()
{
    gssipInternal::portThread const mark(port);
    {
        queueAccess const access(*this); // one hold: nothing can be registered between the flag and the emptying
        eventThreadRunning.set();
        forgetAll();
    }
    own->thread.announceRunning();
    int status = 0;
    while (status == 0 && mayRun())
    {
        status = serveQueue();
    }
    return status;
}

bool gssipSendAckReq::anyThreadExists() const
{
    return own->thread.exists();
}

bool gssipSendAckReq::mayRun() const
{
    return eventThreadRunning.isSet() && !own->thread.stopRequested();
}

/// One wait, and what follows from it.
int gssipSendAckReq::serveQueue()
{
    queueAccess const access(*this);
    if (!mayRun()) // looked at under the lock that the waits release: a stop cannot slip in between
    {
        return 0;
    }
    if (eventQ.empty())
    {
        return pthread_cond_wait(&eventQCond, &eventQMutex);
    }
    std::uint32_t const earliest = eventQ.front().eventId;
    int const status =
        gssipInternal::waitUntilWall(eventQCond, eventQMutex, eventQ.front().absTimeout, own->clock.latest_ns());
    return status == ETIMEDOUT ? serveTimeout(earliest) : status;
}

int gssipSendAckReq::serveTimeout(std::uint32_t eventId)
{
    followClock();
    int const index = findFirstEventByEventId(eventId);
    if (index == -1) // answered while its time ran out
    {
        return 0;
    }
    try
    {
        return processRetransmit(port.timeStamp.getTime_sec(), index);
    }
    catch (...) // from a call-back, or for want of memory: costs this message, and is not tried again
    {
        dropEvent(eventId);
        return 0;
    }
}

void gssipSendAckReq::dropEvent(std::uint32_t eventId)
{
    int const index = findFirstEventByEventId(eventId);
    if (index != -1)
    {
        forget(index);
    }
}

int gssipSendAckReq::processRetransmit(double const& time, int const& index)
{
    gssipSendAckReqEvent& event = eventQ.at(static_cast<std::size_t>(index));
    switch (++event.retransmitCount)
    {
    case RESEND:
        return resend(event, time);
    case GIVE_UP:
        forget(index);
        return 0;
    default:
        return EINVAL;
    }
}

int gssipSendAckReq::resend(gssipSendAckReqEvent& event, double const& time)
{
    try
    {
        port.resendMessage(
            event.message); // a copy that could not be written is as good as one that was lost on the line
    }
    catch (std::bad_alloc const&) // there was no memory for its image, so nothing was written: the event is as before
    {
        --event.retransmitCount;
        throw;
    }
    int const status = renewDeadline(event, time);
    sortQueue();
    return status;
}

int gssipSendAckReq::renewDeadline(gssipSendAckReqEvent& event, double const& time)
{
    int status = 0;
    std::uint32_t doubts = 0;
    do // once, unless the wall clock has been stepped
    {
        doubts = own->clock.doubts();
        status = computeAckNakAbsTimeout(time, event.message, event.absTimeout);
        followClock();
    } while (own->clock.doubts() != doubts);
    return status;
}
