// SPDX-License-Identifier: MIT
#include "display/display.h"

namespace play
{

std::unique_ptr<Display> open_display(const Options& options, std::string* error)
{
    switch (options.display) {
    case DisplayKind::none: return open_no_display(options);
    case DisplayKind::kms: return open_kms_display(options, error);
    case DisplayKind::window:
#ifdef PLAY_WINDOW
        return open_window_display(options, error);
#else
        *error = "--display window: built without SDL2 (Debian: libsdl2-dev)";
        return nullptr;
#endif
    case DisplayKind::sim: break;
    }
    return open_simulated_display(options);
}

} // namespace play
