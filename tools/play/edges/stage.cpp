// SPDX-License-Identifier: MIT
#include "edges/stage.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "edges/alsa_pcm.h"
#include "edges/announcer.h"
#include "hdmi_sim.h"
#include "edges/platform_router.h"

namespace play
{
namespace
{

constexpr useconds_t look_again_us = 10'000;

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
    if (!options.capture.empty())
        setenv(variable_of("hdmi_in").c_str(), options.capture.c_str(), 1);
    if (!options.playback.empty())
        setenv(variable_of(key_of(options.output)).c_str(), options.playback.c_str(), 1);
    if (!options.cec.empty())
        setenv(variable_of("cec").c_str(), options.cec.c_str(), 1);
}

bool devices_are_there(const Options& options, std::string* error)
{
    using Direction = AlsaPcm::Direction;
    for (const std::string& device : {options.capture, options.observe})
        if (!device.empty() && !alsa_opens(device, Direction::capture, error))
            return false;
    for (const std::string& device : {options.playback, options.feed})
        if (!device.empty() && !alsa_opens(device, Direction::playback, error))
            return false;
    if (options.cec.empty() || access(options.cec.c_str(), R_OK | W_OK) == 0)
        return true;
    *error = options.cec + ": " + std::strerror(errno);
    return false;
}

DeviceCounts counts_of(const hdmi_linux::DeviceStats& stats)
{
    return {stats.open && !stats.lost, stats.frames, stats.xruns, stats.suspends, stats.losses};
}

} // namespace

bool Stage::prepare(const Options& options, std::string* error)
{
    name_devices(options);
    // The ones of this program's own first: what is wrong with them has a clear message.
    if (!devices_are_there(options, error) ||
        !set_routes({!options.capture.empty(), !options.playback.empty(), !options.cec.empty()}, error))
        return false;
    // The machine's own driver announces in the machine's own namespaces.
    if (!options.capture.empty() && Announcer::driver_announces())
        return true;
    return hdmi_sim::enter_private_namespaces(error);
}

ConfigUse Stage::config_use(const Options& options)
{
    return {options.playback.empty() ? "" : key_of(options.output), !options.capture.empty(), !options.cec.empty()};
}

Stage::Stage(const Options& options, const Source* source, const std::string& wav_path)
    : m_options(options), m_source(source), m_link(make_source_link(options, source)),
      m_output(make_sound_output(options, wav_path, source->link_rate()))
{
}

Stage::~Stage() { end_watch(); }

bool Stage::start(std::string* error)
{
    // A block in the third second: the player has settled, and the sound goes on for a while.
    constexpr int64_t lost_block = 2 * 48000 / 960 + 7;
    if (m_options.withhold_block)
        withhold_block(lost_block);
    m_watch = std::thread(&Stage::watch_devices, this);
    return m_output->start(error);
}

bool Stage::connect(std::string* error) { return m_link->connect(error); }

void Stage::disconnect()
{
    // Before the player closes: then it closes the channel too.
    m_cec = real_cec_stats();
    m_bypass = real_bypass_stats();
    m_link->disconnect();
}

void Stage::wait_until_played() { m_output->wait_until_played(); }

void Stage::watch_devices()
{
    pthread_setname_np(pthread_self(), "device_watch");
    while (!m_end_watch) {
        m_troubles.capture.look(counts_of(real_capture_stats()), hdmi_sim::now_ns());
        m_troubles.playback.look(counts_of(real_playback_stats()), hdmi_sim::now_ns());
        usleep(look_again_us);
    }
}

void Stage::end_watch()
{
    m_end_watch = true;
    if (m_watch.joinable())
        m_watch.join();
}

bool Stage::finish(Recording* heard, Recording* sent, std::string* error)
{
    end_watch();
    // With the bursts passed on, the player's own sound device stays silent.
    if (m_options.raw && m_options.observe.empty())
        return true;
    if (!m_output->finish(error))
        return false;
    RecordedSound heard_sound = m_output->heard();
    RecordedSound sent_sound = m_output->sent();
    return heard->open(heard_sound.path, std::move(heard_sound.blocks), error) &&
           sent->open(sent_sound.path, std::move(sent_sound.blocks), error);
}

RawCheck Stage::check_raw(const Recording& heard) const
{
    if (m_options.playback.empty())
        return m_link->check_raw();
    bool comparable = !m_options.observe.empty() && !m_options.foreign_source();
    return comparable ? check_bursts(heard, *m_source) : RawCheck{};
}

StageStats Stage::stats() const { return {m_link->account(), m_output->account(), withheld_blocks(), m_cec, m_bypass}; }

} // namespace play
