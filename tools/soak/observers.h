// SPDX-License-Identifier: MIT
/**
 * @file
 * What is heard and seen at the edges, as it comes: nothing is kept for longer
 * than it takes to judge it.
 */
#pragma once

#include <algorithm>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "display/display.h"
#include "hdmi_sim.h"
#include "signal/onset.h"
#include "source/source.h"

namespace soak
{

struct Beep {
    int64_t heard_ns;
    int pitch;
};

/// A time without sound.
struct Pause {
    int64_t from_ns;
    int64_t to_ns; ///< when sound was heard again
};

/// Hears the simulated playback device.
class Ears
{
public:
    Ears();

    /// For PlaybackConfig::on_heard.
    void hear(const hdmi_sim::HeardFrames& frames);
    /// Looks through what came since the last call. One thread, that of the functions below.
    void listen();

    std::vector<Beep> take_beeps() { return std::exchange(beeps_, {}); }
    /// Pauses that have ended, of 20 ms and more.
    std::vector<Pause> take_pauses() { return std::exchange(pauses_, {}); }
    /// The end of the last sound; 0: there was none.
    int64_t last_sound_ns() const { return last_sound_ns_; }

private:
    struct Chunk {
        std::vector<int16_t> stereo;
        int64_t heard_ns;
    };
    /// Where in the stream a chunk begins.
    struct Place {
        int64_t first;
        int64_t heard_ns;
    };

    void look_for_pauses(const Chunk& chunk);
    void look_for_beeps(const Chunk& chunk);
    void tell_pitches();
    void forget();
    int64_t heard_ns_of(int64_t position) const;

    std::mutex mutex_;
    std::vector<Chunk> heard_; ///< under the mutex

    play::OnsetDetector onsets_;
    std::vector<double> pitches_hz_;
    std::deque<Place> places_;
    std::vector<int16_t> recent_; ///< stereo, from position recent_first_ on
    int64_t recent_first_ = 0;
    int64_t end_ = 0;             ///< position after the last sample
    std::deque<int64_t> waiting_; ///< onsets whose pitch is not told yet
    std::vector<Beep> beeps_;
    std::vector<Pause> pauses_;
    int64_t last_sound_ns_ = 0;
};

/// A picture that came to be seen.
struct Sight {
    int64_t number;
    bool flash;
    int64_t seen_ns;
};

/// Sees the simulated display.
class Eyes : public display::Observer
{
public:
    void shown(const display::FrameBuffer& buffer, int64_t seen_ns) override;
    void stayed(int64_t) override {}

    std::vector<Sight> take();

private:
    std::mutex mutex_;
    std::vector<Sight> sights_;
    int64_t last_number_ = -1;
};

/// A mark of the source that was heard and seen.
struct Meeting {
    int64_t sent_ns;
    double sound_ms;
    double picture_ms;
    int64_t met_ns() const { return sent_ns + static_cast<int64_t>(1e6 * std::max(sound_ms, picture_ms)); }
    /// Positive: the sound comes before its picture.
    double offset_ms() const { return picture_ms - sound_ms; }
    /// EBU R37, end to end.
    bool in_sync() const { return offset_ms() <= 40 && offset_ms() >= -60; }
};

/// Brings together which beep belongs to which flash.
class Meetings
{
public:
    explicit Meetings(const play::Source* source, play::SourceClock clock) : source_(source), clock_(clock) {}

    void heard(const Beep& beep);
    void seen(const Sight& sight);
    std::vector<Meeting> take() { return std::exchange(met_, {}); }

private:
    struct Mark {
        std::optional<double> sound_ms;
        std::optional<double> picture_ms;
    };
    void note(int64_t number, Mark* mark);

    const play::Source* source_;
    const play::SourceClock clock_;
    std::map<int64_t, Mark> marks_; ///< by number, those of the last seconds
    std::vector<Meeting> met_;
};

} // namespace soak
