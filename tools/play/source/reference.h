// SPDX-License-Identifier: MIT
/**
 * @file
 * A source's sound at any place between its samples, at the rate of a recording.
 */
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "source/source.h"

struct SwrContext;

namespace play
{

/// Band-limited interpolation, 48 taps. Places are frames at the recording's rate, counted from @p first_sample on, and
/// are to be reached in ascending order.
class Reference
{
public:
    Reference(const Source& source, int64_t first_sample, int rate_out);
    ~Reference();
    Reference(const Reference&) = delete;
    Reference& operator=(const Reference&) = delete;

    double place_of(int64_t sample) const { return static_cast<double>(sample - first_) * rate_out_ / rate_in_; }
    double source_s(double place) const { return place / rate_out_ + static_cast<double>(first_) / rate_in_; }

    /// Makes the sound from @p begin to @p end ready. What lies ten seconds and more before is forgotten.
    /// @return false: it was forgotten, or lies before the beginning
    bool reach(double begin, double end);
    /// Both channels; between what reach() was asked for.
    std::array<float, 2> at(double place) const { return filtered(place, sound_); }
    /// The change per frame.
    std::array<float, 2> slope_at(double place) const { return filtered(place, slope_); }

private:
    using Taps = std::vector<float>;
    std::array<float, 2> filtered(double place, const Taps& taps) const;
    void append_more();
    void forget(int64_t before);

    struct FreeConverter {
        void operator()(SwrContext* converter) const;
    };

    const Source& source_;
    const int64_t first_;
    const int rate_in_;
    const int rate_out_;
    int64_t next_; ///< sample of the source to be read next
    std::unique_ptr<SwrContext, FreeConverter> converter_;
    int64_t base_ = 0; ///< frame with which the two begin
    std::array<std::vector<float>, 2> frames_;
    Taps sound_;
    Taps slope_;
};

} // namespace play
