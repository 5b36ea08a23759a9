// SPDX-License-Identifier: MIT
// Ports that break one promise each, named by the variable WRONG; what they do right, the simulated platform does. The
// contract program must find each of them out.
#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "adecoder.h"
#include "aio_device.h"
#include "hdmi_sim.h"

namespace
{

bool wrong(const char* how)
{
    const char* named = getenv("WRONG");
    return named != nullptr && strcmp(named, how) == 0;
}

template <typename Function> Function right(Function, const char* name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

bool is_capture(const audio_config_t* config) { return config->stream_type == E_AUDIO_STREAM_CAPTURE; }

int g_old_bytes = 0; ///< of sound from before the opening

using Clock = std::chrono::steady_clock;
std::atomic<Clock::time_point> g_frame_came; ///< the latest

} // namespace

extern "C" {

__attribute__((visibility("default"))) int aio_device_open(audio_config_t* config)
{
    audio_config_t used = *config;
    if (is_capture(config) && config->sample_rate == 0 && wrong("rate_0_refused"))
        return -EINVAL;
    if (!is_capture(config) && wrong("rate_ignored"))
        used.sample_rate = 48000;
    if (is_capture(config) && wrong("old_sound"))
        g_old_bytes = 80 * 48 * 4;
    return right(aio_device_open, "aio_device_open")(&used);
}

__attribute__((visibility("default"))) int aio_device_read(audio_config_t* config, uint8_t* data, int size)
{
    const int old = std::min(g_old_bytes, size);
    g_old_bytes -= old;
    return old == size ? size : right(aio_device_read, "aio_device_read")(config, data, size);
}

__attribute__((visibility("default"))) int aio_device_get_write_bytes(audio_config_t* config, int* out)
{
    const int result = right(aio_device_get_write_bytes, "aio_device_get_write_bytes")(config, out);
    if (result >= 0 && wrong("delay_in_bytes"))
        *out *= 4;
    if (result >= 0 && wrong("delay_halved"))
        *out /= 2;
    if (result >= 0 && wrong("delay_negative"))
        *out -= 480;
    return result;
}

__attribute__((visibility("default"))) adecoder_handle_t* adecoder_init(adecoder_format_t format, int32_t arg1,
                                                                        int32_t arg2, adecoder_channel_t num_channel,
                                                                        int32_t arg4, bool async_mode)
{
    if (wrong("eac3_not_known") && format == ADECODER_FORMAT_EAC3)
        return nullptr;
    hdmi_sim::decoder_fills_losses(!wrong("losses_not_filled"));
    return right(adecoder_init, "adecoder_init")(format, arg1, arg2, num_channel, arg4, async_mode);
}

__attribute__((visibility("default"))) int32_t adecoder_write(adecoder_handle_t* handle, const void* data,
                                                              int32_t bytes, int32_t arg3, int32_t timeout_ms,
                                                              int32_t* status)
{
    g_frame_came = Clock::now();
    return right(adecoder_write, "adecoder_write")(handle, data, bytes, arg3, timeout_ms, status);
}

__attribute__((visibility("default"))) int32_t adecoder_read(adecoder_handle_t* handle, int32_t arg1, int32_t arg2,
                                                             void* buffer, int32_t buffer_size, int32_t arg5)
{
    const bool frames_come = Clock::now() - g_frame_came.load() < std::chrono::milliseconds(48);
    if (wrong("pauses_not_filled") && !frames_come)
        return 0;
    return right(adecoder_read, "adecoder_read")(handle, arg1, arg2, buffer, buffer_size, arg5);
}

} // extern "C"
