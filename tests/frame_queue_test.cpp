// SPDX-License-Identifier: MIT
#include "internal/frame_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/blocked_call.h"
#include "support/log_capture.h"

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

/// Requests of exactly this size fail while some are left.
constexpr int32_t kScarceSize = 12347;
std::atomic<int> g_failures_left{0};

} // namespace

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

    const int32_t id;
};

class FrameQueue : public testing::Test
{
protected:
    void TearDown() override { g_failures_left = 0; }

    LogLevel quiet_{"0"};
};

} // namespace

TEST_F(FrameQueue, FramesArriveInOrderWithTheirContent)
{
    Queue queue(4);
    for (int32_t i = 1; i <= 3; ++i) {
        frame_info_t* frame = queue.acquire(64);
        ASSERT_NE(frame, nullptr);
        memset(frame->frame.data, i, 64);
        frame->frame.size = 10 * i;
        frame->frame.sample_rate = 48000;
        frame->frame.channels = 2;
        frame->frame.pts = 1000 * i;
        frame->frame.serial = i;
        ASSERT_EQ(frame_queue_done_enqueue(queue.id, frame), 0);
        EXPECT_EQ(queue.done(), i);
    }
    for (int32_t i = 1; i <= 3; ++i) {
        frame_info_t* frame = frame_queue_done_dequeue(queue.id, 0);
        ASSERT_NE(frame, nullptr);
        EXPECT_EQ(frame->frame.data[63], i);
        EXPECT_EQ(frame->frame.size, 10 * i);
        EXPECT_EQ(frame->frame.pts, 1000 * i);
        EXPECT_EQ(frame->frame.serial, i);
        ASSERT_EQ(queue.put(frame), 0);
        // The pool keeps buffer and serial, and nothing else of the block.
        EXPECT_EQ(frame->frame.size + frame->frame.sample_rate + frame->frame.channels, 0);
        EXPECT_EQ(frame->frame.pts, 0);
        EXPECT_EQ(frame->frame.serial, i);
        EXPECT_EQ(frame->frame.buf_size, 64);
    }
    EXPECT_EQ(queue.done(), 0);
}

TEST_F(FrameQueue, APoolReusesFirstThenGrowsThenEnlarges)
{
    Queue queue(2);
    frame_info_t* small = queue.acquire(2048);
    uint8_t* buffer = small->frame.data;
    queue.put(small);

    EXPECT_EQ(queue.acquire(1000), small);
    EXPECT_EQ(small->frame.data, buffer);
    EXPECT_EQ(small->frame.buf_size, 2048);
    queue.put(small);

    frame_info_t* second = queue.acquire(4096);
    EXPECT_NE(second, small) << "a new record comes before an enlarged one";
    frame_info_t* enlarged = queue.acquire(4096);
    EXPECT_EQ(enlarged, small);
    EXPECT_EQ(enlarged->frame.buf_size, 4096);
    memset(enlarged->frame.data, 1, 4096);
}

TEST_F(FrameQueue, RequestsForNothingStillGetABuffer)
{
    Queue queue(3);
    for (int32_t size : {0, -1, INT32_MIN}) {
        frame_info_t* frame = queue.acquire(size);
        ASSERT_NE(frame, nullptr) << size;
        EXPECT_NE(frame->frame.data, nullptr);
        EXPECT_EQ(frame->frame.buf_size, 0);
    }
}

TEST_F(FrameQueue, CapacityIsAtMost128AndMayBeNothing)
{
    for (const auto& [asked, expected] :
         {std::pair(500, 128), std::pair(128, 128), std::pair(0, 0), std::pair(-3, 0)}) {
        Queue queue(asked);
        for (int32_t i = 0; i < expected; ++i)
            ASSERT_NE(queue.acquire(), nullptr) << i;
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
    {
        BlockedCall<frame_info_t*> call([&] { return queue.acquire(64); });
        EXPECT_TRUE(call.asleep());
        queue.put(only);
        EXPECT_EQ(call.result(), only);
        EXPECT_EQ(only->frame.buf_size, 64);
    }
    std::string text = logged("2", [&] {
        BlockedCall<frame_info_t*> call([&] { return queue.acquire(); });
        EXPECT_TRUE(call.asleep());
        frame_queue_pool_wakeup(queue.id);
        EXPECT_EQ(call.result(), nullptr);
    });
    EXPECT_NE(text.find(" W [frame_queue_pool_acquire "), std::string::npos) << text;
    EXPECT_NE(text.find("] [TEST] frame_queue forced wake up\n"), std::string::npos) << text;

    text = logged("2", [&] {
        BlockedCall<frame_info_t*> call([&] { return queue.acquire(); });
        EXPECT_TRUE(call.asleep());
        frame_queue_abort(queue.id);
        EXPECT_EQ(call.result(), nullptr);
        EXPECT_EQ(queue.acquire(), nullptr);
    });
    EXPECT_EQ(occurrences(text, "] [TEST] frame_queue abort\n"), 1) << text;
}

TEST_F(FrameQueue, APoolWakeUpForNobodyEndsTheNextWaitOnly)
{
    Queue queue(2);
    frame_queue_pool_wakeup(queue.id);
    frame_info_t* first = queue.acquire();
    EXPECT_NE(first, nullptr) << "nothing to wait for";
    EXPECT_NE(queue.acquire(), nullptr);

    frame_queue_pool_wakeup(queue.id);
    const std::string text = logged("1", [&] { EXPECT_EQ(queue.acquire(), nullptr); });
    EXPECT_NE(text.find("] [TEST]free_frames non zero, but the free frame cannot be found.\n"), std::string::npos);

    BlockedCall<frame_info_t*> next([&] { return queue.acquire(); });
    EXPECT_TRUE(next.asleep());
    queue.put(first);
    EXPECT_EQ(next.result(), first);
}

TEST_F(FrameQueue, DequeuePollsWaitsOrWaitsForEver)
{
    Queue queue(2);
    std::string text = logged("4", [&] { EXPECT_EQ(queue.consume(0), -1); });
    EXPECT_NE(text.find(" D [frame_queue_done_dequeue "), std::string::npos) << text;
    EXPECT_NE(text.find("] [TEST] done_frames_count:0\n"), std::string::npos) << text;

    const steady_clock::time_point begin = steady_clock::now();
    text = logged("4", [&] { EXPECT_EQ(queue.consume(100), -1); });
    EXPECT_GE(steady_clock::now() - begin, milliseconds(95));
    EXPECT_NE(text.find("] [TEST] wait timeout, err(110): Connection timed out\n"), std::string::npos) << text;

    BlockedCall<int32_t> waiting([&] { return queue.consume(-1); });
    EXPECT_TRUE(waiting.asleep());
    queue.produce(5);
    EXPECT_EQ(waiting.result(), 5);

    BlockedCall<int32_t> woken([&] { return queue.consume(-1); });
    EXPECT_TRUE(woken.asleep());
    frame_queue_done_wakeup(queue.id);
    EXPECT_EQ(woken.result(), -1);

    frame_queue_done_wakeup(queue.id);
    EXPECT_EQ(queue.consume(-1), -1) << "a wake-up for nobody ends the next wait";
    text = logged("4", [&] { EXPECT_EQ(queue.consume(10), -1); });
    EXPECT_NE(text.find("wait timeout"), std::string::npos) << "and only that one";
    queue.produce(6);
    EXPECT_EQ(queue.consume(-1), 6);
}

TEST_F(FrameQueue, AnAbortedQueueRefusesConsumersButTakesFrames)
{
    Queue queue(2);
    frame_info_t* frame = queue.acquire();
    std::string text = logged("3", [&] {
        BlockedCall<int32_t> waiting([&] { return queue.consume(-1); });
        EXPECT_TRUE(waiting.asleep());
        frame_queue_abort(queue.id);
        EXPECT_EQ(waiting.result(), -1);
    });
    EXPECT_NE(text.find(" I [frame_queue_done_dequeue "), std::string::npos) << text;

    EXPECT_EQ(frame_queue_done_enqueue(queue.id, frame), 0);
    EXPECT_EQ(queue.done(), 1);
    text = logged("3", [&] { EXPECT_EQ(queue.consume(-1), -1); });
    EXPECT_NE(text.find(" W [frame_queue_done_dequeue "), std::string::npos) << text;
}

TEST_F(FrameQueue, EnqueueTakesOnlyItsOwnAcquiredFrames)
{
    Queue queue(4);
    Queue other(4);
    frame_info_t* frame = queue.produce(1);
    frame_info_t* foreign = other.acquire();
    frame_info_t* idle = queue.acquire();
    queue.put(idle);
    const std::string text = logged("1", [&] {
        EXPECT_EQ(frame_queue_done_enqueue(queue.id, nullptr), -1);
        EXPECT_EQ(frame_queue_done_enqueue(queue.id, frame), -1);
        EXPECT_EQ(frame_queue_done_enqueue(queue.id, idle), -1);
        EXPECT_EQ(frame_queue_done_enqueue(queue.id, foreign), -1);
    });
    EXPECT_EQ(occurrences(text, " is null.\n"), 1) << text;
    EXPECT_EQ(occurrences(text, "] [TEST] frame state 2 err.\n"), 1) << text;
    EXPECT_EQ(occurrences(text, "] [TEST] frame state 0 err.\n"), 1) << text;
    EXPECT_EQ(occurrences(text, "] [TEST] frame state 4 err.\n"), 1) << text;
    EXPECT_EQ(queue.done(), 1);
    EXPECT_EQ(queue.consume(), 1);
    EXPECT_EQ(frame_queue_done_enqueue(other.id, foreign), 0);
}

TEST_F(FrameQueue, PutTakesOnlyFramesOfRecordsInUse)
{
    Queue queue(4);
    Queue other(4);
    hdmi_player_audio_frame_t local = {};
    frame_info_t* foreign = other.acquire();
    EXPECT_EQ(frame_queue_put(queue.id, &local), -1) << "the pool is empty";
    frame_info_t* frame = queue.acquire();
    const std::string text = logged("5", [&] {
        EXPECT_EQ(frame_queue_put(queue.id, nullptr), -1);
        EXPECT_EQ(frame_queue_put(queue.id, &local), -1);
        EXPECT_EQ(queue.put(foreign), -1);
        EXPECT_EQ(queue.put(frame + 1), -1) << "not in use yet";
        EXPECT_EQ(queue.put(frame - 1), -1);
        EXPECT_EQ(frame_queue_put(queue.id, reinterpret_cast<hdmi_player_audio_frame_t*>(frame)), -1);
    });
    EXPECT_EQ(text, "");
    EXPECT_EQ(frame_queue_done_enqueue(other.id, foreign), 0) << "still acquired";
}

TEST_F(FrameQueue, AFramePutBackWhileDoneIsNoLongerDone)
{
    Queue queue(2);
    frame_info_t* first = queue.produce(1);
    queue.produce(2);
    const std::string text = logged("2", [&] { EXPECT_EQ(queue.put(first), 0); });
    EXPECT_NE(text.find(" W [frame_queue_put "), std::string::npos) << text;
    EXPECT_NE(text.find("] [TEST][state error] frames pool:2 free:0 done:2, data:0x"), std::string::npos) << text;
    EXPECT_NE(text.find(" size:16 pts:1000 channels:0 sample_rate:0 state:2.\n"), std::string::npos) << text;
    EXPECT_EQ(queue.done(), 1);

    EXPECT_EQ(queue.produce(3), first) << "handed out again, and linked once";
    EXPECT_EQ(queue.consume(), 2);
    EXPECT_EQ(queue.consume(), 3);
    EXPECT_EQ(queue.consume(), -1);
}

TEST_F(FrameQueue, AFramePutBackTwiceIsFreeOnce)
{
    Queue queue(1);
    frame_info_t* frame = queue.acquire();
    EXPECT_EQ(queue.put(frame), 0);
    EXPECT_EQ(queue.put(frame), 0);
    EXPECT_EQ(queue.acquire(), frame);
    BlockedCall<frame_info_t*> second([&] { return queue.acquire(); });
    EXPECT_TRUE(second.asleep());
    frame_queue_abort(queue.id);
    EXPECT_EQ(second.result(), nullptr);
}

TEST_F(FrameQueue, AFlushDiscardsWhatIsDoneWithoutWakingTheProducer)
{
    Queue queue(3);
    for (int32_t i = 0; i < 3; ++i)
        queue.produce(i);
    BlockedCall<frame_info_t*> producer([&] { return queue.acquire(); });
    EXPECT_TRUE(producer.asleep());
    EXPECT_EQ(frame_queue_done_release(queue.id), 0);
    EXPECT_EQ(queue.done(), 0);
    EXPECT_EQ(queue.consume(), -1);

    frame_info_t* frame = queue.acquire();
    EXPECT_NE(frame, nullptr);
    EXPECT_FALSE(producer.returned());
    queue.put(frame);
    EXPECT_NE(producer.result(), nullptr);
}

TEST_F(FrameQueue, ReleasingThePoolReturnsItToUnused)
{
    Queue queue(2);
    frame_info_t* held = queue.produce(1);
    ASSERT_EQ(frame_queue_done_dequeue(queue.id, 0), held);
    queue.produce(2);
    const std::string text = logged("2", [&] { EXPECT_EQ(frame_queue_pool_release(queue.id), 0); });
    EXPECT_EQ(occurrences(text, "[state error]"), 1) << text;
    EXPECT_EQ(queue.done(), 0);
    EXPECT_EQ(held->frame.data, nullptr);
    EXPECT_EQ(queue.put(held), -1);
    EXPECT_NE(queue.acquire(32), nullptr);
    EXPECT_NE(queue.acquire(32), nullptr);
}

TEST_F(FrameQueue, WhileMemoryIsShortAcquireRetries)
{
    Queue queue(1);
    g_failures_left = 3;
    const std::string text = logged("1", [&] {
        frame_info_t* frame = queue.acquire(kScarceSize);
        ASSERT_NE(frame, nullptr);
        EXPECT_EQ(frame->frame.buf_size, kScarceSize);
    });
    EXPECT_EQ(occurrences(text, "] [TEST] frame buf alloc failed\n"), 3) << text;
}

TEST_F(FrameQueue, AWaitForMemoryEndsWithAWakeUpOrAnAbort)
{
    Queue queue(1);
    g_failures_left = 1000000;
    {
        BlockedCall<frame_info_t*> growing([&] { return queue.acquire(kScarceSize); });
        EXPECT_TRUE(eventually([] { return g_failures_left < 1000000; }));
        frame_queue_pool_wakeup(queue.id);
        EXPECT_EQ(growing.result(), nullptr);
    }
    g_failures_left = 0;
    queue.put(queue.acquire(8));
    g_failures_left = 1000000;
    BlockedCall<frame_info_t*> enlarging([&] { return queue.acquire(kScarceSize); });
    EXPECT_TRUE(eventually([] { return g_failures_left < 1000000; }));
    frame_queue_abort(queue.id);
    EXPECT_EQ(enlarging.result(), nullptr);
    EXPECT_GT(g_failures_left, 990000) << "the retry does not spin";
}

TEST_F(FrameQueue, ARecordThatLostItsBufferIsNeverHandedOutWithoutOne)
{
    Queue queue(1);
    frame_info_t* frame = queue.acquire(64);
    queue.put(frame);
    {
        g_failures_left = 1000000;
        BlockedCall<frame_info_t*> enlarging([&] { return queue.acquire(kScarceSize); });
        EXPECT_TRUE(eventually([] { return g_failures_left < 1000000; }));
        frame_queue_pool_wakeup(queue.id);
        EXPECT_EQ(enlarging.result(), nullptr);
    }
    EXPECT_EQ(queue.acquire(16), frame) << "its old size would fit";
    ASSERT_NE(frame->frame.data, nullptr);
    memset(frame->frame.data, 1, 16);
}

TEST_F(FrameQueue, WaitingForANumberOfFramesEndsWithThemOrAnAbort)
{
    Queue queue(4);
    EXPECT_EQ(frame_queue_wait_done_frame(queue.id, 0), 0);
    queue.produce(1);
    BlockedCall<int32_t> two([&] { return frame_queue_wait_done_frame(queue.id, 2); });
    EXPECT_TRUE(two.asleep());
    queue.produce(2);
    EXPECT_EQ(two.result(), 0);

    BlockedCall<int32_t> three([&] { return frame_queue_wait_done_frame(queue.id, 3); });
    EXPECT_TRUE(three.asleep());
    frame_queue_abort(queue.id);
    EXPECT_EQ(three.result(), 0);
    const std::string text = logged("2", [&] { EXPECT_EQ(frame_queue_wait_done_frame(queue.id, 3), 0); });
    EXPECT_NE(text.find("] [TEST] frame_queue abort\n"), std::string::npos) << "aborted before the wait";
}

TEST_F(FrameQueue, AWaiterForManyFramesDoesNotSwallowTheConsumersSignal)
{
    Queue queue(4);
    BlockedCall<int32_t> many([&] { return frame_queue_wait_done_frame(queue.id, 4); });
    EXPECT_TRUE(many.asleep());
    for (int32_t i = 1; i <= 3; ++i) {
        BlockedCall<int32_t> consumer([&] { return queue.consume(-1); });
        EXPECT_TRUE(consumer.asleep());
        i < 3 ? (void)queue.produce(i) : frame_queue_done_wakeup(queue.id);
        EXPECT_EQ(consumer.result(), i < 3 ? i : -1);
    }
    frame_queue_abort(queue.id);
    EXPECT_EQ(many.result(), 0);
}

TEST_F(FrameQueue, ProducerAndConsumerKeepEachOtherInStep)
{
    constexpr int32_t kFrames = 20000;
    Queue queue(3);
    std::thread producer([&] {
        for (int32_t i = 0; i < kFrames; ++i)
            queue.produce(i);
    });
    int32_t in_order = 0;
    while (in_order < kFrames && queue.consume(10000) == in_order)
        ++in_order;
    EXPECT_EQ(in_order, kFrames);
    if (in_order < kFrames)
        frame_queue_abort(queue.id);
    producer.join();
}

TEST_F(FrameQueue, SixteenQueuesExistAndIdsOfDestroyedOnesAreRefused)
{
    std::vector<int32_t> ids;
    for (uint32_t i = 0; i < FRAME_QUEUE_MAX; ++i) {
        ids.push_back(frame_queue_init(1, "MANY"));
        EXPECT_EQ(ids.back(), static_cast<int32_t>(i));
    }
    std::string text = logged("3", [] { EXPECT_EQ(frame_queue_init(1, "LATE"), -1); });
    EXPECT_NE(text.find("] [LATE] resource_manager_create failed\n"), std::string::npos) << text;
    EXPECT_EQ(occurrences(text, " used:1\n"), 16) << text;

    EXPECT_EQ(frame_queue_deinit(3), 0);
    text = logged("1", [] {
        EXPECT_EQ(frame_queue_pool_acquire(3, 8), nullptr);
        EXPECT_EQ(frame_queue_done_dequeue(3, -1), nullptr);
        EXPECT_EQ(frame_queue_get_done_counts(3), -1);
        EXPECT_EQ(frame_queue_wait_done_frame(3, 1), -1);
        EXPECT_EQ(frame_queue_deinit(3), -1);
    });
    EXPECT_EQ(occurrences(text, "] frame_queue_t is null.\n"), 5) << text;
    text = logged("1", [] {
        for (int32_t id : {-1, 16, INT32_MAX}) {
            EXPECT_EQ(frame_queue_done_enqueue(id, nullptr), -1);
            EXPECT_EQ(frame_queue_put(id, nullptr), -1);
            EXPECT_EQ(frame_queue_done_release(id), -1);
            EXPECT_EQ(frame_queue_pool_release(id), -1);
            EXPECT_EQ(frame_queue_deinit(id), -1);
            frame_queue_abort(id);
            frame_queue_done_wakeup(id);
            frame_queue_pool_wakeup(id);
        }
    });
    EXPECT_EQ(occurrences(text, "] resource_manager_get id:16 failed\n"), 8) << text;

    EXPECT_EQ(frame_queue_init(1, "AGAIN"), 3) << "lowest free slot first";
    for (int32_t id : ids)
        EXPECT_EQ(frame_queue_deinit(id), 0);
}

TEST_F(FrameQueue, DeinitEndsTheCallsThatWait)
{
    const int32_t id = frame_queue_init(1, "TEST");
    frame_info_t* frame = frame_queue_pool_acquire(id, 8);
    ASSERT_NE(frame, nullptr);
    BlockedCall<frame_info_t*> acquire([id] { return frame_queue_pool_acquire(id, 8); });
    BlockedCall<frame_info_t*> dequeue([id] { return frame_queue_done_dequeue(id, -1); });
    BlockedCall<int32_t> count([id] { return frame_queue_wait_done_frame(id, 1); });
    EXPECT_TRUE(acquire.asleep() && dequeue.asleep() && count.asleep());
    BlockedCall<int32_t> deinit([id] { return frame_queue_deinit(id); });
    EXPECT_EQ(deinit.result(), 0);
    EXPECT_EQ(acquire.result(), nullptr);
    EXPECT_EQ(dequeue.result(), nullptr);
    EXPECT_EQ(count.result(), 0);
}

// Threads that keep ids of queues long gone meet queues being built and torn down.
TEST_F(FrameQueue, StaleIdsOfOtherThreadsDoNoHarm)
{
    std::atomic<bool> stop{false};
    std::vector<std::thread> strangers;
    for (int n = 0; n < 3; ++n) {
        strangers.emplace_back([&stop] {
            while (!stop) {
                for (int32_t id = 0; id < 2; ++id) {
                    frame_info_t* frame = frame_queue_done_dequeue(id, 0);
                    if (frame != nullptr)
                        frame_queue_put(id, &frame->frame);
                    frame_queue_get_done_counts(id);
                    frame_queue_done_wakeup(id);
                    frame_queue_done_release(id);
                }
            }
        });
    }
    std::vector<std::thread> owners;
    for (int n = 0; n < 2; ++n) {
        owners.emplace_back([] {
            for (int round = 0; round < 300; ++round) {
                const int32_t id = frame_queue_init(4, "SHORT");
                EXPECT_GE(id, 0);
                frame_info_t* frame = frame_queue_pool_acquire(id, 32);
                frame_queue_done_enqueue(id, frame);
                EXPECT_EQ(frame_queue_deinit(id), 0);
            }
        });
    }
    for (std::thread& owner : owners)
        owner.join();
    stop = true;
    for (std::thread& stranger : strangers)
        stranger.join();
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
    for (const char* call : {"init", "deinit", "pool_acquire", "done_enqueue", "done_dequeue", "put"}) {
        const std::string prefix = std::string(" D [frame_queue_") + call + " ";
        EXPECT_EQ(occurrences(text, prefix), 2) << call << '\n' << text;
    }
    EXPECT_NE(text.find("] TEST [TEST] frames pool:1 free:0 done:0, data:0x"), std::string::npos) << text;
    EXPECT_NE(text.find(" size:16 state:3.\n"), std::string::npos) << text;
    EXPECT_NE(text.find("] TEST [TEST] frames pool:1 free:0 done:1, data:0x"), std::string::npos) << text;
    EXPECT_NE(text.find(" size:16 pts:7000 channels:0 sample_rate:0 state:2.\n"), std::string::npos) << text;
    EXPECT_NE(text.find("] TEST [TEST] frames pool:1 free:1 done:0, data:0x"), std::string::npos) << text;
}
