// SPDX-License-Identifier: MIT
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "report/result.h"
#include "report/verdict.h"

namespace play
{

/// The report for people, on standard output.
void print_report(const Result& result, const std::vector<Verdict>& verdicts);
/// The report for programs.
nlohmann::json report_json(const Result& result, const std::vector<Verdict>& verdicts);
/// @return false with one line in @p error
bool write_report(const nlohmann::json& report, const std::string& path, std::string* error);

} // namespace play
