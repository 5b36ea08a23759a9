// SPDX-License-Identifier: MIT
#include <mutex>

#include "display/display.h"
#include "hdmi_sim.h"

namespace play
{
namespace
{

/// No vertical blanks to pace on: a picture is seen as soon as it is flipped, until the next one is.
class NoDisplay : public Display
{
public:
    NoDisplay(double refresh_hz, int latency_ms) : m_refresh_hz(refresh_hz), m_latency_ms(latency_ms) {}
    ~NoDisplay() override { stop(); }

    double refresh_hz() const override { return m_refresh_hz; }
    bool paced() const override { return false; }
    std::string description() const override { return "none"; }

    std::optional<hdmi_player_drm_info_t> start(Screen* screen, FlipGate*, std::string*) override
    {
        m_screen = screen;
        return hdmi_player_drm_info_t{0, static_cast<float>(m_refresh_hz)};
    }

    void present(FrameBuffer* buffer) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_screen->refresh(buffer->picture, hdmi_sim::now_ns() + m_latency_ms * int64_t{1'000'000});
        m_flips++;
        if (m_shown != nullptr)
            release(m_shown);
        m_shown = buffer;
    }

    void stop() override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_shown != nullptr)
            release(m_shown);
        m_shown = nullptr;
    }

    DisplayStats stats() const override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        DisplayStats stats;
        stats.flips = m_flips;
        return stats;
    }

private:
    const double m_refresh_hz;
    const int m_latency_ms;
    Screen* m_screen = nullptr;
    mutable std::mutex m_mutex;
    FrameBuffer* m_shown = nullptr;
    int64_t m_flips = 0;
};

} // namespace

std::unique_ptr<Display> open_no_display(const Options& options)
{
    return std::make_unique<NoDisplay>(options.display_hz(), options.display_latency_ms());
}

} // namespace play
