// SPDX-License-Identifier: MIT
#include "internal/resource_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/log_capture.h"

namespace
{

constexpr uint32_t kSlots = 4;
constexpr int32_t kSize = 64;

class ResourceManager : public testing::Test
{
protected:
    ~ResourceManager() override
    {
        for (resource_manager_t& slot : map_)
            free(slot.info.load());
    }

    void fill()
    {
        for (uint32_t i = 0; i < kSlots; ++i)
            ASSERT_EQ(resource_manager_create("user", map_, kSlots, kSize), static_cast<int32_t>(i));
    }

    resource_manager_t map_[kSlots] = {{0, {}, {nullptr}}, {1, {}, {nullptr}}, {2, {}, {nullptr}}, {3, {}, {nullptr}}};
};

} // namespace

TEST_F(ResourceManager, GivesTheLowestFreeSlotAZeroedPayload)
{
    fill();
    for (const resource_manager_t& slot : map_) {
        const char* payload = static_cast<const char*>(slot.info.load());
        EXPECT_TRUE(std::all_of(payload, payload + kSize, [](char c) { return c == 0; }));
    }
    EXPECT_EQ(resource_manager_destroy("user", map_, kSlots, 2), 0);
    EXPECT_EQ(resource_manager_destroy("user", map_, kSlots, 1), 0);
    EXPECT_EQ(resource_manager_create("user", map_, kSlots, kSize), 1);
    EXPECT_EQ(resource_manager_create("user", map_, kSlots, kSize), 2);
}

TEST_F(ResourceManager, AFullTableRefusesAndListsItself)
{
    fill();
    const std::string text = logged("3", [this] { EXPECT_EQ(resource_manager_create("late", map_, kSlots, 1), -1); });
    EXPECT_NE(text.find("] [late] create failed\n"), std::string::npos) << text;
    EXPECT_EQ(occurrences(text, "] resource_manager_print id:"), 4);
    EXPECT_EQ(occurrences(text, " used:1\n"), 4);
}

TEST_F(ResourceManager, DestroyingTwiceOrAnUnknownIdIsOnlyAWarning)
{
    fill();
    EXPECT_EQ(resource_manager_destroy("user", map_, kSlots, 3), 0);
    std::string text = logged("2", [this] { EXPECT_EQ(resource_manager_destroy("user", map_, kSlots, 3), 0); });
    EXPECT_NE(text.find("] [user] already destroy id:3\n"), std::string::npos) << text;

    text = logged("3", [this] { EXPECT_EQ(resource_manager_destroy("user", map_, kSlots, 4), 0); });
    EXPECT_NE(text.find("] [user] not found id:4\n"), std::string::npos) << text;
    EXPECT_EQ(occurrences(text, " used:1\n"), 3);
    EXPECT_EQ(occurrences(text, " used:0\n"), 1);
}

TEST_F(ResourceManager, GetFindsFreeSlotsTooAndRejectsUnknownIds)
{
    EXPECT_EQ(resource_manager_get(map_, kSlots, 3), &map_[3]);
    const std::string text = logged("3", [this] { EXPECT_EQ(resource_manager_get(map_, kSlots, 4), nullptr); });
    EXPECT_NE(text.find("] not found id:4\n"), std::string::npos) << text;
    EXPECT_EQ(occurrences(text, " used:0\n"), 4);
}

TEST_F(ResourceManager, InvalidArgumentsAreRefusedWithTheirOwnWarning)
{
    const std::string text = logged("2", [this] {
        EXPECT_EQ(resource_manager_create("a", nullptr, kSlots, 1), -1);
        EXPECT_EQ(resource_manager_create("b", map_, 0, 1), -1);
        EXPECT_EQ(resource_manager_create("c", map_, kSlots, 0), -1);
        EXPECT_EQ(resource_manager_destroy("d", nullptr, kSlots, 0), -1);
        EXPECT_EQ(resource_manager_destroy("e", map_, 0, 0), -1);
        EXPECT_EQ(resource_manager_destroy("f", map_, kSlots, -1), -1);
        EXPECT_EQ(resource_manager_get(nullptr, kSlots, 0), nullptr);
        EXPECT_EQ(resource_manager_get(map_, 0, 0), nullptr);
        EXPECT_EQ(resource_manager_get(map_, kSlots, -1), nullptr);
        resource_manager_print(nullptr, kSlots);
        resource_manager_print(map_, 0);
    });
    for (const char* message : {"] [a] invalid map\n", "] [b] invalid count:0\n", "] [c] invalid info_size:0\n",
                                "] [d] invalid map\n", "] [e] invalid count:0\n", "] [f] invalid id:-1\n",
                                "[resource_manager_get ", "] invalid id:-1\n", "[resource_manager_print "})
        EXPECT_NE(text.find(message), std::string::npos) << message;
    EXPECT_EQ(occurrences(text, " W ["), 11);
    EXPECT_EQ(map_[0].info.load(), nullptr);
}
