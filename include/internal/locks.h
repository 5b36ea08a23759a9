// SPDX-License-Identifier: MIT
/**
 * @file
 * POSIX locks with scoped guards, annotated for clang's thread-safety analysis
 * (-Wthread-safety).
 */
#pragma once

#include <pthread.h>
#include <time.h>

#include <atomic>

#include "internal/common.h"

#if defined(__clang__)
#define THREAD_ANNOTATION(x) __attribute__((x))
#else
#define THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define EXCLUDES(...) THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS THREAD_ANNOTATION(no_thread_safety_analysis)

/// A mutex. Statically usable; records that are built at run time call init and destroy.
struct CAPABILITY("mutex") mutex_t {
    pthread_mutex_t native = PTHREAD_MUTEX_INITIALIZER;

    void init() { pthread_mutex_init(&native, nullptr); }
    void destroy() { pthread_mutex_destroy(&native); }
};

/**
 * The lock of a module's life: calls into the module hold it for reading, init
 * and deinit for writing.
 *
 * It prefers readers, because reads nest: a render holds the video module's lock
 * when it raises an event, and the host may call back in from there. To read
 * costs one atomic addition and one subtraction; the calls for every block take
 * a dozen such locks.
 *
 * Such a lock lets callers in a loop starve a writer: their reads overlap, and
 * the lock is never free. One rule prevents that in every module: while a writer
 * holds the lock or waits for it, entry_guard refuses new calls before they touch
 * the lock. The writer then waits only for the calls in progress. A call that
 * comes just as a writer announces itself may be waiting for the lock instead:
 * never join a thread of the module while holding it for writing.
 *
 * Threads that init starts are refused too until init ends. One that calls back
 * into its own module therefore waits for the end of init first, with a
 * read_guard.
 */
struct CAPABILITY("rwlock") rwlock_t {
    std::atomic<int> writers{0}; ///< write_guards that hold the lock or wait for it

    /// For a reader; waits while a writer holds the lock.
    void enter()
    {
        while ((state_.fetch_add(1) & kHeld) != 0) {
            leave();
            await_writer();
        }
    }
    void leave()
    {
        // A writer counts itself before it looks for readers: one that this did not see will not see this reader.
        const bool last = (state_.fetch_sub(1) & ~kHeld) == 1;
        if (last && writers != 0)
            wake();
    }
    /// For a writer; waits until it is alone.
    void enter_alone()
    {
        ++writers;
        pthread_mutex_lock(&mutex_);
        int nobody = 0;
        while (!state_.compare_exchange_strong(nobody, kHeld)) {
            pthread_cond_wait(&changed_, &mutex_);
            nobody = 0;
        }
        pthread_mutex_unlock(&mutex_);
    }
    void leave_alone()
    {
        // First the count: a thread that gets the lock by what follows may call into the module at once.
        --writers;
        state_.fetch_sub(kHeld);
        wake();
    }

private:
    static constexpr int kHeld = 1 << 30;

    // The rare ways, apart from the usual ones: those are inlined into every entry point.
    [[gnu::cold, gnu::noinline]] void await_writer()
    {
        pthread_mutex_lock(&mutex_);
        while ((state_.load() & kHeld) != 0)
            pthread_cond_wait(&changed_, &mutex_);
        pthread_mutex_unlock(&mutex_);
    }
    [[gnu::cold, gnu::noinline]] void wake()
    {
        // Under the mutex: nobody is between a test and the wait that follows it.
        pthread_mutex_lock(&mutex_);
        pthread_cond_broadcast(&changed_);
        pthread_mutex_unlock(&mutex_);
    }

    std::atomic<int> state_{0};                         ///< the readers, and kHeld while a writer holds the lock
    pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER; ///< of those who wait
    pthread_cond_t changed_ = PTHREAD_COND_INITIALIZER;
};

/// Initialises @p cond for deadlines on CLOCK_MONOTONIC: setting the wall clock does not move them.
inline void cond_init_monotonic(pthread_cond_t& cond)
{
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&cond, &attr);
    pthread_condattr_destroy(&attr);
}

/// Holds a mutex for a scope; may be released and taken again inside it.
class SCOPED_CAPABILITY mutex_guard
{
public:
    explicit mutex_guard(mutex_t& mutex) ACQUIRE(mutex) : mutex_(&mutex) { lock_native(); }
    ~mutex_guard() RELEASE()
    {
        if (held_)
            unlock_native();
    }
    mutex_guard(const mutex_guard&) = delete;
    mutex_guard& operator=(const mutex_guard&) = delete;

    void unlock() RELEASE() { unlock_native(); }
    void lock() ACQUIRE() { lock_native(); }

    /// Waits on @p cond; the mutex is held again on return. Wakes may be spurious: test a predicate.
    int wait(pthread_cond_t& cond) { return pthread_cond_wait(&cond, &mutex_->native); }
    /// As wait(), with an absolute deadline on the condition's clock; ETIMEDOUT when it passed.
    int wait_until(pthread_cond_t& cond, const struct timespec& deadline)
    {
        return pthread_cond_timedwait(&cond, &mutex_->native, &deadline);
    }

private:
    void lock_native()
    {
        pthread_mutex_lock(&mutex_->native);
        held_ = true;
    }
    void unlock_native()
    {
        held_ = false;
        pthread_mutex_unlock(&mutex_->native);
    }

    mutex_t* mutex_;
    bool held_ = false;
};

/// Holds a reader-writer lock for reading for a scope, without the check at the door of entry_guard.
class SCOPED_CAPABILITY read_guard
{
public:
    explicit read_guard(rwlock_t& lock) ACQUIRE_SHARED(lock) : lock_(&lock) { lock_->enter(); }
    ~read_guard() RELEASE() { lock_->leave(); }
    read_guard(const read_guard&) = delete;
    read_guard& operator=(const read_guard&) = delete;

private:
    rwlock_t* lock_;
};

/// Holds a reader-writer lock for writing for a scope; may be released early. Entry guards refuse calls meanwhile.
class SCOPED_CAPABILITY write_guard
{
public:
    explicit write_guard(rwlock_t& lock) ACQUIRE(lock) : lock_(&lock) { lock_->enter_alone(); }
    ~write_guard() RELEASE()
    {
        if (held_)
            unlock_native();
    }
    write_guard(const write_guard&) = delete;
    write_guard& operator=(const write_guard&) = delete;

    void unlock() RELEASE() { unlock_native(); }

private:
    void unlock_native()
    {
        held_ = false;
        lock_->leave_alone();
    }

    rwlock_t* lock_;
    bool held_ = true;
};

/**
 * The check of every entry point of a module: holds the module's lock for
 * reading for a scope if the module is open. Otherwise the guard is empty,
 * and @p message, unless it is null, was logged in the name of the caller:
 *
 *     const entry_guard api(g_info.api_rwlock, is_open);
 *     if (!api)
 *         return -1;
 *
 * A call that arrives while init or deinit waits for the lock is refused as on a
 * closed module, without touching the lock. May be released and taken again
 * inside the scope, which repeats the check. The thread-safety analysis takes the
 * lock for held either way: test the guard first.
 */
class SCOPED_CAPABILITY entry_guard
{
public:
    /// @p is_open is called with the lock held.
    entry_guard(rwlock_t& lock, bool (*is_open)(), loglevel_e level = LOG_LEVEL_W,
                const char* message = "module not initialized", const char* function = __builtin_FUNCTION(),
                int line = __builtin_LINE()) ACQUIRE_SHARED(lock)
        : lock_(&lock), is_open_(is_open), level_(level), message_(message), function_(function), line_(line)
    {
        lock_native();
    }
    ~entry_guard() RELEASE() { unlock_native(); }
    entry_guard(const entry_guard&) = delete;
    entry_guard& operator=(const entry_guard&) = delete;

    explicit operator bool() const { return held_; }

    void unlock() RELEASE() { unlock_native(); }
    void lock() ACQUIRE_SHARED() { lock_native(); }

private:
    void lock_native()
    {
        if (lock_->writers == 0) {
            lock_->enter();
            held_ = true;
            if (is_open_())
                return;
            unlock_native();
        }
        if (message_ != nullptr)
            refuse(level_, message_, function_, line_);
    }
    void unlock_native()
    {
        if (held_)
            lock_->leave();
        held_ = false;
    }
    [[gnu::cold, gnu::noinline]] static void refuse(loglevel_e level, const char* message, const char* function,
                                                    int line)
    {
        if (log_enabled(level))
            console_print(level, "[%s %d] %s\n", function, line, message);
    }

    rwlock_t* const lock_;
    bool (*const is_open_)();
    const loglevel_e level_;
    const char* const message_;
    const char* const function_;
    const int line_;
    bool held_ = false;
};
