// SPDX-License-Identifier: MIT
#include "edges/alsa_pcm.h"

#include <alsa/asoundlib.h>

#include <algorithm>
#include <cerrno>
#include <mutex>

#include "alsa_time.h"
#include "common/clock.h"

namespace play
{
namespace
{

constexpr unsigned kChannels = 2;
constexpr int kWaitMs = 100;
/// Short periods: some devices update their position once a period only. The buffer: what a thread may be late by.
constexpr unsigned kPeriodUs = 10'000;
constexpr unsigned kBufferUs = 160'000;

void be_silent(const char*, int, const char*, int, const char*, ...) {}

/// What is wrong goes into the one line of this program. The handler is the whole process's: set by one thread, once.
void silence_library()
{
    static std::once_flag once;
    std::call_once(once, [] { snd_lib_error_set_handler(be_silent); });
}

int open_pcm(snd_pcm_t** pcm, const std::string& name, AlsaPcm::Direction direction)
{
    silence_library();
    bool plays = direction == AlsaPcm::Direction::playback;
    return snd_pcm_open(pcm, name.c_str(), plays ? SND_PCM_STREAM_PLAYBACK : SND_PCM_STREAM_CAPTURE, SND_PCM_NONBLOCK);
}

int set_hardware(snd_pcm_t* pcm, int rate, snd_pcm_uframes_t* period_frames, snd_pcm_uframes_t* buffer_frames)
{
    snd_pcm_hw_params_t* hardware = nullptr;
    snd_pcm_hw_params_alloca(&hardware);
    unsigned period = kPeriodUs;
    unsigned buffer = kBufferUs;
    int result = snd_pcm_hw_params_any(pcm, hardware);
    if (result >= 0)
        result = snd_pcm_hw_params_set_access(pcm, hardware, SND_PCM_ACCESS_RW_INTERLEAVED);
    if (result >= 0)
        result = snd_pcm_hw_params_set_format(pcm, hardware, SND_PCM_FORMAT_S16_LE);
    if (result >= 0)
        result = snd_pcm_hw_params_set_channels(pcm, hardware, kChannels);
    if (result >= 0)
        result = snd_pcm_hw_params_set_rate(pcm, hardware, static_cast<unsigned>(rate), 0);
    if (result >= 0)
        result = snd_pcm_hw_params_set_period_time_near(pcm, hardware, &period, nullptr);
    if (result >= 0)
        result = snd_pcm_hw_params_set_buffer_time_near(pcm, hardware, &buffer, nullptr);
    if (result >= 0)
        result = snd_pcm_hw_params(pcm, hardware);
    if (result >= 0)
        result = snd_pcm_hw_params_get_period_size(hardware, period_frames, nullptr);
    return result < 0 ? result : snd_pcm_hw_params_get_buffer_size(hardware, buffer_frames);
}

int set_software(snd_pcm_t* pcm)
{
    snd_pcm_sw_params_t* software = nullptr;
    snd_pcm_sw_params_alloca(&software);
    snd_pcm_uframes_t boundary = 0;
    int result = snd_pcm_sw_params_current(pcm, software);
    if (result >= 0)
        result = snd_pcm_sw_params_get_boundary(software, &boundary);
    // It is started when the time has come, not when its buffer is full.
    if (result >= 0)
        result = snd_pcm_sw_params_set_start_threshold(pcm, software, boundary);
    if (result >= 0)
        result = snd_pcm_sw_params_set_tstamp_mode(pcm, software, SND_PCM_TSTAMP_ENABLE);
    if (result >= 0)
        result = snd_pcm_sw_params_set_tstamp_type(pcm, software, SND_PCM_TSTAMP_TYPE_MONOTONIC);
    return result < 0 ? result : snd_pcm_sw_params(pcm, software);
}

} // namespace

std::unique_ptr<AlsaPcm> AlsaPcm::open(const std::string& name, Direction direction, int rate, std::string* error)
{
    snd_pcm_t* pcm = nullptr;
    int result = open_pcm(&pcm, name, direction);
    snd_pcm_uframes_t period_frames = 0;
    snd_pcm_uframes_t buffer_frames = 0;
    bool opened = result >= 0;
    if (opened)
        result = set_hardware(pcm, rate, &period_frames, &buffer_frames);
    if (result >= 0)
        result = set_software(pcm);
    if (result >= 0)
        return std::unique_ptr<AlsaPcm>(
            new AlsaPcm(pcm, static_cast<int>(period_frames), static_cast<int>(buffer_frames)));
    *error = "alsa:" + name + ": " + snd_strerror(result);
    if (opened) {
        *error += " (16-bit stereo at " + std::to_string(rate) + " Hz)";
        snd_pcm_close(pcm);
    }
    return nullptr;
}

AlsaPcm::~AlsaPcm()
{
    // What is queued is not waited for.
    snd_pcm_drop(pcm_);
    snd_pcm_close(pcm_);
}

int AlsaPcm::write(const int16_t* stereo, int frames)
{
    auto written = static_cast<int>(snd_pcm_writei(pcm_, stereo, static_cast<snd_pcm_uframes_t>(frames)));
    if (written != -EAGAIN)
        return written;
    int ready = snd_pcm_wait(pcm_, kWaitMs);
    return ready < 0 ? ready : 0;
}

int AlsaPcm::read(int16_t* stereo, int frames)
{
    auto got = static_cast<int>(snd_pcm_readi(pcm_, stereo, static_cast<snd_pcm_uframes_t>(frames)));
    if (got != -EAGAIN)
        return got;
    int ready = snd_pcm_wait(pcm_, kWaitMs);
    return ready < 0 ? ready : 0;
}

bool AlsaPcm::start() { return snd_pcm_start(pcm_) >= 0; }
bool AlsaPcm::prepare() { return snd_pcm_prepare(pcm_) >= 0; }

bool AlsaPcm::ask_position(Position* position)
{
    snd_pcm_status_t* status = nullptr;
    snd_pcm_status_alloca(&status);
    if (snd_pcm_status(pcm_, status) < 0 || snd_pcm_status_get_state(status) != SND_PCM_STATE_RUNNING)
        return false;
    hdmi_linux::AlsaTime at;
    snd_pcm_status_get_htstamp(status, at.to_fill());
    position->frames = snd_pcm_status_get_delay(status);
    // A device in software may have no stamps: then it is the time at which it was asked.
    position->at_ns = at.ns() != 0 ? at.ns() : common::now_ns();
    return true;
}

bool alsa_opens(const std::string& name, AlsaPcm::Direction direction, std::string* error)
{
    snd_pcm_t* pcm = nullptr;
    int result = open_pcm(&pcm, name, direction);
    if (result >= 0) {
        snd_pcm_close(pcm);
        return true;
    }
    *error = "alsa:" + name + ": " + snd_strerror(result);
    return false;
}

} // namespace play
