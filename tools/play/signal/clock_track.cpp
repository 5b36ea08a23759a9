// SPDX-License-Identifier: MIT
#include "signal/clock_track.h"

#include <algorithm>

namespace play
{
namespace
{

constexpr int64_t kGatherNs = 500'000'000;
/// A device in software guesses its delay at first: readings from this time count only until there are later ones.
constexpr int64_t kSettlingNs = 250'000'000;
/// From the readings of half a second the one with this index counts, in order of lateness: a single one may be wrong.
constexpr size_t kEarlyShare = 8;
/// Drift is computed from this length on: before, the error of the anchors is larger.
constexpr double kDriftKnownNs = 4e9;
/// No device drifts by more than half a per mille: a larger difference is a jump of its delay.
constexpr double kMostDrift = 500e-6;

/// Room for the anchors of an hour.
constexpr size_t kAnchorsAhead = 3600 * 2;
/// Room for the readings of half a second: a device's periods are longer than a millisecond.
constexpr size_t kWordsAhead = 512;

} // namespace

ClockTrack::ClockTrack(int rate) : rate_(rate)
{
    anchors_.reserve(kAnchorsAhead);
    recent_.reserve(kWordsAhead);
    sorted_.reserve(kWordsAhead);
}

void ClockTrack::add(int64_t position, int64_t at_ns)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (recent_.empty())
        recent_since_ns_ = at_ns;
    if (!settled_ && at_ns - recent_since_ns_ >= kSettlingNs) {
        settled_ = true;
        recent_.clear();
        recent_since_ns_ = at_ns;
    }
    auto place = static_cast<double>(position);
    recent_.push_back({place, static_cast<double>(at_ns) - nominal_ns(place)});
    if (at_ns - recent_since_ns_ < kGatherNs)
        return;
    anchors_.push_back(gathered());
    recent_.clear();
}

ClockTrack::Anchor ClockTrack::gathered() const
{
    sorted_ = recent_;
    auto chosen = sorted_.begin() + static_cast<std::ptrdiff_t>(sorted_.size() / kEarlyShare);
    std::nth_element(sorted_.begin(), chosen, sorted_.end(),
                     [](const Anchor& a, const Anchor& b) { return a.late_ns < b.late_ns; });
    return {(recent_.front().position + recent_.back().position) / 2, chosen->late_ns};
}

double ClockTrack::slope() const
{
    if (anchors_.size() < 2)
        return 0;
    double length = anchors_.back().position - anchors_.front().position;
    if (nominal_ns(length) < kDriftKnownNs)
        return 0;
    double slope = (anchors_.back().late_ns - anchors_.front().late_ns) / length;
    double most = kMostDrift * 1e9 / rate_;
    return std::clamp(slope, -most, most);
}

double ClockTrack::late_ns(double position) const
{
    if (anchors_.empty())
        return recent_.empty() ? 0 : gathered().late_ns;
    auto after = std::upper_bound(anchors_.begin(), anchors_.end(), position,
                                  [](double p, const Anchor& anchor) { return p < anchor.position; });
    if (after == anchors_.begin())
        return after->late_ns + slope() * (position - after->position);
    const Anchor& before = *(after - 1);
    if (after == anchors_.end())
        return before.late_ns + slope() * (position - before.position);
    double share = (position - before.position) / (after->position - before.position);
    return before.late_ns + share * (after->late_ns - before.late_ns);
}

int64_t ClockTrack::time_of(double position) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int64_t>(nominal_ns(position) + late_ns(position));
}

double ClockTrack::position_at(int64_t at_ns) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    double late = anchors_.empty() ? late_ns(0) : anchors_.back().late_ns;
    double position = 0;
    // How late a frame is changes by parts per million with its position: the second round is exact to the nanosecond.
    for (int round = 0; round < 3; round++) {
        position = (static_cast<double>(at_ns) - late) * rate_ / 1e9;
        late = late_ns(position);
    }
    return position;
}

double ClockTrack::drift_ppm() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    // A device that is faster is ever less late.
    return -slope() * rate_ / 1e9 * 1e6;
}

bool ClockTrack::empty() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return anchors_.empty() && recent_.empty();
}

} // namespace play
