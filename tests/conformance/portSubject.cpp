#include "portSubject.h"

#include "exposedPort.h"
#include "messages.h"
#include "monotonicTimeStamp.h"
#include "processState.h"
#include "pseudoTerminal.h"

#include <atomic>
#include <stdexcept>
#include <thread>

namespace conformance
{
namespace
{

class lineKeeper : public asciiLogInterface
{
  public:
    explicit lineKeeper(reactions& keep) : kept(keep) {}

    void log(std::int32_t const& level, std::string const& text) override { kept.putLine({level, text}); }
    void log(double const& /*time_sec*/, std::int32_t const& level, std::string const& text) override
    {
        kept.putLine({level, text});
    }

  private:
    reactions& kept;
};

/// Takes what the port writes off the line's far end.
class lineWatch
{
  public:
    lineWatch(kit::pseudoTerminal& ofLine, reactions& keep) : line(ofLine), kept(keep), thread([this] { run(); }) {}
    ~lineWatch()
    {
        stopped = true;
        thread.join();
    }
    lineWatch(lineWatch const&) = delete;
    lineWatch& operator=(lineWatch const&) = delete;

  private:
    void run()
    {
        while (!stopped)
        {
            kit::bytes const next = line.read(1, std::chrono::milliseconds(20));
            kept.putBytes(next.data(), next.size());
        }
    }

    kit::pseudoTerminal& line;
    reactions& kept;
    std::atomic<bool> stopped{false};
    std::thread thread;
};

/// The application's receiving thread.
class receiveLoop
{
  public:
    receiveLoop(gssipPort& ofPort, bool skipInvalid, reactions& keep)
        : port(ofPort), waitOnInvalid(skipInvalid), kept(keep), thread([this] { run(); })
    {}
    ~receiveLoop()
    {
        leaving = true;
        port.stop();
        thread.join();
    }
    receiveLoop(receiveLoop const&) = delete;
    receiveLoop& operator=(receiveLoop const&) = delete;

  private:
    void run()
    {
        gssipMessage message;
        while (!leaving)
        {
            int const status = port.getMessage(message, waitOnInvalid);
            if (!leaving)
            {
                kept.putMessage({message.getId(), message.getProtocolFlags(), message.getData(),
                                 message.getDataChecksum(), status == 1});
            }
        }
    }

    gssipPort& port;
    bool waitOnInvalid;
    reactions& kept;
    std::atomic<bool> leaving{false};
    std::thread thread;
};

std::unique_ptr<kit::exposedPort> startPort(kit::pseudoTerminal const& line, monotonicTimeStamp& clock,
                                            asciiLogInterface& log, portSettings const& settings)
{
    auto port = std::make_unique<kit::exposedPort>(line.name(), clock, &log, false);
    port->setAcknowledgeTimeout_sec(settings.acknowledgeTimeout_sec);
    port->setHandshakeTimeout_sec(settings.handshakeTimeout_sec);
    port->setReceiveAutoAcknowledgeEnable(settings.answers);
    if (!port->start())
    {
        throw std::runtime_error("the port does not start on " + line.name());
    }
    return port;
}

gssipMessage messageOf(messageFields const& fields)
{
    return kit::message(fields.id, fields.flags, fields.data);
}

} // namespace

class portSubject::runningPort
{
  public:
    runningPort(portSettings const& settings, reactions& keep)
        : log(keep), watch(line, keep), port(startPort(line, clock, log, settings)),
          transmitThread(threads.idOf("GP TX")), receiving(*port, !settings.returnsInvalid, keep)
    {}

    /// Waits until the transmit thread has done what it can and sleeps: whether it has passed the gate does not depend
    /// on how busy the machine is.
    void settle() const
    {
        if (!kit::waitUntilAsleep(transmitThread))
        {
            throw std::runtime_error("the port does not come to rest");
        }
    }

    kit::pseudoTerminal line;
    monotonicTimeStamp clock;
    lineKeeper log;
    lineWatch watch;
    kit::threadWatch threads;
    std::unique_ptr<kit::exposedPort> port;
    pid_t transmitThread;
    receiveLoop receiving;
};

portSubject::portSubject() = default;
portSubject::~portSubject() = default;

std::string portSubject::whyNot(testVector const& /*vector*/) const
{
    return {};
}

void portSubject::begin(portSettings const& settings)
{
    seen.forget();
    running = std::make_unique<runningPort>(settings, seen);
}

void portSubject::end()
{
    running.reset();
}

void portSubject::put(bytes const& content)
{
    running->settle();
    running->line.write(content);
}

void portSubject::send(sendMessage const& message, std::string const& /*request*/)
{
    running->settle();
    running->port->sendMessage(messageOf(message.fields), message.tracked);
}

void portSubject::reject(sendReject const& rejected, std::string const& /*request*/)
{
    running->port->sendHandshakeReject(rejected.id, rejected.extra);
}

void portSubject::filler(std::string const& /*request*/)
{
    running->port->sendResyncSequence();
}

bytes portSubject::imageOf(messageFields const& fields) const
{
    gssipMessage message = messageOf(fields);
    message.setHeaderChecksum();
    message.setDataChecksum();
    return message.getHeaderAndDataUint8();
}

std::string portSubject::portNumber() const
{
    return std::to_string(running->port->portId);
}

duration portSubject::characterTime() const
{
    double seconds = 0.0;
    running->port->serial.getByteTransmitTime(seconds);
    return duration(seconds);
}

} // namespace conformance
