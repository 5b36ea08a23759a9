// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "edges/alsa_observer.h"
#include "edges/make_edges.h"
#include "edges/platform_router.h"
#include "hdmi_sim.h"
#include "signal/sound_file.h"

namespace play
{
namespace
{

constexpr int64_t kSecondNs = 1'000'000'000;
constexpr int kOutputRate = 48000;
/// Longer than a device's buffer holds.
constexpr int64_t kLongestPlayingNs = kSecondNs;
constexpr useconds_t kLookAgainUs = 10'000;

/// A real device: records what the player writes, with the time at which it is heard by the delay that the device
/// reports.
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

    SoundAccount account() const override
    {
        const hdmi_linux::DeviceStats stats = real_playback_stats();
        SoundAccount account = {first_write_ns_, file_.frames(), file_.drift_ppm()};
        account.matched = stats.matched;
        account.matching_ppm = stats.matching_ppm;
        return account;
    }

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

/// A real device, and another one that records what comes out of it.
class ObservedOutput : public SoundOutput
{
public:
    /// @p heard_rate: of what comes out; a conversion would change the samples that are to be compared.
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
std::string captured_path(const std::string& wav_path) { return wav_path + ".captured.wav"; }

std::unique_ptr<SoundOutput> make_real_output(const std::string& wav_path)
{
    return std::make_unique<RealOutput>(wav_path);
}

std::unique_ptr<SoundOutput> make_observed_output(const Options& options, const std::string& wav_path, int link_rate)
{
    return std::make_unique<ObservedOutput>(options.observe, wav_path, options.raw ? link_rate : kOutputRate);
}

} // namespace play
