// SPDX-License-Identifier: MIT
#include "correlate.h"

#include <algorithm>
#include <cmath>
#include <complex>

namespace play
{
namespace
{

using Spectrum = std::vector<std::complex<float>>;

/// Below this mean square (of samples in 16-bit units) a stretch counts as silent: -75 dB of full scale.
constexpr double silent_mean_square = 6 * 6;
/// Bins weaker than this part of the strongest carry rounding noise rather than signal.
constexpr float weakest_bin = 1e-5f;
/// A second place that fits almost as well makes the first one a guess.
constexpr float ambiguous_ratio = 0.7f;
/// Neighbours within this distance belong to the same peak.
constexpr size_t peak_width = 48;

/// In-place radix-2 transform; the size is a power of two.
void transform(Spectrum* data, bool inverse)
{
    size_t n = data->size();
    for (size_t i = 1, j = 0; i < n; i++) {
        size_t bit = n >> 1;
        for (; (j & bit) != 0; bit >>= 1)
            j ^= bit;
        j ^= bit;
        if (i < j)
            std::swap((*data)[i], (*data)[j]);
    }
    for (size_t length = 2; length <= n; length <<= 1) {
        double angle = (inverse ? 2 : -2) * M_PI / static_cast<double>(length);
        std::vector<std::complex<float>> turn(length / 2);
        for (size_t k = 0; k < turn.size(); k++)
            turn[k] = std::polar(1.0f, static_cast<float>(angle * static_cast<double>(k)));
        for (size_t start = 0; start < n; start += length) {
            for (size_t k = 0; k < length / 2; k++) {
                std::complex<float>& low = (*data)[start + k];
                std::complex<float>& high = (*data)[start + k + length / 2];
                std::complex<float> turned = high * turn[k];
                high = low - turned;
                low += turned;
            }
        }
    }
}

Spectrum spectrum_of(const std::vector<float>& samples, size_t size)
{
    Spectrum spectrum(size);
    std::copy(samples.begin(), samples.end(), spectrum.begin());
    transform(&spectrum, false);
    return spectrum;
}

bool is_silent(const std::vector<float>& samples)
{
    double sum = 0;
    for (float sample : samples)
        sum += static_cast<double>(sample) * sample;
    return sum < silent_mean_square * static_cast<double>(samples.size());
}

} // namespace

std::optional<int64_t> find_in(const std::vector<float>& haystack, const std::vector<float>& needle)
{
    if (needle.empty() || needle.size() > haystack.size() || is_silent(needle) || is_silent(haystack))
        return std::nullopt;
    size_t size = 1;
    while (size < haystack.size() + needle.size())
        size <<= 1;
    Spectrum hay = spectrum_of(haystack, size);
    Spectrum pin = spectrum_of(needle, size);
    float strongest = 0;
    for (const std::complex<float>& bin : pin)
        strongest = std::max(strongest, std::abs(bin));
    for (size_t i = 0; i < size; i++) {
        float weight = std::abs(pin[i]) * std::abs(hay[i]);
        bool counts = std::abs(pin[i]) > strongest * weakest_bin && weight > 0;
        hay[i] = counts ? hay[i] * std::conj(pin[i]) / weight : 0;
    }
    transform(&hay, true);

    size_t places = haystack.size() - needle.size() + 1;
    auto by_height = [](const std::complex<float>& a, const std::complex<float>& b) { return a.real() < b.real(); };
    auto peak = static_cast<size_t>(std::max_element(hay.begin(), hay.begin() + places, by_height) - hay.begin());
    float second = 0;
    for (size_t i = 0; i < places; i++)
        if (i + peak_width < peak || i > peak + peak_width)
            second = std::max(second, hay[i].real());
    if (hay[peak].real() <= 0 || second > hay[peak].real() * ambiguous_ratio)
        return std::nullopt;
    return static_cast<int64_t>(peak);
}

} // namespace play
