// SPDX-License-Identifier: MIT
#include "process/realtime.h"

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>

namespace process
{

RealtimeScope::RealtimeScope(int priority)
{
    sched_param param = {};
    param.sched_priority = priority;
    active_ = pthread_setschedparam(pthread_self(), SCHED_RR, &param) == 0;
}

RealtimeScope::~RealtimeScope()
{
    sched_param param = {};
    if (active_)
        pthread_setschedparam(pthread_self(), SCHED_OTHER, &param);
}

// Under a limit, what the program asks for later could be refused. None holds for a privileged account: it may lock
// even where the limit is nothing.
bool keep_in_memory()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_MEMLOCK, &limit) != 0)
        return false;
    const rlimit own = limit;
    limit.rlim_cur = limit.rlim_max == RLIM_INFINITY ? RLIM_INFINITY : 0;
    const bool locked = setrlimit(RLIMIT_MEMLOCK, &limit) == 0 && mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT) == 0;
    if (limit.rlim_cur == 0)
        setrlimit(RLIMIT_MEMLOCK, &own);
    return locked;
}

} // namespace process
