// SPDX-License-Identifier: MIT
#include "edges/announcer.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "hdmi_sim.h"

namespace play
{
namespace
{

constexpr const char* state_file = "/sys/class/extcon/hdmirx_aud/state";
constexpr useconds_t look_again_us = 100'000;
/// Long enough for a few of the longest bursts, or for as much sound without one.
constexpr int64_t listening_ns = 400'000'000;
constexpr int default_rate = 48000;

/// Longer than the player needs to see a state, shorter than it takes to call a source unsupported.
constexpr useconds_t no_signal_us = 150'000;
constexpr const char* no_signal = "HEADDONE=0";

std::string state_text(const LinkState& state)
{
    std::string text = hdmi_sim::announce_text(state.compressed, state.sample_rate);
    // No state that anybody knows: the player takes the source for unsupported.
    return text.empty() ? no_signal : text;
}

/// What the machine's own driver announces; a sample rate of 0 if that is not known.
LinkState state_of_driver()
{
    std::ifstream file(state_file);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    for (int rate : {48000, 44100, 32000})
        for (bool compressed : {false, true})
            if (text.find(hdmi_sim::announce_text(compressed, rate)) != std::string::npos)
                return {compressed, rate};
    return {false, 0};
}

} // namespace

bool Announcer::driver_announces()
{
    static const bool announces = access(state_file, F_OK) == 0;
    return announces;
}

bool Announcer::start(std::string* error)
{
    m_place = alsa_place(m_device, AlsaPcm::Direction::capture);
    if (!driver_announces()) {
        int rate = control_rate();
        listen(rate > 0 ? rate : default_rate);
        note(derive_state({}, evidence()));
        if (!hdmi_sim::write_state_file(state_text(m_announced))) {
            *error = "cannot announce the source";
            return false;
        }
    } else {
        note(state_of_driver());
    }
    tap_capture(this);
    m_thread = std::thread(&Announcer::follow, this);
    return true;
}

// The player was closed before: nobody is inside of captured().
Announcer::~Announcer()
{
    stop();
    tap_capture(nullptr);
}

void Announcer::stop()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
}

/// A device that cannot be opened is the player's to report: nothing is known of it here.
void Announcer::listen(int rate)
{
    std::string ignored;
    std::unique_ptr<AlsaPcm> pcm = AlsaPcm::open(m_device, AlsaPcm::Direction::capture, rate, &ignored);
    if (!pcm || !pcm->start())
        return;
    std::vector<int16_t> period(static_cast<size_t>(2 * pcm->period_frames()));
    int64_t deadline = hdmi_sim::now_ns() + listening_ns;
    while (m_watch.evidence().content == Content::unknown && hdmi_sim::now_ns() < deadline) {
        int got = pcm->read(period.data(), pcm->period_frames());
        if (got < 0)
            return;
        captured(reinterpret_cast<const uint8_t*>(period.data()), got * 4, hdmi_sim::now_ns());
    }
}

LinkEvidence Announcer::evidence() const
{
    LinkEvidence evidence = m_watch.evidence();
    evidence.control_rate = control_rate();
    return evidence;
}

/// Of a capture card, or of the far end of a loopback.
int Announcer::control_rate() const
{
    for (const char* name : {"PCM Slave Rate", "PCM Rate"}) {
        int rate = alsa_control(m_place, name);
        if (rate > 0)
            return rate;
    }
    return -1;
}

void Announcer::note(const LinkState& state)
{
    m_announced = state;
    m_watch.measure_anew();
    m_history.push_back({hdmi_sim::now_ns(), state_text(state)});
}

/// A source that is not what was announced is the receiver's fault, or the source's: not one that a player can mend.
void Announcer::compare(const LinkEvidence& found)
{
    std::string message = m_rates.look(m_announced, found);
    if (message.empty())
        return;
    std::fprintf(stderr, "hdmi-player-play: %s\n", message.c_str());
    m_messages.push_back(message);
}

/// As if the signal had been gone with its device, so that the player begins a new sequence. The capture keeps its
/// place by silence; but where the output goes with it (a sound server that ends), the sound that the output had queued
/// is lost, and what follows would be early by it for good.
void Announcer::announce_return()
{
    int64_t returns = real_capture_stats().recoveries;
    if (returns == m_returns)
        return;
    LinkState state = m_announced;
    if (!hdmi_sim::announce(no_signal))
        return;
    note({false, 0});
    usleep(no_signal_us);
    if (!hdmi_sim::announce(state_text(state))) {
        m_announced = state; // Once more, from the beginning.
        return;
    }
    note(state);
    m_returns = returns;
}

void Announcer::follow()
{
    pthread_setname_np(pthread_self(), "announcer");
    while (!m_stop) {
        if (!driver_announces())
            announce_return();
        LinkEvidence found = evidence();
        LinkState next = driver_announces() ? state_of_driver() : derive_state(m_announced, found);
        compare(found);
        if (next != m_announced && (driver_announces() || hdmi_sim::announce(state_text(next))))
            note(next);
        usleep(look_again_us);
    }
}

} // namespace play
