// SPDX-License-Identifier: MIT
// What the play program's displays decide and paint, without a display.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "display/flip_gate.h"
#include "display/flip_queue.h"
#include "display/frame_pool.h"
#include "display/kms_mode.h"
#include "screen/screen.h"
#include "source/canvas.h"

using namespace display;
using namespace play;

namespace
{

/// Pixels with a margin to the right that nobody may touch.
struct Pixels {
    static constexpr int kMargin = 3;
    static constexpr uint32_t kUntouched = 0xABCD1234;

    Pixels(int width, int height)
        : pitch(width + kMargin),
          memory(static_cast<size_t>(pitch * height), kUntouched), canvas{reinterpret_cast<uint8_t*>(memory.data()),
                                                                          width, height, static_cast<size_t>(pitch) * 4}
    {
    }
    bool margin_untouched() const
    {
        for (int y = 0; y < canvas.height; y++)
            for (int x = canvas.width; x < pitch; x++)
                if (canvas.row(y)[x] != kUntouched)
                    return false;
        return true;
    }

    int pitch;
    std::vector<uint32_t> memory;
    Canvas canvas;
};

Picture picture_of(int64_t number, uint8_t field)
{
    Picture picture = {};
    write_number(&picture, number);
    fill_field(&picture, field);
    return picture;
}

Image image_of(int width, int height, uint32_t colour)
{
    return {width, height, std::vector<uint32_t>(static_cast<size_t>(width * height), colour)};
}

drmModeModeInfo mode_of(int width, int height, int clock_khz, int htotal, int vtotal, uint32_t type = 0)
{
    drmModeModeInfo mode = {};
    mode.clock = static_cast<uint32_t>(clock_khz);
    mode.hdisplay = static_cast<uint16_t>(width);
    mode.htotal = static_cast<uint16_t>(htotal);
    mode.vdisplay = static_cast<uint16_t>(height);
    mode.vtotal = static_cast<uint16_t>(vtotal);
    mode.type = type;
    return mode;
}

/// A device that shows what it was given at its next vertical blank.
struct Device {
    FlipQueue queue;
    std::vector<FrameBuffer*> left_out;
    std::vector<FrameBuffer*> seen;
    std::vector<FrameBuffer*> released;

    void flip(FrameBuffer* buffer)
    {
        if (FrameBuffer* out = queue.flip(buffer))
            left_out.push_back(out);
        give();
    }
    void vblank()
    {
        if (queue.on_its_way() != nullptr)
            if (FrameBuffer* before = queue.shown())
                released.push_back(before);
        seen.push_back(queue.on_screen());
        give();
    }
    void give()
    {
        if (queue.next() != nullptr)
            queue.taken();
    }
};

} // namespace

TEST(Canvas, PictureIsReadBackFromEveryShapeOfCanvasWithFilmOrWithout)
{
    const Image wide = image_of(80, 20, 0xFFFFFF);
    const Image tall = image_of(20, 80, 0x123456);
    for (Size size : {Size{64, 48}, Size{65, 49}, Size{640, 480}, Size{1920, 1080}, Size{270, 480}}) {
        Pixels pixels(size.width, size.height);
        for (int64_t number : {int64_t{0}, int64_t{0xABCDEF}, kPictureNumberLimit - 1})
            for (const Image* image : {static_cast<const Image*>(nullptr), &wide, &tall}) {
                paint(picture_of(number, Picture::kBlack), image, pixels.canvas);
                EXPECT_EQ(read_number(look_at(pixels.canvas)), number) << size.width << "x" << size.height;
            }
        for (uint8_t field : {Picture::kBlack, Picture::kWhite}) {
            paint(picture_of(1, field), nullptr, pixels.canvas);
            EXPECT_EQ(is_flash(look_at(pixels.canvas)), field == Picture::kWhite);
        }
        EXPECT_TRUE(pixels.margin_untouched());
    }
}

TEST(Canvas, FilmIsScaledToFitBetweenBlackBorders)
{
    Pixels pixels(400, 300);
    paint(picture_of(7, Picture::kWhite), nullptr, pixels.canvas);
    Image image = image_of(200, 100, 0x00FF00);
    image.pixels.back() = 0xFF0000;
    paint(picture_of(8, Picture::kBlack), &image, pixels.canvas);
    EXPECT_EQ(pixels.canvas.row(49)[399], 0u);
    EXPECT_EQ(pixels.canvas.row(50)[399], 0x00FF00u);
    EXPECT_EQ(pixels.canvas.row(249)[399], 0xFF0000u);
    EXPECT_EQ(pixels.canvas.row(249)[397], 0x00FF00u);
    EXPECT_EQ(pixels.canvas.row(250)[0], 0u);
}

TEST(Canvas, FitKeepsTheShapeAndStaysInsideTheBox)
{
    Size wide = fit(1920, 800, {1280, 720});
    EXPECT_EQ(wide.width, 1280);
    EXPECT_EQ(wide.height, 533);
    Size tall = fit(1080, 1920, {1280, 720});
    EXPECT_EQ(tall.width, 405);
    EXPECT_EQ(tall.height, 720);
    Size thin = fit(10000, 1, {100, 100});
    EXPECT_EQ(thin.height, 1);
    Size unknown = fit(0, 0, {100, 50});
    EXPECT_EQ(unknown.width, 100);
}

TEST(FlipGate, LetsOneThroughOfTwoThatFlipAtTheSameInstant)
{
    constexpr int64_t kRefreshNs = 20'000'000;
    constexpr int kRounds = 100'000;
    constexpr int kMostSpins = 256;
    FlipGate gate(50);
    std::atomic<int> arrived{0};
    std::atomic<int> admitted{0};
    auto flip = [&](int spins_a_round) {
        for (int round = 1; round <= kRounds; round++) {
            arrived++;
            for (int spins = 0; arrived < 2 * round; spins++)
                if (spins > kMostSpins)
                    std::this_thread::yield();
            // Each round by another distance, the same instant among them.
            for (std::atomic<int> spins{round * spins_a_round % kMostSpins}; spins > 0;)
                spins--;
            admitted += gate.admit((1000 + round) * kRefreshNs) ? 1 : 0;
        }
    };
    std::thread other(flip, 0);
    flip(1);
    other.join();
    EXPECT_EQ(admitted, kRounds);
}

TEST(FlipQueue, FlipThatComesWhileOneIsPendingWaitsItsTurn)
{
    FrameBuffer a, b, c;
    Device device;
    device.vblank();
    device.flip(&a);
    device.flip(&b);
    device.vblank();
    device.vblank();
    device.vblank();
    device.flip(&c);
    device.vblank();
    EXPECT_EQ(device.seen, (std::vector<FrameBuffer*>{nullptr, &a, &b, &b, &c}));
    EXPECT_EQ(device.released, (std::vector<FrameBuffer*>{&a, &b}));
    EXPECT_TRUE(device.left_out.empty());
}

TEST(FlipQueue, ABacklogIsWorkedOffAndTheDisplayIsNotLateForGood)
{
    FrameBuffer burst[5], next[4];
    Device device;
    for (FrameBuffer& buffer : burst)
        device.flip(&buffer);
    // Only the newest of those that could still be called back.
    EXPECT_EQ(device.left_out, (std::vector<FrameBuffer*>{&burst[1], &burst[2], &burst[3]}));
    for (FrameBuffer& buffer : next) {
        device.vblank();
        device.flip(&buffer);
    }
    device.vblank();
    EXPECT_EQ(device.seen, (std::vector<FrameBuffer*>{&burst[0], &burst[4], &next[1], &next[2], &next[3]}));
    EXPECT_EQ(device.left_out.size(), 4u);
}

TEST(FlipQueue, AFlipThatTheDeviceRefusesStaysNext)
{
    FrameBuffer a, b;
    FlipQueue queue;
    queue.flip(&a);
    EXPECT_EQ(queue.next(), &a);
    EXPECT_EQ(queue.flip(&b), &a); // a newer one came before the device could take it
    EXPECT_EQ(queue.next(), &b);
    EXPECT_EQ(queue.on_screen(), nullptr);
}

TEST(FlipQueue, ClearGivesBackEverythingInOrderAndStartsAnew)
{
    FrameBuffer a, b, c;
    Device device;
    device.flip(&a);
    device.vblank();
    device.flip(&b);
    device.flip(&c);
    EXPECT_EQ(device.queue.clear(), (std::vector<FrameBuffer*>{&a, &b, &c}));
    EXPECT_TRUE(device.queue.clear().empty());
    EXPECT_EQ(device.queue.flip(&a), nullptr);
    EXPECT_EQ(device.queue.next(), &a);
}

TEST(KmsMode, RefreshRateCountsFieldsAndDoubledLines)
{
    drmModeModeInfo hd = mode_of(1920, 1080, 148500, 2200, 1125);
    EXPECT_DOUBLE_EQ(refresh_hz(hd), 60);
    hd.clock = 74250;
    hd.flags = DRM_MODE_FLAG_INTERLACE;
    EXPECT_DOUBLE_EQ(refresh_hz(hd), 60);
    hd.flags = DRM_MODE_FLAG_DBLSCAN;
    EXPECT_DOUBLE_EQ(refresh_hz(hd), 15);
    hd.htotal = 0;
    EXPECT_DOUBLE_EQ(refresh_hz(hd), 0);
}

TEST(KmsMode, ChoosesThePreferredModeOrItsSizeAtTheWantedRate)
{
    const std::vector<drmModeModeInfo> modes = {
        mode_of(640, 480, 21000, 700, 500),                               // 60
        mode_of(640, 480, 17500, 700, 500),                               // 50
        mode_of(1920, 1080, 148500, 2200, 1125, DRM_MODE_TYPE_PREFERRED), // 60
        mode_of(1920, 1080, 148352, 2200, 1125),                          // 59.94
        mode_of(1920, 1080, 148500, 2640, 1125),                          // 50
    };
    std::string error;
    EXPECT_EQ(choose_mode(modes, std::nullopt, &error), &modes[2]);
    EXPECT_EQ(choose_mode(modes, 60.0, &error), &modes[2]);
    EXPECT_EQ(choose_mode(modes, 60000 / 1001.0, &error), &modes[3]);
    EXPECT_EQ(choose_mode(modes, 50.0, &error), &modes[4]);
    EXPECT_EQ(choose_mode(modes, 48.0, &error), nullptr);
    EXPECT_EQ(error, "has no mode of 48 Hz, but 60, 50, 59.94");
    EXPECT_EQ(choose_mode({}, std::nullopt, &error), nullptr);
}

TEST(Screen, StayCountsForWhatWasSeenLast)
{
    Screen screen;
    screen.stayed(1); // nothing yet
    screen.refresh(picture_of(3, Picture::kBlack), 100);
    screen.stayed(2);
    screen.refresh(Picture{}, 400);
    screen.stayed(1);
    ASSERT_EQ(screen.sightings().size(), 1u);
    EXPECT_EQ(screen.sightings()[0].vblanks, 3);
    EXPECT_EQ(screen.unreadable(), 2);
}
