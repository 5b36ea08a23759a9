// SPDX-License-Identifier: MIT
/**
 * @file
 * Sender, player with its host, and observers: what a soak and the transitions
 * are played on.
 */
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/host.h"
#include "observers.h"
#include "sender.h"

namespace soak
{

/// As the play program: above ordinary threads, below the player's own capture.
constexpr int kRealtimePriority = 20;

struct SessionConfig {
    play::Rational fps{60, 1};
    double display_hz = 60;
    double source_ppm = 0;
    double playback_ppm = 0;
    double seconds = 3600; ///< at most
    int algorithm_delay_ms = 0;
    bool realtime = true; ///< if the machine permits
    hdmi_player_ao_dev_e output = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    bool raw = false;
};

/// Of all openings of the player so far.
struct SessionAccount {
    int64_t openings = 0;
    int64_t failed_openings = 0;
    int64_t resets = 0;
    int64_t unsupported = 0;
    int64_t rendered = 0;
    int64_t flipped = 0;
    int64_t dropped = 0;
    int64_t lost = 0; ///< frames that did not come back, or came back although they were not the player's
    int64_t late_frames = 0;
};

class Session
{
public:
    explicit Session(const SessionConfig& config) : config_(config) {}
    ~Session();

    /// Display, sender, player. The sender sends @p format. @return false with one line in @p error
    bool start(Format format, std::string* error);

    /// Closes the player and opens it again, until that succeeds.
    void reopen();
    /// Called by reopen() between the two.
    void on_closed(std::function<void()> action) { on_closed_ = std::move(action); }
    void plug(bool in);

    /// Looks at what came since the last call; to be called some times a second.
    void look();
    /// What look() found since they were asked for last.
    std::vector<Meeting> take_meetings() { return std::exchange(meetings_, {}); }
    std::vector<Sight> take_sights() { return std::exchange(sights_, {}); }
    std::vector<Pause> take_pauses() { return ears_.take_pauses(); }
    int64_t last_sound_ns() const { return ears_.last_sound_ns(); }

    Sender& sender() { return *sender_; }
    play::Host& host() { return *host_; }
    const SessionConfig& config() const { return config_; }
    bool realtime() const { return realtime_; }
    SessionAccount account() const;

private:
    bool open_player();
    void close_player();

    const SessionConfig config_;
    Eyes eyes_;
    Ears ears_;
    std::unique_ptr<display::FlipGate> gate_;
    std::unique_ptr<display::Display> display_;
    hdmi_player_drm_info_t drm_info_ = {};
    std::unique_ptr<Sender> sender_;
    std::unique_ptr<Meetings> pairs_;
    std::unique_ptr<play::Host> host_;
    bool realtime_ = false;
    std::function<void()> on_closed_;
    SessionAccount closed_; ///< of the openings before
    std::vector<Meeting> meetings_;
    std::vector<Sight> sights_;
};

} // namespace soak
