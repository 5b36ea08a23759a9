// SPDX-License-Identifier: MIT
#include "internal/common.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cctype>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

constexpr size_t kMaxValueDigits = 10;
constexpr size_t kMinStringLength = 2;
constexpr long kNsPerSecond = 1000000000;

struct level_style {
    const char* colour;
    const char* title;
};

level_style style_of(loglevel_e level)
{
    switch (level) {
    case LOG_LEVEL_E: return {"\033[0;31m", "E"};
    case LOG_LEVEL_W: return {"\033[0;33m", "W"};
    case LOG_LEVEL_I: return {"\033[0;32m", "I"};
    case LOG_LEVEL_D: return {"\033[0m", "D"};
    default: return {"\033[0m", "V"};
    }
}

struct timespec read_clock(clockid_t clock_id)
{
    struct timespec now = {};
    clock_gettime(clock_id, &now);
    return now;
}

// Opens and closes the file for every block, so that a dump can be removed or truncated while the player runs.
void append_dump(const char* function, const char* enable_switch, const char* file, const uint8_t* data, int32_t size)
{
    if (env_get_value(enable_switch, 0) == 0 || data == nullptr || size <= 0)
        return;
    FILE* fp = fopen(file, "a+");
    if (fp == nullptr) {
        log_as(function, LOG_LEVEL_E, "fopen(%s) fail\n", file);
        return;
    }
    const size_t written = fwrite(data, static_cast<size_t>(size), 1, fp);
    fclose(fp);
    log_as(function, LOG_LEVEL_V, "fwrite(%s) size:%zu ret:%d", file, static_cast<size_t>(size),
           static_cast<int>(written));
}

} // namespace

void console_print(loglevel_e level, const char* format, ...)
{
    // The stream's own lock, since the platform's library prints to the same stream.
    flockfile(stdout);
    const level_style style = style_of(level);
    const struct timespec now = read_clock(CLOCK_REALTIME);
    struct tm local = {};
    localtime_r(&now.tv_sec, &local);
    printf("%s[%02d:%02d:%02d.%03ld] %ld %s ", style.colour, local.tm_hour, local.tm_min, local.tm_sec,
           static_cast<long>(now.tv_nsec / 1000000), static_cast<long>(syscall(SYS_gettid)), style.title);
    va_list args;
    va_start(args, format);
    vfprintf(stdout, format, args);
    va_end(args);
    printf("\033[0m");
    funlockfile(stdout);
}

int env_get_value(const char* str, int value)
{
    if (str == nullptr)
        return value;
    const char* text = getenv(str);
    if (text == nullptr || strlen(text) > kMaxValueDigits)
        return value;
    for (const char* c = text; *c != '\0'; ++c) {
        if (!isdigit(static_cast<unsigned char>(*c)))
            return value;
    }
    // Ten digits exceed an int; the value saturates whatever the width of long.
    const long long parsed = strtoll(text, nullptr, 10);
    return parsed > INT_MAX ? INT_MAX : static_cast<int>(parsed);
}

char* env_get_string(const char* str)
{
    const char* text = str != nullptr ? getenv(str) : nullptr;
    if (text == nullptr || strlen(text) < kMinStringLength)
        return nullptr;
    return strdup(text);
}

uint64_t get_system_time_us(void)
{
    struct timeval now = {};
    if (gettimeofday(&now, nullptr) != 0)
        return 0;
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_usec);
}

struct timespec timespec_add_us(struct timespec start, uint64_t microseconds)
{
    start.tv_sec += static_cast<time_t>(microseconds / 1000000);
    start.tv_nsec += static_cast<long>(microseconds % 1000000) * 1000;
    if (start.tv_nsec >= kNsPerSecond) {
        start.tv_sec += 1;
        start.tv_nsec -= kNsPerSecond;
    }
    return start;
}

struct timespec get_cond_timeout_us(uint32_t microseconds)
{
    return timespec_add_us(read_clock(CLOCK_REALTIME), microseconds);
}

struct timespec get_cond_timeout_ms(uint32_t milliseconds)
{
    return timespec_add_us(read_clock(CLOCK_REALTIME), static_cast<uint64_t>(milliseconds) * 1000);
}

struct timespec get_monotonic_timeout_us(uint64_t microseconds)
{
    return timespec_add_us(read_clock(CLOCK_MONOTONIC), microseconds);
}

uint64_t system_time(clockid_t clock_id)
{
    const struct timespec now = read_clock(clock_id);
    return static_cast<uint64_t>(now.tv_sec) * kNsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

void dump_pcm_write(uint8_t* data, int32_t size)
{
    append_dump(__func__, "debug_hdmiplayer_dump_write_pcm", "dump_hdmiplayer_write.pcm", data, size);
}

void dump_pcm_read(uint8_t* data, int32_t size)
{
    append_dump(__func__, "debug_hdmiplayer_dump_read_pcm", "dump_hdmiplayer_read.pcm", data, size);
}

int convert_sample_rate_to_frames(int rate)
{
    switch (rate) {
    case 44100: return 896;
    case 8000:
    case 16000:
    case 32000:
    case 48000: return 960;
    default: return 1024;
    }
}

void set_thread_name(const char* name) { prctl(PR_SET_NAME, name); }

void set_exact_timers(void) { prctl(PR_SET_TIMERSLACK, 1UL); } // 1 ns: 0 would mean the default
