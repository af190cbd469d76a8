#ifndef KIT_ORDINARYUSER_H
#define KIT_ORDINARYUSER_H

#include <cerrno>
#include <cstddef>
#include <exception>
#include <functional>
#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace kit
{

/// A check tells what is wrong, or nothing.
using check = std::function<std::string()>;

namespace detail
{

inline std::string resultOf(check const& toRun)
{
    try
    {
        return toRun();
    }
    catch (std::exception const& fault)
    {
        return fault.what();
    }
}

inline std::string readAll(int descriptor)
{
    std::string text;
    char next = 0;
    while (::read(descriptor, &next, 1) == 1)
    {
        text += next;
    }
    return text;
}

inline std::string endOf(pid_t child)
{
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
    {
        return {};
    }
    return "the process ended with wait status " + std::to_string(status);
}

inline std::string becomeOrdinaryUser()
{
    if (::geteuid() != 0)
    {
        return {};
    }
    constexpr unsigned nobody = 65534;
    bool const changed = ::setgid(nobody) == 0 && ::setuid(nobody) == 0;
    return changed ? std::string{} : std::generic_category().message(errno);
}

} // namespace detail

/// Runs a check in a process of its own and gives what it gave, or how the process ended. Call it while the test
/// has no other thread.
inline std::string inOwnProcess(check const& toRun)
{
    int ends[2] = {-1, -1};
    if (::pipe(ends) != 0)
    {
        throw std::system_error(errno, std::generic_category(), "pipe");
    }
    pid_t const child = ::fork();
    if (child == 0)
    {
        std::string const fault = detail::resultOf(toRun);
        ssize_t const written = ::write(ends[1], fault.data(), fault.size());
        ::_exit(written == static_cast<ssize_t>(fault.size()) ? 0 : 1);
    }
    ::close(ends[1]);
    std::string fault = detail::readAll(ends[0]);
    ::close(ends[0]);
    return fault + detail::endOf(child);
}

/// Runs `asOrdinary` in a process of its own as a user without privileges, and before that `prepare` with the rights
/// of the test, to set limits for instance.
inline std::string asOrdinaryUser(
    check const& asOrdinary, check const& prepare = [] { return std::string{}; })
{
    return inOwnProcess([&] {
        std::string fault = prepare();
        fault = fault.empty() ? detail::becomeOrdinaryUser() : fault;
        return fault.empty() ? asOrdinary() : fault;
    });
}

} // namespace kit

#endif
