// Takes one measurement of one contender and prints its figures as a line of JSON. A process for each: nothing that
// one leaves behind (threads, memory, caches) touches the next.

#include "measurement.h"
#include "process.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <nlohmann/json.hpp>

namespace
{

bench::measurements allMeasurements()
{
    bench::measurements all;
    bench::addRoundTrips(all);
    bench::addStreams(all);
    bench::addManyPorts(all);
    bench::addPeers(all);
    bench::addThreads(all);
    bench::addLateness(all);
    return all;
}

std::string list(bench::measurements const& all)
{
    std::string text = "Measurements and their contenders:";
    for (auto const& [names, run] : all)
    {
        text += "\n  " + names.first + ' ' + names.second;
    }
    return text;
}

} // namespace

int main(int argc, char** argv)
{
    bench::measurements const all = allMeasurements();
    std::string name;
    std::string contender;
    bench::options asked;

    CLI::App app("Takes one measurement of one contender.");
    app.footer(list(all));
    app.add_option("measurement", name)->required();
    app.add_option("contender", contender)->required();
    app.add_flag("--real-time", asked.realTime, "SCHED_RR for the threads that ask for it; otherwise nobody may");
    app.add_option("--line", asked.line, "what joins the two ends")
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, bench::joint>{{"hook", bench::joint::hook}, {"relay", bench::joint::relay}}));
    app.add_option("--count", asked.count, "messages, or repetitions")->required();
    app.add_option("--bytes", asked.bytes, "length of a message on the line")->capture_default_str();
    app.add_option("--lag", asked.lag, "messages that stay unacknowledged")->capture_default_str();
    app.add_option("--ports", asked.ports)->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    auto const found = all.find({name, contender});
    if (found == all.end())
    {
        std::cerr << "no measurement " << name << " of " << contender << '\n';
        return 2;
    }
    try
    {
        if (!asked.realTime)
        {
            bench::refuseRealTime();
        }
        std::cout << nlohmann::json(found->second(asked)).dump() << std::endl;
    }
    catch (std::exception const& failure)
    {
        std::cerr << name << ' ' << contender << ": " << failure.what() << std::endl;
        std::_Exit(1);
    }
    std::_Exit(0); // the contenders' threads end here, wherever they are
}
