// SPDX-License-Identifier: MIT
#include "edges/stage.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "edges/alsa_pcm.h"
#include "edges/captured_sound.h"
#include "edges/make_edges.h"
#include "edges/platform_router.h"
#include "hdmi_sim.h"

namespace play
{
namespace
{

constexpr useconds_t kLookAgainUs = 10'000;

/// The Linux platform's key for an output.
const char* key_of(hdmi_player_ao_dev_e output)
{
    switch (output) {
    case E_HDMI_PLAYER_AO_DEV_HEADPHONE: return "headphone";
    case E_HDMI_PLAYER_AO_DEV_SPDIF: return "spdif";
    case E_HDMI_PLAYER_AO_DEV_HDMI_ARC: return "hdmi_arc";
    case E_HDMI_PLAYER_AO_DEV_I2S_TXA: return "i2s_txa";
    default: return "speaker";
    }
}

void name_devices(const Options& options)
{
    if (!options.capture.empty() && !is_port(options.capture))
        setenv(variable_of("hdmi_in").c_str(), options.capture.c_str(), 1);
    if (!options.playback.empty() && !is_port(options.playback))
        setenv(variable_of(key_of(options.output)).c_str(), options.playback.c_str(), 1);
    if (!options.cec.empty())
        setenv(variable_of("cec").c_str(), options.cec.c_str(), 1);
    if (options.rate_matching)
        setenv(variable_of("rate_matching").c_str(), *options.rate_matching ? "on" : "off", 1);
}

/// The library of the platform under test, empty for the Linux platform's.
std::string port_of(const Options& options)
{
    constexpr size_t kPrefix = sizeof "port:" - 1;
    for (const std::string& device : {options.playback, options.capture})
        if (is_port(device))
            return device.substr(kPrefix);
    return "";
}

bool devices_are_there(const Options& options, std::string* error)
{
    using Direction = AlsaPcm::Direction;
    for (const std::string& device : {options.capture, options.observe})
        if (!device.empty() && !is_port(device) && !alsa_opens(device, Direction::capture, error))
            return false;
    for (const std::string& device : {options.playback, options.feed})
        if (!device.empty() && !is_port(device) && !alsa_opens(device, Direction::playback, error))
            return false;
    if (options.cec.empty() || access(options.cec.c_str(), R_OK | W_OK) == 0)
        return true;
    *error = options.cec + ": " + std::strerror(errno);
    return false;
}

std::unique_ptr<SourceLink> choose_link(const Options& options, const Source* source)
{
    return options.capture.empty() ? make_simulated_link(options, source) : make_captured_link(options, source);
}

std::unique_ptr<SoundOutput> choose_output(const Options& options, const std::string& wav_path, int link_rate)
{
    if (options.playback.empty())
        return make_simulated_output(options, wav_path);
    return options.observe.empty() ? make_real_output(wav_path) : make_observed_output(options, wav_path, link_rate);
}

DeviceCounts counts_of(const hdmi_linux::DeviceStats& stats)
{
    return {stats.open && !stats.lost, stats.frames, stats.xruns, stats.suspends, stats.losses};
}

} // namespace

bool Stage::prepare(const Options& options, std::string* error)
{
    name_devices(options);
    // Checked first: a message of this program's own is clearer than one of the platform's.
    if (!devices_are_there(options, error) ||
        !set_routes({!options.capture.empty(), !options.playback.empty(), !options.cec.empty(), port_of(options)},
                    error))
        return false;
    // What a real device receives, its platform announces.
    return !options.capture.empty() || hdmi_sim::prepare_announcements(error);
}

ConfigUse Stage::config_use(const Options& options)
{
    return {options.playback.empty() ? "" : key_of(options.output), !options.capture.empty(), !options.cec.empty()};
}

Stage::Stage(const Options& options, const Source* source, const std::string& wav_path)
    : options_(options), source_(source), link_(choose_link(options, source)),
      output_(choose_output(options, wav_path, source->link_rate()))
{
    if (options.captured_pictures())
        captured_ = std::make_unique<CapturedSound>(captured_path(wav_path));
}

Stage::~Stage() { end_watch(); }

bool Stage::start(std::string* error)
{
    // A block in the third second: after the player has settled, well before the end.
    constexpr int64_t kLostBlock = 2 * 48000 / 960 + 7;
    if (options_.withhold_block)
        withhold_block(kLostBlock);
    watch_ = std::thread(&Stage::watch_devices, this);
    return output_->start(error);
}

bool Stage::connect(std::string* error) { return link_->connect(error); }

void Stage::disconnect()
{
    // Before the player closes: then it closes the channel too.
    cec_ = real_cec_stats();
    bypass_ = real_bypass_stats();
    link_->disconnect();
}

void Stage::wait_until_played()
{
    // What the host wrote last reaches the device on a thread of the player's, up to a period later.
    constexpr useconds_t kHandOverUs = 100'000;
    usleep(kHandOverUs);
    output_->wait_until_played();
}

void Stage::watch_devices()
{
    pthread_setname_np(pthread_self(), "device_watch");
    while (!end_watch_) {
        disturbances_.capture.look(counts_of(real_capture_stats()), hdmi_sim::now_ns());
        disturbances_.playback.look(counts_of(real_playback_stats()), hdmi_sim::now_ns());
        usleep(kLookAgainUs);
    }
}

void Stage::end_watch()
{
    end_watch_ = true;
    if (watch_.joinable())
        watch_.join();
}

bool Stage::finish(Recording* heard, Recording* sent, std::string* error)
{
    end_watch();
    // With the bursts passed on, the player's own sound device stays silent.
    if (options_.raw && options_.observe.empty())
        return true;
    if (!output_->finish(error))
        return false;
    RecordedSound heard_sound = output_->heard();
    RecordedSound sent_sound = output_->sent();
    return heard->open(heard_sound.path, std::move(heard_sound.blocks), error) &&
           sent->open(sent_sound.path, std::move(sent_sound.blocks), error);
}

bool Stage::finish_captured(Recording* captured, std::string* error)
{
    return !captured_ || captured_->finish(captured, error);
}

RawCheck Stage::check_raw(const Recording& heard) const
{
    if (options_.playback.empty())
        return link_->check_raw();
    bool comparable = !options_.observe.empty() && !options_.foreign_source();
    return comparable ? check_bursts(heard, *source_) : RawCheck{};
}

StageStats Stage::stats() const { return {link_->account(), output_->account(), withheld_blocks(), cec_, bypass_}; }

} // namespace play
