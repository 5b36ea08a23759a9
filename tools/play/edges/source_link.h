// SPDX-License-Identifier: MIT
/**
 * @file
 * Where the captured sound comes from: the source at the other end of the
 * HDMI cable, and the receiver that announces what it sends.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "config/options.h"
#include "measure/raw_check.h"
#include "source/source.h"

namespace play
{

/// A state in the state file, or of a uevent.
struct Announcement {
    int64_t at_ns;
    std::string state;
};

/// What happened at the receiver.
struct LinkAccount {
    int chunk_phase = kPhaseAnywhere; ///< bytes from the beginning of the first capture to the next burst
    int64_t captured_end = -1; ///< number of the link frame after the last one read from the receiver; -1: not known
    int64_t overruns = 0;
    int64_t breaks = 0;   ///< underruns and losses of the source's own device
    double drift_ppm = 0; ///< of the source's clock against CLOCK_MONOTONIC
    std::vector<Announcement> announced;
    std::vector<std::string> rate_messages; ///< about a source that is not at the announced rate
};

class SourceLink
{
public:
    virtual ~SourceLink() = default;
    SourceLink() = default;
    SourceLink(const SourceLink&) = delete;
    SourceLink& operator=(const SourceLink&) = delete;

    /// The source sends and is announced, before the player opens. @return false with one line in @p error
    virtual bool connect(std::string* error) = 0;
    /// The source stops sending.
    virtual void disconnect() = 0;
    /// When each of its frames was sent. After connect().
    virtual SourceClock clock() const = 0;

    /// Compares what simulated outputs got in raw pass-through with what the source sent.
    virtual RawCheck check_raw() const = 0;
    virtual LinkAccount account() const = 0;
};

} // namespace play
