// SPDX-License-Identifier: MIT
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>

#include "hdmi_sim.h"

namespace sim
{

/// Follows the program's waits for vertical blanks: what lies between two in a row was missed.
class VblankAccount
{
public:
    /// A wait for the @p periods-th vertical blank from now on, by @p thread on @p fd, returned with number @p
    /// sequence.
    void returned(pid_t thread, int fd, uint32_t periods, uint32_t sequence)
    {
        waits_.waits++;
        if (last_ && last_->thread == thread && last_->fd == fd) {
            // Numbers wrap; those of a display that began anew go back.
            const auto late = static_cast<int32_t>(sequence - last_->sequence - periods);
            waits_.missed += late > 0 ? late : 0;
        }
        last_ = Last{thread, fd, sequence};
    }
    /// What follows a wait that failed, or a look at the present number, is not in a row with what was before.
    void interrupted() { last_.reset(); }
    hdmi_sim::VblankWaits waits() const { return waits_; }

private:
    struct Last {
        pid_t thread; ///< another one may begin whenever it likes
        int fd;
        uint32_t sequence;
    };
    std::optional<Last> last_;
    hdmi_sim::VblankWaits waits_;
};

} // namespace sim
