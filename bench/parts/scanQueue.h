#ifndef BENCH_SCANQUEUE_H
#define BENCH_SCANQUEUE_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

namespace bench
{

/// The floor of framing: finds the start word, takes the frame's length from its header, makes the two vectors of a
/// message and pushes them into a queue with a lock and a condition. Checks nothing.
class scanQueue
{
  public:
    using words = std::vector<std::uint16_t>;

    void run(std::vector<std::uint8_t> const& bytes)
    {
        std::size_t place = 0;
        while (findStart(bytes, place))
        {
            std::size_t const count = wordAt(bytes, place + 4);
            std::size_t const length = count == 0 ? 10 : (count + 6) * 2;
            if (place + length > bytes.size())
            {
                return;
            }
            push(wordsAt(bytes, place, 5), wordsAt(bytes, place + 10, count));
            place += length;
        }
    }

    std::size_t size() const { return queue.size(); }
    void clear() { queue.clear(); }

  private:
    static std::uint16_t wordAt(std::vector<std::uint8_t> const& bytes, std::size_t place)
    {
        return static_cast<std::uint16_t>(bytes[place] | bytes[place + 1] << 8);
    }

    /// A header from the place on; false when none is complete.
    static bool findStart(std::vector<std::uint8_t> const& bytes, std::size_t& place)
    {
        while (place + 10 <= bytes.size() && wordAt(bytes, place) != 0x81FF)
        {
            ++place;
        }
        return place + 10 <= bytes.size();
    }

    static words wordsAt(std::vector<std::uint8_t> const& bytes, std::size_t place, std::size_t count)
    {
        words copied(count);
        std::memcpy(copied.data(), bytes.data() + place, count * 2);
        return copied;
    }

    void push(words header, words data)
    {
        {
            std::lock_guard<std::mutex> const lock(mutex);
            queue.emplace_back(std::move(header), std::move(data));
        }
        condition.notify_one();
    }

    std::mutex mutex;
    std::condition_variable condition;
    std::deque<std::pair<words, words>> queue;
};

} // namespace bench

#endif
