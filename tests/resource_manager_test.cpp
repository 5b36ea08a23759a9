// SPDX-License-Identifier: MIT
#include "internal/resource_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "support/log_capture.h"

namespace
{

constexpr uint32_t kSlots = 3;
constexpr int32_t kSize = 64;

class ResourceManager : public testing::Test
{
protected:
    void SetUp() override
    {
        for (int32_t i = 0; i < static_cast<int32_t>(kSlots); ++i)
            ASSERT_EQ(resource_manager_create("user", map_, kSlots, kSize), i);
    }
    void TearDown() override
    {
        for (resource_manager_t& slot : map_)
            free(slot.info.load());
    }

    resource_manager_t map_[kSlots] = {{0, {nullptr}}, {1, {nullptr}}, {2, {nullptr}}};
};

} // namespace

TEST_F(ResourceManager, GivesTheLowestFreeSlotAZeroedPayload)
{
    EXPECT_EQ(resource_manager_destroy("user", map_, kSlots, 2), 0);
    EXPECT_EQ(resource_manager_destroy("user", map_, kSlots, 1), 0);
    EXPECT_EQ(resource_manager_get(map_, kSlots, 1), &map_[1]) << "free slots are found too";
    EXPECT_EQ(resource_manager_create("user", map_, kSlots, kSize), 1);
    const char* payload = static_cast<const char*>(map_[1].info.load());
    EXPECT_TRUE(std::all_of(payload, payload + kSize, [](char c) { return c == 0; }));
    EXPECT_EQ(resource_manager_create("user", map_, kSlots, kSize), 2);

    const std::string text = logged("3", [this] { EXPECT_EQ(resource_manager_create("late", map_, kSlots, 1), -1); });
    EXPECT_EQ(occurrences(text, "] [late] create failed\n"), 1) << text;
    EXPECT_EQ(occurrences(text, " used:1\n"), 3) << "the table is listed" << text;
}

TEST_F(ResourceManager, UnknownIdsAreWarnedAboutWithAListing)
{
    const std::string text = logged("3", [this] {
        EXPECT_EQ(resource_manager_destroy("user", map_, kSlots, 2), 0);
        EXPECT_EQ(resource_manager_destroy("user", map_, kSlots, 2), 0);
        EXPECT_EQ(resource_manager_destroy("user", map_, kSlots, 3), 0);
        EXPECT_EQ(resource_manager_get(map_, kSlots, 3), nullptr);
    });
    expect_once(text, {"] [user] already destroy id:2\n", "] [user] not found id:3\n"});
    EXPECT_EQ(occurrences(text, " not found id:3\n"), 2) << text;
    EXPECT_EQ(occurrences(text, " I [resource_manager_print "), 6) << text;
}

TEST_F(ResourceManager, InvalidArgumentsAreRefusedWithTheirOwnWarning)
{
    const std::string text = logged("2", [this] {
        EXPECT_EQ(resource_manager_create("a", nullptr, kSlots, 1), -1);
        EXPECT_EQ(resource_manager_create("a", map_, kSlots, 0), -1);
        EXPECT_EQ(resource_manager_destroy("a", map_, 0, 0), -1);
        EXPECT_EQ(resource_manager_destroy("a", map_, kSlots, -1), -1);
        EXPECT_EQ(resource_manager_get(nullptr, kSlots, 0), nullptr);
        EXPECT_EQ(resource_manager_get(map_, kSlots, -1), nullptr);
        resource_manager_print(nullptr, kSlots);
        resource_manager_print(map_, 0);
    });
    for (const char* message : {"invalid map\n", "invalid count:0\n", "invalid info_size:0\n", "invalid id:-1\n"})
        EXPECT_NE(text.find(message), std::string::npos) << message << text;
    EXPECT_EQ(occurrences(text, " W ["), 8) << text;
}
