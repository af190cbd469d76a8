#include "serialPort.h"

#include "blockedSignals.h"
#include "failureBudget.h"
#include "lineClock.h"
#include "lineSettings.h"
#include "monotonicTime.h"
#include "terminal.h"
#include "turnstile.h"
#include "wakeableDescriptor.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <locale>
#include <mutex>
#include <poll.h>
#include <sstream>
#include <thread>
#include <unistd.h>

using gssipInternal::blockedSignals;
using gssipInternal::failureBudget;
using gssipInternal::fairSentry;
using gssipInternal::lineClock;
using gssipInternal::lineSettings;
using gssipInternal::monotonicNow_ns;
using gssipInternal::NEVER_NS;
using gssipInternal::NS_PER_MS;
using gssipInternal::NS_PER_SEC;
using gssipInternal::turnstile;
using gssipInternal::wakeableDescriptor;
namespace terminal = gssipInternal::terminal;

namespace
{

constexpr std::int64_t VTIME_UNIT_NS = 100 * NS_PER_MS;

/// A line that takes no byte for so long is blocked.
constexpr std::int64_t BLOCKED_AFTER_NS = 2 * NS_PER_SEC;

// What a close grants to the bytes that are on their way.
constexpr std::int64_t CLOSE_LIMIT_NS = 2 * NS_PER_SEC;
constexpr std::int64_t CLOSE_STALL_LIMIT_NS = NS_PER_SEC;
constexpr std::int64_t CLOSE_LONGEST_LOOK_NS = 50 * NS_PER_MS;

/// Ends with the first of two limits: a total, and a time without progress.
class graceTime
{
  public:
    bool isOver(std::int64_t now_ns) const
    {
        return now_ns >= start_ns + CLOSE_LIMIT_NS || now_ns >= progress_ns + CLOSE_STALL_LIMIT_NS;
    }
    void sawProgress(std::int64_t now_ns) { progress_ns = now_ns; }

  private:
    std::int64_t start_ns = monotonicNow_ns();
    std::int64_t progress_ns = start_ns;
};

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
    bool isOpen() const { return device.isOpen(); }

    template <typename Edit>
    int change(bool valid, Edit const& edit);
    void setGapBits(unsigned bits);
    lineSettings settingsNow();

    int send(unsigned char const* bytes, unsigned count, unsigned& sent, std::function<void()> const& beforeFirstByte);
    int receive(unsigned char* buffer, unsigned capacity, unsigned& received);
    void interruptReceive() { device.interruptReader(); }

    std::string const name;

  private:
    enum class afterFailure { report, retry, leave };

    int openTaken(int& descriptor);
    void finishSending(int descriptor);
    bool isLineIdle(unsigned queued) const { return queued == 0 && monotonicNow_ns() >= line.endOfLine_ns(); }
    void watchLine(unsigned queued);
    int closeWithoutBlocking(int descriptor);
    int closeBehind(int descriptor);

    int keepDistance(wakeableDescriptor::use& use);
    int writeAll(wakeableDescriptor::use& use, unsigned char const* bytes, unsigned count, unsigned& sent,
                 std::function<void()> const& beforeFirstByte);
    int afterNothingWritten(ssize_t written, wakeableDescriptor::use& use, std::int64_t& progress_ns);
    int waitForRoom(wakeableDescriptor::use& use, std::int64_t& progress_ns);

    int receiveOnce(unsigned char* buffer, unsigned capacity, unsigned& received, std::uint64_t& generation);
    int readAsLimited(wakeableDescriptor::use& use, lineSettings const& limits, unsigned char* buffer,
                      unsigned capacity, unsigned& received);
    static std::int64_t readDeadline_ns(lineSettings const& limits, unsigned received);
    static int readSome(int descriptor, unsigned char* buffer, unsigned capacity, unsigned& received);
    afterFailure holdBack(std::uint64_t generation);

    std::mutex lifecycle; ///< serialises open and close; the first lock in any order

    std::mutex settingsMutex; ///< guards `settings`; never held while bytes are read or written
    lineSettings settings;

    turnstile senders;
    pthread_mutex_t sendMutex = PTHREAD_MUTEX_INITIALIZER; ///< held for the whole of a message
    lineClock line;                                        // changed by the holder of sendMutex
    std::atomic<bool> hasLine{true};                       ///< false on a pseudo-terminal
    std::atomic<std::uint64_t> bytesTaken{0};              ///< by the driver, ever

    std::mutex failureMutex; ///< guards `failures`
    failureBudget failures;

    wakeableDescriptor device; // safe by itself
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

int serialPort::implementation::openTaken(int& descriptor)
{
    if (int const status = terminal::take(descriptor); status != 0)
    {
        return status;
    }
    // Held until the device is open: a setting made meanwhile must not fall between the two.
    std::lock_guard<std::mutex> const lock(settingsMutex);
    int status = terminal::apply(descriptor, settings);
    if (status == 0)
    {
        terminal::askForLowLatency(descriptor);
        hasLine = !terminal::isPseudoTerminal(descriptor);
        line.reset();
        status = device.adopt(descriptor);
    }
    if (status != 0)
    {
        terminal::give(descriptor);
    }
    return status;
}

int serialPort::implementation::close()
{
    std::lock_guard<std::mutex> const lock(lifecycle);
    int const descriptor = device.beginClose();
    if (descriptor < 0)
    {
        return 0;
    }
    finishSending(descriptor);
    device.cutOff();
    device.waitForUsers();
    return closeWithoutBlocking(device.release());
}

/// Grants the time that the line needs to a sender that is inside and to the bytes that the driver has accepted.
void serialPort::implementation::finishSending(int descriptor)
{
    graceTime grace;
    std::uint64_t taken = bytesTaken;
    unsigned queued = terminal::queuedOutput(descriptor);
    while (device.hasWriters() || !isLineIdle(queued))
    {
        watchLine(queued);
        std::uint64_t const nowTaken = bytesTaken;
        unsigned const nowQueued = terminal::queuedOutput(descriptor);
        // With nothing left in the driver's count the rest is on its way through the hardware, in computed time.
        bool const onlyHardware = nowQueued == 0 && !device.hasWriters();
        if (nowTaken != taken || nowQueued != queued || onlyHardware)
        {
            grace.sawProgress(monotonicNow_ns());
        }
        if (grace.isOver(monotonicNow_ns()))
        {
            return;
        }
        taken = nowTaken;
        queued = nowQueued;
    }
}

/// Sleeps as long as what is queued needs, but no longer than until the last sender has left or it is time to look.
void serialPort::implementation::watchLine(unsigned queued)
{
    std::int64_t const now_ns = monotonicNow_ns();
    std::int64_t const end_ns = std::max(now_ns + queued * settingsNow().byteTime_ns(), line.endOfLine_ns());
    std::int64_t const until_ns = std::clamp(end_ns, now_ns + NS_PER_MS, now_ns + CLOSE_LONGEST_LOOK_NS);
    if (device.hasWriters())
    {
        device.waitForWriters(now_ns + CLOSE_LONGEST_LOOK_NS);
    }
    else
    {
        std::this_thread::sleep_for(std::chrono::nanoseconds(until_ns - now_ns));
    }
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

/// Changes the settings, on the device too when it is open; a change that is refused leaves both as they were.
template <typename Edit>
int serialPort::implementation::change(bool valid, Edit const& edit)
{
    if (!valid)
    {
        return EINVAL;
    }
    std::lock_guard<std::mutex> const lock(settingsMutex);
    lineSettings wanted = settings;
    edit(wanted);
    if (wakeableDescriptor::use const use(device, wakeableDescriptor::role::other); use)
    {
        if (int const status = terminal::apply(use.descriptor(), wanted); status != 0)
        {
            return status;
        }
    }
    settings = wanted;
    return 0;
}

/// No matter of the device: nothing is applied that could be refused.
void serialPort::implementation::setGapBits(unsigned bits)
{
    std::lock_guard<std::mutex> const lock(settingsMutex);
    settings.interMsgGapBits = bits;
}

lineSettings serialPort::implementation::settingsNow()
{
    std::lock_guard<std::mutex> const lock(settingsMutex);
    return settings;
}

int serialPort::implementation::send(unsigned char const* bytes, unsigned count, unsigned& sent,
                                     std::function<void()> const& beforeFirstByte)
{
    sent = 0;
    fairSentry const turn(senders, sendMutex);
    wakeableDescriptor::use use(device, wakeableDescriptor::role::writer);
    if (!use)
    {
        return EBADF;
    }
    int const status = keepDistance(use);
    return status == 0 ? writeAll(use, bytes, count, sent, beforeFirstByte) : status;
}

/// Waits until the line has (nearly) finished the message before, and for the gap behind it.
int serialPort::implementation::keepDistance(wakeableDescriptor::use& use)
{
    std::int64_t const gap_ns = settingsNow().gap_ns();
    if (!hasLine && gap_ns == 0)
    {
        return 0;
    }
    std::int64_t const earliest_ns = line.earliestNext_ns(gap_ns);
    if (monotonicNow_ns() < earliest_ns && use.wait(0, earliest_ns) == wakeableDescriptor::ending::closed)
    {
        return EBADF;
    }
    return 0;
}

int serialPort::implementation::writeAll(wakeableDescriptor::use& use, unsigned char const* bytes, unsigned count,
                                         unsigned& sent, std::function<void()> const& beforeFirstByte)
{
    std::int64_t const byteTime_ns = hasLine ? settingsNow().byteTime_ns() : 0;
    std::int64_t progress_ns = monotonicNow_ns();
    while (sent < count)
    {
        if (sent == 0 && beforeFirstByte)
        {
            beforeFirstByte();
        }
        ssize_t const written = ::write(use.descriptor(), bytes + sent, count - sent);
        if (written > 0)
        {
            auto const taken = static_cast<unsigned>(written);
            sent += taken;
            bytesTaken += taken;
            progress_ns = monotonicNow_ns();
            line.took(progress_ns, taken, byteTime_ns);
        }
        else if (int const status = afterNothingWritten(written, use, progress_ns); status != 0)
        {
            return status;
        }
    }
    return 0;
}

int serialPort::implementation::afterNothingWritten(ssize_t written, wakeableDescriptor::use& use,
                                                    std::int64_t& progress_ns)
{
    if (written == 0)
    {
        return EIO;
    }
    if (errno == EINTR)
    {
        return 0;
    }
    return errno == EAGAIN ? waitForRoom(use, progress_ns) : errno;
}

/// Waits until the driver takes bytes again. It may say so only when it is nearly empty, seconds from now on a slow
/// line: as long as it passes bytes on, the line is not blocked.
int serialPort::implementation::waitForRoom(wakeableDescriptor::use& use, std::int64_t& progress_ns)
{
    unsigned const queued = terminal::queuedOutput(use.descriptor());
    switch (use.wait(POLLOUT, progress_ns + BLOCKED_AFTER_NS))
    {
    case wakeableDescriptor::ending::timeout:
        if (terminal::queuedOutput(use.descriptor()) >= queued)
        {
            return ETIMEDOUT;
        }
        progress_ns = monotonicNow_ns();
        return 0;
    case wakeableDescriptor::ending::closed:
        return EBADF;
    default:
        return 0;
    }
}

int serialPort::implementation::receive(unsigned char* buffer, unsigned capacity, unsigned& received)
{
    received = 0;
    while (capacity != 0)
    {
        std::uint64_t generation = 0;
        int const status = receiveOnce(buffer, capacity, received, generation);
        if (status == 0)
        {
            return 0;
        }
        switch (holdBack(generation))
        {
        case afterFailure::report:
            return status;
        case afterFailure::retry:
            break;
        case afterFailure::leave:
            return 0;
        }
    }
    return 0;
}

int serialPort::implementation::receiveOnce(unsigned char* buffer, unsigned capacity, unsigned& received,
                                            std::uint64_t& generation)
{
    wakeableDescriptor::use use(device, wakeableDescriptor::role::reader);
    generation = use.generation();
    if (!use)
    {
        return EBADF;
    }
    lineSettings const limits = settingsNow();
    int const status = readAsLimited(use, limits, buffer, capacity, received);
    if (status == 0)
    {
        std::lock_guard<std::mutex> const lock(failureMutex);
        failures.succeeded();
    }
    return status;
}

/// The descriptor never blocks, so that a wait can be ended; what VMIN and VTIME mean is kept here.
int serialPort::implementation::readAsLimited(wakeableDescriptor::use& use, lineSettings const& limits,
                                              unsigned char* buffer, unsigned capacity, unsigned& received)
{
    unsigned const wanted = std::min<unsigned>(limits.vmin, capacity);
    int status = 0;
    do
    {
        if (use.wait(POLLIN, readDeadline_ns(limits, received)) != wakeableDescriptor::ending::ready)
        {
            return 0;
        }
        status = readSome(use.descriptor(), buffer, capacity, received);
    } while (status == 0 && received < wanted);
    return received > 0 ? 0 : status; // bytes first: a failure behind them comes again
}

std::int64_t serialPort::implementation::readDeadline_ns(lineSettings const& limits, unsigned received)
{
    bool const timed = limits.vmin == 0 || (received > 0 && limits.vtime > 0);
    return timed ? monotonicNow_ns() + limits.vtime * VTIME_UNIT_NS : NEVER_NS;
}

int serialPort::implementation::readSome(int descriptor, unsigned char* buffer, unsigned capacity, unsigned& received)
{
    ssize_t const count = ::read(descriptor, buffer + received, capacity - received);
    if (count < 0)
    {
        return errno == EAGAIN || errno == EINTR ? 0 : errno;
    }
    received += static_cast<unsigned>(count);
    return count == 0 ? EIO : 0; // nothing, from a device that poll calls ready: it has hung up
}

serialPort::implementation::afterFailure serialPort::implementation::holdBack(std::uint64_t generation)
{
    std::int64_t const now_ns = monotonicNow_ns();
    std::int64_t pause_ns = 0;
    {
        std::lock_guard<std::mutex> const lock(failureMutex);
        pause_ns = failures.pauseBefore_ns(now_ns);
    }
    if (pause_ns == 0)
    {
        return afterFailure::report;
    }
    switch (device.pause(generation, now_ns + pause_ns))
    {
    case wakeableDescriptor::ending::reopened:
        return afterFailure::retry;
    case wakeableDescriptor::ending::closed:
    case wakeableDescriptor::ending::interrupted:
        return afterFailure::leave;
    default:
        return afterFailure::report;
    }
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
    return own->isOpen();
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
    lineSettings const settings = own->settingsNow();
    vmin = settings.vmin;
    vtime = settings.vtime;
    return 0;
}

int serialPort::setInterMsgGapBits(unsigned bits)
{
    own->setGapBits(bits);
    return 0;
}

int serialPort::getByteTransmitTime(double& seconds)
{
    seconds = own->settingsNow().byteTime_sec();
    return 0;
}

int serialPort::getConfigString(std::string& text)
{
    lineSettings const settings = own->settingsNow();
    std::ostringstream out;
    out.imbue(std::locale::classic());
    out << own->name << ' ' << settings.speed << ' ' << settings.dataBits << parityLetter(settings.parity)
        << settings.stopBits << " vmin(" << unsigned{settings.vmin} << ") vtime(" << unsigned{settings.vtime}
        << ") interMsgGapBits(" << settings.interMsgGapBits << ')';
    text = out.str();
    return 0;
}

int serialPort::send(unsigned char const* bytes, unsigned count, unsigned& sent)
{
    return own->send(bytes, count, sent, nullptr);
}

int serialPort::send(unsigned char const* bytes, unsigned count, unsigned& sent,
                     std::function<void()> const& beforeFirstByte)
{
    return own->send(bytes, count, sent, beforeFirstByte);
}

int serialPort::receive(unsigned char const* buffer, unsigned capacity, unsigned& received)
{
    return own->receive(const_cast<unsigned char*>(buffer), capacity, received);
}

void serialPort::interruptReceive()
{
    own->interruptReceive();
}

std::string serialPort::getPort()
{
    return own->name;
}
