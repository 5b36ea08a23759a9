// SPDX-License-Identifier: MIT
/**
 * @file
 * What a playback device has queued and plays at a given time. Pure: the time
 * is an argument, nothing blocks, and a sink receives what was heard.
 */
#pragma once

#include <algorithm>
#include <cstring>
#include <vector>

#include "sim.h"

namespace sim
{

/// Frames that were heard, in order.
class PlaySink
{
public:
    virtual ~PlaySink() = default;
    /// @p begins_block: they do not belong to the block of the frames before.
    virtual void sound(const int16_t* samples, int64_t frames, int64_t heard_ns, bool begins_block) = 0;
    virtual void silence(int64_t frames, int64_t heard_ns) = 0;
};

/**
 * A device that starts with the first write. Its clock runs on while its queue
 * is empty. Positions are frames of that clock, and so count the silence of an
 * underrun as well as sound.
 */
class PlayQueue
{
public:
    PlayQueue() = default;
    PlayQueue(int rate, double error_ppm, int channels, int period_frames, int period_count)
        : pace_(rate, error_ppm), channels_(channels), period_(period_frames), capacity_(period_frames * period_count),
          ring_(static_cast<size_t>(capacity_) * static_cast<size_t>(channels))
    {
    }

    /// Frames written and not completely heard.
    int queued(int64_t now) const { return static_cast<int>(std::max<int64_t>(0, end_ - clock(now))); }
    int capacity() const { return capacity_; }
    int room(int64_t now) const { return capacity_ - queued(now); }
    /// When there is room for @p frames frames.
    int64_t room_ns(int frames) const { return heard_ns(end_ - capacity_ + frames); }
    /// When the queue runs or ran empty; kNever before the first write.
    int64_t empty_ns() const { return started_ ? heard_ns(end_) : kNever; }

    /**
     * Queues @p frames frames, at most room(), after a drain() at @p now. After
     * an underrun, silence up to @p now precedes them.
     */
    void put(int64_t now, const uint8_t* data, int frames, float gain, PlaySink* sink)
    {
        if (!started_) {
            started_ = true;
            start_ns_ = now;
        }
        if (now > heard_ns(end_))
            fill_gap(now, sink);
        for (int done = 0; done < frames;) {
            const auto at = static_cast<int>((end_ + done) % capacity_);
            const int run = std::min(frames - done, capacity_ - at);
            copy(&ring_[index(at)], data + index(done) * kBytesPerSample, run * channels_, gain);
            done += run;
        }
        end_ += frames;
    }

    /// Passes what was heard by @p now to @p sink (null: drops it), in pieces that end with the device's periods.
    void drain(int64_t now, PlaySink* sink)
    {
        const int64_t heard = std::min(end_, clock(now));
        while (first_ < heard) {
            const auto at = static_cast<int>(first_ % capacity_);
            // A piece never wraps, since the ring holds a whole number of periods.
            const int64_t run = std::min(heard - first_, period_ - first_ % period_);
            if (sink != nullptr)
                sink->sound(&ring_[index(at)], run, heard_ns(first_), first_ % period_ == 0);
            first_ += run;
        }
    }

private:
    size_t index(int frame) const { return static_cast<size_t>(frame) * static_cast<size_t>(channels_); }
    int64_t clock(int64_t now) const { return started_ ? pace_.count_at(now - start_ns_) : 0; }
    int64_t heard_ns(int64_t position) const { return start_ns_ + pace_.time_of(position); }

    void fill_gap(int64_t now, PlaySink* sink)
    {
        // The present frame has begun as silence.
        int64_t next = clock(now);
        if (heard_ns(next) < now)
            next++;
        if (sink != nullptr)
            sink->silence(next - end_, heard_ns(end_));
        first_ = end_ = next;
    }

    // The caller's bytes need not be aligned.
    static void copy(int16_t* to, const uint8_t* from, int samples, float gain)
    {
        memcpy(to, from, static_cast<size_t>(samples) * kBytesPerSample);
        if (gain != 1.0f)
            std::transform(to, to + samples, to, [gain](int16_t sample) {
                return static_cast<int16_t>(std::lrint(static_cast<float>(sample) * gain));
            });
    }

    Pace pace_;
    int channels_ = 1;
    int period_ = 1;
    int capacity_ = 1;
    bool started_ = false;
    int64_t start_ns_ = 0; ///< position 0 is heard
    int64_t first_ = 0;    ///< oldest position that the ring still holds
    int64_t end_ = 0;      ///< position after the last frame written
    std::vector<int16_t> ring_;
};

} // namespace sim
