// SPDX-License-Identifier: MIT
#include "formats.h"

#include <algorithm>
#include <array>

namespace soak
{
namespace
{

constexpr std::array<const char*, kFormats> kNames = {"none", "pcm32", "pcm44", "pcm48", "ac3", "eac3", "dts", "wrong"};

} // namespace

const char* name_of(Format format) { return kNames[static_cast<size_t>(format)]; }

std::optional<Format> format_named(const std::string& name)
{
    const auto* at = std::find(kNames.begin(), kNames.end(), name);
    if (at == kNames.end())
        return std::nullopt;
    return static_cast<Format>(at - kNames.begin());
}

} // namespace soak
