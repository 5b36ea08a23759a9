// SPDX-License-Identifier: MIT
#include <mutex>

#include "common/clock.h"
#include "screen/open_display.h"

namespace play
{
namespace
{

/// No vertical blanks to pace on: a picture is seen as soon as it is flipped, until the next one is.
class NoDisplay final : public display::Display
{
public:
    NoDisplay(double refresh_hz, int latency_ms) : refresh_hz_(refresh_hz), latency_ms_(latency_ms) {}
    ~NoDisplay() override { stop(); }

    double refresh_hz() const override { return refresh_hz_; }
    bool paced() const override { return false; }
    std::string description() const override { return "none"; }

    std::optional<hdmi_player_drm_info_t> start(display::Observer* observer, display::FlipGate*, std::string*) override
    {
        observer_ = observer;
        return hdmi_player_drm_info_t{0, static_cast<float>(refresh_hz_)};
    }

    void present(display::FrameBuffer* buffer) override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        observer_->shown(*buffer, common::now_ns() + latency_ms_ * int64_t{1'000'000});
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

    display::DisplayStats stats() const override
    {
        std::lock_guard<std::mutex> lock(mutex_);
        display::DisplayStats stats;
        stats.flips = flips_;
        return stats;
    }

private:
    const double refresh_hz_;
    const int latency_ms_;
    display::Observer* observer_ = nullptr;
    mutable std::mutex mutex_;
    display::FrameBuffer* shown_ = nullptr;
    int64_t flips_ = 0;
};

} // namespace

std::unique_ptr<display::Display> open_no_display(const Options& options)
{
    return std::make_unique<NoDisplay>(options.display_hz(), options.display_latency_ms());
}

} // namespace play
