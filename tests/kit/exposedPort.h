#ifndef KIT_EXPOSEDPORT_H
#define KIT_EXPOSEDPORT_H

#include "gssipPort.h"
#include "gssipReceive.h"
#include "gssipSendAckReq.h"

namespace kit
{

/// A port whose protected members a test can reach. Stops itself, as a derived class has to.
class exposedPort : public gssipPort
{
  public:
    using gssipPort::gssipPort;
    ~exposedPort() override { stop(); }

    using gssipPort::_gssipSend;
    using gssipPort::callTransmitThread;
    using gssipPort::initializeReceiveThread;
    using gssipPort::initializeTransmitThread;
    using gssipPort::resetPortReady;
    using gssipPort::sendAcknowledgement;
    using gssipPort::signalPortReady;
    using gssipPort::transmitThread;
    using gssipPort::uninitializeReceiveThread;
    using gssipPort::uninitializeTransmitThread;
    using gssipPort::waitForPortReady;

    using gssipPort::ackTimeout_sec;
    using gssipPort::handshakeTimeout_sec;
    using gssipPort::log;
    using gssipPort::nextPortId;
    using gssipPort::portId;
    using gssipPort::portOption;
    using gssipPort::portReady;
    using gssipPort::readyCond;
    using gssipPort::readyMutex;
    using gssipPort::receiver;
    using gssipPort::rxAutoAck;
    using gssipPort::rxInterCharGap_sec;
    using gssipPort::sendAckReq;
    using gssipPort::sendMutex;
    using gssipPort::serial;
    using gssipPort::started;
    using gssipPort::timeStamp;
    using gssipPort::txCond;
    using gssipPort::txMutex;
    using gssipPort::txQueue;
    using gssipPort::txRunning;
    using gssipPort::txThread;
};

/// A receiver whose protected members a test can reach.
class exposedReceive : public gssipReceive
{
  public:
    using gssipReceive::gssipReceive;

    using gssipReceive::processDATA_STATE;
    using gssipReceive::processHEADER_STATE;
    using gssipReceive::processReceiveQ;
    using gssipReceive::processSOM_STATE;

    using gssipReceive::bytesRead;
    using gssipReceive::dataAvailable;
    using gssipReceive::frameBuffer;
    using gssipReceive::frameCondition;
    using gssipReceive::frameMutex;
    using gssipReceive::log;
    using gssipReceive::rxQueue;
    using gssipReceive::state;
    using gssipReceive::stopProcess;
    using gssipReceive::stopRead;

    /// The same view of a receiver that a port owns.
    static exposedReceive& of(gssipReceive& receiver) { return static_cast<exposedReceive&>(receiver); }
};

/// A tracker whose protected members a test can reach.
class exposedSendAckReq : public gssipSendAckReq
{
  public:
    using gssipSendAckReq::gssipSendAckReq;

    using gssipSendAckReq::eventQ;
    using gssipSendAckReq::eventQCond;
    using gssipSendAckReq::eventQMutex;
    using gssipSendAckReq::eventThreadId;
    using gssipSendAckReq::eventThreadRunning;
    using gssipSendAckReq::log;
    using gssipSendAckReq::nextEventId;

    /// The same view of a tracker that a port owns.
    static exposedSendAckReq& of(gssipSendAckReq& tracker) { return static_cast<exposedSendAckReq&>(tracker); }
};

} // namespace kit

#endif
