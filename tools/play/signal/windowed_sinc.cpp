// SPDX-License-Identifier: MIT
#include "signal/windowed_sinc.h"

#include <cmath>

namespace play
{
namespace
{

/// The modified Bessel function of the first kind, of order 0.
double bessel_i0(double x)
{
    double sum = 1;
    double term = 1;
    for (int k = 1; k < 60; k++) {
        term *= x / (2 * k) * x / (2 * k);
        sum += term;
    }
    return sum;
}

} // namespace

double windowed_sinc(double x, double half_width, double beta)
{
    double edge = x / half_width;
    if (std::abs(edge) >= 1)
        return 0;
    double sinc = x == 0 ? 1 : std::sin(M_PI * x) / (M_PI * x);
    return sinc * bessel_i0(beta * std::sqrt(1 - edge * edge)) / bessel_i0(beta);
}

std::vector<float> low_pass_taps(double pass, double stop)
{
    if (stop >= 0.5)
        return {1};
    constexpr double kStopDb = 70;
    const double beta = 0.1102 * (kStopDb - 8.7);
    const auto half = static_cast<int>(std::ceil((kStopDb - 8) / (2.285 * 2 * M_PI * (stop - pass)) / 2));
    const double cutoff = pass + stop; // of both edges' middle, in half cycles a sample
    std::vector<float> taps;
    for (int n = -half; n <= half; n++)
        taps.push_back(static_cast<float>(cutoff * windowed_sinc(cutoff * n, cutoff * (half + 1), beta)));
    return taps;
}

} // namespace play
