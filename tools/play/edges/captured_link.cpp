// SPDX-License-Identifier: MIT
#include "edges/alsa_feed.h"
#include "edges/make_edges.h"
#include "edges/platform_router.h"
#include "hdmi_sim.h"

namespace play
{
namespace
{

/// A real capture device. The programme is sent into the device at its other end, or a foreign source plays.
class CapturedLink final : public SourceLink
{
public:
    CapturedLink(const Options& options, const Source* source) : zero_ns_(source->zero_ns())
    {
        if (!options.feed.empty())
            feed_ = std::make_unique<AlsaFeed>(options.feed, source);
    }
    ~CapturedLink() override { disconnect(); }

    bool connect(std::string* error) override
    {
        if (feed_ && !feed_->start(error))
            return false;
        start_ns_ = zero_ns_.value_or(hdmi_sim::now_ns());
        return start_receiver(error);
    }

    void disconnect() override
    {
        stop_receiver();
        if (feed_)
            feed_->stop();
    }

    SourceClock clock() const override { return {start_ns_, 0, feed_ ? feed_->track() : nullptr}; }
    RawCheck check_raw() const override { return {}; }

    LinkAccount account() const override
    {
        LinkAccount account;
        account.overruns = real_capture_stats().xruns;
        account.breaks = feed_ ? feed_->breaks() : 0;
        account.drift_ppm = feed_ ? feed_->track()->drift_ppm() : 0;
        for (const hdmi_linux_receiver_event_t& event : receiver_events())
            if (event.announced)
                account.announced.push_back({event.time_ns, event.text});
            else
                account.rate_messages.emplace_back(event.text);
        return account;
    }

private:
    std::unique_ptr<AlsaFeed> feed_; ///< null: the source is not ours
    const std::optional<int64_t> zero_ns_;
    int64_t start_ns_ = 0;
};

} // namespace

std::unique_ptr<SourceLink> make_captured_link(const Options& options, const Source* source)
{
    return std::make_unique<CapturedLink>(options, source);
}

} // namespace play
