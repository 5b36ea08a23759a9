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

#include "common/clock.h"
#include "display/display.h"
#include "display/flip_queue.h"
#include "display/kms_card.h"
#include "display/kms_mode.h"

namespace display
{
namespace
{

constexpr int64_t kMs = 1'000'000;
/// How often the kernel is asked for the connector's state: a pulled cable is noticed within that time.
constexpr int64_t kConnectorCheckNs = 100 * kMs;
/// How often a display that is lost is tried again; asking it takes some time.
constexpr int64_t kReviveNs = 250 * kMs;
/// A flip that takes longer counts as lost: longer than many refreshes and a change of mode.
constexpr int64_t kFlipLimitNs = 1000 * kMs;
/// Some cards still answer EBUSY for a moment after they reported the previous flip.
constexpr int64_t kBusyRetryNs = 1 * kMs;
/// At the end: for the flips that are pending.
constexpr int64_t kFinishLimitNs = 200 * kMs;

/// The errno of a flip, in words for a viewer.
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
class KmsDisplay final : public Display
{
public:
    KmsDisplay(std::shared_ptr<KmsCard> card, int latency_ms)
        : card_(std::move(card)), latency_ns_(latency_ms * kMs), refresh_hz_(display::refresh_hz(card_->mode())),
          description_(card_->description())
    {
    }
    ~KmsDisplay() override { stop(); }

    double refresh_hz() const override { return refresh_hz_; }
    bool paced() const override { return has_vblank_; }
    std::string description() const override { return description_ + (has_vblank_ ? "" : ", no vertical blanks"); }
    Size image_size() const override { return {card_->mode().hdisplay, card_->mode().vdisplay}; }

    std::optional<hdmi_player_drm_info_t> start(Observer* observer, FlipGate* gate, std::string* error) override;
    bool provide_surface(FrameBuffer* buffer) override;
    bool reads(uint32_t fourcc) const override { return card_->reads(fourcc); }
    std::shared_ptr<Surface> adopt(const ForeignFrame& frame, std::string* why) override;
    void present(FrameBuffer* buffer) override;
    /// A card shows frames where they lie, and so nothing without them.
    void clear() override { stop(); }
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
    void report_loss();
    void revive();
    void wake() const;

    const std::shared_ptr<KmsCard> card_;
    const int64_t latency_ns_;
    const double refresh_hz_;
    const std::string description_;
    Observer* observer_ = nullptr;
    FlipGate* gate_ = nullptr;
    std::shared_ptr<KmsBuffer> blank_; ///< shown until the first picture comes
    bool monotonic_ = true;            ///< the card's time stamps
    bool has_vblank_ = true;           ///< that can be waited for; some virtual cards have none
    int wake_ = -1;
    std::thread thread_;

    mutable std::mutex mutex_; ///< what follows; and the card's flips, as long as the display is not lost
    FlipQueue queue_;
    FrameBuffer* looked_at_ = nullptr; ///< on the screen, and being read by the thread, which releases it
    bool lost_ = false;
    bool stop_ = false;
    uint64_t flip_id_ = 0;
    int64_t flipped_ns_ = 0; ///< when the flip that is on its way was
    int64_t stop_ns_ = 0;
    bool sequence_known_ = false;
    uint32_t sequence_ = 0; ///< of the latest flip's vertical blank
    int64_t vblank_ns_ = 0;
    DisplayStats stats_;

    // The thread's own.
    int64_t checked_ns_ = 0;
    int64_t revived_ns_ = 0;
    size_t reported_outages_ = 0; ///< outages
};

std::optional<hdmi_player_drm_info_t> KmsDisplay::start(Observer* observer, FlipGate* gate, std::string* error)
{
    observer_ = observer;
    gate_ = gate;
    uint64_t monotonic = 0;
    monotonic_ = drmGetCap(card_->fd(), DRM_CAP_TIMESTAMP_MONOTONIC, &monotonic) == 0 && monotonic != 0;
    wake_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (!blank_)
        blank_ = card_->make_buffer();
    int result = wake_ < 0 || !blank_ ? errno : 0;
    if (result == 0)
        result = card_->show(*blank_);
    if (result != 0) {
        *error = description_ + ": does not show anything: " + std::strerror(result);
        card_->restore();
        close(wake_);
        return std::nullopt;
    }
    drmVBlank now = {};
    now.request.type = DRM_VBLANK_RELATIVE;
    has_vblank_ = drmWaitVBlank(card_->fd(), &now) == 0;
    thread_ = std::thread(&KmsDisplay::run, this);
    return hdmi_player_drm_info_t{has_vblank_ ? card_->fd() : 0, static_cast<float>(refresh_hz_)};
}

bool KmsDisplay::provide_surface(FrameBuffer* buffer)
{
    auto* memory = static_cast<KmsBuffer*>(buffer->surface.get());
    if (memory == nullptr || !memory->current())
        buffer->surface = card_->make_buffer();
    return buffer->surface != nullptr;
}

std::shared_ptr<Surface> KmsDisplay::adopt(const ForeignFrame& frame, std::string* why)
{
    if (!blank_ && !(blank_ = card_->make_buffer())) {
        *why = std::strerror(errno);
        return nullptr;
    }
    return card_->import(frame, *blank_, why);
}

void KmsDisplay::present(FrameBuffer* buffer)
{
    FrameBuffer* left_out = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stats_.flips++;
        auto* memory = static_cast<KmsBuffer*>(buffer->surface.get());
        if (lost_ || stop_ || memory == nullptr || !memory->current()) {
            stats_.unshown++;
            left_out = buffer;
        } else {
            left_out = queue_.flip(buffer);
            stats_.superseded += left_out != nullptr ? 1 : 0;
            submit();
            // The card was busy: the thread tries again.
            if (queue_.next() != nullptr)
                wake();
        }
    }
    if (left_out != nullptr)
        release(left_out);
}

/// Gives the card what it can take now. With the mutex held, of a display that is not lost.
void KmsDisplay::submit()
{
    FrameBuffer* next = queue_.next();
    if (next == nullptr)
        return;
    int error = card_->flip(static_cast<KmsBuffer&>(*next->surface), flip_id_ + 1);
    if (error == 0) {
        queue_.taken();
        flip_id_++;
        flipped_ns_ = common::now_ns();
    } else if (error != EBUSY) {
        lose(error);
    }
}

/// The display is lost: gives all pictures back to the pool. With the mutex held.
void KmsDisplay::lose(int error)
{
    lost_ = true;
    sequence_known_ = false;
    for (FrameBuffer* buffer : queue_.clear()) {
        stats_.unshown++;
        if (buffer != looked_at_)
            release(buffer);
    }
    stats_.outages.push_back({common::now_ns(), 0, reason_of(error)});
    wake();
}

/// On the display's thread: a flip must not wait for a terminal.
void KmsDisplay::report_loss()
{
    std::unique_lock<std::mutex> lock(mutex_);
    if (stats_.outages.size() == reported_outages_)
        return;
    reported_outages_ = stats_.outages.size();
    const std::string reason = stats_.outages.back().reason;
    lock.unlock();
    std::fprintf(stderr, "%s: display lost: %s\n", program_invocation_short_name, reason.c_str());
}

/// Tries to show again. Without the mutex: nobody else uses the card while the display is lost.
void KmsDisplay::revive()
{
    int error = card_->revive();
    if (error == 0 && !blank_->current())
        blank_ = card_->make_buffer();
    if (error == 0 && !blank_)
        error = ENOMEM;
    if (error == 0)
        error = card_->show(*blank_);
    if (error != 0)
        return;
    std::unique_lock<std::mutex> lock(mutex_);
    lost_ = false;
    const int64_t lasted_ns = common::now_ns() - stats_.outages.back().began_ns;
    stats_.outages.back().lasted_ns = lasted_ns;
    lock.unlock();
    std::fprintf(stderr, "%s: display back after %.2f s\n", program_invocation_short_name,
                 static_cast<double>(lasted_ns) / 1e9);
}

void KmsDisplay::run()
{
    pthread_setname_np(pthread_self(), "kms_display");
    bool stopped = false;
    while (!stopped) {
        int64_t now_ns = common::now_ns();
        int64_t wait_ns = std::max<int64_t>(next_look_ns() - now_ns, 0);
        timespec wait = {};
        wait.tv_sec = wait_ns / 1'000'000'000;
        wait.tv_nsec = wait_ns % 1'000'000'000;
        std::unique_lock<std::mutex> lock(mutex_);
        bool lost = lost_;
        lock.unlock();
        // A lost card would be ready at once, each time: it is not polled until it is back.
        pollfd ready[] = {{wake_, POLLIN, 0}, {lost ? -1 : card_->fd(), POLLIN, 0}};
        ppoll(ready, 2, &wait, nullptr);
        uint64_t count = 0;
        if ((ready[0].revents & POLLIN) != 0 && read(wake_, &count, sizeof count) < 0)
            continue;
        if ((ready[1].revents & POLLIN) != 0)
            read_events();
        now_ns = common::now_ns();
        if (!lost && (ready[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0) {
            lock.lock();
            if (!lost_)
                lose(ENODEV);
            lock.unlock();
        }
        report_loss();
        watch_over(now_ns);
        stopped = finished(now_ns);
    }
    report_loss();
}

/// When the thread has something to do although no event came.
int64_t KmsDisplay::next_look_ns()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (lost_)
        return stop_ ? 0 : revived_ns_ + kReviveNs;
    if (queue_.next() != nullptr)
        return common::now_ns() + kBusyRetryNs;
    int64_t next_ns = checked_ns_ + kConnectorCheckNs;
    if (queue_.on_its_way() != nullptr)
        next_ns = std::min(next_ns, flipped_ns_ + kFlipLimitNs);
    return stop_ ? std::min(next_ns, stop_ns_ + kFinishLimitNs) : next_ns;
}

void KmsDisplay::watch_over(int64_t now_ns)
{
    bool connected = true;
    if (now_ns >= checked_ns_ + kConnectorCheckNs) {
        checked_ns_ = now_ns;
        connected = card_->connected();
    }
    std::unique_lock<std::mutex> lock(mutex_);
    if (stop_ && lost_)
        return;
    if (lost_) {
        lock.unlock();
        if (now_ns < revived_ns_ + kReviveNs)
            return;
        revive();
        revived_ns_ = common::now_ns();
        return;
    }
    if (!connected)
        lose(ENOTCONN);
    else if (queue_.on_its_way() != nullptr && now_ns >= flipped_ns_ + kFlipLimitNs)
        lose(ETIME);
    else
        submit();
}

/// Told to stop, and the pending pictures were shown or never will be.
bool KmsDisplay::finished(int64_t now_ns)
{
    std::lock_guard<std::mutex> lock(mutex_);
    bool pending = !lost_ && (queue_.on_its_way() != nullptr || queue_.next() != nullptr);
    return stop_ && (!pending || now_ns >= stop_ns_ + kFinishLimitNs);
}

void KmsDisplay::read_events()
{
    alignas(drm_event_vblank) char events[1024];
    ssize_t bytes = read(card_->fd(), events, sizeof events);
    for (ssize_t at = 0; at + static_cast<ssize_t>(sizeof(drm_event)) <= bytes;) {
        drm_event event;
        std::memcpy(&event, events + at, sizeof event);
        drm_event_vblank flip;
        if (event.length < sizeof event || event.length > static_cast<size_t>(bytes - at))
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
    if (!monotonic_) {
        timespec wall = {};
        clock_gettime(CLOCK_REALTIME, &wall);
        vblank_ns += common::now_ns() - (wall.tv_sec * int64_t{1'000'000'000} + wall.tv_nsec);
    }
    std::unique_lock<std::mutex> lock(mutex_);
    // The event of a flip that was on its way when the display was lost may still come.
    if (lost_ || event.id != flip_id_ || queue_.on_its_way() == nullptr)
        return;
    int64_t passed = refreshes_until(event.sequence, vblank_ns);
    bool same_screen = queue_.on_screen() != nullptr;
    FrameBuffer* before = queue_.shown();
    if (before != nullptr)
        release(before);
    stats_.vblanks += passed;
    stats_.repeated += passed - 1;
    gate_->vblank(vblank_ns, passed);
    submit();
    if (lost_)
        return;
    // Who watches reads what the card shows. This takes time, so the mutex is not held. The frame stays on the screen
    // until this thread reads the next event, or the display is lost.
    FrameBuffer* on_screen = queue_.on_screen();
    looked_at_ = on_screen;
    lock.unlock();
    if (same_screen && passed > 1)
        observer_->stayed(passed - 1);
    observer_->shown(*on_screen, vblank_ns + latency_ns_);
    lock.lock();
    looked_at_ = nullptr;
    bool lost = queue_.on_screen() != on_screen;
    lock.unlock();
    if (lost)
        release(on_screen);
}

/// Refreshes since the flip before; by time where the card does not count them. With the mutex held.
int64_t KmsDisplay::refreshes_until(uint32_t sequence, int64_t vblank_ns)
{
    int64_t passed = 1;
    if (sequence_known_ && has_vblank_)
        passed = static_cast<int32_t>(sequence - sequence_);
    else if (sequence_known_)
        passed = std::llround(static_cast<double>(vblank_ns - vblank_ns_) * refresh_hz_ / 1e9);
    sequence_ = sequence;
    vblank_ns_ = vblank_ns;
    sequence_known_ = true;
    return std::max<int64_t>(passed, 1);
}

void KmsDisplay::wake() const
{
    const uint64_t one = 1;
    if (write(wake_, &one, sizeof one) < 0)
        return; // full: the thread is awake anyway
}

void KmsDisplay::stop()
{
    if (!thread_.joinable())
        return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stop_ = true;
        stop_ns_ = common::now_ns();
    }
    wake();
    thread_.join();
    card_->restore();
    for (FrameBuffer* buffer : queue_.clear())
        release(buffer);
    close(wake_);
}

DisplayStats KmsDisplay::stats() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return stats_;
}

} // namespace

std::unique_ptr<Display> open_kms_display(const DisplayOptions& options, std::string* error)
{
    ModeWish wish;
    wish.refresh_hz = options.refresh_hz;
    wish.size = options.size;
    wish.fps = options.fps;
    std::shared_ptr<KmsCard> card = KmsCard::open(options.path, wish, !options.page_flips, error);
    if (!card)
        return nullptr;
    return std::make_unique<KmsDisplay>(std::move(card), options.latency_ms);
}

} // namespace display
