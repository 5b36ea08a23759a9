// SPDX-License-Identifier: MIT
// What the Linux platform reads out of a captured link: where stuffing is, and what the source sends.
//
// Input: the frames of a chunk less one, and how long it took in milliseconds; then the link's words.
#include "burst_follower.h"
#include "iec958.h"
#include "input.h"
#include "receiver/signal_watch.h"

using namespace hdmi_linux;

namespace
{

constexpr int kFrameBytes = 4;

// The same stuffing is found in the same words however they come.
void find_stuffing(BurstFollower* follower, const std::vector<int16_t>& words, int run)
{
    const int frames = static_cast<int>(words.size()) / 2;
    const int found = follower->find_stuffing(words.data(), frames, run);
    require(found == -1 || (found >= 0 && found <= frames - run));
    for (int at = found; found >= 0 && at < found + run; ++at)
        require(words[2 * static_cast<size_t>(at)] == 0 && words[2 * static_cast<size_t>(at) + 1] == 0);
}

void name_status(const std::string& name)
{
    const std::string with = with_channel_status(name, channel_status(48000, true));
    require(with == name || (has_channel_status(with) && with_channel_status(with, {}) == with));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    const size_t chunk_frames = input.byte() + 1u;
    const int64_t chunk_ns = input.byte() * INT64_C(1000000);
    name_status(std::string(reinterpret_cast<const char*>(data), std::min<size_t>(size, 32)));
    BurstFollower follower;
    SharedWatch watch;
    RateWatch rates;
    LinkState announced;
    watch.opened();
    int64_t now_ns = 1;
    while (input.left() >= kFrameBytes) {
        const std::vector<uint8_t> part = input.take(std::min(chunk_frames, input.left() / kFrameBytes) * kFrameBytes);
        std::vector<int16_t> words(part.size() / 2);
        std::copy(part.begin(), part.end(), reinterpret_cast<uint8_t*>(words.data()));
        find_stuffing(&follower, words, 4);
        watch.feed(part.data(), static_cast<int>(part.size()), now_ns += chunk_ns);
        const LinkEvidence evidence = watch.evidence();
        require(evidence.frames_per_sample == 1 || evidence.frames_per_sample == 4);
        require(evidence.link_rate >= 0);
        rates.look(announced, evidence);
        const LinkState state = derive_state(announced, evidence);
        if (state != announced)
            watch.measure_anew();
        announced = state;
        require(state.sample_rate == 0 || (state.sample_rate >= 32000 && state.sample_rate <= 48000));
    }
    return 0;
}
