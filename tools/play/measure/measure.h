// SPDX-License-Identifier: MIT
/**
 * @file
 * From what was seen and heard to figures. No time stamp of the player enters
 * here: positions in the recording, pictures on the screen, and the source's
 * own knowledge of what it sent when.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "screen/screen.h"
#include "signal/recording.h"
#include "source/source.h"

namespace play
{

/// One instant of the source, seen and heard.
struct Offset {
    int64_t source_ns;
    double sound_ms;   ///< from the source to the ear
    double picture_ms; ///< from the source to the eye
    /// Positive: the sound comes before its picture.
    double ms() const { return picture_ms - sound_ms; }
};

/// EBU R37, end to end: sound up to 40 ms early or 60 ms late.
constexpr double kR37EarlyMs = 40;
constexpr double kR37LateMs = -60;
/// ITU-R BT.1359: outside of the first band an offset is noticed, outside of the second it is not accepted.
constexpr double kDetectableEarlyMs = 45;
constexpr double kDetectableLateMs = -125;
constexpr double kAcceptableEarlyMs = 90;
constexpr double kAcceptableLateMs = -185;

struct OffsetStatistics {
    int64_t count = 0;
    double mean_ms = 0;
    double deviation_ms = 0;
    /// The offset that 95 % do not exceed. Offsets are ordered by their share of the R37 limit on their side.
    double p95_ms = 0;
    double worst_ms = 0; ///< the last in the same order
    int64_t undetectable = 0;
    int64_t acceptable = 0; ///< detectable, yet acceptable
    int64_t unacceptable = 0;

    bool p95_inside_r37() const { return count > 0 && p95_ms <= kR37EarlyMs && p95_ms >= kR37LateMs; }
};

/// @p sound_later_ms was asked for: the figures are about what remains beside it.
OffsetStatistics summarise(const std::vector<Offset>& offsets, int sound_later_ms = 0);

struct Latency {
    double mean_ms = 0;
    double least_ms = 0;
    double most_ms = 0;
};
Latency summarise_latency(const std::vector<double>& values_ms);

/// Where one instant of the source was found in the sound.
struct SoundMatch {
    int64_t source_sample;
    int64_t position; ///< in the recording
};

/// Beeps in the recording, up to eleven seconds late. Each is matched with the last one of its pitch that the source
/// had sent before it was heard.
std::vector<SoundMatch> match_beeps(const Recording& recording, const Source& source, SourceClock clock);
/// The sound of full seconds of the source (each, but of a long film some hundreds), found in the recording by its
/// waveform.
std::vector<int64_t> waveform_instants(int64_t length_ns);
std::vector<SoundMatch> match_waveform(const Recording& recording, const Source& source, SourceClock clock,
                                       int64_t length_ns);

/// Where @p stereo, at the recording's rate, is heard: at frame @p begin of it, or up to a second later.
std::optional<int64_t> find_waveform(const Recording& recording, const std::vector<int16_t>& stereo, int64_t begin);
/// The picture that was shown at @p source_ns or last before, of those that were seen; null: none.
const Sighting* find_picture(const std::vector<Sighting>& sightings, const Source& source, int64_t source_ns);

/// Offsets of the matches whose picture was seen; with @p flashes, whose flash was seen.
std::vector<Offset> measure_offsets(const std::vector<SoundMatch>& matches, const Recording& recording,
                                    const std::vector<Sighting>& sightings, const Source& source, SourceClock clock,
                                    bool flashes);

/// How evenly the pictures were shown.
struct Cadence {
    int64_t due = 0;      ///< pictures that should have been seen; 0: nothing remained to be judged
    int64_t pictures = 0; ///< sent by the source, first to last that was due or seen
    int64_t vblanks = 0;
    int64_t unseen = 0;  ///< dropped, or superseded before a vertical blank
    int64_t repeats = 0; ///< vertical blanks that showed the picture of the one before
    int64_t excess_unseen = 0;
    int64_t excess_repeats = 0;
    std::vector<int64_t> histogram; ///< pictures that stayed for so many vertical blanks

    /// Share of pictures unseen or held beyond what the two rates dictate.
    double excess() const
    {
        return pictures > 0 ? static_cast<double>(excess_unseen + excess_repeats) / static_cast<double>(pictures) : 1;
    }
};
/// Numbers of the first and the last picture of a part of the programme.
struct PictureRange {
    int64_t first;
    int64_t last;
};
/// @p due: the pictures that should have been seen; @p sightings may reach beyond them. @p vblanks_per_picture is the
/// refresh rate divided by the frame rate.
Cadence measure_cadence(const std::vector<Sighting>& sightings, PictureRange due, double vblanks_per_picture);

/// Distances between pictures that are not a whole number of refreshes: by how much they differ from one.
struct GridError {
    double p99_us = 0;
    double worst_us = 0;
};
GridError measure_grid(const std::vector<Sighting>& sightings, double refresh_hz);

/// Whether the samples that came out are those that went in.
struct SampleCheck {
    bool same_rate = false;
    int64_t earlier = 0; ///< frames played before the last opening or the start's last reset, and the silence after it:
                         ///< not judged
    double first_source_sample = -1; ///< the first one that is judged
    int64_t in = 0;                  ///< source samples from there to the last one captured
    int64_t out = 0;                 ///< frames played from there, without the silence behind the source's end
    double missing = 0;              ///< in x ratio - out, in frames
    int64_t block = 0;               ///< frames that may be missing or too many: a block; of coded sound, a burst
    int64_t settling = 0;            ///< frames at its beginning that are not compared
    int64_t mismatches = 0;          ///< same rate: frames that differ from the source's
    int64_t first_mismatch = -1;
    double worst_place = 0; ///< largest distance of a match from where it belongs, in frames
    bool exact = false;     ///< equal samples are demanded
    double place_tolerance = 0;

    bool passed() const;
};
/// What lay between the source and the player.
struct CapturePath {
    int64_t captured_end = -1; ///< number of the link frame after the last one captured; -1: not known, the last match
    bool transparent = true;   ///< the words of the link come through as they are
    /// The output's clock by the source's, if the sound is resampled from one to the other.
    std::optional<double> matched = {};
    int64_t silence = 0; ///< frames that the host played before the first of the source
    int64_t cut_off = 0; ///< frames that it wrote before: a reset at the start ended their sequence
};
SampleCheck check_samples(const Recording& recording, const Source& source, const std::vector<SoundMatch>& matches,
                          const CapturePath& path);

} // namespace play
