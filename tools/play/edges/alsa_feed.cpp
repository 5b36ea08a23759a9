// SPDX-License-Identifier: MIT
#include "edges/alsa_feed.h"

#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>

namespace play
{
namespace
{

/// Queued before the device starts: what the thread may come late by.
constexpr int periods_ahead = 8;
/// From the decision to go on until the first frame passes.
constexpr int64_t restart_ns = 2'000'000;
constexpr useconds_t retry_us = 50'000;
constexpr int64_t longest_start_ns = 2'000'000'000;

int64_t now_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1'000'000'000} + now.tv_nsec;
}

} // namespace

AlsaFeed::AlsaFeed(std::string device, const Source* source)
    : m_device(std::move(device)), m_source(source), m_track(std::make_shared<ClockTrack>(source->link_rate()))
{
}

bool AlsaFeed::start(std::string* error)
{
    m_pcm = AlsaPcm::open(m_device, AlsaPcm::Direction::playback, m_source->link_rate(), error);
    if (!m_pcm)
        return false;
    m_thread = std::thread(&AlsaFeed::send, this);
    int64_t deadline = now_ns() + longest_start_ns;
    while (m_track->empty() && now_ns() < deadline)
        usleep(1000);
    if (!m_track->empty())
        return true;
    *error = "alsa:" + m_device + " does not take sound";
    stop();
    return false;
}

void AlsaFeed::stop()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
    m_pcm = nullptr;
}

void AlsaFeed::send()
{
    pthread_setname_np(pthread_self(), "alsa_feed");
    while (!m_stop) {
        if (m_pcm && begin()) {
            while (!m_stop && put_period() >= 0)
                learn();
            m_breaks += m_stop ? 0 : 1;
        } else if (!m_stop) {
            usleep(retry_us);
        }
        if (m_stop)
            break;
        recover();
        m_next = due();
    }
}

/// The frame whose time it is when the device goes on. Those that it had queued and did not play are due again: after
/// a short break, going on behind them would send all that follows too early.
int64_t AlsaFeed::due() const
{
    if (m_track->empty())
        return 0;
    return std::max<int64_t>(0, std::llround(m_track->position_at(now_ns() + restart_ns)));
}

bool AlsaFeed::begin()
{
    // Never more than there is room for: a device that does not run yet makes none, and the time would pass meanwhile.
    int64_t ahead = std::min(periods_ahead * m_pcm->period_frames(), m_pcm->buffer_frames());
    for (int64_t end = m_next + ahead; m_next + m_pcm->period_frames() <= end;) {
        int put = put_period();
        if (put < 0)
            return false;
        if (put == 0)
            break;
    }
    return m_pcm->start();
}

/// @return frames sent, 0 if there was no room for a while, or a negative error number
int AlsaFeed::put_period()
{
    int frames = m_pcm->period_frames();
    m_words.resize(static_cast<size_t>(2 * frames));
    m_source->link(m_next, m_words.data(), frames);
    int put = m_pcm->write(m_words.data(), frames);
    m_next += std::max(put, 0);
    return put;
}

void AlsaFeed::learn()
{
    AlsaPcm::Word word = {};
    if (m_pcm->ask(&word))
        m_track->add(m_next - word.frames, word.at_ns);
}

void AlsaFeed::recover()
{
    if (m_pcm && m_pcm->prepare())
        return;
    // Closed first: a device that is gone does not come back while somebody holds it.
    m_pcm = nullptr;
    std::string ignored;
    m_pcm = AlsaPcm::open(m_device, AlsaPcm::Direction::playback, m_source->link_rate(), &ignored);
    if (!m_pcm)
        usleep(retry_us);
}

} // namespace play
