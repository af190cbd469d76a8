#ifndef CYCLES_LIFECYCLES_H
#define CYCLES_LIFECYCLES_H

#include "cycleJudge.h"
#include "emulation.h"
#include "monotonicTimeStamp.h"
#include "placement.h"
#include "sanitized.h"

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <thread>

namespace cycles
{

/// Runs one cycle again and again, in one place of the machine.
class lifeCycles : public testing::TestWithParam<placement>
{
  protected:
    void SetUp() override
    {
        if (!kit::givesThreadMemoryBack())
        {
            GTEST_SKIP() << kit::THREAD_MEMORY_KEPT;
        }
    }

    void run(std::size_t count, std::function<void(cycleJudge&)> const& oneCycle, std::size_t held_bytes = 0)
    {
        SCOPED_TRACE("GSSIP_TEST_SEED=" + std::to_string(seed));
        try
        {
            cycleJudge judge(kit::isSanitized ? count / 10 : count, held_bytes);
            for (std::size_t each = 0; each < judge.cyclesToCome() && !HasFailure(); ++each)
            {
                oneCycle(judge);
                judge.close();
            }
            ASSERT_FALSE(HasFailure());
            judge.conclude(testing::UnitTest::GetInstance()->current_test_info()->name());
        }
        catch (std::exception const& fault)
        {
            FAIL() << fault.what();
        }
    }

    /// Sleeps for a random time.
    void waitUpTo(unsigned most_us)
    {
        auto const time_us = std::uniform_int_distribution<unsigned>(0, most_us)(random);
        std::this_thread::sleep_for(std::chrono::microseconds(time_us));
    }

    monotonicTimeStamp clock;

  private:
    /// Decides about the random times; that of a failure replays them.
    static unsigned seedOfTest()
    {
        char const* const asked = std::getenv("GSSIP_TEST_SEED");
        return asked == nullptr ? 1 : static_cast<unsigned>(std::strtoul(asked, nullptr, 10));
    }

    unsigned const seed = seedOfTest();
    std::mt19937 random{seed};
    placed where{GetParam()};
};

} // namespace cycles

#endif
