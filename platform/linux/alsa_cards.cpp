// SPDX-License-Identifier: MIT
#include "alsa_cards.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "aio_device.h"
#include "alsa_pcm.h"
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

// Why @p pcm cannot be opened at all; nothing when it can, or when it is only in use.
std::string pcm_fault(const std::string& pcm, bool capture)
{
    const AlsaMessages messages;
    snd_pcm_t* handle = nullptr;
    const int err = snd_pcm_open(&handle, pcm.c_str(), capture ? SND_PCM_STREAM_CAPTURE : SND_PCM_STREAM_PLAYBACK,
                                 SND_PCM_NONBLOCK);
    if (err >= 0)
        snd_pcm_close(handle);
    if (err >= 0 || err == -EBUSY || err == -EAGAIN)
        return {};
    return "'" + pcm + "' cannot be opened: " + snd_strerror(err) +
           (messages.text().empty() ? "" : " (" + messages.text() + ")");
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
    // AUTO repeats the speaker.
    for (int device = E_AUDIO_IO_DEV_SPEAKER; device < E_AUDIO_IO_DEV_MAX; ++device) {
        const AudioDeviceConfig& audio = config.audio[device];
        const std::string fault = audio.pcm_source.empty() ? "" : pcm_fault(audio.pcm, is_capture(device));
        if (!fault.empty())
            errors.push_back(audio.pcm_source + ": " + fault);
    }
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
