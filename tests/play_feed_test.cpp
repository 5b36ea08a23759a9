// SPDX-License-Identifier: MIT
// What the play program sends into a real device, and when. The device is made up here, and runs in real time.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <vector>

#include "common/clock.h"
#include "edges/alsa_feed.h"
#include "eventually.h"

using namespace play;
using common::now_ns;

namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;
constexpr int kRate = 48000;
constexpr int kPeriod = 480;

/// Its frames carry their number.
class Numbers : public Source
{
public:
    int audio_rate() const override { return kRate; }
    void audio(int64_t first, int16_t* stereo, int frames) const override
    {
        for (int64_t i = 0; i < frames; i++) {
            stereo[2 * i] = static_cast<int16_t>(first + i);
            stereo[2 * i + 1] = static_cast<int16_t>((first + i) >> 16);
        }
    }
    Rational fps() const override { return {60, 1}; }
    bool next_video(VideoFrame*) override { return false; }
    int64_t frame_ns(int64_t) const override { return 0; }
    std::vector<int64_t> marks() const override { return {}; }
    std::string description() const override { return "numbers"; }
};

int64_t number_in(const int16_t* frame)
{
    return static_cast<uint16_t>(frame[0]) | int64_t{static_cast<uint16_t>(frame[1])} << 16;
}

/// The playback device: what it was given first each time, and when it began to play that.
class Card
{
public:
    struct Run {
        int64_t first;
        int64_t began_ns;
    };

    void insert(int buffer_frames)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        buffer_frames_ = buffer_frames;
        runs_.clear();
        stood_full_ = 0;
        empty();
    }
    void suspend() { suspended_ = true; }
    std::vector<Run> runs()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return runs_;
    }
    int stood_full() const { return stood_full_; }

    // For the device below:

    int buffer_frames() const { return buffer_frames_; }
    int write(const int16_t* stereo, int frames)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (suspended_)
            return -ESTRPIPE;
        if (running_ && queued() < 0)
            return -EPIPE;
        if (written_ == 0)
            first_ = number_in(stereo);
        int taken = static_cast<int>(std::min<int64_t>(frames, buffer_frames_ - queued()));
        stood_full_ += taken == 0 && !running_ ? 1 : 0;
        written_ += taken;
        return taken;
    }
    void start()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        running_ = true;
        began_ns_ = now_ns();
        runs_.push_back({first_, began_ns_});
    }
    void prepare()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        empty();
    }
    bool ask_position(AlsaPcm::Position* position)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        *position = {queued(), now_ns()};
        return running_ && !suspended_;
    }

private:
    int64_t queued() const { return written_ - (running_ ? (now_ns() - began_ns_) * kRate / kSecond : 0); }
    void empty()
    {
        written_ = 0;
        running_ = false;
        suspended_ = false;
    }

    std::mutex mutex_;
    std::atomic<int> buffer_frames_{0};
    int64_t first_ = 0;
    int64_t written_ = 0;
    int64_t began_ns_ = 0;
    bool running_ = false;
    std::atomic<bool> suspended_{false};
    std::atomic<int> stood_full_{0}; ///< times that it had no room, and made none
    std::vector<Run> runs_;
};

Card card;

} // namespace

// --- The device that the feed opens -------------------------------------------------

namespace play
{

std::unique_ptr<AlsaPcm> AlsaPcm::open(const std::string&, Direction, int, std::string*)
{
    return std::unique_ptr<AlsaPcm>(new AlsaPcm(nullptr, kPeriod, card.buffer_frames()));
}

AlsaPcm::~AlsaPcm() = default;

int AlsaPcm::write(const int16_t* stereo, int frames)
{
    int taken = card.write(stereo, frames);
    if (taken == 0)
        usleep(1000);
    return taken;
}

bool AlsaPcm::start()
{
    card.start();
    return true;
}

bool AlsaPcm::prepare()
{
    card.prepare();
    return true;
}

bool AlsaPcm::ask_position(Position* position) { return card.ask_position(position); }

} // namespace play

// --- The feed -------------------------------------------------------------------------

class Feed : public testing::Test
{
protected:
    void start(int periods)
    {
        card.insert(periods * kPeriod);
        std::string error;
        ASSERT_TRUE(feed.start(&error)) << error;
    }

    Numbers source;
    AlsaFeed feed{"card", &source};
};

TEST_F(Feed, GoesOnAfterASuspendWithWhatIsDueThen)
{
    start(16);
    int64_t began_ns = card.runs().front().began_ns;
    ASSERT_TRUE(eventually([&] { return now_ns() - began_ns >= 700 * kMs; }));
    card.suspend();
    ASSERT_TRUE(eventually([&] { return card.runs().size() == 2; }));
    feed.stop();
    EXPECT_EQ(feed.breaks(), 1);
    Card::Run after = card.runs()[1];
    int64_t due = (after.began_ns - began_ns) * kRate / kSecond;
    // Less than its buffer holds.
    EXPECT_NEAR(static_cast<double>(after.first - due) * 1e3 / kRate, 0, 60) << "ms early";
}

TEST_F(Feed, GivesADeviceNoMoreThanItHoldsBeforeItStarts)
{
    start(2);
    feed.stop();
    EXPECT_EQ(card.stood_full(), 0);
}
