// SPDX-License-Identifier: MIT
/**
 * @file
 * A time that alsa-lib writes. On a 32-bit machine alsa-lib may have been built with seconds of 32 bits, while this
 * code has 64: alsa-lib then writes only the first half of the record.
 */
#pragma once

#include <alsa/asoundlib.h>

#include <cstdint>
#include <cstring>

namespace hdmi_linux
{

/// Of one call of alsa-lib, which fills it.
class AlsaTime
{
public:
    AlsaTime() { memset(&time_, 0xFF, sizeof(time_)); }
    snd_htimestamp_t* to_fill() { return &time_; }
    int64_t ns() const
    {
        const int64_t seconds = time_.tv_sec;
        if (time_.tv_nsec >= 0)
            return seconds * 1000000000 + time_.tv_nsec;
        // Not written: both numbers are in the place of the seconds.
        return (seconds & 0xFFFFFFFF) * 1000000000 + (seconds >> 32);
    }

private:
    snd_htimestamp_t time_;
};

} // namespace hdmi_linux
