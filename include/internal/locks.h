// SPDX-License-Identifier: MIT
/**
 * @file
 * POSIX locks with scoped guards, annotated for clang's thread-safety analysis
 * (-Wthread-safety).
 */
#pragma once

#include <pthread.h>
#include <time.h>

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
 * A reader-writer lock that prefers readers: a thread that holds it for reading
 * may take it for reading again while a writer waits. Where that happens it is
 * needed: a render holds the video module's lock when it raises an event, and
 * the host may call back in.
 */
struct CAPABILITY("rwlock") rwlock_t {
    static_assert(static_cast<int>(PTHREAD_RWLOCK_DEFAULT_NP) == static_cast<int>(PTHREAD_RWLOCK_PREFER_READER_NP),
                  "the static initialiser must prefer readers: they nest");
    pthread_rwlock_t native = PTHREAD_RWLOCK_INITIALIZER;

    /// For locks whose readers never nest: a waiting writer goes before new readers. Host threads that call
    /// in a loop, failing at once, would otherwise overlap each other's reads and hold up a close for ever.
    static constexpr rwlock_t writers_first() { return {PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP}; }
};

/// Initialises @p cond for deadlines on CLOCK_MONOTONIC, which setting the wall clock back does not put off.
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

/// Holds a reader-writer lock for reading for a scope; may be released and taken again inside it.
class SCOPED_CAPABILITY read_guard
{
public:
    explicit read_guard(rwlock_t& lock) ACQUIRE_SHARED(lock) : lock_(&lock) { lock_native(); }
    ~read_guard() RELEASE()
    {
        if (held_)
            unlock_native();
    }
    read_guard(const read_guard&) = delete;
    read_guard& operator=(const read_guard&) = delete;

    void unlock() RELEASE() { unlock_native(); }
    void lock() ACQUIRE_SHARED() { lock_native(); }

private:
    void lock_native()
    {
        pthread_rwlock_rdlock(&lock_->native);
        held_ = true;
    }
    void unlock_native()
    {
        held_ = false;
        pthread_rwlock_unlock(&lock_->native);
    }

    rwlock_t* lock_;
    bool held_ = false;
};

/// Holds a reader-writer lock for writing for a scope; may be released early.
class SCOPED_CAPABILITY write_guard
{
public:
    explicit write_guard(rwlock_t& lock) ACQUIRE(lock) : lock_(&lock) { pthread_rwlock_wrlock(&lock_->native); }
    ~write_guard() RELEASE()
    {
        if (held_)
            pthread_rwlock_unlock(&lock_->native);
    }
    write_guard(const write_guard&) = delete;
    write_guard& operator=(const write_guard&) = delete;

    void unlock() RELEASE()
    {
        held_ = false;
        pthread_rwlock_unlock(&lock_->native);
    }

private:
    rwlock_t* lock_;
    bool held_ = true;
};
