// SPDX-License-Identifier: MIT
#include "verdict.h"

#include <algorithm>

namespace play
{
namespace
{

/// A programme is measured at every mark. In a film, silence and steady tones hide some seconds: half must remain.
bool measured_enough(const Result& result)
{
    auto measured = static_cast<int64_t>(result.offsets.size());
    bool programme = result.options.file.empty();
    return measured > 0 && (programme ? measured == result.instants : 2 * measured >= result.instants);
}

} // namespace

std::vector<Verdict> judge(const Result& result)
{
    bool paced = result.options.simulated_display;
    std::vector<Verdict> verdicts;
    verdicts.push_back({"A/V offset measured", measured_enough(result)});
    verdicts.push_back({"A/V offset p95 inside EBU R37 (+40/-60 ms)", result.offset.p95_inside_r37()});
    verdicts.push_back({"one reset, at start", result.resets == 1});
    verdicts.push_back({"no underrun after the first second", result.gaps == 0});
    verdicts.push_back({"no overrun", result.stage.overruns == 0});
    verdicts.push_back({"frame account closed", result.frames.closes() && result.frames.no_buffer == 0});
    verdicts.push_back({result.samples.same_rate ? "output bit for bit the input" : "samples complete and in place",
                        result.samples.passed()});
    if (paced)
        verdicts.push_back({"at most 2 % of frames unseen or held beyond the rates",
                            result.cadence.excess() <= excess_limit && result.unreadable == 0});
    return verdicts;
}

bool all_passed(const std::vector<Verdict>& verdicts)
{
    return std::all_of(verdicts.begin(), verdicts.end(), [](const Verdict& verdict) { return verdict.passed; });
}

} // namespace play
