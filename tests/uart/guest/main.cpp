// Runs the scenarios named, each as often as it is named, or all of them once, and prints what each has found, a count
// and the figures.

#include "scenario.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace
{

using uart::lane;
using uart::scenario;

/// What the processes of all lanes add to.
struct tally
{
    int passed = 0;
    int failed = 0;
};

tally* sharedTally()
{
    void* const memory = mmap(nullptr, sizeof(tally), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return new (memory) tally;
}

std::vector<scenario> allScenarios()
{
    std::vector<scenario> all;
    for (auto const& group :
         {uart::bootScenarios, uart::deviceScenarios, uart::exchangeScenarios, uart::trafficScenarios,
          uart::lifeScenarios, uart::clockScenarios, uart::usbScenarios, uart::figureScenarios})
    {
        std::vector<scenario> const members = group();
        all.insert(all.end(), members.begin(), members.end());
    }
    return all;
}

/// In a process of its own: the scenario, with its output in a file.
[[noreturn]] void perform(scenario const& each, std::string const& output)
{
    int const file = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    try
    {
        each.run();
    }
    catch (std::exception const& fault)
    {
        uart::expect(false, std::string("no exception; ") + fault.what());
    }
    std::fflush(nullptr);
    _exit(uart::failures() == 0 ? 0 : 1);
}

/// Those that are named, as often as they are named; all when none is.
std::vector<scenario> chosenScenarios(std::vector<std::string> const& names)
{
    std::vector<scenario> const all = allScenarios();
    std::vector<scenario> chosen;
    for (scenario const& each : all)
    {
        chosen.insert(chosen.end(), static_cast<std::size_t>(std::count(names.begin(), names.end(), each.name)), each);
    }
    return names.empty() ? all : chosen;
}

double now_sec()
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

/// What is wrong with the way in which a process ended, or nothing.
std::string verdictOn(pid_t process, double limit_sec)
{
    double const deadline_sec = now_sec() + limit_sec;
    int status = 0;
    while (waitpid(process, &status, WNOHANG) == 0)
    {
        if (now_sec() > deadline_sec)
        {
            kill(process, SIGKILL);
            waitpid(process, &status, 0);
            return "still running after " + std::to_string(static_cast<int>(limit_sec)) + " s";
        }
        usleep(20000);
    }
    if (WIFSIGNALED(status))
    {
        return "ended by signal " + std::to_string(WTERMSIG(status));
    }
    return WEXITSTATUS(status) == 0 ? "" : "not as expected";
}

std::string contentsOf(std::string const& name)
{
    std::string text;
    if (std::FILE* const file = std::fopen(name.c_str(), "r"))
    {
        for (int next = std::fgetc(file); next != EOF; next = std::fgetc(file))
        {
            text += static_cast<char>(next);
        }
        std::fclose(file);
    }
    return text;
}

void runOne(scenario const& each, tally& results)
{
    std::string const output = "/tmp/" + each.name;
    double const began_sec = now_sec();
    pid_t const process = fork();
    if (process == 0)
    {
        perform(each, output);
    }
    std::string const fault = verdictOn(process, each.limit_sec);
    char head[200];
    std::snprintf(head, sizeof head, "%-7s %6.1f s  %s%s%s\n", fault.empty() ? "passed" : "FAILED",
                  now_sec() - began_sec, each.name.c_str(), fault.empty() ? "" : ": ", fault.c_str());
    __atomic_add_fetch(fault.empty() ? &results.passed : &results.failed, 1, __ATOMIC_RELAXED);
    std::string const block = head + contentsOf(output);
    std::fwrite(block.data(), 1, block.size(), stdout); // in one piece: other lanes print too
    std::fflush(stdout);
}

void runLane(std::vector<scenario> const& all, lane which, tally& results)
{
    for (scenario const& each : all)
    {
        if (each.where == which)
        {
            runOne(each, results);
        }
    }
}

void runSideBySide(std::vector<scenario> const& all, std::vector<lane> const& lanes, tally& results)
{
    std::vector<pid_t> processes;
    for (lane const which : lanes)
    {
        pid_t const process = fork();
        if (process == 0)
        {
            runLane(all, which, results);
            _exit(0);
        }
        processes.push_back(process);
    }
    for (pid_t const process : processes)
    {
        waitpid(process, nullptr, 0);
    }
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<scenario> const all = chosenScenarios({argv + 1, argv + argc});
    if (all.empty())
    {
        std::printf("there is no such scenario\n");
        return 1;
    }
    tally& results = *sharedTally();
    runSideBySide(all, {lane::firstPair, lane::secondPair}, results);
    runLane(all, lane::usb, results); // the adapters need most of a processor
    runLane(all, lane::alone, results);
    std::printf("scenarios: %d passed, %d failed\n", results.passed, results.failed);
    return results.failed == 0 ? 0 : 1;
}
