// SPDX-License-Identifier: MIT
#include "observers.h"

#include <algorithm>
#include <cstdlib>

#include "sender.h"
#include "signal/pitch.h"
#include "source/picture_buffer.h"

namespace soak
{
namespace
{

constexpr int kRate = 48000;
constexpr int64_t kSecondNs = 1'000'000'000;
/// The programme's noise is louder than this.
constexpr int kSilentPeak = 2;
constexpr int64_t kWindowFrames = kRate / 200;
constexpr int64_t kShortestPauseNs = 20'000'000;
/// The part of a beep by which its pitch is told.
constexpr int64_t kPitchFrames = kRate * 40 / 1000;
/// Of a long silence it is enough to look at so much.
constexpr int64_t kMostSilentFrames = kRate / 5;
/// How far back samples may be asked for.
constexpr int64_t kRecentFrames = kRate;
/// Values for which there is room. A machine that stands still needs more for once; it would look like a leak.
constexpr size_t kRecentRoom = 2 * 3 * static_cast<size_t>(kRecentFrames);
/// Marks that did not meet for so long will not any more: sound and picture are at most half of the loop apart.
constexpr int64_t kForgottenMarks = 2 * kPitches;

int peak_of(const int16_t* stereo, int64_t frames)
{
    int peak = 0;
    for (int64_t i = 0; i < 2 * frames; i++)
        peak = std::max(peak, std::abs(static_cast<int>(stereo[i])));
    return peak;
}

} // namespace

// --- Sound ----------------------------------------------------------------------

Ears::Ears() : onsets_(kRate, play::Programme::kBeepPeak)
{
    for (int pitch = 0; pitch < kPitches; pitch++)
        pitches_hz_.push_back(play::Programme::kLowestBeepHz + play::Programme::kBeepStepHz * pitch);
    recent_.reserve(kRecentRoom);
}

void Ears::hear(const hdmi_sim::HeardFrames& frames)
{
    Chunk chunk;
    chunk.heard_ns = frames.heard_ns;
    if (frames.samples != nullptr && frames.rate == kRate && frames.channels == 2)
        chunk.stereo.assign(frames.samples, frames.samples + 2 * frames.frames);
    else
        chunk.stereo.assign(static_cast<size_t>(2 * std::min(frames.frames, kMostSilentFrames)), 0);
    const std::lock_guard<std::mutex> lock(mutex_);
    heard_.push_back(std::move(chunk));
}

void Ears::listen()
{
    std::vector<Chunk> chunks;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        chunks.swap(heard_);
    }
    for (const Chunk& chunk : chunks) {
        look_for_pauses(chunk);
        look_for_beeps(chunk);
    }
    forget();
}

void Ears::look_for_pauses(const Chunk& chunk)
{
    const auto frames = static_cast<int64_t>(chunk.stereo.size() / 2);
    for (int64_t at = 0; at < frames; at += kWindowFrames) {
        const int64_t window = std::min(kWindowFrames, frames - at);
        if (peak_of(&chunk.stereo[static_cast<size_t>(2 * at)], window) <= kSilentPeak)
            continue;
        const int64_t from_ns = chunk.heard_ns + at * kSecondNs / kRate;
        if (last_sound_ns_ != 0 && from_ns - last_sound_ns_ >= kShortestPauseNs)
            pauses_.push_back({last_sound_ns_, from_ns});
        last_sound_ns_ = from_ns + window * kSecondNs / kRate;
    }
}

void Ears::look_for_beeps(const Chunk& chunk)
{
    const auto frames = static_cast<int64_t>(chunk.stereo.size() / 2);
    places_.push_back({end_, chunk.heard_ns});
    recent_.insert(recent_.end(), chunk.stereo.begin(), chunk.stereo.end());
    end_ += frames;
    onsets_.feed(chunk.stereo.data(), static_cast<int>(frames));
    for (const int64_t onset : onsets_.take())
        waiting_.push_back(onset);
    tell_pitches();
}

void Ears::tell_pitches()
{
    while (!waiting_.empty() && waiting_.front() + kPitchFrames <= end_) {
        const int64_t onset = waiting_.front();
        waiting_.pop_front();
        if (onset < recent_first_)
            continue;
        const auto from = recent_.begin() + 2 * (onset - recent_first_);
        const int pitch = play::find_pitch({from, from + 2 * kPitchFrames}, kRate, pitches_hz_);
        if (pitch >= 0)
            beeps_.push_back({heard_ns_of(onset), pitch});
    }
}

void Ears::forget()
{
    const int64_t keep = end_ - kRecentFrames;
    if (keep < recent_first_ + kRecentFrames)
        return;
    recent_.erase(recent_.begin(), recent_.begin() + 2 * (keep - recent_first_));
    recent_first_ = keep;
    if (recent_.capacity() > kRecentRoom) {
        recent_.shrink_to_fit();
        recent_.reserve(kRecentRoom);
    }
    while (places_.size() > 1 && places_[1].first <= keep)
        places_.pop_front();
}

int64_t Ears::heard_ns_of(int64_t position) const
{
    const auto after = std::upper_bound(places_.begin(), places_.end(), position,
                                        [](int64_t at, const Place& place) { return at < place.first; });
    const Place& place = *(after - 1);
    return place.heard_ns + (position - place.first) * kSecondNs / kRate;
}

// --- Pictures ---------------------------------------------------------------------

void Eyes::shown(const display::FrameBuffer& buffer, int64_t seen_ns)
{
    const play::Picture& picture = static_cast<const play::PictureBuffer&>(buffer).picture;
    const int64_t number = play::read_number(picture);
    if (number == last_number_)
        return;
    last_number_ = number;
    const std::lock_guard<std::mutex> lock(mutex_);
    sights_.push_back({number, play::is_flash(picture), seen_ns});
}

std::vector<Sight> Eyes::take()
{
    const std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(sights_, {});
}

// --- Both ---------------------------------------------------------------------------

void Meetings::heard(const Beep& beep)
{
    // The last mark of this pitch that was sent before.
    const int64_t newest = clock_.to_source(beep.heard_ns) / kMarkNs;
    const int64_t number = newest - ((newest - beep.pitch) % kPitches + kPitches) % kPitches;
    Mark& mark = marks_[number];
    if (mark.sound_ms)
        return;
    mark.sound_ms = static_cast<double>(beep.heard_ns - clock_.to_monotonic(number * kMarkNs)) / 1e6;
    note(number, &mark);
}

void Meetings::seen(const Sight& sight)
{
    if (!sight.flash)
        return;
    const int64_t source_ns = source_->frame_ns(sight.number);
    const int64_t number = source_ns / kMarkNs;
    Mark& mark = marks_[number];
    if (mark.picture_ms)
        return;
    mark.picture_ms = static_cast<double>(sight.seen_ns - clock_.to_monotonic(source_ns)) / 1e6;
    note(number, &mark);
}

void Meetings::note(int64_t number, Mark* mark)
{
    if (mark->sound_ms && mark->picture_ms)
        met_.push_back({clock_.to_monotonic(number * kMarkNs), *mark->sound_ms, *mark->picture_ms});
    marks_.erase(marks_.begin(), marks_.lower_bound(number - kForgottenMarks));
}

} // namespace soak
