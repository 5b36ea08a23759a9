// SPDX-License-Identifier: MIT
// The whole player at work on the simulated devices, with a host that does next to nothing: what another process
// measures from outside, thread by thread. Prints "running" once the sound plays, ends with its standard input, and
// then prints the intervals between its flips. With "starts" it only opens and closes the player, and prints how long
// each time took. What the library prints goes nowhere.
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
constexpr int64_t kNsPerUs = 1000;
constexpr int kOutputRate = 48000;
constexpr size_t kMostFlips = 1 << 20;
constexpr int64_t kFlipsBeforeSync = 120; ///< of the start, in which frames come in bursts

struct Options {
    std::string signal;
    int fps = 60;
    int rate = 48000;    ///< of PCM
    int queue = 16;      ///< frames
    double display = 60; ///< Hz
    int starts = 0;      ///< 0: plays
};

FILE* g_results; ///< the program's own output
std::atomic<bool> g_running{true};
std::atomic<int64_t> g_blocks{0};
std::atomic<int32_t> g_newest_serial{0}, g_last_old_serial{INT32_MAX};
std::atomic<int64_t> g_reset_ns{0};   ///< when the first A/V sync reset began
std::atomic<int64_t> g_in_sync_ns{0}; ///< the first flip after it
std::vector<int64_t> g_flips;         ///< ns; the sync thread's until the player is closed

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
bool begin_source(const Options& options)
{
    const bool compressed = options.signal != "pcm";
    const int rate = compressed ? kOutputRate : options.rate;
    if (!hdmi_sim::write_state_file(hdmi_sim::announce_text(compressed, rate) + "\n"))
        return false;
    hdmi_sim::receiver_connect(!compressed ? pcm(rate)
                                           : coded(options.signal == "ac3" ? AV_CODEC_ID_AC3 : AV_CODEC_ID_EAC3));
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
    if (event != E_HDMI_PLAYER_EVENT_AVSYNC_RESET)
        return;
    g_last_old_serial = g_newest_serial.load();
    int64_t none = 0;
    g_reset_ns.compare_exchange_strong(none, hdmi_sim::now_ns());
}

void on_flip(hdmi_player_video_frame_t frame)
{
    const int64_t now = hdmi_sim::now_ns();
    if (g_flips.size() < kMostFlips)
        g_flips.push_back(now);
    if (g_in_sync_ns == 0 && g_reset_ns != 0)
        g_in_sync_ns = now;
    hdmi_sim::display_flip(frame.buf_handle);
}

void print_flip_errors(int fps)
{
    std::vector<int64_t> errors;
    for (size_t i = kFlipsBeforeSync; i < g_flips.size(); ++i)
        errors.push_back(std::abs(g_flips[i] - g_flips[i - 1] - kNsPerSecond / fps) / 1000);
    std::sort(errors.begin(), errors.end());
    if (!errors.empty())
        fprintf(g_results, "flips %zu p50 %lld p99 %lld max %lld\n", errors.size(),
                static_cast<long long>(errors[errors.size() / 2]),
                static_cast<long long>(errors[errors.size() * 99 / 100]), static_cast<long long>(errors.back()));
}

// --- Playing --------------------------------------------------------------------

/// The player and its host from construction to destruction.
class Playing
{
public:
    explicit Playing(const Options& options)
    {
        const int display = hdmi_sim::display_start({options.display}, nullptr, nullptr);
        hdmi_player_config_t config = {};
        config.ao_dev = E_HDMI_PLAYER_AO_DEV_SPEAKER;
        config.ao_sample_rate = E_HDMI_PLAYER_AIO_SAMPLE_RATE_48K;
        config.drm_info = {display, static_cast<float>(options.display)};
        config.video_frame_queue_size = options.queue;
        config.event_cb = on_event;
        config.video_frame_flip_cb = on_flip;
        config.video_frame_drop_cb = [](hdmi_player_video_frame_t) {};
        g_running = true;
        g_blocks = g_newest_serial = 0;
        // Without frames there is no reset that sound would have to wait for.
        g_last_old_serial = options.fps > 0 ? INT32_MAX : -1;
        g_reset_ns = g_in_sync_ns = 0;
        open_ = hdmi_player_open(config) == 0;
        opened_ns_ = hdmi_sim::now_ns();
        if (!open_)
            return;
        hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);
        sound_ = std::thread(play_sound);
        if (options.fps > 0)
            video_ = std::thread(render_frames, options.fps);
    }
    ~Playing()
    {
        close();
        hdmi_sim::display_stop();
    }
    Playing(const Playing&) = delete;
    Playing& operator=(const Playing&) = delete;

    bool is_open() const { return open_; }
    int64_t opened_ns() const { return opened_ns_; }
    /// Ends the host, then the player. @return ns that the player took.
    int64_t close()
    {
        g_running = false;
        if (sound_.joinable())
            sound_.join();
        if (video_.joinable())
            video_.join();
        const int64_t begin = hdmi_sim::now_ns();
        if (open_)
            hdmi_player_close();
        open_ = false;
        return hdmi_sim::now_ns() - begin;
    }

private:
    bool open_ = false;
    int64_t opened_ns_ = 0;
    std::thread sound_, video_;
};

bool play(const Options& options)
{
    g_flips.reserve(kMostFlips);
    {
        const Playing playing(options);
        if (!playing.is_open())
            return false;
        while (g_blocks < 50)
            usleep(10000);
        fprintf(g_results, "running\n");
        fflush(g_results);
        char ignored = 0;
        while (read(STDIN_FILENO, &ignored, 1) > 0) {
        }
    }
    if (options.fps > 0)
        print_flip_errors(options.fps);
    return true;
}

/// Prints for each start, in us: until open returned, until sound was written, until a frame was flipped in sync (both
/// from the call of open on), and how long close took.
bool start_again_and_again(const Options& options)
{
    for (int start = 0; start < options.starts; ++start) {
        hdmi_sim::reset();
        if (!begin_source(options))
            return false;
        // At another phase of periods and bursts each time.
        usleep(static_cast<useconds_t>(start * 7919 % 32000));
        const int64_t begin = hdmi_sim::now_ns();
        int64_t sound = 0, picture = 0;
        Playing playing(options);
        if (!playing.is_open())
            return false;
        while ((sound = hdmi_sim::playback_stats().first_write_ns) == 0 ||
               (options.fps > 0 && (picture = g_in_sync_ns) == 0))
            usleep(1000);
        const int64_t closed = playing.close();
        fprintf(g_results, "start %lld %lld %lld %lld\n",
                static_cast<long long>((playing.opened_ns() - begin) / kNsPerUs),
                static_cast<long long>((sound - begin) / kNsPerUs),
                static_cast<long long>(std::max<int64_t>(picture - begin, 0) / kNsPerUs),
                static_cast<long long>(closed / kNsPerUs));
        fflush(g_results);
    }
    return true;
}

bool parse(int argc, char** argv, Options* options)
{
    if (argc < 3)
        return false;
    options->signal = argv[1];
    options->fps = atoi(argv[2]);
    for (int i = 3; i < argc; ++i) {
        const std::string option = argv[i];
        const size_t sign = option.find('=');
        const std::string name = option.substr(0, sign);
        const double value = sign != std::string::npos ? atof(option.c_str() + sign + 1) : 0;
        if (name == "rate")
            options->rate = static_cast<int>(value);
        else if (name == "queue")
            options->queue = static_cast<int>(value);
        else if (name == "display")
            options->display = value;
        else if (name == "starts")
            options->starts = static_cast<int>(value);
        else
            return false;
    }
    return options->signal == "pcm" || options->signal == "ac3" || options->signal == "eac3";
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parse(argc, argv, &options)) {
        fprintf(stderr, "Usage: player_load pcm|ac3|eac3 FRAMES_PER_SECOND [rate=HZ] [queue=FRAMES] [display=HZ] "
                        "[starts=TIMES]\n");
        return 2;
    }
    g_results = fdopen(dup(STDOUT_FILENO), "w");
    if (g_results == nullptr || freopen("/dev/null", "w", stdout) == nullptr)
        return EXIT_FAILURE;
    std::string error;
    if (!hdmi_sim::prepare_announcements(&error)) {
        fprintf(stderr, "%s\n", error.c_str());
        return 77;
    }
    const bool done = options.starts > 0 ? start_again_and_again(options) : begin_source(options) && play(options);
    return done ? EXIT_SUCCESS : EXIT_FAILURE;
}
