// SPDX-License-Identifier: MIT
#include <algorithm>
#include <atomic>
#include <random>

#include "edges/make_edges.h"
#include "hdmi_sim.h"

namespace play
{
namespace
{

/// The source is already sending when the player opens: sound from the first read on.
constexpr int64_t kSourceLeadNs = 20'000'000;
constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecondNs = 1000 * kMs;
constexpr int kLinkFrameBytes = 4;

/// The link frame from @p frame on that lies @p phase bytes before the beginning of a burst.
int64_t opening_at(Coding coding, int64_t frame, int phase)
{
    int64_t period = burst_link_frames(coding);
    int64_t wanted = period - phase / kLinkFrameBytes % period;
    return frame + ((wanted - frame) % period + period) % period;
}

/// The simulated receiver.
class SimulatedLink : public SourceLink
{
public:
    SimulatedLink(const Options& options, const Source* source) : source_(source), chunk_phase_(options.chunk_phase)
    {
        signal_.rate = source->link_rate();
        signal_.clock_error_ppm = options.receiver_ppm;
        signal_.start_ns = static_cast<int64_t>(options.phase_ms * kMs);
        if (chunk_phase_ == kPhaseRandom)
            chunk_phase_ =
                static_cast<int>(std::random_device()() % burst_link_frames(source->coding())) * kLinkFrameBytes;
    }

    bool connect(std::string* error) override
    {
        bool compressed = source_->coding() != Coding::pcm;
        connected_ns_ = hdmi_sim::now_ns();
        if (!hdmi_sim::write_state_file(announcement())) {
            *error = "cannot announce the source";
            return false;
        }
        signal_.start_ns += hdmi_sim::now_ns() + kSourceLeadNs;
        signal_.generate = [source = source_](int64_t first, int16_t* words, int frames) {
            source->link(first, words, frames);
        };
        if (compressed && chunk_phase_ != kPhaseAnywhere)
            signal_.open_at = [this](int64_t frame) {
                // Only the first opening waits for that place; a later one begins with the frame that passes.
                bool first = !opened_.exchange(true);
                return first ? opening_at(source_->coding(), frame, chunk_phase_) : frame;
            };
        hdmi_sim::receiver_connect(signal_);
        return true;
    }

    void disconnect() override { hdmi_sim::receiver_disconnect(); }
    SourceClock clock() const override { return {signal_.start_ns, signal_.clock_error_ppm, nullptr}; }
    RawCheck check_raw() const override;

    LinkAccount account() const override
    {
        hdmi_sim::ReceiverStats receiver = hdmi_sim::receiver_stats();
        LinkAccount account;
        account.chunk_phase = chunk_phase_;
        account.captured_end = receiver.end_read_frame;
        account.overruns = receiver.overruns;
        account.announced = {{connected_ns_, announcement()}};
        account.drift_ppm = signal_.clock_error_ppm;
        return account;
    }

private:
    std::string announcement() const
    {
        return hdmi_sim::announce_text(source_->coding() != Coding::pcm, source_->audio_rate());
    }

    const Source* source_;
    int chunk_phase_;
    int64_t connected_ns_ = 0;
    hdmi_sim::Signal signal_;
    std::atomic<bool> opened_{false}; ///< the capture device
};

RawCheck SimulatedLink::check_raw() const
{
    RawCheck check;
    check.compared = true;
    int64_t next = -1;
    int64_t burst_frames = burst_link_frames(source_->coding());
    for (const hdmi_sim::BypassRun& run : hdmi_sim::bypass_recording()) {
        auto frames = static_cast<int64_t>(run.words.size() / 2);
        if (check.began_ns == 0)
            check.began_ns = run.first_ns;
        check.ended_ns = run.first_ns + frames * kSecondNs / run.rate;
        check.gaps += next >= 0 && run.first_frame != next ? 1 : 0;
        next = run.first_frame + frames;
        int64_t first_burst = (run.first_frame + burst_frames - 1) / burst_frames;
        check.bursts += std::max<int64_t>(0, next / burst_frames - first_burst);
        check.frames += frames;
        std::vector<int16_t> sent(run.words.size());
        source_->link(run.first_frame, sent.data(), static_cast<int>(frames));
        for (size_t i = 0; i < sent.size(); i += 2)
            check.different += sent[i] != run.words[i] || sent[i + 1] != run.words[i + 1] ? 1 : 0;
    }
    return check;
}

} // namespace

std::unique_ptr<SourceLink> make_simulated_link(const Options& options, const Source* source)
{
    return std::make_unique<SimulatedLink>(options, source);
}

} // namespace play
