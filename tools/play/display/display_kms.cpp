// SPDX-License-Identifier: MIT
#include <drm.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <xf86drm.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

#include "display/display.h"
#include "display/flip_queue.h"
#include "hdmi_sim.h"
#include "display/kms_card.h"
#include "display/kms_mode.h"

namespace play
{
namespace
{

constexpr int64_t ms = 1'000'000;
/// How often the kernel is asked for the connector's state: a pulled cable is noticed within that time.
constexpr int64_t connector_check_ns = 100 * ms;
/// How often a display that is lost is tried again; asking it takes some time.
constexpr int64_t revive_ns = 250 * ms;
/// A flip that takes longer never ends: many times the refresh of any mode, and a change of mode besides.
constexpr int64_t flip_limit_ns = 1000 * ms;
/// A card that is still busy with the flip before, though it told of it, is so for a moment.
constexpr int64_t busy_retry_ns = 1 * ms;
/// At the end: for the flips that are pending.
constexpr int64_t finish_limit_ns = 200 * ms;

/// What an errno of a flip means to the one who looks at the screen.
std::string reason_of(int error)
{
    switch (error) {
    case EACCES:
    case EPERM: return "another program shows on it";
    case ENOTCONN: return "no display at the connector";
    case ENOTSUP: return "the display does not take the mode any more";
    case ETIME: return "a flip did not end";
    default: return std::strerror(error);
    }
}

/// A connector of a DRM card. Pictures are painted where the card reads them, so that a flip moves nothing.
class KmsDisplay : public Display
{
public:
    KmsDisplay(std::shared_ptr<KmsCard> card, int latency_ms)
        : m_card(std::move(card)), m_latency_ns(latency_ms * ms), m_refresh_hz(play::refresh_hz(m_card->mode())),
          m_description(m_card->description())
    {
    }
    ~KmsDisplay() override { stop(); }

    double refresh_hz() const override { return m_refresh_hz; }
    bool paced() const override { return m_has_vblank; }
    std::string description() const override { return m_description + (m_has_vblank ? "" : ", no vertical blanks"); }
    Size image_size() const override { return {m_card->mode().hdisplay, m_card->mode().vdisplay}; }

    std::optional<hdmi_player_drm_info_t> start(Screen* screen, FlipGate* gate, std::string* error) override;
    void paint(FrameBuffer* buffer, const Image* image) override;
    void present(FrameBuffer* buffer) override;
    void stop() override;
    DisplayStats stats() const override;

private:
    struct FlipEvent {
        uint64_t id;
        uint32_t sequence;
        int64_t vblank_ns;
    };

    void run();
    int64_t next_look_ns();
    void read_events();
    void on_flip(const FlipEvent& event);
    int64_t refreshes_until(uint32_t sequence, int64_t vblank_ns);
    void watch_over(int64_t now_ns);
    bool finished(int64_t now_ns);
    void submit();
    void lose(int error);
    void tell_loss();
    void revive();
    void wake() const;

    const std::shared_ptr<KmsCard> m_card;
    const int64_t m_latency_ns;
    const double m_refresh_hz;
    const std::string m_description;
    Screen* m_screen = nullptr;
    FlipGate* m_gate = nullptr;
    std::shared_ptr<KmsBuffer> m_blank; ///< shown until the first picture comes
    bool m_monotonic = true;            ///< the card's time stamps
    bool m_has_vblank = true;           ///< that can be waited for; some virtual cards have none
    int m_wake = -1;
    std::thread m_thread;

    mutable std::mutex m_mutex; ///< what follows; and the card's flips, as long as the display is not lost
    FlipQueue m_queue;
    FrameBuffer* m_looked_at = nullptr; ///< on the screen, and looked at: the thread's own to release
    bool m_lost = false;
    bool m_stop = false;
    uint64_t m_flip_id = 0;
    int64_t m_flipped_ns = 0; ///< when the flip that is on its way was
    int64_t m_stop_ns = 0;
    bool m_sequence_known = false;
    uint32_t m_sequence = 0; ///< of the latest flip's vertical blank
    int64_t m_vblank_ns = 0;
    DisplayStats m_stats;

    // The thread's own.
    int64_t m_checked_ns = 0;
    int64_t m_revived_ns = 0;
    size_t m_told = 0; ///< outages
};

std::optional<hdmi_player_drm_info_t> KmsDisplay::start(Screen* screen, FlipGate* gate, std::string* error)
{
    m_screen = screen;
    m_gate = gate;
    uint64_t monotonic = 0;
    m_monotonic = drmGetCap(m_card->fd(), DRM_CAP_TIMESTAMP_MONOTONIC, &monotonic) == 0 && monotonic != 0;
    m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_blank = m_card->make_buffer();
    int result = m_wake < 0 || !m_blank ? errno : 0;
    if (result == 0)
        result = m_card->show(*m_blank);
    if (result != 0) {
        *error = m_description + ": does not show anything: " + std::strerror(result);
        m_card->restore();
        close(m_wake);
        return std::nullopt;
    }
    drmVBlank now = {};
    now.request.type = DRM_VBLANK_RELATIVE;
    m_has_vblank = drmWaitVBlank(m_card->fd(), &now) == 0;
    m_thread = std::thread(&KmsDisplay::run, this);
    return hdmi_player_drm_info_t{m_has_vblank ? m_card->fd() : 0, static_cast<float>(m_refresh_hz)};
}

void KmsDisplay::paint(FrameBuffer* buffer, const Image* image)
{
    auto* memory = static_cast<KmsBuffer*>(buffer->surface.get());
    if (memory == nullptr || !memory->current())
        buffer->surface = m_card->make_buffer();
    if (buffer->surface)
        play::paint(buffer->picture, image, buffer->surface->canvas());
}

void KmsDisplay::present(FrameBuffer* buffer)
{
    FrameBuffer* left_out = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stats.flips++;
        auto* memory = static_cast<KmsBuffer*>(buffer->surface.get());
        if (m_lost || m_stop || memory == nullptr || !memory->current()) {
            m_stats.unshown++;
            left_out = buffer;
        } else {
            left_out = m_queue.flip(buffer);
            m_stats.superseded += left_out != nullptr ? 1 : 0;
            submit();
            // What the card does not take now is the thread's to offer again.
            if (m_queue.next() != nullptr)
                wake();
        }
    }
    if (left_out != nullptr)
        release(left_out);
}

/// Gives the card what it can take now. With the mutex held, of a display that is not lost.
void KmsDisplay::submit()
{
    FrameBuffer* next = m_queue.next();
    if (next == nullptr)
        return;
    int error = m_card->flip(static_cast<KmsBuffer&>(*next->surface), m_flip_id + 1);
    if (error == 0) {
        m_queue.taken();
        m_flip_id++;
        m_flipped_ns = hdmi_sim::now_ns();
    } else if (error != EBUSY) {
        lose(error);
    }
}

/// There is nothing to show on any more. The pictures are the pool's again. With the mutex held.
void KmsDisplay::lose(int error)
{
    m_lost = true;
    m_sequence_known = false;
    for (FrameBuffer* buffer : m_queue.clear()) {
        m_stats.unshown++;
        if (buffer != m_looked_at)
            release(buffer);
    }
    m_stats.outages.push_back({hdmi_sim::now_ns(), 0, reason_of(error)});
    wake();
}

/// On the display's thread: who flips does not wait for a terminal.
void KmsDisplay::tell_loss()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_stats.outages.size() == m_told)
        return;
    m_told = m_stats.outages.size();
    const std::string reason = m_stats.outages.back().reason;
    lock.unlock();
    std::fprintf(stderr, "hdmi-player-play: display lost: %s\n", reason.c_str());
}

/// Tries to show again. Without the mutex: nobody else uses the card while the display is lost.
void KmsDisplay::revive()
{
    int error = m_card->revive();
    if (error == 0 && !m_blank->current())
        m_blank = m_card->make_buffer();
    if (error == 0 && !m_blank)
        error = ENOMEM;
    if (error == 0)
        error = m_card->show(*m_blank);
    if (error != 0)
        return;
    std::unique_lock<std::mutex> lock(m_mutex);
    m_lost = false;
    const int64_t lasted_ns = hdmi_sim::now_ns() - m_stats.outages.back().began_ns;
    m_stats.outages.back().lasted_ns = lasted_ns;
    lock.unlock();
    std::fprintf(stderr, "hdmi-player-play: display back after %.2f s\n", static_cast<double>(lasted_ns) / 1e9);
}

void KmsDisplay::run()
{
    pthread_setname_np(pthread_self(), "kms_display");
    bool stopped = false;
    while (!stopped) {
        int64_t now_ns = hdmi_sim::now_ns();
        int64_t wait_ns = std::max<int64_t>(next_look_ns() - now_ns, 0);
        timespec wait = {};
        wait.tv_sec = wait_ns / 1'000'000'000;
        wait.tv_nsec = wait_ns % 1'000'000'000;
        std::unique_lock<std::mutex> lock(m_mutex);
        bool lost = m_lost;
        lock.unlock();
        // A card that went away is always ready to be read: it is left alone until it is back.
        pollfd ready[] = {{m_wake, POLLIN, 0}, {lost ? -1 : m_card->fd(), POLLIN, 0}};
        ppoll(ready, 2, &wait, nullptr);
        uint64_t count = 0;
        if ((ready[0].revents & POLLIN) != 0 && read(m_wake, &count, sizeof count) < 0)
            continue;
        if ((ready[1].revents & POLLIN) != 0)
            read_events();
        now_ns = hdmi_sim::now_ns();
        if (!lost && (ready[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
            lock.lock();
            if (!m_lost)
                lose(ENODEV);
            lock.unlock();
        }
        tell_loss();
        watch_over(now_ns);
        stopped = finished(now_ns);
    }
    tell_loss();
}

/// When the thread has something to do though nothing happened.
int64_t KmsDisplay::next_look_ns()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_lost)
        return m_stop ? 0 : m_revived_ns + revive_ns;
    if (m_queue.next() != nullptr)
        return hdmi_sim::now_ns() + busy_retry_ns;
    int64_t next_ns = m_checked_ns + connector_check_ns;
    if (m_queue.on_its_way() != nullptr)
        next_ns = std::min(next_ns, m_flipped_ns + flip_limit_ns);
    return m_stop ? std::min(next_ns, m_stop_ns + finish_limit_ns) : next_ns;
}

void KmsDisplay::watch_over(int64_t now_ns)
{
    bool connected = true;
    if (now_ns >= m_checked_ns + connector_check_ns) {
        m_checked_ns = now_ns;
        connected = m_card->connected();
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_stop && m_lost)
        return;
    if (m_lost) {
        lock.unlock();
        if (now_ns < m_revived_ns + revive_ns)
            return;
        revive();
        m_revived_ns = hdmi_sim::now_ns();
        return;
    }
    if (!connected)
        lose(ENOTCONN);
    else if (m_queue.on_its_way() != nullptr && now_ns >= m_flipped_ns + flip_limit_ns)
        lose(ETIME);
    else
        submit();
}

/// Told to stop, and the pending pictures were shown or never will be.
bool KmsDisplay::finished(int64_t now_ns)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    bool pending = !m_lost && (m_queue.on_its_way() != nullptr || m_queue.next() != nullptr);
    return m_stop && (!pending || now_ns >= m_stop_ns + finish_limit_ns);
}

void KmsDisplay::read_events()
{
    alignas(drm_event_vblank) char events[1024];
    ssize_t bytes = read(m_card->fd(), events, sizeof events);
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(drm_event)) <= bytes;) {
        drm_event event;
        std::memcpy(&event, events + at, sizeof event);
        drm_event_vblank flip;
        if (event.length < sizeof event || at + event.length > bytes)
            return;
        if (event.type == DRM_EVENT_FLIP_COMPLETE && event.length >= sizeof flip) {
            std::memcpy(&flip, events + at, sizeof flip);
            int64_t at_ns = flip.tv_sec * int64_t{1'000'000'000} + flip.tv_usec * int64_t{1000};
            on_flip({flip.user_data, flip.sequence, at_ns});
        }
        at += event.length;
    }
}

void KmsDisplay::on_flip(const FlipEvent& event)
{
    int64_t vblank_ns = event.vblank_ns;
    if (!m_monotonic) {
        timespec wall = {};
        clock_gettime(CLOCK_REALTIME, &wall);
        vblank_ns += hdmi_sim::now_ns() - (wall.tv_sec * int64_t{1'000'000'000} + wall.tv_nsec);
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    // One that was on its way when the display was lost may still come.
    if (m_lost || event.id != m_flip_id || m_queue.on_its_way() == nullptr)
        return;
    int64_t passed = refreshes_until(event.sequence, vblank_ns);
    bool same_screen = m_queue.on_screen() != nullptr;
    FrameBuffer* before = m_queue.shown();
    if (before != nullptr)
        release(before);
    m_stats.vblanks += passed;
    m_stats.repeated += passed - 1;
    m_gate->vblank(vblank_ns, passed);
    submit();
    if (m_lost)
        return;
    // What the card reads is looked at, not what the host meant to paint. That takes its time: nobody is to wait for
    // it, and the picture stays on the screen until this thread reads of the next one, or the display is lost.
    FrameBuffer* on_screen = m_queue.on_screen();
    m_looked_at = on_screen;
    lock.unlock();
    Picture seen = look_at(on_screen->surface->canvas());
    lock.lock();
    m_looked_at = nullptr;
    bool lost = m_queue.on_screen() != on_screen;
    lock.unlock();

    if (lost)
        release(on_screen);
    if (same_screen && passed > 1)
        m_screen->stay(passed - 1);
    m_screen->refresh(seen, vblank_ns + m_latency_ns);
}

/// Refreshes since the flip before; by time where the card does not count them. With the mutex held.
int64_t KmsDisplay::refreshes_until(uint32_t sequence, int64_t vblank_ns)
{
    int64_t passed = 1;
    if (m_sequence_known && m_has_vblank)
        passed = static_cast<int32_t>(sequence - m_sequence);
    else if (m_sequence_known)
        passed = std::llround(static_cast<double>(vblank_ns - m_vblank_ns) * m_refresh_hz / 1e9);
    m_sequence = sequence;
    m_vblank_ns = vblank_ns;
    m_sequence_known = true;
    return std::max<int64_t>(passed, 1);
}

void KmsDisplay::wake() const
{
    const uint64_t one = 1;
    if (write(m_wake, &one, sizeof one) < 0)
        return; // full: the thread is awake anyway
}

void KmsDisplay::stop()
{
    if (!m_thread.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_stop = true;
        m_stop_ns = hdmi_sim::now_ns();
    }
    wake();
    m_thread.join();
    m_card->restore();
    for (FrameBuffer* buffer : m_queue.clear())
        release(buffer);
    close(m_wake);
}

DisplayStats KmsDisplay::stats() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_stats;
}

} // namespace

std::unique_ptr<Display> open_kms_display(const Options& options, std::string* error)
{
    std::optional<double> wanted_hz;
    if (options.display_rate)
        wanted_hz = options.display_rate->value();
    std::shared_ptr<KmsCard> card = KmsCard::open(options.display_path, wanted_hz, !options.page_flips, error);
    if (!card)
        return nullptr;
    return std::make_unique<KmsDisplay>(std::move(card), options.display_latency_ms());
}

} // namespace play
