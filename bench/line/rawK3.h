#ifndef BENCH_RAWK3_H
#define BENCH_RAWK3_H

#include "rawWrite.h"

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace bench
{

/// The floor of the architecture: its threads and hand-overs, and nothing else.
///
///     send --txQueue--> transmit thread --write--> line --read--> reading thread --frameBuffer--> processing thread
///          --rxQueue--> receive
///
/// Each hand-over is a mutex and a condition, signalled after the mutex has been released. A message is as many bytes
/// as were agreed upon: nothing is searched, checked, stamped or tracked. The threads end with the process.
class rawK3
{
  public:
    using message = std::vector<std::uint8_t>;

    /// Receives messages of that length. `transmitPriority` 0 stands for default scheduling, else it is SCHED_RR's.
    rawK3(int descriptor, std::size_t receivedBytes, int transmitPriority)
        : line(descriptor), length(receivedBytes), priority(transmitPriority)
    {
        std::thread([this] { transmit(); }).detach();
        std::thread([this] { readLine(); }).detach();
        std::thread([this] { process(); }).detach();
    }
    rawK3(rawK3 const&) = delete;
    rawK3& operator=(rawK3 const&) = delete;

    static message make(std::size_t bytes) { return message(bytes, 0x55); }

    void send(message const& toSend)
    {
        {
            std::lock_guard<std::mutex> const lock(txMutex);
            txQueue.push_back(toSend);
        }
        txCondition.notify_one();
    }

    void receive(message& received)
    {
        std::unique_lock<std::mutex> lock(rxMutex);
        rxCondition.wait(lock, [this] { return !rxQueue.empty(); });
        received = std::move(rxQueue.front());
        rxQueue.pop_front();
    }

    /// Past the queue, on the caller's thread, as an acknowledgement is written.
    void reply(message const& toSend) { writeAll(line, toSend.data(), toSend.size()); }

  private:
    void transmit()
    {
        if (priority != 0)
        {
            runRealTime(priority);
        }
        message toSend;
        while (true)
        {
            {
                std::unique_lock<std::mutex> lock(txMutex);
                txCondition.wait(lock, [this] { return !txQueue.empty(); });
                toSend = std::move(txQueue.front());
                txQueue.pop_front();
            }
            writeAll(line, toSend.data(), toSend.size());
        }
    }

    void readLine()
    {
        std::array<std::uint8_t, 4096> buffer{};
        while (true)
        {
            std::size_t const count = readSome(line, buffer.data(), buffer.size());
            {
                std::lock_guard<std::mutex> const lock(frameMutex);
                frameBuffer.insert(frameBuffer.end(), buffer.begin(), buffer.begin() + count);
            }
            frameCondition.notify_one();
        }
    }

    void process()
    {
        std::unique_lock<std::mutex> lock(frameMutex);
        while (true)
        {
            frameCondition.wait(lock, [this] { return frameBuffer.size() >= length; });
            std::size_t done = 0;
            for (; frameBuffer.size() - done >= length; done += length)
            {
                deliver(frameBuffer.data() + done);
            }
            frameBuffer.erase(frameBuffer.begin(), frameBuffer.begin() + static_cast<std::ptrdiff_t>(done));
        }
    }

    void deliver(std::uint8_t const* bytes)
    {
        {
            std::lock_guard<std::mutex> const lock(rxMutex);
            rxQueue.emplace_back(bytes, bytes + length);
        }
        rxCondition.notify_one();
    }

    int const line;
    std::size_t const length;
    int const priority;

    std::mutex txMutex;
    std::condition_variable txCondition;
    std::deque<message> txQueue;

    std::mutex frameMutex;
    std::condition_variable frameCondition;
    std::vector<std::uint8_t> frameBuffer;

    std::mutex rxMutex;
    std::condition_variable rxCondition;
    std::deque<message> rxQueue;
};

} // namespace bench

#endif
