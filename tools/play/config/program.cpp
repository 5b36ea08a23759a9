// SPDX-License-Identifier: MIT
#include "config/program.h"

#include "version.h"

namespace play
{

Program this_program() { return {PLAY_VERSION, HDMI_PLAYER_REVISION, PLAY_PLATFORM}; }

} // namespace play
