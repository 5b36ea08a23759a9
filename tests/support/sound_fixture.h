// SPDX-License-Identifier: MIT
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "audio_devices.h"
#include "eventually.h"
#include "hdmi_linux.h"
#include "sound_devices.h"

constexpr int kRate = 48000;
constexpr int kPeriod = 960;
constexpr int kBlockBytes = kPeriod * 4;

/// Both devices, closed at the end.
class AudioDevices : public testing::Test
{
protected:
    ~AudioDevices() override
    {
        aio_device_close(&playback_);
        aio_device_close(&capture_);
    }

    /// @return the last write's result.
    int write_numbered(int blocks = 1)
    {
        int result = 0;
        for (; blocks > 0; --blocks) {
            const std::vector<int16_t> words = numbered(written_, kPeriod);
            result = aio_device_write(&playback_, reinterpret_cast<const uint8_t*>(words.data()), kBlockBytes);
            written_ += kPeriod;
        }
        return result;
    }
    /// Writes on until the device is there again.
    bool plays_again()
    {
        return eventually([this] { return write_numbered() == kBlockBytes && !hdmi_linux::playback_stats().lost; });
    }
    /// Writes on until something is heard.
    bool is_heard(const Recorder& recorder)
    {
        return eventually([&] { return write_numbered() == kBlockBytes && !number_runs(recorder.left()).empty(); });
    }
    int delay()
    {
        int frames = -1;
        EXPECT_EQ(aio_device_get_write_bytes(&playback_, &frames), 0);
        return frames;
    }
    /// Adds the left channel of what was read to @p left.
    int read_block(std::vector<int16_t>* left)
    {
        std::vector<int16_t> block(2 * kPeriod);
        const int result = aio_device_read(&capture_, reinterpret_cast<uint8_t*>(block.data()), kBlockBytes);
        for (int frame = 0; frame < result / 4; ++frame)
            left->push_back(block[2 * frame]);
        return result;
    }

    audio_config_t playback_ = audio_device(E_AUDIO_STREAM_PLAYBACK);
    audio_config_t capture_ = audio_device(E_AUDIO_STREAM_CAPTURE);
    int64_t written_ = 0;
};
