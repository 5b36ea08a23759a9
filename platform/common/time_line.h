// SPDX-License-Identifier: MIT
/**
 * @file
 * What a platform's decoder knows of its capture device. The player begins a
 * time line anew with each opening: what was lost before is not missed. While
 * the device delivers nothing there is no signal, of which nothing is missing.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace time_line
{

/// Chunks come every 30 ms at least.
constexpr std::chrono::milliseconds kQuiet{50};
/// A chunk that comes so long after the last one was held up, and the next ones come with it.
constexpr std::chrono::milliseconds kHeldUp{40};
/// To parse and decode these takes a slow processor that long.
constexpr std::chrono::milliseconds kCatchUp{40};
/// Not even a busy machine is so late.
constexpr std::chrono::milliseconds kNoSignal{150};

inline std::atomic<uint32_t> g_openings{0};
/// When the open device delivered last, a steady time; 0: it is closed.
inline std::atomic<int64_t> g_delivered{0};

/// When the device last delivered what was held up.
inline std::atomic<int64_t> g_held_up{0};

inline int64_t steady_now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

/// For aio_device_open(), before the device is opened for capture.
inline void begin()
{
    g_openings++;
    g_delivered = steady_now();
}
/// For aio_device_read(), when it has read something.
inline void delivered()
{
    const int64_t now = steady_now();
    const int64_t last = g_delivered.exchange(now);
    if (last != 0 && std::chrono::steady_clock::duration(now - last) > kHeldUp)
        g_held_up = now;
}
/// For aio_device_close().
inline void end() { g_delivered = 0; }

/// The number of the present time line.
inline uint32_t present() { return g_openings; }
/// Whether the device is open and has delivered nothing for so long.
inline bool is_quiet(std::chrono::milliseconds time)
{
    const int64_t last = g_delivered;
    return last != 0 && std::chrono::steady_clock::duration(steady_now() - last) > time;
}

/// Whether frames that the device held up may still be on their way to the decoder.
inline bool is_catching_up() { return std::chrono::steady_clock::duration(steady_now() - g_held_up) < kCatchUp; }

} // namespace time_line
