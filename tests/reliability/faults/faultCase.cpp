#include "faultCase.h"

#include "allocations.h"
#include "frames.h"
#include "messages.h"
#include "stopwatch.h"
#include "waitUntil.h"
#include "watchdog.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <stdexcept>
#include <termios.h>
#include <unistd.h>

namespace faults
{
namespace
{

using kit::frame;
using kit::message;

/// Longer than the longest call that is allowed, and what surrounds it, on a machine that does other things.
constexpr unsigned CASE_LIMIT_SEC = 90;

constexpr std::size_t MOST_FAILED_READS_IN_A_SECOND = 10;
constexpr std::size_t PORT_THREADS = 4;

// --- The text of a case

possibility possibilityOf(kit::fault const& one)
{
    for (possibility const& each : possibilitiesOf(one.at))
    {
        if (each.what.what == one.what.what && each.what.value == one.what.value)
        {
            return each;
        }
    }
    throw std::invalid_argument("no such fault: " + textOf(one));
}

bool costs(kit::fault const& one)
{
    possibility const known = possibilityOf(one);
    return one.lasts ? known.costsForEver : known.costsOnce;
}

std::vector<std::string> split(std::string const& text, std::string const& separator)
{
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t end = 0; (end = text.find(separator, begin)) != std::string::npos; begin = end + separator.size())
    {
        parts.push_back(text.substr(begin, end - begin));
    }
    parts.push_back(text.substr(begin));
    return parts;
}

kit::fault parseFault(std::string const& text)
{
    std::vector<std::string> const words = split(text, " ");
    std::vector<std::string> const place = split(words[0], "#");
    for (std::size_t i = 0; i < kit::CALL_KINDS && words.size() == 3 && place.size() == 2; ++i)
    {
        auto const kind = static_cast<kit::callKind>(i);
        for (possibility const& each : possibilitiesOf(kind))
        {
            for (bool const lasts : {false, true})
            {
                kit::fault const one{kind, static_cast<unsigned>(std::stoul(place[1])), each.what, lasts};
                if (kit::textOf(one) == text)
                {
                    return one;
                }
            }
        }
    }
    throw std::invalid_argument("no such fault: " + text);
}

// --- What a case must leave as it was

std::size_t entriesOf(char const* folder)
{
    std::size_t count = 0;
    DIR* const opened = opendir(folder);
    while (opened != nullptr && readdir(opened) != nullptr)
    {
        ++count;
    }
    closedir(opened);
    return count;
}

std::size_t threadCount()
{
    return entriesOf("/proc/self/task");
}

/// A thread that has been joined, and a descriptor that a helper closes, show a little longer.
bool becomes(std::size_t (*count)(), std::size_t wanted)
{
    return count() == wanted || kit::waitUntil([&] { return count() == wanted; });
}

class leakWatch
{
  public:
    void judge(std::vector<std::string>& problems) const
    {
        if (!becomes(threadCount, threads))
        {
            problems.push_back("threads: " + std::to_string(threads) + " before, " + std::to_string(threadCount()));
        }
        auto const descriptorCount = [] { return entriesOf("/proc/self/fd"); };
        if (!becomes(descriptorCount, descriptors))
        {
            problems.push_back("descriptors: " + std::to_string(descriptors) + " before, " +
                               std::to_string(descriptorCount()));
        }
        if (!kit::waitUntil([this] { return kit::allocationsAlive() == allocations; }, std::chrono::seconds(1)))
        {
            problems.push_back("allocations: " + std::to_string(allocations) + " before, " +
                               std::to_string(kit::allocationsAlive()));
        }
    }

  private:
    std::size_t const threads = threadCount();
    std::size_t const descriptors = entriesOf("/proc/self/fd");
    std::ptrdiff_t const allocations = kit::allocationsAlive();
};

// --- The port afterwards

/// Whole messages pass both ways. A frame of which bytes were lost swallows what comes first.
void exchange(bench& at, std::uint16_t firstId)
{
    constexpr std::uint16_t MOST_SWALLOWED = 8;
    at.call("signalPortReady", [&] { return at.port->signalPortReady(); });
    at.call("sendMessage", [&] { return at.port->sendMessage(message(firstId), false); });
    at.require(at.awaitOnLine(frame(firstId, 0)), "a message is sent");
    at.startReceiving();
    at.feed(kit::bytes(at.longestFrame, 0));
    for (std::uint16_t i = 0; i < MOST_SWALLOWED; ++i)
    {
        at.feed(frame(static_cast<std::uint16_t>(firstId + i), 0));
    }
    at.require(at.awaitReceived(static_cast<std::uint16_t>(firstId + MOST_SWALLOWED - 1)), "a message is received");
}

void checkQueueSurvived(bench& at)
{
    kit::bytes all;
    for (kit::bytes const& queued : at.leftQueued)
    {
        all.insert(all.end(), queued.begin(), queued.end());
    }
    at.call("signalPortReady", [&] { return at.port->signalPortReady(); });
    at.require(all.empty() || at.awaitOnLine(all), "what was left queued is sent, in order");
}

/// What came in meanwhile is not for the port that starts now.
void discardInput(std::string const& device)
{
    int const descriptor = ::open(device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (descriptor >= 0)
    {
        tcflush(descriptor, TCIOFLUSH);
        ::close(descriptor);
    }
}

/// One failure costs the message at hand; the port goes on.
void checkLivesOn(bench& at, std::size_t faults)
{
    constexpr std::uint16_t FIRST_ID = 0x7001;
    if (at.hasPort() && at.port->started && at.port->serial.isOpen() && !at.lineIsDead)
    {
        at.bePatient();
        exchange(at, FIRST_ID);
        std::size_t lost = 0;
        for (kit::bytes const& image : at.sent)
        {
            std::size_t const times = at.timesHeard(image);
            at.require(times <= 1, "nothing is sent twice");
            lost += times == 0 ? 1 : 0;
        }
        at.require(lost <= faults, "a fault costs no more than the message at hand");
    }
}

void recover(bench& at, std::size_t threadsBefore)
{
    constexpr std::uint16_t FIRST_ID = 0x7101;
    at.bePatient();
    if (!at.hasPort())
    {
        at.makePort();
    }
    at.port->setHandshakeTimeout_sec(0.6);
    at.require(at.stop(), "stop returns true afterwards");
    discardInput(at.deviceLink());
    at.require(at.startMayBeRefusedFirst ? at.await([&] { return at.start(); }) : at.start(),
               "start returns true afterwards");
    at.require(becomes(threadCount, threadsBefore + PORT_THREADS + (at.isReceiving() ? 1 : 0)),
               "a started port has four threads");
    checkQueueSurvived(at);
    exchange(at, FIRST_ID);
    at.require(at.stop(), "stop returns true in the end");
}

void takeAccount(outcome& result, std::size_t faults, kit::faultPlan const& plan)
{
    for (std::size_t i = 0; i < result.calls.size(); ++i)
    {
        result.calls[i] = plan.seen(static_cast<kit::callKind>(i));
    }
    for (std::size_t i = 0; i < faults; ++i)
    {
        result.struck = result.struck && plan.hasStruck(i);
    }
}

void runOn(bench& at, faultCase const& one, kit::faultPlan const& plan, outcome& result)
{
    std::size_t const threadsBefore = threadCount();
    one.where->run(at);
    takeAccount(result, one.faults.size(), plan);
    bool const allOnce =
        std::none_of(one.faults.begin(), one.faults.end(), [](kit::fault const& each) { return each.lasts; });
    if (allOnce && result.struck)
    {
        checkLivesOn(at, one.faults.size());
    }
    else
    {
        at.call("stop", [&] { return at.hasPort() && at.port->stop(); }); // while it still lasts
    }
    at.lift();
    recover(at, threadsBefore);
    at.require(becomes(threadCount, threadsBefore + 1), "a stopped port has no threads");
    at.require(at.log.mostFailedReadsInASecond() <= MOST_FAILED_READS_IN_A_SECOND,
               "no more than ten failed reads are logged in a second");
}

} // namespace

std::string textOf(faultCase const& one)
{
    std::string text = std::string(one.where->name) + ':';
    for (std::size_t i = 0; i < one.faults.size(); ++i)
    {
        text += (i == 0 ? " " : ", ") + textOf(one.faults[i]);
    }
    return text;
}

faultCase parse(std::string const& text)
{
    faultCase result;
    std::vector<std::string> const parts = split(text, ": ");
    result.where = scenarioNamed(parts[0]);
    if (result.where == nullptr || parts.size() != 2)
    {
        throw std::invalid_argument("no such case: " + text);
    }
    for (std::string const& part : split(parts[1], ", "))
    {
        result.faults.push_back(parseFault(part));
    }
    return result;
}

void warmUp(scenario const& where)
{
    std::thread([] {}).join(); // a sanitizer's own thread comes with the first
    kit::faultPlan plan({});
    bench at(plan, false, false);
    outcome unused;
    runOn(at, {&where, {}}, plan, unused);
}

outcome run(faultCase const& one)
{
    outcome result;
    bool const mayCost = std::any_of(one.faults.begin(), one.faults.end(), costs);
    bool const memory = std::any_of(one.faults.begin(), one.faults.end(),
                                    [](kit::fault const& each) { return each.at == kit::callKind::allocation; });
    kit::watchCase(textOf(one), CASE_LIMIT_SEC);
    kit::stopwatch const duration;
    leakWatch const leaks;
    {
        kit::faultPlan plan(one.faults);
        bench at(plan, mayCost, memory);
        runOn(at, one, plan, result);
        result.problems = at.problems();
    }
    if (result.problems.empty()) // whose texts would be taken for a leak
    {
        leaks.judge(result.problems);
    }
    result.duration_sec = duration.elapsed_sec();
    kit::watchCase("", 0);
    return result;
}

} // namespace faults
