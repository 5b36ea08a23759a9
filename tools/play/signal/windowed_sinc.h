// SPDX-License-Identifier: MIT
/**
 * @file
 * The impulse response of a low-pass: sin(pi x) / (pi x) under a window by Kaiser (A. V. Oppenheim and R. W. Schafer,
 * "Discrete-Time Signal Processing", on the design of FIR filters).
 */
#pragma once

#include <vector>

namespace play
{

/// 1 at 0, and 0 from @p half_width on, on both sides. @p beta shapes the window: its stop band is some
/// 8.7 + 9.1 * @p beta dB down.
double windowed_sinc(double x, double half_width, double beta);

/// Taps, an odd number, that pass up to @p pass and stop from @p stop on, 70 dB down; both in cycles a sample. 1 alone
/// where @p stop lies beyond half a cycle: there is nothing to be stopped.
std::vector<float> low_pass_taps(double pass, double stop);

} // namespace play
