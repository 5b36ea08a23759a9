// SPDX-License-Identifier: MIT
#pragma once

#include <memory>

#include "source/coded_track.h"
#include "source/programme.h"

namespace play
{

/**
 * The built-in programme with its sound coded as AC-3 or E-AC-3. What is heard
 * and when is known from a decode of the coded stream: audio() is that decode,
 * and onsets() are the beeps found in it.
 */
class CodedProgramme : public Source
{
public:
    static constexpr int64_t kBitRate = 192'000;
    /// The highest of AC-3: two bursts leave fewer zeros between them than a chunk has, by which the player would tell
    /// silence.
    static constexpr int64_t kDenseBitRate = 640'000;

    /// Encodes all of the sound; takes about a hundredth of its length. @return null with one line in @p error
    static std::unique_ptr<CodedProgramme> make(Coding coding, const Programme& programme, int64_t length_ns,
                                                int64_t bit_rate, std::string* error);

    int audio_rate() const override { return programme_.audio_rate(); }
    void audio(int64_t first, int16_t* stereo, int frames) const override { track_.audio(first, stereo, frames); }
    Coding coding() const override { return track_.coding(); }
    int64_t coded_end() const override { return track_.samples(); }
    void link(int64_t first, int16_t* words, int frames) const override { track_.link(first, words, frames); }

    Rational fps() const override { return programme_.fps(); }
    bool next_video(VideoFrame* frame) override { return programme_.next_video(frame); }
    int64_t frame_ns(int64_t number) const override { return programme_.frame_ns(number); }
    std::vector<int64_t> marks() const override { return programme_.marks(); }
    std::vector<int64_t> onsets() const override { return onsets_; }
    std::string description() const override;

private:
    CodedProgramme(Coding coding, const Programme& programme)
        : programme_(programme), track_(coding, programme.audio_rate())
    {
    }
    bool encode(int64_t samples, int64_t bit_rate);
    bool find_onsets();

    Programme programme_;
    CodedTrack track_;
    std::vector<int64_t> onsets_;
};

} // namespace play
