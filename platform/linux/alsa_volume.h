// SPDX-License-Identifier: MIT
/**
 * @file
 * Volume and mute of the playback device: on the card's mixer where it has
 * one, else by scaling the samples on their way to the device.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "alsa_pcm.h"
#include "config.h"

namespace hdmi_linux
{

/// Hundredths of a decibel for @p percent of a control with the range @p min to @p max: in proportion to the decibels
/// where the range is small, else to the cube root of the amplitude. @p min may be SND_CTL_TLV_DB_GAIN_MUTE.
long volume_decibels(int percent, long min, long max);

/// Amplitude for @p percent without a mixer: 1 at 100, silence at 0, cubic between.
float volume_gain(int percent);

/// Scales samples. The gain changes over some milliseconds, so that no click is heard.
class GainRamp
{
public:
    void set(float gain) { target_ = gain; }
    void settle() { current_ = target_; }
    bool is_unity() const { return current_ == 1.0f && target_ == 1.0f; }
    void apply(const uint8_t* from, int16_t* to, int frames, int channels) const;
    /// @p frames frames of the last apply() were taken by the device.
    void advance(int frames) { current_ = after(frames); }

private:
    float after(int frames) const;
    float current_ = 1.0f;
    float target_ = 1.0f;
};

struct MixerCloser {
    void operator()(snd_mixer_t* mixer) const { snd_mixer_close(mixer); }
};
using Mixer = std::unique_ptr<snd_mixer_t, MixerCloser>;

/// The control device of the mixer for an output whose PCM is on @p card (-1: on none); empty: there is none.
std::string mixer_card(const AudioDeviceConfig& config, int card);
/// @return 0, or an error code: then @p mixer is empty.
int open_mixer(const std::string& card, Mixer* mixer);
/// The volume control of output @p device: that of @p config, else the usual one; null: there is none.
snd_mixer_elem_t* find_volume(snd_mixer_t* mixer, const AudioDeviceConfig& config, int device);

/// The volume that the player has set, for whatever output is in use. Not for two threads at a time.
class Volume
{
public:
    /// Opens the mixer for the device that was just opened, and sets what the player has asked for. @p card is the
    /// kernel's number; -1: none.
    void attach(const AudioDeviceConfig& config, int device, int card);
    /// Closes the mixer, because the card went away. attach() then sets everything anew.
    void detach();

    /// @return 0, or an error code.
    int set_percent(int percent);
    int set_direct(int value);
    int set_mute(bool mute);

    /// The gain for the samples; 1 where the mixer sets the volume.
    float software_gain() const;

private:
    enum class Kind { unset, percent, direct };

    void catch_up();
    int apply_volume();
    int apply_mute();

    Mixer mixer_;
    snd_mixer_elem_t* element_ = nullptr; ///< of mixer_; null: the samples are scaled
    std::string identity_;                ///< of the element: tells whether attach() found another one
    bool fresh_ = false;                  ///< nothing was set since detach()
    Kind kind_ = Kind::unset;
    int value_ = 0;
    bool mute_ = false;
    bool mute_set_ = false;
};

} // namespace hdmi_linux
