// SPDX-License-Identifier: MIT
#include "edges/sound_output.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "edges/alsa_observer.h"
#include "hdmi_sim.h"
#include "edges/platform_router.h"
#include "signal/sound_file.h"

namespace play
{
namespace
{

constexpr int64_t ms = 1'000'000;
constexpr int64_t second_ns = 1000 * ms;
constexpr int output_rate = 48000;
/// Longer than a device's buffer holds.
constexpr int64_t longest_playing_ns = second_ns;
constexpr useconds_t look_again_us = 10'000;

/// The simulated device records what it plays.
class SimulatedOutput : public SoundOutput
{
public:
    SimulatedOutput(std::string wav_path, double clock_error_ppm)
        : m_wav_path(std::move(wav_path)), m_clock_error_ppm(clock_error_ppm)
    {
    }

    bool start(std::string*) override
    {
        hdmi_sim::PlaybackConfig playback;
        playback.wav_path = m_wav_path;
        playback.clock_error_ppm = m_clock_error_ppm;
        hdmi_sim::playback_configure(playback);
        return true;
    }

    void wait_until_played() override
    {
        int64_t deadline = hdmi_sim::now_ns() + longest_playing_ns;
        while (hdmi_sim::now_ns() < deadline) {
            std::vector<hdmi_sim::PlayedBlock> blocks = hdmi_sim::playback_blocks();
            if (!blocks.empty() && blocks.back().silence && blocks.back().heard_ns < hdmi_sim::now_ns())
                return;
            usleep(look_again_us);
        }
    }

    bool finish(std::string* error) override { return hdmi_sim::playback_finish_recording(error); }

    RecordedSound heard() const override
    {
        RecordedSound sound{m_wav_path, {}};
        for (const hdmi_sim::PlayedBlock& block : hdmi_sim::playback_blocks())
            sound.blocks.push_back({block.first_frame, block.frames, block.heard_ns, block.silence});
        return sound;
    }

    RecordedSound sent() const override { return heard(); }

    SoundAccount account() const override
    {
        hdmi_sim::PlaybackStats playback = hdmi_sim::playback_stats();
        return {playback.first_write_ns, playback.frames_written, m_clock_error_ppm, 0};
    }

private:
    const std::string m_wav_path;
    const double m_clock_error_ppm;
};

/// A real device: what it is given is recorded, with the time at which it says that this is heard.
class RealOutput : public SoundOutput, private SeamTap
{
public:
    explicit RealOutput(const std::string& wav_path) : m_file(wav_path, output_rate) {}
    ~RealOutput() override { tap_playback(nullptr); }

    bool start(std::string*) override
    {
        tap_playback(this);
        return true;
    }

    void wait_until_played() override
    {
        int64_t last_ns = m_last_heard_ns;
        int64_t deadline = std::min(last_ns, hdmi_sim::now_ns() + longest_playing_ns);
        while (hdmi_sim::now_ns() < deadline)
            usleep(look_again_us);
    }

    bool finish(std::string* error) override
    {
        tap_playback(nullptr);
        bool finished = m_file.finish(error);
        if (!m_other_rate)
            return finished;
        if (error != nullptr)
            *error = "the player opened its device at another rate than " + std::to_string(output_rate) + " Hz";
        return false;
    }

    RecordedSound heard() const override { return sent(); }
    RecordedSound sent() const override { return {m_file.path(), m_file.blocks()}; }
    SoundAccount account() const override { return {m_first_write_ns, m_file.frames(), m_file.drift_ppm(), 0}; }

private:
    void opened(const audio_config_t& config) override
    {
        m_other_rate = m_other_rate || config.sample_rate != output_rate;
        m_file.begin_run();
    }

    void written(const uint8_t* data, int bytes, int64_t now_ns, int delay_frames) override
    {
        constexpr int frame_bytes = 4;
        int frames = bytes / frame_bytes;
        if (m_first_write_ns == 0)
            m_first_write_ns = now_ns;
        if (delay_frames >= 0) {
            m_last_heard_ns = now_ns + delay_frames * second_ns / output_rate;
            m_file.heard(m_file.frames() + frames, m_last_heard_ns);
        }
        m_file.append(reinterpret_cast<const int16_t*>(data), frames);
    }

    SoundFile m_file;
    std::atomic<bool> m_other_rate{false};
    std::atomic<int64_t> m_first_write_ns{0};
    std::atomic<int64_t> m_last_heard_ns{0};
};

/// A real device, with another one that hears what comes out of it.
class ObservedOutput : public SoundOutput
{
public:
    /// @p heard_rate: of what comes out; behind a device that changes it, its samples could not be told apart.
    ObservedOutput(const std::string& device, const std::string& wav_path, int heard_rate)
        : m_output(sent_path(wav_path)), m_observer(device, wav_path, heard_rate)
    {
    }

    bool start(std::string* error) override { return m_output.start(error) && m_observer.start(error); }
    void wait_until_played() override { m_output.wait_until_played(); }

    bool finish(std::string* error) override
    {
        bool observed = m_observer.finish(error);
        return m_output.finish(observed ? error : nullptr) && observed;
    }

    RecordedSound heard() const override { return m_observer.heard(); }
    RecordedSound sent() const override { return m_output.sent(); }

    SoundAccount account() const override
    {
        SoundAccount account = m_output.account();
        account.drift_ppm = m_observer.drift_ppm();
        account.observer_breaks = m_observer.breaks();
        return account;
    }

private:
    RealOutput m_output;
    AlsaObserver m_observer;
};

} // namespace

std::string sent_path(const std::string& wav_path) { return wav_path + ".sent.wav"; }

std::unique_ptr<SoundOutput> make_sound_output(const Options& options, const std::string& wav_path, int link_rate)
{
    if (options.playback.empty())
        return std::make_unique<SimulatedOutput>(wav_path, options.playback_ppm);
    if (options.observe.empty())
        return std::make_unique<RealOutput>(wav_path);
    return std::make_unique<ObservedOutput>(options.observe, wav_path, options.raw ? link_rate : output_rate);
}

} // namespace play
