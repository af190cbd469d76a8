// The transmit queue, without a thread that takes from it.

#include "gssipPort.h"
#include "messageOf.h"
#include "monotonicTimeStamp.h"
#include "timing.h"

#include <algorithm>
#include <array>
#include <deque>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <stdlib.h>
#include <tuple>
#include <unistd.h>

namespace bench
{
namespace
{

constexpr std::size_t DIFFERENT_IDS = 10;

gssipMessage numbered(std::size_t number)
{
    return messageOf(42, static_cast<std::uint16_t>(number % DIFFERENT_IDS));
}

/// A port whose device is open and whose threads have not been started: what is sent stays queued.
class queueOfPort : private gssipPort
{
  public:
    queueOfPort() : queueOfPort(posix_openpt(O_RDWR | O_NOCTTY)) {}
    ~queueOfPort() override
    {
        serial.close();
        ::close(master);
    }
    queueOfPort(queueOfPort const&) = delete;
    queueOfPort& operator=(queueOfPort const&) = delete;

    void enqueue(gssipMessage const& message) { sendMessage(message, true); }
    void remove(unsigned id) { removeMsgIdFromTxQueue(id); }
    void clear() { clearTransmitQueue(); }

  private:
    explicit queueOfPort(int openMaster) : gssipPort(slaveOf(openMaster), clock, nullptr, false), master(openMaster)
    {
        if (serial.open() != 0)
        {
            throw std::runtime_error("cannot open a pseudo-terminal");
        }
    }

    static std::string slaveOf(int openMaster)
    {
        std::array<char, 64> name{};
        if (grantpt(openMaster) != 0 || unlockpt(openMaster) != 0 ||
            ptsname_r(openMaster, name.data(), name.size()) != 0)
        {
            throw std::runtime_error("cannot make a pseudo-terminal");
        }
        return name.data();
    }

    monotonicTimeStamp clock;
    int const master;
};

class bareDeque
{
  public:
    void enqueue(gssipMessage const& message) { queue.emplace_back(message, true); }
    void remove(unsigned id)
    {
        auto const kept = std::remove_if(queue.begin(), queue.end(),
                                         [&](auto const& entry) { return std::get<0>(entry).getId() == id; });
        queue.erase(kept, queue.end());
    }
    void clear() { queue.clear(); }

  private:
    std::deque<std::tuple<gssipMessage, bool>> queue;
};

template <typename Queue>
class operation
{
  public:
    explicit operation(std::size_t length)
    {
        for (std::size_t i = 0; i < length; ++i)
        {
            messages.push_back(numbered(i));
        }
    }

    void fill()
    {
        queue.clear();
        enqueueAll();
    }

    void enqueueAll()
    {
        for (gssipMessage const& message : messages)
        {
            queue.enqueue(message);
        }
    }

    Queue queue;

  private:
    std::vector<gssipMessage> messages;
};

template <typename Queue>
struct enqueueing : operation<Queue>
{
    using operation<Queue>::operation;
    void prepare() { this->queue.clear(); }
    void work() { this->enqueueAll(); }
};

template <typename Queue>
struct removal : operation<Queue>
{
    using operation<Queue>::operation;
    void prepare() { this->fill(); }
    void work() { this->queue.remove(3); }
};

template <typename Queue>
struct clearing : operation<Queue>
{
    using operation<Queue>::operation;
    void prepare() { this->fill(); }
    void work() { this->queue.clear(); }
};

template <typename Subject>
std::unique_ptr<Subject> made(std::size_t size)
{
    return std::make_unique<Subject>(size);
}

template <typename Queue>
void addFor(std::string const& contender, std::size_t length)
{
    add("enqueue", contender, length, made<enqueueing<Queue>>);
    add("removal", contender, length, made<removal<Queue>>);
    add("clear", contender, length, made<clearing<Queue>>);
}

} // namespace

void addQueue()
{
    for (std::size_t const length : {1U, 10U, 100U, 1000U, 10000U})
    {
        addFor<queueOfPort>("port", length);
        addFor<bareDeque>("deque", length);
    }
}

} // namespace bench
