#include "line.h"

#include "fileTable.h"

#include <algorithm>
#include <array>
#include <asm/termbits.h>
#include <cerrno>
#include <cstring>
#include <deque>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <utility>

namespace schedules
{
namespace
{

constexpr unsigned READY_BELOW = 256; // a driver tells of room only when it is nearly empty

int failWith(int error)
{
    errno = error;
    return -1;
}

} // namespace

/// A device, and what it has on its way out and in.
class line::node : public device, public std::enable_shared_from_this<line::node>
{
  public:
    node(scheduler& scheduleOf, lineTraits const& ofLine, std::weak_ptr<state> wholeLine, end place)
        : schedule(scheduleOf), traits(ofLine), whole(std::move(wholeLine)), here(place)
    {}

    std::shared_ptr<openFile> open() override;

    ssize_t take(std::size_t session, std::uint8_t const* first, std::size_t count);
    void arrive(bytes const& content);
    void hold();
    void letFlow();
    void unplug();
    void flush();
    bool isIdle() const { return output.empty() && input.empty(); }
    unsigned driverCount() const;
    bool hasRoomToTell() const { return driverCount() < std::min(READY_BELOW, traits.ring); }

    scheduler& schedule;
    lineTraits const traits;
    bool isThere = true;
    unsigned generation = 0; ///< how often it has been unplugged
    bool isExclusive = false;
    opening const* lockedBy = nullptr;
    unsigned openings = 0;
    termios2 settings{};
    std::deque<std::uint8_t> input;
    std::vector<bytes> hasLeft; // both of each opening
    std::vector<bytes> wasRead;
    std::uint64_t lost = 0;

  private:
    struct batch
    {
        std::size_t session;
        bytes content;
        std::int64_t leaves_ns;
    };

    void letLeave();
    void planLeaving();
    std::size_t waiting() const;

    std::weak_ptr<state> const whole;
    end const here;
    bool held = false;
    std::int64_t end_ns = 0; ///< when the last character has left, while the line flows
    std::deque<batch> output;
};

struct line::state
{
    explicit state(scheduler& ofLine) : schedule(ofLine) {}

    void carry(end from, bytes const& content)
    {
        if (!how)
        {
            ends[otherThan(from)]->arrive(content);
            return;
        }
        for (arrival& each : how(from, content))
        {
            if (each.later_ns == 0)
            {
                ends[otherThan(from)]->arrive(each.content);
                continue;
            }
            schedule.at(schedule.now_ns() + each.later_ns,
                        [target = ends[otherThan(from)], content = std::move(each.content)] {
                            target->arrive(content);
                            target->schedule.filesChanged();
                        });
        }
    }

    scheduler& schedule;
    std::array<std::shared_ptr<node>, 2> ends;
    medium how;
};

/// One opening of a device.
class line::opening : public openFile
{
  public:
    explicit opening(std::shared_ptr<node> ofDevice)
        : owner(std::move(ofDevice)), generation(owner->generation), session(owner->wasRead.size())
    {
        if (owner->openings++ == 0)
        {
            owner->input.clear();
        }
        owner->wasRead.emplace_back();
        owner->hasLeft.emplace_back();
    }
    ~opening() override
    {
        --owner->openings;
        if (owner->lockedBy == this)
        {
            owner->lockedBy = nullptr;
        }
    }
    opening(opening const&) = delete;
    opening& operator=(opening const&) = delete;

    ssize_t read(void* target, std::size_t capacity) override
    {
        if (hasHungUp())
        {
            return 0;
        }
        std::deque<std::uint8_t>& input = owner->input;
        if (input.empty())
        {
            return failWith(EAGAIN);
        }
        auto const count = static_cast<std::ptrdiff_t>(less(std::min(capacity, input.size())));
        std::copy(input.begin(), input.begin() + count, static_cast<std::uint8_t*>(target));
        bytes& record = owner->wasRead[session];
        record.insert(record.end(), input.begin(), input.begin() + count);
        input.erase(input.begin(), input.begin() + count);
        return count;
    }

    ssize_t write(void const* content, std::size_t count) override
    {
        return hasHungUp() ? failWith(EIO) : owner->take(session, static_cast<std::uint8_t const*>(content), count);
    }

    short ready(short events) override
    {
        if (hasHungUp())
        {
            return static_cast<short>((events & (POLLIN | POLLOUT)) | POLLHUP | POLLERR);
        }
        int const input = owner->input.empty() ? 0 : POLLIN;
        int const room = owner->hasRoomToTell() ? POLLOUT : 0;
        return static_cast<short>(events & (input | room));
    }

    int ioctl(unsigned long request, void* argument) override
    {
        return hasHungUp() ? failWith(EIO) : control(request, argument);
    }

    int flock(int operation) override
    {
        if ((operation & LOCK_UN) != 0)
        {
            owner->lockedBy = owner->lockedBy == this ? nullptr : owner->lockedBy;
            return 0;
        }
        if (owner->lockedBy != nullptr && owner->lockedBy != this)
        {
            return failWith(EWOULDBLOCK);
        }
        owner->lockedBy = this;
        return 0;
    }

    void describe(struct stat& status) override
    {
        constexpr unsigned PSEUDO_TERMINAL = 136;
        constexpr unsigned TTY = 4;
        constexpr unsigned FIRST_UART = 64;
        status = {};
        status.st_mode = S_IFCHR;
        status.st_rdev = owner->traits.isPseudoTerminal ? makedev(PSEUDO_TERMINAL, 0) : makedev(TTY, FIRST_UART);
    }

    bool holdsUpClose() override { return !hasHungUp() && owner->driverCount() != 0; }

    char const* kind() const override { return "device"; }

  private:
    bool hasHungUp() const { return generation != owner->generation; }

    std::size_t less(std::size_t count) const
    {
        bool const isLess = count > 1 && owner->schedule.mayTransferLess();
        return isLess ? 1 + owner->schedule.schedulersChance().below(count - 1) : count;
    }

    int control(unsigned long request, void* argument)
    {
        switch (request)
        {
        case TCGETS2:
            std::memcpy(argument, &owner->settings, sizeof owner->settings);
            return 0;
        case TCSETS2:
            std::memcpy(&owner->settings, argument, sizeof owner->settings);
            return 0;
        case TIOCEXCL:
        case TIOCNXCL:
            owner->isExclusive = request == TIOCEXCL;
            return 0;
        case TIOCOUTQ: {
            auto const count = static_cast<int>(owner->driverCount());
            std::memcpy(argument, &count, sizeof count);
            return 0;
        }
        case TCFLSH:
            owner->flush();
            return 0;
        default:
            return failWith(ENOTTY);
        }
    }

    std::shared_ptr<node> const owner;
    unsigned const generation;
    std::size_t const session;
};

std::shared_ptr<openFile> line::node::open()
{
    if (!isThere)
    {
        errno = ENOENT;
        return nullptr;
    }
    if (isExclusive)
    {
        errno = EBUSY;
        return nullptr;
    }
    return std::make_shared<opening>(shared_from_this());
}

std::size_t line::node::waiting() const
{
    std::size_t count = 0;
    for (batch const& each : output)
    {
        count += each.content.size();
    }
    return count;
}

unsigned line::node::driverCount() const
{
    if (traits.isPseudoTerminal && !held)
    {
        return 0;
    }
    std::int64_t const left_ns = std::max<std::int64_t>(end_ns - schedule.now_ns(), 0);
    bool const isCounted = held || traits.characterTime_ns == 0;
    auto const characters =
        isCounted ? static_cast<unsigned>(waiting())
                  : static_cast<unsigned>((left_ns + traits.characterTime_ns - 1) / traits.characterTime_ns);
    return characters - std::min(characters, traits.hardware);
}

ssize_t line::node::take(std::size_t session, std::uint8_t const* first, std::size_t count)
{
    std::size_t taken = std::min<std::size_t>(count, traits.ring - std::min(traits.ring, driverCount()));
    if (taken == 0)
    {
        return failWith(EAGAIN);
    }
    if (taken > 1 && schedule.mayTransferLess())
    {
        taken = 1 + schedule.schedulersChance().below(taken - 1);
    }
    output.push_back({session, bytes(first, first + taken), 0});
    planLeaving();
    return static_cast<ssize_t>(taken);
}

/// Gives every batch that has no time yet the time at which its last character will have left.
void line::node::planLeaving()
{
    if (held)
    {
        return;
    }
    for (batch& each : output)
    {
        if (each.leaves_ns == 0)
        {
            end_ns = std::max(end_ns, schedule.now_ns()) +
                     static_cast<std::int64_t>(each.content.size()) * traits.characterTime_ns;
            each.leaves_ns = end_ns;
        }
    }
    letLeave();
    auto const look = [target = whole] {
        if (std::shared_ptr<state> const living = target.lock())
        {
            living->ends[LEFT]->letLeave();
            living->ends[RIGHT]->letLeave();
            living->schedule.filesChanged();
        }
    };
    if (end_ns > schedule.now_ns())
    {
        schedule.at(end_ns, look);
        schedule.at(end_ns - READY_BELOW * traits.characterTime_ns, look); // there may be room to tell of by then
    }
}

void line::node::letLeave()
{
    while (!held && !output.empty() && output.front().leaves_ns <= schedule.now_ns())
    {
        bytes const content = std::move(output.front().content);
        bytes& record = hasLeft[output.front().session];
        output.pop_front();
        record.insert(record.end(), content.begin(), content.end());
        if (std::shared_ptr<state> const living = whole.lock())
        {
            living->carry(here, content);
        }
    }
}

void line::node::arrive(bytes const& content)
{
    if (openings == 0)
    {
        lost += content.size();
        return;
    }
    input.insert(input.end(), content.begin(), content.end());
}

void line::node::hold()
{
    held = true;
    for (batch& each : output)
    {
        each.leaves_ns = 0;
    }
}

void line::node::letFlow()
{
    held = false;
    end_ns = 0;
    planLeaving();
}

void line::node::unplug()
{
    isThere = false;
    ++generation;
    input.clear();
    output.clear();
    end_ns = 0;
    isExclusive = false;
    lockedBy = nullptr;
}

/// The hardware keeps what it has; here that is the batch at its front.
void line::node::flush()
{
    if (traits.flushDrops)
    {
        output.clear();
        end_ns = std::min(end_ns, schedule.now_ns() + traits.hardware * traits.characterTime_ns);
    }
}

line::line(scheduler& schedule, lineTraits const& traits) : own(std::make_shared<state>(schedule))
{
    for (end const each : {LEFT, RIGHT})
    {
        own->ends[each] = std::make_shared<node>(schedule, traits, own, each);
        schedule.files().add(path(each), own->ends[each]);
    }
}

line::~line() = default;

void line::hold(end from)
{
    own->ends[from]->hold();
}

void line::letFlow(end from)
{
    own->ends[from]->letFlow();
    own->schedule.filesChanged();
}

void line::unplug(end which)
{
    own->ends[which]->unplug();
    own->schedule.filesChanged();
}

void line::plugIn(end which)
{
    own->ends[which]->isThere = true;
}

void line::carryBy(medium how)
{
    own->how = std::move(how);
}

void line::inject(end from, bytes const& content)
{
    own->carry(from, content);
    own->schedule.filesChanged();
}

std::vector<bytes> const& line::left(end from) const
{
    return own->ends[from]->hasLeft;
}

std::vector<bytes> const& line::readAt(end which) const
{
    return own->ends[which]->wasRead;
}

unsigned line::openings(end which) const
{
    return own->ends[which]->openings;
}

std::uint64_t line::lostAt(end which) const
{
    return own->ends[which]->lost;
}

bool line::isIdle() const
{
    return own->ends[LEFT]->isIdle() && own->ends[RIGHT]->isIdle();
}

} // namespace schedules
