#ifndef KIT_TOLDPORT_H
#define KIT_TOLDPORT_H

#include "checkpoint.h"
#include "exposedPort.h"
#include "pseudoTerminal.h"
#include "recordingLog.h"
#include "sentry.h"
#include "settableTime.h"
#include "waitUntil.h"

#include <atomic>
#include <cstddef>
#include <functional>
#include <pthread.h>
#include <string>
#include <utility>

namespace kit
{

/// Gets every call that a port makes, and acts in one place, named as "operation@thread": the threads are "GP TX",
/// "gssipSendAckReq", "receiver" (both of its threads) and "application" (the one that has made this object).
class application
{
  public:
    void called(std::string const& operation)
    {
        thread_local bool inside = false; // what the action calls brings no further action
        if (!inside && operation + "@" + threadName() == place)
        {
            inside = true;
            ++calls;
            try
            {
                action();
            }
            catch (...)
            {
                inside = false;
                throw;
            }
            inside = false;
        }
    }

    /// To be set while nothing is called.
    void actAt(std::string const& where, std::function<void()> what)
    {
        place = where;
        action = std::move(what);
    }

    std::atomic<int> calls{0};

  private:
    std::string threadName() const
    {
        for (char const* name : {"GP TX", "gssipSendAckReq"})
        {
            if (isThread(name))
            {
                return name;
            }
        }
        return pthread_equal(pthread_self(), testThread) != 0 ? "application" : "receiver";
    }

    pthread_t const testThread = pthread_self();
    std::string place;
    std::function<void()> action;
};

class toldTime : public settableTime
{
  public:
    explicit toldTime(application& owner) : told(owner) {}
    double getTime_sec() override
    {
        told.called("clock");
        return settableTime::getTime_sec();
    }

  private:
    application& told;
};

class toldLog : public recordingLog
{
  public:
    explicit toldLog(application& owner) : told(owner) {}
    void log(double const& time_sec, std::int32_t const& level, std::string const& text) override
    {
        told.called("log");
        recordingLog::log(time_sec, level, text);
    }
    using recordingLog::log;

  private:
    application& told;
};

/// Tells of every virtual operation that a port calls of itself.
class toldPort : public exposedPort
{
  public:
    toldPort(std::string const& name, timeStampInterface& clock, asciiLogInterface* sink, application& owner)
        : exposedPort(name, clock, sink, false), told(owner)
    {}
    ~toldPort() override { stop(); }

    int resendMessage(gssipMessage& message) override
    {
        told.called("resend");
        return exposedPort::resendMessage(message);
    }
    unsigned sendMessage(gssipMessage const& message, bool trackAck) override
    {
        told.called("sendMessage");
        return exposedPort::sendMessage(message, trackAck);
    }
    double getAcknowledgeTimeout_sec() override
    {
        told.called("timeout");
        return exposedPort::getAcknowledgeTimeout_sec();
    }
    void setAcknowledgeTimeout_sec(double const& timeout_sec) override
    {
        told.called("setTimeout");
        exposedPort::setAcknowledgeTimeout_sec(timeout_sec);
    }
    double getHandshakeTimeout_sec() override
    {
        told.called("handshakeTimeout");
        return exposedPort::getHandshakeTimeout_sec();
    }
    void setHandshakeTimeout_sec(double const& timeout_sec) override
    {
        told.called("setHandshakeTimeout");
        exposedPort::setHandshakeTimeout_sec(timeout_sec);
    }
    int getReceiveInterCharacterGap_sec(double& gap, double* effective) override
    {
        told.called("gap");
        return exposedPort::getReceiveInterCharacterGap_sec(gap, effective);
    }
    int setReceiveInterCharacterGap_sec(double const& gap) override
    {
        told.called("setGap");
        return exposedPort::setReceiveInterCharacterGap_sec(gap);
    }
    bool getReceiveAutoAcknowledgeEnable() override
    {
        told.called("autoAcknowledge");
        return exposedPort::getReceiveAutoAcknowledgeEnable();
    }
    unsigned getNumberQueuedMessages() override
    {
        told.called("queued");
        return exposedPort::getNumberQueuedMessages();
    }
    void clearTransmitQueue() override
    {
        told.called("clear");
        exposedPort::clearTransmitQueue();
    }

  private:
    application& told;
};

/// A port on a line, and an application that it tells of everything.
struct toldRig
{
    toldRig() : toldRig(true) {}
    explicit toldRig(bool hasLog) : port(line.name(), clock, hasLog ? &log : nullptr, app) {}

    exposedSendAckReq& tracker() { return exposedSendAckReq::of(port.sendAckReq); }

    bool waitForPending(std::size_t count)
    {
        return waitUntil([&] {
            sentry const lock(tracker().eventQMutex);
            return tracker().eventQ.size() == count;
        });
    }

    application app;
    pseudoTerminal line;
    toldTime clock{app};
    toldLog log{app};
    toldPort port;
};

} // namespace kit

#endif
