// SPDX-License-Identifier: MIT
#include "picture/feed.h"

#include <pthread.h>

#include <algorithm>

#include "common/clock.h"

namespace view
{
namespace
{

/// What a device needs at a time: one being written, one behind it, one that was just taken out.
constexpr int kDeviceBuffers = 3;
/// Of frames that are painted, while some wait for the painter.
constexpr int kPaintedBuffers = 6;
/// Frames on their way to the painter and from it.
constexpr int kPainting = 2;
/// Frames that come closer together, in refreshes of the display, are counted as a burst.
constexpr double kBurstRefreshes = 0.5;

} // namespace

Feed::~Feed() { stop(); }

bool Feed::start(int kept, machine::Finding* why)
{
    counted_ = false;
    stop_ = false;
    if (device_->layout().fourcc == 0)
        why_painted_ = capture::name_of(device_->format()) + " is compressed";
    else if (!display_->reads(device_->layout().fourcc))
        why_painted_ = "the display does not read " + capture::name_of(device_->format());
    direct_ = why_painted_.empty() && start_direct(kept);
    if (!direct_ && !start_painted(kept, why))
        return false;
    return device_->start(why);
}

/// The device writes where the display reads.
bool Feed::start_direct(int kept)
{
    machine::Finding ignored;
    const int count = device_->allocate(kept + kDeviceBuffers, &ignored);
    if (count < kept + kDeviceBuffers) {
        why_painted_ = "the device has too few buffers";
        return false;
    }
    pool_ = std::make_unique<display::FramePool<ViewBuffer>>(count);
    of_index_.clear();
    for (int index = 0; index < count; index++) {
        ViewBuffer* buffer = pool_->acquire();
        buffer->index = index;
        buffer->surface = display_->adopt(device_->frame(index), &why_painted_);
        if (!buffer->surface)
            return false;
        of_index_.push_back(buffer);
    }
    for (int index = 0; index < count; index++)
        device_->queue(index);
    return true;
}

bool Feed::start_painted(int kept, machine::Finding* why)
{
    pool_.reset(); // the surfaces, before the memory that they show
    of_index_.clear();
    const int count = device_->allocate(kPaintedBuffers, why);
    if (count == 0)
        return false;
    pool_ = std::make_unique<display::FramePool<ViewBuffer>>(kept + kPainting);
    for (int index = 0; index < count; index++)
        device_->queue(index);
    painter_ = std::thread(&Feed::run_painter, this);
    return true;
}

void Feed::halt()
{
    if (!painter_.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
    }
    changed_.notify_all();
    painter_.join();
    jobs_.clear();
}

void Feed::stop()
{
    halt();
    device_->stop();
    pool_.reset();
    of_index_.clear();
    device_->reset();
}

ViewBuffer* Feed::take()
{
    give_back();
    const std::optional<CapturedFrame> frame = device_->take();
    if (!frame)
        return nullptr;
    count(*frame, common::now_ns());
    if (frame->damaged) {
        damaged_++;
        device_->queue(frame->index);
        return nullptr;
    }
    return direct_ ? take_direct(*frame) : take_painted(*frame);
}

/// What the player and the display are done with goes to the device.
void Feed::give_back()
{
    for (ViewBuffer* buffer : of_index_) {
        if (!pass(buffer, display::Owner::free, display::Owner::host))
            continue;
        // A display that came back may not be the one that took it.
        std::string ignored;
        if (!buffer->surface->current())
            if (auto surface = display_->adopt(device_->frame(buffer->index), &ignored))
                buffer->surface = std::move(surface);
        device_->queue(buffer->index);
    }
}

void Feed::count(const CapturedFrame& frame, int64_t now_ns)
{
    frames_++;
    const double refreshes = static_cast<double>(now_ns - came_ns_) * display_->refresh_hz() / 1e9;
    crowded_ += refreshes < kBurstRefreshes ? 1 : 0;
    came_ns_ = now_ns;
    if (counted_)
        missing_ += std::max(static_cast<int32_t>(frame.sequence - sequence_) - 1, 0);
    counted_ = true;
    sequence_ = frame.sequence;
    if (frame.written_ns != 0)
        age_ms_ = ages_.add(static_cast<double>(now_ns - frame.written_ns) / 1e6);
}

template <typename Pixels> void Feed::look_at(const Pixels& pixels, ViewBuffer* buffer)
{
    buffer->flash = false;
    if (!black_check_.due(buffer->arrived_ns) && !flashes_wanted_)
        return;
    const bool black = is_black(pixels);
    buffer->flash = flashes_wanted_ && black_ && !black;
    black_ = black;
}

void Feed::describe(const CapturedFrame& frame, ViewBuffer* buffer) const
{
    buffer->number = frames_;
    buffer->arrived_ns = came_ns_;
    buffer->written_ns = frame.written_ns;
    buffer->sequence = frame.sequence;
}

ViewBuffer* Feed::take_direct(const CapturedFrame& frame)
{
    ViewBuffer* buffer = of_index_[static_cast<size_t>(frame.index)];
    describe(frame, buffer);
    look_at(device_->frame(frame.index), buffer);
    return buffer;
}

ViewBuffer* Feed::take_painted(const CapturedFrame& frame)
{
    ViewBuffer* buffer = pool_->acquire();
    if (buffer == nullptr || !display_->provide_surface(buffer)) {
        no_buffer_++;
        if (buffer != nullptr)
            pass(buffer, display::Owner::host, display::Owner::free);
        device_->queue(frame.index);
        return nullptr;
    }
    describe(frame, buffer);
    buffer->stage = 0;
    buffer->painted_well = true;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        jobs_.push_back({frame, buffer});
    }
    changed_.notify_all();
    return buffer;
}

// A frame is given away when it arrives, and painted meanwhile. Flips come in order and so does the painting, so the
// display gets the frames in order whoever comes second.

void Feed::flipped(ViewBuffer* buffer)
{
    if (direct_ || (buffer->stage.fetch_or(ViewBuffer::kFlipped) & ViewBuffer::kPainted) != 0)
        present(buffer);
}

void Feed::dropped(ViewBuffer* buffer)
{
    if (direct_ || (buffer->stage.fetch_or(ViewBuffer::kDropped) & ViewBuffer::kPainted) != 0)
        pass(buffer, display::Owner::host, display::Owner::free);
}

void Feed::take_back()
{
    for (ViewBuffer& buffer : *pool_)
        if (pass(&buffer, display::Owner::player, display::Owner::host))
            dropped(&buffer);
}

void Feed::present(ViewBuffer* buffer)
{
    if (buffer->painted_well)
        display_->present(buffer);
    else
        display::release(buffer);
}

void Feed::run_painter()
{
    pthread_setname_np(pthread_self(), "painter");
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return stop_ || !jobs_.empty(); });
        if (stop_)
            return;
        const Job job = jobs_.front();
        jobs_.pop_front();
        lock.unlock();
        paint(job);
        lock.lock();
    }
}

void Feed::paint(const Job& job)
{
    ViewBuffer* const buffer = job.buffer;
    const bool wanted = (buffer->stage & ViewBuffer::kDropped) == 0;
    const display::Canvas canvas = buffer->surface->canvas();
    if (wanted) {
        buffer->painted_well = converter_.paint(device_->frame(job.frame.index), job.frame.bytes, canvas);
        (buffer->painted_well ? copied_ : damaged_)++;
        if (buffer->painted_well)
            look_at(canvas, buffer);
    }
    device_->queue(job.frame.index);
    const int before = buffer->stage.fetch_or(ViewBuffer::kPainted);
    if ((before & ViewBuffer::kFlipped) != 0)
        present(buffer);
    else if ((before & ViewBuffer::kDropped) != 0)
        pass(buffer, display::Owner::host, display::Owner::free);
}

FeedFigures Feed::figures() const
{
    FeedFigures figures;
    figures.frames = frames_;
    figures.missing = missing_;
    figures.damaged = damaged_;
    figures.no_buffer = no_buffer_;
    figures.copied = copied_;
    figures.crowded = crowded_;
    return figures;
}

} // namespace view
