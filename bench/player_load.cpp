// SPDX-License-Identifier: MIT
// The whole player at work on the simulated devices, with a host that does next to nothing: what another process
// measures from outside, thread by thread. Prints "running" once the sound plays, ends with its standard input, and
// then prints the intervals between its flips.
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "coded_audio.h"
#include "hdmi_player.h"
#include "hdmi_sim.h"

namespace
{

constexpr int64_t kNsPerSecond = 1'000'000'000;
constexpr int kOutputRate = 48000;
constexpr size_t kMostFlips = 1 << 20;
constexpr int64_t kFlipsBeforeSync = 120; ///< of the start, in which frames come in bursts

std::atomic<bool> g_running{true};
std::atomic<int64_t> g_blocks{0};
std::atomic<int32_t> g_newest_serial{0}, g_last_old_serial{INT32_MAX};
std::vector<int64_t> g_flips; ///< ns; the sync thread's until the player is closed

// --- Source -------------------------------------------------------------------

// A tone, copied: the source's own work must not count.
hdmi_sim::Signal pcm(int rate)
{
    const auto second = std::make_shared<std::vector<int16_t>>(static_cast<size_t>(rate) * 2);
    for (size_t i = 0; i < second->size(); ++i)
        (*second)[i] = static_cast<int16_t>(std::lrint(8000 * std::sin(static_cast<double>(i / 2) * 0.05)));
    hdmi_sim::Signal signal;
    signal.rate = rate;
    signal.generate = [second, rate](int64_t first, int16_t* words, int frames) {
        while (frames > 0) {
            const int64_t at = first % rate;
            const int run = static_cast<int>(std::min<int64_t>(frames, rate - at));
            std::copy_n(second->data() + 2 * at, 2 * run, words);
            first += run;
            words += 2 * run;
            frames -= run;
        }
    };
    return signal;
}

hdmi_sim::Signal coded(AVCodecID codec)
{
    coded_audio::Format format;
    format.codec = codec;
    const auto coding = codec == AV_CODEC_ID_AC3 ? hdmi_sim::Coding::ac3 : hdmi_sim::Coding::eac3;
    const coded_audio::Bytes stream = coded_audio::join(coded_audio::encode(format, 120));
    hdmi_sim::Bitstream bursts;
    std::string error;
    if (!hdmi_sim::pack_bitstream(coding, stream.data(), stream.size(), &bursts, &error))
        fprintf(stderr, "%s\n", error.c_str());
    hdmi_sim::BurstOptions options;
    options.repeat = true;
    return hdmi_sim::bitstream_signal(bursts, options);
}

/// What the source sends, and what its driver says of it.
bool begin_source(const std::string& name)
{
    const bool compressed = name == "ac3" || name == "eac3";
    const int rate = name == "pcm44" ? 44100 : kOutputRate;
    if (!hdmi_sim::write_state_file(hdmi_sim::announce_text(compressed, rate) + "\n"))
        return false;
    if (name == "ac3")
        hdmi_sim::receiver_connect(coded(AV_CODEC_ID_AC3));
    else if (name == "eac3")
        hdmi_sim::receiver_connect(coded(AV_CODEC_ID_EAC3));
    else
        hdmi_sim::receiver_connect(pcm(rate));
    return true;
}

// --- Host ---------------------------------------------------------------------

void play_sound()
{
    prctl(PR_SET_NAME, "host_sound");
    while (g_running) {
        hdmi_player_audio_frame_t* block = nullptr;
        if (hdmi_player_get_pcm(&block, 100) != 0)
            continue;
        g_newest_serial = std::max<int32_t>(g_newest_serial, block->serial);
        if (block->serial > g_last_old_serial) {
            hdmi_player_write_pcm(block);
            ++g_blocks;
        }
        hdmi_player_put_pcm(block);
    }
}

void render_frames(int fps)
{
    prctl(PR_SET_NAME, "host_video");
    timespec next = {};
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (uintptr_t number = 1; g_running; ++number) {
        next.tv_nsec += kNsPerSecond / fps;
        next.tv_sec += next.tv_nsec / kNsPerSecond;
        next.tv_nsec %= kNsPerSecond;
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
        hdmi_player_video_frame_t frame = {reinterpret_cast<void*>(number), 0};
        hdmi_player_video_render(&frame);
    }
}

void on_event(hdmi_player_event_e event)
{
    if (event == E_HDMI_PLAYER_EVENT_AVSYNC_RESET)
        g_last_old_serial = g_newest_serial.load();
}

void on_flip(hdmi_player_video_frame_t frame)
{
    if (g_flips.size() < kMostFlips)
        g_flips.push_back(hdmi_sim::now_ns());
    hdmi_sim::display_flip(frame.buf_handle);
}

void print_flip_errors(int fps)
{
    std::vector<int64_t> errors;
    for (size_t i = kFlipsBeforeSync; i < g_flips.size(); ++i)
        errors.push_back(std::abs(g_flips[i] - g_flips[i - 1] - kNsPerSecond / fps) / 1000);
    std::sort(errors.begin(), errors.end());
    if (!errors.empty())
        printf("flips %zu p50 %lld p99 %lld max %lld\n", errors.size(),
               static_cast<long long>(errors[errors.size() / 2]),
               static_cast<long long>(errors[errors.size() * 99 / 100]), static_cast<long long>(errors.back()));
}

int play(int fps)
{
    g_flips.reserve(kMostFlips);
    const int display = hdmi_sim::display_start({}, nullptr, nullptr);
    hdmi_player_config_t config = {};
    config.ao_dev = E_HDMI_PLAYER_AO_DEV_SPEAKER;
    config.ao_sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
    config.drm_info = {display, 60.0F};
    config.video_frame_queue_size = 16;
    config.event_cb = on_event;
    config.video_frame_flip_cb = on_flip;
    config.video_frame_drop_cb = [](hdmi_player_video_frame_t) {};
    // Without frames there is no reset that sound would have to wait for.
    g_last_old_serial = fps > 0 ? INT32_MAX : -1;
    if (hdmi_player_open(config) != 0)
        return EXIT_FAILURE;
    hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);
    std::thread sound(play_sound);
    std::thread video;
    if (fps > 0)
        video = std::thread(render_frames, fps);
    while (g_blocks < 50)
        usleep(10000);
    printf("running\n");
    fflush(stdout);
    char ignored = 0;
    while (read(STDIN_FILENO, &ignored, 1) > 0) {
    }
    g_running = false;
    sound.join();
    if (video.joinable())
        video.join();
    hdmi_player_close();
    hdmi_sim::display_stop();
    if (fps > 0)
        print_flip_errors(fps);
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "Usage: player_load pcm44|pcm48|ac3|eac3 FRAMES_PER_SECOND\n");
        return 2;
    }
    std::string error;
    if (!hdmi_sim::prepare_announcements(&error)) {
        fprintf(stderr, "%s\n", error.c_str());
        return 77;
    }
    if (!begin_source(argv[1]))
        return EXIT_FAILURE;
    return play(atoi(argv[2]));
}
