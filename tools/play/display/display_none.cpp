// SPDX-License-Identifier: MIT
#include <mutex>

#include "display/display.h"
#include "hdmi_sim.h"

namespace play
{
namespace
{

/// No vertical blanks to pace on: a picture is seen as soon as it is flipped, until the next one is.
class NoDisplay final : public Display
{
public:
    NoDisplay(double refresh_hz, int latency_ms) : refresh_hz_(refresh_hz), latency_ms_(latency_ms) {}
    ~NoDisplay() override { stop(); }

    double refresh_hz() const override { return refresh_hz_; }
    bool paced() const override { return false; }
    std::string description() const override { return "none"; }

    std::optional<hdmi_player_drm_info_t> start(Screen* screen, FlipGate*, std::string*) override
    {
        screen_ = screen;
        return hdmi_player_drm_info_t{0, static_cast<float>(refresh_hz_)};
    }

    void present(FrameBuffer* buffer) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        screen_->refresh(buffer->picture, hdmi_sim::now_ns() + latency_ms_ * int64_t{1'000'000});
        flips_++;
        if (shown_ != nullptr)
            release(shown_);
        shown_ = buffer;
    }

    void stop() override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (shown_ != nullptr)
            release(shown_);
        shown_ = nullptr;
    }

    DisplayStats stats() const override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        DisplayStats stats;
        stats.flips = flips_;
        return stats;
    }

private:
    const double refresh_hz_;
    const int latency_ms_;
    Screen* screen_ = nullptr;
    mutable std::mutex mutex_;
    FrameBuffer* shown_ = nullptr;
    int64_t flips_ = 0;
};

} // namespace

std::unique_ptr<Display> open_no_display(const Options& options)
{
    return std::make_unique<NoDisplay>(options.display_hz(), options.display_latency_ms());
}

} // namespace play
