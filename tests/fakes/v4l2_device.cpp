// SPDX-License-Identifier: MIT
#include "v4l2_device.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <utility>

namespace
{

constexpr size_t kBufferBytes = size_t{V4l2Device::kWidth} * V4l2Device::kHeight * sizeof(uint32_t);
constexpr std::chrono::seconds kPatience{20};

V4l2Device* g_device = nullptr;

template <typename Argument> Argument& as(void* argument) { return *static_cast<Argument*>(argument); }

int fail(int error)
{
    errno = error;
    return -1;
}

} // namespace

// Visible: libraries of the sanitizers refer to them.
#pragma GCC visibility push(default)
extern "C" {
int __real_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...);
int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return g_device != nullptr && g_device->owns(fd) ? g_device->ioctl(request, argument)
                                                     : __real_ioctl(fd, request, argument);
}
int __real_poll(pollfd* descriptors, nfds_t count, int timeout_ms);
int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout_ms);
int __wrap_poll(pollfd* descriptors, nfds_t count, int timeout_ms)
{
    return g_device != nullptr && count == 1 && g_device->owns(descriptors->fd)
               ? g_device->poll(descriptors, timeout_ms)
               : __real_poll(descriptors, count, timeout_ms);
}
}
#pragma GCC visibility pop

V4l2Device::V4l2Device() : memory_(memfd_create("v4l2", MFD_CLOEXEC)) { g_device = this; }

V4l2Device::~V4l2Device()
{
    g_device = nullptr;
    close(memory_);
}

bool V4l2Device::owns(int fd) const
{
    struct stat mine = {};
    struct stat other = {};
    return fstat(memory_, &mine) == 0 && fstat(fd, &other) == 0 && mine.st_ino == other.st_ino &&
           mine.st_dev == other.st_dev;
}

bool V4l2Device::deliver(uint32_t colour)
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (!changed_.wait_for(lock, kPatience, [this] { return !empty_.empty(); }))
        return false;
    v4l2_buffer buffer = {};
    buffer.index = empty_.front();
    buffer.sequence = sequence_++;
    buffer.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    buffer.timestamp = {now.tv_sec, now.tv_nsec / 1000};
    const std::vector<uint32_t> pixels(kBufferBytes / sizeof colour, colour);
    if (pwrite(memory_, pixels.data(), kBufferBytes, static_cast<off_t>(buffer.index * kBufferBytes)) < 0)
        return false;
    empty_.pop_front();
    full_.push_back(buffer);
    changed_.notify_all();
    return true;
}

void V4l2Device::change_signal()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    event_ = true;
    changed_.notify_all();
}

void V4l2Device::unplug()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    gone_ = true;
    changed_.notify_all();
}

int V4l2Device::poll(pollfd* descriptor, int timeout_ms)
{
    std::unique_lock<std::mutex> lock(mutex_);
    const auto ready = [this] { return event_ || gone_ || !full_.empty(); };
    changed_.wait_for(lock, std::chrono::milliseconds(timeout_ms), ready);
    const bool frame = (descriptor->events & POLLIN) != 0 && !full_.empty();
    descriptor->revents =
        static_cast<short>((frame ? POLLIN : 0) | (event_ ? POLLPRI : 0) | (gone_ ? POLLERR | POLLHUP : 0));
    return descriptor->revents != 0 ? 1 : 0;
}

int V4l2Device::ioctl(unsigned long request, void* argument)
{
    const std::lock_guard<std::mutex> lock(mutex_);
    const int error = gone_ ? ENODEV : answer(request, argument);
    changed_.notify_all();
    return error == 0 ? 0 : fail(error);
}

/// @return an error number, or 0
int V4l2Device::answer(unsigned long request, void* argument)
{
    switch (request) {
    case VIDIOC_QUERYCAP:
        as<v4l2_capability>(argument).capabilities = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
        return 0;
    case VIDIOC_ENUMINPUT:
        as<v4l2_input>(argument).capabilities = V4L2_IN_CAP_DV_TIMINGS;
        return as<v4l2_input>(argument).index == 0 ? 0 : EINVAL;
    case VIDIOC_QUERY_DV_TIMINGS:
        as<v4l2_dv_timings>(argument).bt.width = kWidth;
        as<v4l2_dv_timings>(argument).bt.height = kHeight;
        as<v4l2_dv_timings>(argument).bt.pixelclock = kWidth * kHeight * 60;
        return 0;
    case VIDIOC_ENUM_FMT:
        as<v4l2_fmtdesc>(argument).pixelformat = format;
        return as<v4l2_fmtdesc>(argument).index == 0 ? 0 : EINVAL;
    case VIDIOC_S_FMT:
        as<v4l2_format>(argument).fmt.pix.bytesperline = kWidth * sizeof(uint32_t);
        as<v4l2_format>(argument).fmt.pix.field = field;
        return 0;
    case VIDIOC_REQBUFS: return request_buffers(static_cast<v4l2_requestbuffers*>(argument));
    case VIDIOC_QUERYBUF:
        as<v4l2_buffer>(argument).length = kBufferBytes;
        as<v4l2_buffer>(argument).m.offset = static_cast<uint32_t>(as<v4l2_buffer>(argument).index * kBufferBytes);
        return 0;
    case VIDIOC_QBUF: empty_.push_back(as<v4l2_buffer>(argument).index); return 0;
    case VIDIOC_DQBUF: return take_frame(static_cast<v4l2_buffer*>(argument));
    case VIDIOC_STREAMON: return stream_error;
    case VIDIOC_STREAMOFF:
        empty_.clear();
        full_.clear();
        return 0;
    case VIDIOC_DQEVENT:
        as<v4l2_event>(argument).type = V4L2_EVENT_SOURCE_CHANGE;
        return std::exchange(event_, false) ? 0 : ENOENT;
    case VIDIOC_S_DV_TIMINGS:
        // New ones are a change of the source, as with drivers that change the colours along with the size.
        event_ |= !std::exchange(timings_set_, true);
        return 0;
    case VIDIOC_G_INPUT:
    case VIDIOC_G_FMT:
    case VIDIOC_SUBSCRIBE_EVENT: return 0;
    default: return ENOTTY;
    }
}

int V4l2Device::request_buffers(v4l2_requestbuffers* request)
{
    empty_.clear();
    full_.clear();
    return ftruncate(memory_, static_cast<off_t>(request->count * kBufferBytes)) == 0 ? 0 : ENOMEM;
}

int V4l2Device::take_frame(v4l2_buffer* buffer)
{
    if (full_.empty())
        return EAGAIN;
    *buffer = full_.front();
    full_.pop_front();
    return 0;
}
