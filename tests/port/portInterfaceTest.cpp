#include "messages.h"
#include "portOnLine.h"
#include "virtualSlot.h"

#include <gmock/gmock.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace
{

using kit::exposedPort;
using kit::message;
using kit::virtualSlot;
using testing::ElementsAre;

TEST(PortInterface, VirtualOperations_StandInTheirSlots)
{
    std::vector<std::ptrdiff_t> const slots{
        virtualSlot(&gssipPortInterface::start),
        virtualSlot(&gssipPortInterface::stop),
        virtualSlot(&gssipPortInterface::configurePort),
        virtualSlot(&gssipPortInterface::getPortConfigStr),
        virtualSlot(&gssipPortInterface::getAcknowledgeTimeout_sec),
        virtualSlot(&gssipPortInterface::setAcknowledgeTimeout_sec),
        virtualSlot(&gssipPortInterface::getHandshakeTimeout_sec),
        virtualSlot(&gssipPortInterface::setHandshakeTimeout_sec),
        virtualSlot(&gssipPortInterface::getPort),
        virtualSlot(&gssipPortInterface::sendMessage),
        virtualSlot(&gssipPortInterface::sendMessages),
        virtualSlot(&gssipPortInterface::sendDtMessages),
        virtualSlot(&gssipPortInterface::sendResyncSequence),
        virtualSlot(&gssipPortInterface::sendHandshakeReject),
        virtualSlot(&gssipPortInterface::resendMessage),
        virtualSlot(&gssipPortInterface::send),
        virtualSlot(&gssipPortInterface::getReceiveInterCharacterGap_sec),
        virtualSlot(&gssipPortInterface::setReceiveInterCharacterGap_sec),
        virtualSlot(&gssipPortInterface::setReceiveAutoAcknowledgeEnable),
        virtualSlot(&gssipPortInterface::getReceiveAutoAcknowledgeEnable),
        virtualSlot(&gssipPortInterface::getMessage),
        virtualSlot(&gssipPortInterface::removeMsgIdFromTxQueue),
        virtualSlot(&gssipPortInterface::getNumberQueuedMessages),
        virtualSlot(&gssipPortInterface::clearTransmitQueue),
    };
    for (std::size_t place = 0; place < slots.size(); ++place)
    {
        EXPECT_EQ(slots[place], static_cast<std::ptrdiff_t>(place));
    }
}

TEST(PortInterface, OtherOperations_AreNotVirtual)
{
    EXPECT_EQ(virtualSlot(&gssipPort::serviceTransmitQueue), -1);
    EXPECT_EQ(virtualSlot(&gssipPort::getNumberRxQueuedMessages), -1);
    EXPECT_EQ(virtualSlot(&exposedPort::initializeReceiveThread), -1);
    EXPECT_EQ(virtualSlot(&exposedPort::uninitializeReceiveThread), -1);
    EXPECT_EQ(virtualSlot(&exposedPort::initializeTransmitThread), -1);
    EXPECT_EQ(virtualSlot(&exposedPort::uninitializeTransmitThread), -1);
    EXPECT_EQ(virtualSlot(&exposedPort::transmitThread), -1);
    EXPECT_EQ(virtualSlot(&exposedPort::resetPortReady), -1);
    EXPECT_EQ(virtualSlot(&exposedPort::signalPortReady), -1);
    EXPECT_EQ(virtualSlot(&exposedPort::waitForPortReady), -1);
    EXPECT_EQ(virtualSlot(&exposedPort::_gssipSend), -1);
    EXPECT_EQ(virtualSlot(&exposedPort::sendAcknowledgement), -1);
}

TEST(PortInterface, IsAbstractAndHasNoData)
{
    EXPECT_TRUE(std::is_abstract_v<gssipPortInterface>);
    EXPECT_TRUE(std::has_virtual_destructor_v<gssipPortInterface>);
    EXPECT_EQ(sizeof(gssipPortInterface), sizeof(void*));
    EXPECT_TRUE((std::is_convertible_v<gssipPort*, gssipPortInterface*>));
    EXPECT_FALSE(std::is_copy_constructible_v<gssipPort>);
    EXPECT_FALSE(std::is_copy_assignable_v<gssipPort>);
}

TEST(PortInterface, Members_StandInTheirOrder)
{
    kit::portOnLine<> rig;
    exposedPort& port = rig.port;
    std::vector<void const volatile*> const members{
        &port.portId,
        &port.serial,
        &port.started,
        &port.ackTimeout_sec,
        &port.handshakeTimeout_sec,
        &port.sendMutex,
        &port.rxInterCharGap_sec,
        &port.rxAutoAck,
        &port.receiver,
        &port.readyMutex,
        &port.readyCond,
        &port.portReady,
        &port.txMutex,
        &port.txCond,
        &port.txQueue,
        &port.txThread,
        &port.txRunning,
        &port.sendAckReq,
        &port.portOption,
        &port.log,
    };
    for (std::size_t next = 1; next < members.size(); ++next)
    {
        EXPECT_LT(members[next - 1], members[next]) << next;
    }
}

/// An implementation of the interface that has nothing to do with a line.
class foreignPort : public gssipPortInterface
{
  public:
    unsigned sendMessage(gssipMessage const& sent, bool trackAck) override
    {
        ids.push_back(sent.getId());
        tracked = tracked && trackAck;
        return 1;
    }

    bool start() override { return false; }
    bool stop() override { return false; }
    int configurePort(unsigned const&, unsigned const&, PARITY_TYPE const&, unsigned const&, unsigned const&,
                      double const&, double const&, unsigned const&) override
    {
        return 0;
    }
    int getPortConfigStr(std::string&) override { return 0; }
    double getAcknowledgeTimeout_sec() override { return 0.0; }
    void setAcknowledgeTimeout_sec(double const&) override {}
    double getHandshakeTimeout_sec() override { return 0.0; }
    void setHandshakeTimeout_sec(double const&) override {}
    std::string getPort() override { return {}; }
    unsigned sendDtMessages(std::vector<gssipMessage>::const_iterator, unsigned) override { return 0; }
    int sendResyncSequence() override { return 0; }
    int sendHandshakeReject(unsigned, bool) override { return 0; }
    int resendMessage(gssipMessage&) override { return 0; }
    int send(std::uint8_t const*, unsigned const&, unsigned&) override { return 0; }
    int getReceiveInterCharacterGap_sec(double&, double*) override { return 0; }
    int setReceiveInterCharacterGap_sec(double const&) override { return 0; }
    void setReceiveAutoAcknowledgeEnable(bool const&) override {}
    bool getReceiveAutoAcknowledgeEnable() override { return false; }
    int getMessage(gssipMessage&, bool) override { return 0; }
    void removeMsgIdFromTxQueue(unsigned const&) override {}
    unsigned getNumberQueuedMessages() override { return 0; }
    void clearTransmitQueue() override {}

    std::vector<unsigned> ids;
    bool tracked = true;
};

TEST(PortInterface, SendMessages_NeedsNoMoreThanSendMessage)
{
    foreignPort port;
    EXPECT_EQ(port.sendMessages({message(3), message(1), message(2)}, true), 0U);
    EXPECT_THAT(port.ids, ElementsAre(3, 1, 2));
    EXPECT_TRUE(port.tracked);
}

} // namespace
