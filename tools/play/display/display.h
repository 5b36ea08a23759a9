// SPDX-License-Identifier: MIT
/**
 * @file
 * Where the host's pictures are shown, and what is seen there.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "config/options.h"
#include "display/screen.h"
#include "hdmi_player.h"
#include "host/flip_gate.h"
#include "host/frame_pool.h"

namespace play
{

/// A display was lost for a while: unplugged, taken by another program, suspended.
struct Outage {
    int64_t began_ns;
    int64_t lasted_ns; ///< 0: it did not come back
    std::string reason;
};

/// What happened at a display.
struct DisplayStats {
    int64_t vblanks = 0;
    int64_t flips = 0;
    int64_t superseded = 0; ///< released without having been seen
    int64_t repeated = 0;   ///< vertical blanks that brought nothing new
    int64_t unshown = 0;    ///< released because the display was lost
    std::vector<Outage> outages;
};

/**
 * A display takes the buffers that the host flips, first in, first out, gives
 * each back to the pool when it is done with it (FramePool::pass() from
 * Owner::display), tells the screen what was seen when, and tells the gate of
 * the vertical blanks.
 */
class Display
{
public:
    virtual ~Display() = default;
    Display() = default;
    Display(const Display&) = delete;
    Display& operator=(const Display&) = delete;

    /// Vertical blanks per second.
    virtual double refresh_hz() const = 0;
    /// Whether the player can wait for this display's vertical blanks; known when it was started.
    virtual bool paced() const = 0;
    /// One line for the report, complete when it was started.
    virtual std::string description() const = 0;
    /// Into which images are scaled; empty for a display that shows none.
    virtual Size image_size() const { return {0, 0}; }

    /// Starts it, once. @p screen and @p gate live until stop(). @return what the player is told; nothing, with one
    /// line in @p error, if it does not start
    virtual std::optional<hdmi_player_drm_info_t> start(Screen* screen, FlipGate* gate, std::string* error) = 0;
    /// Paints a buffer's picture, or @p image if there is one, where the display reads it. On the thread that renders,
    /// before the player is given the buffer; takes its time.
    virtual void paint(FrameBuffer* /*buffer*/, const Image* /*image*/) {}
    /// Shows a buffer at the coming vertical blank. From any thread; does not wait.
    virtual void present(FrameBuffer* buffer) = 0;
    /// Ends it; every buffer is the pool's again. For a display that does not run: nothing.
    virtual void stop() = 0;
    /// The viewer has closed it: time to end.
    virtual bool closed() const { return false; }
    virtual DisplayStats stats() const = 0;
};

/// The display that the options name, not started yet; null, with one line in @p error, if the machine has none such.
std::unique_ptr<Display> open_display(const Options& options, std::string* error);

// One function for each kind.
std::unique_ptr<Display> open_simulated_display(const Options& options);
std::unique_ptr<Display> open_no_display(const Options& options);
std::unique_ptr<Display> open_kms_display(const Options& options, std::string* error);
std::unique_ptr<Display> open_window_display(const Options& options, std::string* error);

/// Gives a buffer that the display is done with back to the pool.
inline void release(FrameBuffer* buffer) { FramePool::pass(buffer, Owner::display, Owner::free); }

} // namespace play
