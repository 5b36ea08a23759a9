// SPDX-License-Identifier: MIT
#include "iec958.h"

#include <cstring>
#include <memory>

#include "alsa_messages.h"

namespace hdmi_linux
{
namespace
{

constexpr char kControl[] = "IEC958 Playback Default";

struct ListRelease {
    void operator()(snd_ctl_elem_list_t* list) const
    {
        snd_ctl_elem_list_free_space(list);
        snd_ctl_elem_list_free(list);
    }
};
using List = std::unique_ptr<snd_ctl_elem_list_t, ListRelease>;
struct ValueRelease {
    void operator()(snd_ctl_elem_value_t* value) const { snd_ctl_elem_value_free(value); }
};
using Value = std::unique_ptr<snd_ctl_elem_value_t, ValueRelease>;
struct CtlCloser {
    void operator()(snd_ctl_t* ctl) const { snd_ctl_close(ctl); }
};
using Ctl = std::unique_ptr<snd_ctl_t, CtlCloser>;

Ctl open_control(int card)
{
    snd_ctl_t* ctl = nullptr;
    const std::string name = "hw:" + std::to_string(card);
    return Ctl(snd_ctl_open(&ctl, name.c_str(), SND_CTL_NONBLOCK) >= 0 ? ctl : nullptr);
}

List all_elements(snd_ctl_t* ctl)
{
    snd_ctl_elem_list_t* native = nullptr;
    if (snd_ctl_elem_list_malloc(&native) < 0)
        return nullptr;
    List list(native);
    if (snd_ctl_elem_list(ctl, native) < 0 ||
        snd_ctl_elem_list_alloc_space(native, snd_ctl_elem_list_get_count(native)) < 0)
        return nullptr;
    return snd_ctl_elem_list(ctl, native) >= 0 ? std::move(list) : nullptr;
}

// Whether element @p at is the status control of PCM @p device. Most drivers give it the device's number. Older
// ones number it by index only: that with index 0 is taken.
bool belongs_to(const snd_ctl_elem_list_t* list, unsigned int at, int device)
{
    if (strcmp(snd_ctl_elem_list_get_name(list, at), kControl) != 0)
        return false;
    if (snd_ctl_elem_list_get_interface(list, at) == SND_CTL_ELEM_IFACE_PCM)
        return static_cast<int>(snd_ctl_elem_list_get_device(list, at)) == device;
    return snd_ctl_elem_list_get_index(list, at) == 0;
}

bool write_status(snd_ctl_t* ctl, unsigned int number, const ChannelStatus& status)
{
    snd_ctl_elem_value_t* native = nullptr;
    if (snd_ctl_elem_value_malloc(&native) < 0)
        return false;
    const Value value(native);
    snd_ctl_elem_value_set_numid(native, number);
    if (snd_ctl_elem_read(ctl, native) < 0)
        return false;
    snd_aes_iec958_t aes = {};
    snd_ctl_elem_value_get_iec958(native, &aes);
    std::copy(status.begin(), status.end(), aes.status);
    snd_ctl_elem_value_set_iec958(native, &aes);
    return snd_ctl_elem_write(ctl, native) >= 0;
}

} // namespace

bool set_status_control(int card, int device, const ChannelStatus& status)
{
    if (card < 0)
        return false;
    const AlsaMessages messages;
    const Ctl ctl = open_control(card);
    if (ctl == nullptr)
        return false;
    const List list = all_elements(ctl.get());
    if (list == nullptr)
        return false;
    bool set = false;
    for (unsigned int at = 0; at < snd_ctl_elem_list_get_used(list.get()); ++at)
        if (belongs_to(list.get(), at, device))
            set = write_status(ctl.get(), snd_ctl_elem_list_get_numid(list.get(), at), status) || set;
    return set;
}

} // namespace hdmi_linux
