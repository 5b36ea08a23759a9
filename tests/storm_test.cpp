// SPDX-License-Identifier: MIT
// Every public function from many threads, in an order that a seed decides, while the player opens and closes, the
// signal changes and devices fail. Every handle comes back once, no block is lost, and afterwards the player works.
//
//   storm_test [SECONDS [SEED]]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>
#include <vector>

#include "hdmi_sim.h"
#include "support/accounts.h"
#include "support/eventually.h"
#include "support/packed_audio.h"

using namespace std::chrono_literals;
using hdmi_sim::FaultKind;
using hdmi_sim::Op;

namespace
{

constexpr int kThreads = 10;
constexpr int kBlocks = 128; ///< of the player

using Random = std::mt19937;

int below(Random& random, int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); }
void pause(Random& random, int most_us)
{
    std::this_thread::sleep_for(std::chrono::microseconds(below(random, most_us)));
}

std::atomic<bool> g_stop{false};
std::atomic<int64_t> g_calls{0}, g_blocks{0};

/// Blocks may be used while the player closes, as it promises, but not in the next opening: an open waits for who holds
/// one, and ends their calls by a close.
class BlockLife
{
public:
    bool enter()
    {
        ++holders_;
        if (openings_ == 0)
            return true;
        --holders_;
        return false;
    }
    void leave() { --holders_; }
    int32_t open(const hdmi_player_config_t& config)
    {
        if (g_accounts.may_be_open())
            return -1;
        ++openings_;
        while (holders_ > 0) {
            g_accounts.close();
            std::this_thread::sleep_for(1ms);
        }
        const int32_t result = g_accounts.open(config);
        --openings_;
        return result;
    }

private:
    std::atomic<int> holders_{0}, openings_{0};
};
BlockLife g_life;

hdmi_player_config_t random_config(Random& random)
{
    hdmi_player_config_t config = accounted_config();
    config.ao_dev = static_cast<hdmi_player_ao_dev_e>(below(random, 6));
    config.ao_format = static_cast<hdmi_player_ao_format_e>(below(random, 2));
    config.ao_sample_rate = static_cast<hdmi_player_aio_sample_rate_e>(below(random, 6));
    config.video_frame_queue_size = below(random, 32);
    // Callbacks call back in.
    config.event_cb = [](hdmi_player_event_e event) {
        g_accounts.note_event(event);
        hdmi_player_select_audio_output_device(E_HDMI_PLAYER_AO_DEV_SPEAKER);
    };
    config.video_frame_flip_cb = [](hdmi_player_video_frame_t frame) {
        g_accounts.take_back(frame);
        hdmi_player_set_volume(50);
        hdmi_player_get_game_mode();
    };
    return config;
}

// --- What the threads do -------------------------------------------------------------

void open_or_close(Random& random)
{
    if (below(random, 4) != 0)
        g_life.open(random_config(random));
    else
        g_accounts.close();
    pause(random, 300000);
}

// Several at a time, in any order; some are written.
void use_blocks(Random& random)
{
    if (!g_life.enter())
        return;
    std::vector<hdmi_player_audio_frame_t*> blocks;
    for (int count = below(random, 4) + 1; count > 0; --count) {
        hdmi_player_audio_frame_t* block = nullptr;
        if (hdmi_player_get_pcm(&block, below(random, 3) == 0 ? -1 : below(random, 50)) == 0)
            blocks.push_back(block);
    }
    std::shuffle(blocks.begin(), blocks.end(), random);
    for (hdmi_player_audio_frame_t* block : blocks) {
        if (below(random, 2) == 0)
            hdmi_player_write_pcm(block);
        hdmi_player_put_pcm(block);
    }
    g_blocks += static_cast<int64_t>(blocks.size());
    g_life.leave();
}

void write_own(Random& random)
{
    std::vector<uint8_t> sound(static_cast<size_t>(below(random, 4096)));
    const auto bytes = static_cast<int32_t>(sound.size());
    hdmi_player_audio_frame_t block = {sound.data(), bytes, bytes, 48000, 2, below(random, 1000000), below(random, 9)};
    hdmi_player_write_pcm(&block);
    hdmi_player_put_pcm(&block); // is not the player's
    block.data = nullptr;
    hdmi_player_write_pcm(&block);
}

void render(Random& random)
{
    for (int count = below(random, 20); count > 0 && !g_stop; --count) {
        g_accounts.render();
        pause(random, 2000);
    }
}

void set_sound(Random& random)
{
    hdmi_player_set_volume(below(random, 120) - 10);
    hdmi_player_set_volume2(below(random, 20) - 1);
    hdmi_player_set_mute(below(random, 4) == 0);
    hdmi_player_set_game_mode(true);
    hdmi_player_get_game_mode();
}

void select_output(Random& random)
{
    hdmi_player_select_audio_output_device(static_cast<hdmi_player_ao_dev_e>(below(random, 8) - 1));
    hdmi_player_select_audio_output_format(static_cast<hdmi_player_ao_format_e>(below(random, 4) - 1));
    pause(random, 5000);
}

std::vector<hdmi_sim::Signal> g_signals;

void change_input(Random& random)
{
    constexpr const char* kStates[] = {"HEADDONE_PCM_48=1",  "HEADDONE_PCM_44=1", "HEADDONE_PCM_32=1",
                                       "HEADDONE_COMP_48=1", "HEADDONE=0",        "STATE=\xFF"};
    hdmi_player_hotplug_status_changed(static_cast<hdmi_hotplug_status_e>(below(random, 8) != 0));
    if (below(random, 4) == 0)
        hdmi_sim::announce(kStates[below(random, std::size(kStates))]);
    if (below(random, 8) == 0)
        hdmi_sim::receiver_disconnect();
    else
        hdmi_sim::receiver_connect(g_signals[static_cast<size_t>(below(random, static_cast<int>(g_signals.size())))]);
    pause(random, 20000);
}

void make_trouble(Random& random)
{
    const auto op = static_cast<Op>(below(random, static_cast<int>(Op::count)));
    constexpr FaultKind kKinds[] = {FaultKind::fail, FaultKind::block, FaultKind::brief, FaultKind::withhold};
    hdmi_sim::Fault fault;
    fault.kind = kKinds[below(random, 4)];
    fault.skip = below(random, 3);
    fault.count = below(random, 5) + 1;
    fault.odd = below(random, 2) == 0;
    hdmi_sim::set_fault(op, fault);
    pause(random, 20000);
    hdmi_sim::clear_fault(op);
}

// The first thread keeps opening and closing: the others may all be blocked in a player without a signal.
void storm(unsigned seed, bool opens_only)
{
    constexpr void (*kActions[])(Random&) = {open_or_close, use_blocks, use_blocks,    write_own,    render,
                                             render,        set_sound,  select_output, change_input, make_trouble};
    Random random(seed);
    while (!g_stop) {
        kActions[opens_only ? 0 : below(random, std::size(kActions))](random);
        ++g_calls;
    }
}

// --- Afterwards ---------------------------------------------------------------------

int g_failures = 0;

void expect(bool right, const char* what)
{
    if (right)
        return;
    printf("FAILED: %s\n", what);
    ++g_failures;
}

// A host that takes blocks and gives none back gets all that there are.
void expect_all_blocks()
{
    std::vector<hdmi_player_audio_frame_t*> blocks;
    for (hdmi_player_audio_frame_t* block = nullptr; hdmi_player_get_pcm(&block, 2000) == 0; block = nullptr)
        blocks.push_back(block);
    printf("%zu blocks can be held\n", blocks.size());
    expect(blocks.size() == kBlocks, "a block was lost");
    for (hdmi_player_audio_frame_t* block : blocks)
        expect(hdmi_player_put_pcm(block) == 0, "a block is not taken back");
}

// Without the states that the storm left behind; the library's own stay as they are.
void expect_works()
{
    hdmi_sim::reset();
    expect(hdmi_sim::write_state_file("HEADDONE_PCM_48=1\n"), "the state file cannot be written");
    hdmi_sim::receiver_connect(g_signals.front());
    expect(g_accounts.open(accounted_config()) == 0, "the player does not open");
    hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);
    expect_all_blocks();
    const int64_t before = g_accounts.returned();
    expect(eventually([&] {
               g_accounts.render();
               hdmi_player_audio_frame_t* block = nullptr;
               if (hdmi_player_get_pcm(&block, 5) == 0) {
                   hdmi_player_write_pcm(block);
                   hdmi_player_put_pcm(block);
               }
               return g_accounts.returned() > before + 100;
           }),
           "frames do not come back");
    expect(g_accounts.close() == 0, "the player does not close");
}

void prepare_signals()
{
    for (const int rate : {48000, 44100, 32000}) {
        hdmi_sim::Signal signal;
        signal.rate = rate;
        signal.generate = [](int64_t first, int16_t* words, int frames) {
            for (int i = 0; i < 2 * frames; ++i)
                words[i] = static_cast<int16_t>((first + i / 2) % 30000 + 1);
        };
        g_signals.push_back(signal);
    }
    for (const AVCodecID codec : {AV_CODEC_ID_AC3, AV_CODEC_ID_EAC3}) {
        coded_audio::Format format;
        format.codec = codec;
        hdmi_sim::BurstOptions options;
        options.repeat = true;
        options.bit_error_rate = codec == AV_CODEC_ID_AC3 ? 1e-5 : 0;
        g_signals.push_back(hdmi_sim::bitstream_signal(pack(format, coded_audio::encode(format, 30)), options));
    }
    g_signals.emplace_back(); // zeros
}

} // namespace

int main(int argc, char** argv)
{
    const int seconds = argc > 1 ? atoi(argv[1]) : 3;
    const unsigned seed = argc > 2 ? static_cast<unsigned>(atoi(argv[2])) : 1;
    setenv("debug_hdmiplayer_log_level", "0", 0);
    std::string error;
    if (!hdmi_sim::prepare_announcements(&error)) {
        printf("SKIPPED: %s\n", error.c_str());
        return 77;
    }
    prepare_signals();
    std::vector<std::thread> threads;
    std::atomic<int> running{kThreads};
    for (unsigned number = 0; number < kThreads; ++number)
        threads.emplace_back([&running, seed, number] {
            storm(seed * kThreads + number, number == 0);
            --running;
        });
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    g_stop = true;
    // A close ends what is blocked.
    expect(eventually(
               [&running] {
                   g_accounts.close();
                   return running == 0;
               },
               60s),
           "a call does not return");
    if (running > 0)
        abort(); // with all threads in the core file
    for (std::thread& thread : threads)
        thread.join();
    g_accounts.close();
    expect_works();
    expect(g_accounts.faults() == 0, "a handle came back twice, though it was refused, or from a closed player");
    expect(g_accounts.left_to_close() <= int64_t{40} * g_accounts.closes(), "handles were lost");
    printf("seed %u, %d s: %lld actions, %d closes, %lld handles, %lld of them left to a close, %lld blocks\n", seed,
           seconds, static_cast<long long>(g_calls), g_accounts.closes(), static_cast<long long>(g_accounts.handles()),
           static_cast<long long>(g_accounts.left_to_close()), static_cast<long long>(g_blocks));
    return g_failures == 0 ? 0 : 1;
}
