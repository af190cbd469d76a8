#include "gssipPort.h"

#include "discardLog.h"
#include "gssipPortState.h"
#include "gssipReceive.h"
#include "portThread.h"
#include "threadFunctions.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <sched.h>
#include <system_error>

namespace
{

constexpr double DEFAULT_ACK_TIMEOUT_SEC = 0.2;
constexpr double DEFAULT_HANDSHAKE_TIMEOUT_SEC = 0.6;
constexpr double DEFAULT_RX_INTER_CHAR_GAP_SEC = 0.00520833;

constexpr unsigned char VMIN_ONE_BYTE = 1;
constexpr unsigned char PROVISIONAL_VTIME = 10;
constexpr double VTIME_UNIT_SEC = 0.1;
constexpr double LONGEST_VTIME = 255;

constexpr unsigned START_BITS = 1;

constexpr char const* THREAD_NAME = "GP TX";
constexpr int THREAD_PRIORITY = 51;

/// The receive gap as the device keeps it. Compared before it is converted: a conversion of what does not fit differs
/// from processor to processor. Written so that NaN gives 1.
unsigned char vtimeOf(double gap_sec)
{
    double const tenths = std::ceil(gap_sec / VTIME_UNIT_SEC);
    if (tenths >= LONGEST_VTIME)
    {
        return static_cast<unsigned char>(LONGEST_VTIME);
    }
    return tenths > 1.0 ? static_cast<unsigned char>(tenths) : 1;
}

} // namespace

std::atomic<std::uint32_t> gssipPort::nextPortId{0};

gssipPort::gssipPort(std::string const& portName, timeStampInterface& timeStampSource, asciiLogInterface* logToUse,
                     bool const& option)
    : portId(nextPortId++), serial(portName, *gssipInternal::discardLog::unless(logToUse)), timeStamp(timeStampSource),
      started(false), ackTimeout_sec(DEFAULT_ACK_TIMEOUT_SEC), handshakeTimeout_sec(DEFAULT_HANDSHAKE_TIMEOUT_SEC),
      sendMutex(), rxInterCharGap_sec(DEFAULT_RX_INTER_CHAR_GAP_SEC), rxAutoAck(true), readyMutex(), readyCond(),
      portReady(false), txMutex(), txCond(), txThread(), txRunning(false), sendAckReq(*this, logToUse),
      portOption(option), log(gssipInternal::discardLog::unless(logToUse)), own(std::make_unique<privateState>())
{
    initializeSynchronisation();
    resetPortReady();
}

gssipPort::~gssipPort()
{
    if (started || anyThreadExists())
    {
        started = stopEverything() != 0;
    }
    destroySynchronisation();
}

/// Stops at the first failure, which nobody is told.
void gssipPort::initializeSynchronisation()
{
    static_cast<void>(pthread_mutex_init(&sendMutex, nullptr) == 0 && pthread_cond_init(&readyCond, nullptr) == 0 &&
                      pthread_mutex_init(&readyMutex, nullptr) == 0 && pthread_cond_init(&txCond, nullptr) == 0 &&
                      pthread_mutex_init(&txMutex, nullptr) == 0);
}

void gssipPort::destroySynchronisation()
{
    static_cast<void>(pthread_mutex_destroy(&sendMutex) == 0 && pthread_cond_destroy(&readyCond) == 0 &&
                      pthread_mutex_destroy(&readyMutex) == 0 && pthread_cond_destroy(&txCond) == 0 &&
                      pthread_mutex_destroy(&txMutex) == 0);
}

bool gssipPort::isOwnThread() const
{
    return gssipInternal::portThread::isOf(*this);
}

bool gssipPort::anyThreadExists() const
{
    return currentReceiver() != nullptr || sendAckReq.anyThreadExists() || own->transmit.exists();
}

bool gssipPort::start()
{
    if (isOwnThread()) // it would wait for itself
    {
        return started;
    }
    std::lock_guard<std::mutex> const lock(own->lifecycle);
    if (started)
    {
        return true;
    }
    endThreads(); // of a start that failed
    bool const isOpen = serial.isOpen() || serial.open() == 0;
    int const receiveStatus = initializeReceiveThread();
    int const transmitStatus = initializeTransmitThread();
    started = receiveStatus == 0 && transmitStatus == 0 && isOpen;
    return started;
}

bool gssipPort::stop()
{
    if (isOwnThread())
    {
        return !started;
    }
    std::lock_guard<std::mutex> const lock(own->lifecycle);
    if (!started)
    {
        return true;
    }
    started = stopEverything() != 0;
    return !started;
}

int gssipPort::stopEverything()
{
    expectStop();
    int const closed = serial.close();
    int const receiveStatus = uninitializeReceiveThread();
    int const transmitStatus = uninitializeTransmitThread();
    return closed | receiveStatus | transmitStatus;
}

/// From here on no message is taken from the queue, and a failing read is no error.
void gssipPort::expectStop()
{
    if (std::shared_ptr<gssipReceive> const current = currentReceiver(); current != nullptr)
    {
        current->expectStop();
    }
    queueAccess const access(*this);
    own->transmit.requestStop();
}

/// Ends whatever threads exist; the device stays as it is.
void gssipPort::endThreads()
{
    if (std::shared_ptr<gssipReceive> const current = currentReceiver(); current != nullptr)
    {
        current->endThreads();
    }
    if (sendAckReq.anyThreadExists())
    {
        sendAckReq.unnitializeEventThread();
    }
    if (own->transmit.exists())
    {
        uninitializeTransmitThread();
    }
}

std::shared_ptr<gssipReceive> gssipPort::currentReceiver() const
{
    return std::atomic_load(&receiver);
}

int gssipPort::initializeReceiveThread()
{
    int const status = constructReceiver();
    return status == 0 ? sendAckReq.initializeEventThread() : status;
}

/// The former receiver's threads end first, since two must not read one device; it is destroyed when the new one is in
/// its place.
int gssipPort::constructReceiver()
{
    std::shared_ptr<gssipReceive> former = currentReceiver();
    if (former != nullptr)
    {
        former->endThreads();
    }
    try
    {
        auto const made = std::make_shared<gssipReceive>(*this, log);
        own->newest = made.get(); // first: what is taken from it is never taken for a former one's
        std::atomic_store(&receiver, made);
    }
    catch (std::system_error const& failure) // a thread could not be created
    {
        return failure.code().value();
    }
    return 0;
}

int gssipPort::uninitializeReceiveThread()
{
    std::shared_ptr<gssipReceive> former = std::atomic_exchange(&receiver, std::shared_ptr<gssipReceive>());
    if (former != nullptr)
    {
        former->endThreads(); // the object itself goes with the last caller of getMessage that is inside
        former.reset();
    }
    return sendAckReq.unnitializeEventThread();
}

int gssipPort::initializeTransmitThread()
{
    if (own->transmit.exists())
    {
        uninitializeTransmitThread(); // never two on one queue
    }
    pthread_attr_t attributes;
    if (int const status = pthread_attr_init(&attributes); status != 0)
    {
        return status;
    }
    if (int const status = setPthreadAttributes(PTHREAD_CREATE_JOINABLE, SCHED_RR, THREAD_PRIORITY,
                                                PTHREAD_EXPLICIT_SCHED, PTHREAD_SCOPE_SYSTEM, attributes);
        status != 0)
    {
        return status;
    }
    txRunning.clear();
    if (int const status = own->transmit.create(txThread, attributes, callTransmitThread, this); status != 0)
    {
        return status;
    }
    if (int const status = pthread_setname_np(txThread, THREAD_NAME); status != 0)
    {
        return status;
    }
    if (int const status = pthread_attr_destroy(&attributes); status != 0)
    {
        return status;
    }
    own->transmit.awaitRunning();
    while (txRunning.isClear())
    {
        // Not entered: the thread sets the flag before it announces itself.
    }
    signalPortReady();
    return 0;
}

int gssipPort::uninitializeTransmitThread()
{
    own->transmit.requestStop();
    txRunning.clear();
    {
        queueAccess const pass(*this); // the thread has either seen the request or sleeps where the signal reaches it
    }
    pthread_cond_signal(&txCond);
    signalPortReady();
    own->transmit.join(txThread);
    txRunning.clear(); // again: the thread may have started only after the stop
    return 0;
}

int gssipPort::configurePort(unsigned const& speed, unsigned const& dataBits, PARITY_TYPE const& parity,
                             unsigned const& stopBits, unsigned const& interMsgGapChars, double const& ackTimeout,
                             double const& handshakeTimeout, unsigned const& rxInterCharGapChars)
{
    unsigned const parityBits = parity == PARITY_NONE ? 0 : 1;
    double byteTime_sec = 0.0;
    int status = serial.setRaw();
    status |= serial.setSpeed(speed);
    status |= serial.setDataBits(dataBits);
    status |= serial.setParity(parity);
    status |= serial.setStopBits(stopBits);
    status |= serial.setVminVtime(VMIN_ONE_BYTE, PROVISIONAL_VTIME);
    status |= serial.getByteTransmitTime(byteTime_sec);
    status |= serial.setInterMsgGapBits(interMsgGapChars * (START_BITS + dataBits + parityBits + stopBits));
    setAcknowledgeTimeout_sec(ackTimeout);
    setHandshakeTimeout_sec(handshakeTimeout);
    status |= setReceiveInterCharacterGap_sec(static_cast<double>(rxInterCharGapChars) * byteTime_sec);
    return status;
}

int gssipPort::getPortConfigStr(std::string& text)
{
    if (int const status = serial.getConfigString(text); status != 0)
    {
        return status;
    }
    double gap_sec = 0.0;
    if (int const status = getReceiveInterCharacterGap_sec(gap_sec, nullptr); status != 0)
    {
        return status;
    }
    double const ack_sec = getAcknowledgeTimeout_sec();
    double const handshake_sec = getHandshakeTimeout_sec();
    std::array<char, 256> buffer{};
    std::snprintf(buffer.data(), buffer.size(), "\nackTo(%0.6f) hsTo(%0.6f) interCharGap(%0.6f)", ack_sec,
                  handshake_sec, gap_sec);
    text += buffer.data();
    return 0;
}

double gssipPort::getAcknowledgeTimeout_sec()
{
    return ackTimeout_sec;
}

void gssipPort::setAcknowledgeTimeout_sec(double const& timeout_sec)
{
    ackTimeout_sec = timeout_sec;
}

double gssipPort::getHandshakeTimeout_sec()
{
    return handshakeTimeout_sec;
}

void gssipPort::setHandshakeTimeout_sec(double const& timeout_sec)
{
    handshakeTimeout_sec = timeout_sec;
}

std::string gssipPort::getPort()
{
    return serial.getPort();
}

int gssipPort::getReceiveInterCharacterGap_sec(double& gap, double* effective)
{
    gap = rxInterCharGap_sec;
    if (effective == nullptr)
    {
        return 0;
    }
    unsigned char vmin = 0;
    unsigned char vtime = 0;
    int const status = serial.getVminVtime(vmin, vtime);
    if (status == 0)
    {
        *effective = vtime * VTIME_UNIT_SEC;
    }
    return status;
}

int gssipPort::setReceiveInterCharacterGap_sec(double const& gap)
{
    rxInterCharGap_sec = gap;
    return serial.setVminVtime(VMIN_ONE_BYTE, vtimeOf(gap));
}

void gssipPort::setReceiveAutoAcknowledgeEnable(bool const& enable)
{
    rxAutoAck = enable;
}

bool gssipPort::getReceiveAutoAcknowledgeEnable()
{
    return rxAutoAck;
}

int gssipPort::send(std::uint8_t const* bytes, unsigned const& count, unsigned& sent)
{
    return serial.send(bytes, count, sent);
}

unsigned gssipPort::getNumberRxQueuedMessages() const
{
    std::shared_ptr<gssipReceive> const current = currentReceiver();
    return current == nullptr ? 0 : static_cast<unsigned>(current->rxQueue.size());
}
