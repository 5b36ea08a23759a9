// SPDX-License-Identifier: MIT
// What the command line asks for, and the parser of it.
#pragma once

#include <string>

#include "capture/pixel_format.h"
#include "hdmi_player.h"

namespace view
{

using capture::ModeWish;

enum class DisplayKind { automatic, kms, window };

struct Options {
    bool list = false;
    std::string video;    ///< of the V4L2 node; empty: found
    std::string capture;  ///< ALSA's name of the sound's input; empty: that of the same device; "none": no sound
    std::string playback; ///< ALSA's name of the output; empty: the platform's
    DisplayKind display = DisplayKind::automatic;
    std::string display_path; ///< of the DRM card
    ModeWish mode;
    hdmi_player_ao_dev_e output = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    int display_latency_ms = 0;
    int sound_delay_ms = 0;
    bool fullscreen = false;
    std::string frames; ///< file; empty: none is written
    double seconds = 0; ///< 0: until it is stopped
};

/// Nothing to do but leave with @p code (help was shown, or the usage was wrong), or go on.
struct ParseResult {
    bool go_on;
    int code;
};
ParseResult parse_options(int argc, char** argv, Options* options);

/// A window where there is a desktop, KMS where there is none.
DisplayKind choose_display(DisplayKind wanted);

} // namespace view
