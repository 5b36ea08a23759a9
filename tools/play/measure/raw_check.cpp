// SPDX-License-Identifier: MIT
#include "measure/raw_check.h"

#include <algorithm>
#include <vector>

#include "signal/recording.h"
#include "source/source.h"

namespace play
{
namespace
{

using Words = std::vector<int16_t>;

/// IEC 61937-1: Pa and Pb begin a burst, Pc says its type, Pd the length of its payload.
constexpr auto kPreamblePa = static_cast<int16_t>(0xF872);
constexpr auto kPreamblePb = static_cast<int16_t>(0x4E1F);
constexpr int64_t kPreambleFrames = 2;
/// Bursts around the last known one that are looked at first when one does not follow.
constexpr int64_t kNearBursts = 64;
/// A recording that is full of what the source never sent would have all of a film compared with each burst.
constexpr int kMostFullSearches = 8;

bool begins_at(const Words& words, int64_t frame)
{
    auto at = static_cast<size_t>(2 * frame);
    return words[at] == kPreamblePa && words[at + 1] == kPreamblePb;
}

/// The first frame from @p from on that begins a burst; -1: none. Most often it is within a @p period.
int64_t find_burst(const Recording& heard, int64_t from, int64_t period)
{
    int64_t window_frames = 2 * period;
    Words words(static_cast<size_t>(2 * window_frames));
    for (; from < heard.frames(); from += window_frames) {
        int64_t got = heard.read(from, words.data(), window_frames);
        for (int64_t i = 0; i < got; i++)
            if (begins_at(words, i))
                return from + i;
    }
    return -1;
}

/// Frames of a burst up to the end of its payload: Pd counts bits, for E-AC-3 bytes.
int64_t used_frames(const int16_t* burst, Coding coding)
{
    constexpr int kBitsOfFrame = 32;
    int64_t length = static_cast<uint16_t>(burst[3]);
    int64_t bits = coding == Coding::eac3 ? 8 * length : length;
    return std::min(kPreambleFrames + (bits + kBitsOfFrame - 1) / kBitsOfFrame, burst_link_frames(coding));
}

/// Frames of a burst up to its last word that is not zero, of @p used.
int64_t frames_before_zeros(const Words& burst, int64_t used)
{
    while (used > 0 && burst[static_cast<size_t>(2 * used - 2)] == 0 && burst[static_cast<size_t>(2 * used - 1)] == 0)
        used--;
    return used;
}

/**
 * Which of the source's bursts may be the one that came: several, as long as only bursts came that are equal, as those
 * of silence are.
 */
class Place
{
public:
    explicit Place(const Source& source)
        : source_(source), period_(burst_link_frames(source.coding())), bursts_(source.coded_end() / kBurstSamples),
          sent_(static_cast<size_t>(2 * period_))
    {
    }

    bool known() const { return !candidates_.empty(); }

    /// @return whether @p burst, @p used frames long, follows what came before
    bool goes_on(const Words& burst, int64_t used)
    {
        std::vector<int64_t> next;
        for (int64_t before : candidates_) {
            int64_t number = next_sent(before);
            if (is_burst(number, burst, used))
                next.push_back(number);
        }
        if (next.empty())
            return false;
        candidates_ = std::move(next);
        last_ = candidates_.front();
        return true;
    }

    /// Whether the first @p frames of @p burst begin one of the source's, near where the last one was.
    bool begins_near(const Words& burst, int64_t frames)
    {
        return last_ >= 0 && !matching(last_ - kNearBursts, last_ + kNearBursts + 1, burst, frames).empty();
    }

    /// Near where the last one was, or else anywhere in the source. @return false: it is not the source's
    bool find(const Words& burst, int64_t used)
    {
        candidates_.clear();
        if (last_ >= 0)
            candidates_ = matching(last_ - kNearBursts, last_ + kNearBursts + 1, burst, used);
        if (!known() && full_searches_ < kMostFullSearches) {
            full_searches_++;
            candidates_ = matching(0, bursts_, burst, used);
        }
        if (known())
            last_ = candidates_.front();
        else if (last_ >= 0)
            last_++; // the one that was to come has passed
        return known();
    }

private:
    std::vector<int64_t> matching(int64_t from, int64_t to, const Words& burst, int64_t used)
    {
        std::vector<int64_t> numbers;
        for (int64_t number = std::max<int64_t>(from, 0); number < std::min(to, bursts_); number++)
            if (is_burst(number, burst, used))
                numbers.push_back(number);
        return numbers;
    }

    /// The burst after @p number. In a hole of a film's sound zeros pass that are numbered as bursts.
    int64_t next_sent(int64_t number)
    {
        do
            number++;
        while (number < bursts_ && !is_sent(number));
        return number;
    }

    bool is_sent(int64_t number)
    {
        source_.link(number * period_, sent_.data(), 1);
        return begins_at(sent_, 0);
    }

    bool is_burst(int64_t number, const Words& burst, int64_t used)
    {
        source_.link(number * period_, sent_.data(), static_cast<int>(used));
        return std::equal(burst.begin(), burst.begin() + 2 * used, sent_.begin());
    }

    const Source& source_;
    const int64_t period_;
    const int64_t bursts_; ///< of the source
    Words sent_;
    std::vector<int64_t> candidates_;
    int64_t last_ = -1; ///< the earliest candidate, or where it would be by now; -1: none was found yet
    int full_searches_ = 0;
};

} // namespace

RawCheck check_bursts(const Recording& heard, const Source& source)
{
    RawCheck check;
    check.compared = true;
    Place place(source);
    int64_t period = burst_link_frames(source.coding());
    Words burst(static_cast<size_t>(2 * period));
    int64_t first = find_burst(heard, 0, period);
    for (int64_t at = first, next = 0; at >= 0; at = next) {
        int64_t got = heard.read(at, burst.data(), period);
        int64_t used = used_frames(burst.data(), source.coding());
        if (got < used)
            break;
        bool lost_its_place = place.known() && !place.goes_on(burst, used);
        bool found = (place.known() && !lost_its_place) || place.find(burst, used);
        next = find_burst(heard, at + used, period);
        // Where the passing on ended. After that, a device may repeat a piece of its buffer.
        bool cut_off = !found && next < 0 && place.begins_near(burst, frames_before_zeros(burst, used));
        if (cut_off)
            break;
        check.gaps += lost_its_place && found ? 1 : 0;
        check.different += found ? 0 : used;
        check.bursts++;
        check.ended_ns = heard.heard_ns(at + used - 1);
        check.frames = (next >= 0 ? next : at + used) - first;
    }
    check.began_ns = first >= 0 ? heard.heard_ns(first) : 0;
    return check;
}

} // namespace play
