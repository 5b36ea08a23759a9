// SPDX-License-Identifier: MIT
/**
 * @file
 * What the host's sound comes from and goes to: the source on the HDMI cable,
 * and the sound device that records.
 */
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "options.h"
#include "recording.h"
#include "source.h"

namespace play
{

/// What happened at the devices.
struct StageStats {
    int chunk_phase = phase_anywhere; ///< bytes from the beginning of the first capture to the next burst
    int64_t captured_end = -1;        ///< number of the link frame after the last one read from the receiver
    int64_t capture_opens = 0;
    int64_t overruns = 0;
    int64_t playback_opens = 0;
    int64_t first_write_ns = 0;
    int64_t playback_frames = 0; ///< written to the sound device
    int64_t withheld = 0;        ///< blocks taken away on demand
};

/// Raw pass-through.
struct RawCheck {
    int64_t frames = 0;    ///< link frames that arrived at the output
    int64_t bursts = 0;    ///< whole ones among them
    int64_t different = 0; ///< frames that are not the source's
    int64_t gaps = 0;      ///< places at which frames are missing
    int64_t began_ns = 0;  ///< when the first frame left the source
    int64_t ended_ns = 0;  ///< when the last one did
};

class Stage
{
public:
    /// Private namespaces for the receiver's announcements. Call while the process has one thread.
    static bool enter_namespaces(std::string* error);

    /// @p source outlives the stage.
    Stage(const Options& options, Source* source, const std::string& wav_path);

    /// Readies the sound device.
    void start();
    /// The source starts to send; its zero lies a moment ahead. @return its clock
    SourceClock connect();

    /// The source stops sending.
    void disconnect();
    /// Waits until the sound device has played all that it was given.
    void wait_until_played();
    /// Completes the recording. Once, after the player was closed.
    bool finish(Recording* recording, std::string* error);

    /// What went past the player to the digital outputs, against what the source sent.
    RawCheck check_raw() const;
    StageStats stats() const;

private:
    const Options m_options;
    Source* m_source;
    std::string m_wav_path;
    std::atomic<bool> m_opened{false}; ///< the capture device
    int m_chunk_phase = phase_anywhere;
};

} // namespace play
