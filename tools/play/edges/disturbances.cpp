// SPDX-License-Identifier: MIT
#include "edges/disturbances.h"

#include <algorithm>

namespace play
{
namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecondNs = 1000 * kMs;
/// A disturbance may be noticed after the silence that it causes, or before the queued sound has run out.
constexpr int64_t kReachNs = 500 * kMs;
/// A silence is measured from its beginning, but not further back than this.
constexpr int64_t kLongestSilenceNs = 10 * kSecondNs;
/// Shorter silences are the programme's own.
constexpr int64_t kShortestSilenceNs = 5 * kMs;
constexpr int kChunkFrames = 48;

bool is_silent(const std::vector<int16_t>& stereo)
{
    return std::all_of(stereo.begin(), stereo.end(), [](int16_t sample) { return sample == 0; });
}

/// Joins pieces of silence, and keeps the longest silence that ends after a given time.
class SilenceFinder
{
public:
    explicit SilenceFinder(int64_t ends_after_ns) : ends_after_ns_(ends_after_ns) {}

    void take(int64_t at_ns, bool sounds)
    {
        end_ns_ = at_ns;
        if (!sounds) {
            since_ns_ = since_ns_ < 0 ? at_ns : since_ns_;
            return;
        }
        if (at_ns >= ends_after_ns_ && lasts(kShortestSilenceNs) && lasts(longest_.to_ns - longest_.from_ns))
            longest_ = {since_ns_, at_ns};
        since_ns_ = -1;
    }
    bool silent() const { return since_ns_ >= 0; }
    int64_t since_ns() const { return since_ns_; }
    const Silence& longest() const { return longest_; }
    /// After the last piece: a silence that lasts now never ends.
    Silence at_end() const { return lasts(kShortestSilenceNs) ? Silence{since_ns_, -1} : longest_; }

private:
    bool lasts(int64_t ns) const { return silent() && end_ns_ - since_ns_ >= ns; }

    const int64_t ends_after_ns_;
    Silence longest_;
    int64_t since_ns_ = -1; ///< -1: it sounds
    int64_t end_ns_ = 0;
};

} // namespace

void DisturbanceLog::note(Disturbance::Kind kind, int64_t now_ns) { all_.push_back({kind, now_ns, -1}); }

void DisturbanceLog::look(const DeviceCounts& counts, int64_t now_ns)
{
    // The counters are not reset at an opening: only their differences count.
    if (known_) {
        bool passes = counts.works && counts.frames > last_.frames;
        if (counts.losses > last_.losses)
            note(Disturbance::Kind::loss, now_ns);
        else if (counts.suspends > last_.suspends)
            note(Disturbance::Kind::suspend, now_ns);
        else if (counts.xruns > last_.xruns)
            note(Disturbance::Kind::xrun, now_ns);
        else if (passes)
            for (Disturbance& disturbance : all_)
                if (disturbance.back_ns < 0)
                    disturbance.back_ns = now_ns;
    }
    last_ = counts;
    known_ = true;
}

int64_t DisturbanceLog::count(int64_t from_ns, int64_t to_ns) const
{
    return std::count_if(all_.begin(), all_.end(), [from_ns, to_ns](const Disturbance& disturbance) {
        return disturbance.at_ns >= from_ns && disturbance.at_ns < to_ns;
    });
}

Silence silence_around(const Recording& heard, int64_t at_ns)
{
    SilenceFinder finder(at_ns - kReachNs);
    std::vector<int16_t> stereo(2 * kChunkFrames);
    int64_t end_ns = -1;
    for (const HeardBlock& block : heard.blocks()) {
        // Between two blocks of different runs nothing was heard.
        if (end_ns >= 0 && block.heard_ns - end_ns >= kShortestSilenceNs)
            finder.take(end_ns, false);
        end_ns = block.heard_ns + block.frames * kSecondNs / heard.sample_rate();
        bool long_ago = end_ns < at_ns - kLongestSilenceNs;
        if (long_ago)
            finder.take(block.heard_ns, true);
        for (int64_t done = 0; done < block.frames && !long_ago; done += kChunkFrames) {
            int64_t now_ns = block.heard_ns + done * kSecondNs / heard.sample_rate();
            heard.read(block.first_frame + done, stereo.data(), kChunkFrames);
            finder.take(now_ns, !block.silence && !is_silent(stereo));
            if (now_ns > at_ns + kReachNs && (!finder.silent() || finder.since_ns() > at_ns + kReachNs))
                return finder.longest();
        }
    }
    return finder.at_end();
}

} // namespace play
