// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "signal/sample_store.h"
#include "source/source.h"

struct AVFrame;
struct AVPacket;

namespace play
{

/// Whether the decoder had to make up a part of @p frame.
bool is_damaged(const AVFrame& frame);

/**
 * A compressed track twice: as it passes on the link, in IEC 61937 bursts of
 * libavformat's muxer, and as a decoder makes sound of it. Both begin with the
 * first burst, and sample n lies in burst n / burst_samples. One thread
 * appends, any thread reads.
 */
class CodedTrack
{
public:
    CodedTrack(Coding coding, int sample_rate, Storage storage = Storage::disk);
    ~CodedTrack();
    CodedTrack(const CodedTrack&) = delete;
    CodedTrack& operator=(const CodedTrack&) = delete;

    /// @return false without muxer, decoder or temporary files
    bool usable() const { return codecs_ != nullptr; }
    Coding coding() const { return coding_; }
    int sample_rate() const { return sample_rate_; }

    /// Appends a frame of the stream. One that the muxer refuses is silent. @return false if the disk is full
    bool add(AVPacket* packet);
    /// Appends silence of about @p samples: as many bursts as fit best.
    bool add_gap(int64_t samples);

    /// Frames that could not be decoded, or only in part.
    int64_t damaged() const { return damaged_; }
    /// Payload in bytes.
    int64_t largest_burst() const { return largest_burst_; }

    /// Samples of the bursts so far.
    int64_t samples() const { return link_.frames() / link_frames_per_sample(coding_); }
    /// As SampleStore::read().
    int64_t link(int64_t first, int16_t* words, int64_t frames) const { return link_.read(first, words, frames); }
    int64_t audio(int64_t first, int16_t* stereo, int64_t frames) const { return sound_.read(first, stereo, frames); }

private:
    struct Codecs;

    bool store_bursts();
    bool store_decoded(AVPacket* packet);
    bool keep_in_step();
    int64_t payload_bytes(const uint8_t* burst) const;

    Coding coding_;
    int sample_rate_;
    SampleStore link_;
    SampleStore sound_;
    int64_t packets_ = 0;
    std::atomic<int64_t> damaged_{0};
    std::atomic<int64_t> largest_burst_{0};
    std::unique_ptr<Codecs> codecs_;
};

} // namespace play
