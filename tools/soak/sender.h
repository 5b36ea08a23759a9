// SPDX-License-Identifier: MIT
/**
 * @file
 * The source at the other end of a simulated cable. It goes on for days, changes
 * what it sends, and its cable can be pulled out.
 */
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "formats.h"
#include "source/programme.h"

namespace soak
{

/// Flash and beep follow each other so closely; a beep's pitch tells offsets up to half of the loop apart.
constexpr int64_t kMarkNs = 200'000'000;
constexpr int kPitches = 48;
constexpr int64_t kLoopNs = kMarkNs * kPitches;

/// Sound and pictures run on one clock through all changes: what belongs together has the same time.
class Sender : public play::Source
{
public:
    /// Prepares the sound of all formats, and pictures for @p seconds. @return null with one line in @p error
    static std::unique_ptr<Sender> make(play::Rational fps, double ppm, double seconds, std::string* error);
    ~Sender() override;

    play::SourceClock clock() const { return clock_; }
    /// From now on this passes on the cable, and is announced. @return false: it cannot be announced
    bool send(Format format);
    Format format() const { return format_; }
    /// The cable. While it is out there is neither sound nor picture; what was sent last is sent when it is in again.
    bool plug(bool in);
    /// Bits of bursts are turned over on the way.
    void damage(bool on) { damage_ = on; }
    /// The sound comes by that much more slowly than its rate says, from the next send() on.
    void slow_by(double share) { slow_ = share; }

    int audio_rate() const override { return announced_rate(format_); }
    play::Coding coding() const override;
    void audio(int64_t first, int16_t* stereo, int frames) const override;
    play::Rational fps() const override { return pictures_.fps(); }
    /// Skips what nobody was there to take, and what came while the cable was out.
    bool next_video(play::VideoFrame* frame) override;
    int64_t frame_ns(int64_t number) const override { return pictures_.frame_ns(number); }
    std::vector<int64_t> marks() const override { return {}; }
    std::string description() const override { return "flash and beep five times a second, in changing formats"; }

private:
    /// One round of the link's frames.
    struct Loop {
        int rate = 0; ///< link frames per second
        std::vector<int16_t> words;
        int64_t frames() const { return static_cast<int64_t>(words.size() / 2); }
    };
    using LoopPtr = std::shared_ptr<const Loop>;

    Sender(play::Rational fps, double ppm, double seconds);
    bool prepare(std::string* error);
    static LoopPtr pcm_loop(int rate);
    static LoopPtr coded_loop(play::Coding coding, std::string* error);
    static LoopPtr dts_loop();
    void put(const LoopPtr& loop);

    play::SourceClock clock_;
    play::Programme pictures_; ///< the host's video thread's
    std::array<LoopPtr, kFormats> loops_;
    std::atomic<Format> format_{Format::none};
    std::atomic<bool> plugged_{true};
    std::atomic<bool> damage_{false};
    double slow_ = 0;
};

} // namespace soak
