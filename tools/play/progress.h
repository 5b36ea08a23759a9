// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <string>

namespace play
{

/// One line about where the run is: rewritten in place on a terminal, now and then a new line elsewhere.
class Progress
{
public:
    Progress();
    void update(double seconds, const std::string& text);
    /// Leaves the line empty for what comes next.
    void finish();

private:
    bool terminal_;
    double last_ = -1;
};

} // namespace play
