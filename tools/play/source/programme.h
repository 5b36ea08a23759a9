// SPDX-License-Identifier: MIT
#pragma once

#include "source/source.h"

namespace play
{

/**
 * The built-in programme: flash and beep together at each second, or closer to
 * each other. Neighbouring beeps differ in pitch, so that sound which is whole
 * seconds late is not taken for punctual. Under the beeps lies noise that differs at every sample, too
 * faint to hear, by which any stretch of sound can be told from any other.
 *
 * With tones the right channel has neither: it changes every ten seconds
 * between 997 Hz and a sweep from 20 Hz to 20 kHz, both nearly as loud as can be.
 */
class Programme : public Source
{
public:
    /// Mark by mark one pitch higher, then from the lowest on again.
    static constexpr int kBeepPitches = 12;
    static constexpr double kLowestBeepHz = 1000;
    static constexpr double kBeepStepHz = 100;
    /// A beep starts at full swing, so that its first sample is its onset.
    static constexpr int16_t kBeepPeak = 16384;
    static constexpr int16_t kNoisePeak = 16;
    static constexpr int64_t kMarkDurationNs = 50'000'000; ///< length of flash and beep

    /// How close flashes and beeps follow each other; pitch by pitch as many as there are.
    struct Marks {
        int64_t period_ns = 1'000'000'000;
        int pitches = kBeepPitches;
    };

    enum class Tone { steady, sweep, changing };
    static constexpr double kToneHz = 997;
    /// The pitches of the beeps and the tones have come round by then; only the faint noise has not.
    static constexpr int kComesRoundS = 60;

    Programme(int audio_rate, Rational fps, int64_t length_ns, bool tones = false);
    Programme(int audio_rate, Rational fps, int64_t length_ns, bool tones, Marks marks);

    /// Which tone there is; changing: it is fading in or out.
    static Tone tone_at(double source_s);

    int audio_rate() const override { return audio_rate_; }
    void audio(int64_t first, int16_t* stereo, int frames) const override;
    Rational fps() const override { return fps_; }
    bool next_video(VideoFrame* frame) override;
    int64_t frame_ns(int64_t number) const override;
    /// When the flashes' first pictures arrive; their beeps begin at the sample next to that.
    std::vector<int64_t> marks() const override;
    std::vector<int64_t> onsets() const override { return {beeps_.begin() + 1, beeps_.end()}; }
    std::string description() const override;

private:
    int64_t mark_frame(int64_t mark) const;
    int16_t sample(int64_t number, int channel) const;
    int16_t tone_sample(int64_t number) const;

    int audio_rate_;
    Rational fps_;
    int64_t length_ns_;
    bool tones_;
    Marks marks_;
    int64_t next_frame_ = 0;
    std::vector<int64_t> beeps_; ///< sample at which the beep of each mark starts
};

} // namespace play
