// SPDX-License-Identifier: MIT
// Added to a host, tells at the end what the library needed: bytes of its own on the heap after open, and how much of
// its stack each of its threads touched. Both are the wrapped calls of the program itself, of which the library is a
// part; what the platform and FFmpeg allocate is in the whole heap only.
#include <malloc.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "hdmi_player.h"

extern "C" {
void* __real_malloc(size_t bytes);
void* __wrap_malloc(size_t bytes);
void* __real_calloc(size_t count, size_t bytes);
void* __wrap_calloc(size_t count, size_t bytes);
void __real_free(void* memory);
void __wrap_free(void* memory);
int32_t __real_hdmi_player_open(hdmi_player_config_t config);
int32_t __wrap_hdmi_player_open(hdmi_player_config_t config);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*run)(void*), void* arg);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*run)(void*), void* arg);
}

namespace
{

constexpr size_t kStackBytes = 1 << 20;
constexpr uint8_t kUntouched = 0xA5;

std::atomic<int64_t> g_own_bytes{0};

void* count(void* memory)
{
    g_own_bytes += static_cast<int64_t>(malloc_usable_size(memory));
    return memory;
}

struct Thread {
    uint8_t* stack;
    void* (*run)(void*);
    void* arg;
    char name[16] = "";
};
std::mutex g_mutex;
// Those that have ended. Never destroyed: they are printed after all static objects are gone.
std::vector<Thread*>& g_threads = *new std::vector<Thread*>;

void* run_and_note(void* thread)
{
    auto* const self = static_cast<Thread*>(thread);
    void* const result = self->run(self->arg);
    pthread_getname_np(pthread_self(), self->name, sizeof(self->name));
    const std::lock_guard lock(g_mutex);
    g_threads.push_back(self);
    return result;
}

long long touched(const Thread& thread)
{
    const uint8_t* const end = thread.stack + kStackBytes;
    return end - std::find_if(thread.stack, const_cast<uint8_t*>(end), [](uint8_t byte) { return byte != kUntouched; });
}

__attribute__((destructor)) void print_stacks()
{
    for (const Thread* thread : g_threads)
        fprintf(stderr, "stack %s %lld\n", thread->name, touched(*thread));
}

} // namespace

void* __wrap_malloc(size_t bytes) { return count(__real_malloc(bytes)); }
void* __wrap_calloc(size_t count_of, size_t bytes) { return count(__real_calloc(count_of, bytes)); }
void __wrap_free(void* memory)
{
    g_own_bytes -= static_cast<int64_t>(malloc_usable_size(memory));
    __real_free(memory);
}

int32_t __wrap_hdmi_player_open(hdmi_player_config_t config)
{
    const auto heap = [] { return static_cast<long long>(mallinfo2().uordblks + mallinfo2().hblkhd); };
    const long long before = heap(), own = g_own_bytes;
    const int32_t result = __real_hdmi_player_open(config);
    fprintf(stderr, "heap %lld %lld\n", g_own_bytes - own, heap() - before);
    return result;
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*run)(void*), void* arg)
{
    void* const stack = mmap(nullptr, kStackBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    memset(stack, kUntouched, kStackBytes);
    auto* const record = new Thread{static_cast<uint8_t*>(stack), run, arg};
    pthread_attr_t own = {};
    pthread_attr_init(&own);
    if (attr != nullptr)
        own = *attr;
    pthread_attr_setstack(&own, stack, kStackBytes);
    return __real_pthread_create(thread, &own, run_and_note, record);
}
