#ifndef GSSIPRECEIVE_H
#define GSSIPRECEIVE_H

#include "ThreadSafeQueue.h"
#include "asciiLogInterface.h"
#include "gssipExport.h"
#include "gssipMessage.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class gssipPort;

/// Turns the bytes of one serial line into messages.
///
/// Two threads, both started by the constructor: one reads bytes from the port's device into `frameBuffer`, the other
/// frames them there and puts every message whose header checksum is right into `rxQueue`, stamped with the time. The
/// data checksum is stored as received; `gssipMessage::isValid` judges it later.
///
/// The application's clock and log are used on both threads; the log, and the clock on the processing thread, with
/// `frameMutex` held. What they throw there costs the frame or the line at hand.
///
/// A call of `operator()` may wait while another thread destroys the receiver; it then returns -1, and the destructor
/// waits until it has.
class GSSIP_EXPORT gssipReceive
{
  public:
    /// What the framing looks for next.
    enum receiveState : std::uint32_t {
        SOM_STATE = 0,    ///< a start-of-message word
        HEADER_STATE = 1, ///< the rest of the header
        DATA_STATE = 2,   ///< the data words and their checksum
    };

    /// Starts both threads. Throws `std::system_error` when one cannot be created; none is left then.
    gssipReceive(gssipPort& port, asciiLogInterface* log);

    /// Ends both threads and lets the callers of `operator()` go. Messages not taken are lost.
    ~gssipReceive();

    gssipReceive(gssipReceive const&) = delete;
    gssipReceive& operator=(gssipReceive const&) = delete;

    /// Takes the oldest message; blocks while there is none. 0, or -1 when the receiver has ended and none is left.
    int operator()(gssipMessage& message);

  protected:
    friend class gssipPort;

    /// Body of the reading thread: appends what the device delivers to `frameBuffer` until `stopRead`.
    void thread();
    /// Body of the processing thread: frames what is in `frameBuffer` until `stopProcess`.
    void processReceiveQ();

    // The steps of the framing, one for each state; `frameMutex` is held by the caller.
    void processSOM_STATE();
    void processHEADER_STATE();
    void processDATA_STATE();

    gssipPort& port;
    receiveState state; // guarded by frameMutex

    // Of the reading thread alone.
    std::array<std::uint8_t, 4096> readBuffer;
    unsigned int bytesRead;

    /// Received and not yet framed, the next byte in front; guarded by `frameMutex`.
    std::vector<std::uint8_t> frameBuffer;
    std::mutex frameMutex; ///< guards `frameBuffer`, `state` and `dataAvailable`; taken before the queue's own lock.
                           ///< Held while a frame is processed, also while the application's clock and log run
    ThreadSafeQueue<gssipMessage> rxQueue; // safe by itself
    asciiLogInterface* log;                ///< never null

    std::condition_variable frameCondition; ///< with `frameMutex`: bytes came, or the processing thread is to stop

    // The threads are started last, by the constructor's body, when everything they read has its value.
    std::thread readThread;
    std::atomic<bool> stopRead;
    std::thread processThread;
    std::atomic<bool> stopProcess; ///< set with `frameMutex` held, so that the processing thread does not miss it
    bool dataAvailable;            ///< `frameBuffer` may hold bytes not yet tried; guarded by frameMutex

  private:
    class GSSIP_HIDDEN framing;
    class GSSIP_HIDDEN frameEnd;

    /// From now on a failing read is the stop's doing: the reading thread leaves without a log line.
    void expectStop();
    /// Ends both threads, if they exist, and lets every caller of `operator()` go. The device may stay open.
    void endThreads();
    /// As `operator()`; `arrival` is the message's number, counted from 1.
    int take(gssipMessage& message, std::uint64_t& arrival);

    void startThreads();
    void readOnce();
    void appendBytesRead();
    void waitForBytes(std::unique_lock<std::mutex>& lock);
    void frameOnce();
    void stepAlone(void (gssipReceive::*step)());
    void findStart();
    void frameHeader();
    void frameData();
    gssipMessage messageFromHeader();

    std::unique_ptr<framing> own;
};

#endif
