// SPDX-License-Identifier: MIT
/**
 * @file
 * What happens to a player in the field, drawn from a seed.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "session.h"

namespace soak
{

struct Trouble {
    std::string kind;
    std::string what; ///< in words, with its figures
    int64_t lasts_ns = 0;
    std::function<void()> begin;
    std::function<void()> end; ///< null: nothing is to be done
};

class Troubles
{
public:
    /// Only those of @p kinds.
    Troubles(Session* session, uint64_t seed, std::vector<std::string> kinds);
    ~Troubles();

    /// The kinds that can be drawn.
    static std::vector<std::string> names();

    /// Every kind comes once before any comes again. Behind a format without sound comes one with.
    Trouble next();
    /// The pause behind a trouble: longer than the ten seconds in which a host throws late sound away once.
    int64_t draw_pause_ns();

private:
    struct Kind;
    static const std::vector<Kind>& all();

    /// In milliseconds, both included; round ones.
    int64_t draw_ns(int64_t least_ms, int64_t most_ms);
    int draw(int least, int most);
    Format draw_format(bool any);
    Trouble fault(hdmi_sim::Op op, const char* what, hdmi_sim::FaultKind kind, int64_t lasts_ns);

    Trouble change_format();
    Trouble pull_cable();
    Trouble stop_capture();
    Trouble lose_capture();
    Trouble stop_playback();
    Trouble lose_playback();
    Trouble fail_capture_open();
    Trouble fail_player_open();
    Trouble fail_close();
    Trouble lose_display();
    Trouble stall_sound();
    Trouble stall_video();
    Trouble step_clock();
    Trouble reopen();
    Trouble change_output();
    Trouble pass_raw();
    Trouble announce_storm();
    Trouble damage_bursts();
    Trouble load();
    Trouble slow_source();
    Trouble burst_source();

    Session* const session_;
    std::mt19937_64 random_;
    std::vector<std::string> kinds_;
    std::vector<int> bag_; ///< kinds that are still to come before any comes again
};

} // namespace soak
