// SPDX-License-Identifier: MIT
#include "capture/video_device.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "machine/access.h"

namespace capture
{
namespace
{

using machine::Finding;
using machine::Verdict;

constexpr uint32_t kMostEntries = 256; ///< of a list, should a driver never end it
/// Attempts to set the timings of a source that changes meanwhile.
constexpr int kMostSettings = 3;

/// Until the device has a buffer again.
constexpr useconds_t kErrorPauseUs = 1000;

int call(int fd, unsigned long request, void* argument)
{
    int result = 0;
    do
        result = ioctl(fd, request, argument);
    while (result != 0 && errno == EINTR);
    return result;
}

bool is_multiplanar(uint32_t type) { return type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE; }

Geometry geometry_of(const v4l2_format& format)
{
    Geometry geometry;
    if (is_multiplanar(format.type)) {
        const v4l2_pix_format_mplane& pixels = format.fmt.pix_mp;
        geometry = {pixels.pixelformat,
                    static_cast<int>(pixels.width),
                    static_cast<int>(pixels.height),
                    pixels.plane_fmt[0].bytesperline,
                    pixels.ycbcr_enc,
                    pixels.quantization,
                    pixels.colorspace};
    } else {
        const v4l2_pix_format& pixels = format.fmt.pix;
        geometry = {pixels.pixelformat,
                    static_cast<int>(pixels.width),
                    static_cast<int>(pixels.height),
                    pixels.bytesperline,
                    pixels.ycbcr_enc,
                    pixels.quantization,
                    pixels.colorspace};
    }
    return geometry;
}

uint32_t field_of(const v4l2_format& format)
{
    return is_multiplanar(format.type) ? format.fmt.pix_mp.field : format.fmt.pix.field;
}

int memory_planes(const v4l2_format& format) { return is_multiplanar(format.type) ? format.fmt.pix_mp.num_planes : 1; }

void ask_for(const CaptureMode& mode, v4l2_format* format)
{
    if (is_multiplanar(format->type)) {
        v4l2_pix_format_mplane& pixels = format->fmt.pix_mp;
        pixels.width = static_cast<uint32_t>(mode.width);
        pixels.height = static_cast<uint32_t>(mode.height);
        pixels.pixelformat = mode.v4l2;
        pixels.field = V4L2_FIELD_NONE;
        pixels.num_planes = 0;
        std::memset(pixels.plane_fmt, 0, sizeof pixels.plane_fmt);
    } else {
        v4l2_pix_format& pixels = format->fmt.pix;
        pixels.width = static_cast<uint32_t>(mode.width);
        pixels.height = static_cast<uint32_t>(mode.height);
        pixels.pixelformat = mode.v4l2;
        pixels.field = V4L2_FIELD_NONE;
        pixels.bytesperline = 0;
        pixels.sizeimage = 0;
    }
}

bool is_progressive(uint32_t field) { return field == V4L2_FIELD_NONE || field == V4L2_FIELD_ANY; }

/// A buffer's record, with its planes where the device counts them.
struct BufferRecord {
    v4l2_buffer buffer = {};
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};

    BufferRecord(uint32_t type, int index)
    {
        buffer.type = type;
        buffer.memory = V4L2_MEMORY_MMAP;
        buffer.index = static_cast<uint32_t>(index);
        if (is_multiplanar(type)) {
            buffer.m.planes = planes;
            buffer.length = VIDEO_MAX_PLANES;
        }
    }
    BufferRecord(const BufferRecord&) = delete;
    BufferRecord& operator=(const BufferRecord&) = delete;

    uint32_t length() const { return is_multiplanar(buffer.type) ? planes[0].length : buffer.length; }
    uint32_t offset() const { return is_multiplanar(buffer.type) ? planes[0].m.mem_offset : buffer.m.offset; }
    uint32_t used() const { return is_multiplanar(buffer.type) ? planes[0].bytesused : buffer.bytesused; }
};

void subscribe(int fd, uint32_t type)
{
    v4l2_event_subscription wanted = {};
    wanted.type = type;
    call(fd, VIDIOC_SUBSCRIBE_EVENT, &wanted); // where the device has none, the signal is asked for
}

} // namespace

// --- Opening -----------------------------------------------------------------------------

std::unique_ptr<VideoDevice> VideoDevice::open(const std::string& path, Finding* why)
{
    const int fd = ::open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const std::optional<Finding> refusal = machine::Device(path).refusal();
        *why = refusal.value_or(Finding{Verdict::missing, path, std::strerror(errno), "sudo fuser -v " + path});
        return nullptr;
    }
    std::unique_ptr<VideoDevice> device(new VideoDevice(path, fd));
    return device->examine(why) ? std::move(device) : nullptr;
}

VideoDevice::~VideoDevice()
{
    reset();
    close(fd_);
}

bool VideoDevice::examine(Finding* why)
{
    v4l2_capability known = {};
    if (call(fd_, VIDIOC_QUERYCAP, &known) != 0) {
        *why = {Verdict::missing, path_, "is no V4L2 device", "hdmi-player-view --list"};
        return false;
    }
    const uint32_t caps = (known.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? known.device_caps : known.capabilities;
    card_ = reinterpret_cast<const char*>(known.card);
    if ((caps & V4L2_CAP_VIDEO_CAPTURE) != 0)
        type_ = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    else if ((caps & V4L2_CAP_VIDEO_CAPTURE_MPLANE) != 0)
        type_ = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    if (type_ == 0 || (caps & V4L2_CAP_STREAMING) == 0) {
        *why = {Verdict::missing, path_, "does not capture video", "hdmi-player-view --list"};
        return false;
    }
    select_input();
    subscribe(fd_, V4L2_EVENT_SOURCE_CHANGE);
    return true;
}

/// The one in use, if it is digital, else the first that is.
void VideoDevice::select_input()
{
    int current = 0;
    v4l2_input input = {};
    if (call(fd_, VIDIOC_G_INPUT, &current) == 0) {
        input.index = static_cast<uint32_t>(current);
        if (call(fd_, VIDIOC_ENUMINPUT, &input) == 0 && (input.capabilities & V4L2_IN_CAP_DV_TIMINGS) != 0)
            digital_ = true;
    }
    input = {};
    for (; !digital_ && input.index < kMostEntries && call(fd_, VIDIOC_ENUMINPUT, &input) == 0; input.index++) {
        int wanted = static_cast<int>(input.index);
        digital_ = (input.capabilities & V4L2_IN_CAP_DV_TIMINGS) != 0 && call(fd_, VIDIOC_S_INPUT, &wanted) == 0;
    }
}

Finding VideoDevice::failure(const std::string& what, int error) const
{
    switch (error) {
    case EBUSY: return {Verdict::refused, path_, "another program captures from it", "sudo fuser -v " + path_};
    case ENODEV: return {Verdict::missing, path_, "was unplugged", "sudo dmesg | tail"};
    case ENOSPC:
        return {Verdict::refused, path_, what + ": the USB bus has no room for it, or its port is too slow",
                "lsusb -t"};
    default: return {Verdict::missing, path_, what + ": " + std::strerror(error), "sudo dmesg | tail"};
    }
}

bool VideoDevice::gone() const
{
    v4l2_capability known = {};
    return call(fd_, VIDIOC_QUERYCAP, &known) != 0;
}

// --- Signal and mode ---------------------------------------------------------------------

machine::VideoSignal VideoDevice::detect()
{
    signal_fps_ = 0;
    if (!digital_)
        return {};
    machine::VideoSignal signal;
    for (int attempt = 0; attempt < kMostSettings; attempt++) {
        v4l2_dv_timings timings = {};
        signal = machine::detect_signal(fd_, &timings);
        if (signal.state != machine::VideoSignal::State::present)
            return signal;
        call(fd_, VIDIOC_S_DV_TIMINGS, &timings);
        // The setting itself may count as a change of the source, of its colours for example: asked again, it tells.
        News news;
        read_events(&news);
        if (!news.signal) {
            signal_fps_ = signal.fps;
            return signal;
        }
    }
    signal.state = machine::VideoSignal::State::unstable;
    return signal;
}

std::vector<CaptureMode> VideoDevice::modes(const machine::VideoSignal& signal) const
{
    std::vector<CaptureMode> modes;
    v4l2_fmtdesc format = {};
    format.type = type_;
    for (; format.index < kMostEntries && call(fd_, VIDIOC_ENUM_FMT, &format) == 0; format.index++) {
        if (find_format(format.pixelformat) == nullptr)
            continue;
        if (signal.state == machine::VideoSignal::State::present)
            modes.push_back({format.pixelformat, signal.width, signal.height, 0});
        else
            add_sizes(format.pixelformat, &modes);
    }
    return modes;
}

void VideoDevice::add_sizes(uint32_t format, std::vector<CaptureMode>* modes) const
{
    v4l2_frmsizeenum size = {};
    size.pixel_format = format;
    for (; size.index < kMostEntries && call(fd_, VIDIOC_ENUM_FRAMESIZES, &size) == 0; size.index++) {
        if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
            add_rates(format, static_cast<int>(size.discrete.width), static_cast<int>(size.discrete.height), modes);
            continue;
        }
        add_rates(format, static_cast<int>(size.stepwise.max_width), static_cast<int>(size.stepwise.max_height), modes);
        return;
    }
    // A device that does not list sizes sends the one that it is set to.
    v4l2_format now = {};
    now.type = type_;
    if (size.index == 0 && call(fd_, VIDIOC_G_FMT, &now) == 0) {
        const Geometry geometry = geometry_of(now);
        add_rates(format, geometry.width, geometry.height, modes);
    }
}

void VideoDevice::add_rates(uint32_t format, int width, int height, std::vector<CaptureMode>* modes) const
{
    v4l2_frmivalenum interval = {};
    interval.pixel_format = format;
    interval.width = static_cast<uint32_t>(width);
    interval.height = static_cast<uint32_t>(height);
    for (; interval.index < kMostEntries && call(fd_, VIDIOC_ENUM_FRAMEINTERVALS, &interval) == 0; interval.index++) {
        const v4l2_fract& step =
            interval.type == V4L2_FRMIVAL_TYPE_DISCRETE ? interval.discrete : interval.stepwise.min;
        if (step.numerator > 0)
            modes->push_back({format, width, height, static_cast<double>(step.denominator) / step.numerator});
    }
    if (interval.index == 0)
        modes->push_back({format, width, height, 0});
}

bool VideoDevice::set_mode(const CaptureMode& mode, Finding* why)
{
    release_buffers();
    v4l2_format format = {};
    format.type = type_;
    call(fd_, VIDIOC_G_FMT, &format);
    ask_for(mode, &format);
    if (call(fd_, VIDIOC_S_FMT, &format) != 0) {
        *why = failure("does not take " + name_of(mode.v4l2), errno);
        return false;
    }
    const Geometry geometry = geometry_of(format);
    if (geometry.v4l2 != mode.v4l2 || memory_planes(format) != 1) {
        *why = {Verdict::missing, path_, "does not send " + name_of(mode.v4l2),
                "v4l2-ctl -d " + path_ + " --list-formats"};
        return false;
    }
    if (!is_progressive(field_of(format))) {
        const std::string asked = digital_ ? " --query-dv-timings" : " --list-formats-ext";
        *why = {Verdict::missing, path_, "sends fields: an interlaced signal is not shown",
                "v4l2-ctl -d " + path_ + asked + "   # set the source to a progressive mode, such as 1080p"};
        return false;
    }
    layout_ = layout_of(geometry);
    format_ = mode.v4l2;
    fps_ = digital_ ? signal_fps_ : 0;
    if (!digital_)
        frame_rate_from_device(mode.fps);
    return true;
}

/// Sets the rate, and takes the device's word for what became of it.
bool VideoDevice::frame_rate_from_device(double wanted)
{
    constexpr uint32_t kDenominator = 1000;
    v4l2_streamparm rate = {};
    rate.type = type_;
    if (wanted > 0) {
        rate.parm.capture.timeperframe = {kDenominator, static_cast<uint32_t>(std::lround(wanted * kDenominator))};
        call(fd_, VIDIOC_S_PARM, &rate);
    }
    if (call(fd_, VIDIOC_G_PARM, &rate) != 0 || rate.parm.capture.timeperframe.numerator == 0)
        return false;
    const v4l2_fract& period = rate.parm.capture.timeperframe;
    fps_ = static_cast<double>(period.denominator) / period.numerator;
    return true;
}

// --- Buffers -----------------------------------------------------------------------------

int VideoDevice::allocate(int count, Finding* why)
{
    release_buffers();
    v4l2_requestbuffers request = {};
    request.count = static_cast<uint32_t>(count);
    request.type = type_;
    request.memory = V4L2_MEMORY_MMAP;
    if (call(fd_, VIDIOC_REQBUFS, &request) != 0) {
        *why = failure("gives no buffers", errno);
        return 0;
    }
    buffers_.resize(request.count);
    for (size_t i = 0; i < buffers_.size(); i++)
        if (!map(static_cast<int>(i), &buffers_[i])) {
            *why = failure("its buffers cannot be mapped", errno);
            release_buffers();
            return 0;
        }
    return static_cast<int>(buffers_.size());
}

bool VideoDevice::map(int index, Buffer* buffer) const
{
    BufferRecord record(type_, index);
    if (call(fd_, VIDIOC_QUERYBUF, &record.buffer) != 0)
        return false;
    void* memory =
        mmap(nullptr, record.length(), PROT_READ | PROT_WRITE, MAP_SHARED, fd_, static_cast<off_t>(record.offset()));
    if (memory == MAP_FAILED)
        return false;
    buffer->memory = memory;
    buffer->bytes = record.length();
    v4l2_exportbuffer shared = {};
    shared.type = type_;
    shared.index = static_cast<uint32_t>(index);
    shared.flags = O_CLOEXEC | O_RDWR;
    if (call(fd_, VIDIOC_EXPBUF, &shared) == 0)
        buffer->dmabuf = shared.fd;
    return true;
}

void VideoDevice::release_buffers()
{
    if (buffers_.empty())
        return;
    for (const Buffer& buffer : buffers_) {
        if (buffer.memory != nullptr)
            munmap(buffer.memory, buffer.bytes);
        if (buffer.dmabuf >= 0)
            close(buffer.dmabuf);
    }
    buffers_.clear();
    v4l2_requestbuffers none = {};
    none.type = type_;
    none.memory = V4L2_MEMORY_MMAP;
    call(fd_, VIDIOC_REQBUFS, &none);
}

display::ForeignFrame VideoDevice::frame(int index) const
{
    const Buffer& buffer = buffers_[static_cast<size_t>(index)];
    return {layout_, static_cast<const uint8_t*>(buffer.memory), buffer.dmabuf};
}

// --- Streaming ---------------------------------------------------------------------------

bool VideoDevice::start(Finding* why)
{
    int type = static_cast<int>(type_);
    if (call(fd_, VIDIOC_STREAMON, &type) != 0) {
        *why = failure("does not start", errno);
        return false;
    }
    running_ = true;
    return true;
}

void VideoDevice::reset()
{
    stop();
    release_buffers();
}

void VideoDevice::stop()
{
    int type = static_cast<int>(type_);
    if (running_)
        call(fd_, VIDIOC_STREAMOFF, &type);
    running_ = false;
}

VideoDevice::News VideoDevice::wait(int timeout_ms)
{
    pollfd ready = {fd_, static_cast<short>(POLLPRI | (running_ ? POLLIN : 0)), 0};
    poll(&ready, 1, timeout_ms);
    News news;
    news.frame = running_ && (ready.revents & POLLIN) != 0;
    if ((ready.revents & POLLPRI) != 0)
        read_events(&news);
    // A queue without buffers is in error too: only a device that does not answer is gone.
    if ((ready.revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
        news.gone = gone();
        usleep(kErrorPauseUs);
    }
    return news;
}

void VideoDevice::read_events(News* news)
{
    v4l2_event event = {};
    while (call(fd_, VIDIOC_DQEVENT, &event) == 0)
        news->signal |= event.type == V4L2_EVENT_SOURCE_CHANGE;
}

std::optional<CapturedFrame> VideoDevice::take()
{
    BufferRecord record(type_, 0);
    if (call(fd_, VIDIOC_DQBUF, &record.buffer) != 0)
        return std::nullopt;
    const v4l2_buffer& buffer = record.buffer;
    CapturedFrame frame;
    frame.index = static_cast<int>(buffer.index);
    frame.sequence = buffer.sequence;
    if ((buffer.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK) == V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC)
        frame.written_ns = buffer.timestamp.tv_sec * int64_t{1'000'000'000} + buffer.timestamp.tv_usec * int64_t{1000};
    frame.bytes = record.used();
    frame.damaged = (buffer.flags & V4L2_BUF_FLAG_ERROR) != 0;
    return frame;
}

bool VideoDevice::queue(int index)
{
    BufferRecord record(type_, index);
    return call(fd_, VIDIOC_QBUF, &record.buffer) == 0;
}

} // namespace capture
