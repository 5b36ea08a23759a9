// SPDX-License-Identifier: MIT
/**
 * @file
 * Overruns, underruns, suspends and losses of the devices during a run, and when
 * they worked again.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "signal/recording.h"

namespace play
{

/// What a device has counted so far.
struct DeviceCounts {
    bool works = false; ///< open, and the device behind it is there
    int64_t frames = 0; ///< passed
    int64_t xruns = 0;
    int64_t suspends = 0;
    int64_t losses = 0;
};

struct Disturbance {
    enum class Kind { xrun, suspend, loss };
    Kind kind;
    int64_t at_ns;        ///< when it was noticed
    int64_t back_ns = -1; ///< when sound passed the device again; -1: never
};
constexpr const char* disturbance_name(Disturbance::Kind kind)
{
    return kind == Disturbance::Kind::xrun ? "xrun" : kind == Disturbance::Kind::suspend ? "suspend" : "loss";
}

/// The disturbances of one device, found by comparing its counters.
class DisturbanceLog
{
public:
    void look(const DeviceCounts& counts, int64_t now_ns);
    const std::vector<Disturbance>& all() const { return all_; }
    /// Underruns or overruns, and whatever else made the device lose sound, in that time.
    int64_t count(int64_t from_ns, int64_t to_ns) const;

private:
    void note(Disturbance::Kind kind, int64_t now_ns);

    DeviceCounts last_;
    bool known_ = false;
    std::vector<Disturbance> all_;
};

/// Where nothing was heard.
struct Silence {
    int64_t from_ns = 0;
    int64_t to_ns = 0; ///< when sound was heard again, -1: never; as from_ns: there was none
    bool ends() const { return to_ns >= 0; }
};
/// The longest silence near a disturbance that was noticed at @p at_ns; silences as short as the programme's do not
/// count.
Silence silence_around(const Recording& heard, int64_t at_ns);

} // namespace play
