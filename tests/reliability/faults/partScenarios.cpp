// What becomes of a message and of a serial device by themselves.

#include "gssipMessage.h"
#include "oldKernel.h"
#include "scenarios.h"
#include "serialPort.h"

#include <array>
#include <functional>

namespace faults
{
namespace
{

std::vector<std::uint16_t> const WORDS{1, 2, 3, 4, 5};

bool isSame(gssipMessage const& a, gssipMessage const& b)
{
    return a.getHeaderAndDataUint8() == b.getHeaderAndDataUint8() && a.getData() == b.getData() &&
           a.getSendTimeStamp() == b.getSendTimeStamp();
}

gssipMessage filled()
{
    gssipMessage message(7, gssipMessage::ACK_REQ_FLAG, 2);
    message.setSendTimeStamp(3.0);
    return message;
}

/// When memory runs out the message is as before; otherwise it changes as it should.
void change(bench& at, char const* what, std::function<void(gssipMessage&)> const& operation,
            std::function<bool(gssipMessage const&)> const& isDone)
{
    for (gssipMessage message : {gssipMessage(), filled()})
    {
        gssipMessage const before = message;
        bool const succeeds = at.call(what, [&] { return operation(message), true; }).has_value();
        at.require(succeeds ? isDone(message) : isSame(message, before),
                   std::string(what) + (succeeds ? " does what it says" : " leaves the message when memory runs out"));
    }
}

/// The statuses of a device that is used as it should be.
class deviceUser
{
  public:
    deviceUser(bench& benchInUse, serialPort& deviceToUse) : at(benchInUse), device(deviceToUse) {}

    template <typename Operation>
    int does(char const* what, Operation const& operation)
    {
        int const status = at.call(what, [&] { return operation(device); }).value_or(-1);
        at.expect(status == 0, std::string(what) + " returns " + std::to_string(status));
        return status;
    }

    /// The setting is in force when the status is 0, else the former one is.
    template <typename Operation>
    void sets(char const* what, Operation const& operation, char const* shows)
    {
        std::string const before = settings();
        int const status = does(what, operation);
        std::string const after = settings();
        at.require(status == 0 ? after.find(shows) != std::string::npos : after == before,
                   std::string(what) + " leaves what its status says: " + after);
    }

  private:
    std::string settings()
    {
        std::string text;
        device.getConfigString(text);
        return text;
    }

    bench& at;
    serialPort& device;
};

void useSettings(deviceUser& user)
{
    user.sets(
        "setSpeed", [](serialPort& device) { return device.setSpeed(57600U); }, " 57600 ");
    user.sets(
        "setDataBits", [](serialPort& device) { return device.setDataBits(7U); }, " 7");
    user.sets(
        "setParity", [](serialPort& device) { return device.setParity(PARITY_ODD); }, "O1 ");
    user.sets(
        "setStopBits", [](serialPort& device) { return device.setStopBits(2U); }, "2 vmin");
    user.sets(
        "setVminVtime", [](serialPort& device) { return device.setVminVtime(3, 1); }, "vmin(3) vtime(1)");
    user.sets(
        "setInterMsgGapBits", [](serialPort& device) { return device.setInterMsgGapBits(10); }, "interMsgGapBits(10)");
}

void askSettings(bench& at, serialPort& device)
{
    std::string text;
    at.call("getConfigString", [&] { return device.getConfigString(text); });
    at.expect(text.find(" 57600 7O2 vmin(3) vtime(1) interMsgGapBits(10)") != std::string::npos,
              "the settings are in force: " + text);
    double seconds = 0.0;
    at.call("getByteTransmitTime", [&] { return device.getByteTransmitTime(seconds); });
    at.require(seconds > 0.0, "a character takes time");
}

void sendSome(bench& at, serialPort& device)
{
    std::array<unsigned char, 4> const bytes{1, 2, 3, 4};
    unsigned sent = 0;
    int const status = at.call("send", [&] { return device.send(bytes.data(), bytes.size(), sent); }).value_or(-1);
    at.expect(status == 0 && at.awaitOnLine({1, 2, 3, 4}), "the bytes are sent");
    at.require(status != 0 || sent == bytes.size(), "send returns 0 when all is sent");
}

/// Receives until three bytes have come or the device is closed.
class receivingThread
{
  public:
    receivingThread(bench& benchInUse, serialPort& deviceToUse)
        : at(benchInUse), device(deviceToUse), thread([this] { run(); })
    {}
    ~receivingThread() { thread.join(); }
    receivingThread(receivingThread const&) = delete;
    receivingThread& operator=(receivingThread const&) = delete;

    unsigned total() const { return received; }

  private:
    void run()
    {
        std::array<unsigned char, 16> buffer{};
        while (device.isOpen() && received < 3)
        {
            unsigned count = 0;
            auto const room = static_cast<unsigned>(buffer.size() - received);
            receiveOne(buffer.data() + received, room, count);
            received += count;
            at.require(received <= 3, "no more is received than has come");
        }
        at.expect(received == 3 && buffer[0] == 5 && buffer[2] == 7, "the bytes are received as they came");
    }

    /// Not `bench::call`: it may wait as long as nothing comes.
    void receiveOne(unsigned char* place, unsigned room, unsigned& count)
    {
        kit::libraryCode const inside;
        device.receive(place, room, count);
    }

    bench& at;
    serialPort& device;
    std::atomic<unsigned> received{0};
    std::thread thread;
};

void receiveUntilClosed(bench& at, serialPort& device)
{
    at.call("interruptReceive", [&] { return device.interruptReceive(), true; });
    receivingThread const receiver(at, device);
    at.feed({5, 6});
    at.feed({7});
    at.await([&] { return receiver.total() == 3; });
    int const status = at.call("close", [&] { return device.close(); }).value_or(-1);
    at.expect(status == 0, "close returns 0");
    at.require(!device.isOpen(), "a device that has been closed is not open");
}

} // namespace

void messageOperations(bench& at)
{
    gssipMessage const source = filled();
    at.makePort();
    at.arm();
    at.call("construction", [] { return gssipMessage(1, 2, 3), true; });
    at.call("copy", [&] { return gssipMessage(source), true; });
    at.call("image", [&] { return source.getHeaderAndDataUint8(), true; });
    change(
        at, "assignment", [&](gssipMessage& message) { message = source; },
        [&](gssipMessage const& message) { return isSame(message, source); });
    change(
        at, "setData", [](gssipMessage& message) { message.setData(WORDS); },
        [](gssipMessage const& message) { return message.getData() == WORDS && message.getDataWordSize() == 5; });
    change(
        at, "setDataWordSize", [](gssipMessage& message) { message.setDataWordSize(9, true); },
        [](gssipMessage const& message) { return message.getData().size() == 9; });
    change(
        at, "setId", [](gssipMessage& message) { message.setId(9); },
        [](gssipMessage const& message) { return message.getId() == 9; });
    change(
        at, "setHeaderChecksum", [](gssipMessage& message) { message.setHeaderChecksum(); },
        [](gssipMessage const& message) { return message.getHeaderChecksum() != 0; });
}

void serialDevice(bench& at)
{
    at.makePort();
    at.arm();
    std::unique_ptr<serialPort> device;
    std::string const name = at.deviceLink();
    at.call("construction", [&] { return device = std::make_unique<serialPort>(name, at.log), true; });
    if (device == nullptr)
    {
        return;
    }
    deviceUser user(at, *device);
    user.does("open", [](serialPort& one) { return one.open(); });
    useSettings(user);
    askSettings(at, *device);
    sendSome(at, *device);
    receiveUntilClosed(at, *device);
    user.does("second open", [](serialPort& one) { return one.open(); });
    at.call("destruction", [&] { return device.reset(), true; });
}

void serialDeviceOnAnOldKernel(bench& at)
{
    oldKernel kernel;
    kit::systemBehindFaults const system(kernel);
    serialDevice(at);
}

} // namespace faults
