// SPDX-License-Identifier: MIT
#include "card_controls.h"

#include <memory>

#include "alsa_messages.h"

namespace hdmi_linux
{
namespace
{

struct PcmCloser {
    void operator()(snd_pcm_t* pcm) const { snd_pcm_close(pcm); }
};
struct ControlCloser {
    void operator()(snd_ctl_t* control) const { snd_ctl_close(control); }
};
using Control = std::unique_ptr<snd_ctl_t, ControlCloser>;

// Opened for each look: a card that somebody holds cannot be unplugged for good.
Control open_control(const std::string& name)
{
    snd_ctl_t* control = nullptr;
    return Control(snd_ctl_open(&control, name.c_str(), SND_CTL_NONBLOCK) < 0 ? nullptr : control);
}

/// Of a card that is there now; empty if that is not known.
std::string id_of_card(int number)
{
    const Control control = number < 0 ? nullptr : open_control("hw:" + std::to_string(number));
    snd_ctl_card_info_t* info = nullptr;
    snd_ctl_card_info_alloca(&info);
    return control && snd_ctl_card_info(control.get(), info) >= 0 ? snd_ctl_card_info_get_id(info) : "";
}

int integer_control(const CardPlace& place, const char* name)
{
    const Control control = open_control("hw:CARD=" + place.card);
    if (!control)
        return -1;
    snd_ctl_elem_value_t* value = nullptr;
    snd_ctl_elem_value_alloca(&value);
    snd_ctl_elem_value_set_interface(value, SND_CTL_ELEM_IFACE_PCM);
    snd_ctl_elem_value_set_name(value, name);
    snd_ctl_elem_value_set_device(value, place.device);
    snd_ctl_elem_value_set_subdevice(value, place.subdevice);
    return snd_ctl_elem_read(control.get(), value) < 0 ? -1
                                                       : static_cast<int>(snd_ctl_elem_value_get_integer(value, 0));
}

} // namespace

CardPlace find_card(const std::string& pcm)
{
    const AlsaMessages silenced;
    snd_pcm_t* native = nullptr;
    if (snd_pcm_open(&native, pcm.c_str(), SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK) < 0)
        return {};
    const std::unique_ptr<snd_pcm_t, PcmCloser> handle(native);
    snd_pcm_info_t* info = nullptr;
    snd_pcm_info_alloca(&info);
    if (snd_pcm_info(native, info) < 0)
        return {};
    return {id_of_card(snd_pcm_info_get_card(info)), snd_pcm_info_get_device(info), snd_pcm_info_get_subdevice(info)};
}

int rate_by_controls(const CardPlace& place)
{
    if (place.card.empty())
        return -1;
    const AlsaMessages silenced;
    for (const char* name : {"PCM Slave Rate", "PCM Rate"}) {
        const int rate = integer_control(place, name);
        if (rate > 0)
            return rate;
    }
    return -1;
}

} // namespace hdmi_linux
