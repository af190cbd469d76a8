// Two ports under a mixed load for hours, with a fault every now and then.

#include "faults.h"
#include "processorTime.h"
#include "stopwatch.h"
#include "testSize.h"
#include "trends.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <iomanip>
#include <iostream>
#include <thread>
#include <unistd.h>

namespace soak
{
namespace
{

constexpr double REST_SEC = 1.0; // what the two pauses of an interval take, about

void last(double time_sec)
{
    std::this_thread::sleep_for(std::chrono::duration<double>(time_sec));
}

void giveUp(int /*signal*/)
{
    constexpr char TEXT[] = "soak: nothing has moved for minutes: given up\n";
    [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, TEXT, sizeof TEXT - 1);
    std::abort();
}

class run
{
  public:
    explicit run(settings const& toUse) : chosen(toUse), loaded(toUse) {}

    /// True when everything added up.
    bool toTheEnd()
    {
        std::cout << "soak: " << chosen.length_sec << " s, a fault every " << chosen.interval_sec << " s, "
                  << chosen.messagesPerSec << " messages a second each way, seed " << chosen.seed << std::endl;
        if (!loaded.start())
        {
            std::cout << "the ports do not start\n";
            return false;
        }
        std::string const wrong = talkUndisturbed(std::min(1.0, chosen.interval_sec));
        samples.push_back(sampleNow(processorTime_us));
        faultyIntervals += wrong.empty() ? 0U : 1U;
        std::cout << wrong << std::flush;
        for (std::size_t turn = 0; watch.elapsed_sec() < chosen.length_sec; ++turn)
        {
            oneInterval(allFaults()[turn % allFaults().size()]);
        }
        return conclude();
    }

  private:
    void oneInterval(fault const& next)
    {
        ::alarm(static_cast<unsigned>(chosen.interval_sec) + 200);
        double const length_sec = std::clamp(chosen.interval_sec / 3, 0.3, 5.0);
        double const undisturbed_sec = std::max(0.3, chosen.interval_sec - length_sec - REST_SEC);
        std::string wrong = talkUndisturbed(undisturbed_sec);
        wrong += talkDuring(next, length_sec);
        samples.push_back(sampleNow(processorTime_us));
        show(next, wrong);
        faultyIntervals += wrong.empty() ? 0U : 1U;
    }

    std::string talkUndisturbed(double length_sec)
    {
        std::uint64_t const before = given();
        kit::processorTime const work;
        loaded.talk();
        last(length_sec);
        loaded.fallSilent();
        std::string wrong = loaded.settle({});
        processorTime_us = work.used_sec() * 1e6 / static_cast<double>(std::max<std::uint64_t>(given() - before, 1));
        return wrong.empty() ? wrong : "undisturbed: " + wrong;
    }

    std::string talkDuring(fault const& next, double length_sec)
    {
        loaded.talk();
        effects const allowed = next.happen(loaded, length_sec);
        loaded.fallSilent();
        std::string wrong = loaded.settle(allowed);
        return wrong.empty() ? wrong : std::string(next.name) + ": " + wrong;
    }

    std::uint64_t given() const { return loaded.totals[0].given + loaded.totals[1].given; }

    void show(fault const& happened, std::string const& wrong)
    {
        sample const& now = samples.back();
        std::cout << std::fixed << std::setprecision(1) << std::setw(8) << watch.elapsed_sec() << " s  " << std::left
                  << std::setw(18) << happened.name << std::right << std::setw(9) << given() << " messages"
                  << std::setw(8) << now.processorTime_us << " us each" << std::setw(9) << now.heap_bytes / 1024
                  << " KiB heap" << std::setw(9) << now.resident_bytes / 1024 << " KiB resident" << std::setprecision(0)
                  << std::setw(4) << now.descriptors << " files" << std::setw(4) << now.threads << " threads  "
                  << (wrong.empty() ? "adds up" : "WRONG: " + wrong) << std::endl;
    }

    bool conclude()
    {
        showTotals();
        std::size_t const warmUp = std::min(allFaults().size() + 1, samples.size() / 3);
        std::string const grown = judgeTrends(samples, warmUp, std::cout);
        bool const isRight = faultyIntervals == 0 && grown.empty();
        std::cout << '\n'
                  << samples.size() - 1 << " faults in " << std::setprecision(0) << watch.elapsed_sec() << " s: "
                  << (isRight ? "everything adds up, nothing grows"
                              : std::to_string(faultyIntervals) + " intervals do not add up; " + grown)
                  << std::endl;
        return isRight;
    }

    void showTotals() const
    {
        using column = std::pair<char const*, std::uint64_t wayTotals::*>;
        constexpr std::array<column, 9> COLUMNS{{{"given to the port", &wayTotals::given},
                                                 {"written", &wayTotals::written},
                                                 {"written again", &wayTotals::resent},
                                                 {"lost before the line", &wayTotals::unwritten},
                                                 {"come whole, to be delivered", &wayTotals::deliverable},
                                                 {"delivered", &wayTotals::delivered},
                                                 {"lost behind the line", &wayTotals::undelivered},
                                                 {"come with damaged data", &wayTotals::damaged},
                                                 {"delivered, not answered", &wayTotals::unanswered}}};
        std::cout << "\nmessages                         side 0      side 1\n";
        for (column const& each : COLUMNS)
        {
            std::cout << std::left << std::setw(28) << each.first << std::right << std::setw(11)
                      << loaded.totals[0].*each.second << std::setw(12) << loaded.totals[1].*each.second << '\n';
        }
        std::cout << "log lines                   " << std::setw(11) << linesOf(0) << std::setw(12) << linesOf(1)
                  << '\n';
    }

    std::uint64_t linesOf(std::size_t side) const { return const_cast<rig&>(loaded).at(side).log.lines; }

    settings const chosen;
    rig loaded;
    kit::stopwatch watch;
    std::vector<sample> samples;
    double processorTime_us = 0;
    unsigned faultyIntervals = 0;
};

} // namespace
} // namespace soak

int main(int argc, char** argv)
{
    soak::settings chosen;
    chosen.length_sec = bySize(24.0, 600.0, 3600.0);
    chosen.interval_sec = bySize(3.0, 20.0, 60.0);
    CLI::App program(
        "Two GSSIP ports under a mixed load, with a fault every now and then.\n"
        "Exit status: 0 when everything adds up and nothing grows, 1 when not, 2 for a wrong command line.");
    program.add_option("--seconds", chosen.length_sec, "how long")
        ->check(CLI::PositiveNumber)
        ->capture_default_str()
        ->take_last();
    program.add_option("--interval", chosen.interval_sec, "seconds from one fault to the next")
        ->check(CLI::Range(1.0, 3600.0))
        ->capture_default_str()
        ->take_last();
    program.add_option("--rate", chosen.messagesPerSec, "messages a second each way, about")
        ->check(CLI::Range(1, 100000))
        ->capture_default_str()
        ->take_last();
    program.add_option("--seed", chosen.seed, "decides about load and faults")->capture_default_str()->take_last();
    try
    {
        program.parse(argc, argv);
    }
    catch (CLI::ParseError const& error)
    {
        return program.exit(error) == 0 ? 0 : 2;
    }
    std::signal(SIGALRM, soak::giveUp);
    try
    {
        return soak::run(chosen).toTheEnd() ? 0 : 1;
    }
    catch (std::exception const& failure)
    {
        std::cerr << "soak: " << failure.what() << '\n';
        return 1;
    }
}
