// SPDX-License-Identifier: MIT
/**
 * @file
 * A coded source whose bursts are damaged on the link, so that they never reach the player's decoder.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "source/source.h"

namespace play
{

struct BurstLoss {
    enum class Kind {
        flag,     ///< the error flag is set
        preamble, ///< Pa is damaged
        length,   ///< Pd is longer than the burst
        noise,    ///< payload and stuffing are noise: no zeros that the player could take for silence
        pause,    ///< pause bursts (data type 3) instead
    };
    Kind kind = Kind::flag;
    int64_t bursts = 1;
    /// Second at which the sound is looked at again: the last burst ends half a second before. 0: four seconds after
    /// the previous loss.
    double looked_at_s = 0;
};

const char* loss_name(BurstLoss::Kind kind);
/// "N[@S][:KIND],...": "10@8:pause". @return false: it is not
bool parse_losses(const std::string& text, std::vector<BurstLoss>* losses);

/// The first burst of a loss, and the one after its last.
struct LostBursts {
    BurstLoss loss;
    int64_t first;
    int64_t end;
    int64_t from_ns; ///< of the source
    int64_t to_ns;
};
/// In their order. @return false: they begin before the player can know the pace of the bursts, or overlap
bool place_losses(std::vector<BurstLoss> losses, int audio_rate, std::vector<LostBursts>* placed);

/// Passes everything on but the bursts that are lost. What a decoder makes of them is silence.
class LossySource : public Source
{
public:
    LossySource(std::unique_ptr<Source> whole, std::vector<LostBursts> lost)
        : whole_(std::move(whole)), lost_(std::move(lost))
    {
    }

    int audio_rate() const override { return whole_->audio_rate(); }
    void audio(int64_t first, int16_t* stereo, int frames) const override;
    Coding coding() const override { return whole_->coding(); }
    void link(int64_t first, int16_t* words, int frames) const override;
    int64_t coded_end() const override { return whole_->coded_end(); }
    Rational fps() const override { return whole_->fps(); }
    void want_images(Size box) override { whole_->want_images(box); }
    bool next_video(VideoFrame* frame) override { return whole_->next_video(frame); }
    int64_t frame_ns(int64_t number) const override { return whole_->frame_ns(number); }
    std::vector<int64_t> marks() const override;
    std::vector<int64_t> onsets() const override;
    SourceFaults faults() const override { return whole_->faults(); }
    std::string description() const override;
    double stated_seconds() const override { return whole_->stated_seconds(); }

private:
    bool is_heard(int64_t source_ns) const;
    /// Marks and onsets belong together in pairs: those of the marks that are heard.
    std::vector<int64_t> heard_of(std::vector<int64_t> values) const;

    std::unique_ptr<Source> whole_;
    std::vector<LostBursts> lost_;
};

} // namespace play
