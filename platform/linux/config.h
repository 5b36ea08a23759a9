// SPDX-License-Identifier: MIT
/**
 * @file
 * The configuration of the Linux platform: which devices its names stand for.
 *
 * Lines have the form "key = value"; '#' begins a comment at the start of a line
 * or after a blank. Each key in docs/linux.md has one field here.
 */
#pragma once

#include <array>
#include <string>
#include <string_view>
#include <vector>

#include "aio_device.h"

namespace hdmi_linux
{

struct AudioDeviceConfig {
    std::string pcm;               ///< ALSA's name; empty: the first capture device of the machine
    std::string pcm_source;        ///< what named it, for messages: "file:line: key" or a variable; empty: the default
    std::string mixer;             ///< simple mixer element; empty: the usual one, kNoMixer: scale the samples
    std::string mixer_source;      ///< as pcm_source
    std::string mixer_card;        ///< control device of the mixer; empty: the PCM's card
    std::string mixer_card_source; ///< as pcm_source
    bool resample = false;         ///< the PCM may convert the rate
    int periods = 0;               ///< of its buffer; 0: as many as the player asks for
};
constexpr char kNoMixer[] = "none";

/// Whether playback resamples what comes from a capture device with another clock.
enum class RateMatching {
    automatic, ///< unless both devices are one card
    on,
    off, ///< they share a clock
};

struct Config {
    Config();

    std::array<AudioDeviceConfig, E_AUDIO_IO_DEV_MAX> audio; ///< by audio_io_dev_e
    audio_io_dev_e raw_output = E_AUDIO_IO_DEV_HDMI_ARC;     ///< output of pass-through until a digital one is selected
    int start_periods = 2;                                   ///< periods queued before playback starts
    std::string cec;                                         ///< adapter; empty: the first that is a TV's, "none": none
    std::string cec_source;                                  ///< as pcm_source
    RateMatching rate_matching = RateMatching::automatic;
};

/// The name of @p device in the configuration, such as "hdmi_arc"; AUTO is the speaker.
const char* device_key(int device);

/// Applies @p text to @p config. Skips each faulty line and adds "path:line: key: ..." to @p errors.
void parse_config(std::string_view text, const std::string& path, Config* config, std::vector<std::string>* errors);

/// Names the PCM of a device, "hdmi_in" for example; empty: no longer. @return false for an unknown @p key
bool override_device(std::string_view key, const std::string& pcm);

/// The configuration: override_device() goes before the environment, this before the file, the file before the
/// defaults. Faults go to @p errors.
Config load_config(std::vector<std::string>* errors);

/// As load_config(), but logs the faults, and only when they differ from the last call's.
Config current_config();

} // namespace hdmi_linux
