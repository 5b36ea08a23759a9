// SPDX-License-Identifier: MIT
// The viewer's frames from a capture device to a display, on its own threads; what it says of a device that fails.
#include <drm_fourcc.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <vector>

#include "common/clock.h"
#include "fakes/v4l2_device.h"
#include "hdmi_linux.h"
#include "session/viewing.h"
#include "support/eventually.h"

using namespace view;
using machine::Finding;

namespace
{

constexpr int kFrames = 200;

/// Pixels of the display's own, or those of the device.
class Pixels : public display::Surface
{
public:
    explicit Pixels(const uint8_t* memory) : memory_(reinterpret_cast<const uint32_t*>(memory)) {}
    Pixels() : own_(V4l2Device::kWidth * V4l2Device::kHeight), memory_(own_.data()) {}
    display::Canvas canvas() const override
    {
        return {reinterpret_cast<uint8_t*>(own_.data()), V4l2Device::kWidth, V4l2Device::kHeight,
                V4l2Device::kWidth * sizeof(uint32_t)};
    }
    uint32_t first() const { return memory_[0] & 0xFFFFFF; }

private:
    mutable std::vector<uint32_t> own_;
    const uint32_t* memory_;
};

/// Shows each frame at once; checks that it is of the colour that comes next.
class PlainDisplay : public display::Display
{
public:
    explicit PlainDisplay(bool reads) : reads_(reads) {}
    double refresh_hz() const override { return 60; }
    bool paced() const override { return false; }
    std::string description() const override { return "plain"; }
    std::optional<hdmi_player_drm_info_t> start(display::Observer* observer, display::FlipGate*, std::string*) override
    {
        observer_ = observer;
        return hdmi_player_drm_info_t{0, 60};
    }
    bool provide_surface(display::FrameBuffer* buffer) override
    {
        if (!buffer->surface)
            buffer->surface = std::make_shared<Pixels>();
        return true;
    }
    bool reads(uint32_t fourcc) const override { return reads_ && fourcc == DRM_FORMAT_XRGB8888; }
    std::shared_ptr<display::Surface> adopt(const display::ForeignFrame& frame, std::string*) override
    {
        return std::make_shared<Pixels>(frame.memory);
    }
    void present(display::FrameBuffer* buffer) override
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        const auto colour = static_cast<const Pixels&>(*buffer->surface).first();
        wrong_ += colour == ++shown_ * kStep ? 0 : 1;
        observer_->shown(*buffer, 0);
        if (last_ != nullptr)
            display::release(last_);
        last_ = buffer;
    }
    void clear() override { stop(); }
    void stop() override
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (last_ != nullptr)
            display::release(last_);
        last_ = nullptr;
    }
    display::DisplayStats stats() const override { return {}; }

    int wrong() const
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        return wrong_;
    }
    static constexpr uint32_t kStep = 0x010101; ///< from one frame's colour to the next

private:
    const bool reads_;
    mutable std::mutex mutex_; ///< what follows
    display::Observer* observer_ = nullptr;
    display::FrameBuffer* last_ = nullptr;
    uint32_t shown_ = 0;
    int wrong_ = 0;
};

/// The viewer's parts from the device to the display.
struct Session {
    V4l2Device kernel;
    PlainDisplay display;
    display::FlipGate gate{60};
    ShownFrames shown{nullptr};
    std::unique_ptr<VideoDevice> device;
    std::unique_ptr<Viewing> viewing;
    Finding why;

    explicit Session(bool reads = true) : display(reads) {}

    bool prepare()
    {
        device = VideoDevice::open(kernel.path(), &why);
        if (!device)
            return false;
        const std::vector<capture::CaptureMode> modes = device->modes(device->detect());
        if (modes.empty() || !device->set_mode(modes.front(), &why))
            return false;
        viewing = std::make_unique<Viewing>(device.get(), &display, &gate, &shown);
        return viewing->prepare(&why);
    }
    ViewingConfig config() const
    {
        ViewingConfig config;
        config.sound = false;
        return config;
    }
    void start()
    {
        std::string error;
        viewing->start(config(), *display.start(&shown, &gate, &error));
    }
};

} // namespace

TEST(Viewing, ShowsEachFrameOnceAndInOrderWhereItLiesOrPainted)
{
    for (const bool reads : {true, false}) {
        Session session(reads);
        ASSERT_TRUE(session.prepare()) << session.why.detail;
        session.start();
        for (uint32_t i = 1; i <= kFrames; i++)
            ASSERT_TRUE(session.kernel.deliver(i * PlainDisplay::kStep)) << i;
        EXPECT_TRUE(eventually([&] { return session.shown.seen() == kFrames; })) << session.shown.seen();
        EXPECT_EQ(session.shown.unseen() + session.shown.disordered() + session.display.wrong(), 0);
        const std::string figures = session.viewing->figures(session.config());
        EXPECT_NE(figures.find(reads ? " 0 copied" : " 200 copied"), std::string::npos) << figures;
        EXPECT_EQ(session.viewing->end(), Viewing::End::none);
        session.kernel.change_signal();
        EXPECT_TRUE(eventually([&] { return session.viewing->end() == Viewing::End::signal; }));
    }
}

TEST(Viewing, EndsWhenTheDeviceIsUnplugged)
{
    Session session;
    ASSERT_TRUE(session.prepare()) << session.why.detail;
    session.start();
    ASSERT_TRUE(session.kernel.deliver(PlainDisplay::kStep));
    session.kernel.unplug();
    EXPECT_TRUE(eventually([&] { return session.viewing->end() == Viewing::End::gone; }));
    EXPECT_TRUE(session.device->gone());
}

TEST(Viewing, EndsWhenFramesStayAway)
{
    Session session;
    ASSERT_TRUE(session.prepare()) << session.why.detail;
    session.start();
    ASSERT_TRUE(session.kernel.deliver(PlainDisplay::kStep));
    EXPECT_TRUE(eventually([&] { return session.viewing->end() != Viewing::End::none; }));
    EXPECT_EQ(session.viewing->end(), Viewing::End::stalled);
    EXPECT_FALSE(session.device->gone());
}

TEST(Viewing, ForgetsHowLongSoundTookWhenItOpensThePlayer)
{
    // Whether there is a device for sound makes no difference; here there is none.
    hdmi_linux_set_device("speaker", "none_such");
    Session session;
    ASSERT_TRUE(session.prepare()) << session.why.detail;
    session.start();
    const ViewingConfig with_sound;
    WindowMean& sound = session.shown.transit().sound;
    sound.add(common::now_ns(), 40);
    EXPECT_TRUE(session.viewing->update_player(with_sound)) << "it waits until it knows how old frames are";
    EXPECT_TRUE(sound.value());
    for (uint32_t i = 1; i <= 12; i++)
        ASSERT_TRUE(session.kernel.deliver(i * PlainDisplay::kStep));
    ASSERT_TRUE(eventually([&] { return session.shown.seen() == 12; }));
    EXPECT_FALSE(session.viewing->update_player(with_sound));
    EXPECT_FALSE(sound.value());
    hdmi_linux_set_device("speaker", nullptr);
}

TEST(VideoDevice, SaysWhatIsWrongWithACommandThatMendsIt)
{
    const struct {
        int stream_error;
        uint32_t field;
        const char* detail;
        const char* remedy;
    } cases[] = {
        {EBUSY, V4L2_FIELD_NONE, "another program captures from it", "sudo fuser -v /"},
        {ENODEV, V4L2_FIELD_NONE, "was unplugged", "sudo dmesg | tail"},
        {ENOSPC, V4L2_FIELD_NONE, "the USB bus has no room", "lsusb -t"},
        {0, V4L2_FIELD_INTERLACED, "an interlaced signal is not shown", "v4l2-ctl -d /"},
    };
    for (const auto& wrong : cases) {
        Session session;
        session.kernel.stream_error = wrong.stream_error;
        session.kernel.field = wrong.field;
        EXPECT_FALSE(session.prepare());
        EXPECT_NE(session.why.detail.find(wrong.detail), std::string::npos) << session.why.detail;
        EXPECT_EQ(session.why.remedy.find(wrong.remedy), 0u) << session.why.remedy;
    }
    Session session;
    session.kernel.format = V4L2_PIX_FMT_H264;
    EXPECT_FALSE(session.prepare());
    EXPECT_TRUE(session.device->modes({}).empty());
}
