// SPDX-License-Identifier: MIT
/**
 * @file
 * Announces to the player what the capture device receives. Where the receiver's
 * own driver does so, it only compares. On any other hardware it replaces that
 * driver: it derives the state from the card's controls and from the sound that
 * the player captures.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <thread>

#include "card_controls.h"
#include "hdmi_linux.h"
#include "internal/locks.h"
#include "signal_watch.h"

namespace hdmi_linux
{

class Receiver
{
public:
    /// Listens to the device for a moment, announces, and from then on follows it. Does nothing while it follows.
    /// @return false with one line in @p error
    bool start(std::string* error);
    void stop();
    /// start(), once, if the environment asks for it. Called at each opening of an output, which precedes the player's
    /// first look at the state.
    void start_if_asked();

    // Called by the capturing thread:

    void opened();
    void captured(const uint8_t* data, int bytes);

    /// Of the bursts seen last: 4 if they are E-AC-3.
    int frames_per_sample() const { return watch_.evidence().frames_per_sample; }
    /// Copies the last @p count events at most, oldest first. @return how many are known.
    int events(hdmi_linux_receiver_event_t* events, int count);

private:
    void listen(int rate) REQUIRES(control_);
    void feed(const uint8_t* data, int bytes);
    void follow();
    void look();
    LinkEvidence evidence() const;
    void announce_state(const LinkState& state);
    void note_state(const LinkState& state);
    void note(bool announced, const std::string& text);
    void announce_return();
    void compare(const LinkEvidence& found);

    mutex_t control_; ///< one start or stop at a time; before mutex_
    std::thread thread_ GUARDED_BY(control_);
    std::atomic<bool> following_{false}; ///< set by start(), cleared by stop()
    std::atomic<bool> asked_{false};     ///< the environment was asked

    mutex_t feeding_;   ///< start() and the player's capturing thread may hear at the same time; last in order
    SharedWatch watch_; ///< fed with it, asked without

    // Written by start() before the thread begins, then the thread's.
    std::string device_;
    CardPlace place_;
    bool driver_announces_ = false;
    LinkState announced_;
    RateWatch rates_;
    int64_t returns_ = 0; ///< how many returns of the lost device were announced

    mutex_t mutex_;
    std::deque<hdmi_linux_receiver_event_t> events_ GUARDED_BY(mutex_);
};

Receiver& receiver();

} // namespace hdmi_linux
