// SPDX-License-Identifier: MIT
#include "platform_hooks.h"

PlatformHooks g_hooks;

namespace
{

constexpr int kBytesPerFrame = 4;

// The hook's result, or @p fallback where the test set none.
template <typename Result, typename... Params, typename... Args>
Result call(const std::function<Result(Params...)>& hook, Result fallback, Args... args)
{
    return hook ? hook(args...) : fallback;
}

} // namespace

extern "C" {

int aio_device_open(audio_config_t* config) { return call(g_hooks.open, 0, config); }
int aio_device_close(audio_config_t* config) { return call(g_hooks.close, 0, config); }
int aio_device_read(audio_config_t* config, uint8_t* data, int size)
{
    return call(g_hooks.read, size, config, data, size);
}
int aio_device_write(audio_config_t* config, const uint8_t* data, int size)
{
    return call(g_hooks.write, size, config, data, size);
}
int aio_device_get_write_bytes(audio_config_t* config, int* out)
{
    return call(g_hooks.get_write_bytes, 0, config, out);
}
int aio_device_bytes_to_frames(audio_config_t*, int bytes) { return bytes / kBytesPerFrame; }
int aio_device_frames_to_bytes(audio_config_t* config, int frames)
{
    const int count = frames != 0 ? frames : config->period_frames;
    return call(g_hooks.frames_to_bytes, count * kBytesPerFrame, config, frames);
}
int aio_device_set_volume(audio_config_t* config, int volume) { return call(g_hooks.set_volume, 0, config, volume); }
int aio_device_set_volume_direct(audio_config_t* config, int volume)
{
    return call(g_hooks.set_volume_direct, 0, config, volume);
}
int aio_device_set_mute(audio_config_t* config, bool mute) { return call(g_hooks.set_mute, 0, config, mute); }
int aio_device_reselect(audio_config_t* config, int device_id, int output_fmt)
{
    return call(g_hooks.reselect, 0, config, device_id, output_fmt);
}

adecoder_handle_t* adecoder_init(adecoder_format_t format, int32_t, int32_t, adecoder_channel_t num_channel, int32_t,
                                 bool async_mode)
{
    return call(g_hooks.decoder_init, static_cast<adecoder_handle_t*>(nullptr), format, num_channel, async_mode);
}
int32_t adecoder_write(adecoder_handle_t* handle, const void* data, int32_t bytes, int32_t, int32_t, int32_t* status)
{
    return call(g_hooks.decoder_write, bytes, handle, data, bytes, status);
}
int32_t adecoder_read(adecoder_handle_t* handle, int32_t, int32_t, void* buffer, int32_t buffer_size, int32_t)
{
    return call(g_hooks.decoder_read, 0, handle, buffer, buffer_size);
}
int32_t adecoder_get_output_sample_rate(adecoder_handle_t* handle) { return call(g_hooks.decoder_rate, 48000, handle); }
int32_t adecoder_deinit(adecoder_handle_t* handle) { return call(g_hooks.decoder_deinit, 0, handle); }

int vendor_hdmi_cec_init(hdmi_cec_config_t* config) { return call(g_hooks.cec_init, 0, config); }
int vendor_hdmi_cec_open_arc(void) { return call(g_hooks.cec_open_arc, 0); }
int vendor_hdmi_cec_deinit(void) { return call(g_hooks.cec_deinit, 0); }

int drmWaitVBlank(int fd, drmVBlankPtr vbl) { return call(g_hooks.wait_vblank, -1, fd, vbl); }

} // extern "C"
