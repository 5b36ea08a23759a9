// SPDX-License-Identifier: MIT
#include "receiver.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

#include "alsa_capture.h"
#include "alsa_cards.h"
#include "alsa_clock.h"
#include "alsa_pcm.h"
#include "config.h"
#include "contained.h"
#include "extcon/extcon.h"
#include "internal/common.h"

namespace hdmi_linux
{
namespace
{

constexpr char kVariable[] = "HDMIPLAYER_LINUX_RECEIVER";
constexpr useconds_t kLookAgainUs = 100'000;
/// Long enough for a few of the longest bursts, or for as much sound without one.
constexpr int64_t kListeningNs = 400 * kNsPerMs;
constexpr int kListeningPeriodMs = 10;
constexpr int kListeningPeriods = 16;
constexpr int kDefaultRate = 48000;
constexpr size_t kMostEvents = 256;

/// Longer than the player needs to see a state, shorter than it takes to call a source unsupported.
constexpr useconds_t kNoSignalUs = 150'000;
constexpr const char* kNoSignal = "HEADDONE=0";

std::string text_of(const LinkState& state)
{
    std::string text = extcon::state_text(state.compressed, state.sample_rate);
    // A rate without a name: the player treats the source as unsupported.
    return text.empty() ? kNoSignal : text;
}

/// What the machine's own driver announces; a sample rate of 0 if that is not known.
LinkState state_of_driver()
{
    std::ifstream file(extcon::kStateFile);
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    for (const int rate : {48000, 44100, 32000})
        for (const bool compressed : {false, true})
            if (text.find(extcon::state_text(compressed, rate)) != std::string::npos)
                return {compressed, rate};
    return {false, 0};
}

std::string capture_device()
{
    const std::string named = current_config().audio[E_AUDIO_IO_DEV_HDMI_IN].pcm;
    return named.empty() ? first_capture_device() : named;
}

} // namespace

Receiver& receiver()
{
    static auto* instance = new Receiver;
    return *instance;
}

// --- Starting and ending ------------------------------------------------------------

bool Receiver::start(std::string* error)
{
    const mutex_guard control(control_);
    if (thread_.joinable())
        return true;
    driver_announces_ = access(extcon::kStateFile, F_OK) == 0;
    device_ = capture_device();
    place_ = find_card(device_);
    if (driver_announces_) {
        note_state(state_of_driver());
    } else {
        if (!extcon::use_process(error))
            return false;
        const int rate = rate_by_controls(place_);
        listen(rate > 0 ? rate : kDefaultRate);
        const LinkState state = derive_state({}, evidence());
        extcon::write_state(text_of(state));
        note_state(state);
    }
    following_ = true;
    try {
        thread_ = std::thread(&Receiver::follow, this);
    } catch (const std::system_error& fault) {
        following_ = false;
        *error = std::string("no thread to follow the capture device: ") + fault.what();
    }
    return following_;
}

void Receiver::stop()
{
    const mutex_guard control(control_);
    following_ = false;
    if (thread_.joinable())
        thread_.join();
}

void Receiver::start_if_asked()
{
    if (asked_.exchange(true) || env_get_value(kVariable, 0) == 0)
        return;
    std::string error;
    if (!start(&error))
        log_e("%s\n", error.c_str());
}

/// A device that cannot be opened tells nothing; the player reports it.
void Receiver::listen(int rate)
{
    PcmRequest request;
    request.name = device_;
    request.stream = SND_PCM_STREAM_CAPTURE;
    request.rate = rate;
    request.period_frames = rate * kListeningPeriodMs / 1000;
    request.period_count = kListeningPeriods;
    Pcm pcm;
    std::string ignored;
    if (pcm.open(request, &ignored) < 0)
        return;
    constexpr int kLinkFrameBytes = 2 * kBytesPerSample;
    std::vector<uint8_t> period(static_cast<size_t>(request.period_frames) * kLinkFrameBytes);
    const int64_t deadline = now_ns() + kListeningNs;
    while (watch_.evidence().content == Content::unknown && now_ns() < deadline) {
        const int got = pcm.read(period.data(), request.period_frames);
        if (got > 0)
            feed(period.data(), got * kLinkFrameBytes);
        else if (pcm.classify(got) != StreamError::none)
            break;
        else
            usleep(kListeningPeriodMs * 1000);
    }
    pcm.close();
}

// --- What is received ---------------------------------------------------------------

void Receiver::opened()
{
    const mutex_guard guard(feeding_);
    watch_.opened();
}

void Receiver::captured(const uint8_t* data, int bytes)
{
    if (following_)
        feed(data, bytes);
}

void Receiver::feed(const uint8_t* data, int bytes)
{
    const mutex_guard guard(feeding_);
    watch_.feed(data, bytes, now_ns());
}

LinkEvidence Receiver::evidence() const
{
    LinkEvidence evidence = watch_.evidence();
    evidence.control_rate = rate_by_controls(place_);
    return evidence;
}

void Receiver::follow()
{
    set_thread_name("receiver");
    while (following_) {
        contained([this] { return look(), 0; }, 0); // without memory, what it found is found again
        usleep(kLookAgainUs);
    }
}

void Receiver::look()
{
    if (!driver_announces_)
        announce_return();
    const LinkEvidence found = evidence();
    const LinkState next = driver_announces_ ? state_of_driver() : derive_state(announced_, found);
    compare(found);
    if (next != announced_)
        announce_state(next);
}

void Receiver::announce_state(const LinkState& state)
{
    if (driver_announces_ || extcon::announce(text_of(state)))
        note_state(state);
}

/// After a lost device is back: announces no signal, and then the signal, so that the player begins a new sequence. The
/// capture replaces what was lost by silence. But where the output was lost too (a sound server that ends), so was the
/// sound that it had queued, and without a new sequence all later sound would be early by that for good.
void Receiver::announce_return()
{
    const int64_t returns = capture().stats().recoveries;
    if (returns == returns_)
        return;
    const LinkState state = announced_;
    announce_state({false, 0});
    usleep(kNoSignalUs);
    announce_state(state);
    returns_ = returns;
}

/// Reports a source that is not what was announced: the receiver or the source is at fault, and no player can correct
/// it.
void Receiver::compare(const LinkEvidence& found)
{
    const std::string message = rates_.look(announced_, found);
    if (message.empty())
        return;
    log_w("%s\n", message.c_str());
    note(false, message);
}

// --- Events ---------------------------------------------------------------------------

void Receiver::note_state(const LinkState& state)
{
    announced_ = state;
    watch_.measure_anew();
    note(true, text_of(state));
}

void Receiver::note(bool announced, const std::string& text)
{
    hdmi_linux_receiver_event_t event = {now_ns(), announced, {}};
    snprintf(event.text, sizeof(event.text), "%s", text.c_str());
    const mutex_guard guard(mutex_);
    events_.push_back(event);
    if (events_.size() > kMostEvents)
        events_.pop_front();
}

int Receiver::events(hdmi_linux_receiver_event_t* events, int count)
{
    const mutex_guard guard(mutex_);
    const auto known = static_cast<int>(events_.size());
    if (events != nullptr && count > 0)
        std::copy(events_.end() - std::min(known, count), events_.end(), events);
    return known;
}

} // namespace hdmi_linux

extern "C" {

__attribute__((visibility("default"))) int hdmi_linux_receiver_start(char* error, size_t size)
{
    std::string why;
    const bool started = hdmi_linux::contained([&why] { return hdmi_linux::receiver().start(&why); }, false);
    if (error != nullptr && size > 0)
        snprintf(error, size, "%s", why.c_str());
    return started ? 0 : -1;
}

__attribute__((visibility("default"))) void hdmi_linux_receiver_stop(void) { hdmi_linux::receiver().stop(); }

__attribute__((visibility("default"))) int hdmi_linux_receiver_events(hdmi_linux_receiver_event_t* events, int count)
{
    return hdmi_linux::receiver().events(events, count);
}

} // extern "C"
