// SPDX-License-Identifier: MIT
/**
 * @file
 * Lets single calls of the program under test fail: allocations, threads, descriptors, waits. What the test itself
 * calls does not count: only what a thread that it did not start calls, and what is called inside of under_test().
 *
 * The program is linked with the options of failing_calls() in tests/CMakeLists.txt.
 */
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace failing_calls
{

/// A place in the program that calls, with who called it.
using Site = uint64_t;

/// From now on calls are noted. @p target: the site whose next call fails; 0: none. @p number: the call that fails,
/// counted from 1 over all sites; 0: none.
void begin(Site target, int64_t number);
/// @return whether a call failed
bool end();
/// Calls noted since begin().
int64_t count();
/// The sites of all calls since the start of the program, in the order in which they were first seen.
std::vector<Site> sites();

/// For the test's own threads, first of all the one that runs main().
void this_thread_is_the_tests();
void set_under_test(bool on);

/// Calls @p action, whose calls count.
template <typename Action> auto under_test(Action action)
{
    struct Scope {
        Scope() { set_under_test(true); }
        ~Scope() { set_under_test(false); }
    };
    const Scope scope;
    return action();
}

} // namespace failing_calls
