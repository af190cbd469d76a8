#include "referenceTracker.h"

#include <algorithm>

namespace reference
{
namespace
{

std::uint16_t idOf(bytes const& frame)
{
    return static_cast<std::uint16_t>(frame[2] + 256 * frame[3]);
}

} // namespace

void tracker::written(std::int64_t when_ns, bytes const& frame)
{
    pending.push_back({frame, deadline_ns(when_ns, frame), writtenSoFar++, false});
}

void tracker::acknowledged(std::uint16_t id)
{
    auto const request = earliestOf(id);
    if (request != pending.end())
    {
        pending.erase(request);
    }
}

bytes tracker::refused(std::int64_t when_ns, std::uint16_t id)
{
    auto const request = earliestOf(id);
    return request == pending.end() ? bytes{} : again(request, when_ns);
}

std::int64_t tracker::nextDeadline_ns() const
{
    auto const first = std::min_element(pending.begin(), pending.end(), isEarlier);
    return first == pending.end() ? never_ns : first->deadline_ns;
}

bytes tracker::expire()
{
    auto const first = std::min_element(pending.begin(), pending.end(), isEarlier);
    return again(first, first->deadline_ns);
}

std::int64_t tracker::deadline_ns(std::int64_t from_ns, bytes const& frame) const
{
    return from_ns + times.acknowledgement_ns + static_cast<std::int64_t>(frame.size()) * times.character_ns;
}

bool tracker::isEarlier(pendingRequest const& one, pendingRequest const& other)
{
    return one.deadline_ns != other.deadline_ns ? one.deadline_ns < other.deadline_ns : one.number < other.number;
}

tracker::place tracker::earliestOf(std::uint16_t id)
{
    auto found = pending.end();
    for (auto each = pending.begin(); each != pending.end(); ++each)
    {
        if (idOf(each->frame) == id && (found == pending.end() || isEarlier(*each, *found)))
        {
            found = each;
        }
    }
    return found;
}

bytes tracker::again(place request, std::int64_t from_ns)
{
    if (request->isSecondCopy)
    {
        pending.erase(request);
        return {};
    }
    request->isSecondCopy = true;
    request->deadline_ns = deadline_ns(from_ns, request->frame);
    return request->frame;
}

} // namespace reference
