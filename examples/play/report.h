// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

#include "result.h"
#include "verdict.h"

namespace play
{

/// The report for people, on standard output.
void print_report(const Result& result, const std::vector<Verdict>& verdicts);
/// The report for programs. @return false with one line in @p error
bool write_report(const Result& result, const std::vector<Verdict>& verdicts, const std::string& path,
                  std::string* error);

} // namespace play
