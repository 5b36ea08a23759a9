// SPDX-License-Identifier: MIT
/**
 * @file
 * What a source may send, and what a player of this kind can do with it.
 */
#pragma once

#include <optional>
#include <string>

namespace soak
{

enum class Format {
    none, ///< pictures without sound
    pcm32,
    pcm44,
    pcm48,
    ac3,
    eac3,
    dts,   ///< which the player does not decode
    wrong, ///< PCM that is announced as compressed
};
constexpr int kFormats = 8;

const char* name_of(Format format);
/// Nothing for a name that no format has.
std::optional<Format> format_named(const std::string& name);

/// What the receiver's driver announces.
constexpr bool is_announced_compressed(Format format)
{
    return format == Format::ac3 || format == Format::eac3 || format == Format::dts || format == Format::wrong;
}
/// Hz, as it is announced.
constexpr int announced_rate(Format format)
{
    return format == Format::pcm32 ? 32000 : format == Format::pcm44 ? 44100 : 48000;
}
/// Whether a player that decodes makes sound of it.
constexpr bool can_be_decoded(Format format)
{
    return format != Format::none && format != Format::dts && format != Format::wrong;
}
constexpr bool is_bursts(Format format)
{
    return format == Format::ac3 || format == Format::eac3 || format == Format::dts;
}

} // namespace soak
