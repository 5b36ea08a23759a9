// SPDX-License-Identifier: MIT
#include "internal/locks.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <string>
#include <thread>
#include <vector>

#include "support/blocked_call.h"
#include "support/callers.h"
#include "support/log_capture.h"

namespace
{

rwlock_t g_lock;
bool g_open GUARDED_BY(g_lock) = false;

bool is_open() REQUIRES_SHARED(g_lock) { return g_open; }

/// Entry points of a module, and a read that is none.
bool get_value()
{
    const entry_guard api(g_lock, is_open);
    return static_cast<bool>(api);
}

bool read_inside_a_call()
{
    const read_guard inside(g_lock);
    return g_open;
}

bool get_other_value()
{
    const entry_guard api(g_lock, is_open, LOG_LEVEL_E, "other text");
    return static_cast<bool>(api);
}

void set_open(bool open)
{
    const write_guard writer(g_lock);
    g_open = open;
}

} // namespace

TEST(Locks, AClosedModuleRefusesInTheNameOfTheCaller)
{
    set_open(false);
    const std::string text = logged("2", [] { EXPECT_FALSE(get_value() || get_other_value()); });
    expect_once(text, {" W [get_value ", "] module not initialized\n", " E [get_other_value ", "] other text\n"});
    EXPECT_EQ(logged("0", [] { EXPECT_FALSE(get_value() || get_other_value()); }), "");
    set_open(true);
    EXPECT_EQ(logged("5", [] { EXPECT_TRUE(get_value() && get_other_value()); }), "");
}

// The lock is never free: each reader holds it until another one has entered.
TEST(Locks, ReadersInALoopDoNotHoldUpAWriter)
{
    const LogLevel quiet("0");
    set_open(true);
    std::atomic<int> entered{0}, refused{0};
    Callers readers;
    readers.run(
        [&](int) {
            const entry_guard api(g_lock, is_open);
            if (!api) {
                ++refused;
                return;
            }
            get_value();
            const int mine = ++entered;
            while (entered == mine && refused == 0)
                sched_yield();
        },
        3);
    EXPECT_TRUE(eventually([&] { return entered > 100; }));
    EXPECT_EQ(refused, 0) << "without a writer nobody is refused";
    BlockedCall<int> writer([] { return set_open(false), 0; });
    EXPECT_TRUE(eventually([&] { return writer.returned(); }));
    EXPECT_TRUE(eventually([&, before = refused.load()] { return refused > before; })) << "refused afterwards, too";
}

TEST(Locks, WhileAWriterWaitsNewCallsAreRefusedAndReadsInsideACallAreNotBlocked)
{
    const LogLevel quiet("0");
    set_open(true);
    entry_guard api(g_lock, is_open);
    ASSERT_TRUE(api);
    BlockedCall<int> writer([] { return set_open(true), 0; });
    EXPECT_TRUE(writer.asleep());
    EXPECT_FALSE(get_value()) << "although the lock is held for reading only";
    EXPECT_TRUE(read_inside_a_call());
    EXPECT_FALSE(writer.returned());
    api.unlock();
    EXPECT_EQ(writer.result(), 0);
    // Taken again, a guard asks again.
    api.lock();
    EXPECT_TRUE(api);
    api.unlock();
    set_open(false);
    api.lock();
    EXPECT_FALSE(api);
}
