// SPDX-License-Identifier: MIT
// What the viewer decides, finds and paints, without a capture device.
#include <drm_fourcc.h>
#include <gtest/gtest.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>

#include "capture/converter.h"
#include "capture/pixel_format.h"
#include "control/commands.h"
#include "machine/capture_devices.h"
#include "machine/video_signal.h"
#include "picture/black.h"
#include "picture/least_age.h"
#include "session/messages.h"
#include "session/sound_delay.h"
#include "session/transit.h"

using namespace capture;
using namespace view;
using machine::CaptureDevice;
using machine::Finding;
using machine::Verdict;
using machine::VideoFacts;

namespace
{

namespace fs = std::filesystem;

/// A machine's /sys, made up: devices, and entries of classes that point to them.
class Sysfs
{
public:
    Sysfs() { root_ = mkdtemp(name_); }
    ~Sysfs() { fs::remove_all(root_); }

    /// A USB device or PCI function. @p kind: the file by which it is known
    void hardware(const std::string& place, const std::string& kind)
    {
        write("/sys/devices/" + place + "/" + kind, "");
        if (kind == "vendor")
            write("/sys/devices/" + place + "/class", "");
    }
    void video(const std::string& node, const std::string& place)
    {
        link("/sys/class/video4linux/" + node, place);
        write("/sys/class/video4linux/" + node + "/name", node);
    }
    void sound(const std::string& number, const std::string& id, const std::string& place, bool captures)
    {
        link("/sys/class/sound/card" + number, place);
        write("/sys/class/sound/card" + number + "/id", id);
        write("/sys/class/sound/pcmC" + number + "D3" + (captures ? "c" : "p"), "");
    }
    std::string root() const { return root_; }

private:
    void write(const std::string& path, const std::string& text)
    {
        fs::create_directories(fs::path(root_ + path).parent_path());
        std::ofstream(root_ + path) << text << "\n";
    }
    void link(const std::string& entry, const std::string& place)
    {
        fs::create_directories(root_ + entry);
        fs::create_directories(root_ + "/sys/devices/" + place);
        fs::create_directory_symlink(root_ + "/sys/devices/" + place, root_ + entry + "/device");
    }

    char name_[32] = "/tmp/view-sysfs-XXXXXX";
    std::string root_;
};

VideoFacts facts_of(bool captures, bool digital = false, bool camera = false)
{
    VideoFacts facts;
    facts.captures = captures;
    facts.digital = digital;
    facts.camera = camera;
    return facts;
}

/// One colour all over, in memory of a capture device's format.
struct Plain {
    std::vector<uint8_t> memory;
    display::ForeignFrame frame;

    Plain(uint32_t v4l2, uint32_t bytes_per_line, const std::vector<uint8_t>& pixel, bool full_range = false)
    {
        Geometry geometry;
        geometry.v4l2 = v4l2;
        geometry.width = kWidth;
        geometry.height = kHeight;
        geometry.bytes_per_line = bytes_per_line;
        geometry.quantization = full_range ? V4L2_QUANTIZATION_FULL_RANGE : V4L2_QUANTIZATION_DEFAULT;
        frame.layout = layout_of(geometry);
        memory.resize(size_t{bytes_per_line} * kHeight * 2);
        const size_t luma = frame.layout.planes > 1 ? frame.layout.offsets[1] : memory.size();
        for (size_t i = 0; i < memory.size(); i++)
            memory[i] = i < luma ? pixel[frame.layout.planes > 1 ? 0 : i % pixel.size()] : pixel[1 + (i - luma) % 2];
        frame.memory = memory.data();
    }
    static constexpr int kWidth = 64;
    static constexpr int kHeight = 32;
};

struct Painted {
    std::vector<uint32_t> pixels;
    display::Canvas canvas;

    Painted(int width, int height) : pixels(static_cast<size_t>(width * height), 0xABCDEF)
    {
        canvas = {reinterpret_cast<uint8_t*>(pixels.data()), width, height, static_cast<size_t>(width) * 4};
    }
    uint32_t at(int x, int y) const { return canvas.row(y)[x] & 0xFFFFFF; }
};

void expect_colour(uint32_t seen, uint32_t wanted, const char* what)
{
    for (int shift = 0; shift <= 16; shift += 8)
        EXPECT_NEAR(static_cast<int>(seen >> shift & 0xFF), static_cast<int>(wanted >> shift & 0xFF), 5)
            << what << ": " << std::hex << seen;
}

std::vector<uint8_t> jpeg_of(uint8_t y, uint8_t u, uint8_t v)
{
    AVCodecContext* encoder = avcodec_alloc_context3(avcodec_find_encoder(AV_CODEC_ID_MJPEG));
    encoder->width = Plain::kWidth;
    encoder->height = Plain::kHeight;
    encoder->time_base = {1, 25};
    encoder->pix_fmt = AV_PIX_FMT_YUVJ422P;
    AVFrame* frame = av_frame_alloc();
    frame->width = encoder->width;
    frame->height = encoder->height;
    frame->format = encoder->pix_fmt;
    AVPacket* packet = av_packet_alloc();
    std::vector<uint8_t> bytes;
    if (avcodec_open2(encoder, nullptr, nullptr) == 0 && av_frame_get_buffer(frame, 0) == 0) {
        const uint8_t values[] = {y, u, v};
        for (int plane = 0; plane < 3; plane++)
            memset(frame->data[plane], values[plane],
                   static_cast<size_t>(frame->linesize[plane]) * static_cast<size_t>(frame->height));
        if (avcodec_send_frame(encoder, frame) == 0 && avcodec_receive_packet(encoder, packet) == 0)
            bytes.assign(packet->data, packet->data + packet->size);
    }
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&encoder);
    return bytes;
}

} // namespace

TEST(CaptureDevices, SoundIsThatOfTheSameUsbDeviceOrPciFunction)
{
    Sysfs sysfs;
    sysfs.hardware("pci0/usb1/1-4", "idVendor");
    sysfs.hardware("pci0/usb1/1-5", "idVendor");
    sysfs.hardware("pci0/0000:03:00.0", "vendor");
    sysfs.video("video0", "pci0/usb1/1-4/1-4:1.0");
    sysfs.video("video2", "pci0/0000:03:00.0");
    sysfs.video("video10", "platform/vivid.0");
    sysfs.sound("0", "Camera", "pci0/usb1/1-5/1-5:1.2", true);
    sysfs.sound("1", "Speaker", "pci0/usb1/1-4/1-4:1.4", false);
    sysfs.sound("2", "Dongle", "pci0/usb1/1-4/1-4:1.2", true);
    sysfs.sound("3", "Card", "pci0/0000:03:00.0", true);
    const auto devices = machine::find_capture_devices(sysfs.root(), [](const std::string&, VideoFacts* facts) {
        *facts = facts_of(true);
        return std::optional<Finding>();
    });
    ASSERT_EQ(devices.size(), 3u);
    EXPECT_EQ(devices[0].sound, "hw:CARD=Dongle,DEV=3");
    EXPECT_EQ(devices[1].sound, "hw:CARD=Card,DEV=3");
    EXPECT_EQ(devices[2].path, "/dev/video10");
    EXPECT_EQ(devices[2].sound, "");
}

TEST(CaptureDevices, TheOneWithAnHdmiInputIsChosenAndTheListSaysWhyNotTheOthers)
{
    Sysfs sysfs;
    const std::map<std::string, VideoFacts> nodes = {{"/dev/video0", facts_of(true, false, true)},
                                                     {"/dev/video1", facts_of(false)},
                                                     {"/dev/video2", facts_of(true)},
                                                     {"/dev/video4", facts_of(true, true)}};
    for (const char* node : {"video0", "video1", "video2", "video3", "video4"})
        sysfs.video(node, "platform/one.0");
    auto devices = machine::find_capture_devices(sysfs.root(), [&nodes](const std::string& path, VideoFacts* facts) {
        const auto node = nodes.find(path);
        if (node == nodes.end())
            return std::optional<Finding>({Verdict::refused, path, "Permission denied", "sudo usermod"});
        *facts = node->second;
        return std::optional<Finding>();
    });
    const CaptureDevice* chosen = machine::choose_device(devices);
    ASSERT_NE(chosen, nullptr);
    EXPECT_EQ(chosen->path, "/dev/video4");
    const std::string list = list_of(devices);
    for (const char* line :
         {"  /dev/video0  : not used: is a camera", "hdmi-player-view --video v4l2:/dev/video0",
          "  /dev/video1  : not used: does not capture", "  /dev/video3  video3: not used: Permission",
          "      sudo usermod\n", "* /dev/video4  ; no sound of its own"})
        EXPECT_NE(list.find(line), std::string::npos) << line << " in\n" << list;
    devices.pop_back();
    EXPECT_EQ(machine::choose_device(devices)->path, "/dev/video2");
    devices.erase(devices.begin() + 2);
    EXPECT_EQ(machine::choose_device(devices), nullptr);
    EXPECT_EQ(no_device(devices).detail, "Permission denied");
}

TEST(VideoSignal, TimingsTellTheRateOfFramesAlsoOfFieldsAndReducedOnes)
{
    v4l2_bt_timings timings = {};
    timings.width = 1920;
    timings.height = 1080;
    timings.hfrontporch = 88;
    timings.hsync = 44;
    timings.hbackporch = 148;
    timings.vfrontporch = 4;
    timings.vsync = 5;
    timings.vbackporch = 36;
    timings.pixelclock = 148500000;
    EXPECT_EQ(machine::describe(machine::signal_of(timings)), "1920x1080 at 60 fps");
    EXPECT_EQ(machine::objection_to(machine::signal_of(timings), "/dev/video0").detail, "");
    timings.flags = V4L2_DV_FL_REDUCED_FPS;
    EXPECT_NEAR(machine::signal_of(timings).fps, 60000 / 1001.0, 1e-6);
    timings.flags = 0;
    timings.interlaced = V4L2_DV_INTERLACED;
    timings.pixelclock = 74250000;
    timings.vfrontporch = 2;
    timings.vbackporch = 15;
    timings.il_vfrontporch = 2;
    timings.il_vsync = 5;
    timings.il_vbackporch = 16;
    EXPECT_NEAR(machine::signal_of(timings).fps, 30, 1e-6);
    EXPECT_EQ(
        machine::objection_to(machine::signal_of(timings), "/dev/video0").detail.find("1920x1080 interlaced at 30 fps"),
        0u);
    for (int error : {ENOLINK, ENOLCK, ERANGE})
        EXPECT_NE(machine::objection_to(machine::signal_of_error(error), "/dev/video0").remedy, "") << error;
    EXPECT_EQ(machine::objection_to(machine::signal_of_error(ENOTTY), "/dev/video0").detail, "")
        << "a device without timings";
}

TEST(CaptureMode, MostPixelsASecondThenWhatIsShownAsItIsThenWhatIsNotCompressed)
{
    const std::vector<CaptureMode> dongle = {{V4L2_PIX_FMT_YUYV, 1920, 1080, 5},
                                             {V4L2_PIX_FMT_YUYV, 1280, 720, 30},
                                             {V4L2_PIX_FMT_MJPEG, 1280, 720, 60},
                                             {V4L2_PIX_FMT_MJPEG, 1920, 1080, 30}};
    auto none = [](uint32_t) { return false; };
    auto chosen = choose_mode(dongle, {}, none);
    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->width, 1920);
    EXPECT_EQ(chosen->v4l2, V4L2_PIX_FMT_MJPEG);
    chosen = choose_mode(dongle, {0, 1280, 720, 0}, none);
    EXPECT_EQ(chosen->fps, 60);
    EXPECT_EQ(choose_mode(dongle, {fourcc_of("yuyv"), 1280, 0, 0}, none)->fps, 30);
    EXPECT_FALSE(choose_mode(dongle, {0, 640, 0, 0}, none));

    const std::vector<CaptureMode> receiver = {
        {V4L2_PIX_FMT_JPEG, 1920, 1080, 0}, {V4L2_PIX_FMT_NV12, 1920, 1080, 0}, {V4L2_PIX_FMT_XBGR32, 1920, 1080, 0}};
    EXPECT_EQ(choose_mode(receiver, {}, none)->v4l2, V4L2_PIX_FMT_NV12);
    chosen = choose_mode(receiver, {}, [](uint32_t drm) { return drm == DRM_FORMAT_XRGB8888; });
    EXPECT_EQ(chosen->v4l2, V4L2_PIX_FMT_XBGR32);
}

TEST(PixelFormat, PlanesFollowEachOther)
{
    Geometry geometry;
    geometry.v4l2 = V4L2_PIX_FMT_YUV420;
    geometry.width = 100;
    geometry.height = 50;
    geometry.bytes_per_line = 128;
    const display::PixelLayout layout = layout_of(geometry);
    EXPECT_EQ(layout.offsets, (std::array<uint32_t, 3>{0, 6400, 8000}));
    EXPECT_EQ(layout.pitches, (std::array<uint32_t, 3>{128, 64, 64}));
    EXPECT_FALSE(layout.full_range || layout.bt709);
    geometry.v4l2 = V4L2_PIX_FMT_XBGR32;
    EXPECT_TRUE(layout_of(geometry).full_range);
}

TEST(Converter, PaintsEachFormatInItsColoursWithBlackBeside)
{
    Converter converter;
    Painted painted(200, 50); // twice as wide as the frame: borders left and right
    const struct {
        const char* what;
        Plain frame;
        uint32_t colour;
    } frames[] = {
        {"NV12", Plain(V4L2_PIX_FMT_NV12, 64, {81, 90, 240}), 0xFF0000},
        {"YUYV", Plain(V4L2_PIX_FMT_YUYV, 128, {145, 54, 145, 34}), 0x00FF00},
        {"UYVY, full range", Plain(V4L2_PIX_FMT_UYVY, 128, {255, 29, 107, 29}, true), 0x0000FF},
        {"XR24", Plain(V4L2_PIX_FMT_XBGR32, 256, {0x10, 0x80, 0xF0, 0}), 0xF08010},
        {"BGR3", Plain(V4L2_PIX_FMT_BGR24, 192, {0x10, 0x80, 0xF0}), 0xF08010},
    };
    for (const auto& [what, plain, colour] : frames) {
        ASSERT_TRUE(converter.paint(plain.frame, 0, painted.canvas)) << what;
        expect_colour(painted.at(100, 25), colour, what);
        expect_colour(painted.at(20, 25), 0, what);
        EXPECT_FALSE(is_black(plain.frame));
        EXPECT_FALSE(is_black(painted.canvas));
    }
    const Plain black(V4L2_PIX_FMT_NV12, 64, {18, 128, 128});
    EXPECT_TRUE(is_black(black.frame));
    ASSERT_TRUE(converter.paint(black.frame, 0, painted.canvas));
    EXPECT_TRUE(is_black(painted.canvas));
}

TEST(Converter, DecodesMotionJpegAndRefusesWhatIsDamaged)
{
    Converter converter;
    Painted painted(64, 32);
    std::vector<uint8_t> jpeg = jpeg_of(76, 85, 255); // red, full range
    ASSERT_FALSE(jpeg.empty());
    display::ForeignFrame frame;
    frame.memory = jpeg.data();
    ASSERT_TRUE(converter.paint(frame, static_cast<uint32_t>(jpeg.size()), painted.canvas));
    expect_colour(painted.at(32, 16), 0xFE0000, "JPEG");
    EXPECT_FALSE(converter.paint(frame, 0, painted.canvas));
    jpeg.assign(jpeg.size(), 0x55);
    EXPECT_FALSE(converter.paint(frame, static_cast<uint32_t>(jpeg.size()), painted.canvas));
}

TEST(BlackSpell, IsSaidOnceWhenItLastsAndOnceWhenItIsOver)
{
    using News = BlackSpell::News;
    constexpr int64_t kSecond = 1'000'000'000;
    BlackSpell spell;
    for (int64_t round = 0; round < 2; round++) {
        const int64_t begin = round * 60 * kSecond;
        EXPECT_EQ(spell.look(true, begin), News::none);
        EXPECT_EQ(spell.look(true, begin + 4 * kSecond), News::none);
        EXPECT_EQ(spell.look(false, begin + 5 * kSecond), News::none) << "a dark scene";
        EXPECT_EQ(spell.look(true, begin + 6 * kSecond), News::none);
        EXPECT_EQ(spell.look(true, begin + 11 * kSecond), News::none);
        EXPECT_EQ(spell.look(true, begin + 12 * kSecond), News::lasts);
        EXPECT_EQ(spell.look(true, begin + 13 * kSecond), News::none);
        EXPECT_EQ(spell.look(false, begin + 14 * kSecond), News::over);
        EXPECT_EQ(spell.look(false, begin + 15 * kSecond), News::none);
    }
}

TEST(LeastAge, FollowsTheDeviceAndNotSingleFramesThatComeLate)
{
    LeastAge ages;
    EXPECT_EQ(ages.add(-20), 0);
    for (int i = 0; i < 300; i++)
        ages.add(i % 7 == 0 ? 90 : 40);
    EXPECT_EQ(ages.add(90), 40);
    for (int i = 0; i < 300; i++)
        ages.add(10);
    EXPECT_EQ(ages.add(10), 10);
}

TEST(SoundDelay, EvensOutWhatComesLaterAndIsKeptForSmallChanges)
{
    constexpr double kMostHeldMs = 100;
    const SoundDelay delay({30, true, -10});
    EXPECT_EQ(delay.ms(20, kMostHeldMs), 30 + 15 - 10);
    EXPECT_TRUE(delay.suits({16, true, -10}));
    EXPECT_FALSE(delay.suits({14, true, -10}));
    EXPECT_FALSE(delay.suits({30, false, -10}));
    EXPECT_FALSE(delay.suits({30, true, -20}));
    EXPECT_EQ(SoundDelay({-400, false, 0}).ms(20, kMostHeldMs), 76 - 20 - 100) << "no longer than buffers last";
    EXPECT_EQ(SoundDelay({400, false, 1000}).ms(20, kMostHeldMs), 1000);
}

TEST(Transit, IsTheMeanOfTheLatestHalfSecondThatIsOver)
{
    constexpr int64_t kMs = 1'000'000;
    Transit transit;
    transit.start(500 * kMs);
    transit.frames.add(999 * kMs, 1000); // not settled
    for (int64_t ms = 1000; ms < 1500; ms += 20)
        transit.frames.add(ms * kMs, ms % 40 == 0 ? 90 : 110);
    EXPECT_EQ(transit.frames.value(), std::nullopt);
    transit.frames.add(1500 * kMs, 110);
    EXPECT_EQ(transit.frames.value(), 100);
    transit.frames.add(1900 * kMs, 0);
    EXPECT_EQ(transit.frames.value(), 100);
    transit.start(1900 * kMs);
    EXPECT_EQ(transit.frames.value(), std::nullopt);
}

TEST(OutputBacklog, IsWhatThePlayerHasQueuedAndTheDeviceHas)
{
    hdmi_linux::DeviceStats device;
    device.period_frames = 100;
    device.period_count = 4;
    device.frames = 5000; // of earlier openings
    OutputBacklog backlog;
    const auto before_write = [&](int64_t taken, int64_t queued, bool paused = false) {
        device.frames = 5000 + taken;
        device.queued = queued;
        const int64_t frames = backlog.before_write(device, paused);
        backlog.wrote(100);
        return frames;
    };
    EXPECT_EQ(before_write(0, 400, true), 400);
    EXPECT_EQ(before_write(0, 400), 500);
    EXPECT_EQ(before_write(100, 400), 500);
    EXPECT_EQ(before_write(200, 350), 450) << "one is on its way to the device";
    EXPECT_EQ(before_write(200, 200), 200) << "the player threw its queue away";
    EXPECT_EQ(before_write(200, 400), 500);
}

TEST(RefreshesToHold, BringThePictureNearest)
{
    EXPECT_EQ(refreshes_to_hold(52, 15, 16.7, -3, 5), 2);
    EXPECT_EQ(refreshes_to_hold(17, 15, 16.7, -3, 5), 0);
    EXPECT_EQ(refreshes_to_hold(-9, 15, 16.7, -3, 5), -1);
    EXPECT_EQ(refreshes_to_hold(200, 15, 16.7, -3, 5), 5);
    EXPECT_EQ(refreshes_to_hold(-200, 15, 16.7, -3, 5), -3);
}

TEST(Commands, KeysOfWindowAndTerminal)
{
    EXPECT_EQ(command_of("Ctrl++"), Command::sound_later);
    EXPECT_EQ(command_of("-"), Command::sound_earlier);
    EXPECT_EQ(command_of("x"), Command::none);
    EXPECT_EQ(keys_in("q\x1b[A9\x1bOP+\n"), (std::vector<std::string>{"q", "9", "+"}));
    EXPECT_TRUE(keys_in("\x1b[1;5").empty());
}
