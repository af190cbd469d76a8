#include "station.h"

#include "gssipSendAckReqEvent.h"
#include "sentry.h"
#include "stopwatch.h"

#include <algorithm>
#include <chrono>

namespace uart
{
namespace
{

void pause()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

} // namespace

gssipMessage numberedMessage(unsigned number, unsigned dataWords, std::uint16_t flags)
{
    // No word of the data is one of the header: where a line loses the number, the first word of the data takes its
    // place in the header's checksum, which does not look at the order.
    constexpr unsigned FIRST_WORD = 0x5555;
    gssipMessage message(static_cast<std::uint16_t>(number), flags, 0);
    std::vector<std::uint16_t> words(std::max(dataWords, 1U));
    for (std::size_t place = 0; place < words.size(); ++place)
    {
        words[place] = static_cast<std::uint16_t>(FIRST_WORD + number + 257 * place);
    }
    message.setData(words);
    return message;
}

int countingPort::resendMessage(gssipMessage& message)
{
    lastResent_sec = monotonicTimeStamp().getTime_sec();
    ++resent;
    return kit::exposedPort::resendMessage(message);
}

station::station(std::string const& device) : port(device, clock, &log, false) {}

station::~station()
{
    stop();
}

int station::configure(lineSetup const& setup)
{
    return port.configurePort(setup.speed, 8, setup.parity, 1, 0, setup.ackTimeout_sec, setup.handshakeTimeout_sec, 5);
}

bool station::start()
{
    if (!port.start())
    {
        return false;
    }
    leaving = false;
    receiver = std::thread([this] { receive(); });
    return true;
}

bool station::stop()
{
    leaving = true;
    bool const stopped = port.stop();
    if (receiver.joinable())
    {
        receiver.join();
    }
    return stopped;
}

void station::send(unsigned first, unsigned count, unsigned dataWords)
{
    for (unsigned number = first; number < first + count; ++number)
    {
        port.sendMessage(numberedMessage(number, dataWords), true);
    }
}

bool station::awaitReceived(unsigned count, double patience_sec)
{
    unsigned before = received();
    for (kit::stopwatch sinceProgress; before < count;)
    {
        pause();
        unsigned const now = received();
        if (now != before)
        {
            before = now;
            sinceProgress = {};
        }
        if (sinceProgress.elapsed_sec() > patience_sec)
        {
            return false;
        }
    }
    return true;
}

bool station::awaitSettled(double patience_sec, std::chrono::microseconds look)
{
    for (kit::stopwatch watch; watch.elapsed_sec() < patience_sec; std::this_thread::sleep_for(look))
    {
        if (outstanding() == 0)
        {
            return true;
        }
    }
    return false;
}

std::size_t station::outstanding()
{
    kit::exposedSendAckReq& tracker = kit::exposedSendAckReq::of(port.sendAckReq);
    std::size_t const queued = port.getNumberQueuedMessages(); // first: what leaves the queue goes to the tracker
    sentry const lock(tracker.eventQMutex);
    return queued + tracker.eventQ.size();
}

std::size_t station::promised()
{
    kit::exposedReceive& receiving = kit::exposedReceive::of(*port.receiver);
    std::lock_guard<std::mutex> const lock(receiving.frameMutex);
    if (receiving.state != gssipReceive::DATA_STATE)
    {
        return 0;
    }
    auto const& come = receiving.frameBuffer;
    std::size_t const whole = (come[4] + 256U * come[5] + 6U) * 2;
    return whole - std::min(whole, come.size());
}

unsigned station::received() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return different;
}

unsigned station::repeated() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return repeats;
}

unsigned station::disordered() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return disorders;
}

unsigned station::spoilt() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return wrong;
}

double station::newestArrival_sec() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return arrival_sec;
}

unsigned station::mostCopies() const
{
    std::lock_guard<std::mutex> const lock(mutex);
    return *std::max_element(copies.begin(), copies.end());
}

void station::forget()
{
    std::lock_guard<std::mutex> const lock(mutex);
    std::fill(copies.begin(), copies.end(), std::uint8_t{0});
    different = repeats = disorders = newest = wrong = 0;
}

void station::receive()
{
    gssipMessage message;
    while (!leaving)
    {
        if (port.getMessage(message, true) == 0 && !leaving)
        {
            count(message);
        }
    }
}

void station::count(gssipMessage const& message)
{
    std::lock_guard<std::mutex> const lock(mutex);
    unsigned const number = message.getId();
    auto const words = static_cast<unsigned>(message.getData().size());
    wrong += message.getData() != numberedMessage(number, words).getData() ? 1U : 0U;
    std::uint8_t const before = copies[number]++;
    different += before == 0 ? 1 : 0;
    repeats += before == 1 ? 1 : 0;
    disorders += number < newest ? 1 : 0;
    newest = number;
    arrival_sec = clock.getTime_sec();
}

} // namespace uart
