// SPDX-License-Identifier: MIT
#include "report/report.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "report/figures.h"
#include "report/records.h"

namespace play
{
namespace
{

using nlohmann::json;

/// A value with its unit, for people.
std::string value_text(const Figure& figure, const json& value, const json& report)
{
    const Format& format = figure.format;
    if (format.words != nullptr)
        return format.words(value);
    if (value.is_string())
        return value.get<std::string>();
    double shown = value.get<double>() * format.scale;
    if (format.share_of != nullptr)
        shown *= 100 / report.at(json::json_pointer(format.share_of)).get<double>();
    // The largest double has 309 digits before its point.
    char text[352];
    std::snprintf(text, sizeof text, format.sign ? "%+.*f" : "%.*f", format.decimals, shown);
    return std::string(text) + format.unit;
}

bool is_shown(const Figure& figure, const json& value)
{
    if (value.is_null() || figure.phrase[0] == '\0')
        return false;
    switch (figure.shown) {
    case Shown::unless_nothing: return !is_nothing(value);
    case Shown::if_false: return value == false;
    case Shown::always: break;
    }
    return true;
}

/// The phrases of a line; the first one that is shown loses its separator.
std::string phrases(const Line& line, const json& report)
{
    std::string text;
    for (const Figure& figure : line.figures) {
        const json& value = report.at(json::json_pointer(figure.key));
        if (!is_shown(figure, value))
            continue;
        std::string phrase = figure.phrase;
        if (text.empty() && (phrase[0] == ',' || phrase[0] == ';'))
            phrase.erase(0, 2);
        size_t place = phrase.find("{}");
        text += place == std::string::npos ? phrase : phrase.replace(place, 2, value_text(figure, value, report));
    }
    return text;
}

bool has_phrases(const Line& line)
{
    return std::any_of(line.figures.begin(), line.figures.end(),
                       [](const Figure& figure) { return figure.phrase[0] != '\0'; });
}

std::string line_text(const std::string& name, const std::string& text)
{
    constexpr size_t kNameWidth = 9;
    std::string padding(name.size() < kNameWidth ? kNameWidth - name.size() : 0, ' ');
    return text.empty() ? "" : "  " + name + padding + " " + text + "\n";
}

/// The section's title, continued by the line without a name, and then its other lines.
void print_figures(Section section, std::string title, const Result& result, const json& report)
{
    std::string unmeasured_title;
    std::string lines;
    for (const Line& line : report_lines()) {
        if (line.section != section || !has_phrases(line) || !line.when.has(result))
            continue;
        bool of_title = line.name[0] == '\0';
        std::string why = line.when.why_not(result);
        std::string text = why.empty() ? phrases(line, report) : "not measured: " + why;
        if (of_title) {
            unmeasured_title = why;
            title += (why.empty() ? "" : " ") + text;
        } else if (why.empty() || why != unmeasured_title)
            lines += line_text(line.name, text);
    }
    std::printf("\n%s\n%s", title.c_str(), lines.c_str());
}

void print_outages(const Result& result)
{
    for (const display::Outage& outage : result.display_stats.outages)
        std::printf("  display   lost at %.1f s: %s; back after %.2f s\n", after_opening_s(result, outage.began_ns),
                    outage.reason.c_str(), static_cast<double>(outage.lasted_ns) / 1e9);
}

void print_recoveries(const Result& result)
{
    for (const Recovery& recovery : result.recoveries) {
        const Disturbance& disturbance = recovery.disturbance;
        const Silence& silence = recovery.silence;
        std::printf("  %-9s %s at %.2f s, ", recovery.device.c_str(), disturbance_name(disturbance.kind),
                    after_opening_s(result, disturbance.at_ns));
        if (!silence.ends())
            std::printf("sound did not come back\n");
        else
            std::printf("silent for %.0f ms\n", static_cast<double>(silence.to_ns - silence.from_ns) / 1e6);
    }
}

void print_losses(const Result& result)
{
    for (const LossReading& reading : result.losses) {
        const LostBursts& lost = reading.lost;
        std::printf("  lost      %lld (%s) at %.2f s: ", static_cast<long long>(lost.loss.bursts),
                    loss_name(lost.loss.kind), static_cast<double>(lost.from_ns) / 1e9);
        if (reading.measured())
            std::printf("sound %.2f -> %.2f ms, offset %+.1f -> %+.1f ms%s\n", reading.before->sound_ms,
                        reading.after->sound_ms, reading.before->ms(), reading.after->ms(),
                        reading.resets > 0 ? " (reset)" : "");
        else
            std::printf("sound not found on both sides of it\n");
    }
}

/// Devices of the machine, and whose word the times are.
void print_devices(const Result& result, const json& report)
{
    const Options& options = result.options;
    if (options.capture.empty() && options.playback.empty() && options.cec.empty())
        return;
    print_figures(Section::devices, "Real devices", result, report);
    if (!options.playback.empty() && options.observe.empty())
        std::printf("  heard     when the playback device itself says so: what lies behind it is not in the figures\n");
    for (const Announcement& announcement : result.stage.link.announced)
        std::printf("  announced %s at %.2f s\n", announcement.state.c_str(),
                    after_opening_s(result, announcement.at_ns));
    for (const std::string& message : result.stage.link.rate_messages)
        std::printf("  but       %s\n", message.c_str());
    print_recoveries(result);
}

void print_link(const Result& result, const json& report)
{
    bool coded = result.coding != Coding::pcm;
    if (!coded && !result.options.raw)
        return;
    print_figures(Section::link, "Link", result, report);
    print_losses(result);
    if (coded)
        std::printf(
            "  time      a coded sample was sent when its burst began to pass, plus its place in the burst's sound;\n"
            "            that a burst must pass before it can be decoded is latency of the player\n");
}

/// @p source: what has the fault of a source
const char* mark_of(const Verdict& verdict, const char* source)
{
    if (verdict.passed)
        return "ok  ";
    return !verdict.source.empty() ? source : verdict.machine ? "late" : "FAIL";
}

const char* outcome_text(Outcome outcome)
{
    switch (outcome) {
    case Outcome::pass: return "PASS";
    case Outcome::inconclusive: return "INCONCLUSIVE";
    case Outcome::nothing: return "STOPPED before there was anything to judge";
    case Outcome::fail: break;
    }
    return "FAIL";
}

void print_verdict(const Result& result, const std::vector<Verdict>& verdicts)
{
    std::printf("%s", verdicts.empty() ? "" : "\nLimits\n");
    std::set<std::string> causes;
    for (const Verdict& verdict : verdicts) {
        std::printf("  %s  %s\n", mark_of(verdict, result.options.captured_pictures() ? "card" : "film"),
                    verdict.limit.c_str());
        if (!verdict.source.empty())
            causes.insert(verdict.source);
        else if (verdict.machine)
            causes.insert("the machine itself was late, by up to " +
                          value_text(*find_figure("/timers/worst_ms"), result.punctuality.worst_ms, {}));
    }
    std::printf("\n%s\n", outcome_text(outcome_of(verdicts)));
    for (const std::string& cause : causes)
        std::printf("  %s\n", cause.c_str());
}

const char* outcome_name(Outcome outcome)
{
    switch (outcome) {
    case Outcome::pass: return "pass";
    case Outcome::inconclusive: return "inconclusive";
    case Outcome::nothing: return "stopped";
    case Outcome::fail: break;
    }
    return "fail";
}

/// Every figure in its place; null: this run has none, or could not measure it, which "not_measured" explains.
json figures_json(const Result& result)
{
    json report;
    json not_measured = json::object();
    for (const Line& line : report_lines()) {
        bool applies = line.when.has(result);
        std::string why = applies ? line.when.why_not(result) : "";
        for (const Figure& figure : line.figures) {
            bool measured = applies && why.empty();
            report[json::json_pointer(figure.key)] = measured ? figure.value(result) : json();
            if (!why.empty())
                not_measured[figure.key] = why;
        }
    }
    report["not_measured"] = not_measured;
    return report;
}

} // namespace

void print_report(const Result& result, const std::vector<Verdict>& verdicts)
{
    json report = figures_json(result);
    print_figures(Section::run, "", result, report);
    if (!result.options.raw)
        print_figures(Section::sync, "Lip sync", result, report);
    print_figures(Section::pictures, "Pictures", result, report);
    print_outages(result);
    print_figures(Section::sound, "Sound", result, report);
    print_link(result, report);
    print_devices(result, report);
    print_figures(Section::machine, "Machine", result, report);
    print_verdict(result, verdicts);
    std::fflush(stdout);
}

json report_json(const Result& result, const std::vector<Verdict>& verdicts)
{
    json report = figures_json(result);
    report["passed"] = all_passed(verdicts);
    report["outcome"] = outcome_name(outcome_of(verdicts));
    report["limits"] = json::array();
    for (const Verdict& verdict : verdicts)
        report["limits"].push_back({{"limit", verdict.limit},
                                    {"passed", verdict.passed},
                                    {"machine_late", verdict.machine},
                                    {"source_fault", verdict.source.empty() ? json() : json(verdict.source)}});
    return report;
}

bool write_report(const json& report, const std::string& path, std::string* error)
{
    std::ofstream out(path);
    // A file's name may be any bytes; JSON is UTF-8.
    out << report.dump(1, ' ', false, json::error_handler_t::replace) << "\n";
    out.close();
    if (out)
        return true;
    *error = path + ": " + std::strerror(errno);
    return false;
}

} // namespace play
