// SPDX-License-Identifier: MIT
#include "screen/open_display.h"

namespace play
{
namespace
{

display::DisplayOptions real_display(const Options& options)
{
    display::DisplayOptions real;
    real.path = options.display_path;
    if (options.display_rate)
        real.refresh_hz = options.display_rate->value();
    real.page_flips = options.page_flips;
    real.latency_ms = options.display_latency_ms();
    real.title = "hdmi-player-play";
    return real;
}

} // namespace

std::unique_ptr<display::Display> open_display(const Options& options, std::string* error)
{
    switch (options.display) {
    case DisplayKind::none: return open_no_display(options);
    case DisplayKind::kms: return display::open_kms_display(real_display(options), error);
    case DisplayKind::window: return display::open_window_display(real_display(options), error);
    case DisplayKind::sim: break;
    }
    return open_simulated_display(options);
}

} // namespace play
