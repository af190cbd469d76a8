#include "lossyAgreement.h"

#include <algorithm>
#include <cstddef>
#include <iomanip>
#include <limits>
#include <map>
#include <set>
#include <sstream>

namespace schedules
{
namespace
{

constexpr std::int64_t TOLERANCE_NS = 50; // of deadlines, which the library computes in fractions of a second
constexpr double NS_PER_SEC = 1e9;

using iterator = std::vector<happening>::const_iterator;
using sequences = std::vector<std::vector<happening const*>>;

bool isEarlier(happening const& one, happening const& other)
{
    return one.when_ns < other.when_ns;
}

std::string inWords(bytes const& content)
{
    bool const isText =
        std::all_of(content.begin(), content.end(), [](std::uint8_t each) { return each >= ' ' && each < 127; });
    if (isText)
    {
        return std::string(content.begin(), content.end());
    }
    std::ostringstream out;
    out << std::hex << std::uppercase << std::setfill('0');
    for (std::uint8_t const each : content)
    {
        out << std::setw(2) << static_cast<unsigned>(each) << ' ';
    }
    return out.str();
}

std::string inWords(iterator from, iterator to)
{
    std::string text;
    for (; from != to; ++from)
    {
        text += "\n    " + inWords(from->content);
    }
    return text.empty() ? "\n    nothing" : text;
}

/// Finds an order of several sequences that makes up some bytes.
class interleaving
{
  public:
    interleaving(sequences const& given, bytes const& wanted) : each(given), whole(wanted), taken(given.size(), 0) {}

    bool find(std::size_t at, std::vector<happening>& order)
    {
        if (at == whole.size() && allTaken())
        {
            return true;
        }
        if (!tried.insert(taken).second)
        {
            return false;
        }
        for (std::size_t which = 0; which < each.size(); ++which)
        {
            if (taken[which] < each[which].size() && take(which, at, order))
            {
                return true;
            }
        }
        return false;
    }

  private:
    bool allTaken() const
    {
        for (std::size_t which = 0; which < each.size(); ++which)
        {
            if (taken[which] < each[which].size())
            {
                return false;
            }
        }
        return true;
    }

    bool take(std::size_t which, std::size_t at, std::vector<happening>& order)
    {
        happening const& next = *each[which][taken[which]];
        bytes const& content = next.content;
        if (whole.size() - at < content.size() ||
            !std::equal(content.begin(), content.end(), whole.begin() + static_cast<std::ptrdiff_t>(at)))
        {
            return false;
        }
        order.push_back(next);
        ++taken[which];
        if (find(at + content.size(), order))
        {
            return true;
        }
        --taken[which];
        order.pop_back();
        return false;
    }

    sequences const& each;
    bytes const& whole;
    std::vector<std::size_t> taken;
    std::set<std::vector<std::size_t>> tried;
};

sequences bySource(iterator from, iterator to)
{
    std::map<unsigned, std::vector<happening const*>> found;
    for (; from != to; ++from)
    {
        found[from->by].push_back(&*from);
    }
    sequences result;
    for (auto& each : found)
    {
        result.push_back(std::move(each.second));
    }
    return result;
}

bytes together(iterator from, iterator to)
{
    bytes result;
    for (; from != to; ++from)
    {
        result.insert(result.end(), from->content.begin(), from->content.end());
    }
    return result;
}

iterator endOfTime(iterator from, iterator end, std::int64_t time_ns)
{
    return std::find_if(from, end, [time_ns](happening const& each) { return each.when_ns > time_ns + TOLERANCE_NS; });
}

std::int64_t timeOf(iterator at, iterator end)
{
    return at == end ? std::numeric_limits<std::int64_t>::max() - TOLERANCE_NS : at->when_ns;
}

} // namespace

std::string disagreement(std::vector<happening> const& expected, std::vector<happening> const& observed,
                         std::vector<happening>& inOrder)
{
    std::vector<happening> toCome = expected;
    std::stable_sort(toCome.begin(), toCome.end(), isEarlier);
    iterator wanted = toCome.begin();
    iterator seen = observed.begin();
    iterator const wantedEnd = toCome.end();
    while (wanted != wantedEnd || seen != observed.end())
    {
        std::int64_t const time_ns = std::min(timeOf(wanted, wantedEnd), timeOf(seen, observed.end()));
        iterator const wantedNext = endOfTime(wanted, wantedEnd, time_ns);
        iterator const seenNext = endOfTime(seen, observed.end(), time_ns);
        sequences const sources = bySource(wanted, wantedNext);
        bytes const content = together(seen, seenNext);
        if (!interleaving(sources, content).find(0, inOrder))
        {
            std::ostringstream text;
            text << "at " << std::fixed << std::setprecision(9) << static_cast<double>(time_ns) / NS_PER_SEC
                 << " s was to come:" << inWords(wanted, wantedNext) << "\n  and came:" << inWords(seen, seenNext);
            return text.str();
        }
        wanted = wantedNext;
        seen = seenNext;
    }
    return {};
}

} // namespace schedules
