// SPDX-License-Identifier: MIT
#pragma once

#include <memory>

#include "source/coded_track.h"
#include "source/programme.h"

namespace play
{

/// A stretch of samples that comes again and again: @p begin follows the last one before @p end.
struct Loop {
    int64_t begin = 0;
    int64_t end = int64_t{1} << 60; ///< never reached: it comes once
    int64_t length() const { return end - begin; }
    int64_t place_of(int64_t sample) const { return sample < end ? sample : begin + (sample - begin) % length(); }
};

/**
 * The built-in programme with its sound coded as AC-3 or E-AC-3. What is heard
 * and when is known from a decode of the coded stream: audio() is that decode,
 * and onsets() are the beeps found in it.
 *
 * Of a long programme the first two minutes are encoded, and the second one
 * comes again and again where a minute is a whole number of bursts and of
 * pictures: bursts and decode go on from its end to its beginning as they go on
 * inside.
 */
class CodedProgramme : public Source
{
public:
    static constexpr int64_t kBitRate = 192'000;
    /// The highest of AC-3: two bursts leave fewer zeros between them than a chunk has, by which the player would tell
    /// silence.
    static constexpr int64_t kDenseBitRate = 640'000;

    /// Takes about a hundredth of the sound's length to encode it. @return null with one line in @p error
    static std::unique_ptr<CodedProgramme> make(Coding coding, const Programme& programme, int64_t length_ns,
                                                int64_t bit_rate, std::string* error);

    int audio_rate() const override { return programme_.audio_rate(); }
    void audio(int64_t first, int16_t* stereo, int frames) const override;
    Coding coding() const override { return track_.coding(); }
    int64_t coded_end() const override { return end_; }
    void link(int64_t first, int16_t* words, int frames) const override;

    Rational fps() const override { return programme_.fps(); }
    bool next_video(VideoFrame* frame) override { return programme_.next_video(frame); }
    int64_t frame_ns(int64_t number) const override { return programme_.frame_ns(number); }
    std::vector<int64_t> marks() const override { return programme_.marks(); }
    std::vector<int64_t> onsets() const override { return onsets_; }
    std::string description() const override;

private:
    CodedProgramme(Coding coding, const Programme& programme, int64_t end)
        : programme_(programme), end_(end), track_(coding, programme.audio_rate(), storage())
    {
    }
    /// In memory up to three minutes, which are 140 MB of an E-AC-3 link.
    Storage storage() const;
    bool encode(int64_t bit_rate);
    bool find_onsets();
    /// The minute of the programme's sound that comes again and again, if there is one.
    Loop programme_loop() const;

    Programme programme_;
    int64_t end_; ///< whole bursts
    CodedTrack track_;
    Loop loop_; ///< of the track
    std::vector<int64_t> onsets_;
};

} // namespace play
