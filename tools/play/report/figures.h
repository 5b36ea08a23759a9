// SPDX-License-Identifier: MIT
/**
 * @file
 * The list of a report's figures. The report for programs, the report for
 * people and the tables of the page are made from it: a new figure is one
 * entry in figures.cpp.
 */
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "report/result.h"

namespace play
{

/// How a value is written.
struct Format {
    int decimals = 0;
    const char* unit = "";
    bool sign = false;              ///< positive values have one too
    double scale = 1;               ///< the value is shown times this
    const char* share_of = nullptr; ///< the text for people shows the percentage of that figure
    /// For what is no plain number; it gets no null.
    std::string (*words)(const nlohmann::json& value) = nullptr;
};

/// When people are shown a figure; if_false is of the text alone.
enum class Shown { always, unless_nothing, if_false };

struct Figure {
    const char* key; ///< JSON pointer: its place in the report for programs
    /// In the report for people: its piece of the line, {} stands for the value; "": it is for programs only.
    const char* phrase;
    const char* label; ///< of its row in a table of the page; "": it has none
    Format format;
    nlohmann::json (*value)(const Result& result); ///< null: this run has no such figure
    Shown shown = Shown::always;
};

/// Parts of the report for people, and of the page.
enum class Section { run, sync, pictures, sound, link, devices, machine };

/// Whether a run has certain figures.
struct When {
    bool (*applies)(const Result& result); ///< null: every run has them
    /// Why they could not be measured; empty: they were. Null: they always are.
    std::string (*unmeasured)(const Result& result);

    bool has(const Result& result) const { return applies == nullptr || applies(result); }
    std::string why_not(const Result& result) const { return unmeasured != nullptr ? unmeasured(result) : ""; }
};

/// Figures that are measured together, or not at all.
struct Line {
    Section section;
    const char* name; ///< of the line in the report for people; "": its phrases continue the section's title
    When when;
    std::vector<Figure> figures;
};

const std::vector<Line>& report_lines();
/// Null if there is none with that key.
const Figure* find_figure(const std::string& key);

/// What nobody needs to be told of: null, false, 0, nothing.
bool is_nothing(const nlohmann::json& value);

} // namespace play
