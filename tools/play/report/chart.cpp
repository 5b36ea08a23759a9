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
constexpr int kFooterPx = 38;
/// Room above, so that the topmost number is not cut.
constexpr int kHeaderPx = 8;
constexpr int kXTicks = 10;
constexpr int kPixelsPerYTick = 32;
/// Width of the curves' own coordinates.
constexpr double kCurveUnits = 1000;

std::string with_title(const std::string& tag, const std::string& attributes, const std::string& title)
{
    return "<" + tag + " " + attributes +
           (title.empty() ? "/>" : "><title>" + escape(title) + "</title></" + tag + ">");
}

} // namespace

Scale::Scale(double least, double most) : least_(std::min(least, most)), most_(std::max(least, most))
{
    if (!std::isfinite(least) || !std::isfinite(most) || std::abs(least) > 1e15 || std::abs(most) > 1e15) {
        least_ = 0;
        most_ = 1;
    }
    // Below that, ticks would differ by less than a double can tell.
    double smallest = std::max({std::abs(least_), std::abs(most_), 1e-3}) * 1e-9;
    if (most_ - least_ < smallest) {
        least_ -= 0.5;
        most_ += 0.5;
    }
}

Scale Scale::around(const std::vector<double>& values, double least, double most, double lowest, double highest)
{
    // So that a dot at the edge is whole.
    constexpr double kMargin = 0.05;
    double from = least;
    double to = most;
    for (double value : values) {
        if (!std::isfinite(value))
            continue;
        double room = kMargin * (most - least);
        from = std::min(from, value - room);
        to = std::max(to, value + room);
    }
    return {std::max(from, lowest), std::min(to, highest)};
}

double Scale::place(double value) const { return std::clamp(place_beyond(value), 0.0, 1.0); }

double Scale::place_beyond(double value) const
{
    constexpr double kFar = 10;
    if (std::isnan(value))
        return 0;
    return std::clamp((value - least_) / (most_ - least_), -kFar, kFar);
}

double Scale::step(int about) const
{
    double wanted = (most_ - least_) / std::max(about, 1);
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
    auto last = static_cast<int64_t>(std::floor(most_ / by + 1e-9));
    for (auto i = static_cast<int64_t>(std::ceil(least_ / by - 1e-9)); i <= last; i++)
        ticks.push_back(static_cast<double>(i) * by);
    return ticks;
}

int Scale::decimals(int about) const
{
    return std::max(0, -static_cast<int>(std::floor(std::log10(step(about)) + 1e-9)));
}

Chart::Chart(Scale x, Scale y, int height_px) : x_(x), y_(y), height_(height_px) {}

double Chart::down(double y) const { return kHeaderPx + (1 - y_.place(y)) * height_; }

void Chart::band(double from_y, double to_y, const std::string& css)
{
    double top = down(to_y);
    back_ += "<rect x=\"0\" width=\"100%\" y=\"" + plain(top) + "\" height=\"" + plain(down(from_y) - top) +
             "\" class=\"" + css + "\"/>";
}

void Chart::level(double y, const std::string& css, const std::string& label, bool below)
{
    constexpr int kAbovePx = -4;
    constexpr int kBelowPx = 13;
    if (!y_.contains(y))
        return;
    std::string at = plain(down(y));
    back_ += "<line x1=\"0\" x2=\"100%\" y1=\"" + at + "\" y2=\"" + at + "\" class=\"" + css + "\"/>";
    if (!label.empty())
        front_ += "<text x=\"99.5%\" y=\"" + plain(down(y) + (below ? kBelowPx : kAbovePx)) + "\" class=\"end " + css +
                  "\">" + escape(label) + "</text>";
}

void Chart::moment(double x, const std::string& css, const std::string& title)
{
    if (!x_.contains(x))
        return;
    std::string at = percent(x_.place(x));
    front_ += with_title("line",
                         "x1=\"" + at + "\" x2=\"" + at + "\" y1=\"" + plain(kHeaderPx) + "\" y2=\"" +
                             plain(kHeaderPx + height_) + "\" class=\"" + css + "\"",
                         title);
}

void Chart::dot(double x, double y, const std::string& css, const std::string& title)
{
    std::string at = percent(x_.place(x));
    if (y_.contains(y))
        front_ += with_title("circle", "cx=\"" + at + "\" cy=\"" + plain(down(y)) + "\" r=\"4\" class=\"" + css + "\"",
                             title);
    else
        front_ += with_title("use",
                             "href=\"#" + std::string(y > y_.most() ? "above" : "below") + "\" x=\"" + at + "\" y=\"" +
                                 plain(down(y)) + "\" class=\"" + css + "\"",
                             title);
}

/// There along the most, and back along the least.
std::string Chart::outline(const std::vector<CurvePoint>& points, size_t begin, size_t end) const
{
    auto place = [this](double x, double y) {
        double y_px = kHeaderPx + (1 - y_.place_beyond(y)) * height_;
        return plain(x_.place(x) * kCurveUnits, 1) + " " + plain(y_px, 1);
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
    constexpr int kLinePx = 2;
    std::string shown = plain(height_ + 2 * kLinePx);
    front_ += "<svg x=\"0\" y=\"" + plain(kHeaderPx - kLinePx) + "\" width=\"100%\" height=\"" + shown +
              "\" viewBox=\"0 " + plain(kHeaderPx - kLinePx) + " " + plain(kCurveUnits) + " " + shown +
              "\" preserveAspectRatio=\"none\"><path class=\"" + css + "\" d=\"" + path + "\"/></svg>";
}

std::string Chart::axes() const
{
    std::string lines;
    for (double tick : y_.ticks(height_ / kPixelsPerYTick)) {
        std::string at = plain(down(tick));
        lines += "<line x1=\"0\" x2=\"100%\" y1=\"" + at + "\" y2=\"" + at + "\" class=\"grid\"/>";
    }
    std::string bottom = plain(kHeaderPx + height_);
    return lines + "<line x1=\"0\" x2=\"100%\" y1=\"" + bottom + "\" y2=\"" + bottom + "\" class=\"axis\"/>";
}

std::string Chart::labels_below(const std::string& unit) const
{
    std::string labels;
    int decimals = x_.decimals(kXTicks);
    int bottom = kHeaderPx + height_;
    bool minor = false;
    for (double tick : x_.ticks(kXTicks)) {
        std::string at = percent(x_.place(tick));
        labels += "<line x1=\"" + at + "\" x2=\"" + at + "\" y1=\"" + plain(bottom) + "\" y2=\"" + plain(bottom + 4) +
                  "\" class=\"axis\"/><text x=\"" + at + "\" y=\"" + plain(bottom + 17) + "\" class=\"middle" +
                  (minor ? " minor" : "") + "\">" + number(tick, decimals) + "</text>";
        minor = !minor;
    }
    return labels + "<text x=\"100%\" y=\"" + plain(bottom + 33) + "\" class=\"end unit\">" + escape(unit) + "</text>";
}

std::string Chart::labels_beside(const std::string& unit) const
{
    constexpr int kColumnPx = 44;
    constexpr int kBaselinePx = 4;
    int about = height_ / kPixelsPerYTick;
    std::string labels;
    for (double tick : y_.ticks(about))
        labels += "<text x=\"" + plain(kColumnPx - 6) + "\" y=\"" + plain(down(tick) + kBaselinePx) +
                  "\" class=\"end\">" + number(tick, y_.decimals(about)) + "</text>";
    return "<svg class=\"beside\" aria-hidden=\"true\" width=\"" + plain(kColumnPx, 0) + "\" height=\"" +
           plain(kHeaderPx + height_ + kFooterPx, 0) + "\">" + labels + "<text x=\"" + plain(kColumnPx - 6) +
           "\" y=\"" + plain(kHeaderPx + height_ + 33) + "\" class=\"end unit\">" + escape(unit) + "</text></svg>";
}

std::string Chart::str(const ChartText& text, const std::string& x_unit, const std::string& y_unit) const
{
    return "<div class=\"plot\">" + labels_beside(y_unit) + picture_tag(text, "area", kHeaderPx + height_ + kFooterPx) +
           back_ + axes() + front_ + labels_below(x_unit) + "</svg></div>";
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
