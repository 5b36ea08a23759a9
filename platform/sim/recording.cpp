// SPDX-License-Identifier: MIT
#include "recording.h"

#include <pthread.h>

#include <cstdio>
#include <memory>
#include <utility>

namespace sim
{
namespace
{

// The thread is woken when this much is waiting: a quarter of a second of stereo at 48 kHz.
constexpr int64_t kFramesPerWake = 12000;
constexpr int64_t kSilenceFrames = 4096; ///< written at a time

struct CloseFile {
    void operator()(FILE* file) const { fclose(file); }
};

} // namespace

Recording::Recording(std::string path, int rate, int channels)
    : path_(std::move(path)), rate_(rate), channels_(channels)
{
    SF_INFO info = {};
    info.samplerate = rate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    file_ = sf_open(path_.c_str(), SFM_WRITE, &info);
    if (file_ == nullptr)
        problem_ = "cannot create " + path_ + ": " + sf_strerror(nullptr);
    thread_ = std::thread(&Recording::write_loop, this);
}

Recording::~Recording()
{
    mutex_guard guard(finish_mutex_);
    stop_thread();
}

void Recording::sound(const int16_t* samples, int64_t frames, int64_t heard_ns, bool begins_block)
{
    mutex_guard guard(mutex_);
    if (ending_)
        return;
    if (pending_.empty() || pending_.back().silent_frames > 0)
        pending_.emplace_back().samples.reserve(static_cast<size_t>(kFramesPerWake * channels_));
    std::vector<int16_t>& tail = pending_.back().samples;
    tail.insert(tail.end(), samples, samples + frames * channels_);
    add_block(frames, heard_ns, false, begins_block);
}

void Recording::silence(int64_t frames, int64_t heard_ns)
{
    mutex_guard guard(mutex_);
    if (ending_)
        return;
    pending_.push_back({{}, frames});
    add_block(frames, heard_ns, true, true);
}

void Recording::add_block(int64_t frames, int64_t heard_ns, bool silence, bool begins)
{
    const bool joins = !begins && !block_broken_ && !blocks_.empty() && !blocks_.back().silence;
    if (joins)
        blocks_.back().frames += frames;
    else
        blocks_.push_back({frames_, frames, heard_ns, silence});
    block_broken_ = false;
    frames_ += frames;
    pending_frames_ += frames;
    if (pending_frames_ >= kFramesPerWake)
        changed_.notify_all();
}

void Recording::break_block()
{
    mutex_guard guard(mutex_);
    block_broken_ = true;
}

std::vector<hdmi_sim::PlayedBlock> Recording::blocks()
{
    mutex_guard guard(mutex_);
    return blocks_;
}

bool Recording::finish(std::string* error)
{
    mutex_guard guard(finish_mutex_);
    stop_thread();
    if (problem_.empty() && write_block_list(&problem_))
        return true;
    if (error != nullptr)
        *error = problem_;
    return false;
}

void Recording::stop_thread()
{
    {
        mutex_guard guard(mutex_);
        ending_ = true;
        changed_.notify_all();
    }
    if (thread_.joinable())
        thread_.join();
}

void Recording::write_loop()
{
    pthread_setname_np(pthread_self(), "sim_recording");
    for (bool ending = false; !ending;) {
        mutex_guard guard(mutex_);
        while (pending_frames_ < kFramesPerWake && !ending_)
            changed_.wait_until(guard, kNever);
        ending = ending_;
        const std::deque<Chunk> chunks = std::exchange(pending_, {});
        pending_frames_ = 0;
        guard.unlock();
        for (const Chunk& chunk : chunks)
            write_chunk(chunk);
    }
    if (file_ != nullptr && sf_close(file_) != 0 && problem_.empty())
        problem_ = "cannot complete " + path_;
    file_ = nullptr;
}

void Recording::write_chunk(const Chunk& chunk)
{
    if (!chunk.samples.empty())
        write_samples(chunk.samples.data(), static_cast<int64_t>(chunk.samples.size()) / channels_);
    const std::vector<int16_t> zeros(chunk.silent_frames > 0 ? static_cast<size_t>(kSilenceFrames * channels_) : 0);
    for (int64_t left = chunk.silent_frames; left > 0; left -= kSilenceFrames)
        write_samples(zeros.data(), std::min(left, kSilenceFrames));
}

void Recording::write_samples(const int16_t* samples, int64_t frames)
{
    if (file_ != nullptr && sf_writef_short(file_, samples, frames) != frames && problem_.empty())
        problem_ = "cannot write " + path_ + ": " + sf_strerror(file_);
}

bool Recording::write_block_list(std::string* error)
{
    const std::string list = path_ + ".blocks.csv";
    const std::unique_ptr<FILE, CloseFile> file(fopen(list.c_str(), "we"));
    bool good = file != nullptr && fputs("first_frame,frames,heard_ns,silence\n", file.get()) >= 0;
    for (const hdmi_sim::PlayedBlock& block : blocks()) {
        good = good && fprintf(file.get(), "%lld,%lld,%lld,%d\n", static_cast<long long>(block.first_frame),
                               static_cast<long long>(block.frames), static_cast<long long>(block.heard_ns),
                               block.silence ? 1 : 0) > 0;
    }
    good = good && fflush(file.get()) == 0;
    if (!good)
        *error = "cannot write " + list;
    return good;
}

} // namespace sim
