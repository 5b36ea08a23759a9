// SPDX-License-Identifier: MIT
#include <unistd.h>

#include "edges/make_edges.h"
#include "hdmi_sim.h"

namespace play
{
namespace
{

/// Longer than a device's buffer holds.
constexpr int64_t kLongestPlayingNs = 1'000'000'000;
constexpr useconds_t kLookAgainUs = 10'000;

/// The simulated device records what it plays.
class SimulatedOutput : public SoundOutput
{
public:
    SimulatedOutput(std::string wav_path, const Options& options)
        : wav_path_(std::move(wav_path)), clock_error_ppm_(options.playback_ppm)
    {
        if (options.rate_matching)
            rate_matching_ = *options.rate_matching ? hdmi_sim::RateMatching::on : hdmi_sim::RateMatching::off;
    }

    bool start(std::string*) override
    {
        hdmi_sim::PlaybackConfig playback;
        playback.wav_path = wav_path_;
        playback.clock_error_ppm = clock_error_ppm_;
        playback.rate_matching = rate_matching_;
        hdmi_sim::playback_configure(playback);
        return true;
    }

    void wait_until_played() override
    {
        int64_t deadline = hdmi_sim::now_ns() + kLongestPlayingNs;
        while (hdmi_sim::now_ns() < deadline) {
            std::vector<hdmi_sim::PlayedBlock> blocks = hdmi_sim::playback_blocks();
            if (!blocks.empty() && blocks.back().silence && blocks.back().heard_ns < hdmi_sim::now_ns())
                return;
            usleep(kLookAgainUs);
        }
    }

    bool finish(std::string* error) override { return hdmi_sim::playback_finish_recording(error); }

    RecordedSound heard() const override
    {
        RecordedSound sound{wav_path_, {}};
        for (const hdmi_sim::PlayedBlock& block : hdmi_sim::playback_blocks())
            sound.blocks.push_back({block.first_frame, block.frames, block.heard_ns, block.silence});
        return sound;
    }

    RecordedSound sent() const override { return heard(); }

    SoundAccount account() const override
    {
        hdmi_sim::PlaybackStats playback = hdmi_sim::playback_stats();
        SoundAccount account = {playback.first_write_ns, playback.frames_written, clock_error_ppm_};
        account.left_out = playback.left_out;
        account.refilled = playback.refilled;
        account.matched = playback.rate_matching;
        account.matching_ppm = playback.matching_ppm;
        return account;
    }

private:
    const std::string wav_path_;
    const double clock_error_ppm_;
    hdmi_sim::RateMatching rate_matching_ = hdmi_sim::RateMatching::automatic;
};

} // namespace

std::unique_ptr<SoundOutput> make_simulated_output(const Options& options, const std::string& wav_path)
{
    return std::make_unique<SimulatedOutput>(wav_path, options);
}

} // namespace play
