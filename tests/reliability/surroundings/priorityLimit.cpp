#include "priorityLimit.h"

#include "emulation.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace
{

std::string failed(char const* step)
{
    return std::string(step) + ": " + std::strerror(errno);
}

/// The descriptor on which requests to change a thread's scheduling arrive from now on; negative for a failure.
int installListener()
{
    std::array<sock_filter, 4> program{{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sched_setscheduler, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    sock_fprog const filter{static_cast<unsigned short>(program.size()), program.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
    {
        return -1;
    }
    return static_cast<int>(syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter));
}

/// What the system would answer to a process with that limit: 0 or a negative error number.
int answerTo(seccomp_notif const& request, int limit)
{
    sched_param parameters{};
    iovec const here{&parameters, sizeof parameters};
    iovec const there{reinterpret_cast<void*>(static_cast<std::uintptr_t>(request.data.args[2])), sizeof parameters};
    if (process_vm_readv(static_cast<pid_t>(request.pid), &here, 1, &there, 1, 0) != sizeof parameters)
    {
        return -EFAULT;
    }
    if (parameters.sched_priority > limit)
    {
        return -EPERM;
    }
    auto const thread = static_cast<pid_t>(request.data.args[0]);
    int const status = sched_setscheduler(thread != 0 ? thread : static_cast<pid_t>(request.pid),
                                          static_cast<int>(request.data.args[1]), &parameters);
    return status == 0 ? 0 : -errno;
}

/// Until the last process whose requests arrive there has ended.
void answerRequests(int listener, int limit)
{
    pollfd polled{listener, POLLIN, 0};
    while (::poll(&polled, 1, -1) > 0 && (polled.revents & POLLIN) != 0)
    {
        seccomp_notif request{};
        if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &request) == 0)
        {
            seccomp_notif_resp answer{};
            answer.id = request.id;
            answer.error = answerTo(request, limit);
            ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
        }
    }
}

/// Fetches the listener of the process that has sent its number, and serves it to that process's end.
[[noreturn]] void supervise(pid_t supervised, int fromThere, int toThere, int limit)
{
    int number = -1;
    if (::read(fromThere, &number, sizeof number) == sizeof number)
    {
        auto const process = static_cast<int>(syscall(SYS_pidfd_open, supervised, 0));
        auto const listener = static_cast<int>(syscall(SYS_pidfd_getfd, process, number, 0));
        int const status = listener < 0 ? errno : 0;
        if (::write(toThere, &status, sizeof status) == sizeof status && listener >= 0)
        {
            answerRequests(listener, limit);
        }
    }
    ::_exit(1);
}

std::string handOver(int listener, int toSupervisor, int fromSupervisor)
{
    int status = 0;
    bool const answered = ::write(toSupervisor, &listener, sizeof listener) == sizeof listener &&
                          ::read(fromSupervisor, &status, sizeof status) == sizeof status;
    errno = answered ? status : EPIPE;
    return answered && status == 0 ? "" : failed("no supervisor");
}

std::string haveSchedulingSupervised(int limit)
{
    int toSupervisor[2] = {-1, -1};
    int fromSupervisor[2] = {-1, -1};
    if (::pipe(toSupervisor) != 0 || ::pipe(fromSupervisor) != 0)
    {
        return failed("pipe");
    }
    pid_t const supervised = ::getpid();
    pid_t const supervisor = ::fork();
    if (supervisor == 0)
    {
        supervise(supervised, toSupervisor[0], fromSupervisor[1], limit);
    }
    int const listener = supervisor < 0 ? -1 : installListener();
    std::string fault = listener < 0 ? failed("no listener") : handOver(listener, toSupervisor[1], fromSupervisor[0]);
    for (int const descriptor : {toSupervisor[0], toSupervisor[1], fromSupervisor[0], fromSupervisor[1], listener})
    {
        ::close(descriptor);
    }
    return fault;
}

} // namespace

std::string limitRealTimePriority(int limit)
{
    auto const priority = static_cast<rlim_t>(limit);
    rlimit const wanted{priority, priority};
    if (!kit::hasSystemCallFilters())
    {
        return kit::NO_SYSTEM_CALL_FILTERS;
    }
    return setrlimit(RLIMIT_RTPRIO, &wanted) == 0 ? "" : haveSchedulingSupervised(limit);
}
