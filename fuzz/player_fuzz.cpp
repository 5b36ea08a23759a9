// SPDX-License-Identifier: MIT
// The whole player on the simulated platform: bytes as a sequence of calls, announcements and faults. Every handle and
// every block comes back, and afterwards the player works.
//
// Input: operations, each a byte that names it and a byte of detail.
#include <chrono>
#include <thread>

#include "hdmi_sim.h"
#include "input.h"
#include "support/accounts.h"

namespace
{

using hdmi_sim::FaultKind;
using hdmi_sim::Op;

constexpr int kOperationsMax = 60;
/// The queue of the output has more: without it a write could wait for a device that is made to block.
constexpr int kWritesMax = 100;

std::vector<hdmi_player_audio_frame_t*> g_held;
int g_writes;

void set_fault(uint8_t detail)
{
    hdmi_sim::Fault fault;
    const auto op = static_cast<Op>(detail % static_cast<int>(Op::count));
    constexpr FaultKind kKinds[] = {FaultKind::fail, FaultKind::brief, FaultKind::withhold, FaultKind::block};
    fault.kind = op == Op::capture_read ? kKinds[detail >> 6] : kKinds[(detail >> 6) % 3];
    fault.odd = (detail & 32) != 0;
    fault.count = 3; // a capture device that never closes holds up the close for ever
    hdmi_sim::set_fault(op, fault);
}

void signal_changes(uint8_t detail)
{
    constexpr const char* kStates[] = {"HEADDONE_PCM_48=1",  "HEADDONE_PCM_44=1",  "HEADDONE_PCM_32=1",
                                       "HEADDONE_COMP_48=1", "HEADDONE_COMP_44=1", "HEADDONE=0"};
    hdmi_sim::announce(kStates[detail % std::size(kStates)]);
    hdmi_sim::Signal signal;
    signal.rate = detail % 3 == 0 ? 48000 : detail % 3 == 1 ? 44100 : 32000;
    if ((detail & 64) != 0)
        hdmi_sim::receiver_disconnect();
    else
        hdmi_sim::receiver_connect(signal);
}

void take_block(uint8_t detail)
{
    hdmi_player_audio_frame_t* block = nullptr;
    if (hdmi_player_get_pcm(&block, detail % 8) != 0)
        return;
    require(block->data != nullptr && block->size > 0 && block->size <= block->buf_size);
    require(block->channels == 2 && block->serial >= 0);
    g_held.push_back(block);
}

void give_block(uint8_t detail, bool write)
{
    if (g_held.empty())
        return;
    const auto at = g_held.begin() + detail % static_cast<int>(g_held.size());
    if (write && g_writes++ < kWritesMax)
        hdmi_player_write_pcm(*at);
    require(hdmi_player_put_pcm(*at) == 0);
    g_held.erase(at);
}

void write_own(uint8_t detail)
{
    std::vector<uint8_t> sound(detail * 64u);
    const auto bytes = static_cast<int32_t>(sound.size());
    hdmi_player_audio_frame_t block = {sound.data(), bytes, bytes, 48000, 2, detail * 1000, detail % 4};
    if (g_writes++ < kWritesMax)
        hdmi_player_write_pcm(&block);
    require(hdmi_player_put_pcm(&block) != 0); // not the player's
}

void open_or_close(uint8_t detail)
{
    g_held.clear(); // the close frees them
    g_writes = 0;
    if (g_accounts.close() == 0 && detail % 2 == 0)
        return;
    hdmi_player_config_t config = accounted_config();
    config.ao_dev = static_cast<hdmi_player_ao_dev_e>(detail / 2 % 7);
    config.ao_format = static_cast<hdmi_player_ao_format_e>(detail / 16 % 3);
    config.ao_sample_rate = static_cast<hdmi_player_aio_sample_rate_e>(detail / 4 % 6);
    config.video_frame_queue_size = detail - 128;
    g_accounts.open(config);
}

void step(uint8_t what, uint8_t detail)
{
    const int value = detail - 128;
    switch (what % 16) {
    case 0: return open_or_close(detail);
    case 1: return set_fault(detail);
    case 2: return hdmi_sim::clear_fault(static_cast<Op>(detail % static_cast<int>(Op::count)));
    case 3: return signal_changes(detail);
    case 4: return take_block(detail);
    case 5: return give_block(detail, false);
    case 6: return give_block(detail, true);
    case 7: return write_own(detail);
    case 8: hdmi_player_select_audio_output_device(static_cast<hdmi_player_ao_dev_e>(value)); return;
    case 9: hdmi_player_select_audio_output_format(static_cast<hdmi_player_ao_format_e>(value)); return;
    case 10: hdmi_player_set_volume(value), hdmi_player_set_mute((detail & 1) != 0); return;
    case 11: hdmi_player_set_volume2(value); return;
    case 12: hdmi_player_hotplug_status_changed(static_cast<hdmi_hotplug_status_e>(value)); return;
    case 13: hdmi_player_set_game_mode(true), hdmi_player_get_game_mode(); return;
    case 14: std::this_thread::sleep_for(std::chrono::milliseconds(detail % 8)); return;
    default:
        for (int frame = detail % 32; frame >= 0; --frame)
            g_accounts.render();
    }
}

// The player opens, and sound arrives.
void expect_works()
{
    hdmi_sim::reset();
    hdmi_sim::write_state_file("HEADDONE_PCM_48=1\n");
    hdmi_sim::receiver_connect({});
    require(g_accounts.open(accounted_config()) == 0);
    hdmi_player_audio_frame_t* block = nullptr;
    require(hdmi_player_get_pcm(&block, 20000) == 0 && hdmi_player_put_pcm(block) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Input input(data, size);
    expect_works();
    for (int count = 0; !input.empty() && count < kOperationsMax; ++count) {
        const uint8_t what = input.byte();
        step(what, input.byte());
    }
    for (int op = 0; op < static_cast<int>(Op::count); ++op)
        hdmi_sim::clear_fault(static_cast<Op>(op));
    g_held.clear();
    g_accounts.close();
    hdmi_player_set_mute(false);
    hdmi_player_set_volume2(-1);
    hdmi_player_set_volume(100);
    expect_works();
    require(g_accounts.close() == 0);
    hdmi_sim::reset();
    require(g_accounts.faults() == 0);
    require(g_accounts.left_to_close() <= int64_t{128} * g_accounts.closes());
    return 0;
}
