// SPDX-License-Identifier: MIT
#include "stage.h"

#include <unistd.h>

#include <algorithm>
#include <random>

#include "hdmi_sim.h"

namespace play
{
namespace
{

/// The source is already sending when the player opens: sound from the first read on.
constexpr int64_t source_lead_ns = 20'000'000;
constexpr int64_t ms = 1'000'000;
constexpr int64_t second_ns = 1000 * ms;
constexpr int link_frame_bytes = 4;

/// The link frame from @p frame on that lies @p phase bytes before the beginning of a burst.
int64_t opening_at(Coding coding, int64_t frame, int phase)
{
    int64_t period = burst_link_frames(coding);
    int64_t wanted = period - phase / link_frame_bytes % period;
    return frame + ((wanted - frame) % period + period) % period;
}

} // namespace

bool Stage::enter_namespaces(std::string* error) { return hdmi_sim::enter_private_namespaces(error); }

Stage::Stage(const Options& options, Source* source, const std::string& wav_path)
    : m_options(options), m_source(source), m_wav_path(wav_path)
{
}

void Stage::start()
{
    hdmi_sim::PlaybackConfig playback;
    playback.wav_path = m_wav_path;
    playback.clock_error_ppm = m_options.playback_ppm;
    hdmi_sim::playback_configure(playback);
    if (m_options.withhold_block) {
        hdmi_sim::Fault fault;
        fault.kind = hdmi_sim::FaultKind::withhold;
        // A block in the third second: the player has settled, and the sound goes on for a while.
        fault.skip = 2 * 48000 / 960 + 7;
        fault.count = 1;
        hdmi_sim::set_fault(hdmi_sim::Op::playback_write, fault);
    }
}

SourceClock Stage::connect()
{
    bool compressed = m_source->coding() != Coding::pcm;
    hdmi_sim::write_state_file(hdmi_sim::announce_text(compressed, m_source->audio_rate()));
    hdmi_sim::Signal signal;
    signal.rate = m_source->link_rate();
    signal.clock_error_ppm = m_options.receiver_ppm;
    signal.start_ns = hdmi_sim::now_ns() + source_lead_ns + static_cast<int64_t>(m_options.phase_ms * ms);
    signal.generate = [source = m_source](int64_t first, int16_t* words, int frames) {
        source->link(first, words, frames);
    };
    int phase = m_options.chunk_phase;
    if (phase == phase_random)
        phase = static_cast<int>(std::random_device()() % burst_link_frames(m_source->coding())) * link_frame_bytes;
    m_chunk_phase = phase;
    if (compressed && phase != phase_anywhere)
        signal.open_at = [this, phase](int64_t frame) {
            // A device that is opened again goes on with what passes: none waits for a burst.
            bool first = !m_opened.exchange(true);
            return first ? opening_at(m_source->coding(), frame, phase) : frame;
        };
    hdmi_sim::receiver_connect(signal);
    return {signal.start_ns, m_options.receiver_ppm};
}

void Stage::disconnect() { hdmi_sim::receiver_disconnect(); }

void Stage::wait_until_played()
{
    // Longer than the device's buffer holds, and than the display's pending pictures take.
    constexpr int64_t longest_ns = 1000 * ms;
    constexpr useconds_t look_again_us = 10'000;
    int64_t deadline = hdmi_sim::now_ns() + longest_ns;
    while (hdmi_sim::now_ns() < deadline) {
        std::vector<hdmi_sim::PlayedBlock> blocks = hdmi_sim::playback_blocks();
        if (!blocks.empty() && blocks.back().silence && blocks.back().heard_ns < hdmi_sim::now_ns())
            return;
        usleep(look_again_us);
    }
}

RawCheck Stage::check_raw() const
{
    RawCheck check;
    int64_t next = -1;
    int64_t burst_frames = burst_link_frames(m_source->coding());
    for (const hdmi_sim::BypassRun& run : hdmi_sim::bypass_recording()) {
        auto frames = static_cast<int64_t>(run.words.size() / 2);
        if (check.began_ns == 0)
            check.began_ns = run.first_ns;
        check.ended_ns = run.first_ns + frames * second_ns / run.rate;
        check.gaps += next >= 0 && run.first_frame != next ? 1 : 0;
        next = run.first_frame + frames;
        int64_t first_burst = (run.first_frame + burst_frames - 1) / burst_frames;
        check.bursts += std::max<int64_t>(0, next / burst_frames - first_burst);
        check.frames += frames;
        std::vector<int16_t> sent(run.words.size());
        m_source->link(run.first_frame, sent.data(), static_cast<int>(frames));
        for (size_t i = 0; i < sent.size(); i += 2)
            check.different += sent[i] != run.words[i] || sent[i + 1] != run.words[i + 1] ? 1 : 0;
    }
    return check;
}

bool Stage::finish(Recording* recording, std::string* error)
{
    // With the bursts passed on, the player's own sound device stays silent.
    if (m_options.raw)
        return true;
    if (!hdmi_sim::playback_finish_recording(error))
        return false;
    std::vector<HeardBlock> blocks;
    for (const hdmi_sim::PlayedBlock& block : hdmi_sim::playback_blocks())
        blocks.push_back({block.first_frame, block.frames, block.heard_ns, block.silence});
    return recording->open(m_wav_path, std::move(blocks), error);
}

StageStats Stage::stats() const
{
    StageStats stats;
    hdmi_sim::ReceiverStats receiver = hdmi_sim::receiver_stats();
    stats.chunk_phase = m_chunk_phase;
    stats.captured_end = receiver.end_read_frame;
    stats.capture_opens = receiver.opens;
    stats.overruns = receiver.overruns;
    hdmi_sim::PlaybackStats playback = hdmi_sim::playback_stats();
    stats.playback_opens = playback.opens;
    stats.playback_frames = playback.frames_written;
    stats.first_write_ns = playback.first_write_ns;
    stats.withheld = hdmi_sim::fault_hits(hdmi_sim::Op::playback_write);
    return stats;
}

} // namespace play
