// SPDX-License-Identifier: MIT
#include "endurance.h"

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <memory>
#include <optional>

#include "common/clock.h"
#include "heap_trend.h"
#include "measure/punctuality.h"
#include "process/realtime.h"
#include "process_account.h"
#include "recovery.h"
#include "troubles.h"
#include "wall_clock.h"

namespace soak
{
namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecondNs = 1000 * kMs;
constexpr int64_t kLookNs = 10 * kMs;
constexpr int64_t kMinuteNs = 60 * kSecondNs;
constexpr int64_t kHurriedMinuteNs = 10 * kSecondNs;
constexpr int64_t kHurriedPauseNs = 300 * kMs;
constexpr int64_t kSettlingNs = 10 * kSecondNs;
/// By which a timer of the player's priority may be late without an excuse for the player: a period of the output.
constexpr double kMachineLateMs = 20;
/// What the allocated memory may grow by from a run's second quarter to its last. Until it is closed, the player keeps
/// each block that it ever needed: 34 to 486 kB of them were seen.
constexpr int64_t kMostGrowthKb = 512;
/// While the player is closed: 50 kB to and fro were seen.
constexpr int64_t kMostGrowthClosedKb = 96;
constexpr char kClosed[] = "closed";
constexpr int64_t kHeapLookNs = kSecondNs;
/// In shorter runs the same format need not come in two quarters.
constexpr int64_t kMinutesOfTrend = 12;

struct CloseFile {
    void operator()(FILE* file) const { fclose(file); }
};
using File = std::unique_ptr<FILE, CloseFile>;

File create(const std::string& folder, const char* name, const char* heading)
{
    File file(fopen((folder + "/" + name).c_str(), "we"));
    if (file)
        std::fprintf(file.get(), "%s\n", heading);
    return file;
}

struct Range {
    int64_t count = 0;
    double sum = 0;
    double least = 0;
    double most = 0;
    void add(double value)
    {
        least = count == 0 ? value : std::min(least, value);
        most = count == 0 ? value : std::max(most, value);
        sum += value;
        count++;
    }
    double mean() const { return count > 0 ? sum / static_cast<double>(count) : 0; }
};

/// One minute, or all of them.
struct Tally {
    Range offset;       ///< in ms, while nothing troubled the player
    int64_t astray = 0; ///< of these, outside of EBU R37
    int64_t breaks = 0; ///< pauses of the sound while nothing troubled it
    int64_t troubles = 0;
    int64_t failed = 0; ///< troubles behind which it took longer than it may
    double worst_s = 0; ///< recovery
    double late_ms = 0; ///< by which the machine was late
};

class Endurance
{
public:
    explicit Endurance(const EnduranceConfig& config)
        : config_(config), session_(config.session), troubles_(&session_, config.seed, config.kinds)
    {
    }

    int run(const process::StopSignals& signals);

private:
    enum class State { quiet, trouble, recovering };

    bool open_files();
    int64_t draw_pause_ns() { return config_.hurry ? kHurriedPauseNs : troubles_.draw_pause_ns(); }
    void begin_account();
    void step(int64_t now_ns);
    void begin_trouble(int64_t now_ns);
    void end_trouble(int64_t now_ns);
    void end_recovery(int64_t now_ns);
    void judge(int64_t now_ns);
    void note_offset(const Meeting& meeting);
    void note_pause(const Pause& pause);
    std::string heap_state();
    void note_heap(int64_t now_ns);
    void note_heap(int64_t now_ns, const std::string& state);
    void end_minute(int64_t now_ns);
    void start_timers();
    void settle(const process::StopSignals& signals);
    std::vector<std::string> complaints(const ProcessAccount& end) const;
    double at_s(int64_t at_ns) const { return static_cast<double>(at_ns - began_ns_) / 1e9; }
    bool sound_expected() { return can_be_decoded(session_.sender().format()); }

    const EnduranceConfig config_;
    Session session_;
    Troubles troubles_;
    std::unique_ptr<play::TickingTimers> timers_;
    File minutes_;
    File events_;
    File offsets_;
    File heap_file_;
    int64_t began_ns_ = 0;
    int64_t minute_ns_ = 0;
    State state_ = State::quiet;
    int64_t next_ns_ = 0; ///< of the next trouble, or of the end of this one
    int64_t quiet_from_ns_ = 0;
    Trouble trouble_;
    int64_t trouble_ns_ = 0;
    Recovery recovery_{0};
    ProcessAccount base_;
    Tally minute_;
    Tally all_;
    int64_t minutes_done_ = 0;
    int64_t next_heap_ns_ = 0;
    int64_t decoder_opening_ = 0; ///< of the player, the last one in which it decoded
    HeapTrend heap_;
};

bool Endurance::open_files()
{
    minutes_ =
        create(config_.folder, "minutes.csv",
               "minute,format,resident_kb,heap_kb,descriptors,threads,cpu_percent,offset_ms,least_ms,most_ms,marks,"
               "astray,breaks,troubles,failed,worst_s,resets,underruns,overruns,late_ms");
    events_ = create(config_.folder, "events.csv", "at_s,kind,what,lasted_s,recovered_s");
    offsets_ = create(config_.folder, "offsets.csv", "at_s,sound_ms,picture_ms,quiet");
    heap_file_ = create(config_.folder, "heap.csv", "at_s,state,heap_kb");
    return minutes_ && events_ && offsets_ && heap_file_;
}

int Endurance::run(const process::StopSignals& signals)
{
    if (config_.more_memory_mb > 0)
        use_small_stacks();
    std::string error;
    if (!open_files() || !session_.start(config_.format, &error)) {
        std::fprintf(stderr, "hdmi-player-soak: %s\n", error.empty() ? config_.folder.c_str() : error.c_str());
        return 3;
    }
    slew_wall_clock(config_.slew_ppm);
    began_ns_ = minute_ns_ = common::now_ns();
    start_timers();
    session_.on_closed([this] { note_heap(common::now_ns(), kClosed); });
    std::printf("seed %" PRIu64 ", %.0f s, %s\n", config_.seed, config_.seconds,
                session_.realtime() ? "real-time priority" : "no real-time priority");
    next_ns_ = began_ns_ + kSettlingNs;
    quiet_from_ns_ = began_ns_ + kSettlingNs / 4;
    const auto end_ns = began_ns_ + static_cast<int64_t>(config_.seconds * 1e9);
    int64_t look_ns = began_ns_;
    while (look_ns < end_ns && signals.number() == 0) {
        look_ns = std::max(look_ns + kLookNs, common::now_ns() - kLookNs);
        common::sleep_until_ns(look_ns);
        const int64_t now_ns = common::now_ns();
        if (base_.threads == 0 && now_ns > began_ns_ + kSettlingNs / 2)
            begin_account();
        step(now_ns);
        if (now_ns - minute_ns_ >= (config_.hurry ? kHurriedMinuteNs : kMinuteNs))
            end_minute(now_ns);
    }
    settle(signals);
    const ProcessAccount end = process_account();
    const std::vector<std::string> complaints = this->complaints(end);
    const SessionAccount account = session_.account();
    const File verdict = create(config_.folder, "verdict.txt", complaints.empty() ? "PASS" : "FAIL");
    for (FILE* to : {stdout, verdict.get()}) {
        if (to == nullptr)
            continue;
        std::fprintf(to,
                     "%" PRId64 " troubles, longest recovery %.2f s; %" PRId64 " marks in quiet, offset %.1f ms "
                     "(%.1f to %.1f)\n",
                     all_.troubles, all_.worst_s, all_.offset.count, all_.offset.mean(), all_.offset.least,
                     all_.offset.most);
        std::fprintf(to,
                     "%" PRId64 " openings, %" PRId64 " that failed, %" PRId64 " resets; %" PRId64
                     " frames rendered, %" PRId64 " lost; wall clock read %" PRId64 " times\n",
                     account.openings, account.failed_openings, account.resets, account.rendered, account.lost,
                     wall_clock_reads());
        std::fprintf(to,
                     "descriptors %d to %d, threads %d to %d, memory %" PRId64 " to %" PRId64 " kB, allocated %" PRId64
                     " to %" PRId64 "\n",
                     base_.descriptors, end.descriptors, base_.threads, end.threads, base_.resident_kb, end.resident_kb,
                     base_.heap_kb, end.heap_kb);
        for (const HeapTrend::Growth& growth : heap_.growths())
            std::fprintf(to, "allocated, second quarter to last, %s: %" PRId64 " to %" PRId64 " kB\n",
                         growth.state.c_str(), growth.from_kb, growth.to_kb);
        for (const std::string& complaint : complaints)
            std::fprintf(to, "  FAIL  %s\n", complaint.c_str());
    }
    std::printf("%s\n", complaints.empty() ? "PASS" : "FAIL");
    return complaints.empty() ? 0 : 1;
}

/// What is to be the same in the end.
void Endurance::begin_account()
{
    base_ = process_account();
    if (config_.more_memory_mb > 0)
        limit_memory(config_.more_memory_mb);
}

void Endurance::step(int64_t now_ns)
{
    session_.look();
    for (const Meeting& meeting : session_.take_meetings()) {
        if (state_ == State::recovering)
            recovery_.met(meeting);
        note_offset(meeting);
    }
    for (const Sight& sight : session_.take_sights())
        if (state_ == State::recovering && !sound_expected())
            recovery_.seen(sight);
    for (const Pause& pause : session_.take_pauses())
        note_pause(pause);
    if (state_ == State::recovering)
        judge(now_ns);
    note_heap(now_ns);
    if (now_ns < next_ns_)
        return;
    if (state_ == State::trouble)
        end_trouble(now_ns);
    else
        begin_trouble(now_ns);
}

void Endurance::note_offset(const Meeting& meeting)
{
    const bool quiet = state_ == State::quiet && meeting.sent_ns > quiet_from_ns_;
    std::fprintf(offsets_.get(), "%.2f,%.2f,%.2f,%d\n", at_s(meeting.sent_ns), meeting.sound_ms, meeting.picture_ms,
                 quiet ? 1 : 0);
    if (!quiet)
        return;
    minute_.offset.add(meeting.offset_ms());
    if (meeting.in_sync())
        return;
    minute_.astray++;
    std::printf("%8.1f s  astray by %+.1f ms\n", at_s(meeting.sent_ns), meeting.offset_ms());
}

void Endurance::note_pause(const Pause& pause)
{
    if (state_ != State::quiet || pause.from_ns <= quiet_from_ns_)
        return;
    minute_.breaks++;
    std::printf("%8.1f s  silence for %" PRId64 " ms\n", at_s(pause.from_ns), (pause.to_ns - pause.from_ns) / kMs);
}

/// What decides how much memory is needed: the player keeps its decoder until it is closed.
std::string Endurance::heap_state()
{
    const Format format = session_.sender().format();
    const int64_t openings = session_.account().openings;
    decoder_opening_ = can_be_decoded(format) && is_bursts(format) ? openings : decoder_opening_;
    return name_of(format) + std::string(decoder_opening_ == openings ? " with decoder" : "");
}

void Endurance::note_heap(int64_t now_ns)
{
    if (now_ns < next_heap_ns_)
        return;
    next_heap_ns_ = now_ns + kHeapLookNs;
    const std::string state = heap_state();
    const bool settled = state_ == State::quiet && now_ns >= quiet_from_ns_;
    if (settled)
        note_heap(now_ns, state);
}

void Endurance::note_heap(int64_t now_ns, const std::string& state)
{
    const int64_t heap_kb = process_account().heap_kb;
    heap_.note(at_s(now_ns), state, heap_kb);
    std::fprintf(heap_file_.get(), "%.0f,%s,%" PRId64 "\n", at_s(now_ns), state.c_str(), heap_kb);
}

void Endurance::begin_trouble(int64_t now_ns)
{
    if (state_ == State::recovering)
        end_recovery(now_ns);
    trouble_ = troubles_.next();
    trouble_ns_ = now_ns;
    state_ = State::trouble;
    trouble_.begin();
    next_ns_ = now_ns + trouble_.lasts_ns;
    if (trouble_.lasts_ns == 0)
        end_trouble(common::now_ns());
}

void Endurance::end_trouble(int64_t now_ns)
{
    if (trouble_.end)
        trouble_.end();
    recovery_ = Recovery(now_ns);
    state_ = State::recovering;
    next_ns_ = common::now_ns() + draw_pause_ns();
}

/// Whether it is in sync again; if it is, all is quiet.
void Endurance::judge(int64_t now_ns)
{
    if (recovery_.back_ns())
        end_recovery(now_ns);
}

void Endurance::end_recovery(int64_t now_ns)
{
    const std::optional<double> took = recovery_.seconds();
    const double seconds = took.value_or(static_cast<double>(now_ns - trouble_ns_) / 1e9);
    const bool failed = !took || seconds > config_.recovery_s;
    minute_.troubles++;
    minute_.failed += failed ? 1 : 0;
    minute_.worst_s = std::max(minute_.worst_s, seconds);
    std::fprintf(events_.get(), "%.2f,%s,\"%s\",%.2f,%s\n", at_s(trouble_ns_), trouble_.kind.c_str(),
                 trouble_.what.c_str(), static_cast<double>(trouble_.lasts_ns) / 1e9,
                 took ? std::to_string(seconds).c_str() : "never");
    std::fflush(events_.get());
    if (failed && !config_.hurry)
        std::printf("%8.1f s  %s: %s\n", at_s(trouble_ns_), trouble_.what.c_str(),
                    took ? ("in sync after " + std::to_string(seconds) + " s").c_str() : "not in sync again");
    state_ = State::quiet;
    quiet_from_ns_ = took ? now_ns : next_ns_ + kMinuteNs;
}

/// With the scheduling of the player's threads.
void Endurance::start_timers()
{
    const process::RealtimeScope realtime(session_.realtime() ? kRealtimePriority : 0);
    timers_ = std::make_unique<play::TickingTimers>();
}

void Endurance::end_minute(int64_t now_ns)
{
    minute_.late_ms = timers_->finish().figures(kMachineLateMs).worst_ms;
    start_timers();
    const ProcessAccount account = process_account();
    const SessionAccount player = session_.account();
    const int64_t number = ++minutes_done_;
    const double cpu_percent = 100 * account.cpu_s / at_s(now_ns);
    const hdmi_sim::PlaybackStats playback = hdmi_sim::playback_stats();
    const int64_t overruns = hdmi_sim::receiver_stats().overruns;
    std::fprintf(minutes_.get(),
                 "%" PRId64 ",%s,%" PRId64 ",%" PRId64 ",%d,%d,%.1f,%.2f,%.2f,%.2f,%" PRId64 ",%" PRId64 ",%" PRId64
                 ",%" PRId64 ",%" PRId64 ",%.2f,%" PRId64 ",%" PRId64 ",%" PRId64 ",%.1f\n",
                 number, name_of(session_.sender().format()), account.resident_kb, account.heap_kb, account.descriptors,
                 account.threads, cpu_percent, minute_.offset.mean(), minute_.offset.least, minute_.offset.most,
                 minute_.offset.count, minute_.astray, minute_.breaks, minute_.troubles, minute_.failed,
                 minute_.worst_s, player.resets, playback.underruns, overruns, minute_.late_ms);
    std::fflush(minutes_.get());
    std::fflush(heap_file_.get());
    std::printf("%4" PRId64 " min  %-5s  %" PRId64 " kB, %" PRId64
                " allocated, %d descriptors, %d threads, cpu %.1f %%  offset %+.1f ms "
                "(%+.1f to %+.1f)  troubles %" PRId64 ", worst %.2f s  astray %" PRId64 ", breaks %" PRId64
                "  resets %" PRId64 "  machine late %.0f ms\n",
                number, name_of(session_.sender().format()), account.resident_kb, account.heap_kb, account.descriptors,
                account.threads, cpu_percent, minute_.offset.mean(), minute_.offset.least, minute_.offset.most,
                minute_.troubles, minute_.worst_s, minute_.astray, minute_.breaks, player.resets, minute_.late_ms);
    std::fflush(stdout);
    // A machine that stands still makes sound and picture stray; that is the machine's.
    const bool machine_late = minute_.late_ms > kMachineLateMs;
    all_.astray += machine_late ? 0 : minute_.astray;
    all_.breaks += machine_late ? 0 : minute_.breaks;
    all_.troubles += minute_.troubles;
    all_.failed += minute_.failed;
    all_.worst_s = std::max(all_.worst_s, minute_.worst_s);
    if (minute_.offset.count > 0) {
        const bool first = all_.offset.count == 0;
        all_.offset.least = first ? minute_.offset.least : std::min(all_.offset.least, minute_.offset.least);
        all_.offset.most = first ? minute_.offset.most : std::max(all_.offset.most, minute_.offset.most);
        all_.offset.sum += minute_.offset.sum;
        all_.offset.count += minute_.offset.count;
    }
    minute_ = {};
    minute_ns_ = now_ns;
}

/// As it was in the beginning: only then can threads and descriptors be compared.
void Endurance::settle(const process::StopSignals& signals)
{
    if (state_ == State::trouble)
        end_trouble(common::now_ns());
    session_.sender().send(config_.format);
    const int64_t end_ns = common::now_ns() + kSettlingNs / 2;
    while (common::now_ns() < end_ns && signals.number() == 0) {
        common::sleep_until_ns(common::now_ns() + kLookNs);
        session_.look();
        for (const Meeting& meeting : session_.take_meetings())
            recovery_.met(meeting);
    }
    if (state_ == State::recovering)
        end_recovery(common::now_ns());
    end_minute(common::now_ns());
}

std::vector<std::string> Endurance::complaints(const ProcessAccount& end) const
{
    std::vector<std::string> all;
    const SessionAccount account = session_.account();
    const auto complain = [&all](bool bad, const std::string& what) {
        if (bad)
            all.push_back(what);
    };
    const bool judged = !config_.hurry;
    complain(judged && all_.failed > 0, "behind " + std::to_string(all_.failed) + " troubles it took longer than " +
                                            std::to_string(config_.recovery_s) + " s");
    complain(judged && all_.astray > 0, std::to_string(all_.astray) + " marks outside of EBU R37 without trouble");
    complain(judged && all_.breaks > 0, std::to_string(all_.breaks) + " breaks of the sound without trouble");
    complain(account.lost > 0, std::to_string(account.lost) + " frames lost or foreign");
    complain(wall_clock_reads() == 0, "the player does not read this program's clock");
    complain(base_.threads == 0 || (judged && all_.offset.count == 0), "too short to judge");
    complain(end.descriptors > base_.descriptors, "descriptors left behind");
    complain(end.threads > base_.threads, "threads left behind");
    const std::vector<HeapTrend::Growth> growths = heap_.growths();
    for (const HeapTrend::Growth& growth : growths)
        complain(growth.kb() > (growth.state == kClosed ? kMostGrowthClosedKb : kMostGrowthKb),
                 "memory (" + growth.state + ") grew by " + std::to_string(growth.kb()) + " kB");
    complain(growths.empty() && minutes_done_ >= kMinutesOfTrend, "the memory cannot be compared: nothing came twice");
    return all;
}

} // namespace

int endure(const EnduranceConfig& config, const process::StopSignals& signals)
{
    Endurance endurance(config);
    return endurance.run(signals);
}

} // namespace soak
