// Send a message and wait for its acknowledgement. The port settles acknowledgements inside `getMessage` and tells
// nobody; but `getMessage` asks a virtual operation about each message that it takes, and there a derived port can
// look. Run it as `sendAndWait` (on a null modem of its own) or as `sendAndWait DEVICE`.

#include "frameSplitter.h"
#include "gssipPort.h"
#include "partner.h"

#include <chrono>
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <optional>

namespace
{

/// A port that can tell whether a message has been acknowledged. Some thread must be in `getMessage`, as always.
///
/// An acknowledgement says that the other port has taken the message, not that its application has done anything with
/// it; where that matters let the application answer with a message of its own. No acknowledgement says nothing at all:
/// the message may have arrived and its acknowledgement be lost.
class confirmingPort : public gssipPort
{
  public:
    using gssipPort::gssipPort;
    ~confirmingPort() override { stop(); }
    confirmingPort(confirmingPort const&) = delete;
    confirmingPort& operator=(confirmingPort const&) = delete;

    /// True as soon as an acknowledgement with the message's id has come; false when none has within the limit. For one
    /// caller at a time, and with an id of its own for each message: a late acknowledgement of an earlier message with
    /// the same id cannot be told apart.
    bool sendAndWait(gssipMessage const& message, std::chrono::duration<double> limit)
    {
        std::unique_lock<std::mutex> lock(awaitedMutex);
        awaitedId = message.getId();
        sendMessage(message, true); // only queues it: nothing waits for the line with the lock held
        bool const settled = acknowledged.wait_for(lock, limit, [this] { return !awaitedId; });
        awaitedId.reset();
        return settled;
    }

    /// The longest that it can take until the port itself has given up, with nothing queued before the message.
    std::chrono::duration<double> longestWait()
    {
        return std::chrono::duration<double>(getHandshakeTimeout_sec() + 2 * getAcknowledgeTimeout_sec() + 0.5);
    }

    int getMessage(gssipMessage& message, bool waitOnInvalid) override
    {
        beingTaken = &message;
        int const result = gssipPort::getMessage(message, waitOnInvalid);
        beingTaken = nullptr;
        return result;
    }

    /// Called by `getMessage` once for each message taken, which stands in the caller's object by then.
    bool getReceiveAutoAcknowledgeEnable() override
    {
        if (beingTaken != nullptr && beingTaken->isHeaderMessage() && beingTaken->isAckMsgFlagSet())
        {
            note(beingTaken->getId());
        }
        return gssipPort::getReceiveAutoAcknowledgeEnable();
    }

  private:
    void note(std::uint16_t id)
    {
        std::lock_guard<std::mutex> const lock(awaitedMutex);
        if (awaitedId == id)
        {
            awaitedId.reset();
            acknowledged.notify_all();
        }
    }

    inline static thread_local gssipMessage const* beingTaken = nullptr; ///< null on threads not in `getMessage`

    std::mutex awaitedMutex; ///< guards `awaitedId`
    std::condition_variable acknowledged;
    std::optional<std::uint16_t> awaitedId;
};

bool sendOne(confirmingPort& port, std::uint16_t id)
{
    gssipMessage message(id, gssipMessage::ACK_REQ_FLAG, 0);
    message.setData({1, 2, 3});
    bool const acknowledged = port.sendAndWait(message, port.longestWait());
    std::cout << "message " << id << (acknowledged ? " was acknowledged\n" : " was not acknowledged\n");
    return acknowledged;
}

} // namespace

int main(int argc, char** argv)
{
    examples::exampleLine line(argc, argv);
    monotonicTimeStamp clock;
    streamLog log(std::cerr);
    confirmingPort port(line.device(), clock, &log, false);
    if (!port.start())
    {
        std::cerr << "cannot start the port on " << line.device() << '\n';
        return 1;
    }
    std::atomic<bool> leaving{false};
    std::thread receiver([&] {
        gssipMessage message;
        while (!leaving && port.getMessage(message, true) != -1)
        {}
    });

    bool asItShould = sendOne(port, 1);
    if (line.modem() != nullptr) // on a broken line the wait must end too
    {
        line.modem()->setHook(examples::nullModem::A_TO_B, [](examples::bytes const&) { return examples::bytes(); });
        asItShould = asItShould && !sendOne(port, 2);
    }

    leaving = true;
    port.stop();
    receiver.join();
    return asItShould ? 0 : 1;
}
