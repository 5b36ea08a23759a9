// SPDX-License-Identifier: MIT
#include "internal/common.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "internal/locks.h"

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

// --- Console ------------------------------------------------------------------

/// For how long a message waits while other threads print.
constexpr uint32_t kTurnPatienceUs = 5000;
/// Pause before the stream's lock is tried again.
constexpr useconds_t kStreamPauseUs = 100;
/// Pause before an output is asked again that did not take all.
constexpr int64_t kCatchUpPauseUs = 20000;
/// At the end of the process: for how long a reader of the last messages may rest, and how often.
constexpr int kExitPatienceMs = 200;
constexpr int kExitTries = 100;
/// Messages that standard output does not take are kept up to this many bytes, the length before each included.
constexpr size_t kBacklogBytes = 65536;
constexpr size_t kLengthBytes = sizeof(uint32_t);
constexpr char kReset[] = "\033[0m";
/// A record up to this size is put together without memory from the heap.
constexpr size_t kShortRecord = 1024;
/// Where a record has its time, until it is known.
constexpr char kStamp[] = "00:00:00.000";
constexpr size_t kStampBytes = sizeof(kStamp) - 1;

/// A message as it is printed.
struct record_t {
    char* text;
    size_t bytes;
    char* stamp; ///< in the text: kStampBytes
};

// The local time of day.
void write_stamp(char* stamp)
{
    const struct timespec now = read_clock(CLOCK_REALTIME);
    struct tm local = {};
    localtime_r(&now.tv_sec, &local);
    char text[64];
    snprintf(text, sizeof(text), "%02d:%02d:%02d.%03ld", local.tm_hour, local.tm_min, local.tm_sec,
             static_cast<long>(now.tv_nsec / 1000000));
    std::copy_n(text, kStampBytes, stamp);
}

/**
 * Standard output, if it is a terminal, opened once more for writes that do not
 * wait. A terminal that has room for some of a record makes an ordinary write
 * wait until it has room for the rest, and poll() does not tell that. Not kept:
 * who reads it must see the hang-up when the host closes its own.
 */
class terminal_output
{
public:
    terminal_output()
    {
        const int output = fileno(stdout);
        if (output < 0 || isatty(output) != 1)
            return;
        char path[64];
        snprintf(path, sizeof(path), "/proc/self/fd/%d", output);
        fd_ = open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }
    ~terminal_output()
    {
        if (fd_ >= 0)
            close(fd_);
    }
    terminal_output(const terminal_output&) = delete;
    terminal_output& operator=(const terminal_output&) = delete;

    /// The descriptor; -1: no terminal, or one that this user may not open.
    int fd() const { return fd_; }

private:
    int fd_ = -1;
};

/**
 * The way of messages to standard output. Sound must not wait for who reads
 * them: a full pipe or a stopped terminal takes nothing for ever. So a caller
 * prints only what the output takes at once. The rest stays in a backlog, which
 * the next caller prints - of a message, or of one that its level suppresses -
 * and messages that find the backlog full are counted.
 *
 * Callers take turns. The one that has the turn prints for all that wait for it,
 * so that none is passed over for long, however many there are.
 */
class console_output
{
public:
    console_output()
    {
        cond_init_monotonic(turn_over_);
        atexit([] { instance().print_rest(); });
    }
    /// Never destroyed: threads may log until the process has ended.
    static console_output& instance()
    {
        static console_output console;
        return console;
    }

    void print(const record_t& record);
    void catch_up();

private:
    bool append(const char* record, size_t bytes) REQUIRES(mutex_);
    bool append_losses() REQUIRES(mutex_);
    bool append_message(const record_t& record) REQUIRES(mutex_);
    size_t print_first(size_t bytes);
    size_t write_first(size_t bytes, int terminal);
    bool take_turn(mutex_guard& lock) NO_THREAD_SAFETY_ANALYSIS;
    void print_rest();

    mutex_t mutex_;
    pthread_cond_t turn_over_;
    /// Records: length, then text. Added under the mutex; who has the turn reads and removes those that it found.
    char backlog_[kBacklogBytes];
    size_t used_ GUARDED_BY(mutex_) = 0;       ///< bytes of the backlog
    uint64_t appended_ GUARDED_BY(mutex_) = 0; ///< bytes so far
    uint64_t printed_ GUARDED_BY(mutex_) = 0;  ///< bytes so far
    bool printing_ GUARDED_BY(mutex_) = false; ///< somebody has the turn
    uint64_t refused_ GUARDED_BY(mutex_) = 0;  ///< turns in which the output did not take all
    int waiting_ GUARDED_BY(mutex_) = 0;       ///< callers that wait for the turn
    unsigned lost_ GUARDED_BY(mutex_) = 0;     ///< messages since the backlog was full
    uint64_t next_try_us_ GUARDED_BY(mutex_) = 0;
};

// A stream without a descriptor is memory. An error ends the wait too: the print will meet it.
bool output_takes_more(int wait_ms)
{
    struct pollfd output = {fileno(stdout), POLLOUT, 0};
    return output.fd < 0 || poll(&output, 1, wait_ms) != 0;
}

// The stream's own lock, because the platform's library and the host print to the same stream.
bool lock_stream()
{
    const uint64_t deadline_ns = system_time(CLOCK_MONOTONIC) + uint64_t{kTurnPatienceUs} * 1000;
    while (ftrylockfile(stdout) != 0) {
        if (system_time(CLOCK_MONOTONIC) >= deadline_ns)
            return false;
        usleep(kStreamPauseUs);
    }
    return true;
}

bool console_output::append(const char* record, size_t bytes)
{
    if (kBacklogBytes - used_ < kLengthBytes + bytes)
        return false;
    const auto length = static_cast<uint32_t>(bytes);
    memcpy(backlog_ + used_, &length, kLengthBytes);
    memcpy(backlog_ + used_ + kLengthBytes, record, bytes);
    used_ += kLengthBytes + bytes;
    appended_ += kLengthBytes + bytes;
    return true;
}

// Says where messages are missing; false while there is no room for more. Only in a half-empty backlog, so that the
// next messages are not lost at once.
bool console_output::append_losses()
{
    if (lost_ == 0)
        return true;
    char note[128];
    const int bytes = snprintf(note, sizeof(note), "%s%u messages are missing here: nobody read the output%s\n",
                               style_of(LOG_LEVEL_E).colour, lost_, kReset);
    if (used_ > kBacklogBytes / 2 || !append(note, static_cast<size_t>(bytes)))
        return false;
    lost_ = 0;
    return true;
}

// Its time is that of the moment, so that no record has an earlier one than the record before it.
bool console_output::append_message(const record_t& record)
{
    if (!append_losses())
        return false;
    write_stamp(record.stamp);
    return append(record.text, record.bytes);
}

// Writes the first @p bytes of the backlog to the terminal. Of a record that it takes in part, the rest becomes the
// first record.
size_t console_output::write_first(size_t bytes, int terminal)
{
    size_t done = 0;
    while (done < bytes) {
        uint32_t length = 0;
        memcpy(&length, backlog_ + done, kLengthBytes);
        const ssize_t taken = write(terminal, backlog_ + done + kLengthBytes, length);
        const bool gone = taken < 0 && errno != EAGAIN && errno != EINTR; // nobody will ever read it
        if (!gone && taken < static_cast<ssize_t>(length)) {
            const auto part = static_cast<uint32_t>(std::max<ssize_t>(taken, 0));
            const uint32_t rest = length - part;
            memcpy(backlog_ + done + part, &rest, kLengthBytes);
            return done + part;
        }
        done += kLengthBytes + length;
    }
    return done;
}

// Prints the first @p bytes of the backlog as far as the output takes them. @return how many it took.
size_t console_output::print_first(size_t bytes)
{
    // Asked first: a host that is blocked in a print of its own holds the stream's lock.
    if (!output_takes_more(0) || !lock_stream())
        return 0;
    const terminal_output terminal;
    if (terminal.fd() >= 0) {
        // A line that the host has begun and the stream still holds comes behind it: to flush that could wait.
        const size_t done = write_first(bytes, terminal.fd());
        funlockfile(stdout);
        return done;
    }
    size_t done = 0;
    while (done < bytes && output_takes_more(0)) {
        uint32_t length = 0;
        memcpy(&length, backlog_ + done, kLengthBytes);
        fwrite(backlog_ + done + kLengthBytes, 1, length, stdout);
        done += kLengthBytes + length;
    }
    funlockfile(stdout);
    return done;
}

// Prints the backlog; false when the output did not take all of it.
bool console_output::take_turn(mutex_guard& lock)
{
    printing_ = true;
    bool all = true;
    do {
        const size_t bytes = used_;
        lock.unlock();
        const size_t done = print_first(bytes);
        lock.lock();
        if (done > 0)
            std::copy(backlog_ + done, backlog_ + used_, backlog_);
        used_ -= done;
        printed_ += done;
        all = done == bytes;
        // What came meanwhile is printed by its callers, unless they stopped waiting.
    } while (all && used_ > 0 && waiting_ == 0);
    printing_ = false;
    refused_ += all ? 0 : 1;
    g_console_behind = used_ > 0 || lost_ > 0;
    pthread_cond_broadcast(&turn_over_);
    return all;
}

void console_output::print(const record_t& record)
{
    mutex_guard lock(mutex_);
    bool appended = append_message(record);
    if (!appended && !printing_) {
        take_turn(lock);
        appended = append_message(record);
    }
    if (!appended) {
        ++lost_;
        g_console_behind = true;
        return;
    }
    const uint64_t end = appended_;
    const uint64_t refused = refused_;
    const struct timespec deadline = get_monotonic_timeout_us(kTurnPatienceUs);
    while (printed_ < end && refused_ == refused) {
        if (!printing_) {
            take_turn(lock);
            continue;
        }
        ++waiting_;
        const int err = lock.wait_until(turn_over_, deadline);
        --waiting_;
        if (err != 0 && printing_)
            return;
    }
}

// Prints what the output refused before, if it takes it now.
void console_output::catch_up()
{
    mutex_guard lock(mutex_);
    const uint64_t now_us = system_time(CLOCK_MONOTONIC) / 1000;
    if (printing_ || now_us < next_try_us_)
        return;
    next_try_us_ = now_us + kCatchUpPauseUs;
    append_losses();
    take_turn(lock);
}

void console_output::print_rest()
{
    mutex_guard lock(mutex_);
    const struct timespec deadline = get_monotonic_timeout_us(kExitPatienceMs * 1000);
    while (printing_ && lock.wait_until(turn_over_, deadline) == 0) {
    }
    for (int tries = kExitTries; tries > 0 && (used_ > 0 || lost_ > 0) && !printing_; --tries) {
        const bool told = append_losses();
        if (take_turn(lock) && told)
            continue;
        lock.unlock();
        const bool reader = output_takes_more(kExitPatienceMs);
        lock.lock();
        if (!reader)
            return;
    }
}

// A message for which there is no memory is cut. @p stamp: where the prefix has it.
void print_record(const char* prefix, size_t stamp, const char* format, va_list args)
{
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    const size_t wanted = std::min(strlen(prefix) + static_cast<size_t>(std::max(length, 0)) + sizeof(kReset),
                                   kBacklogBytes - kLengthBytes);
    char short_record[kShortRecord];
    const std::unique_ptr<char[]> long_record(wanted > kShortRecord ? new (std::nothrow) char[wanted] : nullptr);
    char* const record = long_record != nullptr ? long_record.get() : short_record;
    const size_t size = long_record != nullptr ? wanted : std::min(wanted, kShortRecord);
    char* end = std::copy_n(prefix, strlen(prefix), record);
    const auto room = static_cast<size_t>(record + size - end) - (sizeof(kReset) - 1); // with the text's NUL
    vsnprintf(end, room, format, args);
    end = std::copy_n(kReset, sizeof(kReset) - 1, end + room - 1);
    console_output::instance().print({record, static_cast<size_t>(end - record), record + stamp});
}

// A message leaves errno as it was: the caller may still have to tell it.
struct errno_keeper {
    const int error = errno;
    ~errno_keeper() { errno = error; }
};

// Opens and closes the file for every block, so that a dump can be removed or truncated while the player runs.
void append_dump(const char* function, const char* enable_switch, const char* file, const uint8_t* data, int32_t size)
{
    if (env_get_value(enable_switch, 0) == 0 || data == nullptr || size <= 0)
        return;
    FILE* fp = fopen(file, "a+e");
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

std::atomic<bool> g_console_behind{false};

void console_catch_up()
{
    const errno_keeper kept;
    console_output::instance().catch_up();
}

void console_print(loglevel_e level, const char* format, ...)
{
    const errno_keeper kept;
    const level_style style = style_of(level);
    char prefix[64];
    snprintf(prefix, sizeof(prefix), "%s[%s] %ld %s ", style.colour, kStamp, static_cast<long>(syscall(SYS_gettid)),
             style.title);
    va_list args;
    va_start(args, format);
    print_record(prefix, strlen(style.colour) + strlen("["), format, args);
    va_end(args);
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

void empty_answers::empty()
{
    const uint64_t now_ns = system_time(CLOCK_MONOTONIC);
    const bool at_once = last_ns_ != 0 && now_ns - last_ns_ < uint64_t{pause_us_} * 1000;
    const bool pause = at_once && at_once_;
    if (pause)
        usleep(pause_us_);
    at_once_ = at_once;
    last_ns_ = pause ? system_time(CLOCK_MONOTONIC) : now_ns;
}

void set_thread_name(const char* name) { prctl(PR_SET_NAME, name); }

void set_exact_timers(void) { prctl(PR_SET_TIMERSLACK, 1UL); } // 1 ns: 0 would mean the default
