// SPDX-License-Identifier: MIT
/**
 * @file
 * Charts as SVG inside of a page. Places are percentages across and pixels
 * down: a chart fits any width with its letters at their size.
 */
#pragma once

#include <string>
#include <vector>

namespace play
{

/// From values to their places along an axis.
class Scale
{
public:
    /// @p least to @p most; if the two are equal, a range around them.
    Scale(double least, double most);
    /// From @p least to @p most, and further as far as @p values need, but not beyond @p lowest and @p highest.
    static Scale around(const std::vector<double>& values, double least, double most, double lowest, double highest);

    double least() const { return least_; }
    double most() const { return most_; }
    bool contains(double value) const { return value >= least_ && value <= most_; }
    /// 0 to 1; values outside lie at the nearer end.
    double place(double value) const;
    /// The same, but values outside lie outside, by a little.
    double place_beyond(double value) const;
    /// Round values inside, some @p about of them.
    std::vector<double> ticks(int about) const;
    /// Decimals that tell those ticks apart.
    int decimals(int about) const;

private:
    double step(int about) const;

    double least_;
    double most_;
};

/// A point of a curve, or the range of the values that it stands for.
struct CurvePoint {
    double at_s;
    double least;
    double most;
};

/// Text for a reader who cannot see the chart.
struct ChartText {
    std::string id; ///< unique in the page
    std::string title;
    std::string description;
};

/// One chart. What is added later is drawn in front.
class Chart
{
public:
    Chart(Scale x, Scale y, int height_px);

    void band(double from_y, double to_y, const std::string& css);
    /// A line across; the label at its right end, above it, or below.
    void level(double y, const std::string& css, const std::string& label = "", bool below = false);
    /// A line down, and what it is.
    void moment(double x, const std::string& css, const std::string& title);
    /// A dot, or an arrow at the edge that it lies beyond.
    void dot(double x, double y, const std::string& css, const std::string& title);
    /// Broken where nothing is known for longer than @p gap.
    void curve(const std::vector<CurvePoint>& points, const std::string& css, double gap);

    std::string str(const ChartText& text, const std::string& x_unit, const std::string& y_unit) const;

private:
    double down(double y) const;
    std::string axes() const;
    std::string labels_below(const std::string& unit) const;
    std::string labels_beside(const std::string& unit) const;
    std::string outline(const std::vector<CurvePoint>& points, size_t begin, size_t end) const;

    Scale x_;
    Scale y_;
    int height_;
    std::string back_;
    std::string front_;
};

/// The shapes that charts refer to; once in a page.
std::string chart_shapes();
/// The beginning of an SVG element that is a picture with a text.
std::string picture_tag(const ChartText& text, const std::string& css, int height_px);

} // namespace play
