// SPDX-License-Identifier: MIT
/**
 * @file
 * The toolbox of every module: leveled console logging, debug switches read
 * from the environment, clocks, deadlines for condition waits, PCM dump files
 * and the audio period size for a sample rate.
 *
 * Every function here is reentrant and may be called from any thread.
 */
#pragma once

#include <time.h>

#include <atomic>
#include <cstdint>

enum loglevel_e {
    LOG_LEVEL_N = 0, ///< none
    LOG_LEVEL_E = 1, ///< error
    LOG_LEVEL_W = 2, ///< warning
    LOG_LEVEL_I = 3, ///< information
    LOG_LEVEL_D = 4, ///< debug
    LOG_LEVEL_V = 5, ///< verbose
};

/**
 * Writes one record to standard output: colour, local time, kernel thread id,
 * level letter, then the caller's text. Neither filters by level nor adds a
 * line break nor flushes. Records of different threads never interleave.
 *
 * Does not wait for who reads the output. What the output does not take is kept,
 * 64 KiB of it, and printed as soon as something is logged, be it suppressed, or
 * at the end of the process; records beyond that are counted and reported in
 * their place. A terminal is the exception, if this user may not open it: one
 * that stops in the middle of a record holds up whoever prints that. On any
 * other, a line that the host has begun to print comes behind the records.
 */
void console_print(loglevel_e level, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Records wait until the output takes them.
extern std::atomic<bool> g_console_behind;
/// Prints those that it takes now; at most fifty times a second.
void console_catch_up();

/**
 * The integer value of environment variable @p str, or @p value when it is
 * unset or malformed. Only decimal digits are accepted, at most ten; a value
 * above INT32_MAX saturates; an empty text is 0.
 */
int env_get_value(const char* str, int value);

/**
 * A copy of the text of environment variable @p str, to be released with
 * free(), or null when it is unset or shorter than two characters.
 */
char* env_get_string(const char* str);

/// The level now. Prints nothing: for who holds a mutex and has nothing to say.
inline int log_level() { return env_get_value("debug_hdmiplayer_log_level", 2); }

/**
 * Logs with the "[function line] " prefix. The level test comes before the
 * arguments are evaluated: a suppressed message costs one environment look-up.
 * Use in named functions only: in a lambda the prefix would name no function.
 */
#define log_at(level, format, ...) log_as(__func__, level, format, ##__VA_ARGS__)

/**
 * One look at the level for several messages: most of what a suppressed message
 * costs is the search of the environment. For a stretch of code that does not
 * wait; behind a wait, or a call of a platform or of the host, look again.
 */
class log_gate
{
public:
    log_gate() { look_again(); }

    bool open(loglevel_e level) const { return level_ >= level; }
    void look_again()
    {
        if (g_console_behind.load(std::memory_order_relaxed))
            console_catch_up();
        level_ = log_level();
    }

private:
    int level_;
};

/// As log_as, for a message that goes through @p gate.
#define log_through(gate, function, level, format, ...)                                 \
    do {                                                                                \
        if ((gate).open(level))                                                         \
            console_print(level, "[%s %d] " format, function, __LINE__, ##__VA_ARGS__); \
    } while (0)

/// As log_at, in the name of @p function: for helpers whose messages belong to the operation they work for.
#define log_as(function, level, format, ...) log_through(log_gate(), function, level, format, ##__VA_ARGS__)

#define log_e(format, ...) log_at(LOG_LEVEL_E, format, ##__VA_ARGS__)
#define log_w(format, ...) log_at(LOG_LEVEL_W, format, ##__VA_ARGS__)
#define log_i(format, ...) log_at(LOG_LEVEL_I, format, ##__VA_ARGS__)
#define log_d(format, ...) log_at(LOG_LEVEL_D, format, ##__VA_ARGS__)
#define log_v(format, ...) log_at(LOG_LEVEL_V, format, ##__VA_ARGS__)

/// Whether a message of @p level is printed now.
inline bool log_enabled(loglevel_e level) { return log_gate().open(level); }

/// Traces a call of an operation: ">>>" now, "<<<" when the scope ends, while @p enabled.
class call_trace
{
public:
    explicit call_trace(loglevel_e level, bool enabled = true, const char* function = __builtin_FUNCTION(),
                        int line = __builtin_LINE())
        : level_(level), enabled_(enabled), function_(function), line_(line)
    {
        print(">>>");
    }
    ~call_trace() { print("<<<"); }
    call_trace(const call_trace&) = delete;
    call_trace& operator=(const call_trace&) = delete;

private:
    void print(const char* mark) const
    {
        if (enabled_ && log_enabled(level_))
            console_print(level_, "[%s %d] %s\n", function_, line_, mark);
    }

    loglevel_e level_;
    bool enabled_;
    const char* function_;
    int line_;
};

/// Whether @p argument is null; then @p message is logged in the caller's name.
inline bool missing(const void* argument, const char* message, const char* function = __builtin_FUNCTION(),
                    int line = __builtin_LINE())
{
    if (argument == nullptr && log_enabled(LOG_LEVEL_E))
        console_print(LOG_LEVEL_E, "[%s %d] %s\n", function, line, message);
    return argument == nullptr;
}

/// Shorthands for the arguments of messages.
inline long long lli(int64_t value) { return value; }
inline unsigned long long llu(uint64_t value) { return value; }

/// @p a + @p b, saturated: the times of a host or a device may be anything.
inline int64_t add_saturated(int64_t a, int64_t b)
{
    int64_t sum = 0;
    const bool overflow = __builtin_add_overflow(a, b, &sum);
    return !overflow ? sum : a < 0 ? INT64_MIN : INT64_MAX;
}

/// Wall-clock time in microseconds, 0 if the clock cannot be read. Time base of clocks and media time.
uint64_t get_system_time_us(void);

/// The instant @p microseconds from now on CLOCK_REALTIME, for pthread_cond_timedwait.
struct timespec get_cond_timeout_us(uint32_t microseconds);

/// The instant @p milliseconds from now on CLOCK_REALTIME, for pthread_cond_timedwait.
struct timespec get_cond_timeout_ms(uint32_t milliseconds);

/// The instant @p microseconds from now on CLOCK_MONOTONIC, for conditions of cond_init_monotonic().
struct timespec get_monotonic_timeout_us(uint64_t microseconds);

/// @p start advanced by @p microseconds, normalised.
struct timespec timespec_add_us(struct timespec start, uint64_t microseconds);

/// The clock @p clock_id in nanoseconds.
uint64_t system_time(clockid_t clock_id);

/// Appends a block to "dump_hdmiplayer_write.pcm" while debug_hdmiplayer_dump_write_pcm is on.
void dump_pcm_write(uint8_t* data, int32_t size);

/// Appends a block to "dump_hdmiplayer_read.pcm" while debug_hdmiplayer_dump_read_pcm is on.
void dump_pcm_read(uint8_t* data, int32_t size);

/// Audio frames in one device period at @p rate Hz.
int convert_sample_rate_to_frames(int rate);

/// For a thread that asks a source with a time limit: pauses it when the source answers at once, again and again, that
/// it has nothing. A single such answer may come from a wake-up, after which there is something elsewhere.
class empty_answers
{
public:
    /// @p pause_us: of the thread, and what counts as at once.
    explicit empty_answers(uint32_t pause_us) : pause_us_(pause_us) {}

    void filled() { last_ns_ = 0; }
    void empty();

private:
    const uint32_t pause_us_;
    uint64_t last_ns_ = 0; ///< when the last answer came, if it was empty
    bool at_once_ = false; ///< as it was
};

/// Names the calling thread for the kernel (15 characters at most).
void set_thread_name(const char* name);

/// Has the calling thread's waits end when their time has come. By default the kernel may end them 50 us later.
void set_exact_timers(void);
