// SPDX-License-Identifier: MIT
#include "control/commands.h"

#include <algorithm>
#include <iterator>

namespace view
{
namespace
{

struct Binding {
    const char* key;
    Command command;
};

// A terminal cannot send Ctrl with + and -.
constexpr Binding kBindings[] = {
    {"q", Command::quit},
    {"Q", Command::quit},
    {"Ctrl+C", Command::quit},
    {"m", Command::mute},
    {"9", Command::softer},
    {"/", Command::softer},
    {"0", Command::louder},
    {"*", Command::louder},
    {"f", Command::fullscreen},
    {"o", Command::next_output},
    {"Ctrl++", Command::sound_later},
    {"+", Command::sound_later},
    {"Ctrl+-", Command::sound_earlier},
    {"-", Command::sound_earlier},
    {"i", Command::figures},
    {"I", Command::figures},
};

constexpr char kEscape = 27;

/// The end of the sequence that an escape at @p at begins.
size_t end_of_sequence(const std::string& bytes, size_t at)
{
    at++;
    if (at < bytes.size() && (bytes[at] == '[' || bytes[at] == 'O'))
        at++;
    auto is_final = [](char c) { return c >= '@' && c <= '~'; };
    while (at < bytes.size() && !is_final(bytes[at]))
        at++;
    return std::min(at + 1, bytes.size());
}

} // namespace

Command command_of(const std::string& key)
{
    const auto* end = std::end(kBindings);
    const auto* found =
        std::find_if(std::begin(kBindings), end, [&key](const Binding& binding) { return key == binding.key; });
    return found != end ? found->command : Command::none;
}

std::vector<std::string> keys_in(const std::string& bytes)
{
    std::vector<std::string> keys;
    for (size_t at = 0; at < bytes.size();) {
        if (bytes[at] == kEscape) {
            at = end_of_sequence(bytes, at);
            continue;
        }
        if (bytes[at] > ' ' && bytes[at] < 127)
            keys.emplace_back(1, bytes[at]);
        at++;
    }
    return keys;
}

} // namespace view
