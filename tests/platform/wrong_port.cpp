// SPDX-License-Identifier: MIT
// Ports that break one promise each, named by the variable WRONG; what they do right, the simulated platform does. The
// contract program must find each of them out.
#include <dlfcn.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "aio_device.h"

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

} // extern "C"
