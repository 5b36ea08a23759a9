// SPDX-License-Identifier: MIT
#include "report/chart.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "report/markup.h"

namespace play
{
namespace
{

/// Height of what stands below a chart: ticks, numbers, unit.
constexpr int footer_px = 38;
/// Room above, so that the topmost number is not cut.
constexpr int header_px = 8;
constexpr int x_ticks = 10;
constexpr int pixels_per_y_tick = 32;
/// Width of the curves' own coordinates.
constexpr double curve_units = 1000;

std::string with_title(const std::string& tag, const std::string& attributes, const std::string& title)
{
    return "<" + tag + " " + attributes +
           (title.empty() ? "/>" : "><title>" + escape(title) + "</title></" + tag + ">");
}

} // namespace

Scale::Scale(double least, double most) : m_least(std::min(least, most)), m_most(std::max(least, most))
{
    if (!std::isfinite(least) || !std::isfinite(most) || std::abs(least) > 1e15 || std::abs(most) > 1e15) {
        m_least = 0;
        m_most = 1;
    }
    // Below that, ticks would differ by less than a double can tell.
    double smallest = std::max({std::abs(m_least), std::abs(m_most), 1e-3}) * 1e-9;
    if (m_most - m_least < smallest) {
        m_least -= 0.5;
        m_most += 0.5;
    }
}

Scale Scale::around(const std::vector<double>& values, double least, double most, double lowest, double highest)
{
    // So that a dot at the edge is whole.
    constexpr double margin = 0.05;
    double from = least;
    double to = most;
    for (double value : values) {
        if (!std::isfinite(value))
            continue;
        double room = margin * (most - least);
        from = std::min(from, value - room);
        to = std::max(to, value + room);
    }
    return {std::max(from, lowest), std::min(to, highest)};
}

double Scale::place(double value) const { return std::clamp(place_beyond(value), 0.0, 1.0); }

double Scale::place_beyond(double value) const
{
    constexpr double far = 10;
    if (std::isnan(value))
        return 0;
    return std::clamp((value - m_least) / (m_most - m_least), -far, far);
}

double Scale::step(int about) const
{
    double wanted = (m_most - m_least) / std::max(about, 1);
    double power = std::pow(10, std::floor(std::log10(wanted)));
    for (double digit : {1.0, 2.0, 5.0})
        if (digit * power >= wanted)
            return digit * power;
    return 10 * power;
}

std::vector<double> Scale::ticks(int about) const
{
    double by = step(about);
    std::vector<double> ticks;
    auto last = static_cast<int64_t>(std::floor(m_most / by + 1e-9));
    for (auto i = static_cast<int64_t>(std::ceil(m_least / by - 1e-9)); i <= last; i++)
        ticks.push_back(static_cast<double>(i) * by);
    return ticks;
}

int Scale::decimals(int about) const
{
    return std::max(0, -static_cast<int>(std::floor(std::log10(step(about)) + 1e-9)));
}

Chart::Chart(Scale x, Scale y, int height_px) : m_x(x), m_y(y), m_height(height_px) {}

double Chart::down(double y) const { return header_px + (1 - m_y.place(y)) * m_height; }

void Chart::band(double from_y, double to_y, const std::string& css)
{
    double top = down(to_y);
    m_back += "<rect x=\"0\" width=\"100%\" y=\"" + plain(top) + "\" height=\"" + plain(down(from_y) - top) +
              "\" class=\"" + css + "\"/>";
}

void Chart::level(double y, const std::string& css, const std::string& label, bool below)
{
    constexpr int above_px = -4;
    constexpr int below_px = 13;
    if (!m_y.contains(y))
        return;
    std::string at = plain(down(y));
    m_back += "<line x1=\"0\" x2=\"100%\" y1=\"" + at + "\" y2=\"" + at + "\" class=\"" + css + "\"/>";
    if (!label.empty())
        m_front += "<text x=\"99.5%\" y=\"" + plain(down(y) + (below ? below_px : above_px)) + "\" class=\"end " + css +
                   "\">" + escape(label) + "</text>";
}

void Chart::moment(double x, const std::string& css, const std::string& title)
{
    if (!m_x.contains(x))
        return;
    std::string at = percent(m_x.place(x));
    m_front += with_title("line",
                          "x1=\"" + at + "\" x2=\"" + at + "\" y1=\"" + plain(header_px) + "\" y2=\"" +
                              plain(header_px + m_height) + "\" class=\"" + css + "\"",
                          title);
}

void Chart::dot(double x, double y, const std::string& css, const std::string& title)
{
    std::string at = percent(m_x.place(x));
    if (m_y.contains(y))
        m_front += with_title("circle", "cx=\"" + at + "\" cy=\"" + plain(down(y)) + "\" r=\"4\" class=\"" + css + "\"",
                              title);
    else
        m_front += with_title("use",
                              "href=\"#" + std::string(y > m_y.most() ? "above" : "below") + "\" x=\"" + at +
                                  "\" y=\"" + plain(down(y)) + "\" class=\"" + css + "\"",
                              title);
}

/// There along the most, and back along the least.
std::string Chart::outline(const std::vector<CurvePoint>& points, size_t begin, size_t end) const
{
    auto place = [this](double x, double y) {
        double y_px = header_px + (1 - m_y.place_beyond(y)) * m_height;
        return plain(m_x.place(x) * curve_units, 1) + " " + plain(y_px, 1);
    };
    std::string path;
    bool thin = true;
    for (size_t i = begin; i < end; i++) {
        path += (i == begin ? "M" : "L") + place(points[i].at_s, points[i].most);
        thin = thin && points[i].least == points[i].most;
    }
    if (thin)
        return path;
    for (size_t i = end; i > begin; i--)
        path += "L" + place(points[i - 1].at_s, points[i - 1].least);
    return path + "Z";
}

void Chart::curve(const std::vector<CurvePoint>& points, const std::string& css, double gap)
{
    std::string path;
    for (size_t begin = 0; begin < points.size();) {
        size_t end = begin + 1;
        while (end < points.size() && points[end].at_s - points[end - 1].at_s <= gap)
            end++;
        path += outline(points, begin, end);
        begin = end;
    }
    if (path.empty())
        return;
    // What lies beyond the scale is cut off, but a line at its very end is not.
    constexpr int line_px = 2;
    std::string shown = plain(m_height + 2 * line_px);
    m_front += "<svg x=\"0\" y=\"" + plain(header_px - line_px) + "\" width=\"100%\" height=\"" + shown +
               "\" viewBox=\"0 " + plain(header_px - line_px) + " " + plain(curve_units) + " " + shown +
               "\" preserveAspectRatio=\"none\"><path class=\"" + css + "\" d=\"" + path + "\"/></svg>";
}

std::string Chart::axes() const
{
    std::string lines;
    for (double tick : m_y.ticks(m_height / pixels_per_y_tick)) {
        std::string at = plain(down(tick));
        lines += "<line x1=\"0\" x2=\"100%\" y1=\"" + at + "\" y2=\"" + at + "\" class=\"grid\"/>";
    }
    std::string bottom = plain(header_px + m_height);
    return lines + "<line x1=\"0\" x2=\"100%\" y1=\"" + bottom + "\" y2=\"" + bottom + "\" class=\"axis\"/>";
}

std::string Chart::labels_below(const std::string& unit) const
{
    std::string labels;
    int decimals = m_x.decimals(x_ticks);
    int bottom = header_px + m_height;
    bool minor = false;
    for (double tick : m_x.ticks(x_ticks)) {
        std::string at = percent(m_x.place(tick));
        labels += "<line x1=\"" + at + "\" x2=\"" + at + "\" y1=\"" + plain(bottom) + "\" y2=\"" + plain(bottom + 4) +
                  "\" class=\"axis\"/><text x=\"" + at + "\" y=\"" + plain(bottom + 17) + "\" class=\"middle" +
                  (minor ? " minor" : "") + "\">" + number(tick, decimals) + "</text>";
        minor = !minor;
    }
    return labels + "<text x=\"100%\" y=\"" + plain(bottom + 33) + "\" class=\"end unit\">" + escape(unit) + "</text>";
}

std::string Chart::labels_beside(const std::string& unit) const
{
    constexpr int column_px = 44;
    constexpr int baseline_px = 4;
    int about = m_height / pixels_per_y_tick;
    std::string labels;
    for (double tick : m_y.ticks(about))
        labels += "<text x=\"" + plain(column_px - 6) + "\" y=\"" + plain(down(tick) + baseline_px) +
                  "\" class=\"end\">" + number(tick, m_y.decimals(about)) + "</text>";
    return "<svg class=\"beside\" aria-hidden=\"true\" width=\"" + plain(column_px, 0) + "\" height=\"" +
           plain(header_px + m_height + footer_px, 0) + "\">" + labels + "<text x=\"" + plain(column_px - 6) +
           "\" y=\"" + plain(header_px + m_height + 33) + "\" class=\"end unit\">" + escape(unit) + "</text></svg>";
}

std::string Chart::str(const ChartText& text, const std::string& x_unit, const std::string& y_unit) const
{
    return "<div class=\"plot\">" + labels_beside(y_unit) +
           picture_tag(text, "area", header_px + m_height + footer_px) + m_back + axes() + m_front +
           labels_below(x_unit) + "</svg></div>";
}

std::string chart_shapes()
{
    return "<svg width=\"0\" height=\"0\" aria-hidden=\"true\" class=\"shapes\"><defs>"
           "<path id=\"above\" d=\"M-6 9 L6 9 L0 0 Z\"/><path id=\"below\" d=\"M-6 -9 L6 -9 L0 0 Z\"/>"
           "<path id=\"diamond\" d=\"M0 -6 L6 0 L0 6 L-6 0 Z\"/>"
           "<path id=\"cross\" d=\"M-4 -4 L4 4 M-4 4 L4 -4\"/></defs></svg>";
}

std::string picture_tag(const ChartText& text, const std::string& css, int height_px)
{
    // A label, not a title element: that would pop up wherever the pointer is.
    return "<svg id=\"" + text.id + "\" class=\"" + css + "\" role=\"img\" width=\"100%\" height=\"" +
           plain(height_px, 0) + "\" aria-label=\"" + escape(text.title + ". " + text.description) + "\">";
}

} // namespace play
