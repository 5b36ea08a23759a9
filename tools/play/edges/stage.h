// SPDX-License-Identifier: MIT
/**
 * @file
 * What the host's sound comes from and goes to: the source on the HDMI cable,
 * and the sound device that is listened to.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "config/config_faults.h"
#include "config/options.h"
#include "edges/disturbances.h"
#include "edges/sound_output.h"
#include "edges/source_link.h"
#include "hdmi_linux.h"
#include "signal/recording.h"

namespace play
{

/// What happened at the devices.
struct StageStats {
    LinkAccount link;
    SoundAccount sound;
    int64_t withheld = 0;           ///< blocks taken away on demand
    hdmi_linux::CecStats cec;       ///< of a real adapter, when the source stopped
    hdmi_linux::BypassStats bypass; ///< likewise, of real devices
};

/// The real devices' troubles; of simulated ones, nothing.
struct DeviceTroubles {
    DisturbanceLog capture;
    DisturbanceLog playback;
};

class Stage
{
public:
    /// Loads what real devices need, and checks that they are there. Otherwise, private namespaces for the receiver's
    /// announcements. Call while the process has one thread.
    static bool prepare(const Options& options, std::string* error);

    /// What it uses of the machine's configuration.
    static ConfigUse config_use(const Options& options);

    /// @p source outlives the stage.
    Stage(const Options& options, const Source* source, const std::string& wav_path);
    ~Stage();

    /// Readies the sound device. @return false with one line in @p error
    bool start(std::string* error);
    /// The source starts to send. @return false with one line in @p error
    bool connect(std::string* error);
    SourceClock clock() const { return link_->clock(); }

    /// The source stops sending.
    void disconnect();
    /// Waits until the sound device has played all that it was given.
    void wait_until_played();
    /// Completes the recordings: what was heard, and what the player had written. Once, after the player was closed.
    bool finish(Recording* heard, Recording* sent, std::string* error);

    /// What went past the player to the digital outputs, against what the source sent; of a real output, what was
    /// @p heard there. Empty where nobody listened, or the source is not ours.
    RawCheck check_raw(const Recording& heard) const;
    StageStats stats() const;
    /// After finish().
    const DeviceTroubles& troubles() const { return troubles_; }

private:
    void watch_devices();
    void end_watch();

    const Options options_;
    const Source* const source_;
    std::unique_ptr<SourceLink> link_;
    std::unique_ptr<SoundOutput> output_;
    std::atomic<bool> end_watch_{false};
    hdmi_linux::CecStats cec_;
    hdmi_linux::BypassStats bypass_;
    DeviceTroubles troubles_; ///< the watching thread's while it runs
    std::thread watch_;
};

} // namespace play
