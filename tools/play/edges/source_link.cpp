// SPDX-License-Identifier: MIT
#include "edges/source_link.h"

#include <algorithm>
#include <atomic>
#include <random>

#include "edges/alsa_feed.h"
#include "edges/announcer.h"
#include "hdmi_sim.h"
#include "edges/platform_router.h"

namespace play
{
namespace
{

/// The source is already sending when the player opens: sound from the first read on.
constexpr int64_t source_lead_ns = 20'000'000;
constexpr int64_t ms = 1'000'000;
constexpr int64_t second_ns = 1000 * ms;
constexpr int link_frame_bytes = 4;

/// The link frame from @p frame on that lies @p phase bytes before the beginning of a burst.
int64_t opening_at(Coding coding, int64_t frame, int phase)
{
    int64_t period = burst_link_frames(coding);
    int64_t wanted = period - phase / link_frame_bytes % period;
    return frame + ((wanted - frame) % period + period) % period;
}

/// The simulated receiver.
class SimulatedLink : public SourceLink
{
public:
    SimulatedLink(const Options& options, const Source* source) : m_source(source), m_chunk_phase(options.chunk_phase)
    {
        m_signal.rate = source->link_rate();
        m_signal.clock_error_ppm = options.receiver_ppm;
        m_signal.start_ns = static_cast<int64_t>(options.phase_ms * ms);
        if (m_chunk_phase == phase_random)
            m_chunk_phase =
                static_cast<int>(std::random_device()() % burst_link_frames(source->coding())) * link_frame_bytes;
    }

    bool connect(std::string* error) override
    {
        bool compressed = m_source->coding() != Coding::pcm;
        m_connected_ns = hdmi_sim::now_ns();
        if (!hdmi_sim::write_state_file(announcement())) {
            *error = "cannot announce the source";
            return false;
        }
        m_signal.start_ns += hdmi_sim::now_ns() + source_lead_ns;
        m_signal.generate = [source = m_source](int64_t first, int16_t* words, int frames) {
            source->link(first, words, frames);
        };
        if (compressed && m_chunk_phase != phase_anywhere)
            m_signal.open_at = [this](int64_t frame) {
                // A device that is opened again goes on with what passes: none waits for a burst.
                bool first = !m_opened.exchange(true);
                return first ? opening_at(m_source->coding(), frame, m_chunk_phase) : frame;
            };
        hdmi_sim::receiver_connect(m_signal);
        return true;
    }

    void disconnect() override { hdmi_sim::receiver_disconnect(); }
    SourceClock clock() const override { return {m_signal.start_ns, m_signal.clock_error_ppm, nullptr}; }
    RawCheck check_raw() const override;

    LinkAccount account() const override
    {
        hdmi_sim::ReceiverStats receiver = hdmi_sim::receiver_stats();
        LinkAccount account;
        account.chunk_phase = m_chunk_phase;
        account.captured_end = receiver.end_read_frame;
        account.overruns = receiver.overruns;
        account.announced = {{m_connected_ns, announcement()}};
        account.drift_ppm = m_signal.clock_error_ppm;
        return account;
    }

private:
    std::string announcement() const
    {
        return hdmi_sim::announce_text(m_source->coding() != Coding::pcm, m_source->audio_rate());
    }

    const Source* m_source;
    int m_chunk_phase;
    int64_t m_connected_ns = 0;
    hdmi_sim::Signal m_signal;
    std::atomic<bool> m_opened{false}; ///< the capture device
};

RawCheck SimulatedLink::check_raw() const
{
    RawCheck check;
    check.compared = true;
    int64_t next = -1;
    int64_t burst_frames = burst_link_frames(m_source->coding());
    for (const hdmi_sim::BypassRun& run : hdmi_sim::bypass_recording()) {
        auto frames = static_cast<int64_t>(run.words.size() / 2);
        if (check.began_ns == 0)
            check.began_ns = run.first_ns;
        check.ended_ns = run.first_ns + frames * second_ns / run.rate;
        check.gaps += next >= 0 && run.first_frame != next ? 1 : 0;
        next = run.first_frame + frames;
        int64_t first_burst = (run.first_frame + burst_frames - 1) / burst_frames;
        check.bursts += std::max<int64_t>(0, next / burst_frames - first_burst);
        check.frames += frames;
        std::vector<int16_t> sent(run.words.size());
        m_source->link(run.first_frame, sent.data(), static_cast<int>(frames));
        for (size_t i = 0; i < sent.size(); i += 2)
            check.different += sent[i] != run.words[i] || sent[i + 1] != run.words[i + 1] ? 1 : 0;
    }
    return check;
}

/// A real capture device: the programme is sent into what it captures from, or a source that is not ours plays.
class CapturedLink : public SourceLink
{
public:
    CapturedLink(const Options& options, const Source* source) : m_announcer(options.capture)
    {
        if (!options.feed.empty())
            m_feed = std::make_unique<AlsaFeed>(options.feed, source);
    }
    ~CapturedLink() override { disconnect(); }

    bool connect(std::string* error) override
    {
        if (m_feed && !m_feed->start(error))
            return false;
        m_start_ns = hdmi_sim::now_ns();
        return m_announcer.start(error);
    }

    void disconnect() override
    {
        m_announcer.stop();
        if (m_feed)
            m_feed->stop();
    }

    SourceClock clock() const override { return {m_start_ns, 0, m_feed ? m_feed->track() : nullptr}; }
    RawCheck check_raw() const override { return {}; }

    LinkAccount account() const override
    {
        LinkAccount account;
        account.overruns = real_capture_stats().xruns;
        account.breaks = m_feed ? m_feed->breaks() : 0;
        account.drift_ppm = m_feed ? m_feed->track()->drift_ppm() : 0;
        account.announced = m_announcer.announced();
        account.rate_messages = m_announcer.rate_messages();
        return account;
    }

private:
    std::unique_ptr<AlsaFeed> m_feed; ///< null: the source is not ours
    Announcer m_announcer;
    int64_t m_start_ns = 0;
};

} // namespace

std::unique_ptr<SourceLink> make_source_link(const Options& options, const Source* source)
{
    if (options.capture.empty())
        return std::make_unique<SimulatedLink>(options, source);
    return std::make_unique<CapturedLink>(options, source);
}

} // namespace play
