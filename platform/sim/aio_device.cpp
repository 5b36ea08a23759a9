// SPDX-License-Identifier: MIT
/**
 * @file
 * The platform's audio functions: the stream type says which simulated device
 * a call is for.
 */
#include "aio_device.h"

#include "named_signal.h"
#include "sim.h"
#include "time_line.h"

namespace
{

bool is_capture(const audio_config_t* config) { return config->stream_type == E_AUDIO_STREAM_CAPTURE; }
bool is_playback(const audio_config_t* config) { return config->stream_type == E_AUDIO_STREAM_PLAYBACK; }

// Result of a call with a stream type that the function does not serve.
constexpr int kWrongStream = -EINVAL;

int frame_bytes(const audio_config_t* config) { return config->channels * sim::kBytesPerSample; }

} // namespace

extern "C" {

SIM_EXPORT int aio_device_open(audio_config_t* config)
{
    if (config == nullptr)
        return kWrongStream;
    if (is_capture(config)) {
        time_line::begin();
        return sim::capture_open(*config);
    }
    // The player opens its output before it looks at the state of the source.
    sim::connect_if_asked();
    return is_playback(config) ? sim::playback_open(*config) : kWrongStream;
}

SIM_EXPORT int aio_device_close(audio_config_t* config)
{
    if (config == nullptr)
        return kWrongStream;
    if (is_capture(config)) {
        time_line::end();
        return sim::capture_close();
    }
    return is_playback(config) ? sim::playback_close() : kWrongStream;
}

SIM_EXPORT int aio_device_read(audio_config_t* config, uint8_t* data, int size)
{
    const int result = config != nullptr && is_capture(config) ? sim::capture_read(data, size) : kWrongStream;
    if (result > 0)
        time_line::delivered();
    return result;
}

SIM_EXPORT int aio_device_write(audio_config_t* config, const uint8_t* data, int size)
{
    return config != nullptr && is_playback(config) ? sim::playback_write(data, size) : kWrongStream;
}

SIM_EXPORT int aio_device_get_write_bytes(audio_config_t* config, int* out)
{
    return config != nullptr && is_playback(config) ? sim::playback_delay(out) : kWrongStream;
}

SIM_EXPORT int aio_device_bytes_to_frames(audio_config_t* config, int bytes)
{
    if (config == nullptr || config->channels <= 0)
        return kWrongStream;
    const sim::Verdict verdict = sim::fault_verdict(hdmi_sim::Op::bytes_to_frames);
    return verdict.fail ? verdict.result : bytes / frame_bytes(config);
}

SIM_EXPORT int aio_device_frames_to_bytes(audio_config_t* config, int frames)
{
    if (config == nullptr || config->channels <= 0)
        return kWrongStream;
    if (is_capture(config)) {
        const sim::Verdict verdict = sim::fault_verdict(hdmi_sim::Op::capture_frames_to_bytes);
        if (verdict.fail)
            return verdict.result;
    }
    return (frames != 0 ? frames : config->period_frames) * frame_bytes(config);
}

SIM_EXPORT int aio_device_set_volume(audio_config_t* config, int volume)
{
    return config != nullptr && is_playback(config) ? sim::playback_set_volume(volume) : kWrongStream;
}

SIM_EXPORT int aio_device_set_volume_direct(audio_config_t* config, int volume)
{
    return config != nullptr && is_playback(config) ? sim::playback_set_volume_direct(volume) : kWrongStream;
}

SIM_EXPORT int aio_device_set_mute(audio_config_t* config, bool mute)
{
    return config != nullptr && is_playback(config) ? sim::playback_set_mute(mute) : kWrongStream;
}

SIM_EXPORT int aio_device_reselect(audio_config_t* config, int device_id, int output_fmt)
{
    return config != nullptr && is_playback(config) ? sim::playback_reselect(device_id, output_fmt) : kWrongStream;
}

} // extern "C"
