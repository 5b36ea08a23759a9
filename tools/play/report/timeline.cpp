// SPDX-License-Identifier: MIT
#include "report/timeline.h"

#include <algorithm>
#include <cmath>

#include "report/chart.h"
#include "report/markup.h"

namespace play
{
namespace
{

constexpr int kHeadingPx = 20; ///< of a row: its name
constexpr int kGapPx = 10;     ///< between rows
constexpr int kTicksPx = 24;
constexpr int kBoxesPx = 22;
constexpr int kReadingsPx = 56;
constexpr int kFooterPx = 38;
constexpr int kXTicks = 10;
/// What a number on a picture needs, of a timeline that is as narrow as it gets.
constexpr double kDigitPx = 6.5;
constexpr double kBesideNumberPx = 6;
constexpr double kNarrowestPx = 900;
/// Deviations below that are not worth a taller row.
constexpr double kLeastDeviationMs = 2;
constexpr double kMostDeviationMs = 200;
constexpr double kMostQueueMs = 2000;

/// The rows of one timeline, written from the top down.
class Rows
{
public:
    explicit Rows(const Timeline& timeline) : timeline_(timeline), x_(timeline.from_s, timeline.to_s) {}

    void vblanks();
    void flips();
    void pictures();
    void blocks();
    void queue();
    void clock();
    void meetings();
    std::string str() const;

private:
    struct Reading {
        double at_s;
        double value;
        std::string title;
    };

    void begin(const std::string& name, const std::string& unit, size_t things, int height_px);
    std::string across(double at_s) const { return percent(x_.place(at_s)); }
    void tick(double at_s, const std::string& css, const std::string& title);
    void box(double from_s, double to_s, const std::string& css, const std::string& title);
    void readings(const std::vector<Reading>& values, const Scale& y, const std::string& css);
    std::string axis() const;

    const Timeline& timeline_;
    Scale x_;
    int top_ = 0; ///< of the row under way, below its name
    int bottom_ = 0;
    std::string svg_;
};

std::string at(double s) { return number(s, 4) + " s"; }

void Rows::begin(const std::string& name, const std::string& unit, size_t things, int height_px)
{
    top_ = bottom_ + (bottom_ > 0 ? kGapPx : 0) + kHeadingPx;
    bottom_ = top_ + (things > 0 ? height_px : 0);
    std::string count = things > 0 ? std::to_string(things) + (unit.empty() ? "" : ", " + unit) : "none";
    svg_ += "<text x=\"0\" y=\"" + plain(top_ - 6) + "\"><tspan class=\"name\">" + escape(name) +
            "</tspan><tspan dx=\"8\" class=\"unit\">" + escape(count) + "</tspan></text>";
}

void Rows::tick(double at_s, const std::string& css, const std::string& title)
{
    svg_ += "<line x1=\"" + across(at_s) + "\" x2=\"" + across(at_s) + "\" y1=\"" + plain(top_) + "\" y2=\"" +
            plain(bottom_) + "\" class=\"" + css + "\"><title>" + escape(title) + "</title></line>";
}

void Rows::box(double from_s, double to_s, const std::string& css, const std::string& title)
{
    double width = std::max(x_.place(to_s) - x_.place(from_s), 0.0005);
    svg_ += "<rect x=\"" + across(from_s) + "\" width=\"" + percent(width) + "\" y=\"" + plain(top_) + "\" height=\"" +
            plain(bottom_ - top_) + "\" class=\"" + css + "\"><title>" + escape(title) + "</title></rect>";
}

void Rows::vblanks()
{
    begin("Vertical blanks", "as the display told of them", timeline_.vblanks_s.size(), kTicksPx);
    for (size_t i = 0; i < timeline_.vblanks_s.size(); i++) {
        double at_s = timeline_.vblanks_s[i];
        std::string since =
            i > 0 ? ", " + number((at_s - timeline_.vblanks_s[i - 1]) * 1e3, 3) + " ms after the one before" : "";
        tick(at_s, "vblank", "vertical blank at " + at(at_s) + since);
    }
}

void Rows::flips()
{
    begin("Flips", "what the player gave to the display", timeline_.flips.size(), kTicksPx);
    for (double at_s : timeline_.vblanks_s)
        tick(at_s, "grid", "");
    for (const FlipView& flip : timeline_.flips) {
        std::string picture = "picture " + std::to_string(flip.number);
        tick(flip.at_s, flip.shown ? "flip" : "skipped",
             "flip of " + picture + " at " + at(flip.at_s) +
                 (flip.shown ? "" : ", not shown: coalesced with another flip"));
        if (!flip.shown)
            svg_ += "<use href=\"#cross\" x=\"" + across(flip.at_s) + "\" y=\"" + plain((top_ + bottom_) / 2.0) +
                    "\" class=\"skipped\"/>";
    }
}

void Rows::pictures()
{
    begin("On screen", "each picture from the vertical blank that took it", timeline_.pictures.size(), kBoxesPx);
    std::string numbers; // before the boxes, not between them
    double free_s = timeline_.from_s;
    for (const PictureView& picture : timeline_.pictures) {
        std::string number_text = std::to_string(picture.number);
        std::string css = picture.flash ? "flash" : picture.number % 2 == 0 ? "even" : "odd";
        box(picture.from_s, picture.to_s, css,
            "picture " + number_text + (picture.flash ? " (flash)" : "") + " from " + at(picture.from_s) + " on for " +
                number((picture.to_s - picture.from_s) * 1e3, 2) + " ms");
        double number_px = kDigitPx * static_cast<double>(number_text.size()) + kBesideNumberPx;
        double end_s = picture.from_s + number_px / kNarrowestPx * (timeline_.to_s - timeline_.from_s);
        if (picture.from_s < free_s || end_s > timeline_.to_s)
            continue;
        free_s = end_s;
        numbers += "<text x=\"" + across(picture.from_s) + "\" dx=\"3\" y=\"" + plain(bottom_ - 6) + "\" class=\"in" +
                   (picture.flash ? " on-flash" : "") + "\">" + number_text + "</text>";
    }
    svg_ += numbers;
}

void Rows::blocks()
{
    begin("Blocks written to the sound device", "each as long as it sounds", timeline_.blocks.size(), kBoxesPx);
    bool even = false;
    for (const BlockView& block : timeline_.blocks) {
        box(block.at_s, block.at_s + block.length_ms / 1e3, even ? "block-even" : "block-odd",
            "block of " + number(block.length_ms, 2) + " ms at " + at(block.at_s));
        even = !even;
    }
}

/// Dots, joined.
void Rows::readings(const std::vector<Reading>& values, const Scale& y, const std::string& css)
{
    if (values.empty())
        return;
    auto down = [this, &y](double value) { return plain(top_ + (1 - y.place(value)) * (bottom_ - top_)); };
    svg_ += "<rect x=\"0\" width=\"100%\" y=\"" + plain(top_) + "\" height=\"" + plain(bottom_ - top_) +
            "\" class=\"panel\"/>";
    if (y.contains(0) && y.least() < 0)
        svg_ += "<line x1=\"0\" x2=\"100%\" y1=\"" + down(0) + "\" y2=\"" + down(0) + "\" class=\"grid\"/>";
    for (size_t i = 0; i < values.size(); i++) {
        if (i > 0)
            svg_ += "<line x1=\"" + across(values[i - 1].at_s) + "\" y1=\"" + down(values[i - 1].value) + "\" x2=\"" +
                    across(values[i].at_s) + "\" y2=\"" + down(values[i].value) + "\" class=\"" + css + "\"/>";
        svg_ += "<circle cx=\"" + across(values[i].at_s) + "\" cy=\"" + down(values[i].value) +
                "\" r=\"2.5\" class=\"" + css + "\"><title>" + escape(values[i].title) + "</title></circle>";
    }
}

void Rows::queue()
{
    std::vector<Reading> values;
    double highest = 1;
    for (const BlockView& block : timeline_.blocks) {
        if (!block.queue_ms)
            continue;
        values.push_back({block.at_s, *block.queue_ms,
                          number(*block.queue_ms, 2) + " ms to play after the write at " + at(block.at_s)});
        highest = std::max(highest, *block.queue_ms);
    }
    // Up to a round number above.
    double step = highest > 100 ? 50 : 10;
    double top = std::min(std::ceil(highest * 1.05 / step) * step, kMostQueueMs);
    begin("Audio queue", "what the sound device had to play after each write; 0 to " + number(top, 0) + " ms",
          values.size(), kReadingsPx);
    readings(values, {0, top}, "queue");
}

void Rows::clock()
{
    std::vector<Reading> values;
    double farthest = kLeastDeviationMs;
    for (const BlockView& block : timeline_.blocks) {
        if (!block.deviation_ms)
            continue;
        values.push_back({block.at_s, *block.deviation_ms,
                          "clock " + number(*block.clock_s, 4) + " s at " + at(block.at_s) + ", " +
                              signed_number(*block.deviation_ms, 3) + " ms from where it usually is"});
        farthest = std::max(farthest, std::ceil(std::abs(*block.deviation_ms) * 1.05));
    }
    farthest = std::min(farthest, kMostDeviationMs);
    begin("Audio clock",
          "its deviation from the source's clock after each write; " + number(-farthest, 0) + " to " +
              signed_number(farthest, 0) + " ms",
          values.size(), kReadingsPx);
    readings(values, {-farthest, farthest}, "clock");
}

void Rows::meetings()
{
    constexpr double kLabelGapPx = 10;
    begin("Seen and heard", "light of a flash or picture, and the sound that belongs to it", timeline_.meetings.size(),
          kTicksPx);
    double middle = (top_ + bottom_) / 2.0;
    for (const MeetingView& meeting : timeline_.meetings) {
        std::string y = plain(middle);
        bool left = x_.place(std::max(meeting.seen_s, meeting.heard_s)) > 0.8;
        double beside_s = left ? std::min(meeting.seen_s, meeting.heard_s) : std::max(meeting.seen_s, meeting.heard_s);
        svg_ += "<line x1=\"" + across(meeting.heard_s) + "\" x2=\"" + across(meeting.seen_s) + "\" y1=\"" + y +
                "\" y2=\"" + y + "\" class=\"meeting\"/><use href=\"#diamond\" x=\"" + across(meeting.seen_s) +
                "\" y=\"" + y + "\" class=\"seen\"><title>" + escape("seen at " + at(meeting.seen_s)) +
                "</title></use><circle cx=\"" + across(meeting.heard_s) + "\" cy=\"" + y +
                "\" r=\"5\" class=\"heard\"><title>" + escape("heard at " + at(meeting.heard_s)) +
                "</title></circle><text x=\"" + across(beside_s) + "\" dx=\"" +
                plain(left ? -kLabelGapPx : kLabelGapPx) + "\" y=\"" + plain(middle + 4) + "\" class=\"" +
                (left ? "end" : "start") + "\">" + signed_number(meeting.offset_ms, 1) + " ms: the " +
                (meeting.offset_ms >= 0 ? "sound (dot) before the light (diamond)"
                                        : "light (diamond) before the sound (dot)") +
                "</text>";
    }
}

std::string Rows::axis() const
{
    int bottom = bottom_ + kGapPx;
    std::string axis =
        "<line x1=\"0\" x2=\"100%\" y1=\"" + plain(bottom) + "\" y2=\"" + plain(bottom) + "\" class=\"axis\"/>";
    for (double tick : x_.ticks(kXTicks))
        axis += "<line x1=\"" + across(tick) + "\" x2=\"" + across(tick) + "\" y1=\"" + plain(bottom) + "\" y2=\"" +
                plain(bottom + 4) + "\" class=\"axis\"/><text x=\"" + across(tick) + "\" y=\"" + plain(bottom + 17) +
                "\" class=\"middle\">" + number(tick, x_.decimals(kXTicks)) + "</text>";
    return axis + "<text x=\"100%\" y=\"" + plain(bottom + 33) + "\" class=\"end unit\">s of the source</text>";
}

std::string Rows::str() const
{
    std::string description = std::to_string(timeline_.vblanks_s.size()) + " vertical blanks, " +
                              std::to_string(timeline_.flips.size()) + " flips, " +
                              std::to_string(timeline_.pictures.size()) + " pictures on screen, " +
                              std::to_string(timeline_.blocks.size()) + " blocks written, " +
                              std::to_string(timeline_.meetings.size()) + " instants seen and heard.";
    std::string title =
        "From second " + number(timeline_.from_s, 2) + " to second " + number(timeline_.to_s, 2) + " of the source";
    return picture_tag({"timeline", title, description}, "area", bottom_ + kGapPx + kFooterPx) + svg_ + axis() +
           "</svg>";
}

} // namespace

std::string timeline_chart(const Timeline& timeline)
{
    Rows rows(timeline);
    rows.vblanks();
    rows.flips();
    rows.pictures();
    rows.blocks();
    rows.queue();
    rows.clock();
    rows.meetings();
    return rows.str();
}

} // namespace play
