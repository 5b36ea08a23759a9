// SPDX-License-Identifier: MIT
/**
 * @file
 * The platform's audio functions on ALSA: the stream type says which device a
 * call is for.
 */
#include "aio_device.h"

#include <cerrno>

#include "alsa_capture.h"
#include "alsa_output.h"
#include "contained.h"
#include "hdmi_linux.h"
#include "receiver/receiver.h"
#include "time_line.h"

#define PLATFORM_EXPORT __attribute__((visibility("default")))

namespace
{

using hdmi_linux::capture;
using hdmi_linux::contained;
using hdmi_linux::output;
using hdmi_linux::receiver;

bool is_capture(const audio_config_t* config)
{
    return config != nullptr && config->stream_type == E_AUDIO_STREAM_CAPTURE;
}
bool is_playback(const audio_config_t* config)
{
    return config != nullptr && config->stream_type == E_AUDIO_STREAM_PLAYBACK;
}

// Result of a call with a stream type that the function does not serve.
constexpr int kWrongStream = -EINVAL;
constexpr int kNoMemory = -ENOMEM;

int frame_bytes(const audio_config_t* config) { return config->channels * hdmi_linux::kBytesPerSample; }

int open_device(audio_config_t* config)
{
    if (is_capture(config)) {
        time_line::begin();
        const int result = capture().open(*config);
        if (result >= 0)
            receiver().opened();
        return result;
    }
    receiver().start_if_asked();
    return is_playback(config) ? output().open(*config) : kWrongStream;
}

int read_device(audio_config_t* config, uint8_t* data, int size)
{
    const int result = is_capture(config) ? capture().read(data, size) : kWrongStream;
    if (result > 0) {
        time_line::delivered();
        receiver().captured(data, result);
    }
    return result;
}

} // namespace

extern "C" {

PLATFORM_EXPORT int aio_device_open(audio_config_t* config)
{
    const int result = contained([=] { return open_device(config); }, kNoMemory);
    if (result == kNoMemory)
        aio_device_close(config); // which may have been opened before the memory was short
    return result;
}

PLATFORM_EXPORT int aio_device_close(audio_config_t* config)
{
    if (is_capture(config)) {
        time_line::end();
        return contained([] { return capture().close(); }, kNoMemory);
    }
    return is_playback(config) ? contained([] { return output().close(); }, kNoMemory) : kWrongStream;
}

PLATFORM_EXPORT int aio_device_read(audio_config_t* config, uint8_t* data, int size)
{
    return contained([=] { return read_device(config, data, size); }, kNoMemory);
}

PLATFORM_EXPORT int aio_device_write(audio_config_t* config, const uint8_t* data, int size)
{
    return is_playback(config) ? contained([=] { return output().write(data, size); }, kNoMemory) : kWrongStream;
}

PLATFORM_EXPORT int aio_device_get_write_bytes(audio_config_t* config, int* out)
{
    return is_playback(config) ? output().delay(out) : kWrongStream;
}

PLATFORM_EXPORT int aio_device_bytes_to_frames(audio_config_t* config, int bytes)
{
    if (config == nullptr || config->channels <= 0)
        return kWrongStream;
    return bytes / frame_bytes(config);
}

PLATFORM_EXPORT int aio_device_frames_to_bytes(audio_config_t* config, int frames)
{
    if (config == nullptr || config->channels <= 0)
        return kWrongStream;
    return (frames != 0 ? frames : config->period_frames) * frame_bytes(config);
}

PLATFORM_EXPORT int aio_device_set_volume(audio_config_t* config, int volume)
{
    return is_playback(config) ? contained([=] { return output().set_volume(volume); }, kNoMemory) : kWrongStream;
}

PLATFORM_EXPORT int aio_device_set_volume_direct(audio_config_t* config, int volume)
{
    return is_playback(config) ? contained([=] { return output().set_direct_volume(volume); }, kNoMemory)
                               : kWrongStream;
}

PLATFORM_EXPORT int aio_device_set_mute(audio_config_t* config, bool mute)
{
    return is_playback(config) ? contained([=] { return output().set_mute(mute); }, kNoMemory) : kWrongStream;
}

PLATFORM_EXPORT int aio_device_reselect(audio_config_t* config, int device_id, int output_fmt)
{
    return is_playback(config) ? contained([=] { return output().reselect(device_id, output_fmt); }, kNoMemory)
                               : kWrongStream;
}

} // extern "C"

namespace hdmi_linux
{

DeviceStats playback_stats() { return output().playback_stats(); }
DeviceStats capture_stats()
{
    DeviceStats stats = capture().stats();
    stats.frames_per_sample = receiver().frames_per_sample();
    return stats;
}
BypassStats bypass_stats() { return output().bypass_stats(); }

} // namespace hdmi_linux
