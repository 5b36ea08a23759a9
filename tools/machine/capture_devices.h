// SPDX-License-Identifier: MIT
/**
 * @file
 * The video capture devices of this machine, each with the sound that comes in
 * by the same USB or PCI device.
 */
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "machine/finding.h"

namespace machine
{

/// What a video node says of itself.
struct VideoFacts {
    std::string driver;
    std::string card;      ///< the name for people
    bool captures = false; ///< video, frame after frame
    bool digital = false;  ///< has an HDMI, DVI or SDI input, and tells the signal's timings
    bool analog = false;   ///< has inputs, and none but composite, S-Video or a tuner's
    bool camera = false;   ///< has a lens or a sensor to adjust
    std::string signal;    ///< what comes in, as far as the device tells
};

/// Asks the node at a path. @return what is wrong, where it cannot be opened
using AskVideo = std::function<std::optional<Finding>(const std::string& path, VideoFacts* facts)>;
std::optional<Finding> ask_video(const std::string& path, VideoFacts* facts);

struct CaptureDevice {
    std::string path;  ///< of the video node
    std::string sound; ///< ALSA's name of the capture device that belongs to it; empty: none does
    VideoFacts facts;
    bool usable = false;
    Verdict verdict = Verdict::ok; ///< whether it can be opened
    std::string why_not;           ///< it is not used unless it is named
    std::string remedy;            ///< a command for a shell, or empty
};

/// Below @p root ("" but in tests), by number.
std::vector<CaptureDevice> find_capture_devices(const std::string& root, const AskVideo& ask);
/// The one to use if none is named: the first with an HDMI input, else the first with sound, else the first. Null: none
/// can be used.
const CaptureDevice* choose_device(const std::vector<CaptureDevice>& devices);

} // namespace machine
