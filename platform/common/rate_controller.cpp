// SPDX-License-Identifier: MIT
#include "rate_controller.h"

#include <algorithm>
#include <cmath>

namespace clocks
{
namespace
{

/// What a device does to its count just after a start or a disturbance is no time in flight.
constexpr int64_t kSettleNs = 2 * kNsPerSecond;
/// In this time the ratio takes back an error, if its slew allows.
constexpr double kCorrectionSeconds = 20;
/// The share of the slew limit that a correction may use to come to an end: the rest is for the clocks.
constexpr double kBrakingShare = 0.25;
/// While the first estimates of the clocks become better.
constexpr int64_t kLockInNs = 10 * kNsPerSecond;
constexpr double kLockInSlewPerSecond = 2000e-6;
/// The ratio does not make up for a pause between two updates.
constexpr double kMaxStepSeconds = 0.1;
/// Many times the error of the time in flight, and much less than a queue holds.
constexpr double kSlipBandSeconds = 0.001;

/// How much faster than the clocks demand the sound is used up. The root is the fastest way back from a large error
/// that can still be braked in time.
double correction(double excess)
{
    const double size = std::fabs(excess);
    const double braked = std::sqrt(2 * kBrakingShare * RateController::kSlewPerSecond * size);
    return std::copysign(std::min(size / kCorrectionSeconds, braked), excess);
}

} // namespace

// --- Time in flight ---------------------------------------------------------------

void TimeInFlight::capture_started(double rate)
{
    capture_.start(rate);
    capturing_ = true;
    restart();
}

void TimeInFlight::capture_ended()
{
    capturing_ = false;
    restart();
}

void TimeInFlight::captured(int64_t now_ns, int64_t frames)
{
    if (capturing_ && !capture_.update(now_ns, frames))
        disturbed();
}

void TimeInFlight::playback_started(double rate)
{
    playback_.start(rate);
    playing_ = true;
    restart();
}

void TimeInFlight::played(int64_t now_ns, int64_t frames)
{
    if (playing_ && !playback_.update(now_ns, frames))
        disturbed();
}

void TimeInFlight::disturbed()
{
    capture_.rebase();
    playback_.rebase();
    restart();
}

std::optional<double> TimeInFlight::speed_ratio() const
{
    if (!capturing_ || !playing_ || !capture_.settled() || !playback_.settled())
        return {};
    return capture_.speed() / playback_.speed();
}

std::optional<double> TimeInFlight::excess(int64_t now_ns, const Flow& flow)
{
    if (!speed_ratio())
        return {};
    if (settle_ns_ == 0)
        settle_ns_ = now_ns + kSettleNs;
    if (now_ns < settle_ns_)
        return {};
    const double heard = flow.in_end - (flow.out_end - playback_.frames_at(now_ns)) * flow.step;
    const double in_flight = capture_.frames_at(now_ns) / capture_.nominal_rate() - heard / playback_.nominal_rate();
    if (!set_point_)
        set_point_ = in_flight;
    return in_flight - *set_point_;
}

// --- Ratio ------------------------------------------------------------------------

double RateController::slew(int64_t now_ns) const
{
    return now_ns < locked_ns_ ? kLockInSlewPerSecond : kSlewPerSecond;
}

double RateController::update(int64_t now_ns, std::optional<double> excess, std::optional<double> speed_ratio)
{
    const double seconds = std::clamp(static_cast<double>(now_ns - last_ns_) / kNsPerSecond, 0.0, kMaxStepSeconds);
    last_ns_ = now_ns;
    if (!speed_ratio)
        return step();
    if (locked_ns_ == 0)
        locked_ns_ = now_ns + kLockInNs;
    const double wanted = *speed_ratio * (1 + correction(excess.value_or(0))) - 1;
    const double change = std::clamp(wanted - deviation_, -slew(now_ns) * seconds, slew(now_ns) * seconds);
    deviation_ = std::clamp(deviation_ + change, -kMaxDeviation, kMaxDeviation);
    return step();
}

// --- Slips ------------------------------------------------------------------------

int SlipController::due(std::optional<double> excess) const
{
    const double seconds = excess.value_or(0);
    return seconds > kSlipBandSeconds ? frames_ : seconds < -kSlipBandSeconds ? -frames_ : 0;
}

} // namespace clocks
