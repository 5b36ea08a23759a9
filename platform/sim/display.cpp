// SPDX-License-Identifier: MIT
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <xf86drm.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "latch.h"
#include "sim.h"
#include "vblank_account.h"

namespace sim
{
namespace
{

constexpr double kMinRefreshHz = 1;
constexpr double kMaxRefreshHz = 1000;
constexpr int kFirstDescriptor = 3; ///< above the standard streams, because 0 would mean no display

struct Display {
    mutex_t control; ///< one start or stop at a time; before `mutex`
    /// Of a display whose vertical blanks somebody is told of. Without it whoever asks finds them worked off.
    std::thread thread GUARDED_BY(control);

    mutex_t mutex;
    Condition changed; ///< the display ends
    int descriptor GUARDED_BY(mutex) = -1;
    bool running GUARDED_BY(mutex) = false;  ///< takes flips
    bool stopping GUARDED_BY(mutex) = false; ///< ends after the next vertical blank
    uint64_t session GUARDED_BY(mutex) = 0;
    bool has_thread GUARDED_BY(mutex) = false;
    int64_t next_vblank GUARDED_BY(mutex) = 1;
    int64_t start_ns GUARDED_BY(mutex) = 0;
    Pace pace GUARDED_BY(mutex);
    Latch latch GUARDED_BY(mutex);
    hdmi_sim::DisplayStats stats GUARDED_BY(mutex);
    VblankAccount account GUARDED_BY(mutex);
    // Constant while the thread runs.
    hdmi_sim::DisplayConfig config;
    hdmi_sim::ScanOutFn on_scan_out;
    hdmi_sim::ReleaseFn on_release;

    int64_t vblank_ns(int64_t number) REQUIRES(mutex) { return start_ns + pace.time_of(number); }
};

Display& display()
{
    static auto* instance = new Display;
    return *instance;
}

void report(const Display& d, const std::vector<Latch::Release>& released)
{
    for (const Latch::Release& release : released)
        if (d.on_release)
            d.on_release(release.buffer, release.superseded);
}

void count(hdmi_sim::DisplayStats& stats, const std::vector<Latch::Release>& released)
{
    stats.superseded +=
        std::count_if(released.begin(), released.end(), [](const Latch::Release& r) { return r.superseded; });
}

struct Frame {
    Latch::Result latched;
    int64_t vblank_ns = 0;
    bool last = false;
};

Latch::Result latch_next(Display& d) REQUIRES(d.mutex)
{
    Latch::Result latched = d.latch.vblank(d.vblank_ns(d.next_vblank++));
    d.stats.vblanks++;
    d.stats.repeated += latched.repeated ? 1 : 0;
    count(d.stats, latched.released);
    return latched;
}

Frame await_vblank(Display& d)
{
    mutex_guard guard(d.mutex);
    Frame frame;
    frame.vblank_ns = d.vblank_ns(d.next_vblank);
    while (hdmi_sim::now_ns() < frame.vblank_ns)
        d.changed.wait_until(guard, frame.vblank_ns);
    frame.last = d.stopping;
    frame.latched = latch_next(d);
    return frame;
}

// Works off the vertical blanks of a display without a thread up to time @p now.
void settle(Display& d, int64_t now) REQUIRES(d.mutex)
{
    while (d.running && !d.has_thread && d.vblank_ns(d.next_vblank) <= now)
        latch_next(d);
}

std::vector<Latch::Release> end_display(Display& d)
{
    mutex_guard guard(d.mutex);
    d.running = false;
    std::vector<Latch::Release> released = d.latch.clear();
    count(d.stats, released);
    return released;
}

void run_display(Display& d)
{
    pthread_setname_np(pthread_self(), "sim_display");
    set_exact_timers();
    bool last = false;
    for (int64_t number = 1; !last; number++) {
        const Frame frame = await_vblank(d);
        const int64_t seen_ns = frame.vblank_ns + d.config.latency_ns;
        if (d.on_scan_out)
            d.on_scan_out({number, frame.vblank_ns, seen_ns, frame.latched.buffer, frame.latched.repeated});
        report(d, frame.latched.released);
        last = frame.last;
    }
    report(d, end_display(d));
}

bool is_started(Display& d)
{
    mutex_guard guard(d.mutex);
    return d.descriptor >= 0;
}

// Ends after the next vertical blank.
void stop_display(Display& d) REQUIRES(d.control)
{
    mutex_guard guard(d.mutex);
    d.stopping = true;
    const int64_t last_ns = d.vblank_ns(d.next_vblank);
    guard.unlock();
    if (d.thread.joinable()) {
        d.thread.join();
        return;
    }
    std::this_thread::sleep_until(std::chrono::steady_clock::time_point(std::chrono::nanoseconds(last_ns)));
    guard.lock();
    settle(d, last_ns);
    guard.unlock();
    end_display(d);
}

int make_descriptor()
{
    const int any = eventfd(0, EFD_CLOEXEC);
    if (any < 0 || any >= kFirstDescriptor)
        return any;
    const int descriptor = fcntl(any, F_DUPFD_CLOEXEC, kFirstDescriptor);
    close(any);
    return descriptor;
}

int fail(int error)
{
    errno = error;
    return -1;
}

int wait_vblank(Display& d, int fd, drmVBlank& vblank)
{
    mutex_guard guard(d.mutex);
    if (!d.running || d.descriptor != fd)
        return fail(ENODEV);
    const uint64_t session = d.session;
    const int64_t target = d.pace.count_at(hdmi_sim::now_ns() - d.start_ns) + vblank.request.sequence;
    const int64_t at = d.vblank_ns(target);
    while (hdmi_sim::now_ns() < at) {
        d.changed.wait_until(guard, at);
        if (!d.running || d.session != session)
            return fail(ENODEV);
    }
    vblank.reply.type = DRM_VBLANK_RELATIVE;
    vblank.reply.sequence = static_cast<unsigned int>(target);
    vblank.reply.tval_sec = static_cast<long>(at / kNsPerSecond);
    vblank.reply.tval_usec = static_cast<long>(at % kNsPerSecond / 1000);
    return 0;
}

bool is_running(Display& d, int fd)
{
    mutex_guard guard(d.mutex);
    return d.running && d.descriptor == fd;
}

int simulated_wait(int fd, drmVBlankPtr vblank)
{
    Display& d = display();
    const Verdict verdict = fault_verdict(hdmi_sim::Op::wait_vblank, [&d, fd] { return !is_running(d, fd); });
    if (verdict.fail) {
        errno = verdict.result < 0 ? -verdict.result : 0;
        return verdict.result;
    }
    if (vblank == nullptr || vblank->request.type != DRM_VBLANK_RELATIVE)
        return fail(EINVAL);
    return wait_vblank(d, fd, *vblank);
}

bool is_simulated(int fd)
{
    Display& d = display();
    mutex_guard guard(d.mutex);
    return fd >= 0 && fd == d.descriptor;
}

// libdrm's own function: the next one of that name in the program, or else that of the library, loaded here.
int real_wait(int fd, drmVBlankPtr vblank)
{
    using Function = int (*)(int, drmVBlankPtr);
    static const Function function = [] {
        void* symbol = dlsym(RTLD_NEXT, "drmWaitVBlank");
        if (symbol == nullptr) {
            void* library = dlopen("libdrm.so.2", RTLD_NOW | RTLD_LOCAL);
            symbol = library != nullptr ? dlsym(library, "drmWaitVBlank") : nullptr;
        }
        return reinterpret_cast<Function>(symbol);
    }();
    return function != nullptr ? function(fd, vblank) : fail(ENODEV);
}

bool is_wait_in_a_row(const drmVBlank& vblank)
{
    return vblank.request.type == DRM_VBLANK_RELATIVE && vblank.request.sequence > 0;
}

int counted_wait(int fd, drmVBlankPtr vblank)
{
    // A copy, because the reply overwrites the request.
    const drmVBlank asked = vblank != nullptr ? *vblank : drmVBlank{};
    const int result = is_simulated(fd) ? simulated_wait(fd, vblank) : real_wait(fd, vblank);
    const int error = errno;
    Display& d = display();
    mutex_guard guard(d.mutex);
    if (result == 0 && vblank != nullptr && is_wait_in_a_row(asked))
        d.account.returned(static_cast<pid_t>(syscall(SYS_gettid)), fd, asked.request.sequence, vblank->reply.sequence);
    else
        d.account.interrupted();
    guard.unlock();
    errno = error;
    return result;
}

} // namespace

void display_reset()
{
    Display& d = display();
    mutex_guard guard(d.mutex);
    d.stats = {};
    d.account = {};
}

} // namespace sim

extern "C" SIM_EXPORT int drmWaitVBlank(int fd, drmVBlankPtr vbl) { return sim::counted_wait(fd, vbl); }

namespace hdmi_sim
{

int display_start(const DisplayConfig& config, ScanOutFn on_scan_out, ReleaseFn on_release)
{
    // In this form NaN is refused as well.
    if (!(config.refresh_hz >= sim::kMinRefreshHz && config.refresh_hz <= sim::kMaxRefreshHz))
        return -1;
    sim::Display& d = sim::display();
    mutex_guard control(d.control);
    if (sim::is_started(d))
        return -1;
    const int descriptor = sim::make_descriptor();
    if (descriptor < 0)
        return -1;
    d.config = config;
    d.on_scan_out = std::move(on_scan_out);
    d.on_release = std::move(on_release);
    mutex_guard guard(d.mutex);
    d.descriptor = descriptor;
    d.running = true;
    d.stopping = false;
    d.session++;
    d.start_ns = now_ns();
    d.pace = sim::Pace(config.refresh_hz, 0);
    d.stats = {};
    d.next_vblank = 1;
    d.has_thread = d.on_scan_out || d.on_release;
    if (d.has_thread)
        d.thread = std::thread([&d] { sim::run_display(d); });
    return descriptor;
}

bool display_flip(void* buffer)
{
    sim::Display& d = sim::display();
    mutex_guard guard(d.mutex);
    if (!d.running)
        return false;
    // The time is read under the lock, so that time stamps have the order of the flips.
    const int64_t now = now_ns();
    sim::settle(d, now);
    d.latch.flip(buffer, now);
    d.stats.flips++;
    return true;
}

void display_stop()
{
    sim::Display& d = sim::display();
    mutex_guard control(d.control);
    if (!sim::is_started(d))
        return;
    sim::stop_display(d);
    d.on_scan_out = nullptr;
    d.on_release = nullptr;
    mutex_guard guard(d.mutex);
    close(d.descriptor);
    d.descriptor = -1;
    d.changed.notify_all();
    guard.unlock();
    sim::faults_wake();
}

DisplayStats display_stats()
{
    sim::Display& d = sim::display();
    mutex_guard guard(d.mutex);
    sim::settle(d, now_ns());
    return d.stats;
}

VblankWaits vblank_waits()
{
    sim::Display& d = sim::display();
    mutex_guard guard(d.mutex);
    return d.account.waits();
}

} // namespace hdmi_sim
