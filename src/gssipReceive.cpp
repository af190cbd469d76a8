#include "gssipReceive.h"

#include "blockedSignals.h"
#include "callerCount.h"
#include "discardLog.h"
#include "gssipPort.h"
#include "littleEndian.h"
#include "portThread.h"
#include "startWordSearch.h"

#include <algorithm>
#include <string>

namespace
{

constexpr std::int32_t LEVEL_READ_ERROR = 4;
constexpr std::int32_t LEVEL_MESSAGE_FAULT = 2;

constexpr std::size_t INITIAL_BYTES = 4096;
constexpr std::size_t WORD_BYTES = 2;
constexpr std::size_t HEADER_WORDS = 5;
constexpr std::size_t HEADER_BYTES = HEADER_WORDS * WORD_BYTES;

enum headerWord : std::size_t { SOM_WORD, ID_WORD, COUNT_WORD, FLAGS_WORD, CHECKSUM_WORD };

std::size_t frameBytes(std::size_t dataWords)
{
    return dataWords == 0 ? HEADER_BYTES : (HEADER_WORDS + dataWords + 1) * WORD_BYTES;
}

} // namespace

/// What is not part of the receiver's face: its callers, its log lines, and its place in `frameBuffer`.
///
/// While frames are taken off, the place moves and the bytes stay; they are erased in one go before `frameMutex` is
/// released, so that the front of the buffer is the next byte for everyone else.
class gssipReceive::framing
{
  public:
    framing(gssipReceive& receiver, std::uint32_t portId)
        : readError("gssipReceive(" + std::to_string(portId) + ") Error Reading Serial Port: "),
          headerError("gssipReceive(" + std::to_string(portId) + ") Header Checksum ERROR Detected"),
          buffer(receiver.frameBuffer)
    {}

    std::size_t available() const { return buffer.size() - done; }
    std::uint8_t const* front() const { return buffer.data() + done; }
    std::uint16_t word(std::size_t place) const { return gssipInternal::loadWord(front() + place * WORD_BYTES); }

    void drop(std::size_t count) { done += count; }

    void settle()
    {
        buffer.erase(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(done));
        done = 0;
    }

    bool isHeaderRight() const
    {
        std::uint32_t sum = 0;
        for (std::size_t place = SOM_WORD; place < HEADER_WORDS; ++place)
        {
            sum += word(place);
        }
        return static_cast<std::uint16_t>(sum) == 0;
    }

    gssipInternal::callerCount callers; ///< of `operator()`
    std::string const readError;
    std::string const headerError;

  private:
    std::vector<std::uint8_t>& buffer;
    std::size_t done = 0;
};

/// Takes a frame off the buffer when its scope ends, delivered or not: a frame that cannot be delivered is lost, and
/// never tried again. The last byte stays at the front; the next search drops it.
class gssipReceive::frameEnd
{
  public:
    frameEnd(gssipReceive& receiver, std::size_t bytes) : owner(receiver), length(bytes) {}
    ~frameEnd()
    {
        owner.own->drop(length - 1);
        owner.state = SOM_STATE;
    }
    frameEnd(frameEnd const&) = delete;
    frameEnd& operator=(frameEnd const&) = delete;

  private:
    gssipReceive& owner;
    std::size_t const length;
};

// NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): of readBuffer only what a read has filled is used
gssipReceive::gssipReceive(gssipPort& owningPort, asciiLogInterface* logToUse)
    : port(owningPort), state(SOM_STATE), bytesRead(0), frameBuffer(INITIAL_BYTES),
      log(gssipInternal::discardLog::unless(logToUse)), stopRead(false), stopProcess(false), dataAvailable(false),
      own(std::make_unique<framing>(*this, owningPort.portId))
{
    startThreads();
}

gssipReceive::~gssipReceive()
{
    endThreads();
    own->callers.awaitNone(); // the queue has let them go; they must be out before it goes itself
}

int gssipReceive::operator()(gssipMessage& message)
{
    std::uint64_t arrival = 0;
    return take(message, arrival);
}

int gssipReceive::take(gssipMessage& message, std::uint64_t& arrival)
{
    gssipInternal::callerCount::caller const inside(own->callers);
    return rxQueue.pop_wait(message, arrival) ? 0 : -1;
}

/// With every other member ready: neither thread sees a value that is not there yet.
void gssipReceive::startThreads()
{
    gssipInternal::blockedSignals const blocked;
    readThread = std::thread(&gssipReceive::thread, this);
    try
    {
        processThread = std::thread(&gssipReceive::processReceiveQ, this);
    }
    catch (...)
    {
        endThreads();
        throw;
    }
}

void gssipReceive::expectStop()
{
    stopRead = true;
}

void gssipReceive::endThreads()
{
    stopRead = true;
    {
        std::lock_guard<std::mutex> const lock(frameMutex);
        stopProcess = true;
    }
    rxQueue.stop();
    frameCondition.notify_one();
    if (readThread.joinable())
    {
        port.serial.interruptReceive();
        readThread.join();
    }
    if (processThread.joinable())
    {
        processThread.join();
    }
}

void gssipReceive::thread()
{
    gssipInternal::portThread const mark(port);
    while (!stopRead)
    {
        try
        {
            readOnce();
        }
        catch (...) // from the application's clock or log, or for want of memory: costs the line or these bytes
        {}
    }
}

void gssipReceive::readOnce()
{
    if (port.serial.receive(readBuffer.data(), static_cast<unsigned>(readBuffer.size()), bytesRead) == 0)
    {
        appendBytesRead();
    }
    else if (!stopRead) // a read that fails because the port is being stopped is no error
    {
        log->log(port.timeStamp.getTime_sec(), LEVEL_READ_ERROR, own->readError);
    }
}

void gssipReceive::appendBytesRead()
{
    {
        std::lock_guard<std::mutex> const lock(frameMutex);
        frameBuffer.insert(frameBuffer.end(), readBuffer.begin(), readBuffer.begin() + bytesRead);
        dataAvailable = true;
    }
    frameCondition.notify_one();
}

void gssipReceive::processReceiveQ()
{
    gssipInternal::portThread const mark(port);
    std::unique_lock<std::mutex> lock(frameMutex);
    while (!stopProcess)
    {
        waitForBytes(lock);
        frameOnce();
    }
    own->settle();
}

/// Erases what has been framed before the mutex is released; goes on at once while there may be more to frame.
void gssipReceive::waitForBytes(std::unique_lock<std::mutex>& lock)
{
    if (!dataAvailable)
    {
        own->settle();
        frameCondition.wait(lock, [this] { return dataAvailable || stopProcess; });
    }
}

void gssipReceive::frameOnce()
{
    try
    {
        switch (state)
        {
        case SOM_STATE:
            findStart();
            break;
        case HEADER_STATE:
            frameHeader();
            break;
        case DATA_STATE:
            frameData();
            break;
        default:
            break;
        }
    }
    catch (...) // from the application's clock or log, or for want of memory: costs the line or the frame
    {}
}

void gssipReceive::processSOM_STATE()
{
    stepAlone(&gssipReceive::findStart);
}

void gssipReceive::processHEADER_STATE()
{
    stepAlone(&gssipReceive::frameHeader);
}

void gssipReceive::processDATA_STATE()
{
    stepAlone(&gssipReceive::frameData);
}

/// One step outside the processing thread: whoever looks next sees the front where it belongs.
void gssipReceive::stepAlone(void (gssipReceive::*step)())
{
    try
    {
        (this->*step)();
    }
    catch (...)
    {
        own->settle();
        throw;
    }
    own->settle();
}

void gssipReceive::findStart()
{
    while (!stopProcess && dataAvailable && state == SOM_STATE)
    {
        if (own->available() < WORD_BYTES)
        {
            dataAvailable = false;
        }
        else if (gssipInternal::isStartWord(own->front()))
        {
            state = HEADER_STATE;
        }
        else
        {
            own->drop(gssipInternal::bytesBeforeStartWord(own->front(), own->available()));
        }
    }
}

void gssipReceive::frameHeader()
{
    if (own->available() < HEADER_BYTES)
    {
        dataAvailable = false;
    }
    else if (!own->isHeaderRight())
    {
        own->drop(HEADER_BYTES - 1);
        state = SOM_STATE;
        log->log(port.timeStamp.getTime_sec(), LEVEL_MESSAGE_FAULT, own->headerError);
    }
    else if (own->word(COUNT_WORD) == 0)
    {
        frameEnd const end(*this, HEADER_BYTES);
        rxQueue.push(messageFromHeader());
    }
    else
    {
        state = DATA_STATE;
    }
}

void gssipReceive::frameData()
{
    std::size_t const dataWords = own->word(COUNT_WORD);
    if (own->available() < frameBytes(dataWords))
    {
        dataAvailable = false;
        return;
    }
    frameEnd const end(*this, frameBytes(dataWords));
    gssipMessage message = messageFromHeader();
    gssipInternal::loadWords(own->front() + HEADER_BYTES, message.getData().data(), dataWords);
    message.setDataChecksum(own->word(HEADER_WORDS + dataWords));
    rxQueue.push(std::move(message));
}

/// The message whose header stands at the front, with room for its data, received now. The header's checksum is right,
/// which is the one that a message is made with.
gssipMessage gssipReceive::messageFromHeader()
{
    gssipMessage message(own->word(ID_WORD), own->word(FLAGS_WORD), own->word(COUNT_WORD));
    message.setSOM(own->word(SOM_WORD));
    message.setHeaderChecksum(own->word(CHECKSUM_WORD));
    message.setReceiveTimeStamp(port.timeStamp.getTime_sec());
    return message;
}
