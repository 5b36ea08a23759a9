// SPDX-License-Identifier: MIT
#include "edges/alsa_feed.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>

#include "common/clock.h"

namespace play
{
namespace
{

using common::now_ns;

/// Queued before the device starts: the thread may be late by that much.
constexpr int kPeriodsAhead = 8;
/// From the decision to go on until the first frame passes.
constexpr int64_t kRestartNs = 2'000'000;
constexpr useconds_t kRetryUs = 50'000;
constexpr int64_t kLongestStartNs = 2'000'000'000;

} // namespace

AlsaFeed::AlsaFeed(std::string device, const Source* source)
    : device_(std::move(device)), source_(source), track_(std::make_shared<ClockTrack>(source->link_rate()))
{
}

bool AlsaFeed::start(std::string* error)
{
    pcm_ = AlsaPcm::open(device_, AlsaPcm::Direction::playback, source_->link_rate(), error);
    if (!pcm_)
        return false;
    thread_ = std::thread(&AlsaFeed::send, this);
    int64_t deadline = now_ns() + kLongestStartNs;
    while (track_->empty() && now_ns() < deadline)
        usleep(1000);
    if (!track_->empty())
        return true;
    *error = "alsa:" + device_ + " does not take sound";
    stop();
    return false;
}

void AlsaFeed::stop()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    pcm_ = nullptr;
}

void AlsaFeed::send()
{
    pthread_setname_np(pthread_self(), "alsa_feed");
    while (!stop_) {
        if (pcm_ && begin()) {
            while (!stop_ && put_period() >= 0)
                learn();
            breaks_ += stop_ ? 0 : 1;
        } else if (!stop_) {
            usleep(kRetryUs);
        }
        if (stop_)
            break;
        recover();
        next_ = due();
    }
}

/// The frame that is due when the device restarts. After a short break this is one that was queued and not played: to
/// skip it would send all later frames too early.
int64_t AlsaFeed::due() const
{
    if (track_->empty())
        return 0;
    return std::max<int64_t>(0, std::llround(track_->position_at(now_ns() + kRestartNs)));
}

bool AlsaFeed::begin()
{
    // At most a full buffer: a device that does not run yet makes no more room, and the write would only lose time.
    int64_t ahead = std::min(kPeriodsAhead * pcm_->period_frames(), pcm_->buffer_frames());
    for (int64_t end = next_ + ahead; next_ + pcm_->period_frames() <= end;) {
        int put = put_period();
        if (put < 0)
            return false;
        if (put == 0)
            break;
    }
    return pcm_->start();
}

/// @return frames sent, 0 if there was no room for a while, or a negative error number
int AlsaFeed::put_period()
{
    int frames = pcm_->period_frames();
    words_.resize(2 * static_cast<size_t>(frames));
    source_->link(next_, words_.data(), frames);
    int put = pcm_->write(words_.data(), frames);
    next_ += std::max(put, 0);
    return put;
}

void AlsaFeed::learn()
{
    AlsaPcm::Position position = {};
    if (pcm_->ask_position(&position))
        track_->add(next_ - position.frames, position.at_ns);
}

void AlsaFeed::recover()
{
    if (pcm_ && pcm_->prepare())
        return;
    // Closed first: a lost device does not come back while it is held open.
    pcm_ = nullptr;
    std::string ignored;
    pcm_ = AlsaPcm::open(device_, AlsaPcm::Direction::playback, source_->link_rate(), &ignored);
    if (!pcm_)
        usleep(kRetryUs);
}

} // namespace play
