#ifndef KIT_PROCESSRIGHTS_H
#define KIT_PROCESSRIGHTS_H

#include "oneProcessor.h"
#include "ordinaryUser.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <string>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <vector>

/// \file
/// Ways to take rights from the calling process, for good, or to use them. Each gives what went wrong, or nothing: call
/// them in a process of their own (`inOwnProcess`).

namespace kit
{

/// The policy of a thread and its real-time priority, as the system tells.
inline std::string schedulingOf(pid_t thread)
{
    sched_param parameters{};
    sched_getparam(thread, &parameters);
    return std::to_string(sched_getscheduler(thread)) + "/" + std::to_string(parameters.sched_priority);
}

/// From now on this process may not change the scheduling of a thread, whoever it runs as.
inline std::string refuseScheduling()
{
    std::vector<sock_filter> program{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sched_setscheduler, 2, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sched_setparam, 1, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sched_setattr, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog const filter{static_cast<unsigned short>(program.size()), program.data()};
    bool const inForce = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, 2, &filter) == 0;
    return inForce ? "" : std::string("no filter: ") + std::strerror(errno);
}

/// Makes this process a real-time one above the port's threads, on a single processor that it shares with them.
inline std::string becomeRealTimeOnOneProcessor()
{
    cpu_set_t const one = firstProcessor();
    sched_param parameters{};
    parameters.sched_priority = 60;
    bool const done =
        sched_setaffinity(0, sizeof one, &one) == 0 && sched_setscheduler(0, SCHED_FIFO, &parameters) == 0;
    return done ? "" : std::strerror(errno);
}

inline bool realTimeIsPermitted()
{
    return inOwnProcess(becomeRealTimeOnOneProcessor).empty();
}

} // namespace kit

#endif
