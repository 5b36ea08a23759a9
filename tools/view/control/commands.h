// SPDX-License-Identifier: MIT
// Keys of the viewer, as in mpv.
#pragma once

#include <string>
#include <vector>

namespace view
{

enum class Command {
    none,
    quit,
    mute,
    softer,
    louder,
    fullscreen,
    next_output,
    sound_later,
    sound_earlier,
    figures,
};

/// @p key: "q", "Ctrl++".
Command command_of(const std::string& key);

/// The names of the keys in what a terminal sends; of what is no key of ours, nothing.
std::vector<std::string> keys_in(const std::string& bytes);

} // namespace view
