#ifndef BENCH_PORTEND_H
#define BENCH_PORTEND_H

#include "gssipPort.h"
#include "messageOf.h"
#include "monotonicTimeStamp.h"
#include "process.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

namespace bench
{

/// Acknowledgement time-out of ports whose messages must not be resent while they are measured.
constexpr double PATIENT_SEC = 300.0;

/// The library as an application uses it.
class portEnd : public gssipPort
{
  public:
    using message = gssipMessage;

    explicit portEnd(std::string const& device) : gssipPort(device, clock, nullptr, false)
    {
        configurePort(115200, 8, PARITY_NONE, 1, 0, PATIENT_SEC, 0.6, 5);
    }
    ~portEnd() override { stop(); }
    portEnd(portEnd const&) = delete;
    portEnd& operator=(portEnd const&) = delete;

    static gssipMessage make(std::size_t bytes) { return messageOf(bytes); }

    void send(gssipMessage const& toSend) { sendMessage(toSend, true); }
    using gssipPort::send;

    void receive(gssipMessage& received)
    {
        if (getMessage(received, false) != 0)
        {
            throw std::runtime_error("getMessage failed");
        }
    }

  private:
    monotonicTimeStamp clock;
};

/// A port that tells of every acknowledgement that it takes, on the thread in `getMessage`, just before it settles it.
class confirmedPort : public portEnd
{
  public:
    confirmedPort(std::string const& device, std::function<void()> whenAcknowledged)
        : portEnd(device), acknowledged(std::move(whenAcknowledged))
    {}
    ~confirmedPort() override { stop(); }
    confirmedPort(confirmedPort const&) = delete;
    confirmedPort& operator=(confirmedPort const&) = delete;

    int getMessage(gssipMessage& received, bool waitOnInvalid) override
    {
        beingTaken = &received;
        return gssipPort::getMessage(received, waitOnInvalid);
    }

    /// `getMessage` asks once about each message that it takes, which stands in the caller's object by then.
    bool getReceiveAutoAcknowledgeEnable() override
    {
        if (beingTaken != nullptr && beingTaken->isAckMsgFlagSet())
        {
            acknowledged();
        }
        return gssipPort::getReceiveAutoAcknowledgeEnable();
    }

  private:
    inline static thread_local gssipMessage const* beingTaken = nullptr; ///< null on threads not in `getMessage`

    std::function<void()> const acknowledged;
};

/// A port on that device that has been started on the caller's processor.
template <typename Port, typename... Arguments>
Port& startedPort(std::string const& device, Arguments&&... arguments)
{
    auto& port = everlasting<Port>(device, std::forward<Arguments>(arguments)...);
    if (!port.start())
    {
        throw std::runtime_error("cannot start a port on " + device);
    }
    return port;
}

} // namespace bench

#endif
