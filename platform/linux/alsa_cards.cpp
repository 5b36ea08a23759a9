// SPDX-License-Identifier: MIT
#include "alsa_cards.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "aio_device.h"
#include "alsa_pcm.h"
#include "alsa_volume.h"
#include "config.h"
#include "hdmi_linux.h"

namespace hdmi_linux
{
namespace
{

struct CtlCloser {
    void operator()(snd_ctl_t* ctl) const { snd_ctl_close(ctl); }
};

// The card's first device with a capture stream, or -1.
int first_capture_device_of(int card)
{
    snd_ctl_t* native = nullptr;
    if (snd_ctl_open(&native, ("hw:" + std::to_string(card)).c_str(), SND_CTL_NONBLOCK) < 0)
        return -1;
    const std::unique_ptr<snd_ctl_t, CtlCloser> ctl(native);
    snd_pcm_info_t* info = nullptr;
    snd_pcm_info_alloca(&info);
    for (int device = -1; snd_ctl_pcm_next_device(native, &device) >= 0 && device >= 0;) {
        snd_pcm_info_set_device(info, static_cast<unsigned int>(device));
        snd_pcm_info_set_stream(info, SND_PCM_STREAM_CAPTURE);
        if (snd_ctl_pcm_info(native, info) >= 0)
            return device;
    }
    return -1;
}

bool is_capture(int device) { return device == E_AUDIO_IO_DEV_HDMI_IN || device == E_AUDIO_IO_DEV_MIC01; }

std::string cannot_be_opened(const std::string& name, int err, const AlsaMessages& messages)
{
    return "'" + name + "' cannot be opened: " + snd_strerror(err) +
           (messages.text().empty() ? "" : " (" + messages.text() + ")");
}

struct PcmCheck {
    bool opened = false;
    int card = -1;     ///< as card_device()
    std::string fault; ///< why it cannot be opened; empty when it can, or when it is only in use
};

PcmCheck check_pcm(const std::string& pcm, bool capture)
{
    const AlsaMessages messages;
    snd_pcm_t* handle = nullptr;
    const int err = snd_pcm_open(&handle, pcm.c_str(), capture ? SND_PCM_STREAM_CAPTURE : SND_PCM_STREAM_PLAYBACK,
                                 SND_PCM_NONBLOCK);
    PcmCheck check;
    check.opened = err >= 0;
    if (check.opened) {
        check.card = card_device(handle).card;
        snd_pcm_close(handle);
    } else if (err != -EBUSY && err != -EAGAIN) {
        check.fault = cannot_be_opened(pcm, err, messages);
    }
    return check;
}

// @return a line that says what is wrong with the mixer configured for output @p device; empty when it can be used.
// Empty as well while the PCM is in use, because its card is not known then.
std::string mixer_fault(const AudioDeviceConfig& audio, int device, const PcmCheck& pcm)
{
    const std::string card = mixer_card(audio, pcm.card);
    if (card.empty() && !pcm.fault.empty() && audio.pcm_source.empty())
        return audio.mixer_source + ": " + pcm.fault;
    if (card.empty())
        return pcm.opened ? audio.mixer_source + ": '" + audio.pcm + "' is on no card that could have it" : "";
    const std::string& card_source = audio.mixer_card.empty() ? audio.mixer_source : audio.mixer_card_source;
    const AlsaMessages messages;
    Mixer mixer;
    const int err = open_mixer(card, &mixer);
    if (err < 0)
        return card_source + ": " + cannot_be_opened(card, err, messages);
    if (audio.mixer == kNoMixer || find_volume(mixer.get(), audio, device) != nullptr)
        return {};
    if (audio.mixer.empty())
        return card_source + ": '" + card + "' has none of the usual volume controls";
    return audio.mixer_source + ": '" + card + "' has no volume control '" + audio.mixer + "'";
}

void check_device(const AudioDeviceConfig& audio, int device, std::vector<std::string>* errors)
{
    const bool names_mixer = (!audio.mixer.empty() && audio.mixer != kNoMixer) || !audio.mixer_card.empty();
    if (audio.pcm_source.empty() && !names_mixer)
        return;
    PcmCheck pcm;
    if (!audio.pcm_source.empty() || audio.mixer_card.empty())
        pcm = check_pcm(audio.pcm, is_capture(device));
    if (!audio.pcm_source.empty() && !pcm.fault.empty())
        errors->push_back(audio.pcm_source + ": " + pcm.fault);
    std::string fault;
    if (names_mixer && !(fault = mixer_fault(audio, device, pcm)).empty())
        errors->push_back(std::move(fault));
}

} // namespace

std::string first_capture_device()
{
    const AlsaMessages messages;
    for (int card = -1; snd_card_next(&card) >= 0 && card >= 0;) {
        const int device = first_capture_device_of(card);
        if (device >= 0)
            return "hw:" + std::to_string(card) + "," + std::to_string(device);
    }
    return "default";
}

bool check_config(std::string* error)
{
    std::vector<std::string> errors;
    const Config config = load_config(&errors);
    // Without AUTO, which has the speaker's settings.
    for (int device = E_AUDIO_IO_DEV_SPEAKER; device < E_AUDIO_IO_DEV_MAX; ++device)
        check_device(config.audio[device], device, &errors);
    if (!config.cec_source.empty() && config.cec != "none" && access(config.cec.c_str(), F_OK) != 0)
        errors.push_back(config.cec_source + ": '" + config.cec + "' is not there: " + strerror(errno));
    std::string text;
    for (const std::string& line : errors)
        text += line + "\n";
    if (error != nullptr)
        *error = text;
    return errors.empty();
}

} // namespace hdmi_linux
