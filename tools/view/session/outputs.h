// SPDX-License-Identifier: MIT
// The player's sound outputs, in the order in which the key o takes them.
#pragma once

#include <cstddef>
#include <iterator>

#include "hdmi_player.h"

namespace view
{

struct Output {
    hdmi_player_ao_dev_e device;
    const char* option; ///< of --output
    const char* key;    ///< the platform's, for hdmi_linux_set_device()
    const char* name;   ///< for the viewer
};
constexpr Output kOutputs[] = {
    {E_HDMI_PLAYER_AO_DEV_SPEAKER, "speaker", "speaker", "speaker"},
    {E_HDMI_PLAYER_AO_DEV_HEADPHONE, "headphone", "headphone", "headphone"},
    {E_HDMI_PLAYER_AO_DEV_SPDIF, "spdif", "spdif", "S/PDIF"},
    {E_HDMI_PLAYER_AO_DEV_HDMI_ARC, "arc", "hdmi_arc", "HDMI ARC"},
    {E_HDMI_PLAYER_AO_DEV_I2S_TXA, "i2s", "i2s_txa", "I2S"},
};

/// The output @p steps after that of @p device, round and round.
constexpr const Output& output_after(hdmi_player_ao_dev_e device, size_t steps)
{
    size_t at = 0;
    while (at + 1 < std::size(kOutputs) && kOutputs[at].device != device)
        at++;
    return kOutputs[(at + steps) % std::size(kOutputs)];
}

} // namespace view
