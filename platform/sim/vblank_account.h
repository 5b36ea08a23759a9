// SPDX-License-Identifier: MIT
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "hdmi_sim.h"

namespace sim
{

/// Counts the vertical blanks that a program's waits missed: those between two consecutive waits.
class VblankAccount
{
public:
    /// A wait by @p thread on @p fd for the vertical blank after @p periods periods returned number @p sequence.
    void returned(pid_t thread, int fd, uint32_t periods, uint32_t sequence)
    {
        waits_.waits++;
        if (last_ && last_->thread == thread && last_->fd == fd) {
            // Numbers wrap. Those of a restarted display go back.
            const auto late = static_cast<int32_t>(sequence - last_->sequence - periods);
            waits_.missed += late > 0 ? late : 0;
        }
        last_ = Last{thread, fd, sequence};
    }
    /// A wait failed, or the present number was read: the next wait does not count as consecutive.
    void interrupted() { last_.reset(); }
    hdmi_sim::VblankWaits waits() const { return waits_; }

private:
    struct Last {
        pid_t thread; ///< waits of different threads are independent
        int fd;
        uint32_t sequence;
    };
    std::optional<Last> last_;
    hdmi_sim::VblankWaits waits_;
};

} // namespace sim
