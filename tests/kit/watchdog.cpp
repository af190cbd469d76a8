// Link this file into a test program: a test in it that hangs ends the program with a message, and so fails.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace
{

constexpr unsigned limit_sec = 30;

char message[256];

/// A signal, since a thread would stand in the way of tests that fork.
void giveUp(int /*signal*/)
{
    [[maybe_unused]] ssize_t const written = ::write(STDERR_FILENO, message, std::strlen(message));
    std::abort();
}

class watchdog : public testing::EmptyTestEventListener
{
    void OnTestStart(testing::TestInfo const& test) override
    {
        std::snprintf(message, sizeof message, "%s.%s hangs: it has taken more than %u s\n", test.test_suite_name(),
                      test.name(), limit_sec);
        std::signal(SIGALRM, giveUp);
        ::alarm(limit_sec);
    }

    void OnTestEnd(testing::TestInfo const& /*test*/) override { ::alarm(0); }
};

[[maybe_unused]] bool const watching = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new watchdog);
    return true;
}();

} // namespace
