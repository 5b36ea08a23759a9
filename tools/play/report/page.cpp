// SPDX-License-Identifier: MIT
#include "report/page.h"

#include <sys/utsname.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fstream>
#include <limits>

#include "report/chart.h"
#include "report/figures.h"
#include "report/markup.h"
#include "report/page_style.h"
#include "report/timeline.h"

namespace play
{
namespace
{

using nlohmann::json;

constexpr int kChartPx = 240;
/// Rows of a histogram; what stayed longer than these is one more.
constexpr size_t kMostBars = 16;
/// The number stands beside it.
constexpr double kLongestBar = 0.75;
/// Most dots of a chart, and most rows of a table.
constexpr size_t kMostDots = 1200;
/// Offsets shown to the scale; those beyond are marked at its edge.
constexpr double kOffsetLimitMs = 500;
constexpr double kQueueLimitMs = 5000;
constexpr double kDeviationLimitMs = 1000;
/// Room beyond the outermost line, which would otherwise lie on the edge.
constexpr double kBesideBandMs = 15;
/// The axis shows at least deviations of this size.
constexpr double kLeastDeviationMs = 2;
/// A curve is interrupted where nothing was written to the device for this long.
constexpr double kCurveGapS = 0.5;

double not_a_number() { return std::numeric_limits<double>::quiet_NaN(); }

double real(const json& value) { return value.is_number() ? value.get<double>() : not_a_number(); }

// --- Numbers of the report ----------------------------------------------------

class Report
{
public:
    explicit Report(const json& report) : report_(report) {}

    const json& at(const std::string& key) const
    {
        static const json none;
        json::json_pointer pointer(key);
        return report_.contains(pointer) ? report_.at(pointer) : none;
    }
    bool has(const std::string& key) const { return !at(key).is_null(); }
    double real(const std::string& key) const { return play::real(at(key)); }

    /// A number to read, that programs find again, as the list of figures writes it.
    std::string data(const std::string& key) const
    {
        const Figure* figure = find_figure(key);
        return data(key, figure != nullptr ? figure->format : Format());
    }
    /// Likewise, written in another way.
    std::string data(const std::string& key, const Format& format) const
    {
        const json& value = at(key);
        double shown = play::real(value) * format.scale;
        if (unmeasured(key))
            return "not measured";
        if (!std::isfinite(shown))
            return number(shown, format.decimals);
        std::string scaled = format.scale == 1 ? "" : " data-scale=\"" + plain(format.scale, 9) + "\"";
        return "<data value=\"" + escape(value.dump()) + "\" data-key=\"" + escape(key) + "\"" + scaled + ">" +
               (format.sign ? signed_number(shown, format.decimals) : number(shown, format.decimals)) + "</data>";
    }
    /// With its unit.
    std::string data_with_unit(const std::string& key) const
    {
        const Figure* figure = find_figure(key);
        return data(key) + (figure != nullptr && has(key) ? escape(figure->format.unit) : "");
    }
    bool unmeasured(const std::string& key) const
    {
        const json& keys = at("/not_measured");
        return !has(key) && keys.is_object() && keys.contains(key);
    }

private:
    const json& report_;
};

// --- Pieces -------------------------------------------------------------------

std::string tile(const std::string& name, const std::string& big, const std::string& more)
{
    return "<div><dt>" + name + "</dt><dd class=\"big\">" + big + "</dd><dd class=\"more\">" + more + "</dd></div>\n";
}

std::string row(const std::string& name, const std::string& value)
{
    return "<tr><th scope=\"row\">" + name + "</th><td>" + value + "</td></tr>\n";
}

std::string figure(const std::string& title, const std::string& caption, const std::string& content)
{
    return "<figure>\n<h3>" + title + "</h3>\n<figcaption>" + caption + "</figcaption>\n" + content + "\n</figure>\n";
}

/// "video_queue_size" to "Video queue size", for what has no better name here.
std::string label_of(std::string key)
{
    for (char& character : key)
        if (character == '_')
            character = ' ';
    if (!key.empty() && key[0] >= 'a' && key[0] <= 'z')
        key[0] = static_cast<char>(key[0] - 'a' + 'A');
    return escape(key);
}

std::string text_of(const json& value)
{
    if (value.is_boolean())
        return value.get<bool>() ? "yes" : "no";
    if (value.is_string())
        return escape(value.get<std::string>());
    if (value.is_number_float()) {
        // Three decimals, without zeros at their end.
        std::string text = number(value.get<double>(), 3);
        text.erase(text.find_last_not_of('0') + 1);
        return text.back() == '.' ? text.substr(0, text.size() - 1) : text;
    }
    if (value.is_number())
        return number(value.get<double>(), 0);
    return value.is_null() ? "–" : escape(value.dump(-1, ' ', false, json::error_handler_t::replace));
}

/// What a row of a table says of a figure; empty: this run has nothing to say.
std::string row_text(const Report& report, const Figure& figure)
{
    const json& value = report.at(figure.key);
    if (report.unmeasured(figure.key))
        return "not measured";
    if (value.is_null() || (figure.shown == Shown::unless_nothing && is_nothing(value)))
        return "";
    if (figure.format.words != nullptr)
        return escape(figure.format.words(value));
    return value.is_number() ? report.data_with_unit(figure.key) : text_of(value);
}

/// A table of a section's figures.
std::string figure_table(const Report& report, std::initializer_list<Section> sections, const char* css = "figures")
{
    std::string rows;
    for (const Line& line : report_lines())
        for (const Figure& figure : line.figures) {
            if (std::find(sections.begin(), sections.end(), line.section) == sections.end() || figure.label[0] == '\0')
                continue;
            std::string text = row_text(report, figure);
            rows += text.empty() ? "" : row(figure.label, text);
        }
    return std::string("<table class=\"") + css + "\"><tbody>\n" + rows + "</tbody></table>\n";
}

/// A key, in words.
struct Label {
    const char* key;
    const char* text;
};

/// A list of objects as a table: the columns that are known, and then whatever else the objects have.
std::string table_of(const json& list, std::initializer_list<Label> known)
{
    json all = json::object();
    for (const json& item : list)
        if (item.is_object())
            all.update(item);
    std::vector<std::string> columns;
    std::string table = "<table><thead><tr>";
    auto add_column = [&columns, &table](const std::string& key, const std::string& label) {
        columns.push_back(key);
        table += "<th scope=\"col\">" + label + "</th>";
    };
    for (const Label& label : known)
        if (all.erase(label.key) > 0)
            add_column(label.key, escape(label.text));
    for (const auto& entry : all.items())
        add_column(entry.key(), label_of(entry.key()));
    table += "</tr></thead><tbody>\n";
    for (const json& item : list) {
        table += "<tr>";
        for (const std::string& column : columns)
            table += "<td>" + (item.is_object() && item.contains(column) ? text_of(item[column]) : "–") + "</td>";
        table += "</tr>\n";
    }
    return table + "</tbody></table>\n";
}

// --- Head of the page ---------------------------------------------------------

bool raw(const Report& report) { return report.at("/run/raw") == true; }

/// Nothing is known of what the source sent when.
bool foreign(const Report& report)
{
    return report.has("/run/capture") && report.at("/run/capture") != "sim" && is_nothing(report.at("/run/feed")) &&
           is_nothing(report.at("/run/video"));
}

/// What became of a run, or of a limit, in one word.
struct Mark {
    const char* word;
    const char* css;
};

Mark verdict_mark(const Report& report)
{
    if (report.at("/outcome") == "inconclusive")
        return {"INCONCLUSIVE", "late"};
    if (report.at("/outcome") == "stopped")
        return {"STOPPED", "late"};
    return report.at("/passed") == true ? Mark{"PASS", "pass"} : Mark{"FAIL", "fail"};
}

/// What of the source explains a missed limit; empty: nothing.
std::string fault_of_source(const json& limit)
{
    const auto fault = limit.find("source_fault");
    return fault != limit.end() && fault->is_string() ? fault->get<std::string>() : "";
}

Mark limit_mark(const json& limit)
{
    if (limit.value("passed", false))
        return {"ok", "pass"};
    if (!fault_of_source(limit).empty())
        return {"film", "late"};
    return limit.value("machine_late", false) ? Mark{"late", "late"} : Mark{"FAIL", "fail"};
}

std::string span_of(const Mark& mark, const std::string& css)
{
    return "<span class=\"" + css + " " + mark.css + "\">" + mark.word + "</span>";
}

std::string heading(const Report& report)
{
    size_t missed = 0;
    for (const json& limit : report.at("/limits"))
        missed += limit.value("passed", false) ? 0 : 1;
    size_t all = report.at("/limits").size();
    std::string judged = all == 0      ? "nothing to judge"
                         : missed == 0 ? "All " + std::to_string(all) + " limits kept"
                                       : std::to_string(missed) + " of " + std::to_string(all) + " limits missed";
    return "<header>" + span_of(verdict_mark(report), "verdict") + "<div><h1>" + text_of(report.at("/run/programme")) +
           "</h1><p class=\"quiet\">" + judged + "; " + report.data_with_unit("/seconds") + " played; display " +
           text_of(report.at("/run/display")) + ", " + text_of(report.at("/run/display_rate")) +
           " Hz</p></div></header>\n";
}

/// A number in large letters, its unit in small ones.
std::string big(const Report& report, const std::string& key, const Format& format)
{
    std::string unit = report.has(key) ? std::string(" <small>") + escape(format.unit + 1) + "</small>" : "";
    return report.data(key, format) + unit;
}
std::string big(const Report& report, const std::string& key) { return big(report, key, find_figure(key)->format); }

std::string tiles(const Report& report)
{
    constexpr Format kPercent = {1, " %", false, 100};
    std::string all = "<dl class=\"tiles\">\n";
    if (!raw(report) && !foreign(report)) {
        all += tile("Lip sync, 95 % within", big(report, "/offset/p95_ms"), "+ is sound early") +
               tile("Lip sync, mean", big(report, "/offset/mean_ms"),
                    "deviation " + report.data_with_unit("/offset/deviation_ms") + "; worst " +
                        report.data_with_unit("/offset/worst_ms")) +
               tile("From source to ear and eye",
                    report.data("/sound_latency/mean_ms") + " <small>and</small> " +
                        big(report, "/picture_latency/mean_ms"),
                    "means over " + report.data("/offset/count") + " of " + report.data("/instants") + " instants") +
               tile("Samples missing", report.data("/sound/missing"),
                    "of " + report.data("/sound/in") + "; underruns " + report.data("/sound/underruns"));
    }
    return all +
           tile("Pictures beyond the rates", big(report, "/pictures/settled/excess"),
                report.data("/pictures/settled/pictures") + " pictures, unseen " +
                    report.data("/pictures/settled/unseen") + ", repeats " + report.data("/pictures/settled/repeats")) +
           tile("One processor, used to", big(report, "/cpu_s_per_s", kPercent),
                "the player's threads " + report.data("/player_cpu_s_per_s", kPercent) + " %; " +
                    report.data_with_unit("/peak_memory_kb")) +
           "</dl>\n";
}

std::string limits(const Report& report)
{
    std::string table =
        "<section><h2>Limits</h2>\n<table class=\"limits\"><thead><tr><th scope=\"col\">Kept</th><th scope=\"col\">"
        "Limit</th></tr></thead><tbody>\n";
    bool late = false;
    for (const json& limit : report.at("/limits")) {
        std::string fault = fault_of_source(limit);
        late = late || limit.value("machine_late", false);
        table += std::string(limit.value("passed", false) ? "<tr>" : "<tr class=\"missed\">") + "<td>" +
                 span_of(limit_mark(limit), "mark") + "</td><td>" + escape(limit.value("limit", "")) +
                 (fault.empty() ? "" : ": " + escape(fault)) + "</td></tr>\n";
    }
    table += "</tbody></table>\n";
    if (late)
        table += "<p>A limit is marked late where it says nothing of the player: timers beside it came " +
                 report.data_with_unit("/timers/worst_ms") +
                 " late at worst, and that explains why it was missed.</p>\n";
    return table + "</section>\n";
}

std::string run_table(const Report& report)
{
    return "<section><h2>What was played on what</h2>\n" +
           figure_table(report, {Section::run, Section::devices}, "settings") + "</section>\n";
}

// --- Lip sync -----------------------------------------------------------------

std::string key_of(const std::string& css, const std::string& text)
{
    return "<li><i class=\"" + css + "\"></i>" + text + "</li>";
}

Chart offset_chart(const Report& report)
{
    std::vector<double> times;
    std::vector<double> values;
    for (const json& offset : report.at("/offsets")) {
        times.push_back(real(offset.value("source_s", json())));
        values.push_back(real(offset.value("offset_ms", json())));
    }
    Scale x = Scale::around(times, 0, std::max(report.real("/seconds"), 1.0), 0, 1e6);
    Scale y = Scale::around(values, kAcceptableLateMs - kBesideBandMs, kAcceptableEarlyMs + kBesideBandMs,
                            -kOffsetLimitMs, kOffsetLimitMs);
    Chart chart(x, y, kChartPx);
    chart.band(y.least(), y.most(), "unacceptable");
    chart.band(kAcceptableLateMs, kAcceptableEarlyMs, "acceptable");
    chart.band(kDetectableLateMs, kDetectableEarlyMs, "detectable");
    chart.band(kR37LateMs, kR37EarlyMs, "r37");
    chart.level(kR37EarlyMs, "limit", "EBU R37 +40 ms", true);
    chart.level(kR37LateMs, "limit", "EBU R37 −60 ms");
    size_t room = kMostDots;
    for (size_t i = 0; i < values.size(); i++) {
        bool inside = values[i] <= kR37EarlyMs && values[i] >= kR37LateMs;
        // If there are very many, every n-th of those inside the limits.
        if ((inside && i % (1 + values.size() / kMostDots) != 0) || room == 0)
            continue;
        room--;
        chart.dot(times[i], values[i], inside ? "inside" : "outside",
                  "second " + number(times[i], 2) + ": " + signed_number(values[i], 2) + " ms");
    }
    return chart;
}

std::string offset_table(const Report& report)
{
    constexpr Format kOffsetFormat = {2};
    constexpr Format kSignedFormat = {2, "", true};
    std::string table = "<details><summary>The values</summary>\n<table id=\"offset-values\"><thead><tr><th "
                        "scope=\"col\" class=\"number\">Second of the source</th><th scope=\"col\" class=\"number\">"
                        "Offset, ms</th><th scope=\"col\" class=\"number\">Sound later than sent, ms</th><th "
                        "scope=\"col\" class=\"number\">Picture later than sent, ms</th></tr></thead><tbody>\n";
    size_t rows = report.at("/offsets").size();
    for (size_t i = 0; i < std::min(rows, kMostDots); i++) {
        std::string key = "/offsets/" + std::to_string(i);
        table += "<tr><td class=\"number\">" + report.data(key + "/source_s", kOffsetFormat) +
                 "</td><td class=\"number\">" + report.data(key + "/offset_ms", kSignedFormat) +
                 "</td><td class=\"number\">" + report.data(key + "/sound_latency_ms", kOffsetFormat) +
                 "</td><td class=\"number\">" + report.data(key + "/picture_latency_ms", kOffsetFormat) +
                 "</td></tr>\n";
    }
    return table + "</tbody></table>" +
           (rows > kMostDots ? "<p>And so on: " + std::to_string(rows) + " in all.</p>" : "") + "</details>\n";
}

std::string sync_section(const Report& report)
{
    if (raw(report))
        return "<section><h2>Lip sync</h2>\n<p>The sound went past the player, as it came: there is no offset.</p>"
               "</section>\n";
    if (foreign(report))
        return "<section><h2>Lip sync</h2>\n<p>Not measured: when the captured source sent what is not known.</p>"
               "</section>\n";
    std::string caption =
        std::string(report.at("/offsets").size() > kMostDots ? "Dots for some of " : "One dot for each of ") +
        report.data("/offset/count") + " instants, of " + report.data("/instants") +
        " that the source has there. Above zero the sound comes before its picture. ITU-R BT.1359: " +
        report.data("/offset/bt1359/undetectable") + " undetectable, " + report.data("/offset/bt1359/acceptable") +
        " detectable yet acceptable, " + report.data("/offset/bt1359/unacceptable") + " unacceptable.";
    std::string keys = "<ul class=\"keys\">" + key_of("r37", "EBU R37: −60 to +40 ms") +
                       key_of("detectable", "BT.1359 not detectable: −125 to +45 ms") +
                       key_of("acceptable", "BT.1359 acceptable: −185 to +90 ms") +
                       key_of("unacceptable", "not acceptable") + "</ul>\n";
    std::string described = report.at("/offsets").empty()
                                ? std::string("Nothing was measured")
                                : "Mean " + signed_number(report.real("/offset/mean_ms"), 1) + " ms, 95 % within " +
                                      signed_number(report.real("/offset/p95_ms"), 1) + " ms, worst " +
                                      signed_number(report.real("/offset/worst_ms"), 1) + " ms";
    return "<section><h2>Lip sync</h2>\n" +
           figure("Offset between sound and picture", caption,
                  keys + offset_chart(report).str({"offset-chart", "Offset of each instant", described},
                                                  "s of the source", "ms")) +
           offset_table(report) + "</section>\n";
}

// --- Pictures -----------------------------------------------------------------

struct Bar {
    std::string name;
    int64_t count;
    bool expected;
};

std::string bars_of(const std::vector<Bar>& bars, const std::string& id)
{
    int64_t most = 1;
    for (const Bar& bar : bars)
        most = std::max(most, bar.count);
    std::string list = "<dl class=\"bars\" id=\"" + id + "\">\n";
    for (const Bar& bar : bars) {
        double share = kLongestBar * static_cast<double>(bar.count) / static_cast<double>(most);
        list += "<dt>" + bar.name + "</dt><dd" + (bar.expected ? "" : " class=\"odd-one\"") +
                "><i style=\"width:" + percent(share) + "\"></i><data value=\"" + std::to_string(bar.count) + "\">" +
                std::to_string(bar.count) + "</data></dd>\n";
    }
    return list + "</dl>";
}

/// Those that stayed longer than there are rows for, together.
void add_rest(int64_t rest, const std::string& name, std::vector<Bar>* bars)
{
    if (rest > 0)
        bars->push_back({name, rest, false});
}

std::vector<Bar> vblank_bars(const Report& report, double vblanks_per_picture)
{
    double vblank_ms = 1e3 / report.real("/run/display_rate");
    std::vector<Bar> bars;
    int64_t rest = 0;
    const json& stayed = report.at("/pictures/settled/stayed_vblanks");
    for (size_t vblanks = 1; vblanks < stayed.size(); vblanks++) {
        auto count = stayed[vblanks].get<int64_t>();
        if (count == 0)
            continue;
        auto held = static_cast<double>(vblanks);
        bool expected = held > vblanks_per_picture - 1 && held < vblanks_per_picture + 1;
        if (bars.size() < kMostBars)
            bars.push_back({std::to_string(vblanks) + (vblanks == 1 ? " blank, " : " blanks, ") +
                                number(held * vblank_ms, 1) + " ms",
                            count, expected});
        else
            rest += count;
    }
    add_rest(rest, "longer", &bars);
    return bars;
}

std::vector<Bar> stay_bars(const std::vector<StayBin>& bins)
{
    std::vector<Bar> bars;
    for (const StayBin& bin : bins)
        bars.push_back({bin.last ? "from " + number(bin.from_ms, 0) + " ms"
                                 : number(bin.from_ms, 0) + " to " + number(bin.to_ms, 0) + " ms",
                        bin.count, true});
    return bars;
}

std::string pictures_section(const Page& page, const Report& report)
{
    std::string caption = page.paced
                              ? "Settled pictures by the vertical blanks for which they were seen; the rates dictate " +
                                    number(page.vblanks_per_picture, 3) +
                                    " on average. Beyond them: " + report.data("/pictures/settled/excess_unseen") +
                                    " unseen, " + report.data("/pictures/settled/excess_repeats") + " repeats."
                              : "Settled pictures by the time until the next one was seen; this display has no "
                                "vertical blanks.";
    std::vector<Bar> bars = page.paced ? vblank_bars(report, page.vblanks_per_picture) : stay_bars(page.view.stayed);
    return "<section><h2>Pictures</h2>\n<div class=\"pair\"><section>" +
           figure("Time on screen", caption,
                  bars.empty() ? "<p class=\"quiet\">No picture was seen.</p>" : bars_of(bars, "stayed")) +
           "</section><section><h3>What became of them</h3>\n" + figure_table(report, {Section::pictures}) +
           "</section></div></section>\n";
}

// --- Sound --------------------------------------------------------------------

Scale time_scale(const std::vector<CurvePoint>& curve, const Report& report)
{
    std::vector<double> ends;
    if (!curve.empty())
        ends = {curve.front().at_s, curve.back().at_s};
    return Scale::around(ends, 0, std::max(report.real("/seconds"), 1.0), -1e6, 1e6);
}

std::vector<double> settled_values(const std::vector<CurvePoint>& curve, const TraceView& view)
{
    std::vector<double> values;
    for (const CurvePoint& point : curve)
        if (point.at_s >= view.settled_s && point.at_s < view.end_s) {
            values.push_back(point.least);
            values.push_back(point.most);
        }
    return values;
}

std::string over_time(const Page& page, const Report& report, const std::vector<CurvePoint>& curve, const Scale& y,
                      const std::string& css, const ChartText& text)
{
    if (curve.empty())
        return "<p class=\"quiet\">Nothing was played.</p>";
    Chart chart(time_scale(curve, report), y, kChartPx * 2 / 3);
    double step_s = (curve.back().at_s - curve.front().at_s) / static_cast<double>(curve.size());
    for (double at_s : page.view.opened_s)
        chart.moment(at_s, "moment", "the sound device was opened");
    for (const json& recovery : report.at("/recoveries"))
        chart.moment(page.view.player_opened_s + real(recovery.value("at_s", json())), "broke",
                     text_of(recovery.value("device", json())) + ": " + text_of(recovery.value("kind", json())));
    chart.curve(curve, css, std::max(kCurveGapS, 3 * step_s));
    return chart.str(text, "s of the source", "ms");
}

std::string spread_text(const Spread& spread, int decimals)
{
    if (spread.count == 0)
        return "Not measured";
    return "Settled: " + number(spread.least, decimals) + " to " + number(spread.most, decimals) + " ms, median " +
           number(spread.median, decimals) + " ms";
}

std::string queue_figure(const Page& page, const Report& report)
{
    const TraceView& view = page.view;
    std::vector<double> values;
    for (const CurvePoint& point : view.queue_ms)
        values.push_back(1.15 * point.most);
    std::string spread = spread_text(view.queue, 1) + ".";
    return figure("Audio queue",
                  "What the sound device had to play after each write, as it told; dashed: it was opened" +
                      std::string(is_nothing(report.at("/recoveries")) ? ". " : "; red: a device failed. ") + spread +
                      " Underruns: " + report.data("/sound/underruns") + ", and " +
                      report.data("/sound/underruns_first_second") + " in the first second.",
                  over_time(page, report, view.queue_ms, Scale::around(values, 0, 100, 0, kQueueLimitMs), "queue",
                            {"queue-chart", "Audio queue over time", spread}));
}

std::string clock_figure(const Page& page, const Report& report)
{
    const TraceView& view = page.view;
    Scale y = Scale::around(settled_values(view.deviation_ms, view), -kLeastDeviationMs, kLeastDeviationMs,
                            -kDeviationLimitMs, kDeviationLimitMs);
    std::string spread = spread_text(view.deviation, 2) + ".";
    std::string drift =
        view.drift_ppm ? " Drift against the source: " + signed_number(*view.drift_ppm, 1) + " ppm." : "";
    return figure("Audio clock against the source",
                  "The time stamp being heard (end of what was written, less the queue) against the source's clock, "
                  "from where it lies by the median; above zero it is ahead. " +
                      spread + drift,
                  over_time(page, report, view.deviation_ms, y, "clock",
                            {"clock-chart", "Deviation of the audio clock over time", spread + drift}));
}

std::string sound_figures(const Report& report)
{
    return "<h3>Samples, devices and resets</h3>" + figure_table(report, {Section::sound, Section::link});
}

/// Where it went past the player.
std::string raw_sound(const Report& report)
{
    if (report.at("/link/raw/compared") != true)
        return "<p>It went past the player. What arrived was not compared.</p>";
    return "<p>It went past the player: " + report.data("/link/raw/bursts") + " bursts in " +
           report.data("/link/raw/frames") + " frames arrived at the output, different from the source's " +
           report.data("/link/raw/different") + ", gaps " + report.data("/link/raw/gaps") + ".</p>";
}

std::string sound_section(const Page& page, const Report& report)
{
    return "<section><h2>Sound</h2>\n" +
           (raw(report) ? raw_sound(report) : queue_figure(page, report) + clock_figure(page, report)) +
           sound_figures(report) + "</section>\n";
}

// --- The rest -----------------------------------------------------------------

std::string timeline_section(const Page& page)
{
    const Timeline& timeline = page.view.timeline;
    std::string chosen =
        timeline.chosen ? "As asked for." : "A second like most of the settled ones (--html-at chooses another).";
    return "<section><h2>One second of play</h2>\n" +
           figure("From second " + number(timeline.from_s, 2) + " to second " + number(timeline.to_s, 2) +
                      " of the source",
                  chosen + " Point at a mark for its time.",
                  "<div class=\"wide\" role=\"region\" aria-label=\"Timeline, scrolls sideways\" tabindex=\"0\">" +
                      timeline_chart(timeline) + "</div>") +
           "</section>\n";
}

/// What broke and came back, if the run tells of any.
std::string recoveries_section(const Report& report)
{
    const json& recoveries = report.at("/recoveries");
    const json& outages = report.at("/pictures/outages");
    std::string tables;
    if (recoveries.is_array() && !recoveries.empty())
        tables += "<h3>Sound devices</h3>\n" + table_of(recoveries, {{"at_s", "Seconds after opening"},
                                                                     {"device", "Device"},
                                                                     {"kind", "What happened"},
                                                                     {"device_back_ms", "Device back after, ms"},
                                                                     {"sound_back_ms", "Sound back after, ms"}});
    if (outages.is_array() && !outages.empty())
        tables += "<h3>Display</h3>\n" + table_of(outages, {{"at_s", "Seconds after opening"},
                                                            {"reason", "What happened"},
                                                            {"lasted_s", "Back after, s"}});
    const json& announced = report.at("/link/announced");
    if (announced.is_array() && !announced.empty())
        tables += "<h3>Announcements</h3>\n" +
                  table_of(announced, {{"at_s", "Seconds after opening"}, {"state", "Announced"}});
    return tables.empty()
               ? ""
               : "<section id=\"recoveries\"><h2>What happened to the devices</h2>\n" + tables + "</section>\n";
}

std::string machine_section(const Report& report)
{
    constexpr Format kPercent = {2, " %", false, 100};
    std::vector<std::pair<double, std::string>> threads;
    for (const auto& entry : report.at("/cpu_by_thread").items())
        threads.emplace_back(real(entry.value()), entry.key());
    std::sort(threads.rbegin(), threads.rend());
    std::string list = "<section><h2>Machine</h2>\n" + figure_table(report, {Section::machine}) +
                       "<h3>Processor time by thread</h3>\n<dl class=\"bars\">\n";
    for (const auto& [share, name] : threads) {
        std::string key = (json::json_pointer("/cpu_by_thread") / name).to_string();
        double length = threads.front().first > 0 ? kLongestBar * share / threads.front().first : 0;
        list += "<dt>" + escape(name) + "</dt><dd><i style=\"width:" + percent(length) + "\"></i><span>" +
                report.data(key, kPercent) + " %</span></dd>\n";
    }
    return list + "</dl></section>\n";
}

std::string footer(const Page& page)
{
    std::string lost = page.view.lost > 0 ? " The record of events was full: " + std::to_string(page.view.lost) +
                                                " are not in the charts."
                                          : "";
    std::string unmatched = page.view.unmatched > 0
                                ? " " + std::to_string(page.view.unmatched) +
                                      " blocks at the sound device were not the host's: without clock."
                                : "";
    return "<footer><p>" + escape(page.made) + "." + lost + unmatched +
           " The report for programs is in this page: script elements “report” and “trace”.</p></footer>\n";
}

std::string data_block(const std::string& id, const json& data)
{
    return "<script type=\"application/json\" id=\"" + id + "\">" +
           escape_json(data.dump(-1, ' ', false, json::error_handler_t::replace)) + "</script>\n";
}

} // namespace

std::string page_text(const Page& page)
{
    Report report(page.report);
    std::string title = std::string(verdict_mark(report).word) + ": " + text_of(report.at("/run/programme"));
    return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
           "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
           "<link rel=\"icon\" href=\"data:,\">\n<title>" +
           title + "</title>\n<style>" + kPageStyle + "</style>\n</head>\n<body>\n" + chart_shapes() + "<main>\n" +
           heading(report) + tiles(report) + "<div class=\"pair\">" + limits(report) + run_table(report) + "</div>\n" +
           sync_section(report) + pictures_section(page, report) + sound_section(page, report) +
           timeline_section(page) + recoveries_section(report) + machine_section(report) + "</main>\n" + footer(page) +
           data_block("report", page.report) + data_block("trace", to_json(page.view)) + "</body>\n</html>\n";
}

bool write_page(const Page& page, const std::string& path, std::string* error)
{
    std::ofstream out(path);
    out << page_text(page);
    out.close();
    if (out)
        return true;
    *error = path + ": " + std::strerror(errno);
    return false;
}

std::string here_and_now()
{
    char when[64] = "";
    std::time_t now = std::time(nullptr);
    std::tm utc = {};
    gmtime_r(&now, &utc);
    std::strftime(when, sizeof when, "%Y-%m-%d %H:%M UTC", &utc);
    utsname machine = {};
    uname(&machine);
    return std::string("hdmi-player-play, ") + when + ", " + machine.sysname + " " + machine.release + " on " +
           machine.machine;
}

} // namespace play
