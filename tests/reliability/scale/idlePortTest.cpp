// A port that has nothing to do does nothing: none of its threads wakes up even once.

#include "frames.h"
#include "messages.h"
#include "monotonicTimeStamp.h"
#include "portOnLine.h"
#include "processState.h"
#include "testSize.h"

#include <chrono>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <thread>

namespace
{

using kit::threadState;

/// How often the thread has gone to sleep so far: once for each time that something has woken it.
std::map<std::string, std::string> switchesOf(std::vector<threadState> const& threads)
{
    std::map<std::string, std::string> switches;
    for (threadState const& thread : threads)
    {
        switches[thread.name + " (" + std::to_string(thread.id) + ")"] =
            kit::statusField(thread.id, "voluntary_ctxt_switches");
    }
    return switches;
}

void expectThatNoneWakes(std::vector<threadState> const& threads)
{
    ASSERT_EQ(threads.size(), 4U);
    for (threadState const& thread : threads)
    {
        ASSERT_TRUE(kit::waitUntilAsleep(thread.id)) << thread.name;
    }
    auto const before = switchesOf(threads);
    auto const time = bySize(std::chrono::seconds(10), std::chrono::seconds(60), std::chrono::seconds(600));
    std::this_thread::sleep_for(time);
    EXPECT_EQ(switchesOf(threads), before) << "in " << time.count() << " s";
}

TEST(IdlePort, NeverUsed_WakesNoThread)
{
    kit::portOnLine<> idle;
    kit::threadWatch const watch;
    ASSERT_TRUE(idle.port.start());
    expectThatNoneWakes(watch.added());
}

/// A tracked message has been given up, another acknowledged, noise has been dropped.
TEST(IdlePort, AfterTraffic_WakesNoThread)
{
    kit::portOnLine<kit::exposedPort, monotonicTimeStamp> idle;
    ASSERT_EQ(idle.port.configurePort(115200, 8, PARITY_NONE, 1, 0, 0.02, 0.02, 5), 0);
    kit::threadWatch const watch;
    ASSERT_TRUE(idle.port.start());
    std::vector<threadState> const threads = watch.added();

    idle.port.sendMessage(kit::message(1, gssipMessage::ACK_REQ_FLAG), true);
    kit::bytes const once = kit::frame(1, gssipMessage::ACK_REQ_FLAG);
    using kit::operator+;
    EXPECT_EQ(idle.line.read(2 * once.size()), once + once);
    ASSERT_TRUE(idle.waitForPending(0));
    idle.line.write(kit::bytes(1000, 0xFF) + kit::frame(2, 0));
    gssipMessage received;
    EXPECT_EQ(idle.port.getMessage(received, true), 0);
    EXPECT_EQ(received.getId(), 2);

    expectThatNoneWakes(threads);
}

} // namespace
