// SPDX-License-Identifier: MIT
/**
 * @file
 * A V4L2 capture device with an HDMI input, in the place of the kernel's: ioctl()
 * and poll() of the program under test come here (LINKER:--wrap). Its frames are
 * 64x32, XR24; each is one colour all over.
 */
#pragma once

#include <linux/videodev2.h>
#include <poll.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

/// One at a time. From any thread.
class V4l2Device
{
public:
    static constexpr uint32_t kWidth = 64;
    static constexpr uint32_t kHeight = 32;

    V4l2Device();
    ~V4l2Device();
    V4l2Device(const V4l2Device&) = delete;
    V4l2Device& operator=(const V4l2Device&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(memory_); }

    // How it is, while nobody has opened it:

    uint32_t format = V4L2_PIX_FMT_XBGR32; ///< the only one that it sends
    uint32_t field = V4L2_FIELD_NONE;
    int stream_error = 0; ///< of VIDIOC_STREAMON

    /// A frame of @p colour comes in; waits for a buffer. @return false if there was none for long
    bool deliver(uint32_t colour);
    /// The source sends another signal.
    void change_signal();
    void unplug();

    // What the program under test calls:

    bool owns(int fd) const;
    int ioctl(unsigned long request, void* argument);
    int poll(pollfd* descriptor, int timeout_ms);

private:
    int answer(unsigned long request, void* argument);
    int request_buffers(v4l2_requestbuffers* request);
    int take_frame(v4l2_buffer* buffer);

    const int memory_; ///< of all buffers
    std::mutex mutex_; ///< what follows
    std::condition_variable changed_;
    std::deque<uint32_t> empty_;
    std::deque<v4l2_buffer> full_;
    uint32_t sequence_ = 0;
    bool event_ = false;
    bool timings_set_ = false;
    bool gone_ = false;
};
