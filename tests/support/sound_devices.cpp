// SPDX-License-Identifier: MIT
#include "sound_devices.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "eventually.h"

namespace
{

constexpr int kBlockFrames = 960;
constexpr unsigned kLatencyUs = 200000;
// The preamble of a burst (IEC 61937).
constexpr auto kSyncA = static_cast<int16_t>(0xF872);
constexpr int16_t kSyncB = 0x4E1F;

} // namespace

std::vector<int16_t> numbered(int64_t first, int frames)
{
    std::vector<int16_t> words;
    for (int64_t frame = first; frame < first + frames; ++frame)
        words.insert(words.end(), 2, static_cast<int16_t>(frame % kNumbers + 1));
    return words;
}

std::vector<NumberRun> number_runs(const std::vector<int16_t>& left)
{
    std::vector<NumberRun> result;
    for (const int16_t number : left) {
        if (number == 0)
            continue;
        if (!result.empty() && number == result.back().last % kNumbers + 1)
            result.back() = {result.back().first, number, result.back().frames + 1};
        else
            result.push_back({number, number, 1});
    }
    return result;
}

Feeder::Feeder(const std::string& pcm, int rate, int stuffing)
{
    if (snd_pcm_open(&pcm_, pcm.c_str(), SND_PCM_STREAM_PLAYBACK, 0) < 0 ||
        snd_pcm_set_params(pcm_, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED, 2, static_cast<unsigned>(rate),
                           0, kLatencyUs) < 0)
        throw std::runtime_error("cannot feed " + pcm);
    thread_ = std::thread([this, stuffing] {
        for (int64_t sent = 0; !stop_;) {
            const int payload = kBlockFrames - (stuffing > 0 ? stuffing + 2 : 0);
            std::vector<int16_t> block = numbered(sent, payload);
            if (stuffing > 0)
                block.insert(block.begin(), {kSyncA, kSyncB, 1, static_cast<int16_t>(payload * 2 * 16)});
            block.resize(2 * kBlockFrames);
            const snd_pcm_sframes_t result = snd_pcm_writei(pcm_, block.data(), kBlockFrames);
            if (result < 0 && snd_pcm_recover(pcm_, static_cast<int>(result), 1) < 0)
                break;
            sent += result > 0 ? payload : 0;
        }
    });
}

std::vector<int16_t> payloads(const std::vector<int16_t>& words)
{
    std::vector<int16_t> left;
    for (size_t at = 0; at + 3 < words.size(); at += 2) {
        if (words[at] != kSyncA || words[at + 1] != kSyncB)
            continue;
        const size_t begin = at + 4;
        const size_t end = std::min(begin + static_cast<uint16_t>(words[at + 3]) / 16, words.size());
        for (at = begin; at < end; at += 2)
            left.push_back(words[at]);
        at -= 2;
    }
    return left;
}

Feeder::~Feeder()
{
    stop_ = true;
    thread_.join();
    snd_pcm_close(pcm_);
}

Recorder::Recorder(const std::string& pcm, int rate)
{
    if (snd_pcm_open(&pcm_, pcm.c_str(), SND_PCM_STREAM_CAPTURE, 0) < 0 ||
        snd_pcm_set_params(pcm_, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED, 2, static_cast<unsigned>(rate),
                           0, kLatencyUs) < 0)
        throw std::runtime_error("cannot record " + pcm);
    snd_pcm_start(pcm_);
    thread_ = std::thread(&Recorder::run, this);
    // All sound from here on is recorded.
    eventually([this] { return !words().empty(); });
}

void Recorder::run()
{
    int16_t block[2 * 480];
    while (!stop_) {
        const snd_pcm_sframes_t frames = snd_pcm_readi(pcm_, block, 480);
        if (frames < 0 && snd_pcm_recover(pcm_, static_cast<int>(frames), 1) < 0)
            break;
        const std::lock_guard<std::mutex> guard(mutex_);
        words_.insert(words_.end(), block, block + 2 * std::max<snd_pcm_sframes_t>(frames, 0));
    }
}

std::vector<int16_t> Recorder::words() const
{
    const std::lock_guard<std::mutex> guard(mutex_);
    return words_;
}

std::vector<int16_t> Recorder::left() const
{
    const std::vector<int16_t> both = words();
    std::vector<int16_t> result;
    for (size_t at = 0; at < both.size(); at += 2)
        result.push_back(both[at]);
    return result;
}

void Recorder::stop()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    if (pcm_ != nullptr)
        snd_pcm_close(pcm_);
    pcm_ = nullptr;
}
