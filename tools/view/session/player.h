// SPDX-License-Identifier: MIT
/**
 * @file
 * The library's host in this program: frames of the feed go in, flips come out
 * to the display, sound passes through.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <thread>

#include "common/flip_hold.h"
#include "common/holds.h"
#include "common/late_sound.h"
#include "common/plan_watch.h"
#include "common/sound_hold.h"
#include "display/flip_gate.h"
#include "hdmi_player.h"
#include "picture/feed.h"
#include "session/transit.h"

namespace view
{

struct PlayerConfig {
    hdmi_player_ao_dev_e output = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    hdmi_player_drm_info_t display = {0, 60};
    double fps = 60;
    common::Holds holds;
};

struct PlayerFigures {
    int64_t shown = 0;   ///< given to the display
    int64_t skipped = 0; ///< coalesced with another flip
    int64_t dropped = 0; ///< late against the sound
    int64_t refused = 0; ///< that the player did not take
    int64_t resets = 0;
    int64_t sound = 0; ///< frames of sound written
    int64_t late = 0;  ///< of sound thrown away, because this program came too late with it
};

/// Frames that the player's queue needs, and all that may be out of the feed's hands at a time.
int queue_slots(double fps);
int frames_kept(double fps, double refresh_hz, const common::Holds& holds);

/// One at a time: the library's callbacks carry no context. open(), close() and render() are for one thread at a time.
class Player
{
public:
    /// All outlive it.
    Player(Feed* feed, display::FlipGate* gate, Transit* transit) : feed_(feed), gate_(gate), transit_(transit) {}
    ~Player() { close(); }
    Player(const Player&) = delete;
    Player& operator=(const Player&) = delete;

    /// @return false where the library does not open, most often for lack of a sound device
    bool open(const PlayerConfig& config);
    /// What it still has is the feed's again.
    void close();
    bool is_open() const { return open_; }

    /// Gives a frame of the host's away. While it is not open, the frame is shown at once.
    void render(ViewBuffer* buffer);

    /// Whether sound and frames have left the plan: a reason to withhold frames, with FrameBreak.
    bool left_plan(int64_t now_ns) { return plan_ && plan_->left(now_ns); }
    int64_t resets() const { return resets_; }

    /// While it is open: from now on flips are held for @p refreshes more, or fewer.
    void shift_flips(int refreshes) { held_flips_->shift(refreshes); }

    PlayerFigures figures() const;

private:
    static void on_event(hdmi_player_event_e event);
    static void on_flip(hdmi_player_video_frame_t frame);
    static void on_drop(hdmi_player_video_frame_t frame);

    void show(ViewBuffer* buffer);
    void leave_out(ViewBuffer* buffer);
    void sound_thread();
    bool may_play(int32_t serial);
    void play(hdmi_player_audio_frame_t* block, int64_t taken_ns, bool waited);
    void write(hdmi_player_audio_frame_t* block, bool waited, bool paused);

    static Player* player_;

    Feed* const feed_;
    display::FlipGate* const gate_;
    Transit* const transit_;
    bool open_ = false;
    std::unique_ptr<common::HeldFlips> held_flips_;
    std::optional<common::PlanWatch> plan_; ///< of this opening

    std::thread sound_;
    std::atomic<bool> stop_{false};
    // The sound thread's own, while it runs.
    std::unique_ptr<common::SoundHold> sound_hold_;
    common::LateSound late_sound_;
    common::Splice splice_;
    OutputBacklog backlog_;
    double held_sound_ms_ = 0;
    int64_t written_ns_ = 0; ///< when the last block was
    int32_t newest_serial_ = 0;
    int32_t held_serial_ = -1;

    std::atomic<int64_t> taken_serial_{0};    ///< newest_serial_, for events
    std::atomic<int64_t> last_old_serial_{0}; ///< blocks up to this one are not played

    std::atomic<int64_t> shown_{0};
    std::atomic<int64_t> skipped_{0};
    std::atomic<int64_t> dropped_{0};
    std::atomic<int64_t> refused_{0};
    std::atomic<int64_t> resets_{0};
    std::atomic<int64_t> sound_frames_{0};
    std::atomic<int64_t> late_frames_{0};
};

} // namespace view
