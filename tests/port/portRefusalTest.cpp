#include "frames.h"
#include "messages.h"
#include "portOnLine.h"
#include "processState.h"
#include "refusals.h"
#include "sanitized.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <vector>

/// \file
/// What becomes of the port when the system refuses it a mutex, a condition, or the attributes of its thread.

namespace
{

using kit::exposedPort;
using kit::frame;
using kit::message;
using kit::portOnLine;
using testing::ElementsAreArray;

using objects = std::vector<void const*>;

/// The port's own, in the order in which they are made and destroyed.
objects ownObjectsOf(exposedPort const& port)
{
    return {&port.sendMutex, &port.readyCond, &port.readyMutex, &port.txCond, &port.txMutex};
}

/// Those of the two that are the port's own, in the order asked for.
objects onlyThose(objects const& asked, objects const& own)
{
    objects result;
    std::copy_if(asked.begin(), asked.end(), std::back_inserter(result),
                 [&](void const* each) { return std::find(own.begin(), own.end(), each) != own.end(); });
    return result;
}

class PortSynchronisation : public testing::Test
{
  protected:
    void TearDown() override { kit::refusedHere() = {}; }

    /// Notes what is made or destroyed while `step` runs, and refuses one of them.
    template <typename Step>
    objects askedDuring(Step const& step, std::size_t refusedOne = 0)
    {
        objects asked;
        kit::refusals& refuse = kit::refusedHere();
        refuse.asked = &asked;
        refuse.refusedOne = refusedOne;
        step();
        refuse = {};
        return asked;
    }

    void construct() { port = std::make_unique<exposedPort>("/nowhere/tty", clock, &log, false); }

    kit::settableTime clock;
    kit::recordingLog log;
    std::unique_ptr<exposedPort> port;
};

TEST_F(PortSynchronisation, Construction_MakesTheFiveInTheirOrder)
{
    objects const asked = askedDuring([this] { construct(); });
    EXPECT_THAT(onlyThose(asked, ownObjectsOf(*port)), ElementsAreArray(ownObjectsOf(*port)));
    EXPECT_TRUE(std::equal(asked.end() - 5, asked.end(), ownObjectsOf(*port).begin())) << "the tracker's come before";
}

TEST_F(PortSynchronisation, ConstructionThatIsRefusedOne_MakesNoneAfterItAndTellsNobody)
{
    std::size_t const others = askedDuring([this] { construct(); }).size() - 5;
    for (std::size_t refused = 1; refused <= 5; ++refused)
    {
        SCOPED_TRACE(refused);
        port.reset();
        objects const asked = askedDuring([this] { EXPECT_NO_THROW(construct()); }, others + refused);
        ASSERT_NE(port, nullptr);
        EXPECT_EQ(asked.size(), others + refused);
        EXPECT_EQ(asked.back(), ownObjectsOf(*port).at(refused - 1));
        EXPECT_TRUE(log.lines().empty());
    }
}

TEST_F(PortSynchronisation, Destruction_TakesTheFiveInTheirOrder)
{
    construct();
    objects const own = ownObjectsOf(*port);
    objects const asked = askedDuring([this] { port.reset(); });
    EXPECT_THAT(onlyThose(asked, own), ElementsAreArray(own));
    EXPECT_TRUE(std::equal(own.begin(), own.end(), asked.begin())) << "the tracker's come after";
}

TEST_F(PortSynchronisation, DestructionThatIsRefusedOne_LeavesTheRest)
{
    for (std::size_t refused = 1; refused <= 5; ++refused)
    {
        SCOPED_TRACE(refused);
        construct();
        objects own = ownObjectsOf(*port);
        objects const asked = askedDuring([this] { EXPECT_NO_THROW(port.reset()); }, refused);
        objects const taken(own.begin(), own.begin() + static_cast<std::ptrdiff_t>(refused));
        EXPECT_THAT(onlyThose(asked, own), ElementsAreArray(taken));
        EXPECT_TRUE(log.lines().empty());
    }
}

/// A port whose transmit thread cannot have its attributes.
class PortThreadRefusal : public testing::Test
{
  protected:
    void TearDown() override { refuse = {}; }

    void expectStartsProperly()
    {
        refuse = {};
        EXPECT_TRUE(rig.port.start());
        EXPECT_TRUE(watch.waitForAdded(4));
        rig.port.sendMessage(message(1), false);
        EXPECT_EQ(rig.line.read(10), frame(1, 0));
        EXPECT_TRUE(rig.port.stop());
        EXPECT_TRUE(watch.waitForAdded(0));
    }

    kit::refusals& refuse = kit::refusedHere();
    kit::threadWatch watch;
    portOnLine<> rig;
};

TEST_F(PortThreadRefusal, AttributesCannotBeMade_IsReportedAndNoThreadIsMade)
{
    refuse.attributesInit = ENOMEM;
    EXPECT_EQ(rig.port.initializeTransmitThread(), ENOMEM);
    EXPECT_TRUE(watch.waitForAdded(0));
    EXPECT_FALSE(rig.gateIsOpen());
    expectStartsProperly();
}

TEST_F(PortThreadRefusal, AttributesCannotBeMade_FailsTheStart)
{
    if (kit::isThreadSanitized)
    {
        GTEST_SKIP() << "the sanitizer makes attributes of its own for each thread";
    }
    refuse.attributesInit = ENOMEM;
    EXPECT_FALSE(rig.port.start());
    EXPECT_FALSE(rig.port.started);
    EXPECT_TRUE(watch.waitForAdded(2)) << "the receiver's two";
    expectStartsProperly();
}

TEST_F(PortThreadRefusal, AttributesCannotBeDestroyed_IsReportedWhileTheThreadRuns)
{
    refuse.attributesDestroy = EINVAL;
    EXPECT_EQ(rig.port.initializeTransmitThread(), EINVAL);
    refuse = {};
    EXPECT_TRUE(watch.waitForAdded(1));
    EXPECT_EQ(rig.port.uninitializeTransmitThread(), 0);
    EXPECT_TRUE(rig.port.txRunning.isClear());
    EXPECT_TRUE(watch.waitForAdded(0));
    expectStartsProperly();
}

TEST_F(PortThreadRefusal, AttributesCannotBeDestroyed_FailsTheStart)
{
    refuse.attributesDestroy = EINVAL;
    EXPECT_FALSE(rig.port.start());
    EXPECT_FALSE(rig.port.started);
    EXPECT_TRUE(watch.waitForAdded(4));
    expectStartsProperly();
}

} // namespace
