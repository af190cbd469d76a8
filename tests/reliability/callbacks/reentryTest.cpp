// From every place where a port calls the application, every operation of the port is called.

#include "occasions.h"
#include "operations.h"

#include "awaitOnLine.h"
#include "wholeExchange.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

namespace
{

class EveryCallback : public testing::TestWithParam<occasion>
{};

INSTANTIATE_TEST_SUITE_P(Of, EveryCallback, testing::ValuesIn(everyOccasion()),
                         [](testing::TestParamInfo<occasion> const& each) { return std::string(each.param.name); });

/// What a call-back has found, for the test's thread.
class finding
{
  public:
    void tell(std::string const& fault)
    {
        found = fault;
        known = true; // `found` is complete then
    }
    bool await() const
    {
        return kit::waitUntil([this] { return known.load(); });
    }
    std::string const& fault() const { return found; }

  private:
    std::string found;
    std::atomic<bool> known{false};
};

void expectOnLine(kit::pseudoTerminal& line, std::vector<kit::bytes> const& pieces)
{
    for (kit::bytes const& each : pieces)
    {
        EXPECT_TRUE(kit::awaitOnLine(line, each));
    }
}

/// One operation, called back once. All of it has to work, and the port afterwards.
void expectServed(occasion const& where, operation const& what)
{
    callbackRig rig;
    finding result;
    rig.port.setHandshakeTimeout_sec(0.02);
    rig.app.actAt(where.place, [&] {
        if (rig.app.calls == 1)
        {
            result.tell(what.call(rig.port));
        }
    });
    ASSERT_TRUE(rig.port.start());
    where.bringAbout(rig);
    ASSERT_TRUE(result.await()) << "the call-back does not return, or is not called";
    EXPECT_EQ(result.fault(), "");
    if (!(where.discardsQueue && what.isQueued))
    {
        expectOnLine(rig.line, what.written);
    }
    EXPECT_TRUE(rig.port.stop()); // what is pending is forgotten
    ASSERT_TRUE(rig.port.start());
    EXPECT_EQ(kit::faultOfAcknowledgedExchange(rig), "");
}

TEST_P(EveryCallback, OperationCalledBack_IsServed)
{
    for (operation const& each : everyOperation())
    {
        SCOPED_TRACE(each.name);
        expectServed(GetParam(), each);
    }
}

TEST_P(EveryCallback, StopCalledBack_IsRefusedWhereItWouldWaitForItself)
{
    callbackRig rig;
    std::atomic<int> stopped{-1};
    rig.app.actAt(GetParam().place, [&] {
        if (rig.app.calls == 1)
        {
            stopped = rig.port.stop() ? 1 : 0;
        }
    });
    ASSERT_TRUE(rig.port.start());
    GetParam().bringAbout(rig);
    ASSERT_TRUE(kit::waitUntil([&] { return stopped != -1; }));
    EXPECT_EQ(stopped == 1, GetParam().mayStop);
    EXPECT_EQ(rig.port.started, !GetParam().mayStop);
    EXPECT_TRUE(rig.port.stop());
    ASSERT_TRUE(rig.port.start());
    EXPECT_EQ(kit::faultOfExchange(rig), "");
}

} // namespace
