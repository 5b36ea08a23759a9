// SPDX-License-Identifier: MIT
#include "stage.h"

#include <unistd.h>

#include "hdmi_sim.h"

namespace play
{
namespace
{

/// The source is already sending when the player opens: sound from the first read on.
constexpr int64_t source_lead_ns = 20'000'000;
constexpr int64_t ms = 1'000'000;

void release(void* buffer) { FramePool::pass(static_cast<FrameBuffer*>(buffer), Owner::display, Owner::free); }

} // namespace

bool Stage::enter_namespaces(std::string* error) { return hdmi_sim::enter_private_namespaces(error); }

Stage::Stage(const Options& options, Source* source, Screen* screen, FlipGate* gate, const std::string& wav_path)
    : m_options(options), m_source(source), m_screen(screen), m_gate(gate), m_wav_path(wav_path)
{
}

Stage::~Stage()
{
    if (m_display_running)
        hdmi_sim::display_stop();
}

hdmi_player_drm_info_t Stage::start()
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
    auto refresh_hz = m_options.display_rate.value();
    if (!m_options.simulated_display)
        return {0, static_cast<float>(refresh_hz)};

    hdmi_sim::DisplayConfig display;
    display.refresh_hz = refresh_hz;
    display.latency_ns = m_options.display_latency_ms * ms;
    auto scan_out = [this](const hdmi_sim::ScanOut& out) {
        m_gate->vblank(out.vblank_ns);
        if (out.buffer != nullptr)
            m_screen->refresh(static_cast<const FrameBuffer*>(out.buffer)->picture, out.seen_ns);
    };
    int fd = hdmi_sim::display_start(display, scan_out, [](void* buffer, bool) { release(buffer); });
    m_display_running = true;
    return {fd, static_cast<float>(refresh_hz)};
}

SourceClock Stage::connect()
{
    hdmi_sim::write_state_file(hdmi_sim::announce_text(false, m_source->audio_rate()));
    hdmi_sim::Signal signal;
    signal.rate = m_source->audio_rate();
    signal.clock_error_ppm = m_options.receiver_ppm;
    signal.start_ns = hdmi_sim::now_ns() + source_lead_ns + static_cast<int64_t>(m_options.phase_ms * ms);
    signal.generate = [source = m_source](int64_t first, int16_t* words, int frames) {
        source->audio(first, words, frames);
    };
    hdmi_sim::receiver_connect(signal);
    return {signal.start_ns, m_options.receiver_ppm};
}

void Stage::present(FrameBuffer* buffer)
{
    if (m_options.simulated_display)
        hdmi_sim::display_flip(buffer);
    else
        show_now(buffer);
}

void Stage::show_now(FrameBuffer* buffer)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_screen->refresh(buffer->picture, hdmi_sim::now_ns() + m_options.display_latency_ms * ms);
    if (m_shown != nullptr)
        release(m_shown);
    m_shown = buffer;
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

bool Stage::finish(Recording* recording, std::string* error)
{
    if (m_display_running) {
        hdmi_sim::display_stop();
        m_display_running = false;
    }
    if (!hdmi_sim::playback_finish_recording()) {
        *error = "nothing was played";
        return false;
    }
    std::vector<HeardBlock> blocks;
    for (const hdmi_sim::PlayedBlock& block : hdmi_sim::playback_blocks())
        blocks.push_back({block.first_frame, block.frames, block.heard_ns, block.silence});
    return recording->open(m_wav_path, std::move(blocks), error);
}

StageStats Stage::stats() const
{
    StageStats stats;
    hdmi_sim::ReceiverStats receiver = hdmi_sim::receiver_stats();
    stats.captured = receiver.frames_read;
    stats.first_captured = receiver.first_read_frame;
    stats.capture_opens = receiver.opens;
    stats.overruns = receiver.overruns;
    hdmi_sim::PlaybackStats playback = hdmi_sim::playback_stats();
    stats.playback_opens = playback.opens;
    stats.first_write_ns = playback.first_write_ns;
    hdmi_sim::DisplayStats display = hdmi_sim::display_stats();
    stats.vblanks = display.vblanks;
    stats.flips = display.flips;
    stats.superseded = display.superseded;
    stats.repeated = display.repeated;
    stats.withheld = hdmi_sim::fault_hits(hdmi_sim::Op::playback_write);
    return stats;
}

} // namespace play
