// SPDX-License-Identifier: MIT
#include "signal/pitch.h"

#include <cmath>
#include <complex>

namespace play
{
namespace
{

/// Share of the energy that the tone must have. One that begins or ends within has the share of its duration.
constexpr double kClearShare = 0.8;

/// The energy of a tone of @p frequency.
double energy_at(double frequency, const std::vector<int16_t>& stereo, int sample_rate)
{
    const std::complex<double> step = std::polar(1.0, -2 * M_PI * frequency / sample_rate);
    std::complex<double> turn = 1;
    std::complex<double> sum = 0;
    for (size_t i = 0; i < stereo.size(); i += 2, turn *= step)
        sum += turn * static_cast<double>(stereo[i]);
    return 2 * std::norm(sum) / (static_cast<double>(stereo.size()) / 2);
}

} // namespace

int find_pitch(const std::vector<int16_t>& stereo, int sample_rate, const std::vector<double>& frequencies)
{
    double all = 0;
    for (size_t i = 0; i < stereo.size(); i += 2)
        all += static_cast<double>(stereo[i]) * stereo[i];
    for (size_t i = 0; i < frequencies.size(); i++) {
        if (all > 0 && energy_at(frequencies[i], stereo, sample_rate) > kClearShare * all)
            return static_cast<int>(i);
    }
    return -1;
}

} // namespace play
