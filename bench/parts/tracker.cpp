// What awaits acknowledgement, without the thread that resends.

#include "gssipPort.h"
#include "gssipSendAckReq.h"
#include "messageOf.h"
#include "monotonicTimeStamp.h"
#include "timing.h"

#include <algorithm>
#include <array>
#include <deque>
#include <memory>
#include <stdexcept>

namespace bench
{
namespace
{

/// So many a measurement: one alone is hardly longer than the reading of the clock.
constexpr std::size_t AT_ONCE = 4;

constexpr double PATIENT_SEC = 3600.0;

gssipMessage tracked(std::size_t number)
{
    return messageOf(42, static_cast<std::uint16_t>(number), gssipMessage::ACK_REQ_FLAG);
}

gssipMessage acknowledgementOf(std::uint16_t id)
{
    return gssipMessage(id, gssipMessage::REPLY_FLAG | gssipMessage::ACK_FLAG, 0);
}

/// The library's tracker.
class trackerOfPort
{
  public:
    trackerOfPort() { port.setAcknowledgeTimeout_sec(PATIENT_SEC); }

    /// Sent `age_sec` ago: the older, the earlier its deadline.
    void insert(gssipMessage& message, double age_sec)
    {
        message.setSendTimeStamp(clock.getTime_sec() - age_sec);
        tracker.processSendAckRequest(message);
    }

    void acknowledge(gssipMessage const& acknowledgement)
    {
        bool handled = false;
        tracker.processReceiveAckNak(acknowledgement, handled);
    }

    /// In its place at the back.
    void append(gssipMessage& message) { insert(message, 0); }

    void forget(std::uint16_t id) { acknowledge(acknowledgementOf(id)); }

    std::size_t size() const { return tracker.eventQ.size(); }

  private:
    struct exposed : gssipSendAckReq
    {
        using gssipSendAckReq::eventQ;
        using gssipSendAckReq::gssipSendAckReq;
    };

    monotonicTimeStamp clock;
    gssipPort port{"/dev/null", clock, nullptr, false};
    exposed tracker{port, nullptr};
};

/// The least that keeps events in order: appends and looks at everything, or sorts everything.
class bareEvents
{
  public:
    void insert(gssipMessage& message, double age_sec)
    {
        push(message, age_sec);
        if (age_sec > 0)
        {
            std::sort(queue.begin(), queue.end(), eventLess);
        }
        else
        {
            benchmark::DoNotOptimize(std::is_sorted(queue.begin(), queue.end(), eventLess));
        }
    }

    void acknowledge(gssipMessage const& /*acknowledgement*/) { queue.pop_front(); }

    /// Without a look at the others.
    void append(gssipMessage const& message) { push(message, 0); }

    void forget(std::uint16_t id)
    {
        queue.erase(std::find_if(queue.begin(), queue.end(),
                                 [id](gssipSendAckReqEvent const& event) { return event.message.getId() == id; }));
    }

    std::size_t size() const { return queue.size(); }

  private:
    void push(gssipMessage const& message, double age_sec)
    {
        gssipSendAckReqEvent event;
        event.message = message;
        event.absTimeout.tv_sec = static_cast<std::time_t>(PATIENT_SEC - age_sec);
        event.absTimeout.tv_nsec = static_cast<long>(nextId % 1'000'000'000);
        event.eventId = nextId++;
        queue.push_back(std::move(event));
    }

    std::uint32_t nextId = 0;
    std::deque<gssipSendAckReqEvent> queue;
};

/// So many events that stay, with ids below those of the messages that come and go.
template <typename Events>
class pending
{
  public:
    explicit pending(std::size_t count) : length(count)
    {
        for (std::size_t i = 0; i < AT_ONCE; ++i)
        {
            messages.push_back(tracked(FIRST_PASSING_ID + i));
        }
        for (std::size_t i = 0; i < length; ++i)
        {
            append();
        }
    }

    void append()
    {
        gssipMessage message = tracked(nextMessage++ % FIRST_PASSING_ID);
        events.append(message);
    }

    void forgetPassing()
    {
        for (gssipMessage const& message : messages)
        {
            if (events.size() > length)
            {
                events.forget(message.getId());
            }
        }
        checkLength();
    }

    void checkLength() const
    {
        if (events.size() != length)
        {
            throw std::logic_error("not as many are pending as there should be");
        }
    }

    static constexpr std::size_t FIRST_PASSING_ID = 60000;

    Events events;
    std::vector<gssipMessage> messages;
    std::size_t const length;
    std::size_t nextMessage = 0;
};

template <typename Events>
struct inOrder : pending<Events>
{
    using pending<Events>::pending;
    void prepare() { this->forgetPassing(); }
    void work()
    {
        for (gssipMessage& message : this->messages)
        {
            this->events.insert(message, 0);
        }
    }
};

template <typename Events>
struct outOfOrder : pending<Events>
{
    using pending<Events>::pending;
    void prepare() { this->forgetPassing(); }
    void work()
    {
        double age_sec = 100;
        for (gssipMessage& message : this->messages)
        {
            this->events.insert(message, age_sec++); // before all others
        }
    }
};

/// The oldest of those that are pending when the measurement begins, and the next ones.
template <typename Events>
class acknowledgedOldest : public pending<Events>
{
  public:
    explicit acknowledgedOldest(std::size_t count) : pending<Events>(count + AT_ONCE - 1) {}
    void prepare()
    {
        while (this->events.size() < this->length)
        {
            this->append();
        }
        this->checkLength();
        for (gssipMessage& acknowledgement : acknowledgements)
        {
            acknowledgement = acknowledgementOf(static_cast<std::uint16_t>(next++ % this->FIRST_PASSING_ID));
        }
    }
    void work()
    {
        for (gssipMessage const& acknowledgement : acknowledgements)
        {
            this->events.acknowledge(acknowledgement);
        }
    }

  private:
    std::size_t next = 0;
    std::array<gssipMessage, AT_ONCE> acknowledgements;
};

template <typename Subject>
std::unique_ptr<Subject> made(std::size_t size)
{
    return std::make_unique<Subject>(size);
}

template <typename Events>
void addFor(std::string const& contender, std::size_t count)
{
    add("registration", contender, count, made<inOrder<Events>>);
    add("lateRegistration", contender, count, made<outOfOrder<Events>>);
    add("acknowledgement", contender, count, made<acknowledgedOldest<Events>>);
}

} // namespace

void addTracker()
{
    for (std::size_t const count : {1U, 10U, 100U, 1000U, 10000U})
    {
        addFor<trackerOfPort>("port", count);
        addFor<bareEvents>("deque", count);
    }
}

} // namespace bench
