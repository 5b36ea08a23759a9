// SPDX-License-Identifier: MIT
#include "frame_clock.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace ac3
{
namespace
{

/// An AC-3 frame, or all frames of an E-AC-3 burst: losses are multiples of it.
constexpr int64_t kUnit = 1536;
/// Up to it a frame is in time. The chunks of a capture device, at whose pace frames come, are shorter.
constexpr int64_t kLate = kUnit * 3 / 4;
/// The pace is known after so many samples, if the delays of their frames differ by kSpread at most.
constexpr int64_t kSettled = 8 * kUnit;
constexpr int64_t kSpread = 2 * kUnit;
/// So many samples tell what is missing. Where in a chunk a burst ends repeats itself after seven bursts at most.
constexpr int64_t kWatched = 7 * kUnit;
/// A frame that is earlier by so much than the watch began is catching up: the watch begins anew.
constexpr int64_t kCatchUp = kUnit / 2;
/// A loss that differs by less from whole units is one of whole units.
constexpr int64_t kWholeUs = 3'000;
/// The player starts with 76 ms of sound in hand. The rest is for the way from here to the output.
constexpr int64_t kStarvingUs = 50'000;
constexpr int64_t kLeastSilenceUs = 5'000;
/// After such a pause of the reader the output has run dry: what was lost meanwhile has had its silence. It holds the
/// player's 76 ms, up to a block of 20 ms, and what a host holds back.
constexpr int64_t kReaderDryUs = 110'000;
/// A reader that was held up tells of a busy machine: a writer may be on its way until the reader is back so long.
constexpr int64_t kReaderLateUs = 25'000;
constexpr int64_t kReaderBackUs = 20'000;
/// Sound brings down the silence spent by this part of its length: a tenth of all frames may be lost for good.
constexpr int64_t kSoundPerSilence = 8;
constexpr int64_t kNone = std::numeric_limits<int64_t>::max();

// The nearest whole units, if they are near.
int64_t snap(int64_t samples, int64_t tolerance)
{
    const int64_t whole = (std::max<int64_t>(samples, 0) + kUnit / 2) / kUnit * kUnit;
    return std::abs(samples - whole) <= tolerance ? whole : samples;
}

} // namespace

// Of the last frames only, so that it follows clocks which drift apart.
int64_t FrameClock::least_delay() const
{
    return *std::min_element(delays_.begin(), delays_.begin() + static_cast<ptrdiff_t>(std::min(frames_, kHistory)));
}

int64_t FrameClock::most_delay() const
{
    return *std::max_element(delays_.begin(), delays_.begin() + static_cast<ptrdiff_t>(std::min(frames_, kHistory)));
}

// Whether frames come at the pace of time: not where a file is read, or a debugger holds the program.
bool FrameClock::settled() const { return known_ >= kSettled && most_delay() - least_delay() <= kSpread; }

void FrameClock::remember(int64_t delay, int64_t samples)
{
    // Never was a frame so early: those before it were held up, or this is faster than time.
    if (frames_ > 0 && delay < least_delay() - kLate)
        frames_ = static_cast<size_t>(known_ = 0);
    delays_[frames_++ % kHistory] = delay;
    known_ += samples;
}

void FrameClock::begin_watch()
{
    watching_ = true;
    least_late_ = mark_ = kNone;
    watched_ = 0;
}

// Samples in place of frames are queued. Those watched so far appear that much earlier.
void FrameClock::make_up(int64_t samples)
{
    made_up_ += samples;
    if (mark_ == kNone)
        return;
    least_late_ -= samples;
    mark_ -= samples;
}

// Silence for what the stream's bytes say is lost; of that, once the pace is known, as much as time confirms.
int64_t FrameClock::take_lost(int64_t now_us, const ComingFrame& frame, int64_t room)
{
    // What was lost before a time line belongs to the one before.
    int64_t lost = begun_ ? std::min(frame.lost, room) : 0;
    begun_ = true;
    if (lost > 0 && settled()) {
        const int64_t late = std::max<int64_t>(delay(now_us) - least_delay() + kUnit / 4, 0);
        lost = std::min(lost, late / frame.samples * frame.samples);
        made_up_ += lost;
    }
    count_ += lost;
    return lost;
}

// The correction of the count, once the frames watched have told.
int64_t FrameClock::watch(int64_t late, int64_t samples)
{
    least_late_ = std::min(least_late_, late);
    if (mark_ == kNone || late < mark_ - kCatchUp) {
        mark_ = late;
        watched_ = 0;
    }
    watched_ += samples;
    if (made_up_ == 0 && least_late_ <= kLate) {
        watching_ = false; // they have caught up
        return 0;
    }
    return watched_ < kWatched ? 0 : judge();
}

int64_t FrameClock::judge()
{
    const int64_t missing = std::max<int64_t>(snap(made_up_ + least_late_, samples_of(kWholeUs)), 0);
    const int64_t correction = missing - made_up_;
    watching_ = false;
    made_up_ = 0;
    return correction;
}

// Silence to insert for a correction of the count; a negative one becomes samples to leave out.
int64_t FrameClock::correct(int64_t samples, int64_t room)
{
    if (samples < 0)
        skip_ -= samples;
    else if (samples > room)
        samples = room / kUnit * kUnit; // the rest is seen again
    count_ += samples;
    spent_ += std::max<int64_t>(samples, 0);
    return std::max<int64_t>(samples, 0);
}

Correction FrameClock::frame_came(int64_t now_us, const ComingFrame& frame, int64_t room)
{
    if (frame.rate != rate_ || spent_ > samples_of(kMostSilenceUs)) {
        restart();
        rate_ = frame.rate;
    }
    Correction correction;
    correction.silence = take_lost(now_us, frame, room);
    if (settled()) {
        const int64_t late = delay(now_us) - least_delay();
        made_up_ += frame.made_up ? frame.samples : 0;
        if (!watching_ && (late > kLate || made_up_ > 0))
            begin_watch();
        if (watching_)
            correction.silence += correct(watch(late, frame.samples), room - correction.silence);
        // Its time was given to silence, and the frames behind it are here as well.
        if (watching_ && late < -kLate && made_up_ >= frame.samples) {
            make_up(-frame.samples);
            correct(-frame.samples, room);
        }
    }
    if (!watching_)
        remember(delay(now_us), frame.samples);
    correction.skip = std::min(skip_, frame.samples);
    skip_ -= correction.skip;
    count_ += frame.samples;
    spent_ = std::max<int64_t>(spent_ - frame.samples / kSoundPerSilence, 0);
    return correction;
}

void FrameClock::paused()
{
    if (made_up_ == 0 && skip_ == 0)
        restart();
}

int64_t FrameClock::starving(int64_t now_us, int64_t room)
{
    const int64_t pause_us = now_us - asked_us_;
    if (asked_us_ != 0 && pause_us > kReaderDryUs)
        paused();
    if (pause_us > kReaderLateUs)
        asked_since_us_ = now_us;
    asked_us_ = now_us;
    if (!settled() || now_us - asked_since_us_ < kReaderBackUs || spent_ > samples_of(kMostSilenceUs))
        return 0;
    const int64_t late = delay(now_us) - least_delay() - samples_of(kStarvingUs);
    const int64_t silence = std::min(late, room);
    if (silence < samples_of(kLeastSilenceUs))
        return 0;
    // More than the frames watched miss: another loss, which they do not tell of.
    if (!watching_ || mark_ == kNone || least_late_ < silence)
        begin_watch();
    make_up(silence);
    return correct(silence, room);
}

} // namespace ac3
