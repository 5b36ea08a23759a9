// SPDX-License-Identifier: MIT
/**
 * @file
 * What a source at the other end of the HDMI cable sends: sound by sample
 * number, pictures by time. Both run on the source's one clock, whose zero is
 * the first sample.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "signal/clock_track.h"
#include "source/canvas.h"
#include "source/picture.h"

namespace play
{

struct Rational {
    int64_t num;
    int64_t den;
    double value() const { return static_cast<double>(num) / static_cast<double>(den); }
};

/// A source's clock, seen from this machine's monotonic clock.
struct SourceClock {
    int64_t start_ns = 0; ///< monotonic time of the source's zero
    double ppm = 0;       ///< the source's clock runs that much faster
    /// Takes the place of the two where link frames are sent by a real device, whose clock is learned as it runs.
    std::shared_ptr<const ClockTrack> track = nullptr;

    int64_t to_monotonic(int64_t source_ns) const
    {
        if (track)
            return track->time_of(static_cast<double>(source_ns) * track->rate() / 1e9);
        return start_ns + static_cast<int64_t>(static_cast<double>(source_ns) / (1 + ppm * 1e-6));
    }
    int64_t to_source(int64_t monotonic_ns) const
    {
        if (track)
            return static_cast<int64_t>(track->position_at(monotonic_ns) * 1e9 / track->rate());
        return static_cast<int64_t>(static_cast<double>(monotonic_ns - start_ns) * (1 + ppm * 1e-6));
    }
};

/// One picture as it comes out of the receiver.
struct VideoFrame {
    int64_t number;
    int64_t source_ns; ///< when it arrives
    Picture picture;
    std::shared_ptr<const Image> image; ///< in colour, if the source was asked for it
};

/// How sound passes on the link: sample by sample, or in IEC 61937 bursts of 1536 samples each.
enum class Coding { pcm, ac3, eac3 };

constexpr const char* coding_name(Coding coding)
{
    return coding == Coding::ac3 ? "AC-3" : coding == Coding::eac3 ? "E-AC-3" : "PCM";
}
constexpr int kBurstSamples = 1536;
/// An E-AC-3 burst has four link frames for each sample.
constexpr int link_frames_per_sample(Coding coding) { return coding == Coding::eac3 ? 4 : 1; }
constexpr int64_t burst_link_frames(Coding coding) { return int64_t{kBurstSamples} * link_frames_per_sample(coding); }

/// What is wrong with what a source sent.
struct SourceFaults {
    int64_t starved = 0;          ///< times that sound or picture was due before it was decoded
    int64_t damaged_sound = 0;    ///< packets of sound that are damaged, and holes between them
    int64_t damaged_pictures = 0; ///< packets or pictures that are damaged
    int64_t picture_gaps = 0;     ///< pictures that come later after the one before than the frame rate says
    int64_t largest_burst = 0;    ///< payload of the largest burst so far, in bytes
};

/**
 * When a sample was sent. PCM: when it passes on the link. A coded sample is not there by itself; its time is that
 * of its burst's first word on the link (Pa) plus its place among the burst's decoded samples. So the bursts follow
 * each other as their sound does, whatever the length of a payload; what a decoder waits for (a burst is complete when
 * the last byte of its payload has passed) counts as latency of the player.
 */
class Source
{
public:
    virtual ~Source() = default;

    virtual int audio_rate() const = 0;
    /// Stereo samples @p first and following; of a coded source, as a decoder makes them. From any thread; does not
    /// block.
    virtual void audio(int64_t first, int16_t* stereo, int frames) const = 0;

    virtual Coding coding() const { return Coding::pcm; }
    /// What passes on the link, two words a frame; burst k of a coded source begins with frame k x burst_link_frames().
    /// From any thread; does not block.
    virtual void link(int64_t first, int16_t* words, int frames) const { audio(first, words, frames); }
    /// Coded: the sample after the last burst's; zeros follow it on the link.
    virtual int64_t coded_end() const { return 0; }
    int link_rate() const { return audio_rate() * link_frames_per_sample(coding()); }

    /// The nominal frame rate.
    virtual Rational fps() const = 0;
    /// From now on pictures come with images that fit into @p box. Before the first.
    virtual void want_images(Size /*box*/) {}
    /// The next picture in order, false at the end. One thread. May wait for a decoder that is behind.
    virtual bool next_video(VideoFrame* frame) = 0;
    /// When picture @p number arrives; only for numbers that next_video() has given.
    virtual int64_t frame_ns(int64_t number) const = 0;
    /// Of a source that is captured: when its clock was zero, CLOCK_MONOTONIC.
    virtual std::optional<int64_t> zero_ns() const { return std::nullopt; }

    /// Source times at which picture and sound change at the same instant; empty if the source has no such marks.
    virtual std::vector<int64_t> marks() const = 0;
    /// Samples with which the sounds of the marks begin, in the same order.
    virtual std::vector<int64_t> onsets() const { return {}; }
    virtual SourceFaults faults() const { return {}; }
    virtual std::string description() const = 0;
    /// How long it says that it is; 0: it does not say.
    virtual double stated_seconds() const { return 0; }
};

} // namespace play
