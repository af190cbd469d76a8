#ifndef CYCLES_CYCLEJUDGE_H
#define CYCLES_CYCLEJUDGE_H

#include "distribution.h"
#include "entriesIn.h"
#include "gssipPort.h"
#include "linearFit.h"
#include "memoryInUse.h"
#include "processState.h"
#include "sanitized.h"
#include "stopwatch.h"
#include "waitUntil.h"

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace cycles
{

/// Watches a port's life, cycle after cycle: results, threads, descriptors, memory, and how long starts and stops take.
///
/// Throws when something is wrong. Construct it when everything else that the test needs exists. A cycle that takes
/// longer than a minute ends the program.
class cycleJudge
{
  public:
    static constexpr std::size_t THREADS_OF_A_PORT = 4;
    static constexpr double LONGEST_STOP_SEC = 5.0;

    /// `held_bytes`: by how much what the test itself leaves in the queue may differ from cycle to cycle.
    explicit cycleJudge(std::size_t cyclesToCome, std::size_t held_bytes = 0)
        : cycles(cyclesToCome), mostGrowth_bytes(static_cast<double>(KEPT_READY_BYTES + held_bytes + cyclesToCome)),
          starts(cycles), stops(cycles), heap(cycles)
    {
        std::signal(SIGALRM, [](int /*signal*/) {
            constexpr char TEXT[] = "a cycle hangs\n";
            [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, TEXT, sizeof TEXT - 1);
            std::abort();
        });
        makeAThread();
        threadsBefore = kit::threadsOfProcess();
        descriptorsBefore = kit::descriptorsOfProcess();
    }
    ~cycleJudge() { ::alarm(0); }
    cycleJudge(cycleJudge const&) = delete;
    cycleJudge& operator=(cycleJudge const&) = delete;

    std::size_t cyclesToCome() const { return cycles; }

    void start(gssipPort& port)
    {
        ::alarm(60);
        kit::stopwatch const watch;
        bool const started = port.start();
        starts.add(watch.elapsed_sec());
        require(started, "start fails");
        expectThreads(THREADS_OF_A_PORT);
        std::size_t const descriptors = kit::descriptorsOfProcess();
        descriptorsStarted = descriptorsStarted.value_or(descriptors);
        require(descriptors == descriptorsStarted, "a started port holds another number of descriptors than at first");
    }

    void stop(gssipPort& port)
    {
        kit::stopwatch const watch;
        bool const stopped = port.stop();
        double const time_sec = watch.elapsed_sec();
        stops.add(time_sec);
        require(stopped, "stop fails");
        require(time_sec < LONGEST_STOP_SEC, "stop takes " + std::to_string(time_sec) + " s");
    }

    /// At the end of each cycle, with everything as it was before the first.
    void close()
    {
        expectThreads(0);
        require(kit::descriptorsOfProcess() == descriptorsBefore, "a stopped port holds descriptors");
        heap.at(done++) = static_cast<double>(kit::heapInUse_bytes());
        if (done == cycles / 10)
        {
            residentBefore = static_cast<double>(kit::residentMemory_bytes());
        }
    }

    /// Waits until the system shows that many threads more than before the first cycle.
    void expectThreads(std::size_t count)
    {
        kit::stopwatch const watch;
        while (kit::threadsOfProcess() != threadsBefore + count)
        {
            require(watch.elapsed_sec() < 10, "there are " + std::to_string(kit::threadsOfProcess() - threadsBefore) +
                                                  " threads instead of " + std::to_string(count));
            sched_yield();
        }
    }

    /// When all cycles are over: judges the memory, and prints figures.
    void conclude(std::string const& scenario)
    {
        std::size_t const warmUp = cycles / 10;
        kit::linearFit const fit = kit::fitOf({heap.begin() + static_cast<std::ptrdiff_t>(warmUp), heap.end()});
        double const resident = static_cast<double>(kit::residentMemory_bytes()) - residentBefore;
        std::cout << scenario << ": " << cycles << " cycles; stop " << stops << "; start " << starts
                  << "; growth behind the first tenth: heap " << fit.growth() << " bytes, resident " << resident / 1024
                  << " KiB" << std::endl;
        if (!kit::isSanitized) // which have their own allocator
        {
            require(fit.certainGrowth() <= mostGrowth_bytes, "the heap grows");
            require(resident <= MOST_RESIDENT_BYTES, "the resident memory grows");
        }
    }

  private:
    static constexpr double MOST_RESIDENT_BYTES = 1024.0 * 1024;

    /// By the allocator, for the threads that live on.
    static constexpr std::size_t KEPT_READY_BYTES = 16384;

    /// And waits until it has gone: a sanitizer's own thread comes with the first.
    static void makeAThread()
    {
        pid_t id = 0;
        std::thread([&id] { id = gettid(); }).join();
        kit::waitUntil([id] { return kit::taskFile(id, "comm").empty(); });
    }

    void require(bool isSo, std::string const& fault) const
    {
        if (!isSo)
        {
            throw std::runtime_error("cycle " + std::to_string(done) + ": " + fault);
        }
    }

    std::size_t const cycles;
    double const mostGrowth_bytes; ///< and for each cycle a byte, far less than the smallest block
    std::size_t done = 0;
    std::size_t threadsBefore = 0;
    std::size_t descriptorsBefore = 0;
    std::optional<std::size_t> descriptorsStarted;
    double residentBefore = 0;
    distribution starts;
    distribution stops;
    std::vector<double> heap; ///< as long from the beginning as it will be
};

} // namespace cycles

#endif
