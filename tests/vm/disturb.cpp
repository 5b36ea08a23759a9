// SPDX-License-Identifier: MIT
// disturb ROUNDS SEED REPORT: plays from a loopback card to another, with pictures on a KMS display and the audio
// return channel open, and takes the devices away and gives them back, in random order, each as often as ROUNDS says.
// Each time the player must have noticed, and sound, picture and channel must be back; at the end nothing may have
// leaked. Runs in the virtual machine, as root: the devices are the kernel's own, an audio system is at the other end
// of the CEC cable.
#include <alsa/asoundlib.h>
#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "display/display.h"
#include "hdmi_linux.h"
#include "hdmi_sim.h"
#include "host/host.h"
#include "process/realtime.h"
#include "screen/screen.h"
#include "source/canvas.h"

namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int kPriority = 20;
/// Both must have been there without a break for that long before the next disturbance.
constexpr int64_t kSteadyNs = 300 * kMs;
/// What is queued plays on after a device went away: a break may show that late.
constexpr int64_t kBreakShowsNs = 400 * kMs;
/// Many times what it takes, for processors that are emulated and shared; how long it took is in the report.
constexpr int64_t kRecoveryLimitNs = 15000 * kMs;
/// Unplugging ends when everybody has let go of the device.
constexpr int64_t kActionLimitNs = 5000 * kMs;
constexpr int64_t kStartLimitNs = 15000 * kMs;
/// A device is away for so long.
constexpr int64_t kLeastHeldNs = 20 * kMs;
/// One that is not missed at once: the display looks at its connector every 100 ms.
constexpr int64_t kLeastHeldSlowNs = 200 * kMs;
constexpr int64_t kMostHeldNs = 400 * kMs;
/// A few refreshes without a new picture are the emulated processors' affair.
constexpr int64_t kLongestStillNs = 150 * kMs;
/// So is a gap in the sound that nobody would call an interruption: an underrun.
constexpr int64_t kLongestGapNs = 100 * kMs;
/// Between two looks at the channel, of a machine under load.
constexpr int64_t kLongestLookNs = 100 * kMs;
constexpr int kOutputRate = 48000;
constexpr int kEarWindow = kOutputRate / 100;
constexpr int kLoud = 1000;
/// After so many disturbances every part has run once, and what is kept for good is there.
constexpr size_t kWarmUp = 15;
constexpr long kHeapSlack = 128 * 1024;
/// Of the second half, in which next to nothing runs for the first time: measured were 14 KB over 300 disturbances, in
/// two steps.
constexpr long kLateHeapSlack = 24 * 1024;
/// What is in use for a moment only is not in the least of so many readings.
constexpr int kHeapReadings = 20;
constexpr std::array<int, 3> kSourceRates = {32000, 44100, 48000};
constexpr const char* kStateFile = "/sys/class/extcon/hdmirx_aud/state";

int64_t now_ns() { return hdmi_sim::now_ns(); }
void sleep_ns(int64_t ns) { std::this_thread::sleep_for(std::chrono::nanoseconds(ns)); }

bool write_to(const std::string& path, const std::string& text)
{
    int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    bool written = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (!written)
        std::fprintf(stderr, "%s: %s\n", path.c_str(), std::strerror(errno));
    if (fd >= 0)
        close(fd);
    return written;
}

struct PcmCloser {
    void operator()(snd_pcm_t* pcm) const { snd_pcm_close(pcm); }
};
using Pcm = std::unique_ptr<snd_pcm_t, PcmCloser>;

Pcm open_pcm(const char* name, snd_pcm_stream_t direction, int rate)
{
    constexpr unsigned int kLatencyUs = 60'000;
    snd_pcm_t* pcm = nullptr;
    if (snd_pcm_open(&pcm, name, direction, SND_PCM_NONBLOCK) < 0)
        return nullptr;
    Pcm opened(pcm);
    if (snd_pcm_set_params(pcm, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED, 2,
                           static_cast<unsigned int>(rate), 0, kLatencyUs) < 0)
        return nullptr;
    return opened;
}

/// Something that lasts, with breaks: since when it has.
class Lasting
{
public:
    explicit Lasting(int64_t longest_pause_ns) : longest_pause_ns_(longest_pause_ns) {}

    /// From one thread.
    void is_there()
    {
        if (since_ns() < 0)
            since_ns_ = now_ns();
        last_ns_ = now_ns();
    }
    /// -1: it is not there.
    int64_t since_ns() const { return now_ns() - last_ns_ <= longest_pause_ns_ ? since_ns_.load() : -1; }

private:
    const int64_t longest_pause_ns_;
    std::atomic<int64_t> since_ns_{-1};
    std::atomic<int64_t> last_ns_{INT64_MIN / 2};
};

/// The source's sound: a tone into the HDMI cable. It waits for nobody, and comes back with its device.
class Feed
{
public:
    explicit Feed(int rate) : rate_(rate), thread_(&Feed::run, this) {}
    ~Feed()
    {
        stop_ = true;
        thread_.join();
    }

    /// Goes on at another rate, which the receiver's driver announces, as it does on a television.
    bool change_rate(int rate)
    {
        rate_ = 0;
        while (open_)
            sleep_ns(kMs);
        bool announced = announce(rate);
        rate_ = rate;
        return announced;
    }
    int rate() const { return rate_; }
    static bool announce(int rate)
    {
        return write_to(kStateFile, "HEADDONE_PCM_" + std::to_string(rate / 1000) + "=1");
    }

private:
    void run()
    {
        pthread_setname_np(pthread_self(), "feed");
        while (!stop_) {
            int rate = rate_;
            Pcm pcm = rate > 0 ? open_pcm("hw:Cable,0", SND_PCM_STREAM_PLAYBACK, rate) : nullptr;
            open_ = pcm != nullptr;
            while (pcm && !stop_ && rate_ == rate && send(pcm.get(), rate)) {
            }
            pcm.reset();
            open_ = false;
            sleep_ns(10 * kMs);
        }
    }
    bool send(snd_pcm_t* pcm, int rate)
    {
        constexpr double kToneHz = 1000;
        constexpr double kAmplitude = 10'000;
        std::array<int16_t, 2 * 256> words;
        for (size_t i = 0; i < words.size(); i += 2)
            words[i] = words[i + 1] = static_cast<int16_t>(
                kAmplitude * std::sin(2 * M_PI * kToneHz * static_cast<double>(sent_ + i / 2) / rate));
        sent_ += words.size() / 2;
        if (snd_pcm_wait(pcm, 100) < 0)
            return snd_pcm_recover(pcm, -EPIPE, 1) == 0;
        snd_pcm_sframes_t written = snd_pcm_writei(pcm, words.data(), words.size() / 2);
        return written >= 0 || written == -EAGAIN || snd_pcm_recover(pcm, static_cast<int>(written), 1) == 0;
    }

    std::atomic<int> rate_;
    std::atomic<bool> open_{false};
    std::atomic<bool> stop_{false};
    size_t sent_ = 0;
    std::thread thread_;
};

/// Listens at the loudspeaker.
class Ear
{
public:
    Ear() : thread_(&Ear::run, this) {}
    ~Ear()
    {
        stop_ = true;
        thread_.join();
    }
    const Lasting& sound() const { return sound_; }

private:
    void run()
    {
        pthread_setname_np(pthread_self(), "ear");
        while (!stop_) {
            Pcm pcm = open_pcm("hw:Speaker,1", SND_PCM_STREAM_CAPTURE, kOutputRate);
            if (pcm)
                snd_pcm_start(pcm.get());
            while (pcm && !stop_ && listen(pcm.get())) {
            }
            pcm.reset();
            sleep_ns(10 * kMs);
        }
    }
    bool listen(snd_pcm_t* pcm)
    {
        std::array<int16_t, 2 * kEarWindow> words;
        if (snd_pcm_wait(pcm, 100) == 0)
            return true;
        snd_pcm_sframes_t got = snd_pcm_readi(pcm, words.data(), kEarWindow);
        if (got == -EAGAIN)
            return true;
        if (got < 0)
            return snd_pcm_recover(pcm, static_cast<int>(got), 1) == 0 && snd_pcm_start(pcm) == 0;
        int peak = 0;
        for (snd_pcm_sframes_t i = 0; i < 2 * got; i++)
            peak = std::max(peak, std::abs(int{words[static_cast<size_t>(i)]}));
        if (peak >= kLoud)
            sound_.is_there();
        return true;
    }

    Lasting sound_{kLongestGapNs};
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/// Asks every 10 ms whether something is there.
class Watch
{
public:
    Watch(const char* name, int64_t longest_pause_ns, std::function<bool()> is_there)
        : lasting_(longest_pause_ns), thread_([this, name, is_there = std::move(is_there)] {
              pthread_setname_np(pthread_self(), name);
              for (; !stop_; sleep_ns(10 * kMs))
                  if (is_there())
                      lasting_.is_there();
          })
    {
    }
    ~Watch()
    {
        stop_ = true;
        thread_.join();
    }
    const Lasting& lasting() const { return lasting_; }

private:
    Lasting lasting_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

/// There is a picture as long as it moves.
std::function<bool()> moving_picture(const display::Display& display)
{
    return [&display, shown = int64_t{0}]() mutable {
        display::DisplayStats stats = display.stats();
        int64_t before = std::exchange(shown, stats.vblanks - stats.repeated);
        return shown > before;
    };
}

bool channel_is_open() { return hdmi_linux::cec_stats().arc == hdmi_linux::ArcState::active; }

/// Numbered pictures without end; the sound comes over the cable.
class Pictures : public play::Source
{
public:
    int audio_rate() const override { return kSourceRates.back(); }
    void audio(int64_t, int16_t*, int) const override {}
    play::Rational fps() const override { return {60, 1}; }
    bool next_video(play::VideoFrame* frame) override
    {
        frame->number = next_ % play::kPictureNumberLimit;
        frame->source_ns = frame_ns(next_++);
        play::fill_field(&frame->picture, play::Picture::kBlack);
        play::write_number(&frame->picture, frame->number);
        return true;
    }
    int64_t frame_ns(int64_t number) const override { return number * 1'000'000'000 / 60; }
    std::vector<int64_t> marks() const override { return {}; }
    std::string description() const override { return "numbered pictures, a tone"; }

private:
    int64_t next_ = 0;
};

using Counts = std::vector<int64_t>;

struct Disturbance {
    std::string kind;
    std::function<bool()> down;
    std::function<bool()> up;        ///< none: it comes back by itself
    std::function<Counts()> noticed; ///< how often the player has met it; each counter counts every time
    int64_t held_at_least_ns = kLeastHeldNs;
};

/// What should be there all the time.
constexpr std::array<const char*, 3> kPresent = {"sound", "picture", "channel"};
using Presence = std::array<const Lasting*, kPresent.size()>;

struct Outcome {
    std::string kind;
    int64_t held_ns = 0;                               ///< without the device
    std::array<int64_t, kPresent.size()> back_ns = {}; ///< from the device's return; -1: not back in time
    bool noticed = false;                              ///< by the player

    bool good() const { return noticed && *std::min_element(back_ns.begin(), back_ns.end()) >= 0; }
};

struct Belongings {
    long threads;
    long descriptors;
    long heap; ///< bytes
};

long count_entries(const char* folder)
{
    long count = 0;
    DIR* entries = opendir(folder);
    while (entries != nullptr && readdir(entries) != nullptr)
        count++;
    if (entries != nullptr)
        closedir(entries);
    return count;
}

/// Without what the display remembers of each outage, and the platform, up to a limit, of each CEC message.
long heap_in_use(const display::Display& display)
{
    constexpr size_t kReasonBytes = 48;
    size_t outages = display.stats().outages.size();
    size_t capacity = 1;
    while (capacity < outages)
        capacity *= 2;
    size_t kept = capacity * sizeof(display::Outage) + outages * kReasonBytes;
    kept += hdmi_linux::cec_messages().size() * sizeof(hdmi_linux::CecMessage);
    struct mallinfo2 heap = mallinfo2();
    return static_cast<long>(heap.uordblks + heap.hblkhd - kept);
}

Belongings belongings(const display::Display& display)
{
    long heap = heap_in_use(display);
    for (int i = 1; i < kHeapReadings; i++) {
        sleep_ns(5 * kMs);
        heap = std::min(heap, heap_in_use(display));
    }
    return {count_entries("/proc/self/task"), count_entries("/proc/self/fd"), heap};
}

class Trial
{
public:
    /// What is remembered of the disturbances takes its memory at once. @p random outlives it.
    Trial(std::mt19937* random, Presence presence, size_t disturbances) : random_(random), presence_(presence)
    {
        outcomes_.reserve(disturbances);
    }

    bool wait_until_steady(int64_t limit_ns)
    {
        return wait_until(limit_ns, [this] { return all_steady(); });
    }

    /// @return false if it did not end well: then there is no point in going on
    bool disturb(const Disturbance& disturbance)
    {
        Outcome outcome = {disturbance.kind};
        Counts before = disturbance.noticed();
        if (!in_time(disturbance.kind, disturbance.down))
            return false;
        if (disturbance.up) {
            std::uniform_int_distribution<int64_t> held(disturbance.held_at_least_ns, kMostHeldNs);
            outcome.held_ns = held(*random_);
            sleep_ns(outcome.held_ns);
            if (!in_time(disturbance.kind, disturbance.up))
                return false;
        }
        int64_t back_ns = now_ns();
        sleep_ns(kBreakShowsNs);
        auto noticed = [&] { return each_more(disturbance.noticed(), before); };
        wait_until(kRecoveryLimitNs, [&] { return all_steady() && noticed(); });
        std::transform(presence_.begin(), presence_.end(), outcome.back_ns.begin(),
                       [back_ns](const Lasting* thing) { return recovery(*thing, back_ns); });
        outcome.noticed = noticed();
        outcomes_.push_back(outcome);
        std::printf("%4zu %-8s back after", outcomes_.size(), outcome.kind.c_str());
        for (size_t i = 0; i < kPresent.size(); i++)
            std::printf(" %s %4" PRId64 " ms", kPresent[i], outcome.back_ns[i] / kMs);
        std::printf("%s\n", outcome.noticed ? "" : ": the player did not notice it");
        std::fflush(stdout);
        return outcome.good();
    }

    const std::vector<Outcome>& outcomes() const { return outcomes_; }

private:
    static bool wait_until(int64_t limit_ns, const std::function<bool()>& reached)
    {
        int64_t end_ns = now_ns() + limit_ns;
        while (!reached()) {
            if (now_ns() > end_ns)
                return false;
            sleep_ns(5 * kMs);
        }
        return true;
    }
    static bool each_more(const Counts& now, const Counts& before)
    {
        return std::equal(now.begin(), now.end(), before.begin(), std::greater<>());
    }
    bool all_steady() const
    {
        return std::all_of(presence_.begin(), presence_.end(), [](const Lasting* thing) { return steady(*thing); });
    }
    static bool steady(const Lasting& thing)
    {
        int64_t since_ns = thing.since_ns();
        return since_ns >= 0 && now_ns() - since_ns >= kSteadyNs;
    }
    static int64_t recovery(const Lasting& thing, int64_t back_ns)
    {
        return steady(thing) ? std::max<int64_t>(thing.since_ns() - back_ns, 0) : -1;
    }
    bool in_time(const std::string& kind, const std::function<bool()>& action)
    {
        std::future<bool> result = std::async(std::launch::async, action);
        if (result.wait_for(std::chrono::nanoseconds(kActionLimitNs)) != std::future_status::ready) {
            std::printf("%s: somebody does not let go of it\n", kind.c_str());
            std::fflush(stdout);
            _exit(1);
        }
        return result.get();
    }

    std::mt19937* const random_;
    const Presence presence_;
    std::vector<Outcome> outcomes_;
};

bool video_control(const std::string& arguments) { return std::system(("v4l2-ctl " + arguments).c_str()) == 0; }

/// The two ends of the CEC cable in turn: the audio system's plug, the TV's input.
Disturbance cec_disturbance()
{
    auto input = std::make_shared<bool>(false);
    auto unplug = [input] {
        *input = !*input;
        return video_control(*input ? "-d /dev/video0 --clear-edid" : "-d /dev/video1 -c display_present=0");
    };
    auto plug_in = [input] {
        return (*input || video_control("-d /dev/video1 -c display_present=1")) &&
               video_control("-d /dev/video0 --set-edid=type=hdmi");
    };
    auto noticed = [] { return Counts{hdmi_linux::cec_stats().activations}; };
    return {"cec", unplug, plug_in, noticed, kLeastHeldSlowNs};
}

/// Every way to disturb; what is passed outlives them.
std::vector<Disturbance> ways(Feed* feed, const display::Display& display, std::mt19937* random)
{
    auto bus = [](const char* file, const char* device) {
        return [=] { return write_to(std::string("/sys/bus/platform/drivers/snd_aloop/") + file, device); };
    };
    auto connector = [](const char* status) {
        return [=] { return write_to("/sys/class/drm/card0-Virtual-1/status", status); };
    };
    auto other_rate = [=] {
        auto now = std::find(kSourceRates.begin(), kSourceRates.end(), feed->rate());
        size_t step = 1 + (*random)() % (kSourceRates.size() - 1);
        return feed->change_rate(kSourceRates[(now - kSourceRates.begin() + step) % kSourceRates.size()]);
    };
    auto suspend = [] { return write_to("/sys/power/pm_test", "devices") && write_to("/sys/power/state", "freeze"); };
    auto captures_lost = [] { return Counts{hdmi_linux::capture_stats().losses}; };
    auto playbacks_lost = [] { return Counts{hdmi_linux::playback_stats().losses}; };
    auto outages = [&display] { return Counts{static_cast<int64_t>(display.stats().outages.size())}; };
    auto openings = [] { return Counts{hdmi_linux::capture_stats().opens}; };
    auto suspends = [] { return Counts{hdmi_linux::playback_stats().suspends, hdmi_linux::capture_stats().suspends}; };
    return {{"cable", bus("unbind", "snd_aloop.0"), bus("bind", "snd_aloop.0"), captures_lost},
            {"speaker", bus("unbind", "snd_aloop.1"), bus("bind", "snd_aloop.1"), playbacks_lost},
            {"display", connector("off"), connector("on"), outages, kLeastHeldSlowNs},
            {"rate", other_rate, nullptr, openings},
            {"suspend", suspend, nullptr, suspends},
            cec_disturbance()};
}

/// Median, 95th percentile and worst, in ms.
nlohmann::json summary(std::vector<int64_t> values)
{
    std::sort(values.begin(), values.end());
    auto at = [&values](size_t percent) { return values[(values.size() - 1) * percent / 100] / kMs; };
    return {{"median_ms", at(50)}, {"p95_ms", at(95)}, {"worst_ms", at(100)}};
}

std::string in_short(const nlohmann::json& summary)
{
    return summary["median_ms"].dump() + "/" + summary["p95_ms"].dump() + "/" + summary["worst_ms"].dump();
}

nlohmann::json to_json(const std::vector<Outcome>& outcomes)
{
    std::map<std::string, std::array<std::vector<int64_t>, kPresent.size()>> by_kind;
    nlohmann::json all = nlohmann::json::array();
    for (const Outcome& outcome : outcomes) {
        nlohmann::json& told = all.emplace_back();
        told = {{"kind", outcome.kind}, {"held_ms", outcome.held_ns / kMs}, {"noticed", outcome.noticed}};
        for (size_t i = 0; i < kPresent.size(); i++) {
            by_kind[outcome.kind][i].push_back(outcome.back_ns[i]);
            told[std::string(kPresent[i]) + "_ms"] = outcome.back_ns[i] / kMs;
        }
    }
    nlohmann::json kinds;
    for (const auto& [kind, times] : by_kind) {
        kinds[kind]["times"] = times[0].size();
        std::printf("RECOVERY %-7s %3zu times, ms (median/p95/worst):", kind.c_str(), times[0].size());
        for (size_t i = 0; i < kPresent.size(); i++) {
            kinds[kind][kPresent[i]] = summary(times[i]);
            std::printf(" %s %s", kPresent[i], in_short(kinds[kind][kPresent[i]]).c_str());
        }
        std::printf("\n");
    }
    return {{"recovery", kinds}, {"disturbances", all}};
}

/// Before, in the middle and after.
bool same_belongings(const std::array<Belongings, 3>& readings, nlohmann::json* report)
{
    const auto& [before, middle, after] = readings;
    (*report)["leaks"] = {{"threads", after.threads - before.threads},
                          {"descriptors", after.descriptors - before.descriptors},
                          {"heap_bytes", after.heap - before.heap},
                          {"heap_bytes_second_half", after.heap - middle.heap}};
    std::printf("threads %ld -> %ld, descriptors %ld -> %ld, heap %ld -> %ld -> %ld bytes\n", before.threads,
                after.threads, before.descriptors, after.descriptors, before.heap, middle.heap, after.heap);
    return after.threads == before.threads && after.descriptors == before.descriptors &&
           after.heap - before.heap <= kHeapSlack && after.heap - middle.heap <= kLateHeapSlack;
}

/// Each kind @p rounds times, mixed.
std::vector<size_t> random_order(size_t rounds, size_t kinds, std::mt19937* random)
{
    std::vector<size_t> order;
    for (size_t i = 0; i < rounds * kinds; i++)
        order.push_back(i % kinds);
    std::shuffle(order.begin(), order.end(), *random);
    return order;
}

/// @return whether everything came back, and nothing leaked
bool run(size_t rounds, uint32_t seed, const display::Display& display, nlohmann::json* report)
{
    Feed feed(kSourceRates.back());
    Ear ear;
    Watch eye("eye", kLongestStillNs, moving_picture(display));
    Watch channel("channel", kLongestLookNs, channel_is_open);
    std::mt19937 random(seed);
    std::vector<Disturbance> kinds = ways(&feed, display, &random);
    std::vector<size_t> order = random_order(rounds, kinds.size(), &random);
    Trial trial(&random, {&ear.sound(), &eye.lasting(), &channel.lasting()}, order.size());
    if (!trial.wait_until_steady(kStartLimitNs)) {
        std::printf("no sound, no picture or no return channel to begin with\n");
        return false;
    }
    // Always at the same rate: what converts rates takes its memory.
    auto at_rest = [&] {
        feed.change_rate(kSourceRates.back());
        sleep_ns(kBreakShowsNs);
        trial.wait_until_steady(kRecoveryLimitNs);
        return belongings(display);
    };
    size_t first = std::min(kWarmUp, order.size() / 2);
    size_t middle = first + (order.size() - first) / 2;
    std::array<Belongings, 3> readings = {};
    bool good = true;
    for (size_t i = 0; good && i < order.size(); i++) {
        if (i == first)
            readings[0] = at_rest();
        if (i == middle)
            readings[1] = at_rest();
        good = trial.disturb(kinds[order[i]]);
    }
    readings[2] = at_rest();
    // A queue that was deeper than ever before keeps that memory. What leaks does so again.
    if (good && readings[2].heap - readings[1].heap > kLateHeapSlack) {
        std::printf("heap %ld -> %ld bytes: the second half again\n", readings[1].heap, readings[2].heap);
        for (size_t i = middle; good && i < order.size(); i++)
            good = trial.disturb(kinds[order[i]]);
        readings[1] = readings[2];
        readings[2] = at_rest();
    }
    *report = to_json(trial.outcomes());
    bool kept = same_belongings(readings, report);
    return good && kept;
}

bool play_and_disturb(size_t rounds, uint32_t seed, nlohmann::json* report)
{
    std::string error;
    std::unique_ptr<display::Display> display = display::open_kms_display({}, &error);
    if (!display || !Feed::announce(kSourceRates.back())) {
        std::printf("%s\n", error.c_str());
        return false;
    }
    play::Screen screen;
    display::FlipGate gate(display->refresh_hz());
    Pictures pictures;
    std::unique_ptr<play::Host> host;
    {
        process::RealtimeScope realtime(kPriority);
        std::optional<hdmi_player_drm_info_t> info = display->start(&screen, &gate, &error);
        if (!info) {
            std::printf("%s\n", error.c_str());
            return false;
        }
        play::HostConfig config;
        config.display = *info;
        config.output = E_HDMI_PLAYER_AO_DEV_HDMI_ARC;
        config.gate = &gate;
        config.paint = [&display](play::PictureBuffer* buffer, const play::Image* image) {
            if (display->provide_surface(buffer))
                play::paint(buffer->picture, image, buffer->surface->canvas());
        };
        config.drain_ns = 200 * kMs; // a loopback captures silence without end
        config.present = [&display](display::FrameBuffer* buffer) { display->present(buffer); };
        host = std::make_unique<play::Host>(config, &pictures, play::SourceClock{now_ns()});
        if (!host->start())
            return false;
    }
    bool good = run(rounds, seed, *display, report);
    host->stop_video();
    host->close();
    display->stop();
    play::FrameAccount frames = host->frames();
    std::printf("frames: rendered %lld, flipped %lld, dropped %lld, held %lld\n",
                static_cast<long long>(frames.rendered), static_cast<long long>(frames.flipped),
                static_cast<long long>(frames.dropped), static_cast<long long>(frames.held));
    (*report)["frame_account_closes"] = frames.closes();
    return good && frames.closes();
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: disturb ROUNDS SEED REPORT\n");
        return 2;
    }
    auto seed = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
    std::printf("seed %u\n", seed);
    nlohmann::json report;
    bool good = play_and_disturb(std::strtoul(argv[1], nullptr, 10), seed, &report);
    report["seed"] = seed;
    report["passed"] = good;
    std::ofstream(argv[3]) << report.dump(2) << '\n';
    std::printf("%s\n", good ? "PASS" : "FAIL");
    return good ? 0 : 1;
}
