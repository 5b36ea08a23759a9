// SPDX-License-Identifier: MIT
/**
 * @file
 * Redirects the calls that one loaded program or library makes into another. The
 * rest of the process, and the order in which libraries are linked, do not matter:
 * only the caller's own table of imported functions changes.
 */
#pragma once

namespace extcon
{

/**
 * Lets calls of function @p name from the object that contains @p address go to
 * @p replacement; null: from the main program.
 * @return how many entries of its tables refer to the function; negative where
 *         they cannot be written. 0: it does not import it, or was linked
 *         statically with it.
 */
int redirect_import(const void* address, const char* name, const void* replacement);

} // namespace extcon
