// SPDX-License-Identifier: MIT
#include "source/reference.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "signal/rate_conversion.h"
#include "signal/windowed_sinc.h"

namespace play
{
namespace
{

constexpr int kTaps = 48;
constexpr int kPhases = 512;
/// Kaiser's: the images of 20 kHz at 48 kHz are 110 dB down.
constexpr double kBeta = 11;
constexpr int kChunkFrames = 4096;
constexpr int64_t kKeptS = 10;

/// The impulse response, @p x samples beside its middle.
double response(double x) { return windowed_sinc(x, kTaps / 2.0, kBeta); }

/// For each phase and one beyond, the weights of the frames from kTaps / 2 - 1 before to kTaps / 2 after.
template <typename Weight> std::vector<float> make_taps(Weight weight)
{
    std::vector<float> taps;
    for (int phase = 0; phase <= kPhases; phase++)
        for (int tap = 0; tap < kTaps; tap++)
            taps.push_back(static_cast<float>(weight(static_cast<double>(phase) / kPhases - (tap - (kTaps / 2 - 1)))));
    return taps;
}

} // namespace

void Reference::FreeConverter::operator()(SwrContext* converter) const { swr_free(&converter); }

Reference::Reference(const Source& source, int64_t first_sample, int rate_out)
    : source_(source), first_(first_sample), rate_in_(source.audio_rate()), rate_out_(rate_out), next_(first_sample),
      converter_(rate_in_ != rate_out ? make_float_converter(rate_in_, rate_out) : nullptr),
      sound_(make_taps(response)), slope_(make_taps([](double x) {
          constexpr double kStep = 1e-4;
          return (response(x + kStep) - response(x - kStep)) / (2 * kStep);
      }))
{
}

Reference::~Reference() = default;

void Reference::append_more()
{
    std::vector<int16_t> samples(2 * kChunkFrames);
    source_.audio(next_, samples.data(), kChunkFrames);
    next_ += kChunkFrames;
    std::vector<float> out(samples.begin(), samples.end());
    if (converter_ != nullptr) {
        auto capacity = static_cast<int>(int64_t{kChunkFrames} * rate_out_ / rate_in_ + 256);
        out.resize(2 * static_cast<size_t>(capacity));
        const auto* from = reinterpret_cast<const uint8_t*>(samples.data());
        auto* to = reinterpret_cast<uint8_t*>(out.data());
        int made = swr_convert(converter_.get(), &to, capacity, &from, kChunkFrames);
        // Without memory for it, silence.
        if (made > 0)
            out.resize(2 * static_cast<size_t>(made));
        // Its full scale is 1.
        for (float& value : out)
            value *= 32768;
    }
    for (size_t i = 0; i < out.size(); i++)
        frames_[i % 2].push_back(out[i]);
}

void Reference::forget(int64_t before)
{
    int64_t surplus = before - base_;
    if (surplus < kKeptS * rate_out_)
        return;
    for (std::vector<float>& channel : frames_)
        channel.erase(channel.begin(), channel.begin() + static_cast<std::ptrdiff_t>(surplus));
    base_ = before;
}

bool Reference::reach(double begin, double end)
{
    auto first = static_cast<int64_t>(begin) - kTaps;
    auto last = static_cast<int64_t>(end) + kTaps;
    if (first < base_)
        return false;
    forget(first - kKeptS * rate_out_);
    while (base_ + static_cast<int64_t>(frames_[0].size()) < last)
        append_more();
    return true;
}

std::array<float, 2> Reference::filtered(double place, const Taps& taps) const
{
    // So many sums that the compiler can keep them side by side.
    constexpr int kLanes = 8;
    static_assert(kTaps % kLanes == 0);
    double whole = std::floor(place);
    double phase = (place - whole) * kPhases;
    auto lower = static_cast<int>(phase);
    auto between = static_cast<float>(phase - lower);
    const float* a = taps.data() + static_cast<ptrdiff_t>(lower) * kTaps;
    const float* b = a + kTaps;
    auto from = static_cast<int64_t>(whole) - (kTaps / 2 - 1) - base_;
    const float* left = frames_[0].data() + from;
    const float* right = frames_[1].data() + from;
    float sum_left[kLanes] = {};
    float sum_right[kLanes] = {};
    for (int tap = 0; tap < kTaps; tap += kLanes)
        for (int lane = 0; lane < kLanes; lane++) {
            float weight = a[tap + lane] + between * (b[tap + lane] - a[tap + lane]);
            sum_left[lane] += weight * left[tap + lane];
            sum_right[lane] += weight * right[tap + lane];
        }
    std::array<float, 2> both{};
    for (int lane = 0; lane < kLanes; lane++) {
        both[0] += sum_left[lane];
        both[1] += sum_right[lane];
    }
    return both;
}

} // namespace play
