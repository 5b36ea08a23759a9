// SPDX-License-Identifier: MIT
/**
 * @file
 * Threads that cannot be created. Replaces pthread_create: for one source of a program.
 */
#pragma once

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <climits>

inline std::atomic<int> g_threads_left{INT_MAX}; ///< that can be created

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*run)(void*), void* arg) noexcept
{
    static const auto create = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return g_threads_left-- > 0 ? create(thread, attr, run, arg) : EAGAIN;
}
