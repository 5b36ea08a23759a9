// SPDX-License-Identifier: MIT
/**
 * @file
 * Where a host's frames are shown, and who watches.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "display/canvas.h"
#include "display/flip_gate.h"
#include "display/frame_pool.h"
#include "display/layout.h"
#include "hdmi_player.h"

namespace display
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

/// Watches a display, on the display's thread.
class Observer
{
public:
    virtual ~Observer() = default;
    /// @p buffer is on the screen from @p seen_ns on, for one refresh at least. It stays the display's during the call.
    virtual void shown(const FrameBuffer& buffer, int64_t seen_ns) = 0;
    /// What was shown last stayed for @p refreshes more.
    virtual void stayed(int64_t refreshes) = 0;
};

/// What a program asks of a real display.
struct DisplayOptions {
    std::string path;                 ///< of the DRM card; empty: the first with a display
    std::optional<double> refresh_hz; ///< nothing: the display's own
    Size size = {0, 0};               ///< of what is shown: a mode of this size is preferred; 0: any
    double fps = 0;                   ///< of what is shown, likewise
    bool page_flips = false;          ///< though the card may be capable of atomic flips
    int latency_ms = 0;               ///< from the vertical blank to light
    std::string title;                ///< of the window
    /// Told of each key pressed in the window, by its name ("q", "Ctrl++"), on the window's thread. None: Escape and q
    /// close the window.
    std::function<void(const std::string& key)> on_key;
};

/**
 * A display takes the buffers that the host flips, first in, first out, gives
 * each back to the pool when it is done with it (release()), tells the observer
 * what was seen when, and tells the gate of the vertical blanks.
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

    /// Starts it, once. @p observer and @p gate live until stop(). @return what the player is told; nothing, with one
    /// line in @p error, if it does not start
    virtual std::optional<hdmi_player_drm_info_t> start(Observer* observer, FlipGate* gate, std::string* error) = 0;
    /// Gives a buffer a surface that this display shows, to be painted before the player is given the buffer. On the
    /// thread that paints. @return false where there is nothing to paint on
    virtual bool provide_surface(FrameBuffer* /*buffer*/) { return false; }
    /// Whether frames of that pixel format (as DRM names it) may be shown where they lie.
    virtual bool reads(uint32_t /*fourcc*/) const { return false; }
    /// A surface that is another device's memory, which must stay until the surface is gone. @return null, with one
    /// line in @p why: frames must be painted on surfaces of the display's own
    virtual std::shared_ptr<Surface> adopt(const ForeignFrame& /*frame*/, std::string* /*why*/) { return nullptr; }
    /// Shows a buffer at the coming vertical blank. From any thread; does not wait.
    virtual void present(FrameBuffer* buffer) = 0;
    /// Gives all buffers back to the pool. A display that has a copy of the last frame goes on to show that, and then
    /// other frames; any other is stopped.
    virtual void clear() {}
    /// From now on frames have this size.
    virtual void expect(Size /*frame*/) {}
    /// In words, where the viewer may read it.
    virtual void set_title(const std::string& /*title*/) {}
    virtual void toggle_fullscreen() {}
    /// Ends it; every buffer is the pool's again. For a display that does not run: nothing.
    virtual void stop() = 0;
    /// The viewer has closed it: time to end.
    virtual bool closed() const { return false; }
    virtual DisplayStats stats() const = 0;
};

// One function for each kind. @return not started yet; null, with one line in @p error, if the machine has none such
std::unique_ptr<Display> open_kms_display(const DisplayOptions& options, std::string* error);
std::unique_ptr<Display> open_window_display(const DisplayOptions& options, std::string* error);

/// Gives a buffer that the display is done with back to the pool.
inline void release(FrameBuffer* buffer) { pass(buffer, Owner::display, Owner::free); }

} // namespace display
