// How late a resend is, against a plain wait with the same deadline.

#include "ends.h"

#include <algorithm>
#include <condition_variable>
#include <future>
#include <mutex>

namespace bench
{
namespace
{

constexpr double TIMEOUT_SEC = 0.02;

figures figuresOf(std::vector<std::int64_t> const& lateness_ns)
{
    return {{"p50_ns", quantile(lateness_ns, 0.5)},
            {"earliest_ns", static_cast<double>(*std::min_element(lateness_ns.begin(), lateness_ns.end()))}};
}

/// Notes how late each resend is. The library calls `resendMessage` for that, with the message as it was sent.
class resendingPort : public portEnd
{
  public:
    resendingPort(std::string const& device, std::size_t resendsToAwait) : portEnd(device), awaited(resendsToAwait)
    {
        setAcknowledgeTimeout_sec(TIMEOUT_SEC);
    }
    ~resendingPort() override { stop(); }
    resendingPort(resendingPort const&) = delete;
    resendingPort& operator=(resendingPort const&) = delete;

    int resendMessage(gssipMessage& late) override
    {
        double byteTime_sec = 0;
        serial.getByteTransmitTime(byteTime_sec);
        double const deadline_sec =
            late.getSendTimeStamp() + TIMEOUT_SEC + static_cast<double>(late.getSizeBytes()) * byteTime_sec;
        double const late_sec = monotonicTimeStamp().getTime_sec() - deadline_sec;
        lateness_ns.push_back(static_cast<std::int64_t>(late_sec * 1e9));
        int const status = gssipPort::resendMessage(late);
        if (lateness_ns.size() == awaited)
        {
            all.set_value();
        }
        return status;
    }

    figures result()
    {
        all.get_future().wait();
        return figuresOf(lateness_ns);
    }

  private:
    std::size_t const awaited;
    std::vector<std::int64_t> lateness_ns;
    std::promise<void> all;
};

figures latenessOfPort(options const& asked)
{
    auto const& line = everlasting<lineUnderTest>(asked.line);
    runOn(place::nearEnd);
    auto& port = startedPort<resendingPort>(line.nameAt(place::nearEnd), asked.count);
    gssipMessage message = messageOf(asked.bytes, 0, gssipMessage::ACK_REQ_FLAG);
    for (std::size_t i = 0; i < asked.count; ++i)
    {
        message.setId(static_cast<std::uint16_t>(i));
        port.send(message);
        std::this_thread::sleep_for(std::chrono::milliseconds(3)); // so that no resend holds up another
    }
    return port.result();
}

figures latenessOfWait(options const& asked)
{
    std::vector<std::int64_t> lateness_ns;
    std::thread waiter = threadOn(place::nearEnd, [&] {
        if (asked.realTime)
        {
            runRealTime(50);
        }
        std::mutex mutex;
        std::condition_variable condition;
        std::unique_lock<std::mutex> lock(mutex);
        for (std::size_t i = 0; i < asked.count; ++i)
        {
            auto const deadline = std::chrono::steady_clock::now() + std::chrono::duration<double, std::nano>(3e6);
            condition.wait_until(lock, std::chrono::time_point_cast<std::chrono::steady_clock::duration>(deadline));
            auto const late = std::chrono::steady_clock::now() - deadline;
            lateness_ns.push_back(std::chrono::duration_cast<std::chrono::nanoseconds>(late).count());
        }
    });
    waiter.join();
    return figuresOf(lateness_ns);
}

} // namespace

void addLateness(measurements& all)
{
    all[{"lateness", "port"}] = latenessOfPort;
    all[{"lateness", "wait"}] = latenessOfWait;
}

} // namespace bench
