#ifndef FAULTS_BENCH_H
#define FAULTS_BENCH_H

#include "exposedPort.h"
#include "faultPlan.h"
#include "pseudoTerminal.h"
#include "settableTime.h"
#include "stopwatch.h"
#include "temporaryFolder.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace faults
{

constexpr double LONGEST_CALL_SEC = 5.0;

/// Keeps the times of the lines that tell of a failing device.
class countingLog : public asciiLogInterface
{
  public:
    void log(std::int32_t const& level, std::string const& text) override { keep(level, text); }
    void log(double const& /*time_sec*/, std::int32_t const& level, std::string const& text) override
    {
        keep(level, text);
    }

    std::size_t failedReads() const;
    std::size_t mostFailedReadsInASecond() const;

  private:
    void keep(std::int32_t level, std::string const& text);

    kit::stopwatch clock;
    mutable std::mutex mutex;
    std::vector<double> failedReads_sec; // guarded by mutex
};

/// What a scenario works with: a line, an application, and at most one port.
///
/// `expect` is what an undisturbed port promises, and one that meets a fault which costs nothing. `require` is what it
/// promises whatever happens.
class bench
{
  public:
    bench(kit::faultPlan& plan, bool faultsMayCost, bool memoryMayFail);
    ~bench();
    bench(bench const&) = delete;
    bench& operator=(bench const&) = delete;

    void arm() { plan.arm(); }
    void lift() { plan.lift(); }
    bool isDisturbed() const { return faultsMayCost; }

    void expect(bool isSo, std::string const& what) { require(isSo || faultsMayCost, what); }
    void require(bool isSo, std::string const& what);
    std::vector<std::string> problems() const;

    /// A call of the application's into the library; nothing when memory ran out. It must end in time, and throws
    /// nothing else.
    template <typename Call>
    auto call(char const* what, Call const& operation) -> std::optional<std::invoke_result_t<Call>>
    {
        kit::stopwatch const watch;
        std::optional<std::invoke_result_t<Call>> result;
        try
        {
            kit::libraryCode const inside;
            result = operation();
        }
        catch (std::bad_alloc const&)
        {
            require(memoryMayFail, std::string(what) + " throws bad_alloc");
        }
        catch (std::exception const& failure)
        {
            require(false, std::string(what) + " throws: " + failure.what());
        }
        require(watch.elapsed_sec() < LONGEST_CALL_SEC,
                std::string(what) + " takes " + std::to_string(watch.elapsed_sec()) + " s");
        return result;
    }

    // --- The port
    void makePort(std::string const& device);
    void makePort() { makePort(deviceLink()); }
    void makeStartedPort(); ///< undisturbed
    void destroyPort();
    bool hasPort() const { return port != nullptr; }
    bool start(); ///< false also when memory ran out
    bool stop();
    unsigned queued() const;
    /// Lets the transmit thread stand before the shut gate: what is queued from now on stays queued.
    void shutGate();
    void awaitTransmitThreadAsleep();

    // --- The line
    std::string deviceLink() const { return (folder.path / "device").string(); }
    void plugIn();
    void unplug();
    void feed(kit::bytes const& arriving);
    /// Waits for bytes that the port is expected to write.
    bool awaitOnLine(kit::bytes const& wanted, int times = 1);
    std::size_t timesHeard(kit::bytes const& wanted) const;
    void listen(std::chrono::milliseconds limit);
    /// Waits for anything else that is expected to come true.
    template <typename Condition>
    bool await(Condition const& condition)
    {
        kit::stopwatch const watch;
        while (!condition())
        {
            if (watch.elapsed_sec() > patience_sec())
            {
                gaveUp = true;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        return true;
    }
    double patience_sec() const;
    void bePatient() { patient = true; }

    // --- The receiving application
    void startReceiving();
    bool isReceiving() const { return receiver.joinable(); }
    std::size_t timesReceived(std::uint16_t id) const;
    bool awaitReceived(std::uint16_t id, std::size_t times = 1);

    kit::settableTime clock{1000.0};
    countingLog log;
    std::unique_ptr<kit::exposedPort> port;
    std::vector<kit::bytes> sent;        ///< frames of untracked messages that have been queued
    std::vector<kit::bytes> leftQueued;  ///< frames that must come first after the next start
    std::size_t longestFrame = 0;        ///< that the port may wait for the rest of
    bool lineIsDead = false;             ///< nothing can pass before the next start
    bool startMayBeRefusedFirst = false; ///< while the system is still closing the device

  private:
    void receive();

    kit::faultPlan& plan;
    bool const faultsMayCost;
    bool const memoryMayFail;
    bool patient = false;
    bool gaveUp = false;
    bool stopHasFailed = false; ///< a port whose stop has failed counts as started

    kit::temporaryFolder folder;
    std::unique_ptr<kit::pseudoTerminal> line;
    kit::bytes heard; ///< all that the port has written

    mutable std::mutex mutex; ///< guards what follows
    std::vector<std::string> found;
    std::vector<std::uint16_t> received;

    std::atomic<bool> leaving{false};
    std::thread receiver;
};

} // namespace faults

#endif
