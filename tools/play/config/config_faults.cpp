// SPDX-License-Identifier: MIT
#include "config/config_faults.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace play
{
namespace
{

constexpr const char* const kDevices[] = {"speaker", "headphone", "spdif", "hdmi_arc",
                                          "i2s_txa", "hdmi_in",   "mic01", "cec"};

bool is_number(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
}

/// Text up to @p separator, which is taken off @p rest too.
std::string_view take_until(std::string_view separator, std::string_view* rest)
{
    size_t end = rest->find(separator);
    std::string_view text = rest->substr(0, end);
    rest->remove_prefix(end == std::string_view::npos ? rest->size() : end + separator.size());
    return text;
}

/// The key at fault, with its detail, if any; empty: the file as such.
std::string key_of(std::string_view fault)
{
    std::string_view place = take_until(": ", &fault);
    for (const char* key : kDevices)
        if (variable_of(key) == place)
            return key;
    size_t colon = place.rfind(':');
    bool in_line = colon != std::string_view::npos && is_number(place.substr(colon + 1));
    return in_line ? std::string(take_until(": ", &fault)) : std::string();
}

} // namespace

std::string variable_of(const std::string& key)
{
    if (key == "cec")
        return "HDMIPLAYER_CEC_DEVICE";
    if (key == "rate_matching")
        return "HDMIPLAYER_RATE_MATCHING";
    std::string name = "HDMIPLAYER_ALSA_";
    for (unsigned char c : key)
        name += static_cast<char>(std::toupper(c));
    return name;
}

bool concerns(const std::string& fault, const ConfigUse& use)
{
    std::string key = key_of(fault);
    std::string_view detail = key;
    std::string_view device = take_until(".", &detail);
    if (std::find(std::begin(kDevices), std::end(kDevices), device) == std::end(kDevices))
        return true;
    if (device == "hdmi_in")
        return use.capture;
    if (device == "cec")
        return use.cec;
    return device == use.playback && detail != "mixer" && detail != "mixer_card";
}

} // namespace play
