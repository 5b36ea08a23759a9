// SPDX-License-Identifier: MIT
// What the play program sends into a real device, and when. The device is made up here, and runs in real time.
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <vector>

#include "edges/alsa_feed.h"
#include "eventually.h"

using namespace play;

namespace
{

constexpr int64_t ms = 1'000'000;
constexpr int64_t second = 1000 * ms;
constexpr int rate = 48000;
constexpr int period = 480;

int64_t now_ns()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * second + now.tv_nsec;
}

/// Its frames carry their number.
class Numbers : public Source
{
public:
    int audio_rate() const override { return rate; }
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
    int64_t starved() const override { return 0; }
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
        std::lock_guard<std::mutex> lock(m_mutex);
        m_buffer_frames = buffer_frames;
        m_runs.clear();
        m_stood_full = 0;
        empty();
    }
    void suspend()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_suspended = true;
    }
    std::vector<Run> runs()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_runs;
    }
    int stood_full()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_stood_full;
    }

    // For the device below:

    int buffer_frames()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_buffer_frames;
    }
    int write(const int16_t* stereo, int frames)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_suspended)
            return -ESTRPIPE;
        if (m_running && queued() < 0)
            return -EPIPE;
        if (m_written == 0)
            m_first = number_in(stereo);
        int taken = static_cast<int>(std::min<int64_t>(frames, m_buffer_frames - queued()));
        m_stood_full += taken == 0 && !m_running ? 1 : 0;
        m_written += taken;
        return taken;
    }
    void start()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_running = true;
        m_began_ns = now_ns();
        m_runs.push_back({m_first, m_began_ns});
    }
    void prepare()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        empty();
    }
    bool ask(AlsaPcm::Word* word)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        *word = {queued(), now_ns()};
        return m_running && !m_suspended;
    }

private:
    int64_t queued() const { return m_written - (m_running ? (now_ns() - m_began_ns) * rate / second : 0); }
    void empty()
    {
        m_written = 0;
        m_running = m_suspended = false;
    }

    std::mutex m_mutex;
    int m_buffer_frames = 0;
    int64_t m_first = 0;
    int64_t m_written = 0;
    int64_t m_began_ns = 0;
    bool m_running = false;
    bool m_suspended = false;
    int m_stood_full = 0; ///< times that it had no room, and made none
    std::vector<Run> m_runs;
};

Card card;

} // namespace

// --- The device that the feed opens -------------------------------------------------

namespace play
{

std::unique_ptr<AlsaPcm> AlsaPcm::open(const std::string&, Direction, int, std::string*)
{
    return std::unique_ptr<AlsaPcm>(new AlsaPcm(nullptr, period, card.buffer_frames()));
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

bool AlsaPcm::ask(Word* word) { return card.ask(word); }

} // namespace play

// --- The feed -------------------------------------------------------------------------

TEST(AlsaFeed, GoesOnAfterASuspendWithWhatIsDueThen)
{
    card.insert(16 * period);
    Numbers source;
    AlsaFeed feed("card", &source);
    std::string error;
    ASSERT_TRUE(feed.start(&error)) << error;
    int64_t began_ns = card.runs().front().began_ns;
    ASSERT_TRUE(eventually([&] { return now_ns() - began_ns >= 700 * ms; }));
    card.suspend();
    ASSERT_TRUE(eventually([&] { return card.runs().size() == 2; }));
    feed.stop();
    EXPECT_EQ(feed.breaks(), 1);
    Card::Run after = card.runs()[1];
    int64_t due = (after.began_ns - began_ns) * rate / second;
    // Less than its buffer holds.
    EXPECT_NEAR(static_cast<double>(after.first - due) * 1e3 / rate, 0, 60) << "ms early";
}

TEST(AlsaFeed, GivesADeviceNoMoreThanItHoldsBeforeItStarts)
{
    card.insert(2 * period);
    Numbers source;
    AlsaFeed feed("card", &source);
    std::string error;
    ASSERT_TRUE(feed.start(&error)) << error;
    feed.stop();
    EXPECT_EQ(card.stood_full(), 0);
}
