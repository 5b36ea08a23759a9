// SPDX-License-Identifier: MIT
/**
 * @file
 * What a capture card says of its source by its controls.
 */
#pragma once

#include <string>

namespace hdmi_linux
{

/// Where a capture device is in the machine; of one that is made in software, nowhere.
struct CardPlace {
    std::string card; ///< its id: a card that is plugged in again may have another number
    unsigned device = 0;
    unsigned subdevice = 0;
};
/// Opens the capture device for a moment.
CardPlace find_card(const std::string& pcm);
/// Frames per second that the card receives, or that the far end of a loopback sends; -1: it does not tell.
int rate_by_controls(const CardPlace& place);

} // namespace hdmi_linux
