// SPDX-License-Identifier: MIT
#include "hdmi_sim_control.h"

#include <cstdio>
#include <optional>

#include "extcon/extcon.h"
#include "named_signal.h"
#include "sim.h"

namespace
{

constexpr const char* kNoSignal = "HEADDONE=0";

bool connect(const char* text, std::string* error)
{
    if (text == nullptr) {
        *error = "no signal is named";
        return false;
    }
    sim::NamedSignal found;
    if (!sim::find_signal(text, &found, error) || !extcon::use_process(error))
        return false;
    hdmi_sim::receiver_connect(std::move(found.signal));
    if (hdmi_sim::announce(hdmi_sim::announce_text(found.compressed, found.sample_rate)))
        return true;
    hdmi_sim::receiver_disconnect();
    *error = "the source cannot be announced";
    return false;
}

std::optional<hdmi_sim::Op> operation(hdmi_sim_call_e call)
{
    using hdmi_sim::Op;
    switch (call) {
    case HDMI_SIM_CAPTURE_OPEN: return Op::capture_open;
    case HDMI_SIM_CAPTURE_READ: return Op::capture_read;
    case HDMI_SIM_PLAYBACK_OPEN: return Op::playback_open;
    case HDMI_SIM_PLAYBACK_WRITE: return Op::playback_write;
    case HDMI_SIM_PLAYBACK_DELAY: return Op::playback_delay;
    case HDMI_SIM_SET_VOLUME: return Op::set_volume;
    case HDMI_SIM_DECODER_INIT: return Op::decoder_init;
    case HDMI_SIM_WAIT_VBLANK: return Op::wait_vblank;
    }
    return std::nullopt;
}

} // namespace

extern "C" {

SIM_EXPORT int hdmi_sim_connect(const char* signal, char* error, size_t size)
{
    std::string why;
    const bool connected = connect(signal, &why);
    if (error != nullptr && size > 0)
        snprintf(error, size, "%s", why.c_str());
    return connected ? 0 : -1;
}

SIM_EXPORT void hdmi_sim_disconnect(void)
{
    hdmi_sim::receiver_disconnect();
    hdmi_sim::announce(kNoSignal);
}

SIM_EXPORT hdmi_sim_counters_t hdmi_sim_counters(void)
{
    const hdmi_sim::ReceiverStats receiver = hdmi_sim::receiver_stats();
    const hdmi_sim::PlaybackStats playback = hdmi_sim::playback_stats();
    const hdmi_sim::DisplayStats display = hdmi_sim::display_stats();
    hdmi_sim_counters_t counters = {};
    counters.captured_frames = receiver.frames_read;
    counters.captured_periods = receiver.periods_read;
    counters.capture_opens = receiver.opens;
    counters.overruns = receiver.overruns;
    counters.played_frames = playback.frames_written;
    counters.playback_opens = playback.opens;
    counters.underruns = playback.underruns;
    counters.playback_rate = playback.sample_rate;
    counters.volume = playback.volume;
    counters.muted = playback.muted;
    counters.matching_ppm = playback.matching_ppm;
    counters.vblanks = display.vblanks;
    counters.flips = display.flips;
    counters.superseded = display.superseded;
    counters.repeated = display.repeated;
    return counters;
}

SIM_EXPORT int hdmi_sim_trouble(hdmi_sim_call_e call, int result, int count)
{
    const std::optional<hdmi_sim::Op> op = operation(call);
    if (!op || result > 0)
        return -1;
    if (count == 0) {
        hdmi_sim::clear_fault(*op);
        return 0;
    }
    hdmi_sim::Fault fault;
    fault.kind = result == 0 ? hdmi_sim::FaultKind::block : hdmi_sim::FaultKind::fail;
    fault.result = result;
    fault.count = count;
    hdmi_sim::set_fault(*op, fault);
    return 0;
}

SIM_EXPORT int64_t hdmi_sim_troubled(hdmi_sim_call_e call)
{
    const std::optional<hdmi_sim::Op> op = operation(call);
    return op ? hdmi_sim::fault_hits(*op) : -1;
}

} // extern "C"
