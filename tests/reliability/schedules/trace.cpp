#include "trace.h"

#include <algorithm>
#include <cstdio>

namespace schedules
{
namespace
{

std::uint64_t mixed(std::uint64_t hash, std::uint64_t value)
{
    hash = (hash ^ value) * 1099511628211U;
    return hash ^ (hash >> 29U);
}

std::uint64_t hashOf(char const* text)
{
    std::uint64_t hash = 0;
    for (; *text != '\0'; ++text)
    {
        hash = hash * 31 + static_cast<unsigned char>(*text);
    }
    return hash;
}

} // namespace

void trace::add(event const& happened)
{
    events[count % MOST_EVENTS] = happened;
    ++count;
    hash = mixed(hash, happened.thread);
    hash = mixed(hash, hashOf(happened.what));
    hash = mixed(hash, static_cast<std::uint64_t>(happened.value));
    hash = mixed(hash, static_cast<std::uint64_t>(happened.time_ns));
}

std::string trace::text(std::function<std::string(unsigned)> const& threadName) const
{
    std::map<void const*, std::string> labels = names;
    std::string all = "      step  time (ms)  thread               what\n";
    for (std::size_t i = count - std::min(count, MOST_EVENTS); i < count; ++i)
    {
        event const& each = events[i % MOST_EVENTS];
        std::string object;
        if (each.object != nullptr)
        {
            object = labels.emplace(each.object, "object " + std::to_string(labels.size() + 1)).first->second;
        }
        std::array<char, 200> line{};
        std::snprintf(line.data(), line.size(), "%10llu %10.3f  %2u %-17s  %s %s %lld\n",
                      static_cast<unsigned long long>(each.step), static_cast<double>(each.time_ns) * 1e-6, each.thread,
                      threadName(each.thread).c_str(), each.what, object.c_str(), static_cast<long long>(each.value));
        all += line.data();
    }
    return all;
}

} // namespace schedules
