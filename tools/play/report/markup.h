// SPDX-License-Identifier: MIT
/**
 * @file
 * Words and numbers for a page.
 */
#pragma once

#include <string>

namespace play
{

/// Text that may come from anywhere, for a place between tags or in a quoted attribute.
std::string escape(const std::string& text);
/// A text of JSON, for the inside of a script element.
std::string escape_json(std::string text);

/// "12.50"; with a real minus sign. What is no number is a dash.
std::string number(double value, int decimals);
/// "+12.50", "−3.00", "0.00".
std::string signed_number(double value, int decimals);
/// For coordinates and attributes: plain ASCII.
std::string plain(double value, int decimals = 2);
std::string percent(double fraction);

} // namespace play
