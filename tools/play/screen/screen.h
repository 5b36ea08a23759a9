// SPDX-License-Identifier: MIT
/**
 * @file
 * Records which picture was seen when, by the number in its pixels.
 */
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "display/display.h"
#include "source/picture.h"

namespace play
{

/// One picture on the screen, from its first vertical blank on.
struct Sighting {
    int64_t number;
    bool flash;
    int64_t seen_ns; ///< when its light was first seen
    int64_t vblanks; ///< refreshes for which it stayed
};

class Screen : public display::Observer
{
public:
    Screen();

    /// Reads what the display shows, not what the host meant to paint; without a surface the host's word is taken.
    void shown(const display::FrameBuffer& buffer, int64_t seen_ns) override;
    void stayed(int64_t refreshes) override;

    /// The screen shows @p picture from @p seen_ns on for one refresh. From one thread.
    void refresh(const Picture& picture, int64_t seen_ns);

    std::vector<Sighting> sightings() const;
    /// Refreshes that showed something that is no numbered picture.
    int64_t unreadable() const;

private:
    mutable std::mutex mutex_;
    std::vector<Sighting> sightings_;
    int64_t unreadable_ = 0;
    bool readable_ = true; ///< the latest refresh
};

} // namespace play
