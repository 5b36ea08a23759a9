// SPDX-License-Identifier: MIT
/**
 * @file
 * The channel status of a digital output (IEC 60958-3, consumer use): it tells
 * the receiver the rate, and whether sound or coded data comes.
 */
#pragma once

#include <alsa/asoundef.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <string>

namespace hdmi_linux
{

using ChannelStatus = std::array<uint8_t, 4>; ///< AES0 to AES3

inline uint8_t status_rate_code(int rate)
{
    switch (rate) {
    case 22050: return IEC958_AES3_CON_FS_22050;
    case 24000: return IEC958_AES3_CON_FS_24000;
    case 32000: return IEC958_AES3_CON_FS_32000;
    case 44100: return IEC958_AES3_CON_FS_44100;
    case 48000: return IEC958_AES3_CON_FS_48000;
    case 88200: return IEC958_AES3_CON_FS_88200;
    case 96000: return IEC958_AES3_CON_FS_96000;
    case 176400: return IEC958_AES3_CON_FS_176400;
    case 192000: return IEC958_AES3_CON_FS_192000;
    case 768000: return IEC958_AES3_CON_FS_768000;
    default: return IEC958_AES3_CON_FS_NOTID;
    }
}

inline ChannelStatus channel_status(int rate, bool non_audio)
{
    const uint8_t sound = IEC958_AES0_CON_NOT_COPYRIGHT;
    return {static_cast<uint8_t>(non_audio ? sound | IEC958_AES0_NONAUDIO : sound),
            IEC958_AES1_CON_ORIGINAL | IEC958_AES1_CON_PCM_CODER, 0, status_rate_code(rate)};
}

/**
 * In ALSA's configuration, the names of digital outputs take the status as AES
 * parameters. @return @p pcm with @p status as parameters; unchanged if it is
 * another kind of name or already carries AES parameters.
 */
inline std::string with_channel_status(const std::string& pcm, const ChannelStatus& status)
{
    const size_t colon = pcm.find(':');
    const std::string base = pcm.substr(0, colon);
    if ((base != "iec958" && base != "spdif" && base != "hdmi") || pcm.find("AES") != std::string::npos)
        return pcm;
    const bool braced = colon != std::string::npos && pcm.back() == '}';
    char arguments[80];
    snprintf(arguments, sizeof(arguments),
             braced ? " AES0 0x%02x AES1 0x%02x AES2 0x%02x AES3 0x%02x "
                    : "AES0=0x%02x,AES1=0x%02x,AES2=0x%02x,AES3=0x%02x",
             status[0], status[1], status[2], status[3]);
    if (braced)
        return pcm.substr(0, pcm.size() - 1) + arguments + "}";
    return pcm + (colon == std::string::npos ? ":" : ",") + arguments;
}

/// Sets @p status through the control of a card, for PCM names that cannot carry it. @return whether there was one.
bool set_status_control(int card, int device, const ChannelStatus& status);

/// Whether the PCM name already carries AES parameters.
inline bool has_channel_status(const std::string& pcm) { return pcm.find("AES0") != std::string::npos; }

} // namespace hdmi_linux
