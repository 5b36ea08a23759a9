// SPDX-License-Identifier: MIT
// What a run of the play program passes and misses, and what machine and source explain of it.
#include <gtest/gtest.h>

#include <functional>

#include "made_up_scenes.h"
#include "report/verdict.h"

using namespace play;

namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;

Result good_run()
{
    Result run;
    run.instants = 1;
    run.offsets = offsets({5});
    run.offset = summarise(run.offsets);
    run.resets = 1;
    run.frames.rendered = run.frames.flipped = 60;
    run.source_rate = 48000;
    run.samples.out = run.samples.in = 48000;
    run.samples.first_source_sample = 0;
    run.samples.block = 960;
    run.samples.place_tolerance = 4;
    run.cadence = measure_cadence(shown({{0, 1}, {1, 1}}), {0, 1}, 1);
    return run;
}

/// Passed on between real devices, with an observer.
Result good_raw_run()
{
    Result run = good_run();
    run.options.raw = true;
    run.options.capture = run.options.feed = run.options.playback = run.options.observe = "hw:0";
    run.resets = 0;
    run.opened_ns = kSecond;
    run.signal_end_ns = 11 * kSecond;
    run.stage.bypass.frames = 9 * 48000;
    run.stage.bypass.rate = 48000;
    run.raw.compared = true;
    run.raw.bursts = 300;
    run.raw.began_ns = kSecond;
    run.raw.ended_ns = 11 * kSecond;
    return run;
}

/// The same, and nobody listens there.
Result good_unheard_run()
{
    Result run = good_raw_run();
    run.options.observe.clear();
    run.raw = RawCheck();
    return run;
}

using Change = std::function<void(Result*)>;

Change offset_of(double ms)
{
    return [=](Result* run) { run->offset = summarise(run->offsets = offsets({ms})); };
}

/// Two pictures were seen of those up to number @p last.
Change pictures_to(int64_t last)
{
    return [=](Result* run) { run->cadence = measure_cadence(shown({{0, 1}, {1, 1}}), {0, last}, 1); };
}

void one_gap(Result* run) { run->gaps = 1; }

Change missing(double samples)
{
    return [=](Result* run) { run->samples.missing = samples; };
}

/// Of a run on a display with a long beat.
Change light(void (*change)(Moved* moved, LightPath* light))
{
    return [change](Result* run) {
        run->options.strict = true;
        run->course.moved = Moved{9, 0};
        run->course.light = LightPath{200, 10, 10.3, 0, false};
        change(&*run->course.moved, &*run->course.light);
        if (run->course.light->whole_minutes)
            run->course.moved->offset_ms = 0;
    };
}

/// A run with tones, of which that was found.
Change tones(void (*change)(Fidelity* found))
{
    return [=](Result* run) {
        run->samples.same_rate = true;
        run->fidelity.windows = run->fidelity.tone_windows = run->fidelity.sweep_windows = 100;
        run->fidelity.noise_db = -92;
        change(&run->fidelity);
    };
}

/// A machine that stood still for 300 ms.
constexpr Punctuality kStoodStill = {600, 58, 1e3 / 120, 300, 300};

struct Fault {
    const char* limit;
    Change apply;
    Outcome on_late_machine = Outcome::fail;
};

void expect_only(const Fault& fault, Result run)
{
    fault.apply(&run);
    bool judged = false;
    for (const Verdict& verdict : judge(run)) {
        EXPECT_EQ(verdict.passed, verdict.limit != fault.limit) << verdict.limit << " at: " << fault.limit;
        judged = judged || verdict.limit == fault.limit;
    }
    EXPECT_TRUE(judged) << fault.limit;
    EXPECT_EQ(outcome_of(judge(run)), Outcome::fail) << fault.limit;
    run.punctuality = kStoodStill;
    EXPECT_EQ(outcome_of(judge(run)), fault.on_late_machine) << fault.limit;
}

} // namespace

TEST(Verdict, EachLimitIsMissedByItsOwnFaultAlone)
{
    EXPECT_TRUE(all_passed(judge(good_run())));
    const std::vector<Fault> faults = {
        {"A/V offset measured", [](Result* run) { run->instants = 2; }, Outcome::inconclusive},
        {"A/V offset p95 inside EBU R37 (+40/-60 ms)", offset_of(-61), Outcome::inconclusive},
        {"one reset, at start", [](Result* run) { run->resets = 0; }},
        {"one reset, at start", [](Result* run) { run->resets = 2; }, Outcome::inconclusive},
        {"one reset, at start", [](Result* run) { run->reset_s = 3; }},
        {"no underrun after the first second", one_gap, Outcome::inconclusive},
        {"no overrun", [](Result* run) { run->overruns = 1; }, Outcome::inconclusive},
        {"frame account closed", [](Result* run) { run->frames.flipped--; }},
        {"frame account closed", [](Result* run) { run->frames.foreign = 1; }},
        {"frame account closed", [](Result* run) { run->frames.no_buffer = 1; }},
        {"frame account closed",
         [](Result* run) {
             run->frames.flipped--;
             run->frames.held = run->frames.lost = 1;
         }},
        {"samples complete and in place", [](Result* run) { run->samples.missing = -961; }},
        {"samples complete and in place", [](Result* run) { run->samples.worst_place = 5; }},
        {"output bit for bit the input",
         [](Result* run) {
             run->samples.exact = true;
             run->samples.mismatches = 1;
         }},
        {"trend inside EBU R37 for 24 h", [](Result* run) { run->course.outlook = Outlook::leaves; }},
        {"A/V offset p99 inside ATSC IS-191 (+15/-45 ms)",
         [](Result* run) {
             run->options.strict = true;
             run->course.p99_ms = 16;
         },
         Outcome::inconclusive},
        {"last minute within 2 ms of the second one",
         [](Result* run) {
             run->options.strict = true;
             run->course.moved = Moved{0, -2.1};
         }},
        {"sound of the last minute within 2 ms of the second one", light([](Moved* moved, LightPath*) {
             *moved = {9, 2.1};
         })},
        {"pictures of the last whole beats within 2 ms of the first ones",
         light([](Moved*, LightPath* light) { light->moved_ms = -2.1; })},
        {"pictures of the last minute within 2 ms of the second one", light([](Moved*, LightPath* light) {
             light->whole_minutes = true;
             light->moved_ms = 2.1;
         })},
        {"99 % of the pictures within half a refresh and 2 ms of one time",
         light([](Moved*, LightPath* light) { light->within_ms = 10.4; }), Outcome::inconclusive},
        {"sound back in its place half a second after each loss",
         [](Result* run) { run->losses = read_losses({LostBursts{}}, run->offsets, {}); }},
        {"no click, no sample lost or doubled", tones([](Fidelity* found) { found->disturbed = 1; }),
         Outcome::inconclusive},
        {"997 Hz: noise and distortion at most -90 dB", tones([](Fidelity* found) { found->noise_db = -89; })},
        {"pitch within 10 ppm after a minute", tones([](Fidelity* found) { found->pitch_ppm = -11; })},
        {"20 Hz to 20 kHz within 0.1 dB", tones([](Fidelity* found) { found->least_db = -0.11; })},
        {"at most 2 % of frames unseen or held beyond the rates", [](Result* run) { run->unreadable = 1; }},
        {"at most 2 % of frames unseen or held beyond the rates", pictures_to(2), Outcome::inconclusive},
    };
    for (const Fault& fault : faults)
        expect_only(fault, good_run());
}

TEST(Verdict, MachineExplainsNoMoreThanItsOwnLatenessCanDo)
{
    const Outcome yes = Outcome::inconclusive;
    const Outcome no = Outcome::fail;
    const auto unread = [](Result* run) { run->overruns = 2; };
    const auto withheld = [](Result* run) { run->frames.withheld = 30; };
    const auto thrown_away = [](Result* run) { run->audio.late = 2 * 960; };
    const auto cut_off = [](Result* run) { run->audio.cut_off = 2 * 960; };
    const auto left_out = [](Result* run) { run->stage.sound.left_out = 2 * 960; };
    const auto refilled = [](Result* run) { run->stage.sound.refilled = 960; };
    const auto from_a_card = [](Result* run) { run->options.capture = "alsa:hw:0"; };
    const auto moved = [](double sound_ms, double pictures_ms) {
        return [=](Result* run) {
            run->options.strict = true;
            run->course.moved = Moved{0, sound_ms};
            run->course.light = LightPath{200, 10, 10.3, pictures_ms, false};
        };
    };
    const auto bent = [](double per_hour) {
        return [=](Result* run) {
            run->course.outlook = Outlook::leaves;
            run->course.offset = Trend{3600, 1800, -20, per_hour, 4};
        };
    };
    const auto reset_again = [](Result* run) { run->resets = 2; };
    const auto late_by_less = [](Result* run) { run->punctuality.worst_ms = 19; };
    const auto none_late = [](Result* run) { run->punctuality.late = 0; };
    const auto overran = [](Result* run) { run->early_overruns = 1; };
    const auto none_due = [](Result* run) { run->cadence = measure_cadence({}, {100, -1}, 1); };
    const auto none_seen = [](Result* run) { run->cadence = measure_cadence({}, {0, 1}, 1); };
    struct Case {
        const char* what;
        Outcome outcome;
        std::vector<Change> changes;
    };
    const std::vector<Case> cases = {
        {"nothing missed", Outcome::pass, {}},
        {"350 ms outside", no, {offset_of(390)}},
        {"a reset 290 ms late", yes, {[](Result* run) { run->reset_s = 1.29; }}},
        {"a reset 310 ms late", no, {[](Result* run) { run->reset_s = 1.31; }}},
        {"an overrun of a card at the start, a reset behind it", yes, {late_by_less, overran, reset_again}},
        {"two resets behind one overrun", no, {late_by_less, overran, [](Result* run) { run->resets = 3; }}},
        {"and no tick was late", no, {late_by_less, overran, reset_again, none_late}},
        {"a second reset without an overrun", no, {late_by_less, reset_again}},
        {"more instants than late ticks", no, {[](Result* run) { run->instants = 60; }}},
        {"a tick late by less than a period", no, {late_by_less, one_gap}},
        {"ticks late by less than half a vertical blank", no, {none_late, pictures_to(2)}},
        {"more pictures than late ticks", no, {pictures_to(300)}},
        {"some of them withheld since sound was lost", yes, {unread, withheld, pictures_to(300)}},
        {"some of them withheld, and no sound was lost", no, {withheld, pictures_to(300)}},
        {"more than were withheld", no, {unread, withheld, pictures_to(400)}},
        {"no picture left behind a second reset", yes, {reset_again, none_due}},
        {"no picture left, and no second reset", no, {[](Result* run) { run->reset_s = 3; }, none_due}},
        {"no picture seen behind a second reset", no, {reset_again, none_seen}},
        {"samples of periods that nobody read", yes, {unread, missing(2 * 960)}},
        {"a block more than that", no, {unread, missing(3 * 960)}},
        {"what the host threw away as well", yes, {unread, thrown_away, missing(4 * 960)}},
        {"what was cut off by the reset that followed", yes, {unread, cut_off, missing(4 * 960)}},
        {"a reset in the middle of the sound", yes, {cut_off, missing(2 * 960)}},
        {"a block more than it threw away", no, {thrown_away, missing(3 * 960)}},
        {"what the device left out", yes, {unread, left_out, missing(4 * 960)}},
        {"what a card left out that ran empty", yes, {one_gap, from_a_card, missing(4 * 960)}},
        {"a simulated output that ran empty, and left out nothing", no, {one_gap, missing(4 * 960)}},
        {"a block lost behind the silence that it put in", no, {unread, refilled, missing(2 * 960)}},
        {"sound and pictures moved when the output ran empty", yes, {one_gap, moved(5, 3.4)}},
        {"the sound by more than the output may hold then", no, {one_gap, moved(11, 0)}},
        {"the pictures by more", no, {one_gap, moved(5, 11)}},
        {"sound moved, and the output did not run empty", no, {moved(5, 0)}},
        {"a trend by 15 ms in its half hour when the output ran empty", yes, {one_gap, bent(-30)}},
        {"a steeper one", no, {one_gap, bent(-31)}},
        {"a trend, and the output did not run empty", no, {bent(-9)}},
        {"pictures moved, and it did not", no, {moved(0, 5)}},
        {"one limit explained, the other not", no, {[](Result* run) { run->frames.foreign = 1; }, one_gap}},
    };
    for (const Case& one : cases) {
        Result run = good_run();
        run.punctuality = kStoodStill;
        for (const Change& change : one.changes)
            change(&run);
        EXPECT_EQ(outcome_of(judge(run)), one.outcome) << one.what;
    }
}

TEST(Verdict, FaultOfTheSourceExplainsWhereItShowsAndNowhereElse)
{
    const struct {
        SourceFaults faults;
        Coding coding;
        bool raw;
        bool sound, pictures, sync; // explained
    } cases[] = {
        {{}, Coding::eac3, false, false, false, false},
        {{1, 0, 0, 0, 0}, Coding::pcm, false, true, true, true},
        {{0, 1, 0, 0, 0}, Coding::ac3, false, true, false, true},
        {{0, 1, 0, 0, 0}, Coding::pcm, false, false, false, true},  // silence, which must arrive as it is
        {{0, 0, 1, 0, 0}, Coding::pcm, false, false, false, false}, // damaged pictures are pictures
        {{0, 0, 0, 1, 0}, Coding::pcm, false, false, true, false},
        {{0, 0, 0, 0, 3840}, Coding::eac3, false, false, false, false},
        {{0, 0, 0, 0, 3842}, Coding::eac3, false, true, false, true},
        {{0, 0, 0, 0, 3842}, Coding::eac3, true, false, false, false},
    };
    for (const auto& each : cases) {
        Result run = good_run();
        run.source = each.faults;
        run.source_rate = 48000;
        run.coding = each.coding;
        run.options.raw = each.raw;
        auto explained = [&run](Subject subject) { return !fault_of_source(run, subject).empty(); };
        SCOPED_TRACE(testing::Message() << "case " << &each - cases);
        EXPECT_EQ(explained(Subject::sound), each.sound);
        EXPECT_EQ(explained(Subject::pictures), each.pictures);
        EXPECT_EQ(explained(Subject::sync), each.sync);
        EXPECT_FALSE(explained(Subject::player));
    }
    Result run = good_run();
    run.source.picture_gaps = 1;
    pictures_to(2)(&run);
    EXPECT_EQ(outcome_of(judge(run)), Outcome::inconclusive);
    run.gaps = 1; // the player's own
    EXPECT_EQ(outcome_of(judge(run)), Outcome::fail);
}

TEST(Verdict, WhatIsPassedOnIsJudgedWhereverItWasHeard)
{
    const char* const bursts = "bursts at the output bit for bit the source's";
    const char* const took = "the output took what was passed on";
    EXPECT_TRUE(all_passed(judge(good_raw_run())));
    const std::vector<Fault> faults = {
        {bursts, [](Result* run) { run->raw.bursts = 0; }},
        {bursts, [](Result* run) { run->raw.gaps = 1; }},
        {bursts, [](Result* run) { run->raw.ended_ns = 9 * kSecond; }},
        {took, [](Result* run) { run->stage.bypass.xruns = 1; }, Outcome::inconclusive},
        {took, [](Result* run) { run->stage.bypass.frames = 0; }},
        {"the source was sent without a break", [](Result* run) { run->stage.link.breaks = 1; }, Outcome::inconclusive},
        {"the observer heard without a break", [](Result* run) { run->stage.sound.observer_breaks = 1; },
         Outcome::inconclusive},
    };
    for (const Fault& fault : faults)
        expect_only(fault, good_raw_run());

    EXPECT_TRUE(all_passed(judge(good_unheard_run())));
    expect_only({took, [](Result* run) { run->stage.bypass.frames = 7 * 48000; }}, good_unheard_run());
}
