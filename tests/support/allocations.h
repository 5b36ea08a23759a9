// SPDX-License-Identifier: MIT
/**
 * @file
 * Counts what a program allocates by new.
 */
#pragma once

#include <cstdint>

/// By the calling thread.
int64_t allocations();
