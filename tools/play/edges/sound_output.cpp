// SPDX-License-Identifier: MIT
#include "edges/sound_output.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "edges/alsa_observer.h"
#include "edges/platform_router.h"
#include "hdmi_sim.h"
#include "signal/sound_file.h"

namespace play
{
namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecondNs = 1000 * kMs;
constexpr int kOutputRate = 48000;
/// Longer than a device's buffer holds.
constexpr int64_t kLongestPlayingNs = kSecondNs;
constexpr useconds_t kLookAgainUs = 10'000;

/// The simulated device records what it plays.
class SimulatedOutput : public SoundOutput
{
public:
    SimulatedOutput(std::string wav_path, double clock_error_ppm)
        : wav_path_(std::move(wav_path)), clock_error_ppm_(clock_error_ppm)
    {
    }

    bool start(std::string*) override
    {
        hdmi_sim::PlaybackConfig playback;
        playback.wav_path = wav_path_;
        playback.clock_error_ppm = clock_error_ppm_;
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
        return {playback.first_write_ns, playback.frames_written, clock_error_ppm_, 0};
    }

private:
    const std::string wav_path_;
    const double clock_error_ppm_;
};

/// A real device: what it is given is recorded, with the time at which it says that this is heard.
class RealOutput : public SoundOutput, private SeamTap
{
public:
    explicit RealOutput(const std::string& wav_path) : file_(wav_path, kOutputRate) {}
    ~RealOutput() override { tap_playback(nullptr); }

    bool start(std::string*) override
    {
        tap_playback(this);
        return true;
    }

    void wait_until_played() override
    {
        int64_t last_ns = last_heard_ns_;
        int64_t deadline = std::min(last_ns, hdmi_sim::now_ns() + kLongestPlayingNs);
        while (hdmi_sim::now_ns() < deadline)
            usleep(kLookAgainUs);
    }

    bool finish(std::string* error) override
    {
        tap_playback(nullptr);
        bool finished = file_.finish(error);
        if (!other_rate_)
            return finished;
        if (error != nullptr)
            *error = "the player opened its device at another rate than " + std::to_string(kOutputRate) + " Hz";
        return false;
    }

    RecordedSound heard() const override { return sent(); }
    RecordedSound sent() const override { return {file_.path(), file_.blocks()}; }
    SoundAccount account() const override { return {first_write_ns_, file_.frames(), file_.drift_ppm(), 0}; }

private:
    void opened(const audio_config_t& config) override
    {
        other_rate_ = other_rate_ || config.sample_rate != kOutputRate;
        file_.begin_run();
    }

    void written(const uint8_t* data, int bytes, int64_t now_ns, int delay_frames) override
    {
        constexpr int kFrameBytes = 4;
        int frames = bytes / kFrameBytes;
        if (first_write_ns_ == 0)
            first_write_ns_ = now_ns;
        if (delay_frames >= 0) {
            last_heard_ns_ = now_ns + delay_frames * kSecondNs / kOutputRate;
            file_.heard(file_.frames() + frames, last_heard_ns_);
        }
        file_.append(reinterpret_cast<const int16_t*>(data), frames);
    }

    SoundFile file_;
    std::atomic<bool> other_rate_{false};
    std::atomic<int64_t> first_write_ns_{0};
    std::atomic<int64_t> last_heard_ns_{0};
};

/// A real device, with another one that hears what comes out of it.
class ObservedOutput : public SoundOutput
{
public:
    /// @p heard_rate: of what comes out; behind a device that changes it, its samples could not be told apart.
    ObservedOutput(const std::string& device, const std::string& wav_path, int heard_rate)
        : output_(sent_path(wav_path)), observer_(device, wav_path, heard_rate)
    {
    }

    bool start(std::string* error) override { return output_.start(error) && observer_.start(error); }
    void wait_until_played() override { output_.wait_until_played(); }

    bool finish(std::string* error) override
    {
        bool observed = observer_.finish(error);
        return output_.finish(observed ? error : nullptr) && observed;
    }

    RecordedSound heard() const override { return observer_.heard(); }
    RecordedSound sent() const override { return output_.sent(); }

    SoundAccount account() const override
    {
        SoundAccount account = output_.account();
        account.drift_ppm = observer_.drift_ppm();
        account.observer_breaks = observer_.breaks();
        return account;
    }

private:
    RealOutput output_;
    AlsaObserver observer_;
};

} // namespace

std::string sent_path(const std::string& wav_path) { return wav_path + ".sent.wav"; }

std::unique_ptr<SoundOutput> make_sound_output(const Options& options, const std::string& wav_path, int link_rate)
{
    if (options.playback.empty())
        return std::make_unique<SimulatedOutput>(wav_path, options.playback_ppm);
    if (options.observe.empty())
        return std::make_unique<RealOutput>(wav_path);
    return std::make_unique<ObservedOutput>(options.observe, wav_path, options.raw ? link_rate : kOutputRate);
}

} // namespace play
