// SPDX-License-Identifier: MIT
#include <cstring>
#include <memory>
#include <vector>

#include "output_reserve.h"
#include "play_queue.h"
#include "rate_matcher.h"
#include "recording.h"
#include "sim.h"

namespace sim
{
namespace
{

constexpr int kMaxChannels = 8;
constexpr int kMaxRate = 192000;
constexpr int kMaxPeriodFrames = 1 << 16;
constexpr int kMaxPeriods = 64;
constexpr int kMaxVolume = 100;
constexpr int kMaxDirectVolume = 255;
/// Even steps over 60 dB: 100 is unity. 0 is silence.
constexpr float kDecibelsPerPercent = 0.6f;

/// What is written on its way through the rate matcher. Frames are counted from the device's opening.
struct Matching {
    hdmi_sim::RateMatching policy = hdmi_sim::RateMatching::off;
    bool at_work = false;
    int64_t made = 0; ///< frames for the queue
    std::vector<int16_t> input;
    std::vector<int16_t> output;
};

/// Passes what was heard on to the recording and to the program's listener, where there are such.
struct Hearing final : PlaySink {
    std::shared_ptr<Recording> recording;
    std::function<void(const hdmi_sim::HeardFrames&)> listener;
    int rate = 0;
    int channels = 0;

    void sound(const int16_t* samples, int64_t frames, int64_t heard_ns, bool begins_block) override
    {
        if (recording != nullptr)
            recording->sound(samples, frames, heard_ns, begins_block);
        if (listener)
            listener({samples, frames, heard_ns, rate, channels});
    }
    void silence(int64_t frames, int64_t heard_ns) override
    {
        if (recording != nullptr)
            recording->silence(frames, heard_ns);
        if (listener)
            listener({nullptr, frames, heard_ns, rate, channels});
    }
};

struct Playback {
    mutex_t mutex;
    Condition changed; ///< the opening ended
    hdmi_sim::PlaybackConfig config GUARDED_BY(mutex);
    bool new_config GUARDED_BY(mutex) = false;
    int channels GUARDED_BY(mutex) = 2;
    int period_frames GUARDED_BY(mutex) = 0;
    PlayQueue queue GUARDED_BY(mutex);
    clocks::OutputReserve reserve GUARDED_BY(mutex);
    int64_t queued_ever GUARDED_BY(mutex) = 0; ///< frames since the device was opened
    Matching matching GUARDED_BY(mutex);
    bool ran_empty GUARDED_BY(mutex) = false; ///< and nothing was written since
    float gain GUARDED_BY(mutex) = 1.0f;
    hdmi_sim::PlaybackStats stats GUARDED_BY(mutex);
    Hearing hearing GUARDED_BY(mutex);
    int files GUARDED_BY(mutex) = 0; ///< number of recordings begun with the present configuration
    Openings openings;
};

Playback& playback()
{
    static auto* instance = new Playback;
    return *instance;
}

float effective_gain(const Playback& p) REQUIRES(p.mutex) { return p.stats.muted ? 0.0f : p.gain; }

// Updates the recording and the underruns to time @p now.
void settle(Playback& p, int64_t now) REQUIRES(p.mutex)
{
    if (!p.openings.is_open())
        return;
    p.queue.drain(now, &p.hearing);
    if (p.ran_empty || now <= p.queue.empty_ns())
        return;
    p.ran_empty = true;
    p.stats.underruns++;
    p.stats.last_underrun_ns = p.queue.empty_ns();
}

// "sound.wav", then "sound-2.wav" and so on.
std::string numbered(const std::string& path, int number)
{
    if (number == 1)
        return path;
    const size_t slash = path.rfind('/');
    const size_t dot = path.rfind('.');
    const bool has_suffix = dot != std::string::npos && (slash == std::string::npos || dot > slash);
    const size_t at = has_suffix ? dot : path.size();
    return path.substr(0, at) + "-" + std::to_string(number) + path.substr(at);
}

// A WAV file has one rate, so another rate begins another file.
void prepare_hearing(Playback& p, int rate, int channels) REQUIRES(p.mutex)
{
    if (p.new_config) {
        p.hearing.recording = nullptr;
        p.hearing.listener = p.config.on_heard;
        p.files = 0;
        p.new_config = false;
    }
    p.hearing.rate = rate;
    p.hearing.channels = channels;
    if (p.config.wav_path.empty())
        return;
    std::shared_ptr<Recording>& recording = p.hearing.recording;
    if (recording != nullptr && recording->rate() == rate && recording->channels() == channels) {
        recording->break_block();
        return;
    }
    if (recording != nullptr)
        recording->finish(nullptr);
    recording = std::make_shared<Recording>(numbered(p.config.wav_path, ++p.files), rate, channels);
}

bool valid_output(int device_id, int output_fmt)
{
    return device_id >= E_AUDIO_IO_DEV_AUTO && device_id < E_AUDIO_IO_DEV_MAX && output_fmt >= E_AUDIO_IO_FORMAT_PCM &&
           output_fmt < E_AUDIO_IO_FORMAT_MAX;
}

bool valid(const audio_config_t& config)
{
    return valid_output(config.device_id, config.output_fmt) && config.channels > 0 &&
           config.channels <= kMaxChannels && config.sample_rate > 0 && config.sample_rate <= kMaxRate &&
           config.period_frames > 0 && config.period_frames <= kMaxPeriodFrames && config.period_count > 0 &&
           config.period_count <= kMaxPeriods;
}

void put(Playback& p, int64_t now, const uint8_t* data, int frames) REQUIRES(p.mutex)
{
    p.queue.put(now, data, frames, effective_gain(p), &p.hearing);
    p.ran_empty = false;
    p.queued_ever += frames;
    if (p.stats.first_write_ns == 0)
        p.stats.first_write_ns = now;
}

// Does not count as written.
void put_silence(Playback& p, int64_t now, int frames) REQUIRES(p.mutex)
{
    settle(p, now);
    frames = std::min(frames, p.queue.room(now));
    if (frames <= 0)
        return;
    const std::vector<uint8_t> zeros(static_cast<size_t>(frames * p.channels) * kBytesPerSample);
    put(p, now, zeros.data(), frames);
    p.stats.refilled += frames;
    if (p.matching.at_work)
        p.matching.made += frames;
}

// Blocks while the buffer is full. Returns the frames queued: fewer than @p frames when the opening ended.
int queue_frames(Playback& p, mutex_guard& guard, uint64_t opening, const uint8_t* data, int frames) REQUIRES(p.mutex)
{
    const int frame_bytes = p.channels * kBytesPerSample;
    int done = 0;
    while (done < frames && !p.openings.ended(opening)) {
        const int64_t now = hdmi_sim::now_ns();
        settle(p, now);
        const int run = std::min(frames - done, p.queue.room(now));
        if (run > 0) {
            put(p, now, data + static_cast<size_t>(done) * static_cast<size_t>(frame_bytes), run);
            done += run;
            if (!p.matching.at_work)
                p.stats.frames_written += run;
        } else {
            // For all that is left, unless the queue would run low: what is little more than a period needs one wait.
            const int left = frames - done;
            p.changed.wait_until(guard, p.queue.room_ns(left <= p.queue.capacity() / 2 ? left : p.period_frames));
        }
    }
    return done;
}

// Begins with the first write that is to be matched, and goes on until the device is closed.
bool is_matched(Playback& p) REQUIRES(p.mutex)
{
    Matching& m = p.matching;
    const bool wanted = m.policy == hdmi_sim::RateMatching::on ||
                        (m.policy == hdmi_sim::RateMatching::automatic && link_clock_error_ppm() != 0);
    if (m.at_work || !wanted)
        return m.at_work;
    const auto channels = static_cast<size_t>(p.channels);
    m.input.resize(channels * static_cast<size_t>(p.period_frames));
    m.output.resize(channels * static_cast<size_t>(clocks::RatioResampler::room(p.period_frames)));
    m.made = p.queued_ever;
    m.at_work = rate_matcher().playback_started(p.stats.sample_rate, p.channels);
    return m.at_work;
}

// Resamples at most a period. Returns the frames that are to be queued, negative for an error.
int match(Playback& p, const uint8_t* data, int frames) REQUIRES(p.mutex)
{
    const int64_t now = hdmi_sim::now_ns();
    settle(p, now);
    clocks::RateMatcher& matcher = rate_matcher();
    if (p.ran_empty)
        matcher.disturbed();
    else if (p.queued_ever > 0)
        matcher.played(now, p.queued_ever - p.queue.queued(now));
    memcpy(p.matching.input.data(), data, static_cast<size_t>(frames * p.channels) * kBytesPerSample);
    const int made = matcher.convert(now, p.matching.input.data(), frames, p.matching.output.data());
    p.matching.made += std::max(made, 0);
    return made;
}

// As queue_frames(), but counts the player's frames.
int queue_matched(Playback& p, mutex_guard& guard, uint64_t opening, const uint8_t* data, int frames) REQUIRES(p.mutex)
{
    const int frame_bytes = p.channels * kBytesPerSample;
    int done = 0;
    while (done < frames && !p.openings.ended(opening)) {
        const int run = std::min(frames - done, p.period_frames);
        const int made = match(p, data + static_cast<size_t>(done) * static_cast<size_t>(frame_bytes), run);
        const auto* output = reinterpret_cast<const uint8_t*>(p.matching.output.data());
        if (made < 0 || queue_frames(p, guard, opening, output, made) < made)
            break;
        done += run;
        p.stats.frames_written += run;
    }
    return done;
}

int write_frames(Playback& p, uint64_t opening, const uint8_t* data, int size, const Verdict& verdict)
{
    mutex_guard guard(p.mutex);
    if (p.openings.ended(opening))
        return kClosed;
    const int frame_bytes = p.channels * kBytesPerSample;
    const int accepted = brief_size(verdict, size, frame_bytes);
    const int frames = accepted / frame_bytes;
    const int64_t now = hdmi_sim::now_ns();
    const auto [late, silence] = p.reserve.before_write(now, frames, p.queue.queued(now));
    data += static_cast<size_t>(late) * static_cast<size_t>(frame_bytes);
    p.stats.frames_written += late;
    p.stats.left_out += late;
    put_silence(p, now, silence);
    if (p.matching.at_work && (late > 0 || silence > 0))
        rate_matcher().disturbed();
    const int done = late + (is_matched(p) ? queue_matched(p, guard, opening, data, frames - late)
                                           : queue_frames(p, guard, opening, data, frames - late));
    p.reserve.after_write(hdmi_sim::now_ns());
    if (done == frames)
        return verdict.odd ? accepted : frames * frame_bytes;
    return done > 0 ? done * frame_bytes : kClosed;
}

} // namespace

int playback_open(const audio_config_t& config)
{
    const Verdict verdict = fault_verdict(hdmi_sim::Op::playback_open);
    if (verdict.fail)
        return verdict.result;
    if (!valid(config))
        return -EINVAL;
    Playback& p = playback();
    mutex_guard guard(p.mutex);
    if (p.openings.is_open())
        return -EBUSY;
    prepare_hearing(p, config.sample_rate, config.channels);
    p.queue = PlayQueue(config.sample_rate, p.config.clock_error_ppm, config.channels, config.period_frames,
                        config.period_count);
    p.reserve.start(config.sample_rate, hdmi_sim::now_ns());
    p.openings.begin();
    p.ran_empty = false;
    p.queued_ever = 0;
    p.matching.at_work = false;
    p.matching.policy = p.config.rate_matching;
    if (p.matching.policy == hdmi_sim::RateMatching::automatic && p.config.clock_error_ppm != 0)
        p.matching.policy = hdmi_sim::RateMatching::on;
    p.channels = config.channels;
    p.period_frames = config.period_frames;
    p.stats.opens++;
    p.stats.sample_rate = config.sample_rate;
    p.stats.device_id = config.device_id;
    p.stats.output_fmt = config.output_fmt;
    return 0;
}

int playback_close()
{
    const Verdict verdict = fault_verdict(hdmi_sim::Op::playback_close);
    if (verdict.fail)
        return verdict.result;
    Playback& p = playback();
    mutex_guard guard(p.mutex);
    if (!p.openings.is_open())
        return 0;
    const int64_t now = hdmi_sim::now_ns();
    settle(p, now);
    p.openings.end();
    p.reserve.closed(now);
    p.changed.notify_all();
    guard.unlock();
    faults_wake();
    return 0;
}

int playback_write(const uint8_t* data, int size)
{
    Playback& p = playback();
    return transfer(hdmi_sim::Op::playback_write, p.openings, data, size,
                    [&](uint64_t opening, const Verdict& verdict) {
                        return verdict.withhold ? size : write_frames(p, opening, data, size, verdict);
                    });
}

int playback_delay(int* frames)
{
    const Verdict verdict = fault_verdict(hdmi_sim::Op::playback_delay);
    if (verdict.fail)
        return verdict.result;
    Playback& p = playback();
    mutex_guard guard(p.mutex);
    if (!p.openings.is_open())
        return kClosed;
    if (frames == nullptr)
        return -EINVAL;
    const int64_t now = hdmi_sim::now_ns();
    settle(p, now);
    *frames = p.queue.queued(now);
    if (p.matching.at_work)
        *frames = rate_matcher().delay(static_cast<int>(p.matching.made - p.queued_ever) + *frames);
    return 0;
}

int playback_set_volume(int percent)
{
    const Verdict verdict = fault_verdict(hdmi_sim::Op::set_volume);
    if (verdict.fail)
        return verdict.result;
    if (percent < 0 || percent > kMaxVolume)
        return -EINVAL;
    const float decibels = static_cast<float>(percent - kMaxVolume) * kDecibelsPerPercent;
    Playback& p = playback();
    mutex_guard guard(p.mutex);
    p.stats.volume = percent;
    p.gain = percent == 0 ? 0.0f : std::pow(10.0f, decibels / 20.0f);
    return 0;
}

int playback_set_volume_direct(int level)
{
    const Verdict verdict = fault_verdict(hdmi_sim::Op::set_volume_direct);
    if (verdict.fail)
        return verdict.result;
    if (level < 0 || level > kMaxDirectVolume)
        return -EINVAL;
    Playback& p = playback();
    mutex_guard guard(p.mutex);
    p.stats.direct_volume = level;
    p.gain = static_cast<float>(level) / static_cast<float>(kMaxDirectVolume);
    return 0;
}

int playback_set_mute(bool mute)
{
    const Verdict verdict = fault_verdict(hdmi_sim::Op::set_mute);
    if (verdict.fail)
        return verdict.result;
    Playback& p = playback();
    mutex_guard guard(p.mutex);
    p.stats.muted = mute;
    return 0;
}

int playback_reselect(int device_id, int output_fmt)
{
    const Verdict verdict = fault_verdict(hdmi_sim::Op::reselect);
    if (verdict.fail)
        return verdict.result;
    if (!valid_output(device_id, output_fmt))
        return -EINVAL;
    Playback& p = playback();
    mutex_guard guard(p.mutex);
    if (!p.openings.is_open())
        return kClosed;
    p.stats.device_id = device_id;
    p.stats.output_fmt = output_fmt;
    return 0;
}

void playback_reset()
{
    Playback& p = playback();
    mutex_guard guard(p.mutex);
    p.hearing = {};
    p.config = {};
    p.new_config = false;
    p.files = 0;
    p.gain = 1.0f;
    p.stats = {};
    p.reserve = {};
}

} // namespace sim

namespace hdmi_sim
{

void playback_configure(const PlaybackConfig& config)
{
    sim::Playback& p = sim::playback();
    mutex_guard guard(p.mutex);
    p.config = config;
    p.new_config = true;
}

PlaybackStats playback_stats()
{
    sim::Playback& p = sim::playback();
    mutex_guard guard(p.mutex);
    sim::settle(p, now_ns());
    PlaybackStats stats = p.stats;
    stats.open = p.openings.is_open();
    stats.rate_matching = p.matching.at_work;
    stats.matching_ppm = p.matching.at_work ? (sim::rate_matcher().state().step - 1) * 1e6 : 0;
    return stats;
}

std::vector<PlayedBlock> playback_blocks()
{
    sim::Playback& p = sim::playback();
    mutex_guard guard(p.mutex);
    sim::settle(p, now_ns());
    return p.hearing.recording != nullptr ? p.hearing.recording->blocks() : std::vector<PlayedBlock>();
}

bool playback_finish_recording(std::string* error)
{
    sim::Playback& p = sim::playback();
    mutex_guard guard(p.mutex);
    sim::settle(p, now_ns());
    const std::shared_ptr<sim::Recording> recording = p.hearing.recording;
    // Without the lock, so that the device plays on meanwhile.
    guard.unlock();
    if (recording != nullptr)
        return recording->finish(error);
    if (error != nullptr)
        *error = "nothing was recorded";
    return false;
}

} // namespace hdmi_sim
