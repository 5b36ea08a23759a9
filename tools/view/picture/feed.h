// SPDX-License-Identifier: MIT
/**
 * @file
 * The frames of a capture device as buffers that a display shows: the device's
 * own memory where the display reads it, else painted on the display's surfaces.
 */
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "capture/converter.h"
#include "capture/video_device.h"
#include "display/display.h"
#include "display/frame_pool.h"
#include "picture/black.h"
#include "picture/least_age.h"

namespace view
{

using capture::CapturedFrame;
using capture::Converter;
using capture::VideoDevice;

/// A frame on its way from the device to the display.
struct ViewBuffer : display::FrameBuffer {
    /// What has happened to a frame that is painted; who sets the second of two does what follows from both.
    enum Stage { kPainted = 1, kFlipped = 2, kDropped = 4 };
    std::atomic<int> stage{0};
    int index = 0;      ///< of the device's buffer
    int64_t number = 0; ///< frames that were taken before it
    int64_t arrived_ns = 0;
    int64_t written_ns = 0;   ///< the device's word; 0: it does not tell
    uint32_t sequence = 0;    ///< the device's count
    bool flash = false;       ///< not black, after one that was; see Feed::look_for_flashes()
    bool painted_well = true; ///< the painter's until kPainted is set
};

struct FeedFigures {
    int64_t frames = 0;    ///< that the device wrote
    int64_t missing = 0;   ///< that it could not write
    int64_t damaged = 0;   ///< not shown
    int64_t no_buffer = 0; ///< not shown: all buffers were in use
    int64_t copied = 0;    ///< painted instead of shown where they lie
    int64_t crowded = 0;   ///< that came within half a refresh of the display after the one before
};

/**
 * take() belongs to one thread. flipped() and dropped() may come from any, and
 * say what became of a buffer that was given away.
 */
class Feed
{
public:
    /// Both outlive the feed.
    Feed(VideoDevice* device, display::Display* display) : device_(device), display_(display) {}
    ~Feed();
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;

    /// Looks at each frame whether it is black. Before start().
    void look_for_flashes() { flashes_wanted_ = true; }
    /// Makes buffers of which the player and the display may keep @p kept. @return false with what is wrong in @p why
    bool start(int kept, machine::Finding* why);
    /// From now on nothing is painted, and the display gets no frame.
    void halt();
    /// Gives all memory back. No buffer may be the player's or the display's any more.
    void stop();

    /// The frame that the device has, the host's; null if it has none that can be shown. After VideoDevice::wait().
    ViewBuffer* take();
    /// The player flips a frame, or the viewer does without one: to the display, as soon as it is painted.
    void flipped(ViewBuffer* buffer);
    /// It will not be shown.
    void dropped(ViewBuffer* buffer);
    /// Nobody calls back any more for what the player still has.
    void take_back();
    /// Of this feed's buffers.
    bool owns(const void* handle) const { return pool_ && pool_->owns(handle); }

    bool direct() const { return direct_; }
    /// Why frames are painted; empty if they are not.
    const std::string& why_painted() const { return why_painted_; }
    FeedFigures figures() const;
    /// How old frames are when they come; 0 if the device does not tell.
    double age_ms() const { return age_ms_; }
    /// Whether the latest frame that was looked at, one a second, was black.
    bool black() const { return black_; }

private:
    struct Job {
        CapturedFrame frame;
        ViewBuffer* buffer;
    };

    bool start_direct(int kept);
    bool start_painted(int kept, machine::Finding* why);
    void give_back();
    ViewBuffer* take_direct(const CapturedFrame& frame);
    ViewBuffer* take_painted(const CapturedFrame& frame);
    void describe(const CapturedFrame& frame, ViewBuffer* buffer) const;
    void count(const CapturedFrame& frame, int64_t now_ns);
    template <typename Pixels> void look_at(const Pixels& pixels, ViewBuffer* buffer);
    void present(ViewBuffer* buffer);
    void run_painter();
    void paint(const Job& job);

    VideoDevice* const device_;
    display::Display* const display_;
    std::unique_ptr<display::FramePool<ViewBuffer>> pool_;
    std::vector<ViewBuffer*> of_index_; ///< direct: each of the device's buffers has its own
    bool direct_ = false;
    std::string why_painted_;
    bool counted_ = false;
    uint32_t sequence_ = 0; ///< of the frame before

    bool flashes_wanted_ = false;
    OnceASecond black_check_; ///< the painter's, or of who takes frames that nobody paints
    Converter converter_;     ///< the painter's
    std::thread painter_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Job> jobs_;
    bool stop_ = false;

    std::atomic<int64_t> frames_{0};
    std::atomic<int64_t> missing_{0};
    std::atomic<int64_t> damaged_{0};
    std::atomic<int64_t> no_buffer_{0};
    std::atomic<int64_t> copied_{0};
    std::atomic<int64_t> crowded_{0};
    int64_t came_ns_ = 0; ///< the frame before
    std::atomic<double> age_ms_{0};
    LeastAge ages_;
    std::atomic<bool> black_{false};
};

} // namespace view
