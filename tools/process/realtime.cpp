// SPDX-License-Identifier: MIT
#include "process/realtime.h"

#include <pthread.h>
#include <sched.h>

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

} // namespace process
