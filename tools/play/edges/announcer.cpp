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

constexpr const char* kStateFile = "/sys/class/extcon/hdmirx_aud/state";
constexpr useconds_t kLookAgainUs = 100'000;
/// Long enough for a few of the longest bursts, or for as much sound without one.
constexpr int64_t kListeningNs = 400'000'000;
constexpr int kDefaultRate = 48000;

/// Longer than the player needs to see a state, shorter than it takes to call a source unsupported.
constexpr useconds_t kNoSignalUs = 150'000;
constexpr const char* kNoSignal = "HEADDONE=0";

std::string state_text(const LinkState& state)
{
    std::string text = hdmi_sim::announce_text(state.compressed, state.sample_rate);
    // A rate without a name: the player treats the source as unsupported.
    return text.empty() ? kNoSignal : text;
}

/// What the machine's own driver announces; a sample rate of 0 if that is not known.
LinkState state_of_driver()
{
    std::ifstream file(kStateFile);
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
    static const bool announces = access(kStateFile, F_OK) == 0;
    return announces;
}

bool Announcer::start(std::string* error)
{
    place_ = alsa_place(device_, AlsaPcm::Direction::capture);
    if (!driver_announces()) {
        int rate = control_rate();
        listen(rate > 0 ? rate : kDefaultRate);
        note(derive_state({}, evidence()));
        if (!hdmi_sim::write_state_file(state_text(announced_))) {
            *error = "cannot announce the source";
            return false;
        }
    } else {
        note(state_of_driver());
    }
    tap_capture(this);
    thread_ = std::thread(&Announcer::follow, this);
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
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
}

/// A device that cannot be opened tells nothing; the player reports it.
void Announcer::listen(int rate)
{
    std::string ignored;
    std::unique_ptr<AlsaPcm> pcm = AlsaPcm::open(device_, AlsaPcm::Direction::capture, rate, &ignored);
    if (!pcm || !pcm->start())
        return;
    std::vector<int16_t> period(static_cast<size_t>(2 * pcm->period_frames()));
    int64_t deadline = hdmi_sim::now_ns() + kListeningNs;
    while (watch_.evidence().content == Content::unknown && hdmi_sim::now_ns() < deadline) {
        int got = pcm->read(period.data(), pcm->period_frames());
        if (got < 0)
            return;
        captured(reinterpret_cast<const uint8_t*>(period.data()), got * 4, hdmi_sim::now_ns());
    }
}

LinkEvidence Announcer::evidence() const
{
    LinkEvidence evidence = watch_.evidence();
    evidence.control_rate = control_rate();
    return evidence;
}

/// Of a capture card, or of the far end of a loopback.
int Announcer::control_rate() const
{
    for (const char* name : {"PCM Slave Rate", "PCM Rate"}) {
        int rate = alsa_control(place_, name);
        if (rate > 0)
            return rate;
    }
    return -1;
}

void Announcer::note(const LinkState& state)
{
    announced_ = state;
    watch_.measure_anew();
    history_.push_back({hdmi_sim::now_ns(), state_text(state)});
}

/// Reports a source that is not what was announced: the receiver or the source is at fault, and no player can correct
/// it.
void Announcer::compare(const LinkEvidence& found)
{
    std::string message = rates_.look(announced_, found);
    if (message.empty())
        return;
    std::fprintf(stderr, "hdmi-player-play: %s\n", message.c_str());
    messages_.push_back(message);
}

/// After a lost device is back: announces no signal, and then the signal, so that the player begins a new sequence. The
/// capture replaces what was lost by silence. But where the output was lost too (a sound server that ends), so was the
/// sound that it had queued, and without a new sequence all later sound would be early by that for good.
void Announcer::announce_return()
{
    int64_t returns = real_capture_stats().recoveries;
    if (returns == returns_)
        return;
    LinkState state = announced_;
    if (!hdmi_sim::announce(kNoSignal))
        return;
    note({false, 0});
    usleep(kNoSignalUs);
    if (!hdmi_sim::announce(state_text(state))) {
        announced_ = state; // Once more, from the beginning.
        return;
    }
    note(state);
    returns_ = returns;
}

void Announcer::follow()
{
    pthread_setname_np(pthread_self(), "announcer");
    while (!stop_) {
        if (!driver_announces())
            announce_return();
        LinkEvidence found = evidence();
        LinkState next = driver_announces() ? state_of_driver() : derive_state(announced_, found);
        compare(found);
        if (next != announced_ && (driver_announces() || hdmi_sim::announce(state_text(next))))
            note(next);
        usleep(kLookAgainUs);
    }
}

} // namespace play
