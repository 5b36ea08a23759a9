// SPDX-License-Identifier: MIT
#include "clock_estimator.h"

#include <algorithm>
#include <cmath>

namespace clocks
{
namespace
{

/// Of the loop in the long run, in Hz. Stamps with 0.3 ms of jitter (RMS), 50 a second, leave a rate good to 0.6 ppm
/// (RMS); a crystal that warms up by 0.1 ppm a second is followed within 25 us.
constexpr double kBandwidth = 0.01;
constexpr double kPi = 3.14159265358979323846;
constexpr double kSqrt2 = 1.41421356237309504880;
/// After a long pause between two pairs: the loop's gains stay below 1.
constexpr double kMaxOmega = 0.3;
constexpr double kJumpSeconds = 0.05;
constexpr int64_t kMinIntervalNs = 1'000'000;

/// The shares of a difference by which position and rate are corrected.
struct Gains {
    double position;
    double rate;
};

Gains loop_gains(double seconds)
{
    const double omega = std::min(2 * kPi * kBandwidth * seconds, kMaxOmega);
    return {kSqrt2 * omega, omega * omega};
}

// Those that make the estimate the straight line of least squares through @p pairs pairs.
Gains line_gains(int64_t pairs)
{
    const auto n = static_cast<double>(pairs);
    return {2 * (2 * n - 1) / (n * (n + 1)), 6 / (n * (n + 1))};
}

} // namespace

void ClockEstimator::start(double nominal_rate)
{
    nominal_ = rate_ = nominal_rate;
    pairs_ = averaged_ = 0;
}

double ClockEstimator::frames_at(int64_t now_ns) const
{
    return position_ + rate_ * static_cast<double>(now_ns - last_ns_) / kNsPerSecond;
}

bool ClockEstimator::update(int64_t now_ns, int64_t frames)
{
    const int64_t interval_ns = now_ns - last_ns_;
    if (pairs_ > 0 && interval_ns < kMinIntervalNs)
        return true;
    const double predicted = frames_at(now_ns);
    const double difference = static_cast<double>(frames) - predicted;
    last_ns_ = now_ns;
    if (pairs_++ == 0)
        first_ns_ = now_ns;
    const bool jumped = averaged_ > 0 && std::fabs(difference) > kJumpSeconds * nominal_;
    if (averaged_ == 0 || jumped) {
        position_ = static_cast<double>(frames);
        averaged_ = 1;
        return !jumped;
    }
    const double seconds = static_cast<double>(interval_ns) / kNsPerSecond;
    const Gains line = line_gains(pairs_);
    const Gains loop = loop_gains(seconds);
    const Gains& gains = line.position > loop.position ? line : loop;
    // After a rebase the position is the mean of the pairs since then, until the loop's memory is the longer one.
    position_ = predicted + std::max(gains.position, 1.0 / static_cast<double>(++averaged_)) * difference;
    rate_ += gains.rate * difference / seconds;
    return true;
}

} // namespace clocks
