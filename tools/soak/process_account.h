// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

namespace soak
{

/// What the process has of the machine now.
struct ProcessAccount {
    int64_t resident_kb = 0;
    int64_t heap_kb = 0; ///< allocated and not freed; 0: the C library does not tell
    int descriptors = 0;
    int threads = 0;
    double cpu_s = 0; ///< used so far
};
ProcessAccount process_account();

/// Threads from now on have stacks as where memory is short: a whole stack counts as memory, and the player's threads
/// touch 17 KB at most.
void use_small_stacks();
/// No more memory than now, and so much: what asks for more is refused. Stacks of threads count as well.
void limit_memory(int more_mb);

} // namespace soak
