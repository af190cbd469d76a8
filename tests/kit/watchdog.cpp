// Link this file into a test program: a test in it that hangs ends the program with a message, and so fails.

#include "watchdog.h"

#include "emulation.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)()); // there in sanitized builds

namespace
{

unsigned const limit_sec = kit::isEmulated() ? 120 : 30;

char message[512];
char inCase[512]; ///< empty while no case is watched

void show(char const* text)
{
    [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, text, std::strlen(text));
}

void showCase()
{
    show(inCase);
    inCase[0] = '\0';
}

/// A signal, since a thread would stand in the way of tests that fork.
void giveUp(int /*signal*/)
{
    inCase[0] = '\0';
    show(message);
    std::abort();
}

void endWithCase(int /*signal*/)
{
    showCase();
    std::signal(SIGABRT, SIG_DFL);
    std::raise(SIGABRT);
}

void setAlarm(unsigned seconds)
{
    std::signal(SIGALRM, giveUp);
    ::alarm(seconds);
}

class watchdog : public testing::EmptyTestEventListener
{
    void OnTestStart(testing::TestInfo const& test) override
    {
        std::snprintf(message, sizeof message, "%s.%s hangs: it has taken more than %u s\n", test.test_suite_name(),
                      test.name(), limit_sec);
        setAlarm(limit_sec);
    }

    void OnTestEnd(testing::TestInfo const& /*test*/) override { ::alarm(0); }
};

[[maybe_unused]] bool const watching = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new watchdog);
    return true;
}();

void tellCaseWhenTheProgramEnds()
{
    std::signal(SIGABRT, endWithCase);
    if (__sanitizer_set_death_callback != nullptr)
    {
        __sanitizer_set_death_callback(showCase);
    }
    else
    {
        std::signal(SIGSEGV, [](int) { endWithCase(SIGABRT); });
    }
}

} // namespace

namespace kit
{

void watchCase(std::string const& name, unsigned caseLimit_sec)
{
    ::alarm(0);
    inCase[0] = '\0';
    if (!name.empty())
    {
        [[maybe_unused]] static bool const told = (tellCaseWhenTheProgramEnds(), true);
        std::snprintf(message, sizeof message, "hangs, it has taken more than %u s: %s\n", caseLimit_sec, name.c_str());
        std::snprintf(inCase, sizeof inCase, "the program ends in: %s\n", name.c_str());
        setAlarm(caseLimit_sec);
    }
}

} // namespace kit
