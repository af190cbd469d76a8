#ifndef SCHEDULES_TRACE_H
#define SCHEDULES_TRACE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

namespace schedules
{

/// What has happened in a schedule: the last steps for people, all of them as one number.
class trace
{
  public:
    struct event
    {
        std::uint64_t step = 0;
        std::int64_t time_ns = 0;
        unsigned thread = 0;
        char const* what = "";        ///< a literal
        void const* object = nullptr; ///< a mutex, a condition, a file
        std::int64_t value = 0;
    };

    void add(event const& happened);

    /// Differs, with next to certainty, when the steps of two schedules differ. Addresses do not count.
    std::uint64_t digest() const { return hash; }

    /// Gives an object a name in the text; others are numbered.
    void name(void const* object, std::string const& objectName) { names[object] = objectName; }

    /// The last steps, one a line.
    std::string text(std::function<std::string(unsigned)> const& threadName) const;

  private:
    static constexpr std::size_t MOST_EVENTS = 400;

    std::array<event, MOST_EVENTS> events{};
    std::size_t count = 0;
    std::uint64_t hash = 14695981039346656037U;
    std::map<void const*, std::string> names;
};

} // namespace schedules

#endif
