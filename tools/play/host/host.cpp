// SPDX-License-Identifier: MIT
#include "host/host.h"

#include <pthread.h>
#include <time.h>

#include <cmath>

namespace play
{
namespace
{

/// How long a pull of sound waits: long enough not to spin, short enough to notice the end.
constexpr int32_t pull_timeout_ms = 100;
/// Empty pulls in a row after which the pipeline counts as run dry.
constexpr int dry_pulls = 3;
/// What the player holds the first block of a sequence back by, to match the picture's way to the light.
constexpr double fixed_delay_s = 0.076;
/// Buffers beyond the player's queue: one on screen, two waiting for it, one being filled, and one spare.
constexpr int buffers_beside_queue = 5;
/// What the player may hold beyond its queue: the frame that it is about to flip or drop.
constexpr int held_beside_queue = 1;
constexpr int bytes_per_frame = 4;

int64_t now_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

void sleep_until_ns(int64_t deadline_ns)
{
    timespec deadline = {};
    deadline.tv_sec = deadline_ns / 1'000'000'000;
    deadline.tv_nsec = deadline_ns % 1'000'000'000;
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) != 0) {
    }
}

/**
 * How much later than the picture's zero the zero of decoded sound lies, on
 * average, in microseconds: its time line begins with the first burst that is
 * decoded after a reset, and that one began up to a burst after it.
 */
int64_t decoder_start_us(const Source& source)
{
    return source.coding() == Coding::pcm ? 0 : int64_t{burst_samples} * 1'000'000 / source.audio_rate() / 2;
}

/// Seconds of one block: the device's period at that rate.
double period_s(int rate) { return (rate == 44100 ? 896.0 : 960.0) / rate; }

} // namespace

Host* Host::s_host = nullptr;

int video_queue_slots(double fps, int audio_rate, Coding coding, int algorithm_delay_ms)
{
    constexpr int output_rate = 48000;
    double decoder_s = coding == Coding::pcm ? 0 : static_cast<double>(burst_samples) / audio_rate;
    double sound_s =
        period_s(audio_rate) + decoder_s + period_s(output_rate) + algorithm_delay_ms / 1000.0 + fixed_delay_s;
    return 2 + static_cast<int>(std::ceil(fps * sound_s));
}

Host::Host(HostConfig config, Source* source, SourceClock clock)
    : m_config(std::move(config)), m_source(source), m_clock(clock),
      m_video_queue_size(video_queue_slots(source->fps().value(), source->audio_rate(), source->coding(),
                                           m_config.algorithm_delay_ms)),
      m_pool(m_video_queue_size + buffers_beside_queue), m_line(m_config.algorithm_delay_ms),
      m_wait_for_serial(m_config.sync)
{
}

Host::~Host()
{
    stop_video();
    close();
}

bool Host::start()
{
    hdmi_player_config_t config = {};
    config.ao_dev = m_config.output;
    config.ao_format = m_config.raw ? E_HDMI_PLAYER_AO_FORMAT_RAW : E_HDMI_PLAYER_AO_FORMAT_PCM;
    config.drm_info = m_config.display;
    config.ao_sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
    config.audio_alg_max_delay_time_ms = m_config.algorithm_delay_ms;
    config.video_frame_queue_size = m_video_queue_size;
    config.event_cb = on_event;
    config.video_frame_drop_cb = on_drop;
    config.video_frame_flip_cb = on_flip;

    s_host = this;
    if (hdmi_player_open(config) != 0) {
        s_host = nullptr;
        return false;
    }
    m_opened_ns = now_ns();
    hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);
    m_audio = std::thread(&Host::audio_thread, this);
    m_video_running = true;
    m_video = std::thread(&Host::video_thread, this);
    return true;
}

void Host::stop_video()
{
    m_video_stop = true;
    if (m_video.joinable())
        m_video.join();
}

void Host::drain_audio()
{
    m_drained_ns = now_ns() + m_config.drain_ns;
    m_audio_draining = true;
    if (m_audio.joinable())
        m_audio.join();
}

void Host::close()
{
    if (s_host != this)
        return;
    // Blocks of hdmi_player_get_pcm die at close: the audio thread is gone before.
    drain_audio();
    hdmi_player_close();
    m_held = m_pool.count(Owner::player);
    m_lost = m_pool.count(Owner::player, m_rendered - m_video_queue_size - held_beside_queue);
    s_host = nullptr;
}

// --- Pictures ---------------------------------------------------------------

void Host::video_thread()
{
    pthread_setname_np(pthread_self(), "host_video");
    int64_t first_ns = m_opened_ns + m_config.video_start_ns;
    VideoFrame frame;
    while (!m_video_stop && m_source->next_video(&frame)) {
        m_last_picture = frame.number;
        int64_t due_ns = m_clock.to_monotonic(frame.source_ns);
        if (due_ns < first_ns)
            continue;
        // Painted ahead: the moment of the call is the picture's time.
        FrameBuffer* buffer = fill(frame);
        sleep_until_ns(due_ns);
        if (buffer != nullptr)
            render(buffer);
    }
    m_video_running = false;
}

FrameBuffer* Host::fill(const VideoFrame& frame)
{
    FrameBuffer* buffer = m_pool.acquire();
    if (buffer == nullptr) {
        m_no_buffer++;
        return nullptr;
    }
    buffer->picture = frame.picture;
    buffer->number = frame.number;
    if (m_config.paint)
        m_config.paint(buffer, frame.image.get());
    return buffer;
}

void Host::render(FrameBuffer* buffer)
{
    buffer->turn = m_rendered;
    // Flip or drop may come before the call returns: the buffer must be the player's by then.
    FramePool::pass(buffer, Owner::host, Owner::player);
    int64_t resets_before = m_resets;
    hdmi_player_video_frame_t rendered = {buffer, 0};
    bool passed = hdmi_player_video_render(&rendered) == 0;
    // A reset reports failure although it has queued the picture.
    passed = passed || m_resets != resets_before;
    if (passed) {
        m_rendered++;
        return;
    }
    m_refused++;
    FramePool::pass(buffer, Owner::player, Owner::free);
}

FrameBuffer* Host::take_back(void* handle, Owner next)
{
    auto* buffer = static_cast<FrameBuffer*>(handle);
    if (m_pool.owns(buffer) && FramePool::pass(buffer, Owner::player, next))
        return buffer;
    m_foreign++;
    return nullptr;
}

// The callbacks come from the player's pacing thread and from inside of hdmi_player_video_render,
// possibly both at once. None takes a lock of this class.

void Host::on_flip(hdmi_player_video_frame_t frame)
{
    FrameBuffer* buffer = s_host->take_back(frame.buf_handle, Owner::display);
    if (buffer == nullptr)
        return;
    s_host->m_flipped++;
    int64_t flipped_ns = now_ns();
    bool admitted = s_host->m_config.gate->admit(flipped_ns);
    if (Trace* trace = s_host->m_config.trace)
        trace->flips.add({flipped_ns, buffer->number, admitted});
    if (admitted) {
        s_host->m_config.present(buffer);
        return;
    }
    s_host->m_skipped++;
    FramePool::pass(buffer, Owner::display, Owner::free);
}

void Host::on_drop(hdmi_player_video_frame_t frame)
{
    if (s_host->take_back(frame.buf_handle, Owner::free) != nullptr)
        s_host->m_dropped++;
}

void Host::on_event(hdmi_player_event_e event)
{
    if (event == E_HDMI_PLAYER_EVENT_AVSYNC_RESET) {
        s_host->m_reset_ns = now_ns();
        s_host->m_resets++;
    } else {
        s_host->m_unsupported++;
    }
}

// --- Sound ------------------------------------------------------------------

void Host::audio_thread()
{
    pthread_setname_np(pthread_self(), "host_audio");
    hdmi_player_audio_frame_t last = {};
    int dry = 0;
    while (!m_audio_draining || (dry < dry_pulls && now_ns() < m_drained_ns)) {
        hdmi_player_audio_frame_t* block = nullptr;
        if (hdmi_player_get_pcm(&block, pull_timeout_ms) != 0) {
            dry++;
            continue;
        }
        dry = 0;
        last = *block;
        play_block(*block);
        hdmi_player_put_pcm(block);
    }
    m_line.drain();
    write_from_line(last);
}

/**
 * Sound from before the reset must not reach the output: it would lie in the
 * device when the new sequence starts, and delay it for good.
 */
bool Host::belongs_to_new_sequence(int32_t serial)
{
    int64_t resets = m_resets;
    if (resets != m_resets_seen) {
        m_resets_seen = resets;
        m_wait_for_serial = true;
    }
    bool changed = serial != m_serial;
    m_serial = serial;
    // Without A/V sync no reset is announced, and every sequence is played.
    if (changed && (m_resets_seen > 0 || !m_config.sync))
        m_wait_for_serial = false;
    return !m_wait_for_serial;
}

void Host::play_block(const hdmi_player_audio_frame_t& block)
{
    int frames = block.size / bytes_per_frame;
    int32_t serial_before = m_serial;
    bool first = m_audio_account.written == 0 && m_line.empty();
    m_audio_account.pulled += frames;
    if (!belongs_to_new_sequence(block.serial)) {
        m_audio_account.discarded += frames;
        return;
    }
    if (first || block.serial != serial_before)
        m_line.start(block.pts + decoder_start_us(*m_source), block.sample_rate);
    m_line.push(reinterpret_cast<const int16_t*>(block.data), frames);
    write_from_line(block);
}

void Host::write_from_line(const hdmi_player_audio_frame_t& like)
{
    int64_t pts_us = 0;
    int frames = m_line.pop(&m_processed, &pts_us);
    if (frames == 0)
        return;
    hdmi_player_audio_frame_t out = like;
    out.data = reinterpret_cast<uint8_t*>(m_processed.data());
    out.size = frames * bytes_per_frame;
    out.buf_size = out.size;
    out.pts = pts_us;
    int64_t handed_ns = now_ns();
    // Waits while the player's output queue is full: the sound device sets the pace.
    if (hdmi_player_write_pcm(&out) != 0) {
        m_audio_account.failed_writes++;
        return;
    }
    if (m_config.trace != nullptr)
        m_config.trace->handed.add({handed_ns, pts_us, out.serial, frames, mark_of(out.data, out.size)});
    m_audio_account.written += frames;
}

// --- Accounts ---------------------------------------------------------------

FrameAccount Host::frames() const
{
    FrameAccount account;
    account.rendered = m_rendered;
    account.flipped = m_flipped;
    account.skipped = m_skipped;
    account.dropped = m_dropped;
    account.refused = m_refused;
    account.held = m_held;
    account.lost = m_lost;
    account.foreign = m_foreign;
    account.no_buffer = m_no_buffer;
    return account;
}

AudioAccount Host::audio() const { return m_audio_account; }

} // namespace play
