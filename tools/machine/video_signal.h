// SPDX-License-Identifier: MIT
// The signal at a digital video input, by its timings.
#pragma once

#include <linux/videodev2.h>

#include <string>

#include "machine/finding.h"

namespace machine
{

/// What comes in, or why nothing does.
struct VideoSignal {
    enum class State {
        present,
        none,        ///< no cable, or a source that is off
        unstable,    ///< something comes, but no timings can be found in it
        unsupported, ///< beyond what the device receives
        untold,      ///< the device does not tell timings
    };
    State state = State::untold;
    int width = 0;
    int height = 0;
    double fps = 0; ///< frames a second, also of an interlaced signal
    bool interlaced = false;
};

VideoSignal signal_of(const v4l2_bt_timings& timings);
/// By the error of VIDIOC_QUERY_DV_TIMINGS.
VideoSignal signal_of_error(int error);
/// Asks the selected input. @p timings: as they were found; may be null.
VideoSignal detect_signal(int fd, v4l2_dv_timings* timings = nullptr);
/// "1920x1080 at 59.94 fps", or why there is none.
std::string describe(const VideoSignal& signal);
/// Why the signal at device @p path cannot be shown; a finding without detail if it can.
Finding objection_to(const VideoSignal& signal, const std::string& path);

} // namespace machine
