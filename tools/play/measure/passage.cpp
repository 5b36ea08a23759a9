// SPDX-License-Identifier: MIT
#include "measure/passage.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "signal/onset.h"
#include "signal/rate_conversion.h"

namespace play
{
namespace
{

constexpr int64_t kSecondNs = 1'000'000'000;
constexpr int kChunkFrames = 4096;
/// A beep is found again within this time; the next one must not come sooner.
constexpr int64_t kLongestLatencyNs = kSecondNs;
/// Below that, 30 dB under full scale, nothing counts as a beep.
constexpr int kFaint = 1000;
/// Sound with fewer is no programme of beeps.
constexpr size_t kFewestBeeps = 2;
constexpr int64_t kNeedleMs = 500;
/// A flash and a beep this far apart do not belong together.
constexpr int64_t kTogetherNs = 400'000'000;

/// Calls @p look with each chunk of the recording.
template <typename Look> void read_all(const Recording& recording, Look look)
{
    std::vector<int16_t> stereo(2 * kChunkFrames);
    for (int64_t first = 0; first < recording.frames(); first += kChunkFrames) {
        const int64_t frames = std::min<int64_t>(kChunkFrames, recording.frames() - first);
        recording.read(first, stereo.data(), frames);
        look(stereo.data(), static_cast<int>(frames));
    }
}

/// When beeps begin, by the loudest of the recording: volumes differ.
std::vector<int64_t> beeps_of(const Recording& recording)
{
    int peak = 0;
    read_all(recording, [&peak](const int16_t* stereo, int frames) {
        for (int i = 0; i < frames; i++)
            peak = std::max(peak, std::abs(static_cast<int>(stereo[2 * i])));
    });
    if (peak < kFaint)
        return {};
    OnsetDetector detector(recording.sample_rate(), static_cast<int16_t>(std::min(peak, 32767)));
    read_all(recording, [&detector](const int16_t* stereo, int frames) { detector.feed(stereo, frames); });
    std::vector<int64_t> times;
    for (int64_t onset : detector.onsets())
        times.push_back(recording.heard_ns(onset));
    return times;
}

/// Speech and music have onsets too, but not so far apart all the time.
bool are_beeps(const std::vector<int64_t>& onsets_ns)
{
    constexpr int64_t kLeastApartNs = kSecondNs / 2;
    for (size_t i = 1; i < onsets_ns.size(); i++)
        if (onsets_ns[i] - onsets_ns[i - 1] < kLeastApartNs)
            return false;
    return onsets_ns.size() >= kFewestBeeps;
}

std::vector<Passage> match_onsets(const std::vector<int64_t>& captured_ns, const std::vector<int64_t>& heard_ns)
{
    std::vector<Passage> passages;
    for (int64_t at_ns : captured_ns) {
        const auto heard = std::lower_bound(heard_ns.begin(), heard_ns.end(), at_ns);
        const bool found = heard != heard_ns.end() && *heard - at_ns < kLongestLatencyNs;
        passages.push_back({at_ns, found ? *heard : -1});
    }
    return passages;
}

std::vector<Passage> match_seconds(const Recording& captured, const Recording& heard)
{
    std::vector<Passage> passages;
    const int rate = captured.sample_rate();
    std::vector<int16_t> stereo(2 * static_cast<size_t>(rate * kNeedleMs / 1000));
    const auto frames = static_cast<int64_t>(stereo.size() / 2);
    for (int64_t second : waveform_instants(captured.frames() * kSecondNs / std::max(rate, 1))) {
        const int64_t first = second / kSecondNs * rate;
        captured.read(first, stereo.data(), frames);
        const int64_t at_ns = captured.heard_ns(first);
        const int64_t begin = heard.position_at(at_ns);
        if (begin < 0)
            continue;
        const auto place = find_waveform(heard, convert_rate(stereo, rate, heard.sample_rate()), begin);
        passages.push_back({at_ns, place ? heard.heard_ns(*place) : -1});
    }
    return passages;
}

double ms_between(int64_t from_ns, int64_t to_ns) { return static_cast<double>(to_ns - from_ns) / 1e6; }

const Sighting* find_number(const std::vector<Sighting>& sightings, int64_t number)
{
    const auto seen = std::find_if(sightings.begin(), sightings.end(),
                                   [number](const Sighting& sighting) { return sighting.number == number; });
    return seen != sightings.end() ? &*seen : nullptr;
}

/// The beep next to @p at_ns; null: none is near.
const Passage* find_beep(const std::vector<Passage>& beeps, int64_t at_ns)
{
    const Passage* nearest = nullptr;
    for (const Passage& beep : beeps)
        if (std::abs(beep.captured_ns - at_ns) <
            (nearest != nullptr ? std::abs(nearest->captured_ns - at_ns) : kTogetherNs))
            nearest = &beep;
    return nearest;
}

} // namespace

Passages find_passages(const Recording& captured, const Recording& heard)
{
    if (captured.frames() == 0 || heard.frames() == 0)
        return {};
    const std::vector<int64_t> onsets = beeps_of(captured);
    if (are_beeps(onsets))
        return {true, match_onsets(onsets, beeps_of(heard))};
    return {false, match_seconds(captured, heard)};
}

std::vector<Offset> measure_passages(const std::vector<Passage>& passages, const std::vector<Sighting>& sightings,
                                     const Source& pictures, SourceClock clock)
{
    std::vector<Offset> offsets;
    for (const Passage& passage : passages) {
        const int64_t source_ns = clock.to_source(passage.captured_ns);
        const Sighting* seen = find_picture(sightings, pictures, source_ns);
        if (seen != nullptr && passage.found())
            offsets.push_back({source_ns, ms_between(passage.captured_ns, passage.heard_ns),
                               ms_between(clock.to_monotonic(pictures.frame_ns(seen->number)), seen->seen_ns)});
    }
    return offsets;
}

Chain measure_chain(const Passages& passages, const std::vector<Flash>& flashes, const std::vector<Sighting>& sightings,
                    SourceClock clock)
{
    Chain chain;
    for (const Flash& flash : flashes) {
        const int64_t captured_ns = clock.to_monotonic(flash.source_ns);
        const Passage* beep = passages.beeps ? find_beep(passages.all, captured_ns) : nullptr;
        const Sighting* seen = find_number(sightings, flash.number);
        if (beep == nullptr || seen == nullptr || !beep->found())
            continue;
        chain.count++;
        chain.captured_ms += ms_between(beep->captured_ns, captured_ns);
        chain.shown_ms += ms_between(beep->heard_ns, seen->seen_ns);
    }
    chain.captured_ms /= static_cast<double>(std::max<int64_t>(chain.count, 1));
    chain.shown_ms /= static_cast<double>(std::max<int64_t>(chain.count, 1));
    return chain;
}

} // namespace play
