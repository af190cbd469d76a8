#ifndef CYCLES_PLACEMENT_H
#define CYCLES_PLACEMENT_H

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <gtest/gtest.h>
#include <optional>
#include <ostream>
#include <sched.h>
#include <string>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace cycles
{

/// Where the threads of a test run.
enum class placement { everyCore, oneCore, loadedCore };

inline char const* nameOf(placement where)
{
    switch (where)
    {
    case placement::oneCore:
        return "oneCore";
    case placement::loadedCore:
        return "loadedCore";
    default:
        return "everyCore";
    }
}

/// For the names of tests.
inline std::string nameOfPlace(testing::TestParamInfo<placement> const& info)
{
    return nameOf(info.param);
}

inline auto everyPlacement()
{
    return testing::Values(placement::everyCore, placement::oneCore, placement::loadedCore);
}

inline void PrintTo(placement where, std::ostream* out)
{
    *out << nameOf(where);
}

/// While it lives, the calling thread and those that it creates run there.
class placed
{
  public:
    explicit placed(placement where)
    {
        sched_getaffinity(0, sizeof former, &former);
        if (where != placement::everyCore)
        {
            pin(someCore());
        }
        if (where == placement::loadedCore)
        {
            competitor.emplace([this] { compete(); });
        }
    }
    ~placed()
    {
        over = true;
        if (competitor)
        {
            competitor->join();
        }
        sched_setaffinity(0, sizeof former, &former);
    }
    placed(placed const&) = delete;
    placed& operator=(placed const&) = delete;

  private:
    /// Programs that run side by side get different ones.
    std::size_t someCore() const
    {
        std::vector<std::size_t> cores;
        for (std::size_t core = 0; core < CPU_SETSIZE; ++core)
        {
            if (CPU_ISSET(core, &former))
            {
                cores.push_back(core);
            }
        }
        return cores[static_cast<std::size_t>(getpid()) % cores.size()];
    }

    static void pin(std::size_t core)
    {
        cpu_set_t only;
        CPU_ZERO(&only);
        CPU_SET(core, &only);
        if (sched_setaffinity(0, sizeof only, &only) != 0)
        {
            throw std::system_error(errno, std::generic_category(), "sched_setaffinity");
        }
    }

    /// Never sleeps.
    void compete() const
    {
        while (!over)
        {}
    }

    cpu_set_t former{};
    std::atomic<bool> over{false};
    std::optional<std::thread> competitor;
};

} // namespace cycles

#endif
