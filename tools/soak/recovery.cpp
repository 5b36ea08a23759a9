// SPDX-License-Identifier: MIT
#include "recovery.h"

namespace soak
{
namespace
{

/// A second of marks, of which one may be missing.
constexpr int kMarksInSync = 5;
constexpr int64_t kLongestGapNs = 500'000'000;
/// Half a second at the lowest rate.
constexpr int kPicturesInOrder = 12;
constexpr int64_t kLongestFreezeNs = 150'000'000;

} // namespace

void Recovery::met(const Meeting& meeting)
{
    if (meeting.met_ns() >= from_ns_ && !back_ns_)
        count(meeting.met_ns(), meeting.in_sync(), kLongestGapNs, kMarksInSync);
}

void Recovery::seen(const Sight& sight)
{
    if (sight.seen_ns >= from_ns_ && !back_ns_)
        count(sight.seen_ns, true, kLongestFreezeNs, kPicturesInOrder);
}

std::optional<double> Recovery::seconds() const
{
    if (!back_ns_)
        return std::nullopt;
    return static_cast<double>(*back_ns_ - from_ns_) / 1e9;
}

void Recovery::count(int64_t at_ns, bool good, int64_t longest_gap_ns, int wanted)
{
    if (!good || at_ns - last_ns_ > longest_gap_ns)
        run_ = 0;
    last_ns_ = at_ns;
    if (!good)
        return;
    if (run_++ == 0)
        began_ns_ = at_ns;
    if (run_ >= wanted)
        back_ns_ = began_ns_;
}

} // namespace soak
