// SPDX-License-Identifier: MIT
/**
 * @file
 * What a capture device holds at a given time: a ring of complete periods of
 * the link's frames. Pure: the time is an argument, nothing blocks.
 */
#pragma once

#include <algorithm>
#include <deque>
#include <memory>

#include "sim.h"

namespace sim
{

constexpr int kLinkChannels = 2;
constexpr int kLinkFrameBytes = kLinkChannels * kBytesPerSample;

/// A signal on the link. Shared, because a read may still use it after another one has replaced it.
struct LinkSignal {
    hdmi_sim::Signal source;
    int64_t start_ns = 0; ///< when link frame 0 begins to pass
    Pace pace;

    int64_t passed(int64_t now) const { return pace.count_at(now - start_ns); }
};
using LinkSignalPtr = std::shared_ptr<const LinkSignal>;

/**
 * Positions are frames captured since the device was opened. They run through
 * one segment per signal: where a signal ends in the middle of a period, the
 * next one fills the rest of it.
 */
class CaptureRing
{
public:
    CaptureRing() = default;
    /// @p rate: that of the device's opening. A faster link fills shorter periods, and more of them are held.
    CaptureRing(int period_frames, int period_count, int rate)
        : period_(period_frames), count_(period_count), rate_(rate)
    {
    }

    /// The device was opened on a link that carries @p signal. The signal's open_at() chooses the first frame.
    void open(LinkSignalPtr signal, int64_t now)
    {
        const int64_t next = signal->passed(now);
        const int64_t link_frame = signal->source.open_at ? std::max(next, signal->source.open_at(next)) : next;
        segments_.push_back({std::move(signal), 0, link_frame, kNever});
    }

    /// The link carries @p signal from @p now on; capture goes on with the frame that passes next.
    void attach(LinkSignalPtr signal, int64_t now)
    {
        if (segments_.empty()) {
            open(std::move(signal), now);
            return;
        }
        detach(now);
        const int64_t link_frame = signal->passed(now);
        segments_.push_back({std::move(signal), captured(now), link_frame, kNever});
    }

    /// The link's signal ends @p now.
    void detach(int64_t now)
    {
        if (!segments_.empty() && segments_.back().end == kNever)
            segments_.back().end = captured(now);
    }

    /// Skips the periods that the ring no longer holds. @return how many the reader lost.
    int64_t drop_overrun(int64_t now)
    {
        const int64_t oldest = captured(now) / period_ - held();
        const int64_t reader = position_bytes_ / kLinkFrameBytes / period_;
        if (oldest <= reader)
            return 0;
        position_bytes_ = oldest * period_ * kLinkFrameBytes;
        forget_segments();
        return oldest - reader;
    }

    /// Bytes of complete periods that can be read and were not read yet. Not above 0: none.
    int64_t ready_bytes(int64_t now) const
    {
        return captured(now) / step() * step() * kLinkFrameBytes - position_bytes_;
    }

    /// When the next periods can be read; kNever without a signal.
    int64_t next_period_ns(int64_t now) const
    {
        if (!is_live())
            return kNever;
        const Segment& live = segments_.back();
        const int64_t end = (captured(now) / step() + 1) * step();
        return live.signal->start_ns + live.signal->pace.time_of(live.link_frame + end - live.first);
    }

    /// Bytes of consecutive frames of one signal.
    struct Piece {
        LinkSignalPtr signal;
        int64_t link_frame = 0; ///< the first
        int skip_bytes = 0;     ///< bytes of the first frame that were read before
        int bytes = 0;
    };
    /**
     * Advances the reader by at most @p max_bytes, which must be ready.
     * @return what it passed: whole frames, or a part of a single one.
     */
    Piece take(int max_bytes)
    {
        const int64_t position = position_bytes_ / kLinkFrameBytes;
        const auto segment =
            std::find_if(segments_.begin(), segments_.end(), [position](const Segment& s) { return position < s.end; });
        Piece piece = {segment->signal, segment->link_frame + position - segment->first,
                       static_cast<int>(position_bytes_ % kLinkFrameBytes), 0};
        if (piece.skip_bytes == 0 && max_bytes >= kLinkFrameBytes)
            piece.bytes = static_cast<int>(std::min<int64_t>(segment->end - position, max_bytes / kLinkFrameBytes)) *
                          kLinkFrameBytes;
        else
            piece.bytes = std::min(max_bytes, kLinkFrameBytes - piece.skip_bytes);
        advance(piece.bytes);
        return piece;
    }

    /// Advances the reader to the next whole frame.
    void align() { advance((kLinkFrameBytes - position_bytes_ % kLinkFrameBytes) % kLinkFrameBytes); }

    /// Frames that have passed since the device was opened, read or not.
    int64_t captured(int64_t now) const
    {
        if (segments_.empty())
            return 0;
        const Segment& last = segments_.back();
        if (last.end != kNever)
            return last.end;
        return last.first + std::max<int64_t>(0, last.signal->passed(now) - last.link_frame);
    }
    int64_t position_bytes() const { return position_bytes_; }
    int64_t period_bytes() const { return static_cast<int64_t>(period_) * kLinkFrameBytes; }

private:
    struct Segment {
        LinkSignalPtr signal;
        int64_t first;      ///< position of its first frame
        int64_t link_frame; ///< the link's number of that frame
        int64_t end;        ///< position after its last frame; kNever while the signal lasts
    };

    bool is_live() const { return !segments_.empty() && segments_.back().end == kNever; }
    /// Periods that are given to the reader together: what a signal has left when it ends is not held back.
    int at_once() const { return is_live() ? std::max(segments_.back().signal->source.periods_at_once, 1) : 1; }
    /// Periods for which there is room: the same time for each link, and the same number of reads.
    int64_t held() const
    {
        const int64_t in_time = segments_.empty() ? 0 : int64_t{count_} * segments_.back().signal->source.rate / rate_;
        return std::max(in_time, int64_t{count_} * at_once());
    }
    /// Frames that are given to the reader together.
    int64_t step() const { return int64_t{period_} * at_once(); }

    void advance(int64_t bytes)
    {
        position_bytes_ += bytes;
        forget_segments();
    }

    void forget_segments()
    {
        // The last one stays, because captured() needs it.
        while (segments_.size() > 1 && segments_.front().end <= position_bytes_ / kLinkFrameBytes)
            segments_.pop_front();
    }

    int period_ = 1;
    int count_ = 1;
    int rate_ = 1;
    int64_t position_bytes_ = 0; ///< of the reader
    std::deque<Segment> segments_;
};

} // namespace sim
