// SPDX-License-Identifier: MIT
#include "failing_calls.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <mutex>
#include <new>

namespace failing_calls
{
namespace
{

constexpr int kFrames = 48;
constexpr int kOwnFrames = 2; ///< fails() and the function that asks it
constexpr int kCallers = 6;   ///< that tell sites apart

thread_local bool t_tests = false;
thread_local bool t_under_test = false;
thread_local bool t_noting = false; ///< what is called meanwhile does not count
thread_local int t_test_frames = 0; ///< from main() to under_test(): the same site, whoever of the test calls

struct State {
    std::mutex mutex;
    std::vector<Site> sites;
    Site target = 0;
    int64_t number = 0;
    int64_t count = 0;
    bool failed = false;
};
std::atomic<bool> g_on{false};

State& state()
{
    static auto* instance = new State;
    return *instance;
}

// Who calls, a few callers deep.
Site here()
{
    void* frames[kFrames];
    const int count = backtrace(frames, kFrames) - t_test_frames;
    Site hash = 0xcbf29ce484222325;
    for (int at = kOwnFrames; at < count && at < kOwnFrames + kCallers; ++at)
        hash = (hash ^ reinterpret_cast<uintptr_t>(frames[at])) * 0x100000001b3;
    return hash;
}

} // namespace

void begin(Site target, int64_t number)
{
    void* first[1];
    backtrace(first, 1); // loads a library the first time
    State& s = state();
    const std::lock_guard lock(s.mutex);
    s.target = target;
    s.number = number;
    s.count = 0;
    s.failed = false;
    g_on = true;
}

bool end()
{
    g_on = false;
    State& s = state();
    const std::lock_guard lock(s.mutex);
    return s.failed;
}

int64_t count()
{
    State& s = state();
    const std::lock_guard lock(s.mutex);
    return s.count;
}

std::vector<Site> sites()
{
    State& s = state();
    const std::lock_guard lock(s.mutex);
    return s.sites;
}

void this_thread_is_the_tests() { t_tests = true; }
void set_under_test(bool on)
{
    void* frames[kFrames];
    t_test_frames = on ? backtrace(frames, kFrames) - 1 : 0;
    t_under_test = on;
}

/// Whether this call is the one that fails.
__attribute__((noinline)) bool fails()
{
    if (!g_on || t_noting || (t_tests && !t_under_test))
        return false;
    t_noting = true;
    const Site site = here();
    bool failed = false;
    {
        State& s = state();
        const std::lock_guard lock(s.mutex);
        ++s.count;
        if (std::find(s.sites.begin(), s.sites.end(), site) == s.sites.end())
            s.sites.push_back(site);
        failed = !s.failed && (site == s.target || s.count == s.number);
        s.failed = s.failed || failed;
    }
    t_noting = false;
    return failed;
}

} // namespace failing_calls

using failing_calls::fails;

#ifdef FAILING_CALLS_IN_PROGRAM
extern char __executable_start, etext; // NOLINT(readability-identifier-naming): the linker's
// The simulated platform, a library of its own, is no part of what is tested.
static bool counts(const void* caller) { return caller >= &__executable_start && caller < &etext; }
#else
static bool counts(const void*) { return true; }
#endif

extern "C" void* __real_malloc(size_t bytes);

void* operator new(size_t bytes)
{
    const bool fail = counts(__builtin_return_address(0)) && fails();
    void* const memory = fail ? nullptr : __real_malloc(bytes != 0 ? bytes : 1);
    if (memory == nullptr)
        throw std::bad_alloc();
    return memory;
}
void* operator new(size_t bytes, const std::nothrow_t&) noexcept
{
    return counts(__builtin_return_address(0)) && fails() ? nullptr : __real_malloc(bytes != 0 ? bytes : 1);
}
void* operator new[](size_t bytes) { return operator new(bytes); }
void* operator new[](size_t bytes, const std::nothrow_t& tag) noexcept { return operator new(bytes, tag); }
void operator delete(void* memory) noexcept { free(memory); }
void operator delete(void* memory, size_t) noexcept { free(memory); }
void operator delete[](void* memory) noexcept { free(memory); }
void operator delete[](void* memory, size_t) noexcept { free(memory); }

// Threads that the C++ library starts, too.
extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*run)(void*), void* arg) noexcept
{
    static const auto create = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return fails() ? EAGAIN : create(thread, attr, run, arg);
}

// What the program's own objects call, by the linker's --wrap.
#define FAILING_CALL(result, name, parameters, arguments, failure, error) \
    extern "C" result __real_##name parameters;                           \
    extern "C" result __wrap_##name parameters;                           \
    extern "C" result __wrap_##name parameters                            \
    {                                                                     \
        if (!fails())                                                     \
            return __real_##name arguments;                               \
        errno = error;                                                    \
        return failure;                                                   \
    }

FAILING_CALL(void*, malloc, (size_t bytes), (bytes), nullptr, ENOMEM)
FAILING_CALL(void*, calloc, (size_t count, size_t bytes), (count, bytes), nullptr, ENOMEM)
FAILING_CALL(void*, realloc, (void* memory, size_t bytes), (memory, bytes), nullptr, ENOMEM)
FAILING_CALL(int, socket, (int domain, int type, int protocol), (domain, type, protocol), -1, EMFILE)
FAILING_CALL(int, bind, (int fd, const sockaddr* address, socklen_t length), (fd, address, length), -1, EPERM)
FAILING_CALL(int, eventfd, (unsigned initial, int flags), (initial, flags), -1, EMFILE)
FAILING_CALL(int, timerfd_create, (int clock, int flags), (clock, flags), -1, EMFILE)
FAILING_CALL(int, poll, (pollfd * ready, nfds_t count, int limit_ms), (ready, count, limit_ms), -1, EINTR)
FAILING_CALL(ssize_t, recv, (int fd, void* buffer, size_t bytes, int flags), (fd, buffer, bytes, flags), -1, EIO)
FAILING_CALL(ssize_t, read, (int fd, void* buffer, size_t bytes), (fd, buffer, bytes), -1, EINTR)
#ifdef __GLIBC__
// The same where the compiler knows of the memory behind them (_FORTIFY_SOURCE).
FAILING_CALL(int, __poll_chk, (pollfd * ready, nfds_t count, int limit_ms, size_t room), (ready, count, limit_ms, room),
             -1, EINTR)
FAILING_CALL(ssize_t, __recv_chk, (int fd, void* buffer, size_t bytes, size_t room, int flags),
             (fd, buffer, bytes, room, flags), -1, EIO)
FAILING_CALL(ssize_t, __read_chk, (int fd, void* buffer, size_t bytes, size_t room), (fd, buffer, bytes, room), -1,
             EINTR)
#endif
FAILING_CALL(void*, fopen, (const char* path, const char* mode), (path, mode), nullptr, EMFILE)

struct SwrContext;
FAILING_CALL(int, swr_init, (SwrContext * context), (context), -ENOMEM, 0)
FAILING_CALL(int, swr_convert, (SwrContext * context, uint8_t** out, int room, const uint8_t** in, int count),
             (context, out, room, in, count), -EINVAL, 0)

// A mode too many does no harm.
FAILING_CALL(int, open, (const char* path, int flags, mode_t mode), (path, flags, mode), -1, EMFILE)
// As they are called where file offsets have 64 bits.
FAILING_CALL(int, open64, (const char* path, int flags, mode_t mode), (path, flags, mode), -1, EMFILE)
FAILING_CALL(void*, fopen64, (const char* path, const char* mode), (path, mode), nullptr, EMFILE)
