// SPDX-License-Identifier: MIT
// Stands in for the window display where SDL2 is not there.
#include "display/display.h"

namespace display
{

std::unique_ptr<Display> open_window_display(const DisplayOptions&, std::string* error)
{
    *error = "--display window: built without SDL2 (Debian: libsdl2-dev)";
    return nullptr;
}

} // namespace display
