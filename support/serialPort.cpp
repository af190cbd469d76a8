#include "serialPort.h"

#include "blockedSignals.h"
#include "lineReceiver.h"
#include "lineSender.h"
#include "lineSettings.h"
#include "sharedSettings.h"
#include "terminal.h"
#include "wakeableDescriptor.h"

#include <atomic>
#include <cerrno>
#include <mutex>
#include <string>
#include <thread>
#include <unistd.h>

using gssipInternal::blockedSignals;
using gssipInternal::lineReceiver;
using gssipInternal::lineSender;
using gssipInternal::lineSettings;
using gssipInternal::sharedSettings;
using gssipInternal::wakeableDescriptor;
namespace terminal = gssipInternal::terminal;

namespace
{

char parityLetter(PARITY_TYPE parity)
{
    switch (parity)
    {
    case PARITY_NONE:
        break;
    case PARITY_ODD:
        return 'O';
    case PARITY_EVEN:
        return 'E';
    case PARITY_MARK:
        return 'M';
    case PARITY_SPACE:
        return 'S';
    }
    return 'N';
}

int closeDescriptor(int descriptor)
{
    // Interrupted or not, the descriptor is gone: closing again could hit another file.
    return ::close(descriptor) == 0 || errno == EINTR ? 0 : errno;
}

} // namespace

class serialPort::implementation
{
  public:
    explicit implementation(std::string const& deviceName) : name(deviceName) {}

    int open();
    int close();

    /// Changes the settings, on the device too when it is open; a change that is refused leaves both as they were.
    template <typename Edit>
    int change(bool isPossible, Edit const& edit);

    std::string const name;
    sharedSettings settings;   // safe by itself
    wakeableDescriptor device; // safe by itself
    lineSender sender{device, settings};
    lineReceiver receiver{device, settings};

  private:
    int openTaken(int descriptor);
    int prepare(int descriptor, lineSettings const& inForce);
    int closeWithoutBlocking(int descriptor);
    int closeBehind(int descriptor);

    std::mutex lifecycle; ///< serialises open and close; the first lock in any order
    /// True while a helper thread closes the former descriptor; shared with it, since it may outlive this object.
    std::shared_ptr<std::atomic<bool>> const closingBehind = std::make_shared<std::atomic<bool>>(false);
};

int serialPort::implementation::open()
{
    std::lock_guard<std::mutex> const lock(lifecycle);
    if (device.isOpen())
    {
        return 0;
    }
    if (*closingBehind)
    {
        return EBUSY;
    }
    int descriptor = -1;
    int status = terminal::open(name, descriptor);
    if (status == 0)
    {
        status = openTaken(descriptor);
        if (status != 0)
        {
            closeDescriptor(descriptor);
        }
    }
    return status;
}

int serialPort::implementation::openTaken(int descriptor)
{
    if (int const status = terminal::take(descriptor); status != 0)
    {
        return status;
    }
    // All under the settings' lock: one that is made meanwhile must not fall between applying and opening.
    int const status = settings.change([](lineSettings& /*unchanged*/) {},
                                       [&](lineSettings const& inForce) { return prepare(descriptor, inForce); });
    if (status != 0)
    {
        terminal::give(descriptor);
    }
    return status;
}

int serialPort::implementation::prepare(int descriptor, lineSettings const& inForce)
{
    if (int const status = terminal::apply(descriptor, inForce); status != 0)
    {
        return status;
    }
    terminal::askForLowLatency(descriptor);
    sender.prepare(!terminal::isPseudoTerminal(descriptor));
    return device.adopt(descriptor);
}

int serialPort::implementation::close()
{
    std::lock_guard<std::mutex> const lock(lifecycle);
    int const descriptor = device.beginClose();
    if (descriptor < 0)
    {
        return 0;
    }
    sender.finish(descriptor);
    device.cutOff();
    device.waitForUsers();
    return closeWithoutBlocking(device.release());
}

/// The system waits up to 30 s for the line when a descriptor is closed. A UART's queue can be emptied instead; an
/// adapter that keeps its own is closed by a helper thread.
int serialPort::implementation::closeWithoutBlocking(int descriptor)
{
    if (terminal::queuedOutput(descriptor) != 0)
    {
        terminal::discardOutput(descriptor);
    }
    bool const wouldBlock = terminal::queuedOutput(descriptor) != 0;
    terminal::give(descriptor);
    return wouldBlock ? closeBehind(descriptor) : closeDescriptor(descriptor);
}

int serialPort::implementation::closeBehind(int descriptor)
{
    *closingBehind = true;
    try
    {
        blockedSignals const blocked;
        std::thread([descriptor, closing = closingBehind] {
            closeDescriptor(descriptor);
            *closing = false;
        }).detach();
        return 0;
    }
    catch (...) // no thread, no memory: then the caller has to wait
    {
        int const status = closeDescriptor(descriptor);
        *closingBehind = false;
        return status;
    }
}

template <typename Edit>
int serialPort::implementation::change(bool isPossible, Edit const& edit)
{
    if (!isPossible)
    {
        return EINVAL;
    }
    return settings.change(edit, [this](lineSettings const& wanted) {
        wakeableDescriptor::use const use(device, wakeableDescriptor::role::other);
        return use ? terminal::apply(use.descriptor(), wanted) : 0;
    });
}

serialPort::serialPort(std::string const& deviceName, asciiLogInterface& /*log*/)
    : own(std::make_unique<implementation>(deviceName))
{}

serialPort::~serialPort()
{
    close();
}

int serialPort::open()
{
    return own->open();
}

int serialPort::close()
{
    return own->close();
}

bool serialPort::isOpen() const
{
    return own->device.isOpen();
}

int serialPort::setRaw()
{
    return own->change(true, [](lineSettings& /*unchanged*/) {});
}

int serialPort::setSpeed(unsigned const& speed)
{
    return own->change(speed != 0, [&](lineSettings& settings) { settings.speed = speed; });
}

int serialPort::setDataBits(unsigned const& bits)
{
    return own->change(bits >= 5 && bits <= 8, [&](lineSettings& settings) { settings.dataBits = bits; });
}

int serialPort::setParity(PARITY_TYPE const& parity)
{
    return own->change(parity >= PARITY_NONE && parity <= PARITY_SPACE,
                       [&](lineSettings& settings) { settings.parity = parity; });
}

int serialPort::setStopBits(unsigned const& bits)
{
    return own->change(bits == 1 || bits == 2, [&](lineSettings& settings) { settings.stopBits = bits; });
}

int serialPort::setVminVtime(unsigned char const& vmin, unsigned char const& vtime)
{
    return own->change(true, [&](lineSettings& settings) {
        settings.vmin = vmin;
        settings.vtime = vtime;
    });
}

int serialPort::getVminVtime(unsigned char& vmin, unsigned char& vtime)
{
    lineSettings const settings = own->settings.now();
    vmin = settings.vmin;
    vtime = settings.vtime;
    return 0;
}

int serialPort::setInterMsgGapBits(unsigned bits)
{
    // No matter of the device: nothing is applied that could be refused.
    return own->settings.change([&](lineSettings& settings) { settings.interMsgGapBits = bits; },
                                [](lineSettings const& /*unused*/) { return 0; });
}

int serialPort::getByteTransmitTime(double& seconds)
{
    seconds = own->settings.byteTime_sec();
    return 0;
}

int serialPort::getConfigString(std::string& text)
{
    lineSettings const settings = own->settings.now();
    text = own->name + ' ' + std::to_string(settings.speed) + ' ' + std::to_string(settings.dataBits) +
           parityLetter(settings.parity) + std::to_string(settings.stopBits) + " vmin(" +
           std::to_string(settings.vmin) + ") vtime(" + std::to_string(settings.vtime) + ") interMsgGapBits(" +
           std::to_string(settings.interMsgGapBits) + ')';
    return 0;
}

int serialPort::send(unsigned char const* bytes, unsigned count, unsigned& sent)
{
    return own->sender.send(bytes, count, sent, nullptr);
}

int serialPort::send(unsigned char const* bytes, unsigned count, unsigned& sent,
                     std::function<void()> const& beforeFirstByte)
{
    return own->sender.send(bytes, count, sent, beforeFirstByte);
}

int serialPort::receive(unsigned char const* buffer, unsigned capacity, unsigned& received)
{
    return own->receiver.receive(const_cast<unsigned char*>(buffer), capacity, received);
}

void serialPort::interruptReceive()
{
    own->device.interruptReader();
}

std::string serialPort::getPort()
{
    return own->name;
}
