// SPDX-License-Identifier: MIT
#include "hdmi_sim.h"
#include "screen/open_display.h"

namespace play
{
namespace
{

/// The simulated platform's display: vertical blanks of any rate, and a screen that is always looked at.
class SimulatedDisplay final : public display::Display
{
public:
    SimulatedDisplay(double refresh_hz, int latency_ms) : refresh_hz_(refresh_hz), latency_ms_(latency_ms) {}
    ~SimulatedDisplay() override { stop(); }

    double refresh_hz() const override { return refresh_hz_; }
    bool paced() const override { return true; }
    std::string description() const override { return "sim"; }

    std::optional<hdmi_player_drm_info_t> start(display::Observer* observer, display::FlipGate* gate,
                                                std::string* error) override
    {
        hdmi_sim::DisplayConfig config;
        config.refresh_hz = refresh_hz_;
        config.latency_ns = latency_ms_ * int64_t{1'000'000};
        auto scan_out = [observer, gate](const hdmi_sim::ScanOut& out) {
            gate->vblank(out.vblank_ns);
            if (out.buffer != nullptr)
                observer->shown(*static_cast<const display::FrameBuffer*>(out.buffer), out.seen_ns);
        };
        auto done = [](void* buffer, bool) { release(static_cast<display::FrameBuffer*>(buffer)); };
        int fd = hdmi_sim::display_start(config, scan_out, done);
        if (fd < 0) {
            *error = "the simulated display does not start";
            return std::nullopt;
        }
        running_ = true;
        return hdmi_player_drm_info_t{fd, static_cast<float>(refresh_hz_)};
    }

    void present(display::FrameBuffer* buffer) override
    {
        if (!hdmi_sim::display_flip(buffer))
            release(buffer);
    }

    void stop() override
    {
        if (running_)
            hdmi_sim::display_stop();
        running_ = false;
    }

    display::DisplayStats stats() const override
    {
        hdmi_sim::DisplayStats simulated = hdmi_sim::display_stats();
        display::DisplayStats stats;
        stats.vblanks = simulated.vblanks;
        stats.flips = simulated.flips;
        stats.superseded = simulated.superseded;
        stats.repeated = simulated.repeated;
        return stats;
    }

private:
    const double refresh_hz_;
    const int latency_ms_;
    bool running_ = false;
};

} // namespace

std::unique_ptr<display::Display> open_simulated_display(const Options& options)
{
    return std::make_unique<SimulatedDisplay>(options.display_hz(), options.display_latency_ms());
}

} // namespace play
