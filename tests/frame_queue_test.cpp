// SPDX-License-Identifier: MIT
#include "internal/frame_queue.h"

#include <gtest/gtest.h>

#include <cstring>
#include <utility>
#include <vector>

#include "support/blocked_call.h"
#include "support/callers.h"
#include "support/log_capture.h"

/// Requests of exactly this size fail while some are left.
static constexpr int32_t kScarceSize = 12347;
static std::atomic<int> g_failures_left{0};

extern "C" void* __real_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size)
{
    if (size == static_cast<size_t>(kScarceSize) && g_failures_left > 0) {
        --g_failures_left;
        return nullptr;
    }
    return __real_malloc(size);
}

namespace
{

/// A queue for the length of a test.
class Queue
{
public:
    explicit Queue(int32_t frames) : id(frame_queue_init(frames, "TEST")) { EXPECT_GE(id, 0); }
    ~Queue() { EXPECT_EQ(frame_queue_deinit(id), 0); }
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    frame_info_t* acquire(int32_t size = 16) const { return frame_queue_pool_acquire(id, size); }
    /// One more done frame, marked with @p serial.
    frame_info_t* produce(int32_t serial) const
    {
        frame_info_t* frame = acquire();
        if (frame == nullptr)
            return nullptr;
        frame->frame.serial = serial;
        frame->frame.pts = serial * 1000;
        EXPECT_EQ(frame_queue_done_enqueue(id, frame), 0);
        return frame;
    }
    /// The serial of the oldest done frame, which is put back; -1 when there is none.
    int32_t consume(int32_t timeout_ms = 0) const
    {
        frame_info_t* frame = frame_queue_done_dequeue(id, timeout_ms);
        if (frame == nullptr)
            return -1;
        const int32_t serial = frame->frame.serial;
        EXPECT_EQ(put(frame), 0);
        return serial;
    }
    int32_t put(frame_info_t* frame) const { return frame_queue_put(id, &frame->frame); }
    int32_t done() const { return frame_queue_get_done_counts(id); }
    /// What a consume without limit returns that @p end ends.
    template <typename End> int32_t consume_until(End end) const
    {
        BlockedCall<int32_t> call([this] { return consume(-1); });
        EXPECT_TRUE(call.asleep());
        end();
        return call.result();
    }

    const int32_t id;
};

class FrameQueue : public testing::Test
{
protected:
    LogLevel quiet_{"0"};
};

} // namespace

TEST_F(FrameQueue, FramesArriveInOrderWithTheirContentAndThePoolKeepsNoneOfIt)
{
    constexpr int32_t kFrames = 20000;
    Queue queue(3);
    std::thread producer([&] {
        for (int32_t i = 1; i <= kFrames; ++i) {
            frame_info_t* record = queue.acquire(64);
            if (record == nullptr)
                return;
            hdmi_player_audio_frame_t& frame = record->frame;
            EXPECT_TRUE(frame.size == 0 && frame.sample_rate == 0 && frame.channels == 0 && frame.pts == 0);
            memset(frame.data, i % 256, 64);
            frame.pts = frame.size = frame.sample_rate = frame.channels = i;
            EXPECT_EQ(frame_queue_done_enqueue(queue.id, record), 0);
        }
    });
    for (int32_t i = 1; i <= kFrames && !HasFailure(); ++i) {
        frame_info_t* record = frame_queue_done_dequeue(queue.id, 10000);
        EXPECT_NE(record, nullptr) << i;
        if (record == nullptr)
            break;
        const hdmi_player_audio_frame_t& frame = record->frame;
        EXPECT_TRUE(frame.size == i && frame.channels == i && frame.pts == i && frame.data[63] == i % 256);
        queue.put(record);
    }
    frame_queue_abort(queue.id);
    producer.join();
    EXPECT_EQ(queue.done(), 0);
}

TEST_F(FrameQueue, APoolReusesFirstThenGrowsThenEnlarges)
{
    Queue queue(2);
    frame_info_t* small = queue.acquire(2048);
    uint8_t* buffer = small->frame.data;
    queue.put(small);
    EXPECT_EQ(queue.acquire(1000), small);
    EXPECT_TRUE(small->frame.data == buffer && small->frame.buf_size == 2048);
    queue.put(small);
    EXPECT_EQ(queue.acquire(INT32_MIN), small) << "anything fits a request for nothing";
    frame_info_t* second = queue.acquire(4096);
    queue.put(small);
    EXPECT_NE(second, small);
    EXPECT_TRUE(queue.acquire(4096) == small && small->frame.buf_size == 4096) << "the pool is full";
    memset(small->frame.data, 1, 4096);
}

TEST_F(FrameQueue, CapacityIsAtMost128AndMayBeNothing)
{
    for (const auto& [asked, expected] : {std::pair(500, 128), std::pair(0, 0), std::pair(-3, 0)}) {
        Queue queue(asked);
        for (int32_t i = 0; i < expected; ++i)
            ASSERT_NE(queue.acquire(0), nullptr) << i;
        BlockedCall<frame_info_t*> more([&] { return queue.acquire(); });
        EXPECT_TRUE(more.asleep());
        frame_queue_abort(queue.id);
        EXPECT_EQ(more.result(), nullptr);
    }
}

TEST_F(FrameQueue, ABlockedAcquireEndsWithAPutAWakeUpOrAnAbort)
{
    Queue queue(1);
    frame_info_t* only = queue.acquire();
    const auto ended_by = [&](auto end) {
        return logged("2", [&] {
            BlockedCall<frame_info_t*> call([&] { return queue.acquire(64); });
            EXPECT_TRUE(call.asleep());
            end();
            frame_info_t* frame = call.result();
            EXPECT_TRUE(frame == nullptr || (frame == only && frame->frame.buf_size == 64));
        });
    };
    EXPECT_EQ(ended_by([&] { queue.put(only); }), "");
    std::string text = ended_by([&] { frame_queue_pool_wakeup(queue.id); });
    expect_once(text, {" W [frame_queue_pool_acquire ", "] [TEST] frame_queue forced wake up\n"});
    // A wake-up for nobody ends the next wait, and only that one.
    frame_queue_pool_wakeup(queue.id);
    text = logged("1", [&] { EXPECT_EQ(queue.acquire(), nullptr); });
    EXPECT_EQ(occurrences(text, "] [TEST]free_frames non zero, but the free frame cannot be found.\n"), 1) << text;
    text = ended_by([&] { frame_queue_abort(queue.id); });
    expect_once(text, {"] [TEST] frame_queue abort\n"});
    EXPECT_EQ(logged("2", [&] { EXPECT_EQ(queue.acquire(), nullptr); }), "");
}

TEST_F(FrameQueue, DequeuePollsWaitsOrWaitsForEver)
{
    Queue queue(2);
    std::string text = logged("4", [&] { EXPECT_EQ(queue.consume(0), -1); });
    EXPECT_EQ(occurrences(text, "] [TEST] done_frames_count:0\n"), 1) << text;
    const auto begin = std::chrono::steady_clock::now();
    text = logged("4", [&] { EXPECT_EQ(queue.consume(100), -1); });
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(95));
    EXPECT_EQ(occurrences(text, "] [TEST] wait timeout, err(110): Connection timed out\n"), 1) << text;
    EXPECT_EQ(queue.consume_until([&] { queue.produce(5); }), 5);
    EXPECT_EQ(queue.consume_until([&] { frame_queue_done_wakeup(queue.id); }), -1);
    frame_queue_done_wakeup(queue.id);
    EXPECT_EQ(queue.consume(-1), -1) << "a wake-up for nobody ends the next wait";
    EXPECT_EQ(queue.consume_until([&] { queue.produce(6); }), 6) << "and only that one";
    // Aborted, it still takes frames and gives none.
    frame_info_t* frame = queue.acquire();
    text = logged("3", [&] {
        EXPECT_EQ(queue.consume_until([&] { frame_queue_abort(queue.id); }), -1);
        EXPECT_EQ(frame_queue_done_enqueue(queue.id, frame), 0);
        EXPECT_EQ(queue.consume(-1), -1);
    });
    EXPECT_EQ(occurrences(text, " I [frame_queue_done_dequeue "), 1) << "for the wait" << text;
    EXPECT_EQ(occurrences(text, " W [frame_queue_done_dequeue "), 1) << "for the call after it" << text;
    EXPECT_EQ(queue.done(), 1);
}

TEST_F(FrameQueue, OnlyItsOwnFramesAreTakenAndOnlyInTheRightState)
{
    Queue queue(4), other(4);
    hdmi_player_audio_frame_t local = {};
    frame_info_t* frame = queue.produce(1);
    frame_info_t* foreign = other.acquire();
    frame_info_t* idle = queue.acquire();
    queue.put(idle);
    const std::string text = logged("5", [&] {
        // Among them one not in use yet, one before the pool and one inside of a record.
        for (auto* wrong : {static_cast<hdmi_player_audio_frame_t*>(nullptr), &local, &foreign->frame,
                            &(idle + 1)->frame, &(frame - 1)->frame, &frame->frame + 1})
            EXPECT_EQ(frame_queue_put(queue.id, wrong), -1);
        for (frame_info_t* wrong : {static_cast<frame_info_t*>(nullptr), frame, idle, foreign})
            EXPECT_EQ(frame_queue_done_enqueue(queue.id, wrong), -1);
    });
    EXPECT_EQ(occurrences(text, "[frame_queue_put "), 0) << "puts fail silently" << text;
    EXPECT_EQ(occurrences(text, " is null.\n"), 1) << text;
    EXPECT_EQ(occurrences(text, "[TEST] frame state "), 3) << text;
    EXPECT_EQ(queue.consume(), 1);
    EXPECT_EQ(frame_queue_done_enqueue(other.id, foreign), 0) << "still acquired";
}

TEST_F(FrameQueue, AFramePutBackWhileDoneOrTwiceIsFreeOnce)
{
    Queue queue(2);
    frame_info_t* first = queue.produce(1);
    queue.produce(2);
    const std::string text = logged("2", [&] { EXPECT_EQ(queue.put(first), 0); });
    expect_once(text, {" W [frame_queue_put ", "] [TEST][state error] frames pool:2 free:0 done:2, data:0x"});
    EXPECT_EQ(queue.put(first), 0);
    EXPECT_EQ(queue.produce(3), first) << "handed out again, and linked once";
    BlockedCall<frame_info_t*> third([&] { return queue.acquire(); });
    EXPECT_TRUE(third.asleep()) << "counted twice";
    EXPECT_EQ(queue.consume(), 2);
    EXPECT_NE(third.result(), nullptr);
    EXPECT_TRUE(queue.consume() == 3 && queue.consume() == -1);
}

TEST_F(FrameQueue, AFlushDiscardsWhatIsDoneWithoutWakingTheProducer)
{
    Queue queue(2);
    queue.produce(1);
    queue.produce(2);
    BlockedCall<frame_info_t*> producer([&] { return queue.acquire(); });
    EXPECT_TRUE(producer.asleep());
    EXPECT_EQ(frame_queue_done_release(queue.id), 0);
    EXPECT_EQ(queue.done(), 0);
    EXPECT_NE(queue.acquire(), nullptr);
    EXPECT_FALSE(producer.returned());
    // A release of the pool wakes it: there is room for new frames.
    EXPECT_EQ(frame_queue_pool_release(queue.id), 0);
    EXPECT_NE(producer.result(), nullptr);
    EXPECT_NE(queue.acquire(32), nullptr);
}

TEST_F(FrameQueue, WhileMemoryIsShortAcquireKeepsTryingAndOnlyAnAbortEndsIt)
{
    Queue queue(1);
    // What acquire returns after @p end, called while memory is short, and what it logs besides the failures.
    const auto ended_by = [&](auto end) {
        g_failures_left = 1000000;
        frame_info_t* frame = nullptr;
        const std::string text = logged("2", [&] {
            BlockedCall<frame_info_t*> call([&] { return queue.acquire(kScarceSize); });
            EXPECT_TRUE(eventually([] { return g_failures_left < 1000000; }));
            end();
            frame = call.result();
        });
        EXPECT_TRUE(g_failures_left == 0 || g_failures_left > 990000) << "the retry does not spin";
        EXPECT_EQ(occurrences(text, "[frame_queue_"), occurrences(text, "] [TEST] frame buf alloc failed\n")) << text;
        g_failures_left = 0;
        return frame;
    };
    // For a new record, and for a free one that is too small.
    for (bool grown : {true, false}) {
        if (!grown)
            queue.put(queue.acquire(64));
        frame_info_t* frame = ended_by([&] { // by memory, after a wake-up
            frame_queue_pool_wakeup(queue.id);
            EXPECT_TRUE(eventually([left = g_failures_left.load()] { return g_failures_left < left - 2; }));
            g_failures_left = 0;
        });
        ASSERT_TRUE(frame != nullptr && frame->frame.buf_size == kScarceSize);
        BlockedCall<frame_info_t*> next([&] { return queue.acquire(16); });
        EXPECT_TRUE(next.asleep()) << "the wake-up is spent";
        frame_queue_pool_release(queue.id);
        ASSERT_NE(next.result(), nullptr);
        frame_queue_pool_release(queue.id);
    }
    // A failed enlargement takes the buffer and keeps its size, which would fit.
    frame_info_t* frame = queue.acquire(64);
    queue.put(frame);
    const auto use_it_meanwhile = [&] {
        EXPECT_EQ(queue.acquire(16), frame);
        memset(frame->frame.data, 1, 16);
        g_failures_left = 0;
        queue.put(frame);
    };
    EXPECT_NE(ended_by(use_it_meanwhile), nullptr);
    frame_queue_pool_release(queue.id);
    EXPECT_EQ(ended_by([&] { frame_queue_abort(queue.id); }), nullptr);
}

TEST_F(FrameQueue, WaitingForANumberOfFramesEndsWithThem)
{
    Queue queue(4);
    BlockedCall<int32_t> many([&] { return frame_queue_wait_done_frame(queue.id, 2); });
    EXPECT_TRUE(many.asleep());
    // The signal must reach the consumer beside the one who cannot use it.
    EXPECT_EQ(queue.consume_until([&] { queue.produce(1); }), 1);
    EXPECT_EQ(queue.consume_until([&] { frame_queue_done_wakeup(queue.id); }), -1);
    queue.produce(2);
    EXPECT_TRUE(many.asleep());
    queue.produce(3);
    EXPECT_EQ(many.result(), 0);
    frame_queue_abort(queue.id);
    const std::string text = logged("2", [&] { EXPECT_EQ(frame_queue_wait_done_frame(queue.id, 3), 0); });
    EXPECT_EQ(occurrences(text, "] [TEST] frame_queue abort\n"), 1) << "aborted before the wait";
}

TEST_F(FrameQueue, SixteenQueuesExistAndIdsOfDestroyedOnesAreRefused)
{
    for (uint32_t i = 0; i < FRAME_QUEUE_MAX; ++i)
        EXPECT_EQ(frame_queue_init(1, "MANY"), static_cast<int32_t>(i));
    std::string text = logged("1", [] { EXPECT_EQ(frame_queue_init(1, "LATE"), -1); });
    EXPECT_EQ(occurrences(text, "] [LATE] resource_manager_create failed\n"), 1) << text;
    EXPECT_EQ(frame_queue_deinit(3), 0);
    for (int32_t id : {3, 16, -1}) {
        text = logged("1", [id] {
            EXPECT_EQ(frame_queue_pool_acquire(id, 8), nullptr);
            EXPECT_EQ(frame_queue_done_dequeue(id, -1), nullptr);
            for (int32_t result : {frame_queue_done_enqueue(id, nullptr), frame_queue_put(id, nullptr),
                                   frame_queue_done_release(id), frame_queue_pool_release(id), frame_queue_deinit(id),
                                   frame_queue_wait_done_frame(id, 1), frame_queue_get_done_counts(id)})
                EXPECT_EQ(result, -1);
            frame_queue_abort(id);
            frame_queue_done_wakeup(id);
            frame_queue_pool_wakeup(id);
        });
        EXPECT_EQ(occurrences(text, id == 3 ? "] frame_queue_t is null.\n" : "] resource_manager_get id:"), 12) << text;
    }
    EXPECT_EQ(frame_queue_init(1, "AGAIN"), 3) << "lowest free slot first";
    for (uint32_t i = 0; i < FRAME_QUEUE_MAX; ++i)
        EXPECT_EQ(frame_queue_deinit(static_cast<int32_t>(i)), 0);
}

TEST_F(FrameQueue, DeinitEndsTheCallsThatWait)
{
    const int32_t id = frame_queue_init(1, "TEST");
    ASSERT_NE(frame_queue_pool_acquire(id, 8), nullptr);
    BlockedCall<frame_info_t*> acquire([id] { return frame_queue_pool_acquire(id, 8); });
    BlockedCall<frame_info_t*> dequeue([id] { return frame_queue_done_dequeue(id, -1); });
    BlockedCall<int32_t> count([id] { return frame_queue_wait_done_frame(id, 1); });
    EXPECT_TRUE(acquire.asleep() && dequeue.asleep() && count.asleep());
    EXPECT_EQ(BlockedCall<int32_t>([id] { return frame_queue_deinit(id); }).result(), 0);
    EXPECT_TRUE(acquire.result() == nullptr && dequeue.result() == nullptr && count.result() == 0);
}

TEST_F(FrameQueue, CallersInALoopDoNotHoldUpDeinit)
{
    const int32_t id = frame_queue_init(4, "TEST");
    Callers callers;
    callers.run([id](int) { frame_queue_done_dequeue(id, 1); }, 32);
    EXPECT_TRUE(eventually([&] { return callers.calls() > 100; }));
    EXPECT_EQ(BlockedCall<int32_t>([id] { return frame_queue_deinit(id); }).result(), 0);
}

TEST_F(FrameQueue, StaleIdsOfOtherThreadsDoNoHarm)
{
    Callers strangers;
    strangers.run(
        [](int n) {
            if (frame_info_t* frame = frame_queue_done_dequeue(n % 2, 0))
                frame_queue_put(n % 2, &frame->frame);
            frame_queue_done_release(n % 2);
        },
        3);
    Callers owners;
    owners.run(
        [](int) {
            const int32_t id = frame_queue_init(4, "SHORT");
            EXPECT_GE(id, 0);
            frame_queue_done_enqueue(id, frame_queue_pool_acquire(id, 32));
            EXPECT_EQ(frame_queue_deinit(id), 0);
        },
        2);
    EXPECT_TRUE(eventually([&] { return owners.calls() > 40000; }, std::chrono::minutes(2)));
}

TEST_F(FrameQueue, TracesCallsAndStatesOnRequest)
{
    setenv("debug_hdmiplayer_log_fq_api", "1", 1);
    setenv("debug_hdmiplayer_log_fq_state", "1", 1);
    const std::string text = logged("4", [] {
        Queue queue(2);
        queue.produce(7);
        queue.consume();
    });
    unsetenv("debug_hdmiplayer_log_fq_api");
    unsetenv("debug_hdmiplayer_log_fq_state");
    for (const char* call : {"init", "pool_acquire", "done_enqueue", "done_dequeue", "put", "deinit"})
        EXPECT_EQ(occurrences(text, std::string(" D [frame_queue_") + call + " "), 2) << call << '\n' << text;
    EXPECT_EQ(occurrences(text, " size:16 pts:7000 channels:0 sample_rate:0 state:2.\n"), 1) << text;
    EXPECT_EQ(occurrences(text, "] TEST [TEST] frames pool:1 "), 4) << text;
}
