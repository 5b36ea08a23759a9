// SPDX-License-Identifier: MIT
#include "alsa_volume.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "alsa_pcm.h"
#include "internal/common.h"

namespace hdmi_linux
{
namespace
{

constexpr int kMaxPercent = 100;
/// The range of the direct volume without a mixer: steps of amplitude.
constexpr int kMaxDirect = 255;
/// A control of at most this range, in hundredths of a decibel, is set evenly in decibels.
constexpr long kLinearRange = 2400;
/// Hundredths of a decibel for a factor of ten in the cube root of the amplitude, which is even to the ear.
constexpr double kCubicScale = 6000.0;
/// Change of gain per frame: from silence to full level in 10 ms at 48 kHz.
constexpr float kRampStep = 1.0f / 480.0f;

struct Candidates {
    int device;
    const char* elements[4];
};
/// Usual names of an output's volume control, the most specific first. Digital outputs have none.
constexpr Candidates kCandidates[] = {
    {E_AUDIO_IO_DEV_AUTO, {"Master", "Speaker", "PCM", "Digital"}},
    {E_AUDIO_IO_DEV_SPEAKER, {"Master", "Speaker", "PCM", "Digital"}},
    {E_AUDIO_IO_DEV_HEADPHONE, {"Headphone", "Master", "PCM", "Digital"}},
    {E_AUDIO_IO_DEV_I2S_TXA, {"Digital", "PCM", "Master", "Speaker"}},
};

snd_mixer_elem_t* find_named(snd_mixer_t* mixer, const char* name)
{
    for (snd_mixer_elem_t* elem = snd_mixer_first_elem(mixer); elem != nullptr; elem = snd_mixer_elem_next(elem)) {
        if (snd_mixer_selem_has_playback_volume(elem) && strcmp(snd_mixer_selem_get_name(elem), name) == 0)
            return elem;
    }
    return nullptr;
}

int set_raw(snd_mixer_elem_t* element, long value)
{
    long min = 0;
    long max = 0;
    const int err = snd_mixer_selem_get_playback_volume_range(element, &min, &max);
    if (err < 0)
        return err;
    return value < min || value > max ? -EINVAL : snd_mixer_selem_set_playback_volume_all(element, value);
}

int set_percent_of(snd_mixer_elem_t* element, int percent)
{
    long min = 0;
    long max = 0;
    // Rounded up, so that 1 % is not silent.
    constexpr int kUp = 1;
    if (snd_mixer_selem_get_playback_dB_range(element, &min, &max) >= 0 && min < max)
        return snd_mixer_selem_set_playback_dB_all(element, volume_decibels(percent, min, max), percent > 0 ? kUp : 0);
    const int err = snd_mixer_selem_get_playback_volume_range(element, &min, &max);
    if (err < 0)
        return err;
    return snd_mixer_selem_set_playback_volume_all(
        element, min + std::lround(static_cast<double>(max - min) * (percent / 100.0)));
}

} // namespace

long volume_decibels(int percent, long min, long max)
{
    if (percent <= 0)
        return min;
    const double part = std::min(percent, kMaxPercent) / 100.0;
    if (min != SND_CTL_TLV_DB_GAIN_MUTE && max - min <= kLinearRange)
        return min + std::lround(static_cast<double>(max - min) * part);
    const double lowest =
        min != SND_CTL_TLV_DB_GAIN_MUTE ? std::pow(10.0, static_cast<double>(min - max) / kCubicScale) : 0;
    return max + std::lround(kCubicScale * std::log10(lowest + part * (1 - lowest)));
}

float volume_gain(int percent)
{
    const float part = static_cast<float>(std::clamp(percent, 0, kMaxPercent)) / kMaxPercent;
    return part * part * part;
}

// --- Scaling --------------------------------------------------------------------

float GainRamp::after(int frames) const
{
    const float step = kRampStep * static_cast<float>(frames);
    return current_ < target_ ? std::min(current_ + step, target_) : std::max(current_ - step, target_);
}

void GainRamp::apply(const uint8_t* from, int16_t* to, int frames, int channels) const
{
    memcpy(to, from, static_cast<size_t>(frames) * static_cast<size_t>(channels) * kBytesPerSample);
    for (int frame = 0; frame < frames; ++frame) {
        const float gain = after(frame);
        for (int channel = 0; channel < channels; ++channel, ++to)
            *to = static_cast<int16_t>(std::lrint(static_cast<float>(*to) * gain));
    }
}

// --- Mixer ----------------------------------------------------------------------

// A sound server's mixer belongs to all programs: it is used only when the configuration names it.
std::string mixer_card(const AudioDeviceConfig& config, int card)
{
    if (!config.mixer_card.empty())
        return config.mixer_card;
    return card >= 0 ? "hw:" + std::to_string(card) : std::string();
}

int open_mixer(const std::string& card, Mixer* mixer)
{
    snd_mixer_t* native = nullptr;
    int err = snd_mixer_open(&native, 0);
    if (err < 0)
        return err;
    mixer->reset(native);
    if ((err = snd_mixer_attach(native, card.c_str())) < 0 ||
        (err = snd_mixer_selem_register(native, nullptr, nullptr)) < 0 || (err = snd_mixer_load(native)) < 0)
        mixer->reset();
    return err;
}

snd_mixer_elem_t* find_volume(snd_mixer_t* mixer, const AudioDeviceConfig& config, int device)
{
    if (!config.mixer.empty())
        return find_named(mixer, config.mixer.c_str());
    for (const Candidates& candidates : kCandidates) {
        if (candidates.device != device)
            continue;
        for (const char* name : candidates.elements)
            if (snd_mixer_elem_t* elem = find_named(mixer, name))
                return elem;
    }
    return nullptr;
}

void Volume::attach(const AudioDeviceConfig& config, int device, int card)
{
    mixer_.reset();
    element_ = nullptr;
    const AlsaMessages messages;
    const std::string control = mixer_card(config, card);
    const bool wanted = config.mixer != kNoMixer;
    if (wanted && !control.empty() && open_mixer(control, &mixer_) >= 0)
        element_ = find_volume(mixer_.get(), config, device);
    if (element_ == nullptr)
        mixer_.reset();
    if (element_ == nullptr && wanted && (!config.mixer_card.empty() || !config.mixer.empty()))
        log_w("%s: no volume control '%s' on '%s', the samples are scaled instead\n", device_key(device),
              config.mixer.c_str(), control.c_str());
    std::string identity;
    if (element_ != nullptr)
        identity = control + "/" + snd_mixer_selem_get_name(element_);
    if (identity == identity_ && !fresh_)
        return;
    // Another mixer has other units.
    if (identity != identity_ && kind_ == Kind::direct)
        kind_ = Kind::unset;
    identity_ = std::move(identity);
    fresh_ = false;
    apply_volume();
    if (mute_set_)
        apply_mute();
}

void Volume::detach()
{
    mixer_.reset();
    element_ = nullptr;
    fresh_ = true;
}

void Volume::catch_up()
{
    // Reads what other programs have set. Otherwise alsa-lib would not write a value that it takes for the present one.
    if (mixer_ != nullptr)
        snd_mixer_handle_events(mixer_.get());
}

int Volume::set_percent(int percent)
{
    if (percent < 0 || percent > kMaxPercent)
        return -EINVAL;
    kind_ = Kind::percent;
    value_ = percent;
    return apply_volume();
}

int Volume::set_direct(int value)
{
    // While the card is gone its range is not known, and any value is accepted.
    if (element_ == nullptr && !fresh_ && (value < 0 || value > kMaxDirect))
        return -EINVAL;
    const bool mute_by_volume = mute_ && element_ != nullptr && !snd_mixer_selem_has_playback_switch(element_);
    catch_up();
    const int err = element_ != nullptr && !mute_by_volume ? set_raw(element_, value) : 0;
    if (err < 0)
        return err;
    kind_ = Kind::direct;
    value_ = value;
    return 0;
}

int Volume::set_mute(bool mute)
{
    mute_ = mute;
    mute_set_ = true;
    return apply_mute();
}

int Volume::apply_volume()
{
    if (element_ == nullptr || kind_ == Kind::unset)
        return 0;
    const AlsaMessages messages;
    catch_up();
    if (mute_ && !snd_mixer_selem_has_playback_switch(element_))
        return 0;
    return kind_ == Kind::percent ? set_percent_of(element_, value_) : set_raw(element_, value_);
}

int Volume::apply_mute()
{
    if (element_ == nullptr)
        return 0;
    const AlsaMessages messages;
    catch_up();
    if (snd_mixer_selem_has_playback_switch(element_))
        return snd_mixer_selem_set_playback_switch_all(element_, mute_ ? 0 : 1);
    if (!mute_)
        return apply_volume();
    if (kind_ == Kind::unset) {
        // A volume that another program set is restored.
        long before = 0;
        if (snd_mixer_selem_get_playback_volume(element_, SND_MIXER_SCHN_FRONT_LEFT, &before) >= 0) {
            kind_ = Kind::direct;
            value_ = static_cast<int>(before);
        }
    }
    long min = 0;
    long max = 0;
    const int err = snd_mixer_selem_get_playback_volume_range(element_, &min, &max);
    return err < 0 ? err : snd_mixer_selem_set_playback_volume_all(element_, min);
}

float Volume::software_gain() const
{
    if (element_ != nullptr || kind_ == Kind::unset)
        return mute_ && element_ == nullptr ? 0.0f : 1.0f;
    if (mute_)
        return 0.0f;
    return kind_ == Kind::percent ? volume_gain(value_)
                                  : static_cast<float>(std::clamp(value_, 0, kMaxDirect)) / kMaxDirect;
}

} // namespace hdmi_linux
