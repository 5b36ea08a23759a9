// SPDX-License-Identifier: MIT
// The library's pure decisions on random input, as one digest of all results each: `scripts/test-armhf` compares those
// of two machines. The clock's single precision and all 64-bit times are among them.
#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "internal/audio_clock.h"
#include "internal/audio_input.h"
#include "internal/burst_parser.h"
#include "internal/pacing.h"
#include "internal/synchronizer.h"

namespace
{

int64_t g_now_us = 0; ///< the wall clock

} // namespace

extern "C" int gettimeofday(struct timeval* __restrict now, void* __restrict) noexcept
{
    now->tv_sec = static_cast<time_t>(g_now_us / 1000000);
    now->tv_usec = static_cast<suseconds_t>(g_now_us % 1000000);
    return 0;
}

namespace
{

constexpr int kPacingDecisions = 300000;
constexpr int kClockReadings = 300000;
constexpr int kChunks = 20000;

/// FNV-1a of what was added.
class Digest
{
public:
    template <typename... Values> void add(Values... values) { (add_one(static_cast<uint64_t>(values)), ...); }
    void print(const char* what, int count) const
    {
        printf("%s %d %016llx\n", what, count, static_cast<unsigned long long>(hash_));
    }

private:
    void add_one(uint64_t value)
    {
        for (int byte = 0; byte < 8; ++byte, value >>= 8)
            hash_ = (hash_ ^ (value & 0xFF)) * 0x100000001b3;
    }

    uint64_t hash_ = 0xcbf29ce484222325;
};

/// Mostly times like those of a running player, sometimes anything.
class Times
{
public:
    int64_t near(int64_t base, int64_t spread)
    {
        const auto random = static_cast<int64_t>(engine_());
        return engine_() % 50 == 0 ? random : base + random % spread;
    }
    uint64_t raw() { return engine_(); }

private:
    std::mt19937_64 engine_{1};
};

void pace()
{
    Times times;
    Digest digest;
    const float rates[] = {24, 25, 29.97F, 30, 50, 59.94F, 60, 75, 119.88F, 120, 144, 0, -1, 1e9F};
    for (int i = 0; i < kPacingDecisions; ++i) {
        const pacing::vsync_grid grid = {times.near(1700000000000000, 100000),
                                         pacing::refresh_duration(rates[times.raw() % std::size(rates)])};
        const int64_t now = times.near(1700000000000000, 100000);
        const int64_t pts = times.near(5000000, 400000);
        // One by one: the order in which arguments are evaluated is each compiler's own.
        const int64_t shown_pts = times.near(5000000, 400000);
        const int64_t taken = pacing::subtract(now, times.near(16667, 10000));
        const int64_t audio = times.near(5000000, 400000);
        const pacing::frame_offset offset = pacing::offset_of(pts, {shown_pts, taken}, now, audio);
        const int64_t target = pacing::flip_target(times.near(now, 100000), grid);
        const bool at_vsync = pacing::due_at_vsync(target, grid);
        const int64_t due = add_saturated(now, times.near(0, 20000));
        const pacing::decision decision = pacing::decide(now, due, at_vsync, grid.duration);
        digest.add(offset.video_clock, offset.diff, offset.delay, pacing::classify(offset.diff).level, target, at_vsync,
                   decision.what, decision.wait_us, pacing::advance(due, offset.delay, now),
                   pacing::decide_taken(now, due, offset.delay), pacing::free_run_wait(now, due, offset.delay),
                   closest_vsync(target, grid.sampled_time, grid.duration),
                   frame_render_by_vsync(target, grid.sampled_time, grid.duration));
    }
    digest.print("pacing", kPacingDecisions);
}

void read_clocks()
{
    Times times;
    Digest digest;
    void* const clock = synchronizer_init(E_SYNCHRONIZER_PLAYER_ORUPLAYER);
    const float rates[] = {1, 1.5F, 0.999F, -1, 1e-6F};
    for (int i = 0; i < kClockReadings; ++i) {
        // In 2023 and in 2039, when the seconds need more than 31 bits.
        g_now_us = (i % 2 == 0 ? 1700000000000000 : 2200000000000000) + static_cast<int64_t>(times.raw() % 1000000);
        synchronizer_set_playback_rate(clock, rates[times.raw() % std::size(rates)]);
        const int64_t media = times.near(5000000, 400000);
        synchronizer_set_base_media_time(clock, media, add_saturated(media, times.near(20000, 20000)));
        g_now_us += static_cast<int64_t>(times.raw() % 100000);
        int64_t now = 0, release = 0;
        synchronizer_get_current_media_time(clock, &now);
        synchronizer_get_release_time(clock, times.near(media, 100000), &release);
        const auto frames = static_cast<int32_t>(times.raw() % 2048);
        const auto queued = static_cast<int32_t>(times.raw() % 8192);
        const clock_values written = clock_after_write(media, frames, queued, 44100);
        const int32_t serial = audio_input_next_serial(static_cast<int32_t>(times.raw() % INT32_MAX));
        digest.add(now, release, written.time_us, written.max_time_us, serial);
    }
    synchronizer_deinit(clock);
    digest.print("clocks", kClockReadings);
}

// Bursts of all types among noise, some of them flagged or too long, in chunks that are cut anywhere.
void parse()
{
    Times times;
    Digest digest;
    burst_state state;
    std::vector<uint8_t> stream;
    for (int i = 0; i < kChunks; ++i) {
        while (stream.size() < 4096) {
            const burst_type& type = kBurstTypes[times.raw() % std::size(kBurstTypes)];
            const auto pc =
                static_cast<uint16_t>(times.raw() % 8 == 0 ? times.raw() : static_cast<uint64_t>(type.format));
            const auto pd = static_cast<uint16_t>(times.raw());
            const uint8_t preamble[] = {0x72,
                                        0xF8,
                                        0x1F,
                                        0x4E,
                                        static_cast<uint8_t>(pc),
                                        static_cast<uint8_t>(pc >> 8),
                                        static_cast<uint8_t>(pd),
                                        static_cast<uint8_t>(pd >> 8)};
            stream.insert(stream.end(), preamble, preamble + sizeof(preamble));
            for (uint64_t filler = times.raw() % type.burst_bytes; filler > 0; --filler)
                stream.push_back(static_cast<uint8_t>(times.raw()));
        }
        const auto bytes = static_cast<uint32_t>(times.raw() % 4096 + 1);
        byte_span chunk = {stream.data(), bytes};
        const byte_span owed = burst_take_owed(&state, &chunk);
        digest.add(owed.bytes, owed.bytes > 0 ? owed.data[owed.bytes - 1] : 0);
        while (chunk.bytes > 0) {
            const burst_step step = burst_take_next(&state, &chunk);
            digest.add(step.kind, step.held, step.need, step.preamble.pc, step.preamble.pd,
                       step.preamble.payload_bytes(), step.payload.bytes,
                       step.payload.bytes > 0 ? step.payload.data[0] : 0);
        }
        digest.add(state.iec61937_payload_insufficient_bytes, state.iec61937_burst_insufficient_bytes,
                   state.iec61937_header_size);
        stream.erase(stream.begin(), stream.begin() + bytes);
    }
    digest.print("parser", kChunks);
}

} // namespace

int main()
{
    pace();
    read_clocks();
    parse();
}
