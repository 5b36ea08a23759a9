// SPDX-License-Identifier: MIT
#include "troubles.h"

#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>

#include "wall_clock.h"

namespace soak
{
namespace
{

using hdmi_sim::FaultKind;
using hdmi_sim::Op;

constexpr int64_t kMs = 1'000'000;
constexpr int kNoDevice = -19; ///< -ENODEV

std::string text(const char* format, double value)
{
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, format, value);
    return buffer;
}

double seconds(int64_t ns) { return static_cast<double>(ns) / 1e9; }

void fail_next(Op op, int count)
{
    hdmi_sim::Fault fault;
    fault.result = kNoDevice;
    fault.count = count;
    hdmi_sim::set_fault(op, fault);
}

/// Threads of ordinary priority, whatever that of the one who starts them, that do not wait for anything.
class Load
{
public:
    explicit Load(int threads)
    {
        for (int i = 0; i < threads; i++)
            threads_.emplace_back([this] {
                pthread_setname_np(pthread_self(), "load");
                sched_param param = {};
                // A busy loop of real-time priority would stop the machine.
                if (pthread_setschedparam(pthread_self(), SCHED_OTHER, &param) != 0)
                    return;
                while (!stop_)
                    count_++;
            });
    }
    ~Load()
    {
        stop_ = true;
        for (std::thread& thread : threads_)
            thread.join();
    }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

private:
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> count_{0};
    std::vector<std::thread> threads_;
};

} // namespace

struct Troubles::Kind {
    const char* name;
    Trouble (Troubles::*draw)();
};

const std::vector<Troubles::Kind>& Troubles::all()
{
    static const std::vector<Kind> kinds = {
        {"format", &Troubles::change_format},
        {"cable", &Troubles::pull_cable},
        {"overrun", &Troubles::stop_capture},
        {"capture-loss", &Troubles::lose_capture},
        {"underrun", &Troubles::stop_playback},
        {"playback-loss", &Troubles::lose_playback},
        {"capture-open", &Troubles::fail_capture_open},
        {"player-open", &Troubles::fail_player_open},
        {"close", &Troubles::fail_close},
        {"display", &Troubles::lose_display},
        {"stall-sound", &Troubles::stall_sound},
        {"stall-video", &Troubles::stall_video},
        {"clock", &Troubles::step_clock},
        {"reopen", &Troubles::reopen},
        {"output", &Troubles::change_output},
        {"raw", &Troubles::pass_raw},
        {"storm", &Troubles::announce_storm},
        {"damage", &Troubles::damage_bursts},
        {"load", &Troubles::load},
        {"slow", &Troubles::slow_source},
        {"burst", &Troubles::burst_source},
    };
    return kinds;
}

std::vector<std::string> Troubles::names()
{
    std::vector<std::string> names;
    for (const Kind& kind : all())
        names.emplace_back(kind.name);
    return names;
}

Troubles::Troubles(Session* session, uint64_t seed, std::vector<std::string> kinds)
    : session_(session), random_(seed), kinds_(std::move(kinds))
{
}

Troubles::~Troubles() = default;

int Troubles::draw(int least, int most)
{
    // Not a distribution of the library's: a seed is to mean the same everywhere.
    return least + static_cast<int>(random_() % static_cast<uint64_t>(most - least + 1));
}

int64_t Troubles::draw_ns(int64_t least_ms, int64_t most_ms)
{
    return (least_ms + static_cast<int64_t>(random_() % static_cast<uint64_t>(most_ms - least_ms + 1))) * kMs;
}

int64_t Troubles::draw_pause_ns() { return draw_ns(11'000, 15'000); }

Trouble Troubles::next()
{
    // Without sound there is nothing to be measured.
    if (!can_be_decoded(session_->sender().format()))
        return change_format();
    if (bag_.empty()) {
        for (size_t i = 0; i < all().size(); i++)
            if (std::count(kinds_.begin(), kinds_.end(), all()[i].name) > 0)
                bag_.push_back(static_cast<int>(i));
        for (size_t i = bag_.size(); i > 1; i--)
            std::swap(bag_[i - 1], bag_[static_cast<size_t>(draw(0, static_cast<int>(i) - 1))]);
    }
    const Kind& kind = all()[static_cast<size_t>(bag_.back())];
    bag_.pop_back();
    Trouble trouble = (this->*kind.draw)();
    trouble.kind = kind.name;
    return trouble;
}

Format Troubles::draw_format(bool any)
{
    const Format now = session_->sender().format();
    Format format = now;
    while (format == now || !(any || can_be_decoded(format)))
        format = static_cast<Format>(draw(0, kFormats - 1));
    return format;
}

Trouble Troubles::fault(Op op, const char* what, FaultKind kind, int64_t lasts_ns)
{
    Trouble trouble;
    trouble.what = what + text(" for %.2f s", seconds(lasts_ns));
    trouble.lasts_ns = lasts_ns;
    trouble.begin = [op, kind] {
        hdmi_sim::Fault fault;
        fault.kind = kind;
        fault.result = kNoDevice;
        hdmi_sim::set_fault(op, fault);
    };
    trouble.end = [op] { hdmi_sim::clear_fault(op); };
    return trouble;
}

// --- The source ---------------------------------------------------------------

Trouble Troubles::change_format()
{
    const Format now = session_->sender().format();
    const Format next = draw_format(can_be_decoded(now));
    Trouble trouble;
    trouble.kind = "format";
    trouble.what = std::string(name_of(now)) + " to " + name_of(next);
    trouble.begin = [this, next] { session_->sender().send(next); };
    return trouble;
}

Trouble Troubles::pull_cable()
{
    const Format next = draw(0, 1) == 0 ? session_->sender().format() : draw_format(false);
    Trouble trouble;
    trouble.lasts_ns = draw_ns(300, 3000);
    trouble.what = text("cable out for %.2f s, then ", seconds(trouble.lasts_ns)) + name_of(next);
    trouble.begin = [this] { session_->plug(false); };
    trouble.end = [this, next] {
        session_->sender().send(next);
        session_->plug(true);
    };
    return trouble;
}

Trouble Troubles::announce_storm()
{
    // The main thread announces as fast as it can, and with what is true in the end.
    Trouble trouble;
    trouble.what = "alternating announcements for 0.3 s";
    trouble.begin = [this] {
        const int64_t end_ns = hdmi_sim::now_ns() + 300 * kMs;
        for (int i = 0; hdmi_sim::now_ns() < end_ns; i++)
            hdmi_sim::announce(hdmi_sim::announce_text(i % 2 == 0, i % 3 == 0 ? 44100 : 48000));
        session_->sender().send(session_->sender().format());
    };
    return trouble;
}

Trouble Troubles::damage_bursts()
{
    Trouble trouble;
    trouble.lasts_ns = draw_ns(200, 2000);
    trouble.what = text("turned bits for %.2f s", seconds(trouble.lasts_ns));
    const bool bursts = is_bursts(session_->sender().format());
    const Format next = draw(0, 1) == 0 ? Format::ac3 : Format::eac3;
    // PCM has no check by which the player could tell.
    trouble.begin = [this, bursts, next] {
        if (!bursts)
            session_->sender().send(next);
        session_->sender().damage(true);
    };
    trouble.end = [this] { session_->sender().damage(false); };
    return trouble;
}

Trouble Troubles::slow_source()
{
    Trouble trouble;
    trouble.lasts_ns = draw_ns(1000, 3000);
    trouble.what = text("source at 95 %% of its rate for %.2f s", seconds(trouble.lasts_ns));
    trouble.begin = [this] {
        session_->sender().slow_by(0.05);
        session_->sender().send(session_->sender().format());
    };
    trouble.end = [this] {
        session_->sender().slow_by(0);
        session_->sender().send(session_->sender().format());
    };
    return trouble;
}

Trouble Troubles::burst_source()
{
    // The device gives nothing for a while, then all that it has collected.
    auto stop = std::make_shared<std::atomic<bool>>(false);
    auto thread = std::make_shared<std::thread>();
    Trouble trouble;
    trouble.lasts_ns = draw_ns(1000, 3000);
    trouble.what = text("capture in bursts of 60 ms for %.2f s", seconds(trouble.lasts_ns));
    trouble.begin = [stop, thread] {
        *thread = std::thread([stop] {
            constexpr useconds_t kHeldUs = 50'000;
            constexpr useconds_t kGivenUs = 10'000;
            hdmi_sim::Fault fault;
            fault.kind = FaultKind::block;
            while (!*stop) {
                hdmi_sim::set_fault(Op::capture_read, fault);
                usleep(kHeldUs);
                hdmi_sim::clear_fault(Op::capture_read);
                usleep(kGivenUs);
            }
        });
    };
    trouble.end = [stop, thread] {
        *stop = true;
        thread->join();
    };
    return trouble;
}

// --- The devices ----------------------------------------------------------------

Trouble Troubles::stop_capture()
{
    return fault(Op::capture_read, "capture stands still", FaultKind::block, draw_ns(100, 1500));
}
Trouble Troubles::lose_capture()
{
    return fault(Op::capture_read, "capture fails", FaultKind::fail, draw_ns(100, 2000));
}
Trouble Troubles::stop_playback()
{
    return fault(Op::playback_write, "output stands still", FaultKind::block, draw_ns(100, 1500));
}
Trouble Troubles::lose_playback()
{
    return fault(Op::playback_write, "output fails", FaultKind::fail, draw_ns(100, 2000));
}
Trouble Troubles::lose_display()
{
    return fault(Op::wait_vblank, "no vertical blanks", FaultKind::fail, draw_ns(200, 3000));
}

Trouble Troubles::fail_capture_open()
{
    const int count = draw(1, 20);
    const Format next = draw_format(false);
    Trouble trouble;
    trouble.what = text("capture does not open %.0f times, then ", count) + name_of(next);
    trouble.begin = [this, count, next] {
        fail_next(Op::capture_open, count);
        session_->sender().send(next);
    };
    return trouble;
}

Trouble Troubles::fail_player_open()
{
    const int count = draw(1, 3);
    const Op op = draw(0, 1) == 0 ? Op::capture_open : Op::playback_open;
    Trouble trouble;
    trouble.what =
        text("the player does not open %.0f times: ", count) + (op == Op::capture_open ? "capture" : "output");
    trouble.begin = [this, op, count] {
        fail_next(op, count);
        session_->reopen();
    };
    return trouble;
}

Trouble Troubles::fail_close()
{
    const Op op = draw(0, 1) == 0 ? Op::capture_close : Op::playback_close;
    Trouble trouble;
    trouble.what = op == Op::capture_close ? "capture does not close once" : "output does not close once";
    trouble.begin = [this, op] {
        fail_next(op, 1);
        session_->reopen();
    };
    return trouble;
}

// --- The host ---------------------------------------------------------------------

Trouble Troubles::stall_sound()
{
    Trouble trouble;
    trouble.lasts_ns = draw_ns(50, 1500);
    trouble.what = text("the host's sound stands still for %.2f s", seconds(trouble.lasts_ns));
    trouble.begin = [this, lasts = trouble.lasts_ns] { session_->host().stall_sound(lasts); };
    return trouble;
}

Trouble Troubles::stall_video()
{
    Trouble trouble;
    trouble.lasts_ns = draw_ns(50, 1500);
    trouble.what = text("the host's pictures stand still for %.2f s", seconds(trouble.lasts_ns));
    trouble.begin = [this, lasts = trouble.lasts_ns] { session_->host().stall_video(lasts); };
    return trouble;
}

Trouble Troubles::step_clock()
{
    constexpr int64_t kStepsUs[] = {50'000, 100'000, 500'000, 1'000'000, 60'000'000, 3'600'000'000};
    int64_t step_us = kStepsUs[draw(0, 5)];
    if (draw(0, 1) == 0)
        step_us = -step_us;
    Trouble trouble;
    trouble.what = text("wall clock set by %+.2f s", static_cast<double>(step_us) / 1e6);
    trouble.begin = [step_us] { step_wall_clock(step_us); };
    return trouble;
}

Trouble Troubles::reopen()
{
    Trouble trouble;
    trouble.what = "the player is closed and opened";
    trouble.begin = [this] { session_->reopen(); };
    return trouble;
}

Trouble Troubles::change_output()
{
    constexpr hdmi_player_ao_dev_e kOutputs[] = {E_HDMI_PLAYER_AO_DEV_SPEAKER, E_HDMI_PLAYER_AO_DEV_HEADPHONE,
                                                 E_HDMI_PLAYER_AO_DEV_SPDIF, E_HDMI_PLAYER_AO_DEV_HDMI_ARC};
    constexpr const char* kNames[] = {"speaker", "headphone", "S/PDIF", "ARC"};
    const int to = draw(0, 3);
    Trouble trouble;
    trouble.what = std::string("output to ") + kNames[to];
    trouble.begin = [output = kOutputs[to]] { hdmi_player_select_audio_output_device(output); };
    return trouble;
}

Trouble Troubles::pass_raw()
{
    Trouble trouble;
    trouble.lasts_ns = draw_ns(500, 4000);
    trouble.what = text("RAW on S/PDIF for %.2f s", seconds(trouble.lasts_ns));
    trouble.begin = [] {
        hdmi_player_select_audio_output_format(E_HDMI_PLAYER_AO_FORMAT_RAW);
        hdmi_player_select_audio_output_device(E_HDMI_PLAYER_AO_DEV_SPDIF);
    };
    trouble.end = [] {
        hdmi_player_select_audio_output_format(E_HDMI_PLAYER_AO_FORMAT_PCM);
        hdmi_player_select_audio_output_device(E_HDMI_PLAYER_AO_DEV_SPEAKER);
    };
    return trouble;
}

Trouble Troubles::load()
{
    auto load = std::make_shared<std::unique_ptr<Load>>();
    const auto threads = static_cast<int>(2 * std::max<long>(sysconf(_SC_NPROCESSORS_ONLN), 1));
    Trouble trouble;
    trouble.lasts_ns = draw_ns(2000, 5000);
    trouble.what = text("two busy threads on each processor for %.2f s", seconds(trouble.lasts_ns));
    trouble.begin = [load, threads] { *load = std::make_unique<Load>(threads); };
    trouble.end = [load] { load->reset(); };
    return trouble;
}

} // namespace soak
