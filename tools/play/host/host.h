// SPDX-License-Identifier: MIT
/**
 * @file
 * A host of the player: everything a product does with hdmi_player.h, and
 * nothing of the simulation around it. The example to copy from.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "host/algorithm.h"
#include "host/flip_gate.h"
#include "host/frame_pool.h"
#include "hdmi_player.h"
#include "source/source.h"
#include "host/trace.h"

namespace play
{

struct HostConfig {
    hdmi_player_ao_dev_e output = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    hdmi_player_drm_info_t display = {0, 60};
    int algorithm_delay_ms = 0;
    int64_t video_start_ns = 0; ///< first picture that long after open
    bool raw = false;           ///< compressed sound goes to the output as it is
    bool sync = true;           ///< false: the player runs free, and no reset announces a new sequence

    int64_t drain_ns = 5'000'000'000; ///< after the signal's end its sound must run dry in that time, or is cut off

    FlipGate* gate = nullptr; ///< of the display; outlives the host
    Trace* trace = nullptr;   ///< written down there; outlives the host
    /// Paints a buffer's picture where the display reads it, before the player is given it; may take its time.
    std::function<void(FrameBuffer*, const Image*)> paint;
    /// Shows a buffer at the next vertical blank; FramePool::pass() gives it back when the display is done with it.
    std::function<void(FrameBuffer*)> present;
};

/// Pictures: rendered = flipped + dropped + held.
struct FrameAccount {
    int64_t rendered = 0; ///< passed to the player
    int64_t flipped = 0;
    int64_t skipped = 0; ///< of these, not shown: flipped at a stroke with the one before
    int64_t dropped = 0;
    int64_t refused = 0;   ///< kept by the host: the player did not take them
    int64_t held = 0;      ///< still the player's when it was closed
    int64_t lost = 0;      ///< of these, passed so long before that they cannot have been in its queue any more
    int64_t foreign = 0;   ///< callbacks with a handle that was not the player's at that moment
    int64_t no_buffer = 0; ///< pictures for which the host had no buffer left

    bool closes() const { return rendered == flipped + dropped + held && foreign == 0 && lost == 0; }
};

struct AudioAccount {
    int64_t pulled = 0;    ///< frames of hdmi_player_get_pcm
    int64_t discarded = 0; ///< of these, given back unwritten
    int64_t written = 0;   ///< frames accepted by hdmi_player_write_pcm
    int64_t failed_writes = 0;
};

class Host
{
public:
    /// @p source must outlive the host. One host at a time: the player's callbacks carry no context.
    Host(HostConfig config, Source* source, SourceClock clock);
    ~Host();

    /// Opens the player, tells it that the cable is in, and starts to play. @return false: nothing runs
    bool start();

    bool video_running() const { return m_video_running; }
    /// Ends the video thread at its next picture, or waits for the end of the source.
    void stop_video();
    /// The signal has ended: plays what is still on its way to the output.
    void drain_audio();
    /// Closes the player; what it still held is the host's again.
    void close();

    FrameAccount frames() const;
    AudioAccount audio() const;
    int64_t resets() const { return m_resets; }
    int64_t unsupported() const { return m_unsupported; }
    int64_t opened_ns() const { return m_opened_ns; }
    /// When the last A/V sync reset was raised, 0: never.
    int64_t reset_ns() const { return m_reset_ns; }
    int video_queue_size() const { return m_video_queue_size; }
    /// Number of the last picture that the source sent, -1: none.
    int64_t last_picture() const { return m_last_picture; }

private:
    static void on_event(hdmi_player_event_e event);
    static void on_flip(hdmi_player_video_frame_t frame);
    static void on_drop(hdmi_player_video_frame_t frame);

    void video_thread();
    FrameBuffer* fill(const VideoFrame& frame);
    void render(FrameBuffer* buffer);
    void audio_thread();
    void play_block(const hdmi_player_audio_frame_t& block);
    void write_from_line(const hdmi_player_audio_frame_t& like);
    bool belongs_to_new_sequence(int32_t serial);
    FrameBuffer* take_back(void* handle, Owner next);

    static Host* s_host;

    HostConfig m_config;
    Source* m_source;
    SourceClock m_clock;
    int m_video_queue_size;
    FramePool m_pool;
    int64_t m_opened_ns = 0;

    std::thread m_video;
    std::thread m_audio;
    std::atomic<bool> m_video_stop{false};
    std::atomic<bool> m_video_running{false};
    std::atomic<bool> m_audio_draining{false};
    std::atomic<int64_t> m_drained_ns{0}; ///< when draining ends at the latest

    std::atomic<int64_t> m_resets{0};
    std::atomic<int64_t> m_reset_ns{0};
    std::atomic<int64_t> m_unsupported{0};
    std::atomic<int64_t> m_rendered{0};
    std::atomic<int64_t> m_flipped{0};
    std::atomic<int64_t> m_skipped{0};
    std::atomic<int64_t> m_dropped{0};
    std::atomic<int64_t> m_refused{0};
    std::atomic<int64_t> m_foreign{0};
    std::atomic<int64_t> m_no_buffer{0};
    std::atomic<int64_t> m_held{0};
    std::atomic<int64_t> m_lost{0};
    std::atomic<int64_t> m_last_picture{-1};

    // The audio thread's own, read by others after it was joined.
    DelayLine m_line;
    std::vector<int16_t> m_processed;
    AudioAccount m_audio_account;
    int64_t m_resets_seen = 0;
    int32_t m_serial = 0;   ///< of the last block; a player's first sequence is number 0
    bool m_wait_for_serial; ///< blocks of m_serial are stale
};

/// Slots that the player's video queue needs, see hdmi_player_config_t::video_frame_queue_size.
int video_queue_slots(double fps, int audio_rate, Coding coding, int algorithm_delay_ms);

} // namespace play
