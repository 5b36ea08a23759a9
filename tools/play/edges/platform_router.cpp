// SPDX-License-Identifier: MIT
#include "edges/platform_router.h"

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "common/clock.h"
#include "hdmi_cec.h"
#include "hdmi_sim.h"

namespace play
{
namespace
{

using common::now_ns;

constexpr const char* kLinuxLibrary = "libhdmiplayer_linux.so.1";

/// One platform's functions.
struct Platform {
    decltype(&aio_device_open) open = nullptr;
    decltype(&aio_device_close) close = nullptr;
    decltype(&aio_device_read) read = nullptr;
    decltype(&aio_device_write) write = nullptr;
    decltype(&aio_device_get_write_bytes) get_write_bytes = nullptr;
    decltype(&aio_device_bytes_to_frames) bytes_to_frames = nullptr;
    decltype(&aio_device_frames_to_bytes) frames_to_bytes = nullptr;
    decltype(&aio_device_set_volume) set_volume = nullptr;
    decltype(&aio_device_set_volume_direct) set_volume_direct = nullptr;
    decltype(&aio_device_set_mute) set_mute = nullptr;
    decltype(&aio_device_reselect) reselect = nullptr;
    decltype(&vendor_hdmi_cec_init) cec_init = nullptr;
    decltype(&vendor_hdmi_cec_open_arc) cec_open_arc = nullptr;
    decltype(&vendor_hdmi_cec_deinit) cec_deinit = nullptr;
    decltype(&hdmi_linux::check_config) check_config = nullptr;      ///< of the Linux platform only
    decltype(&hdmi_linux::playback_stats) playback_stats = nullptr;  ///< likewise
    decltype(&hdmi_linux::capture_stats) capture_stats = nullptr;    ///< likewise
    decltype(&hdmi_linux::bypass_stats) bypass_stats = nullptr;      ///< likewise
    decltype(&hdmi_linux::cec_stats) cec_stats = nullptr;            ///< likewise
    decltype(&hdmi_linux_receiver_start) receiver_start = nullptr;   ///< likewise
    decltype(&hdmi_linux_receiver_stop) receiver_stop = nullptr;     ///< likewise
    decltype(&hdmi_linux_receiver_events) receiver_events = nullptr; ///< likewise
};

template <typename Function> bool look_up(void* library, const char* name, Function* function)
{
    *function = reinterpret_cast<Function>(dlsym(library, name));
    return *function != nullptr;
}

bool look_up_devices(void* library, Platform* platform)
{
    return look_up(library, "aio_device_open", &platform->open) &&
           look_up(library, "aio_device_close", &platform->close) &&
           look_up(library, "aio_device_read", &platform->read) &&
           look_up(library, "aio_device_write", &platform->write) &&
           look_up(library, "aio_device_get_write_bytes", &platform->get_write_bytes) &&
           look_up(library, "aio_device_bytes_to_frames", &platform->bytes_to_frames) &&
           look_up(library, "aio_device_frames_to_bytes", &platform->frames_to_bytes) &&
           look_up(library, "aio_device_set_volume", &platform->set_volume) &&
           look_up(library, "aio_device_set_volume_direct", &platform->set_volume_direct) &&
           look_up(library, "aio_device_set_mute", &platform->set_mute) &&
           look_up(library, "aio_device_reselect", &platform->reselect);
}

bool look_up_cec(void* library, Platform* platform)
{
    return look_up(library, "vendor_hdmi_cec_init", &platform->cec_init) &&
           look_up(library, "vendor_hdmi_cec_open_arc", &platform->cec_open_arc) &&
           look_up(library, "vendor_hdmi_cec_deinit", &platform->cec_deinit);
}

/// The names that the compiler gives to hdmi_linux's functions.
bool look_up_own(void* library, Platform* platform)
{
    return look_up(library, "_ZN10hdmi_linux12check_configEPNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
                   &platform->check_config) &&
           look_up(library, "_ZN10hdmi_linux14playback_statsEv", &platform->playback_stats) &&
           look_up(library, "_ZN10hdmi_linux13capture_statsEv", &platform->capture_stats) &&
           look_up(library, "_ZN10hdmi_linux12bypass_statsEv", &platform->bypass_stats) &&
           look_up(library, "_ZN10hdmi_linux9cec_statsEv", &platform->cec_stats) &&
           look_up(library, "hdmi_linux_receiver_start", &platform->receiver_start) &&
           look_up(library, "hdmi_linux_receiver_stop", &platform->receiver_stop) &&
           look_up(library, "hdmi_linux_receiver_events", &platform->receiver_events);
}

/// The simulation: the next library after this program in the search order of the loader.
const Platform& simulated()
{
    static const Platform platform = [] {
        Platform found;
        if (!look_up_devices(RTLD_NEXT, &found) || !look_up_cec(RTLD_NEXT, &found)) {
            std::fprintf(stderr, "hdmi-player-play: the simulated platform lacks a function\n");
            std::abort();
        }
        return found;
    }();
    return platform;
}

struct Router {
    Platform machine;
    Routes routes;
    std::atomic<SeamTap*> playback_tap{nullptr};
    std::atomic<SeamTap*> capture_tap{nullptr};
    std::atomic<Trace*> trace{nullptr};
    std::atomic<int64_t> blocks{0};
    std::atomic<int64_t> block_to_withhold{-1};
    std::atomic<int64_t> withheld{0};
};

Router& router()
{
    static Router instance;
    return instance;
}

bool is_capture(const audio_config_t* config)
{
    return config != nullptr && config->stream_type == E_AUDIO_STREAM_CAPTURE;
}

const Platform& behind(const audio_config_t* config)
{
    const Router& r = router();
    bool real = is_capture(config) ? r.routes.real_capture : r.routes.real_playback;
    return real ? r.machine : simulated();
}

const Platform& cec() { return router().routes.real_cec ? router().machine : simulated(); }

SeamTap* tap_of(const audio_config_t* config)
{
    return is_capture(config) ? router().capture_tap.load() : router().playback_tap.load();
}

// The decoder is the simulation's, which knows of its own device only.
void tell_decoder(const audio_config_t* config, hdmi_sim::CaptureNews news)
{
    if (is_capture(config) && router().routes.real_capture)
        hdmi_sim::note_capture(news);
}

void note_opened(const audio_config_t& config)
{
    if (SeamTap* tap = tap_of(&config))
        tap->opened(config);
    Trace* trace = router().trace;
    if (trace != nullptr && !is_capture(&config))
        trace->opened.add({now_ns(), config.sample_rate});
}

void note_written(audio_config_t* config, const uint8_t* data, int bytes)
{
    SeamTap* tap = tap_of(config);
    Trace* trace = router().trace;
    if (tap == nullptr && trace == nullptr)
        return;
    int delay_frames = -1;
    if (behind(config).get_write_bytes(config, &delay_frames) < 0)
        delay_frames = -1;
    int64_t written_ns = now_ns();
    if (tap != nullptr)
        tap->written(data, bytes, written_ns, delay_frames);
    if (trace != nullptr)
        trace->written.add(
            {written_ns, behind(config).bytes_to_frames(config, bytes), delay_frames, mark_of(data, bytes)});
}

void note_read(const audio_config_t* config, const uint8_t* data, int bytes)
{
    tell_decoder(config, hdmi_sim::CaptureNews::delivered);
    SeamTap* tap = tap_of(config);
    if (tap != nullptr && is_capture(config))
        tap->read(data, bytes, now_ns(), real_capture_stats().waiting);
}

/// @return null with the loader's line in @p error
void* load_library(const std::string& name, std::string* error)
{
    // Local: its symbols must not replace this program's functions.
    void* library = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr)
        *error = dlerror();
    return library;
}

/// A platform that somebody else made has the seams alone.
bool load_port(const std::string& name, std::string* error)
{
    void* library = load_library(name, error);
    if (library == nullptr)
        return false;
    if (look_up_devices(library, &router().machine))
        return true;
    *error = dlerror();
    return false;
}

} // namespace

bool set_routes(const Routes& routes, std::string* error)
{
    Router& r = router();
    r.routes = routes;
    if (!routes.any())
        return true;
    if (!routes.port.empty())
        return load_port(routes.port, error);
    void* library = load_library(kLinuxLibrary, error);
    if (library == nullptr) {
        *error = "real devices need the Linux platform: " + *error;
        return false;
    }
    if (look_up_devices(library, &r.machine) && look_up_cec(library, &r.machine) && look_up_own(library, &r.machine))
        return true;
    *error = std::string(kLinuxLibrary) + " is not of this program's version: " + dlerror();
    return false;
}

bool machine_is_configured(const ConfigUse& use, std::string* error)
{
    const Router& r = router();
    std::string faults;
    if (!r.routes.any() || r.machine.check_config == nullptr || r.machine.check_config(&faults))
        return true;
    std::string in_the_way;
    std::istringstream lines(faults);
    for (std::string fault; std::getline(lines, fault);)
        if (concerns(fault, use))
            in_the_way += (in_the_way.empty() ? "" : "\n") + fault;
        else
            std::fprintf(stderr, "hdmi-player-play: warning: %s\n", fault.c_str());
    if (!in_the_way.empty())
        *error = in_the_way;
    return in_the_way.empty();
}

hdmi_linux::DeviceStats real_playback_stats()
{
    const Router& r = router();
    return r.routes.real_playback && r.machine.playback_stats ? r.machine.playback_stats() : hdmi_linux::DeviceStats{};
}

hdmi_linux::DeviceStats real_capture_stats()
{
    const Router& r = router();
    return r.routes.real_capture && r.machine.capture_stats ? r.machine.capture_stats() : hdmi_linux::DeviceStats{};
}

hdmi_linux::BypassStats real_bypass_stats()
{
    const Router& r = router();
    return r.routes.real_playback && r.machine.bypass_stats ? r.machine.bypass_stats() : hdmi_linux::BypassStats{};
}

hdmi_linux::CecStats real_cec_stats()
{
    const Router& r = router();
    return r.routes.real_cec ? r.machine.cec_stats() : hdmi_linux::CecStats{};
}

bool start_receiver(std::string* error)
{
    const Router& r = router();
    char why[256] = "no platform for real devices";
    // On a port's board, the receiver's own driver announces.
    if (r.routes.real_capture &&
        (r.machine.receiver_start == nullptr || r.machine.receiver_start(why, sizeof why) == 0))
        return true;
    *error = why;
    return false;
}

void stop_receiver()
{
    const Router& r = router();
    if (r.routes.real_capture && r.machine.receiver_stop)
        r.machine.receiver_stop();
}

std::vector<hdmi_linux_receiver_event_t> receiver_events()
{
    const Router& r = router();
    if (!r.routes.real_capture || r.machine.receiver_events == nullptr)
        return {};
    std::vector<hdmi_linux_receiver_event_t> events(static_cast<size_t>(r.machine.receiver_events(nullptr, 0)));
    // It was stopped before, or what came meanwhile is left out.
    r.machine.receiver_events(events.data(), static_cast<int>(events.size()));
    return events;
}

void tap_playback(SeamTap* tap) { router().playback_tap = tap; }
void tap_capture(SeamTap* tap) { router().capture_tap = tap; }

PlaybackTrace::PlaybackTrace(Trace* trace) { router().trace = trace; }
PlaybackTrace::~PlaybackTrace() { router().trace = nullptr; }

void withhold_block(int64_t block) { router().block_to_withhold = block; }
int64_t withheld_blocks() { return router().withheld; }

} // namespace play

// --- What the player calls ----------------------------------------------------

#define SEAM __attribute__((visibility("default")))

using play::behind;

extern "C" {

SEAM int aio_device_open(audio_config_t* config)
{
    play::tell_decoder(config, hdmi_sim::CaptureNews::opened);
    int result = behind(config).open(config);
    if (result >= 0)
        play::note_opened(*config);
    return result;
}

SEAM int aio_device_close(audio_config_t* config)
{
    play::tell_decoder(config, hdmi_sim::CaptureNews::closed);
    return behind(config).close(config);
}

SEAM int aio_device_read(audio_config_t* config, uint8_t* data, int size)
{
    int result = behind(config).read(config, data, size);
    if (result > 0)
        play::note_read(config, data, result);
    return result;
}

SEAM int aio_device_write(audio_config_t* config, const uint8_t* data, int size)
{
    play::Router& r = play::router();
    if (r.blocks++ == r.block_to_withhold) {
        r.withheld++;
        return size;
    }
    int result = behind(config).write(config, data, size);
    if (result > 0)
        play::note_written(config, data, result);
    return result;
}

SEAM int aio_device_get_write_bytes(audio_config_t* config, int* out)
{
    return behind(config).get_write_bytes(config, out);
}

SEAM int aio_device_bytes_to_frames(audio_config_t* config, int bytes)
{
    return behind(config).bytes_to_frames(config, bytes);
}

SEAM int aio_device_frames_to_bytes(audio_config_t* config, int frames)
{
    return behind(config).frames_to_bytes(config, frames);
}

SEAM int aio_device_set_volume(audio_config_t* config, int volume) { return behind(config).set_volume(config, volume); }

SEAM int aio_device_set_volume_direct(audio_config_t* config, int volume)
{
    return behind(config).set_volume_direct(config, volume);
}

SEAM int aio_device_set_mute(audio_config_t* config, bool mute) { return behind(config).set_mute(config, mute); }

SEAM int aio_device_reselect(audio_config_t* config, int device_id, int output_fmt)
{
    return behind(config).reselect(config, device_id, output_fmt);
}

SEAM int vendor_hdmi_cec_init(hdmi_cec_config_t* config) { return play::cec().cec_init(config); }
SEAM int vendor_hdmi_cec_open_arc(void) { return play::cec().cec_open_arc(); }
SEAM int vendor_hdmi_cec_deinit(void) { return play::cec().cec_deinit(); }

} // extern "C"
