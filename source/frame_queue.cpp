// SPDX-License-Identifier: MIT
#include "internal/frame_queue.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <type_traits>

#include "internal/common.h"

resource_manager_t g_fq_resource_map[FRAME_QUEUE_MAX] = {
    {0, {nullptr}},  {1, {nullptr}},  {2, {nullptr}},  {3, {nullptr}},  {4, {nullptr}},  {5, {nullptr}},
    {6, {nullptr}},  {7, {nullptr}},  {8, {nullptr}},  {9, {nullptr}},  {10, {nullptr}}, {11, {nullptr}},
    {12, {nullptr}}, {13, {nullptr}}, {14, {nullptr}}, {15, {nullptr}},
};

namespace
{

/// Pause between two attempts to allocate a buffer while memory is short.
constexpr uint64_t kAllocRetryUs = 10000;

/// Serialises the registry, whose functions take no lock. May be taken while a queue's mutex is held.
mutex_t g_registry_mutex;

// Never destroyed: calls with the id of a queue that is gone find it closed.
static_assert(std::is_trivially_destructible_v<frame_queue_t>, "a call may come at any time");
frame_queue_t g_queues[FRAME_QUEUE_MAX];
frame_queue_t g_no_queue; ///< for ids without a queue that is open; never open itself

/// Whether calls may use @p q. Otherwise the failure was logged in the name of the caller.
inline bool is_open(const frame_queue_t& q, const char* function = __builtin_FUNCTION())
{
    if (q.open)
        return true;
    if (&q != &g_no_queue)
        log_as(function, LOG_LEVEL_E, "frame_queue_t is null.\n");
    return false;
}

/// The queue with this id. Without one, or if it is closed, g_no_queue, with the failure logged: calls that are refused
/// do not touch the mutex of a queue whose deinit waits for it.
inline frame_queue_t& queue_of(int32_t id, const char* function = __builtin_FUNCTION())
{
    if (0 <= id && id < static_cast<int32_t>(FRAME_QUEUE_MAX)) // as the registry would find it: slot i has id i
        return is_open(g_queues[id], function) ? g_queues[id] : g_no_queue;
    resource_manager_get(g_fq_resource_map, FRAME_QUEUE_MAX, id);
    log_as(function, LOG_LEVEL_E, "resource_manager_get id:%d failed\n", id);
    return g_no_queue;
}

/// Traces a call at its begin and end, both with the mutex held: the name is the caller's, who may free it once the
/// queue is gone.
class api_trace
{
public:
    explicit api_trace(const frame_queue_t& q, const char* function = __builtin_FUNCTION()) REQUIRES(q.mutex)
        : enabled_(q.en_api_log), name_(q.name), function_(function)
    {
        print();
    }
    ~api_trace() { print(); }
    api_trace(const api_trace&) = delete;
    api_trace& operator=(const api_trace&) = delete;

private:
    void print() const
    {
        if (enabled_)
            log_as(function_, LOG_LEVEL_D, "%s >>>\n", name_);
    }

    bool enabled_;
    const char* name_;
    const char* function_;
};

void log_state(const frame_queue_t& q, const frame_info_t& record, const char* function) REQUIRES(q.mutex)
{
    if (!q.en_state_log)
        return;
    const hdmi_player_audio_frame_t& f = record.frame;
    log_as(function, LOG_LEVEL_I,
           "%s [%s] frames pool:%d free:%d done:%d, data:%p size:%d pts:%lli channels:%d sample_rate:%d state:%d.\n",
           q.name, q.name, q.pool_frames_count, q.free_frames_count, q.done_frames_count.load(),
           static_cast<void*>(f.data), f.buf_size, lli(f.pts), f.channels, f.sample_rate, record.state);
}

void log_state_error(const frame_queue_t& q, const frame_info_t& record, const char* function) REQUIRES(q.mutex)
{
    const hdmi_player_audio_frame_t& f = record.frame;
    log_as(function, LOG_LEVEL_W,
           "[%s][state error] frames pool:%d free:%d done:%d, data:%p size:%d pts:%lli channels:%d sample_rate:%d "
           "state:%d.\n",
           q.name, q.pool_frames_count, q.free_frames_count, q.done_frames_count.load(), static_cast<void*>(f.data),
           f.buf_size, lli(f.pts), f.channels, f.sample_rate, record.state);
}

/// Counts a change of the done list. All writers hold the mutex: the counter needs no atomic addition.
void add_done(frame_queue_t& q, int32_t change) REQUIRES(q.mutex)
{
    q.done_frames_count.store(q.done_frames_count.load(std::memory_order_relaxed) + change, std::memory_order_release);
}

/// Takes a record off the done list.
void unlink_done(frame_queue_t& q, frame_info_t& record) REQUIRES(q.mutex)
{
    list_del(&record.node);
    if (q.done_frames_count > 0)
        add_done(q, -1);
}

/// Makes a record available to acquire; its buffer and serial stay. One that is free already is not counted again.
void make_free(frame_queue_t& q, frame_info_t& record) REQUIRES(q.mutex)
{
    if (record.state != E_FRAME_NODE_STATE_FREE)
        ++q.free_frames_count;
    record.state = E_FRAME_NODE_STATE_FREE;
    q.none_free_below = std::min(q.none_free_below, static_cast<int32_t>(&record - q.arry_pool_frames));
    record.frame.size = 0;
    record.frame.sample_rate = 0;
    record.frame.channels = 0;
    record.frame.pts = 0;
}

frame_info_t* make_acquired(frame_queue_t& q, frame_info_t& record) REQUIRES(q.mutex)
{
    if (q.free_frames_count > 0)
        --q.free_frames_count;
    if (&record == &q.arry_pool_frames[q.none_free_below])
        ++q.none_free_below;
    record.state = E_FRAME_NODE_STATE_ACQUIRED;
    return &record;
}

/// Wakes one waiter for done frames, if there is any. While a call waits for a number of frames it wakes all of them,
/// since the signal could reach that call and leave a consumer asleep. Releases the mutex first: who is woken needs it.
void unlock_and_signal_done(frame_queue_t& q, mutex_guard& lock) NO_THREAD_SAFETY_ANALYSIS
{
    const bool all = q.count_waiters > 0;
    const bool any = q.done_waiters > 0;
    lock.unlock();
    if (all)
        pthread_cond_broadcast(&q.cond);
    else if (any)
        pthread_cond_signal(&q.cond);
}

/// As above, for one of those who wait for a frame of the pool.
void unlock_and_signal_pool(frame_queue_t& q, mutex_guard& lock) NO_THREAD_SAFETY_ANALYSIS
{
    const bool any = q.pool_waiters > 0;
    lock.unlock();
    if (any)
        pthread_cond_signal(&q.cond_acquire);
}

/// Waits on @p cond, counted among @p waiters, until @p deadline if there is one. As mutex_guard::wait_until().
int await(frame_queue_t& q, mutex_guard& lock, pthread_cond_t& cond, int32_t& waiters,
          const struct timespec* deadline = nullptr) REQUIRES(q.mutex)
{
    ++waiters;
    const int err = deadline != nullptr ? lock.wait_until(cond, *deadline) : lock.wait(cond);
    --waiters;
    if (!q.open)
        pthread_cond_signal(&q.cond_left);
    return err;
}

uint8_t* allocate(int32_t size)
{
    // malloc(0) may be null, which reads as a failure.
    return static_cast<uint8_t*>(malloc(static_cast<size_t>(std::max(size, 1))));
}

/// The first free record that holds @p size bytes. One that lost its buffer to
/// a failed enlargement still carries its old size: it fits nothing.
frame_info_t* first_fit(frame_queue_t& q, int32_t size) REQUIRES(q.mutex)
{
    if (q.free_frames_count <= 0)
        return nullptr;
    while (q.none_free_below < q.pool_frames_count &&
           q.arry_pool_frames[q.none_free_below].state != E_FRAME_NODE_STATE_FREE)
        ++q.none_free_below;
    for (int32_t i = q.none_free_below; i < q.pool_frames_count; ++i) {
        frame_info_t& record = q.arry_pool_frames[i];
        if (record.state == E_FRAME_NODE_STATE_FREE && record.frame.data != nullptr && record.frame.buf_size >= size)
            return make_acquired(q, record);
    }
    return nullptr;
}

/// Brings the next unused record into use; null when memory is short.
frame_info_t* grow(frame_queue_t& q, int32_t size, const char* function) REQUIRES(q.mutex)
{
    frame_info_t& record = q.arry_pool_frames[q.pool_frames_count];
    record = frame_info_t{};
    record.frame.data = allocate(size);
    if (record.frame.data == nullptr) {
        log_as(function, LOG_LEVEL_E, "[%s] frame buf alloc failed\n", q.name);
        return nullptr;
    }
    record.frame.buf_size = size;
    record.state = E_FRAME_NODE_STATE_ACQUIRED;
    ++q.pool_frames_count;
    if (q.en_state_log) {
        log_as(function, LOG_LEVEL_I, "%s [%s] frames pool:%d free:%d done:%d, data:%p size:%d state:%d.\n", q.name,
               q.name, q.pool_frames_count, q.free_frames_count, q.done_frames_count.load(),
               static_cast<void*>(record.frame.data), record.frame.buf_size, record.state);
    }
    return &record;
}

frame_info_t* first_free(frame_queue_t& q) REQUIRES(q.mutex)
{
    for (int32_t i = 0; i < q.pool_frames_count; ++i) {
        if (q.arry_pool_frames[i].state == E_FRAME_NODE_STATE_FREE)
            return &q.arry_pool_frames[i];
    }
    return nullptr;
}

/// Replaces the buffer of a free record by one of @p size bytes; null when memory is short.
frame_info_t* enlarge(frame_queue_t& q, frame_info_t& record, int32_t size, const char* function) REQUIRES(q.mutex)
{
    free(record.frame.data);
    record.frame.data = allocate(size);
    if (record.frame.data == nullptr) {
        log_as(function, LOG_LEVEL_E, "[%s] frame buf alloc failed\n", q.name);
        return nullptr;
    }
    record.frame.buf_size = size;
    return make_acquired(q, record);
}

/// Whether acquire is to give up: the queue is aborted, or it is asked to stop waiting.
bool acquire_ended(const frame_queue_t& q, const char* function) REQUIRES(q.mutex)
{
    if (q.abort)
        log_as(function, LOG_LEVEL_W, "[%s] frame_queue abort\n", q.name);
    else if (q.pool_wakeup)
        log_as(function, LOG_LEVEL_W, "[%s] frame_queue forced wake up\n", q.name);
    return q.abort || q.pool_wakeup;
}

frame_info_t* acquire(frame_queue_t& q, mutex_guard& lock, int32_t size, const char* function) REQUIRES(q.mutex)
{
    while (!q.abort) {
        frame_info_t* record = first_fit(q, size);
        if (record != nullptr)
            return record;
        if (q.pool_frames_count < q.pool_frames_max) {
            record = grow(q, size, function);
        } else if (q.free_frames_count <= 0 && !q.pool_wakeup) {
            await(q, lock, q.cond_acquire, q.pool_waiters);
            if (acquire_ended(q, function))
                return nullptr;
            continue;
        } else {
            frame_info_t* free_record = first_free(q);
            if (free_record == nullptr) {
                log_as(function, LOG_LEVEL_E, "[%s]free_frames non zero, but the free frame cannot be found.\n",
                       q.name);
                return nullptr;
            }
            record = enlarge(q, *free_record, size, function);
        }
        if (record != nullptr)
            return record;
        // Memory is short: try again until an abort. A pause on cond_acquire would take the signals of those who
        // wait for a frame.
        const struct timespec retry = get_monotonic_timeout_us(kAllocRetryUs);
        await(q, lock, q.cond_memory, q.memory_waiters, &retry);
    }
    return nullptr;
}

/// Waits until a frame is done, a wake-up is asked for or the time is over; false on abort.
bool wait_done(frame_queue_t& q, mutex_guard& lock, int32_t timeout_ms, const char* function) REQUIRES(q.mutex)
{
    // Without a limit: all ones, 49.7 days.
    const uint32_t wait_ms = timeout_ms > 0 ? static_cast<uint32_t>(timeout_ms) : UINT32_MAX;
    while (q.done_frames_count <= 0 && !q.done_wakeup) {
        if (timeout_ms == 0) {
            log_as(function, LOG_LEVEL_D, "[%s] done_frames_count:%d\n", q.name, q.done_frames_count.load());
            return true;
        }
        const struct timespec deadline = get_monotonic_timeout_us(uint64_t{wait_ms} * 1000);
        const int err = await(q, lock, q.cond, q.done_waiters, &deadline);
        if (err == ETIMEDOUT)
            log_as(function, LOG_LEVEL_D, "[%s] wait timeout, err(%d): %s\n", q.name, err, strerror(err));
        else if (err != 0)
            log_as(function, LOG_LEVEL_E, "[%s] wait err(%d): %s\n", q.name, err, strerror(err));
        if (q.abort) {
            log_as(function, LOG_LEVEL_I, "[%s] frame_queue abort\n", q.name);
            return false;
        }
        if (err == ETIMEDOUT)
            return true;
    }
    return true;
}

frame_info_t* take_oldest(frame_queue_t& q, const char* function) REQUIRES(q.mutex)
{
    if (list_empty(&q.list_done_frames) && q.done_frames_count >= 1) {
        log_as(function, LOG_LEVEL_E, "[%s] list_done empty, but list size is %d.\n", q.name,
               q.done_frames_count.load());
    }
    while (!list_empty(&q.list_done_frames)) {
        frame_info_t* record = list_entry(q.list_done_frames.next, frame_info_t, node);
        unlink_done(q, *record);
        if (record->state == E_FRAME_NODE_STATE_QUEUED) {
            record->state = E_FRAME_NODE_STATE_DEQUEUED;
            log_state(q, *record, function);
            return record;
        }
        log_state_error(q, *record, function);
    }
    return nullptr;
}

/// The record in use whose member at @p member_offset lies at @p address; null for any other address.
frame_info_t* find_record(frame_queue_t& q, const void* address, size_t member_offset) REQUIRES(q.mutex)
{
    // Below the pool the distance wraps round to a huge one.
    const uintptr_t first = reinterpret_cast<uintptr_t>(q.arry_pool_frames) + member_offset;
    const uintptr_t distance = reinterpret_cast<uintptr_t>(address) - first;
    const uintptr_t index = distance / sizeof(frame_info_t);
    if (distance % sizeof(frame_info_t) != 0 || index >= static_cast<uintptr_t>(q.pool_frames_count))
        return nullptr;
    return &q.arry_pool_frames[index];
}

void abort_queue(frame_queue_t& q) REQUIRES(q.mutex)
{
    const api_trace trace(q, "frame_queue_abort");
    q.abort = true;
    pthread_cond_broadcast(&q.cond);
    pthread_cond_broadcast(&q.cond_acquire);
    pthread_cond_broadcast(&q.cond_memory);
}

int32_t release_done(frame_queue_t& q) REQUIRES(q.mutex)
{
    const char* function = "frame_queue_done_release";
    const api_trace trace(q, function);
    while (!list_empty(&q.list_done_frames)) {
        frame_info_t* record = list_entry(q.list_done_frames.next, frame_info_t, node);
        if (record->state != E_FRAME_NODE_STATE_QUEUED)
            log_state_error(q, *record, function);
        unlink_done(q, *record);
        make_free(q, *record);
    }
    return q.list_done_frames.prev == &q.list_done_frames ? 0 : -1;
}

void release_pool(frame_queue_t& q) REQUIRES(q.mutex)
{
    const char* function = "frame_queue_pool_release";
    const api_trace trace(q, function);
    release_done(q);
    for (int32_t i = 0; i < q.pool_frames_max; ++i) {
        frame_info_t& record = q.arry_pool_frames[i];
        if (record.state != E_FRAME_NODE_STATE_FREE)
            log_state_error(q, record, function);
        if (q.free_frames_count > 0)
            --q.free_frames_count;
        if (q.pool_frames_count > 0)
            --q.pool_frames_count;
        free(record.frame.data);
        record = frame_info_t{};
    }
    q.none_free_below = 0;
    // A producer that waits for a frame to come back can have a new one.
    pthread_cond_broadcast(&q.cond_acquire);
}

/// Opens a closed queue on the records of @p pool.
void set_up(frame_queue_t& q, frame_info_t* pool, int32_t max_frames, const char* name) REQUIRES(q.mutex)
{
    q.en_api_log = env_get_value("debug_hdmiplayer_log_fq_api", 0) != 0;
    q.en_state_log = env_get_value("debug_hdmiplayer_log_fq_state", 0) != 0;
    q.name = name;
    q.arry_pool_frames = pool;
    q.pool_frames_max = std::min(max_frames, FRAME_QUEUE_POOL_MAX);
    q.pool_frames_count = q.free_frames_count = q.done_frames_count = q.none_free_below = 0;
    q.abort = q.done_wakeup = q.pool_wakeup = false;
    list_init(&q.list_done_frames);
    q.open = true;
}

int32_t create_slot(const char* name)
{
    mutex_guard lock(g_registry_mutex);
    return resource_manager_create(name, g_fq_resource_map, FRAME_QUEUE_MAX,
                                   FRAME_QUEUE_POOL_MAX * sizeof(frame_info_t));
}

void destroy_slot(const char* name, int32_t id)
{
    mutex_guard lock(g_registry_mutex);
    resource_manager_destroy(name, g_fq_resource_map, FRAME_QUEUE_MAX, id);
}

} // namespace

int32_t frame_queue_init(int32_t max_frames, const char* name)
{
    const int32_t id = create_slot(name);
    if (id < 0) {
        log_e("[%s] resource_manager_create failed\n", name);
        return -1;
    }
    resource_manager_t* slot = resource_manager_get(g_fq_resource_map, FRAME_QUEUE_MAX, id);
    if (slot == nullptr) {
        log_e("[%s] resource_manager_get id:%d failed\n", name, id);
        return -1;
    }
    auto* const pool = static_cast<frame_info_t*>(slot->info.load());
    if (pool == nullptr) {
        log_e("[%s] frame_queue_t malloc failed.\n", name);
        return -1;
    }
    std::uninitialized_value_construct_n(pool, FRAME_QUEUE_POOL_MAX);
    frame_queue_t& q = g_queues[id];
    mutex_guard lock(q.mutex);
    set_up(q, pool, max_frames, name);
    const api_trace trace(q);
    return id;
}

int32_t frame_queue_deinit(int32_t id)
{
    frame_queue_t& q = queue_of(id);
    mutex_guard lock(q.mutex);
    if (!is_open(q))
        return -1;
    q.open = false; // calls are refused from now on, another deinit too
    const api_trace trace(q);
    // Calls in progress wait, for ever perhaps: the abort ends them.
    abort_queue(q);
    while (q.done_waiters + q.pool_waiters + q.memory_waiters > 0)
        lock.wait(q.cond_left);
    release_pool(q);
    q.arry_pool_frames = nullptr;
    destroy_slot(q.name, id);
    return 0;
}

frame_info_t* frame_queue_pool_acquire(int32_t id, int32_t frame_size)
{
    frame_queue_t& q = queue_of(id);
    mutex_guard lock(q.mutex);
    if (!is_open(q))
        return nullptr;
    const api_trace trace(q);
    frame_info_t* record = acquire(q, lock, std::max(frame_size, 0), __func__);
    q.pool_wakeup = false;
    return record;
}

int32_t frame_queue_done_enqueue(int32_t id, frame_info_t* frame)
{
    frame_queue_t& q = queue_of(id);
    mutex_guard lock(q.mutex);
    if (!is_open(q))
        return -1;
    {
        const api_trace trace(q);
        if (frame == nullptr) {
            log_e("frame:%p is null.\n", static_cast<void*>(frame));
            return -1;
        }
        // A pointer to anything but a record of this queue is not looked into.
        const bool known = find_record(q, frame, 0) != nullptr;
        const frame_node_state_e state = known ? frame->state : E_FRAME_NODE_STATE_MAX;
        if (state != E_FRAME_NODE_STATE_ACQUIRED) {
            log_e("[%s] frame state %d err.\n", q.name, state);
            return -1;
        }
        list_add_tail(&frame->node, &q.list_done_frames);
        frame->state = E_FRAME_NODE_STATE_QUEUED;
        add_done(q, 1);
        log_state(q, *frame, __func__);
    }
    unlock_and_signal_done(q, lock);
    return 0;
}

frame_info_t* frame_queue_done_dequeue(int32_t id, int32_t timeout_ms)
{
    frame_queue_t& q = queue_of(id);
    mutex_guard lock(q.mutex);
    if (!is_open(q))
        return nullptr;
    const api_trace trace(q);
    if (q.abort) {
        log_w("[%s] frame_queue abort\n", q.name);
        return nullptr;
    }
    if (!wait_done(q, lock, timeout_ms, __func__))
        return nullptr;
    q.done_wakeup = false;
    return take_oldest(q, __func__);
}

int32_t frame_queue_put(int32_t id, hdmi_player_audio_frame_t* frame)
{
    frame_queue_t& q = queue_of(id);
    mutex_guard lock(q.mutex);
    if (!is_open(q))
        return -1;
    {
        const api_trace trace(q);
        frame_info_t* record = find_record(q, frame, offsetof(frame_info_t, frame));
        if (record == nullptr)
            return -1;
        if (record->state == E_FRAME_NODE_STATE_QUEUED) {
            log_state_error(q, *record, __func__);
            // Still linked, it would be handed to a producer and to the consumer at once.
            unlink_done(q, *record);
        }
        make_free(q, *record);
        log_state(q, *record, __func__);
    }
    unlock_and_signal_pool(q, lock);
    return 0;
}

void frame_queue_abort(int32_t id)
{
    frame_queue_t& q = queue_of(id);
    mutex_guard lock(q.mutex);
    if (is_open(q))
        abort_queue(q);
}

int32_t frame_queue_done_release(int32_t id)
{
    frame_queue_t& q = queue_of(id);
    mutex_guard lock(q.mutex);
    if (!is_open(q))
        return -1;
    return release_done(q);
}

int32_t frame_queue_pool_release(int32_t id)
{
    frame_queue_t& q = queue_of(id);
    mutex_guard lock(q.mutex);
    if (!is_open(q))
        return -1;
    release_pool(q);
    return 0;
}

int32_t frame_queue_wait_done_frame(int32_t id, int32_t count)
{
    frame_queue_t& q = queue_of(id);
    mutex_guard lock(q.mutex);
    if (!is_open(q))
        return -1;
    ++q.count_waiters;
    while (q.done_frames_count < count) {
        if (!q.abort)
            await(q, lock, q.cond, q.done_waiters);
        if (q.abort) {
            log_w("[%s] frame_queue abort\n", q.name);
            break;
        }
    }
    --q.count_waiters;
    return 0;
}

int32_t frame_queue_get_done_counts(int32_t id)
{
    const frame_queue_t& q = queue_of(id);
    return is_open(q) ? q.done_frames_count.load() : -1;
}

void frame_queue_done_wakeup(int32_t id)
{
    frame_queue_t& q = queue_of(id);
    mutex_guard lock(q.mutex);
    if (!is_open(q))
        return;
    q.done_wakeup = true;
    unlock_and_signal_done(q, lock);
}

void frame_queue_pool_wakeup(int32_t id)
{
    frame_queue_t& q = queue_of(id);
    mutex_guard lock(q.mutex);
    if (!is_open(q))
        return;
    q.pool_wakeup = true;
    unlock_and_signal_pool(q, lock);
}
