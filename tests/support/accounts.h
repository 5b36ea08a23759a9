// SPDX-License-Identifier: MIT
/**
 * @file
 * A host's accounts: where each buffer handle is, and whether callbacks come while the player is open only.
 */
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "hdmi_player.h"

/// Of one host. A handle goes to the player and comes back once: by a callback, or as a refusal, or by a close.
class Accounts
{
public:
    /// Renders a new handle. @return the result of the call
    int32_t render()
    {
        const uint64_t number = next_++;
        place(number) = kOut;
        hdmi_player_video_frame_t frame = {reinterpret_cast<void*>(static_cast<uintptr_t>(number % kPlaces) + 1), 0};
        reset_raised_ = false;
        const int32_t result = hdmi_player_video_render(&frame);
        if (result != 0 && !reset_raised_) {
            // The host keeps it: no callback has had it.
            note(place(number).exchange(kHome) == kOut);
            ++refused_;
        }
        return result;
    }
    /// For the callbacks that flip and drop.
    void take_back(hdmi_player_video_frame_t frame)
    {
        note(opening_ > 0);
        note(place(reinterpret_cast<uintptr_t>(frame.buf_handle) - 1).exchange(kHome) == kOut);
        ++returned_;
    }
    /// For the event callback.
    void note_event(hdmi_player_event_e event)
    {
        note(opening_ > 0);
        note(event == E_HDMI_PLAYER_EVENT_AUDIO_UNSUPPORTED || event == E_HDMI_PLAYER_EVENT_AVSYNC_RESET);
        reset_raised_ = event == E_HDMI_PLAYER_EVENT_AVSYNC_RESET || reset_raised_;
    }
    int32_t open(const hdmi_player_config_t& config)
    {
        ++opening_;
        const int32_t result = hdmi_player_open(config);
        opening_ -= result != 0 ? 1 : 0;
        return result;
    }
    int32_t close()
    {
        const int32_t result = hdmi_player_close();
        if (result == 0)
            --opening_;
        closes_ += result == 0 ? 1 : 0;
        return result;
    }

    /// Handles that came back twice or though they were refused, callbacks of a closed player, unknown events.
    int faults() const { return faults_; }
    /// Handles that neither a callback nor a refusal gave back: the closes did.
    int64_t left_to_close() const { return static_cast<int64_t>(next_) - returned_ - refused_; }
    int64_t handles() const { return static_cast<int64_t>(next_); }
    int64_t returned() const { return returned_; }
    int closes() const { return closes_; }
    bool may_be_open() const { return opening_ > 0; }

private:
    enum State : uint8_t { kHome, kOut };
    /// A handle is used again only when all others have been: none is with the player that long.
    static constexpr uint64_t kPlaces = 1 << 20;

    std::atomic<uint8_t>& place(uint64_t number) { return places_[number % kPlaces]; }
    void note(bool right) { faults_ += right ? 0 : 1; }

    std::atomic<uint64_t> next_{0};
    std::atomic<int64_t> returned_{0}, refused_{0};
    std::atomic<int> opening_{0}; ///< calls of open that succeeded or may, less closes
    std::atomic<int> closes_{0}, faults_{0};
    std::array<std::atomic<uint8_t>, kPlaces> places_ = {};
    inline static thread_local bool reset_raised_ = false; ///< during this thread's render
};

inline Accounts g_accounts;

/// A host whose callbacks keep the accounts, and nothing else.
inline hdmi_player_config_t accounted_config()
{
    hdmi_player_config_t config = {};
    config.ao_dev = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    config.ao_sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
    config.video_frame_queue_size = 24;
    config.event_cb = [](hdmi_player_event_e event) { g_accounts.note_event(event); };
    config.video_frame_drop_cb = [](hdmi_player_video_frame_t frame) { g_accounts.take_back(frame); };
    config.video_frame_flip_cb = [](hdmi_player_video_frame_t frame) { g_accounts.take_back(frame); };
    return config;
}
