// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "edges/alsa_pcm.h"
#include "edges/platform_router.h"
#include "edges/signal_watch.h"
#include "edges/source_link.h"

namespace play
{

/**
 * Announces what a real capture device receives. Where the receiver's own driver
 * does so, it only compares. On any other hardware it replaces that driver: it
 * derives the state from the device's controls and from its sound, writes it to
 * the state file and sends a uevent at each change.
 */
class Announcer : private SeamTap
{
public:
    /// Whether this machine's driver announces. Looked up once, before this class makes a state file of its own.
    static bool driver_announces();

    explicit Announcer(std::string device) : device_(std::move(device)) {}
    ~Announcer() override;

    /// Before the player opens: listens to the device for a moment, announces, and from then on follows it. @return
    /// false with one line in @p error
    bool start(std::string* error);
    void stop();

    // After stop():
    const std::vector<Announcement>& announced() const { return history_; }
    const std::vector<std::string>& rate_messages() const { return messages_; }

private:
    void opened(const audio_config_t&) override { watch_.opened(); }
    void captured(const uint8_t* data, int bytes, int64_t now_ns) override { watch_.feed(data, bytes, now_ns); }

    void listen(int rate);
    LinkEvidence evidence() const;
    int control_rate() const;
    void follow();
    void note(const LinkState& state);
    void announce_return();
    void compare(const LinkEvidence& found);

    const std::string device_;
    AlsaPlace place_;
    LinkState announced_;
    RateWatch rates_;
    int64_t returns_ = 0; ///< how many returns of the lost device were announced
    std::vector<Announcement> history_;
    std::vector<std::string> messages_;
    SharedWatch watch_; ///< fed by the capturing thread: first start(), then the player's
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

} // namespace play
