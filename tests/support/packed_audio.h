// SPDX-License-Identifier: MIT
/**
 * @file
 * Coded audio as the simulated source sends it.
 */
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include "coded_audio.h"
#include "hdmi_sim.h"

inline hdmi_sim::Bitstream pack(const coded_audio::Format& format, const std::vector<coded_audio::Bytes>& packets)
{
    const auto coding = format.codec == AV_CODEC_ID_AC3 ? hdmi_sim::Coding::ac3 : hdmi_sim::Coding::eac3;
    const coded_audio::Bytes stream = coded_audio::join(packets);
    hdmi_sim::Bitstream packed;
    std::string error;
    if (!hdmi_sim::pack_bitstream(coding, stream.data(), stream.size(), &packed, &error))
        throw std::runtime_error(error);
    return packed;
}
