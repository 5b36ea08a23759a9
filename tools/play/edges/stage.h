// SPDX-License-Identifier: MIT
/**
 * @file
 * Both ends of the host's sound: the source on the HDMI cable, and the sound
 * device that is recorded.
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

class CapturedSound;

/// What happened at the devices.
struct StageStats {
    LinkAccount link;
    SoundAccount sound;
    int64_t withheld = 0;           ///< blocks taken away on demand
    hdmi_linux::CecStats cec;       ///< of a real adapter, when the source stopped
    hdmi_linux::BypassStats bypass; ///< likewise, of real devices
};

/// Disturbances of real devices; simulated devices have none.
struct DeviceDisturbances {
    DisturbanceLog capture;
    DisturbanceLog playback;
};

class Stage
{
public:
    /// Loads the platform of real devices, and checks that they can be opened. Readies the announcements of a simulated
    /// receiver. Call while the process has one thread.
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
    /// Likewise what the player captured, where the pictures are captured too; else empty.
    bool finish_captured(Recording* captured, std::string* error);

    /// Compares the bursts at the digital output (of a real one, as @p heard there) with those that the source sent.
    /// Empty without an observer, or with a foreign source.
    RawCheck check_raw(const Recording& heard) const;
    StageStats stats() const;
    /// After finish().
    const DeviceDisturbances& disturbances() const { return disturbances_; }

private:
    void watch_devices();
    void end_watch();

    const Options options_;
    const Source* const source_;
    std::unique_ptr<SourceLink> link_;
    std::unique_ptr<SoundOutput> output_;
    std::unique_ptr<CapturedSound> captured_; ///< null: nobody wants it
    std::atomic<bool> end_watch_{false};
    hdmi_linux::CecStats cec_;
    hdmi_linux::BypassStats bypass_;
    DeviceDisturbances disturbances_; ///< the watching thread's while it runs
    std::thread watch_;
};

} // namespace play
