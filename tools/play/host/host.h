// SPDX-License-Identifier: MIT
/**
 * @file
 * A host of the player: everything that a product does with hdmi_player.h,
 * without the simulation around it. Copy from here.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

#include "common/flip_hold.h"
#include "common/late_sound.h"
#include "common/plan_watch.h"
#include "common/sound_hold.h"
#include "common/wall_clock.h"
#include "display/flip_gate.h"
#include "hdmi_player.h"
#include "host/algorithm.h"
#include "host/trace.h"
#include "source/picture_buffer.h"
#include "source/source.h"

namespace play
{

using display::FlipGate;
using display::Owner;

struct HostConfig {
    hdmi_player_ao_dev_e output = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    hdmi_player_drm_info_t display = {0, 60};
    int algorithm_delay_ms = 0;
    int video_queue_slots = 0;  ///< 0: what the source needs as it is now
    int64_t video_start_ns = 0; ///< first picture that long after open
    common::Holds holds;        ///< what the display needs
    int64_t stall_ns = 0;       ///< the sound's thread stands still once, for that long
    bool raw = false;           ///< compressed sound goes to the output as it is
    bool sync = true;           ///< false: the player runs free, and no reset announces a new sequence

    int64_t drain_ns = 5'000'000'000; ///< after the signal's end its sound must run dry in that time, or is cut off

    /// Whether the wall clock was set since the last call; on the video thread. None: the machine's clock is watched.
    std::function<bool()> clock_was_set;

    FlipGate* gate = nullptr; ///< of the display; outlives the host
    Trace* trace = nullptr;   ///< written down there; outlives the host
    /// Paints a buffer's picture where the display reads it, before the player is given it; may take its time.
    std::function<void(PictureBuffer*, const Image*)> paint;
    /// Shows a buffer at the next vertical blank; display::release() gives it back when the display is done with it.
    /// On any thread, at the end of the buffer's hold.
    std::function<void(display::FrameBuffer*)> present;
};

/// Pictures: rendered = flipped + dropped + held.
struct FrameAccount {
    int64_t rendered = 0; ///< passed to the player
    int64_t flipped = 0;
    int64_t skipped = 0; ///< of these, not shown: coalesced with another flip
    int64_t dropped = 0;
    int64_t refused = 0;   ///< kept by the host: the player did not take them
    int64_t held = 0;      ///< still the player's when it was closed
    int64_t lost = 0;      ///< of these, passed so long before that they cannot have been in its queue any more
    int64_t foreign = 0;   ///< callbacks with a handle that was not the player's at that moment
    int64_t no_buffer = 0; ///< pictures for which the host had no buffer left
    int64_t withheld = 0;  ///< not passed to the player, so that it resets: the wall clock was set, or the plan left

    bool closes() const { return rendered == flipped + dropped + held && foreign == 0 && lost == 0; }
};

struct AudioAccount {
    int64_t pulled = 0;           ///< frames of hdmi_player_get_pcm
    int64_t discarded = 0;        ///< of these, given back unwritten
    int64_t cut_off = 0;          ///< of these, at a reset in the middle of the sound
    int64_t late = 0;             ///< frames thrown away, because the host came too late with them
    int64_t written = 0;          ///< frames accepted by hdmi_player_write_pcm
    int64_t cut_off_at_start = 0; ///< of these, in sequences that a reset in the first second ended
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

    bool video_running() const { return video_running_; }
    /// The sound's thread stands still once, for that long, before its next block. From any thread.
    void stall_sound(int64_t stall_ns) { stall_ns_ = stall_ns; }
    /// Likewise the video's, before its next picture.
    void stall_video(int64_t stall_ns) { video_stall_ns_ = stall_ns; }
    /// Ends the video thread at its next picture, or waits for the end of the source.
    void stop_video();
    /// The signal has ended: plays what is still on its way to the output.
    void drain_audio();
    /// Closes the player; what it still held is the host's again. Shows what was flipped before.
    void close();

    FrameAccount frames() const;
    AudioAccount audio() const;
    int64_t resets() const { return resets_; }
    int64_t unsupported() const { return unsupported_; }
    int64_t opened_ns() const { return opened_ns_; }
    /// When the last A/V sync reset was raised, 0: never.
    int64_t reset_ns() const { return reset_ns_; }
    /// Likewise the first one.
    int64_t first_reset_ns() const { return first_reset_ns_; }
    int video_queue_size() const { return video_queue_size_; }
    const common::Holds& holds() const { return config_.holds; }
    /// Frames of silence with which the sound begins, as many as are held.
    int held_sound() const { return sound_hold_.frames(); }
    /// Number of the last picture that the source sent, -1: none.
    int64_t last_picture() const { return last_picture_; }

private:
    static void on_event(hdmi_player_event_e event);
    static void on_flip(hdmi_player_video_frame_t frame);
    static void on_drop(hdmi_player_video_frame_t frame);

    void video_thread();
    void take_stall(std::atomic<int64_t>* stall_ns);
    PictureBuffer* fill(const VideoFrame& frame);
    void render(PictureBuffer* buffer);
    void audio_thread();
    void play_block(const hdmi_player_audio_frame_t& block);
    void write_from_line(const hdmi_player_audio_frame_t& like);
    bool throws_away(int64_t pts_us, int sample_rate);
    void write(const hdmi_player_audio_frame_t& like, int64_t pts_us);
    bool belongs_to_new_sequence(int32_t serial);
    PictureBuffer* take_back(void* handle, Owner next);

    void leave_out(PictureBuffer* buffer);
    /// Bursts that are passed on pass the host by; what the other outputs are given is sound all the same.
    bool has_plan() const
    {
        const bool digital =
            config_.output == E_HDMI_PLAYER_AO_DEV_SPDIF || config_.output == E_HDMI_PLAYER_AO_DEV_HDMI_ARC;
        return config_.sync && !(config_.raw && digital);
    }

    static Host* host_;

    HostConfig config_;
    Source* source_;
    SourceClock clock_;
    int video_queue_size_;
    display::FramePool<PictureBuffer> pool_;
    std::unique_ptr<common::HeldFlips> held_flips_; ///< while the player is open
    int64_t opened_ns_ = 0;

    common::PlanWatch plan_;

    std::thread video_;
    std::thread audio_;
    std::atomic<bool> video_stop_{false};
    std::atomic<bool> video_running_{false};
    std::atomic<bool> audio_draining_{false};
    std::atomic<int64_t> drained_ns_{0}; ///< when draining ends at the latest
    std::atomic<int64_t> stall_ns_{0};
    std::atomic<int64_t> video_stall_ns_{0};

    std::atomic<int64_t> resets_{0};
    std::atomic<int64_t> reset_ns_{0};
    std::atomic<int64_t> first_reset_ns_{0};
    std::atomic<int64_t> unsupported_{0};
    std::atomic<int64_t> rendered_{0};
    std::atomic<int64_t> flipped_{0};
    std::atomic<int64_t> skipped_{0};
    std::atomic<int64_t> dropped_{0};
    std::atomic<int64_t> refused_{0};
    std::atomic<int64_t> foreign_{0};
    std::atomic<int64_t> no_buffer_{0};
    std::atomic<int64_t> withheld_{0};
    std::atomic<int64_t> held_{0};
    std::atomic<int64_t> lost_{0};
    std::atomic<int64_t> last_picture_{-1};

    // The audio thread's own, read by others after it was joined.
    DelayLine line_;
    common::SoundHold sound_hold_;
    common::LateSound late_sound_;
    common::Splice splice_;
    std::vector<int16_t> processed_;
    int64_t next_pts_us_ = 0;            ///< of the sample after the last one written
    std::atomic<int64_t> written_ns_{0}; ///< when the last block was
    bool waited_ = false;                ///< for the last block, which did not wait for the host then
    AudioAccount audio_account_;
    int64_t resets_seen_ = 0;
    int32_t serial_ = 0;    ///< of the last block; a player's first sequence is number 0
    bool wait_for_serial_;  ///< blocks of serial_ are stale
    bool silenced_ = false; ///< blocks were thrown away for PlanWatch::silences()
    int64_t taken_ns_ = 0;  ///< when the last block was taken
};

/// Slots that the player's video queue needs, see hdmi_player_config_t::video_frame_queue_size.
int video_queue_slots(double fps, int audio_rate, Coding coding, int algorithm_delay_ms);

} // namespace play
