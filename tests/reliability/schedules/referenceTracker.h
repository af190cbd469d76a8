#ifndef SCHEDULES_REFERENCETRACKER_H
#define SCHEDULES_REFERENCETRACKER_H

#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

namespace reference
{

using bytes = std::vector<std::uint8_t>;

constexpr std::int64_t never_ns = std::numeric_limits<std::int64_t>::max();

/// What decides about deadlines.
struct trackerTimes
{
    std::int64_t acknowledgement_ns = 0;
    std::int64_t character_ns = 0; ///< of one character on the line
};

/// What becomes of requests for acknowledgement, by their bytes and by times alone.
///
/// A request that has been written is pending. It is written once more when its deadline comes or it is refused; when
/// either happens again it is forgotten, and when it is acknowledged it is forgotten at once. An answer is for the
/// pending request of its id with the earliest deadline.
class tracker
{
  public:
    explicit tracker(trackerTimes const& given) : times(given) {}

    void written(std::int64_t when_ns, bytes const& frame);
    void acknowledged(std::uint16_t id);
    /// The frame that has to be written now; empty when there is none.
    bytes refused(std::int64_t when_ns, std::uint16_t id);

    std::int64_t nextDeadline_ns() const;
    /// The earliest deadline has come. The frame that has to be written then; empty when there is none.
    bytes expire();

  private:
    struct pendingRequest
    {
        bytes frame;
        std::int64_t deadline_ns = 0;
        std::uint64_t number = 0; ///< in the order of writing
        bool isSecondCopy = false;
    };
    using place = std::vector<pendingRequest>::iterator;

    std::int64_t deadline_ns(std::int64_t from_ns, bytes const& frame) const;
    static bool isEarlier(pendingRequest const& one, pendingRequest const& other);
    place earliestOf(std::uint16_t id);
    bytes again(place request, std::int64_t from_ns);

    trackerTimes times;
    std::vector<pendingRequest> pending;
    std::uint64_t writtenSoFar = 0;
};

} // namespace reference

#endif
