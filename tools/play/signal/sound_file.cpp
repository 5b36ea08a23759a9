// SPDX-License-Identifier: MIT
#include "signal/sound_file.h"

#include <pthread.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace play
{
namespace
{

constexpr int64_t kRingSeconds = 8;
constexpr useconds_t kLookAgainUs = 50'000;
/// Difference from the run's times that begins another run: a device's readings jitter by far less, and a
/// disturbance costs more.
constexpr int64_t kOtherRunNs = 20'000'000;
/// Readings in a row that must differ so: a device that mixes in software is wrong at times, but not so often.
constexpr size_t kStraysOfARun = 4;
/// Times of a run are known at points half a second apart. Blocks are much shorter, so that none jumps.
constexpr int64_t kBlockFrames = 960;

} // namespace

SoundFile::SoundFile(std::string path, int rate)
    : path_(std::move(path)), rate_(rate), ring_(static_cast<size_t>(2 * rate * kRingSeconds))
{
    SF_INFO info = {};
    info.samplerate = rate;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    file_ = sf_open(path_.c_str(), SFM_WRITE, &info);
    if (file_ == nullptr)
        problem_ = "cannot create " + path_ + ": " + sf_strerror(nullptr);
    runs_.emplace_back(0, rate);
    make_spare();
    strays_.reserve(kStraysOfARun);
    thread_ = std::thread(&SoundFile::write_loop, this);
}

SoundFile::~SoundFile() { finish(nullptr); }

void SoundFile::append(const int16_t* stereo, int frames)
{
    auto capacity = static_cast<int64_t>(ring_.size() / 2);
    int64_t room = capacity - (frames_ - written_);
    if (frames > room) {
        missed_ += frames;
        return;
    }
    auto at = static_cast<size_t>(2 * (frames_ % capacity));
    size_t first = std::min(static_cast<size_t>(2 * frames), ring_.size() - at);
    std::copy_n(stereo, first, ring_.begin() + static_cast<std::ptrdiff_t>(at));
    std::copy_n(stereo + first, static_cast<size_t>(2 * frames) - first, ring_.begin());
    frames_ += frames;
}

void SoundFile::heard(int64_t position, int64_t at_ns)
{
    std::lock_guard<std::mutex> lock(mutex_);
    ClockTrack* track = &runs_.back().track;
    bool strays = !track->empty() && std::abs(at_ns - track->time_of(static_cast<double>(position))) >= kOtherRunNs;
    if (!strays) {
        strays_.clear();
        track->add(position, at_ns);
        return;
    }
    strays_.push_back({frames_, position, at_ns});
    if (strays_.size() < kStraysOfARun)
        return;
    track = next_run(strays_.front().frames);
    for (const Word& word : strays_)
        track->add(word.position, word.at_ns);
    strays_.clear();
}

void SoundFile::begin_run()
{
    std::lock_guard<std::mutex> lock(mutex_);
    strays_.clear();
    if (!runs_.back().track.empty())
        next_run(frames_);
}

/// With the mutex held.
ClockTrack* SoundFile::next_run(int64_t first_frame)
{
    // Only if two begin at nearly the same time.
    if (spare_.empty())
        spare_.emplace_back(0, rate_);
    runs_.splice(runs_.end(), spare_, spare_.begin());
    runs_.back().first_frame = first_frame;
    return &runs_.back().track;
}

void SoundFile::make_spare()
{
    std::unique_lock<std::mutex> lock(mutex_);
    bool needed = spare_.empty();
    lock.unlock();
    if (!needed)
        return;
    std::list<Run> made;
    made.emplace_back(0, rate_);
    lock.lock();
    spare_.splice(spare_.end(), made);
}

std::vector<HeardBlock> SoundFile::blocks() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<HeardBlock> blocks;
    for (auto run = runs_.begin(); run != runs_.end(); ++run) {
        auto next = std::next(run);
        int64_t end = next != runs_.end() ? next->first_frame : frames_.load();
        for (int64_t first = run->first_frame; first < end && !run->track.empty(); first += kBlockFrames)
            blocks.push_back(
                {first, std::min(kBlockFrames, end - first), run->track.time_of(static_cast<double>(first)), false});
    }
    return blocks;
}

double SoundFile::drift_ppm() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return runs_.back().track.drift_ppm();
}

bool SoundFile::finish(std::string* error)
{
    ending_ = true;
    if (thread_.joinable())
        thread_.join();
    if (problem_.empty() && missed_ > 0)
        problem_ = "the disk was too slow for " + path_;
    if (problem_.empty() && write_block_list(&problem_))
        return true;
    if (error != nullptr)
        *error = problem_;
    return false;
}

void SoundFile::write_loop()
{
    pthread_setname_np(pthread_self(), "sound_file");
    while (!ending_) {
        write_pending();
        make_spare();
        usleep(kLookAgainUs);
    }
    write_pending();
    if (file_ != nullptr && sf_close(file_) != 0 && problem_.empty())
        problem_ = "cannot complete " + path_;
    file_ = nullptr;
}

void SoundFile::write_pending()
{
    auto capacity = static_cast<int64_t>(ring_.size() / 2);
    while (written_ < frames_) {
        int64_t at = written_ % capacity;
        int64_t frames = std::min(frames_ - written_, capacity - at);
        if (file_ != nullptr && sf_writef_short(file_, &ring_[static_cast<size_t>(2 * at)], frames) != frames &&
            problem_.empty())
            problem_ = "cannot write " + path_ + ": " + sf_strerror(file_);
        written_ += frames;
    }
}

bool SoundFile::write_block_list(std::string* error) const
{
    const std::string path = path_ + ".blocks.csv";
    FILE* file = std::fopen(path.c_str(), "we");
    bool good = file != nullptr && std::fputs("first_frame,frames,heard_ns,silence\n", file) >= 0;
    for (const HeardBlock& block : blocks())
        good = good && std::fprintf(file, "%" PRId64 ",%" PRId64 ",%" PRId64 ",%d\n", block.first_frame, block.frames,
                                    block.heard_ns, block.silence ? 1 : 0) > 0;
    good = (file == nullptr || std::fclose(file) == 0) && good;
    if (!good)
        *error = "cannot write " + path;
    return good;
}

} // namespace play
