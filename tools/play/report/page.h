// SPDX-License-Identifier: MIT
/**
 * @file
 * The report as a page that needs nothing beside itself: no network, no
 * script. What stands in it stands in the report for programs, which is inside
 * of it too.
 */
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "report/trace_view.h"

namespace play
{

/// What a page is made of.
struct Page {
    nlohmann::json report; ///< as it is written for programs
    TraceView view;
    bool paced = true;              ///< the display had vertical blanks
    double vblanks_per_picture = 1; ///< refresh rate by frame rate
    std::string made;               ///< when, and on what machine
};

/**
 * The page. Each number of the report in it is a data element: its value is the report's, its data-key the JSON
 * pointer to it. The report and what the charts show are in its script elements "report" and "trace".
 */
std::string page_text(const Page& page);

/// @return false with one line in @p error
bool write_page(const Page& page, const std::string& path, std::string* error);

/// When, and on what machine: now, here.
std::string here_and_now();

} // namespace play
