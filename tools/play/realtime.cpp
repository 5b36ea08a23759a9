// SPDX-License-Identifier: MIT
#include "realtime.h"

#include <pthread.h>
#include <sched.h>

namespace play
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

} // namespace play
