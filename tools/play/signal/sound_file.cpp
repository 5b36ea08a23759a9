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

constexpr int64_t ring_seconds = 8;
constexpr useconds_t look_again_us = 50'000;
/// Far beyond what a device's word jitters by, and below what a disturbance costs.
constexpr int64_t other_run_ns = 20'000'000;
/// A device that mixes in software errs at times; not so often in a row.
constexpr size_t strays_of_a_run = 4;
/// Short against the half second between the points by which a run's time is known: no block leaps.
constexpr int64_t block_frames = 960;

} // namespace

SoundFile::SoundFile(std::string path, int rate)
    : m_path(std::move(path)), m_rate(rate), m_ring(static_cast<size_t>(2 * rate * ring_seconds))
{
    SF_INFO info = {};
    info.samplerate = rate;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    m_file = sf_open(m_path.c_str(), SFM_WRITE, &info);
    if (m_file == nullptr)
        m_problem = "cannot create " + m_path + ": " + sf_strerror(nullptr);
    m_runs.emplace_back(0, rate);
    make_spare();
    m_strays.reserve(strays_of_a_run);
    m_thread = std::thread(&SoundFile::write_loop, this);
}

SoundFile::~SoundFile() { finish(nullptr); }

void SoundFile::append(const int16_t* stereo, int frames)
{
    auto capacity = static_cast<int64_t>(m_ring.size() / 2);
    int64_t room = capacity - (m_frames - m_written);
    if (frames > room) {
        m_missed += frames;
        return;
    }
    auto at = static_cast<size_t>(2 * (m_frames % capacity));
    size_t first = std::min(static_cast<size_t>(2 * frames), m_ring.size() - at);
    std::copy_n(stereo, first, m_ring.begin() + static_cast<std::ptrdiff_t>(at));
    std::copy_n(stereo + first, static_cast<size_t>(2 * frames) - first, m_ring.begin());
    m_frames += frames;
}

void SoundFile::heard(int64_t position, int64_t at_ns)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    ClockTrack* track = &m_runs.back().track;
    bool strays = !track->empty() && std::abs(at_ns - track->time_of(static_cast<double>(position))) >= other_run_ns;
    if (!strays) {
        m_strays.clear();
        track->add(position, at_ns);
        return;
    }
    m_strays.push_back({m_frames, position, at_ns});
    if (m_strays.size() < strays_of_a_run)
        return;
    track = next_run(m_strays.front().frames);
    for (const Word& word : m_strays)
        track->add(word.position, word.at_ns);
    m_strays.clear();
}

void SoundFile::begin_run()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_strays.clear();
    if (!m_runs.back().track.empty())
        next_run(m_frames);
}

/// With the mutex held.
ClockTrack* SoundFile::next_run(int64_t first_frame)
{
    // Only if two begin at nearly the same time.
    if (m_spare.empty())
        m_spare.emplace_back(0, m_rate);
    m_runs.splice(m_runs.end(), m_spare, m_spare.begin());
    m_runs.back().first_frame = first_frame;
    return &m_runs.back().track;
}

void SoundFile::make_spare()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    bool needed = m_spare.empty();
    lock.unlock();
    if (!needed)
        return;
    std::list<Run> made;
    made.emplace_back(0, m_rate);
    lock.lock();
    m_spare.splice(m_spare.end(), made);
}

std::vector<HeardBlock> SoundFile::blocks() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<HeardBlock> blocks;
    for (auto run = m_runs.begin(); run != m_runs.end(); ++run) {
        auto next = std::next(run);
        int64_t end = next != m_runs.end() ? next->first_frame : m_frames.load();
        for (int64_t first = run->first_frame; first < end && !run->track.empty(); first += block_frames)
            blocks.push_back(
                {first, std::min(block_frames, end - first), run->track.time_of(static_cast<double>(first)), false});
    }
    return blocks;
}

double SoundFile::drift_ppm() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_runs.back().track.drift_ppm();
}

bool SoundFile::finish(std::string* error)
{
    m_ending = true;
    if (m_thread.joinable())
        m_thread.join();
    if (m_problem.empty() && m_missed > 0)
        m_problem = "the disk was too slow for " + m_path;
    if (m_problem.empty() && write_block_list(&m_problem))
        return true;
    if (error != nullptr)
        *error = m_problem;
    return false;
}

void SoundFile::write_loop()
{
    pthread_setname_np(pthread_self(), "sound_file");
    while (!m_ending) {
        write_pending();
        make_spare();
        usleep(look_again_us);
    }
    write_pending();
    if (m_file != nullptr && sf_close(m_file) != 0 && m_problem.empty())
        m_problem = "cannot complete " + m_path;
    m_file = nullptr;
}

void SoundFile::write_pending()
{
    auto capacity = static_cast<int64_t>(m_ring.size() / 2);
    while (m_written < m_frames) {
        int64_t at = m_written % capacity;
        int64_t frames = std::min(m_frames - m_written, capacity - at);
        if (m_file != nullptr && sf_writef_short(m_file, &m_ring[static_cast<size_t>(2 * at)], frames) != frames &&
            m_problem.empty())
            m_problem = "cannot write " + m_path + ": " + sf_strerror(m_file);
        m_written += frames;
    }
}

bool SoundFile::write_block_list(std::string* error) const
{
    const std::string path = m_path + ".blocks.csv";
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
