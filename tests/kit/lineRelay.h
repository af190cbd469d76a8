#ifndef KIT_LINERELAY_H
#define KIT_LINERELAY_H

#include "pseudoTerminal.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace kit
{

/// One way of a wire: takes what one device sends and gives it to the other. Derive to look at the bytes, or to spoil
/// them. Everything here is done by the relay's thread, or by others while they hold the relay's mutex.
class oneWay
{
  public:
    oneWay() = default;
    virtual ~oneWay() = default;
    oneWay(oneWay const&) = delete;
    oneWay& operator=(oneWay const&) = delete;

    int from = -1;     ///< the far end of the device that sends; -1: there is none
    int to = -1;       ///< the far end of the device that receives; -1: there is none, and the bytes are dropped
    bool held = false; ///< nothing is taken
    bytes backlog;     ///< taken and not given yet

    /// Bytes have come; what is left in them goes on.
    virtual void taken(bytes& /*chunk*/) {}
    /// The receiving device's driver has them.
    virtual void given(std::uint8_t const* /*data*/, std::size_t /*count*/) {}

    bool wantsBytes() const { return from >= 0 && !held && backlog.size() < MOST_HELD; }

    void take()
    {
        bytes chunk(4096);
        ssize_t const count = ::read(from, chunk.data(), chunk.size());
        if (count > 0)
        {
            chunk.resize(static_cast<std::size_t>(count));
            taken(chunk);
            backlog.insert(backlog.end(), chunk.begin(), chunk.end());
        }
    }

    void give()
    {
        if (to < 0)
        {
            backlog.clear();
            return;
        }
        ssize_t const count = ::write(to, backlog.data(), backlog.size());
        if (count > 0)
        {
            given(backlog.data(), static_cast<std::size_t>(count));
            backlog.erase(backlog.begin(), backlog.begin() + count);
        }
    }

  private:
    static constexpr std::size_t MOST_HELD = 65536;
};

/// Carries bytes on any number of ways, on one thread.
class lineRelay
{
  public:
    /// The ways must outlive the relay.
    explicit lineRelay(std::vector<oneWay*> allWays) : ways(std::move(allWays)), thread([this] { run(); }) {}
    ~lineRelay()
    {
        stopped = true;
        thread.join();
    }
    lineRelay(lineRelay const&) = delete;
    lineRelay& operator=(lineRelay const&) = delete;

    /// A far end must not block.
    static void prepare(int farEnd) { ::fcntl(farEnd, F_SETFL, ::fcntl(farEnd, F_GETFL) | O_NONBLOCK); }

    std::mutex mutex; ///< guards the ways

  private:
    static constexpr std::chrono::milliseconds LONGEST_LOOK{20};
    static constexpr std::chrono::milliseconds ABSENCE{2};

    void run()
    {
        std::vector<pollfd> waiting;
        while (!stopped)
        {
            {
                std::lock_guard<std::mutex> const lock(mutex);
                list(waiting);
            }
            ::poll(waiting.data(), waiting.size(), static_cast<int>(LONGEST_LOOK.count()));
            bool someoneIsAbsent = false;
            {
                std::lock_guard<std::mutex> const lock(mutex);
                someoneIsAbsent = serve(waiting);
            }
            if (someoneIsAbsent) // which poll tells at once, again and again
            {
                std::this_thread::sleep_for(ABSENCE);
            }
        }
    }

    void list(std::vector<pollfd>& waiting) const
    {
        waiting.clear();
        for (oneWay const* const way : ways)
        {
            waiting.push_back({way->wantsBytes() ? way->from : -1, POLLIN, 0});
            waiting.push_back({way->backlog.empty() ? -1 : way->to, POLLOUT, 0});
        }
    }

    /// True when nobody has the device open at some end.
    bool serve(std::vector<pollfd> const& waiting)
    {
        bool someoneIsAbsent = false;
        for (std::size_t each = 0; each < ways.size(); ++each)
        {
            oneWay& way = *ways[each];
            pollfd const& source = waiting[2 * each];
            pollfd const& target = waiting[2 * each + 1];
            someoneIsAbsent = someoneIsAbsent || ((source.revents | target.revents) & POLLHUP) != 0;
            if (source.fd >= 0 && source.fd == way.from && (source.revents & POLLIN) != 0)
            {
                way.take();
            }
            if (!way.backlog.empty()) // also what has just come
            {
                way.give();
            }
        }
        return someoneIsAbsent;
    }

    std::vector<oneWay*> const ways;
    std::atomic<bool> stopped{false};
    std::thread thread;
};

} // namespace kit

#endif
