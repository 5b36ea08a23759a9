// SPDX-License-Identifier: MIT
/**
 * @file
 * The platform that the player sees. The program itself exports the devices'
 * functions, and passes each call on to the simulated platform or to the
 * machine's own devices (libhdmiplayer_linux.so, loaded only when asked for):
 * one of them for capture, one for playback. SeamTaps see what passes.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "aio_device.h"
#include "config/config_faults.h"
#include "hdmi_linux.h"
#include "host/trace.h"

namespace play
{

/// Which edges of the player are the machine's own devices.
struct Routes {
    bool real_capture = false;
    bool real_playback = false;
    bool real_cec = false;
    std::string port; ///< the platform's library; empty: the Linux platform's
    bool any() const { return real_capture || real_playback || real_cec; }
};

/**
 * Loads what @p routes needs. Once, before the player opens.
 * @return false with one line in @p error: the machine's platform is not there
 */
bool set_routes(const Routes& routes, std::string* error);

/// Whether the configuration has no fault that concerns @p use; true without real devices. Warns of all other faults.
/// After set_routes().
/// @return false with a line in @p error for each fault in the way
bool machine_is_configured(const ConfigUse& use, std::string* error);

/// Statistics of real devices; zero without them.
hdmi_linux::DeviceStats real_playback_stats();
hdmi_linux::DeviceStats real_capture_stats();
hdmi_linux::BypassStats real_bypass_stats();
hdmi_linux::CecStats real_cec_stats();

/// Announces to the player what the real capture device receives, from now on. @return false with one line in @p error
bool start_receiver(std::string* error);
void stop_receiver();
/// What it announced and found; empty without real devices.
std::vector<hdmi_linux_receiver_event_t> receiver_events();

/**
 * Sees what passes a sound device, after the platform's function and on the
 * player's thread: must be quick, may not wait for the player.
 */
class SeamTap
{
public:
    virtual ~SeamTap() = default;
    /// The device was opened, and what follows is another stream.
    virtual void opened(const audio_config_t&) {}
    /// @p bytes were written until @p now_ns; the device then had @p delay_frames to play, negative: it does not know.
    virtual void written(const uint8_t* /*data*/, int /*bytes*/, int64_t /*now_ns*/, int /*delay_frames*/) {}
    /// @p bytes were read until @p now_ns; the device then had captured @p waiting_frames more.
    virtual void read(const uint8_t* /*data*/, int /*bytes*/, int64_t /*now_ns*/, int64_t /*waiting_frames*/) {}
};
/// Null: none. The tap must stay as long as the player may call.
void tap_playback(SeamTap* tap);
/// Likewise, of a real capture device.
void tap_capture(SeamTap* tap);

/// Writes to the trace what the playback device takes, and how much it then has to play; null: nothing. One at a time;
/// it outlives the player.
class PlaybackTrace
{
public:
    explicit PlaybackTrace(Trace* trace);
    ~PlaybackTrace();
    PlaybackTrace(const PlaybackTrace&) = delete;
    PlaybackTrace& operator=(const PlaybackTrace&) = delete;
};

/// The playback device reports block number @p block as written and plays nothing of it.
void withhold_block(int64_t block);
int64_t withheld_blocks();

} // namespace play
