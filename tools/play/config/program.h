// SPDX-License-Identifier: MIT
#pragma once

namespace play
{

/// What this program is, for --version and for every report.
struct Program {
    const char* version;
    const char* revision; ///< of the source, as git names it; "unknown" without a repository
    const char* platform; ///< the platforms that it can play on, and the machine that it was built for
};

Program this_program();

} // namespace play
