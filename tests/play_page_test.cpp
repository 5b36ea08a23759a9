// SPDX-License-Identifier: MIT
// The report as a page: what the charts make of a run's events, and that the page says what the report says.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <thread>

#include "host/trace.h"
#include "report/chart.h"
#include "report/markup.h"
#include "report/page.h"
#include "report/report.h"
#include "report/timeline.h"
#include "report/trace_view.h"

using namespace play;
using nlohmann::json;

namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;
constexpr int kRate = 48000;
constexpr int kBlockFrames = 960;
constexpr int64_t kBlockNs = 20 * kMs;

// --- Events -------------------------------------------------------------------

TEST(EventLog, KeepsWhatSeveralThreadsAddAtOnceAndCountsWhatFindsNoRoom)
{
    constexpr int kEach = 5000;
    EventLog<int64_t> log(3 * kEach);
    std::vector<std::thread> threads;
    for (int64_t thread = 0; thread < 4; thread++)
        threads.emplace_back([&log, thread] {
            for (int64_t i = 0; i < kEach; i++)
                log.add(thread * kEach + i);
        });
    for (std::thread& thread : threads)
        thread.join();
    std::vector<int64_t> events = log.events();
    EXPECT_EQ(events.size(), 3u * kEach);
    EXPECT_EQ(std::set<int64_t>(events.begin(), events.end()).size(), events.size()); // none torn, none twice
    EXPECT_EQ(log.lost(), kEach);
}

TEST(EventLog, MarksBlocksByEveryOfTheirBytes)
{
    std::vector<uint8_t> block(kBlockFrames * 4 + 3);
    uint64_t mark = mark_of(block.data(), static_cast<int>(block.size()));
    for (size_t i = 0; i < block.size(); i += 7) {
        block[i] ^= 1;
        EXPECT_NE(mark_of(block.data(), static_cast<int>(block.size())), mark) << i;
        block[i] ^= 1;
    }
}

/// A run in which block k, with time stamp k x 20 ms, is written at k x 20 ms and leaves so much to play.
class Scene : public testing::Test
{
protected:
    Scene()
    {
        scope.source_s = [](int64_t at_ns) { return static_cast<double>(at_ns) / kSecond; };
        scope.settled_s = 1;
        scope.end_s = 19;
        trace.opened.add({0, kRate});
    }

    void hand(int64_t k, int32_t serial = 0, int64_t pts_us = -1)
    {
        trace.handed.add({k * kBlockNs - 5 * kMs, pts_us < 0 ? k * 20000 : pts_us, serial, kBlockFrames, mark(k)});
    }
    void write(int64_t k, int delay_frames, int64_t late_ns = 0)
    {
        trace.written.add({k * kBlockNs + late_ns, kBlockFrames, delay_frames, mark(k)});
    }
    void play(int64_t from, int64_t to, int delay_frames = 4800)
    {
        for (int64_t k = from; k < to; k++) {
            hand(k);
            write(k, delay_frames);
        }
    }
    TraceView view() const { return view_trace(trace, scope, sightings, offsets); }
    void expect_deviation(double least, double most) const
    {
        EXPECT_NEAR(view().deviation.least, least, 1e-6);
        EXPECT_NEAR(view().deviation.most, most, 1e-6);
    }

    static uint64_t mark(int64_t k) { return static_cast<uint64_t>(k) * 77 + 1; }

    Trace trace{20, 60};
    TraceScope scope;
    std::vector<Sighting> sightings;
    std::vector<Offset> offsets;
};

TEST_F(Scene, ClockIsTheEndOfWhatWasWrittenLessTheQueueWhateverWasDiscardedBefore)
{
    play(0, 100);
    for (int64_t k = 100; k < 140; k++)
        hand(k); // discarded
    play(140, 1000);
    trace.written.add({1000 * kBlockNs, kBlockFrames, 4800, 12345}); // none of the host's
    TraceView seen = view();
    EXPECT_EQ(seen.unmatched, 1);
    EXPECT_DOUBLE_EQ(seen.queue.median, 100);
    expect_deviation(0, 0);
    ASSERT_EQ(seen.timeline.blocks.size(), 50u);
    const BlockView& block = seen.timeline.blocks[10];
    EXPECT_NEAR(*block.clock_s, block.at_s + 0.020 - 0.100, 1e-9);
}

TEST_F(Scene, ClockThatLeapsForAMomentIsSeenLeaping)
{
    play(0, 300);
    play(300, 301, 4800 + 480); // the device says that it has 10 ms more to play
    play(301, 500);
    expect_deviation(-10, 0);
}

TEST_F(Scene, EachSerialHasAZeroOfItsOwnAndALateWriteIsNoDeviation)
{
    play(0, 250);
    for (int64_t k = 250; k < 500; k++) {
        hand(k, 1, (k - 250) * 20000);
        // 3 ms late each time: the device has played 3 ms more of what it had.
        write(k, 4800 - 144, 3 * kMs);
    }
    expect_deviation(0, 0);
}

TEST_F(Scene, DriftIsToldInPartsPerMillionOnceThereIsEnoughToTell)
{
    for (int64_t k = 0; k < 1000; k++)
        play(k, k + 1, 4800 - static_cast<int>(std::lround(static_cast<double>(k) * kBlockFrames * 200e-6)));
    ASSERT_TRUE(view().drift_ppm.has_value());
    EXPECT_NEAR(*view().drift_ppm, 200, 5);
    scope.end_s = scope.settled_s + 3;
    EXPECT_FALSE(view().drift_ppm.has_value());
}

TEST_F(Scene, DeviceThatDoesNotTellItsQueueHasNeitherQueueNorClock)
{
    play(0, 500, -1);
    TraceView seen = view();
    EXPECT_EQ(seen.queue.count, 0);
    EXPECT_TRUE(seen.deviation_ms.empty());
    EXPECT_EQ(seen.timeline.blocks.size(), 50u);
}

TEST_F(Scene, LongCurveIsThinnedAndKeepsItsExtremes)
{
    play(0, 777);
    play(777, 778, 9600);
    play(778, 1000);
    std::vector<CurvePoint> curve = view().queue_ms;
    EXPECT_LE(curve.size(), 700u);
    double most = 0;
    for (const CurvePoint& point : curve)
        most = std::max(most, point.most);
    EXPECT_DOUBLE_EQ(most, 200);
}

TEST_F(Scene, TimelineShowsASecondLikeMostUnlessOneIsAskedFor)
{
    play(0, 9 * 50);
    play(11 * 50, 20 * 50); // the two seconds in the middle are silent
    for (int64_t k = 0; k < 20 * 50; k++)
        trace.flips.add({k * kBlockNs, k, true});
    EXPECT_EQ(view().timeline.from_s, 11);
    EXPECT_EQ(view().timeline.flips.size(), 50u);
    scope.timeline_s = 9.5;
    EXPECT_EQ(view().timeline.from_s, 9.5);
    EXPECT_TRUE(view().timeline.blocks.empty());
}

TEST_F(Scene, PictureStaysFromItsVerticalBlankToThatOfTheNext)
{
    scope.display_latency_ns = 76 * kMs;
    scope.timeline_s = 2;
    for (int64_t n = 0; n < 100; n++)
        sightings.push_back({n, n == 50, n * 50 * kMs + 76 * kMs, 3});
    Timeline timeline = view().timeline;
    ASSERT_EQ(timeline.pictures.size(), 20u);
    EXPECT_NEAR(timeline.pictures[0].from_s, 2.0, 1e-9);
    EXPECT_NEAR(timeline.pictures[0].to_s, 2.05, 1e-9);
    EXPECT_FALSE(timeline.pictures[10].flash); // a film has bright pictures too
    scope.flashes = true;
    EXPECT_TRUE(view().timeline.pictures[10].flash);
    scope.paced = false;
    std::vector<StayBin> stayed = view().stayed;
    ASSERT_EQ(stayed.size(), 1u);
    EXPECT_LE(stayed[0].from_ms, 50);
    EXPECT_GT(stayed[0].to_ms, 50 - 1e-9);
}

// --- Charts -------------------------------------------------------------------

TEST(Scale, StaysBoundedWhateverItIsGiven)
{
    const double huge = std::numeric_limits<double>::max();
    const double infinite = std::numeric_limits<double>::infinity();
    const double none = std::nan("");
    const double values[] = {0, 1e-300, -1e-9, 5, 40, -1e6, 1e14, huge, -huge, infinite, -infinite, none};
    for (double least : values)
        for (double most : values) {
            Scale scale(least, most);
            ASSERT_TRUE(std::isfinite(scale.least()) && std::isfinite(scale.most()));
            ASSERT_LT(scale.least(), scale.most());
            std::vector<double> ticks = scale.ticks(8);
            EXPECT_LE(ticks.size(), 10u) << least << " to " << most;
            EXPECT_GE(ticks.size(), 2u) << least << " to " << most;
            for (double value : values) {
                EXPECT_GE(scale.place(value), 0);
                EXPECT_LE(scale.place(value), 1);
            }
        }
}

TEST(Scale, GrowsToItsValuesButNotBeyondItsLimits)
{
    EXPECT_EQ(Scale::around({}, -200, 100, -500, 500).most(), 100);
    EXPECT_GT(Scale::around({250}, -200, 100, -500, 500).most(), 250);
    EXPECT_EQ(Scale::around({1e9, -1e300}, -200, 100, -500, 500).most(), 500);
    EXPECT_EQ(Scale::around({1e9, -1e300}, -200, 100, -500, 500).least(), -500);
    EXPECT_EQ(Scale::around({std::nan("")}, -200, 100, -500, 500).least(), -200);
}

TEST(Markup, NumbersAreWrittenAsPeopleReadThem)
{
    EXPECT_EQ(number(-12.345, 1), "−12.3");
    EXPECT_EQ(number(-0.04, 1), "0.0");
    EXPECT_EQ(signed_number(0.04, 1), "0.0");
    EXPECT_EQ(signed_number(9.05, 0), "+9");
    EXPECT_EQ(number(std::nan(""), 1), "–");
    EXPECT_EQ(plain(-0.5), "-0.50");
    EXPECT_EQ(number(-std::numeric_limits<double>::max(), 2).size(), 3 + 309 + 3u);
}

TEST(Markup, TextFromAnywhereCannotLeaveItsPlace)
{
    EXPECT_EQ(escape("a<b>&\"c\"'d'"), "a&lt;b&gt;&amp;&quot;c&quot;&#39;d&#39;");
    EXPECT_EQ(escape("Köln, 東京, 🎬"), "Köln, 東京, 🎬");
    const std::string replaced = "\xEF\xBF\xBD";
    EXPECT_EQ(escape("\xFF"), replaced);
    EXPECT_EQ(escape(std::string("\x1B\0", 2)), replaced + replaced);
    EXPECT_EQ(escape("caf\xE9"), "caf" + replaced);
    EXPECT_EQ(escape("\xED\xA0\x80x"), replaced + replaced + replaced + "x"); // half of a surrogate pair
    EXPECT_EQ(escape("\xC0\xBC"), replaced + replaced);                       // "<" in a roundabout way
    EXPECT_EQ(escape_json(json("</script><!--").dump()), "\"\\u003c/script>\\u003c!--\"");
}

// --- The page -----------------------------------------------------------------

/// What lies between each @p from and the next @p to.
std::vector<std::string> all_inside(const std::string& text, const std::string& from, const std::string& to)
{
    std::vector<std::string> found;
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + from.size()))
        found.push_back(text.substr(at + from.size(), text.find(to, at + from.size()) - at - from.size()));
    return found;
}

/// The first of them.
std::string inside(const std::string& text, const std::string& from, const std::string& to)
{
    return all_inside(text, from, to).at(0);
}

json block(const std::string& page, const std::string& id)
{
    return json::parse(inside(page, "<script type=\"application/json\" id=\"" + id + "\">", "</script>"));
}

std::string unescaped(std::string text)
{
    for (const auto& [from, to] :
         {std::pair<std::string, std::string>{"&quot;", "\""}, {"&lt;", "<"}, {"&gt;", ">"}, {"−", "-"}, {"+", ""}})
        for (size_t at = text.find(from); at != std::string::npos; at = text.find(from))
            text.replace(at, from.size(), to);
    return text;
}

/// Every number that names its origin is there, and is what is read.
size_t check_numbers(const std::string& page, const json& report)
{
    size_t found = 0;
    for (const std::string& element : all_inside(page, "<data ", "</data>")) {
        if (element.find("data-key") == std::string::npos)
            continue;
        found++;
        json::json_pointer key(unescaped(inside(element, "data-key=\"", "\"")));
        EXPECT_TRUE(report.contains(key)) << key;
        if (!report.contains(key))
            continue;
        EXPECT_EQ(json::parse(unescaped(inside(element, "value=\"", "\""))), report.at(key)) << key;
        if (!report.at(key).is_number())
            continue;
        bool scaled = element.find("data-scale") != std::string::npos;
        double value = report.at(key).get<double>() * (scaled ? std::stod(inside(element, "data-scale=\"", "\"")) : 1);
        std::string read = unescaped(element.substr(element.find('>') + 1));
        size_t point = read.find('.');
        double last_digit = point == std::string::npos ? 1 : std::pow(0.1, read.size() - point - 1);
        EXPECT_NEAR(std::stod(read), value, 0.501 * last_digit + std::abs(value) * 1e-6) << key;
    }
    return found;
}

/// Nothing lies outside of its chart, and nothing comes from elsewhere.
void check_page(const std::string& page)
{
    std::string shown = page.substr(0, page.find("<script"));
    for (const char* attribute : {"x=\"", "x1=\"", "x2=\"", "cx=\"", "width=\"", "width:"})
        for (const std::string& place : all_inside(shown, std::string(" ") + attribute, "%"))
            if (place.size() < 12 && place.find_first_not_of("-.0123456789") == std::string::npos) {
                EXPECT_GE(std::stod(place), 0) << attribute;
                EXPECT_LE(std::stod(place), 100) << attribute;
            }
    for (const char* foreign : {"http:", "https:", "src=", "@import", "url(", "nan", "inf\"", "null"})
        EXPECT_EQ(shown.find(foreign), std::string::npos) << foreign;
    std::set<std::string> ids;
    for (const std::string& id : all_inside(page, " id=\"", "\""))
        EXPECT_TRUE(ids.insert(id).second) << "twice: " << id;
}

class PageOfRun : public Scene
{
protected:
    PageOfRun()
    {
        std::mt19937 random(1);
        std::normal_distribution<double> jitter(0, 12);
        result.programme = "flash & beep";
        result.display = "sim";
        result.seconds = 20.7;
        for (int64_t s = 1; s < 19; s++) {
            offsets.push_back({s * kSecond, 97 + jitter(random), 106.123 + jitter(random)});
            result.instants++;
        }
        result.offsets = offsets;
        result.offset = summarise(offsets);
        result.cadence.pictures = 1000;
        result.cadence.histogram = {0, 990, 8, 0, 2};
        result.frames.rendered = result.frames.flipped = 1234;
        result.audio.written = 991800;
        result.samples.first_source_sample = 0;
        result.samples.in = 912345;
        result.samples.missing = 17.4;
        result.usage.by_thread = {{"a/b ~<x>", 0.0123}, {"audio_write", 0.5}};
        result.usage.peak_memory_kb = 30001;
        play(0, 1000);
    }

    std::string page(json report) { return page_text({std::move(report), view(), result.paced, 1, "here & now"}); }
    json report() { return report_json(result, {{"a < b", true}, {"never", false}}); }

    Result result;
};

TEST_F(PageOfRun, SaysWhatTheReportSays)
{
    std::string text = page(report());
    EXPECT_EQ(block(text, "report"), report());
    EXPECT_EQ(block(text, "trace"), to_json(view()));
    EXPECT_GT(check_numbers(text, report()), 90u);
    check_page(text);
    EXPECT_NE(text.find("a &lt; b"), std::string::npos);
    EXPECT_NE(text.find("<title>FAIL: flash &amp; beep</title>"), std::string::npos);

    // One dot for each offset, in its place.
    std::string chart = inside(text, "<svg id=\"offset-chart\"", "</svg>");
    std::vector<double> heights;
    for (const std::string& height : all_inside(chart, " cy=\"", "\""))
        heights.push_back(std::stod(height));
    ASSERT_EQ(heights.size(), offsets.size());
    for (size_t i = 1; i < offsets.size(); i++)
        EXPECT_EQ(heights[i]<heights[i - 1], offsets[i].ms()> offsets[i - 1].ms()) << i; // down is late
    std::string bars = inside(text, "id=\"stayed\">", "</dl>");
    for (const char* count : {"990", "8", "2"})
        EXPECT_NE(bars.find("<data value=\"" + std::string(count) + "\">" + count + "</data>"), std::string::npos);
}

TEST_F(PageOfRun, OffsetsBeyondTheScaleAreMarkedAtItsEdge)
{
    result.offsets = {{kSecond, 0, 90000}, {2 * kSecond, 1e12, 0}, {3 * kSecond, 0, 5}};
    std::string text = page(report());
    check_page(text);
    std::string chart = inside(text, "<svg id=\"offset-chart\"", "</svg>");
    EXPECT_NE(chart.find("#above"), std::string::npos);
    EXPECT_NE(chart.find("#below"), std::string::npos);
}

TEST_F(PageOfRun, RunOfHoursIsNotDrawnDotByDot)
{
    result.offsets.clear();
    for (int64_t i = 0; i < 20000; i++)
        result.offsets.push_back({i * kSecond, 100, i % 5000 == 1 ? 300.0 : 105.0});
    std::string chart = inside(page(report()), "<svg id=\"offset-chart\"", "</svg>");
    EXPECT_LE(all_inside(chart, "<circle", ">").size(), 1200u);
    EXPECT_EQ(all_inside(chart, "class=\"outside\"", ">").size(), 4u); // of the bad ones, every one
}

TEST_F(PageOfRun, RunWithNothingInItIsStillAPage)
{
    Trace none(0, 60);
    result = Result();
    for (bool raw : {false, true})
        for (bool paced : {false, true}) {
            result.options.raw = raw;
            result.paced = paced;
            json empty = report_json(result, {});
            std::string text = page_text({empty, view_trace(none, scope, {}, {}), paced, 1, ""});
            check_page(text);
            EXPECT_GT(check_numbers(text, empty), 10u);
            // Nothing measured is nowhere a zero.
            EXPECT_NE(text.find("not measured"), std::string::npos);
            testing::internal::CaptureStdout();
            print_report(result, {});
            std::string printed = testing::internal::GetCapturedStdout();
            EXPECT_EQ(printed.find("Lip sync not measured: no sound was played") == std::string::npos, raw);
            for (const char* zero : {"0.0 ms", "missing 0", "underruns 0", "0.00 %", "100 %"})
                EXPECT_EQ(printed.find(zero), std::string::npos) << zero << " in " << printed;
            for (const char* key : {"/offset/mean_ms", "/sound/missing", "/sound/underruns", "/reset_s",
                                    "/pictures/settled/excess", "/pictures/off_grid_us/p99"})
                EXPECT_TRUE(empty.at(json::json_pointer(key)).is_null()) << key;
            for (const auto& [key, why] : empty["not_measured"].items())
                EXPECT_TRUE(empty.at(json::json_pointer(key)).is_null() && why != "") << key;
        }
    // Nor does one that has lost its report, or its numbers, break.
    check_page(page_text({json::object(), TraceView(), true, 1, ""}));
    result.offset.mean_ms = std::nan("");
    result.seconds = std::numeric_limits<double>::infinity();
    check_page(page_text({report_json(result, {}), TraceView(), true, std::nan(""), ""}));
}

TEST_F(PageOfRun, NothingThatArrivedIsAnotherThingThanNothingCompared)
{
    const std::string uncompared = "What arrived was not compared.";
    result.options.raw = true;
    EXPECT_NE(page(report()).find(uncompared), std::string::npos);
    result.raw.compared = true;
    std::string text = page(report());
    EXPECT_EQ(text.find(uncompared), std::string::npos);
    EXPECT_NE(text.find("frames arrived at the output"), std::string::npos);
}

TEST_F(PageOfRun, NameOfAFileIsTextAndNothingElse)
{
    const std::string name = "</title><script>alert(1)</script>\" onload=\"x\" caf\xE9.mkv";
    result.programme = name;
    result.options.file = name;
    result.display = "<img src=x>";
    std::string text = page(report());
    EXPECT_EQ(text.find("<script>"), std::string::npos);
    EXPECT_EQ(text.find("<img"), std::string::npos);
    EXPECT_NE(text.find("&lt;/title&gt;&lt;script&gt;alert(1)"), std::string::npos);
    // What is no UTF-8 is replaced, in both.
    EXPECT_EQ(block(text, "report")["run"]["file"].get<std::string>().substr(0, 20), name.substr(0, 20));
}

TEST_F(PageOfRun, RecoveriesAreTabledWithWhateverIsKnownOfThem)
{
    EXPECT_EQ(page(report()).find("id=\"recoveries\""), std::string::npos);
    json with = report();
    with["recoveries"] = {{{"at_s", 3.25}, {"device", "playback"}, {"kind", "lost <&>"}, {"sound_back_ms", 412.5}},
                          {{"at_s", 9.0}, {"device", "capture"}, {"picture_back_ms", nullptr}}};
    with["pictures"]["outages"] = {{{"at_s", 4.0}, {"lasted_s", 0.5}, {"reason", "no display at the connector"}}};
    std::string text = page(with);
    EXPECT_EQ(all_inside(text, "class=\"broke\"", "</line>").size(), 4u); // in either chart of the sound
    std::string table = inside(text, "id=\"recoveries\"", "</section>");
    for (const char* part : {"412.5", "lost &lt;&amp;&gt;", "Sound back after, ms", "Picture back ms", "no display"})
        EXPECT_NE(table.find(part), std::string::npos) << part;
    check_page(text);
}

} // namespace
