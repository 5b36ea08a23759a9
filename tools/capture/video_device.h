// SPDX-License-Identifier: MIT
/**
 * @file
 * A V4L2 capture device: the signal at its input, its modes, and frames that it
 * writes into memory that displays can read without a copy.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture/pixel_format.h"
#include "display/layout.h"
#include "machine/finding.h"
#include "machine/video_signal.h"

namespace capture
{

/// A frame that the device has written.
struct CapturedFrame {
    int index = 0;          ///< of its buffer
    uint32_t sequence = 0;  ///< the device counts every frame, also those that it could not write
    int64_t written_ns = 0; ///< the device's time stamp, CLOCK_MONOTONIC; 0: it has another clock
    uint32_t bytes = 0;     ///< used, of a compressed frame
    bool damaged = false;
};

/// One thread at a time, but for queue().
class VideoDevice
{
public:
    /// @return null with what is wrong in @p why
    static std::unique_ptr<VideoDevice> open(const std::string& path, machine::Finding* why);
    ~VideoDevice();
    VideoDevice(const VideoDevice&) = delete;
    VideoDevice& operator=(const VideoDevice&) = delete;

    const std::string& path() const { return path_; }
    const std::string& card() const { return card_; }
    /// Whether its input is one with timings.
    bool digital() const { return digital_; }

    /// Whether it was unplugged.
    bool gone() const;

    /// What comes in now. Of a digital input, the device is told the timings that were found.
    machine::VideoSignal detect();
    /// Those of formats that are shown; of a digital input, with the signal's size and rate.
    std::vector<CaptureMode> modes(const machine::VideoSignal& signal) const;

    /// @return false with what is wrong in @p why
    bool set_mode(const CaptureMode& mode, machine::Finding* why);
    const display::PixelLayout& layout() const { return layout_; }
    uint32_t format() const { return format_; }
    /// Frames a second; 0: the device does not tell.
    double fps() const { return fps_; }

    /// Buffers of the device's own, which it may give fewer of; mapped, and exported where it can do that. Replaces
    /// those of before. @return how many, 0 with what is wrong in @p why
    int allocate(int count, machine::Finding* why);
    /// Of buffer @p index.
    display::ForeignFrame frame(int index) const;

    bool start(machine::Finding* why);
    /// The device owns no buffer any more.
    void stop();
    /// Stops, and gives all buffers back: only then it takes other timings.
    void reset();

    /// What wait() saw. More than one may be true.
    struct News {
        bool frame = false;  ///< take() has one
        bool signal = false; ///< the signal has changed, or may have
        bool gone = false;   ///< the device is not there any more
    };
    News wait(int timeout_ms);
    std::optional<CapturedFrame> take();
    /// Gives a buffer to the device. From any thread.
    bool queue(int index);

private:
    struct Buffer {
        void* memory = nullptr;
        size_t bytes = 0;
        int dmabuf = -1;
    };

    VideoDevice(std::string path, int fd) : path_(std::move(path)), fd_(fd) {}
    bool examine(machine::Finding* why);
    void select_input();
    void add_sizes(uint32_t format, std::vector<CaptureMode>* modes) const;
    void add_rates(uint32_t format, int width, int height, std::vector<CaptureMode>* modes) const;
    bool map(int index, Buffer* buffer) const;
    void release_buffers();
    void read_events(News* news);
    machine::Finding failure(const std::string& what, int error) const;
    bool frame_rate_from_device(double wanted);

    const std::string path_;
    const int fd_;
    std::string card_;
    uint32_t type_ = 0; ///< v4l2_buf_type
    bool digital_ = false;
    double signal_fps_ = 0;
    display::PixelLayout layout_;
    uint32_t format_ = 0;
    double fps_ = 0;
    bool running_ = false;
    std::vector<Buffer> buffers_;
};

} // namespace capture
