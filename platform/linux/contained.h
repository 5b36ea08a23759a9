// SPDX-License-Identifier: MIT
/**
 * @file
 * Where memory or threads are short: what becomes of a call of the platform then.
 */
#pragma once

#include <exception>

namespace hdmi_linux
{

/// The result of @p action, or @p failure in the place of an exception: none may leave the platform or end a thread.
template <typename Action, typename Result> Result contained(const Action& action, Result failure)
{
    try {
        return action();
    } catch (const std::exception&) {
        return failure;
    }
}

} // namespace hdmi_linux
