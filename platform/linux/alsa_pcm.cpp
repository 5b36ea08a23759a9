// SPDX-License-Identifier: MIT
#include "alsa_pcm.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <memory>
#include <thread>

#include "alsa_clock.h"
#include "alsa_time.h"
#include "contained.h"
#include "internal/common.h"

namespace hdmi_linux
{
namespace
{

/// A sound server closes within some milliseconds, or does not answer at all.
constexpr uint32_t kCloseLimitUs = 500000;
/// Pause while a device's descriptor reports an error that its transfers do not report.
constexpr int kErrorPauseMs = 10;
/// Likewise while a device is ready and transfers nothing, time and again.
constexpr int kInVainPauseMs = 1;
/// So many waits may find the device ready between two transfers: a sound server's client also wakes its caller for
/// other news.
constexpr int kReadyInVain = 4;

/// A close on a thread of its own. Its caller may have stopped waiting for it.
struct Closing {
    Closing() { cond_init_monotonic(ended); }
    ~Closing() { pthread_cond_destroy(&ended); }
    Closing(const Closing&) = delete;
    Closing& operator=(const Closing&) = delete;
    mutex_t mutex;
    pthread_cond_t ended;
    bool done GUARDED_BY(mutex) = false;
};

void close_handle(snd_pcm_t* handle)
{
    const AlsaMessages messages;
    snd_pcm_close(handle);
}

// This thread is the only one that uses the handle.
void run_closing(snd_pcm_t* handle, const std::shared_ptr<Closing>& closing)
{
    set_thread_name("audio_close");
    close_handle(handle);
    mutex_guard guard(closing->mutex);
    closing->done = true;
    pthread_cond_broadcast(&closing->ended);
}

// While a sound server does not answer, snd_pcm_close() blocks as long as the server's client library waits.
void close_within_limit(snd_pcm_t* handle)
{
    std::shared_ptr<Closing> closing;
    try {
        closing = std::make_shared<Closing>();
        std::thread(run_closing, handle, closing).detach();
    } catch (const std::exception&) { // no memory, or no thread
        close_handle(handle);
        return;
    }
    const struct timespec deadline = get_monotonic_timeout_us(kCloseLimitUs);
    mutex_guard guard(closing->mutex);
    while (!closing->done && guard.wait_until(closing->ended, deadline) == 0) {
    }
    if (!closing->done)
        log_w("a sound server does not answer: its device is closed without it\n");
}

struct HardwareParams {
    HardwareParams() { snd_pcm_hw_params_malloc(&native); }
    ~HardwareParams() { snd_pcm_hw_params_free(native); }
    HardwareParams(const HardwareParams&) = delete;
    HardwareParams& operator=(const HardwareParams&) = delete;
    snd_pcm_hw_params_t* native = nullptr;
};

struct SoftwareParams {
    SoftwareParams() { snd_pcm_sw_params_malloc(&native); }
    ~SoftwareParams() { snd_pcm_sw_params_free(native); }
    SoftwareParams(const SoftwareParams&) = delete;
    SoftwareParams& operator=(const SoftwareParams&) = delete;
    snd_pcm_sw_params_t* native = nullptr;
};

// Why the rate was refused, with the nearest rate where the device names one.
std::string offered_rate(snd_pcm_t* pcm, snd_pcm_hw_params_t* params, int rate)
{
    auto nearest = static_cast<unsigned int>(rate);
    std::string text = "it cannot run at " + std::to_string(rate) + " Hz";
    if (snd_pcm_hw_params_set_rate_near(pcm, params, &nearest, nullptr) < 0)
        return text;
    return text + ", the nearest is " + std::to_string(nearest) + " Hz";
}

// Whether @p err comes from a device that is there, and not from one that is gone.
bool refuses(int err) { return err == -EINVAL || err == -EBUSY || err == -EACCES || err == -EPERM; }

int fail(int err, std::string* why, std::string reason)
{
    *why = std::move(reason);
    return err;
}

} // namespace

// --- Opening --------------------------------------------------------------------

void apply_channel_status(PcmRequest* request, bool non_audio)
{
    if (has_channel_status(request->name))
        return;
    request->status = channel_status(request->rate, non_audio);
    request->name = with_channel_status(request->name, *request->status);
}

int Pcm::open(const PcmRequest& request, std::string* why)
{
    close();
    capture_ = request.stream == SND_PCM_STREAM_CAPTURE;
    status_set_ = false;
    const AlsaMessages messages;
    snd_pcm_t* handle = nullptr;
    // Non-blocking: a device in use is refused at once; a blocking open would wait for it.
    int err = snd_pcm_open(&handle, request.name.c_str(), request.stream, SND_PCM_NONBLOCK);
    if (err < 0)
        *why = std::string(snd_strerror(err)) + (messages.text().empty() ? "" : " (" + messages.text() + ")");
    else {
        handle_.reset(handle);
        place_ = card_device(handle);
        handle_.get_deleter().card = place_.card;
        // Before configure(): drivers read the status when the hardware is configured.
        status_set_ = request.status && set_status_control(card(), device(), *request.status);
        err = configure(request, why);
    }
    if (err < 0)
        close();
    return err;
}

void Pcm::close() { handle_.reset(); }

void Pcm::Closer::operator()(snd_pcm_t* handle) const
{
    // A card's close does not wait, and the card can be opened again at once.
    if (card >= 0)
        close_handle(handle);
    else
        close_within_limit(handle);
}

std::string note_opening(const PcmRequest& request, const Pcm& pcm, DeviceStats* stats)
{
    stats->pcm = request.name;
    stats->rate = request.rate;
    stats->asked_period_frames = request.period_frames;
    stats->asked_period_count = request.period_count;
    stats->period_frames = pcm.period_frames();
    stats->period_count = pcm.buffer_frames() / pcm.period_frames();
    char text[128];
    snprintf(text, sizeof(text), " at %d Hz, %d x %d frames asked, %d x %d obtained", request.rate,
             request.period_count, request.period_frames, stats->period_count, stats->period_frames);
    return request.name + text;
}

struct PcmOpener::Opening {
    explicit Opening(PcmRequest r) : request(std::move(r)) {}
    const PcmRequest request;
    mutex_t mutex;
    bool done GUARDED_BY(mutex) = false;
    int err GUARDED_BY(mutex) = 0;
    std::string why GUARDED_BY(mutex);
    Pcm pcm GUARDED_BY(mutex);
};

void PcmOpener::run(const std::shared_ptr<Opening>& opening)
{
    set_thread_name("audio_open");
    Pcm pcm;
    std::string why;
    const int err = contained([&] { return pcm.open(opening->request, &why); }, -ENOMEM);
    mutex_guard guard(opening->mutex);
    opening->done = true;
    opening->err = err;
    opening->why = std::move(why);
    opening->pcm = std::move(pcm);
}

int PcmOpener::attempt(const PcmRequest& request, Pcm* pcm)
{
    if (opening_ == nullptr) {
        try {
            opening_ = std::make_shared<Opening>(request);
            std::thread(run, opening_).detach();
        } catch (const std::exception&) { // no memory, or no thread
            opening_ = nullptr;
            return -EAGAIN;
        }
        return -EINPROGRESS;
    }
    const std::shared_ptr<Opening> opening = opening_;
    mutex_guard guard(opening->mutex);
    if (!opening->done)
        return -EINPROGRESS;
    opening_ = nullptr;
    if (opening->err == 0)
        last_refusal_.clear();
    else if (refuses(opening->err) && opening->why != last_refusal_) {
        last_refusal_ = opening->why;
        log_w("%s is there, but %s\n", request.name.c_str(), last_refusal_.c_str());
    }
    *pcm = std::move(opening->pcm);
    return opening->err;
}

int Pcm::configure(const PcmRequest& request, std::string* why)
{
    int err = set_hardware(request, why);
    if (err < 0)
        return err;
    if ((err = set_software(request)) < 0)
        return fail(err, why, std::string("its start cannot be set: ") + snd_strerror(err));
    if (!capture_)
        return 0;
    if ((err = snd_pcm_start(handle_.get())) < 0)
        return fail(err, why, std::string("it does not start: ") + snd_strerror(err));
    return 0;
}

int Pcm::set_hardware(const PcmRequest& request, std::string* why)
{
    snd_pcm_t* pcm = handle_.get();
    const HardwareParams params;
    int err = snd_pcm_hw_params_any(pcm, params.native);
    if (err < 0)
        return fail(err, why, std::string("it tells no configuration: ") + snd_strerror(err));
    if ((err = snd_pcm_hw_params_set_access(pcm, params.native, SND_PCM_ACCESS_RW_INTERLEAVED)) < 0 ||
        (err = snd_pcm_hw_params_set_format(pcm, params.native, SND_PCM_FORMAT_S16_LE)) < 0)
        return fail(err, why, "it does not take interleaved 16-bit samples (a plughw: name converts)");
    const auto channels = static_cast<unsigned int>(request.channels);
    if ((err = snd_pcm_hw_params_set_channels(pcm, params.native, channels)) < 0)
        return fail(err, why, "it has no " + std::to_string(request.channels) + " channels (a plughw: name converts)");
    const auto rate = static_cast<unsigned int>(request.rate);
    if ((err = snd_pcm_hw_params_set_rate_resample(pcm, params.native, request.resample ? 1 : 0)) < 0 ||
        (err = snd_pcm_hw_params_set_rate(pcm, params.native, rate, 0)) < 0)
        return fail(err, why, offered_rate(pcm, params.native, request.rate));
    auto period = static_cast<snd_pcm_uframes_t>(request.period_frames);
    auto buffer = period * static_cast<snd_pcm_uframes_t>(request.period_count);
    if ((err = snd_pcm_hw_params_set_period_size_near(pcm, params.native, &period, nullptr)) < 0 ||
        (err = snd_pcm_hw_params_set_buffer_size_near(pcm, params.native, &buffer)) < 0 ||
        (err = snd_pcm_hw_params(pcm, params.native)) < 0)
        return fail(err, why, std::string("its buffer cannot be set: ") + snd_strerror(err));
    unsigned int obtained = 0;
    if (snd_pcm_hw_params_get_rate(params.native, &obtained, nullptr) < 0 || obtained != rate)
        return fail(-EINVAL, why, offered_rate(pcm, params.native, request.rate));
    snd_pcm_get_params(pcm, &buffer, &period);
    period_frames_ = std::max(static_cast<int>(period), 1);
    buffer_frames_ = std::max(static_cast<int>(buffer), 1);
    return 0;
}

int Pcm::set_software(const PcmRequest& request)
{
    snd_pcm_t* pcm = handle_.get();
    const SoftwareParams params;
    const int start = capture_ ? 1 : std::clamp(request.start_periods * period_frames_, 1, buffer_frames_);
    int err = snd_pcm_sw_params_current(pcm, params.native);
    if (err >= 0)
        err = snd_pcm_sw_params_set_start_threshold(pcm, params.native, static_cast<snd_pcm_uframes_t>(start));
    // A read takes what is there, so that less than a period may be missing when it waits. If the device woke it for
    // whole periods only, it would wake a period too late.
    const int wake_at = capture_ ? 1 : period_frames_;
    if (err >= 0)
        err = snd_pcm_sw_params_set_avail_min(pcm, params.native, static_cast<snd_pcm_uframes_t>(wake_at));
    if (err >= 0)
        err = snd_pcm_sw_params_set_tstamp_mode(pcm, params.native, SND_PCM_TSTAMP_ENABLE);
    if (err >= 0)
        err = snd_pcm_sw_params_set_tstamp_type(pcm, params.native, SND_PCM_TSTAMP_TYPE_MONOTONIC);
    return err >= 0 ? snd_pcm_sw_params(pcm, params.native) : err;
}

CardDevice card_device(snd_pcm_t* pcm)
{
    snd_pcm_info_t* info = nullptr;
    snd_pcm_info_alloca(&info);
    const AlsaMessages messages;
    if (snd_pcm_info(pcm, info) < 0 || snd_pcm_info_get_card(info) < 0)
        return {};
    return {snd_pcm_info_get_card(info), static_cast<int>(snd_pcm_info_get_device(info))};
}

// --- Transfer -------------------------------------------------------------------

int Pcm::write(const uint8_t* data, int frames)
{
    const snd_pcm_sframes_t done = snd_pcm_writei(handle_.get(), data, static_cast<snd_pcm_uframes_t>(frames));
    touched_ns_ = now_ns();
    return done != 0 ? static_cast<int>(done) : -EAGAIN;
}

int Pcm::read(uint8_t* data, int frames)
{
    const snd_pcm_sframes_t done = snd_pcm_readi(handle_.get(), data, static_cast<snd_pcm_uframes_t>(frames));
    touched_ns_ = now_ns();
    if (done != 0)
        return static_cast<int>(done);
    // 0 frames mean that the stream ended, as that of a loopback does when its other end takes another format. "No
    // data yet" would be -EAGAIN.
    return -EBADFD;
}

StreamError Pcm::classify(int result) const
{
    switch (result) {
    case -EPIPE: return StreamError::xrun;
    case -ESTRPIPE: return StreamError::suspended;
    case -EINTR: return StreamError::none;
    case -EAGAIN: break;
    default: return StreamError::lost;
    }
    // A device that went away may return -EAGAIN for ever: its state tells.
    switch (snd_pcm_state(handle_.get())) {
    case SND_PCM_STATE_XRUN: return StreamError::xrun;
    case SND_PCM_STATE_SUSPENDED: return StreamError::suspended;
    case SND_PCM_STATE_DISCONNECTED:
    case SND_PCM_STATE_OPEN:
    case SND_PCM_STATE_SETUP: return StreamError::lost;
    default: return StreamError::none;
    }
}

int Pcm::restart()
{
    const AlsaMessages messages;
    const int err = snd_pcm_prepare(handle_.get());
    return err >= 0 && capture_ ? snd_pcm_start(handle_.get()) : err;
}

int Pcm::resume()
{
    const AlsaMessages messages;
    if (snd_pcm_resume(handle_.get()) == -EAGAIN)
        return -EAGAIN;
    // Hardware that kept its buffer would play old sound.
    snd_pcm_drop(handle_.get());
    return restart();
}

int Pcm::delay()
{
    snd_pcm_sframes_t frames = 0;
    const int err = snd_pcm_delay(handle_.get(), &frames);
    touched_ns_ = now_ns();
    // A sound server goes on stating the delay that it had when the device ran empty.
    if (err >= 0 && snd_pcm_state(handle_.get()) == SND_PCM_STATE_XRUN)
        return -EPIPE;
    return err < 0 ? err : std::max(static_cast<int>(frames), 0);
}

std::optional<PcmStamp> Pcm::stamp()
{
    if (!running())
        return {};
    if (card() < 0) {
        // A sound server's count moves in steps of its own; the delay that it states goes by the time.
        const int frames = delay();
        return frames >= 0 ? std::optional<PcmStamp>({now_ns(), frames}) : std::nullopt;
    }
    snd_pcm_uframes_t avail = 0;
    AlsaTime at;
    // The first call is for PCMs that keep a copy of a shared card's count.
    if (snd_pcm_avail_update(handle_.get()) < 0 || snd_pcm_htimestamp(handle_.get(), &avail, at.to_fill()) < 0)
        return {};
    if (at.ns() <= touched_ns_)
        return {};
    const auto ready = static_cast<int>(avail);
    return PcmStamp{at.ns(), capture_ ? ready : buffer_frames_ - ready};
}

bool Pcm::running() const { return snd_pcm_state(handle_.get()) == SND_PCM_STATE_RUNNING; }

bool Pcm::prepared() const { return snd_pcm_state(handle_.get()) == SND_PCM_STATE_PREPARED; }

int Pcm::descriptors(struct pollfd* fds)
{
    return std::max(snd_pcm_poll_descriptors(handle_.get(), fds, kMaxDescriptors), 0);
}

bool Pcm::ready(struct pollfd* fds, int count)
{
    unsigned short events = 0;
    const int err = snd_pcm_poll_descriptors_revents(handle_.get(), fds, static_cast<unsigned int>(count), &events);
    return err < 0 || events != 0;
}

// --- Waiting --------------------------------------------------------------------

PollGate::PollGate() : wake_fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

PollGate::~PollGate() { ::close(wake_fd_); }

void PollGate::wait(mutex_guard& guard, Pcm* pcm, int timeout_ms)
{
    // A caller that polls again at once would keep evict() from ever finding the gate idle.
    if (evicting_ > 0) {
        while (evicting_ > 0)
            guard.wait(free_);
        return;
    }
    std::array<struct pollfd, Pcm::kMaxDescriptors + 1> fds = {};
    fds[0] = {wake_fd_, POLLIN, 0};
    const int count = pcm != nullptr && pcm->is_open() ? pcm->descriptors(&fds[1]) : 0;
    // Callers wait because a transfer moved nothing. A device that is ready all the same, time and again, is not: a
    // sound server's client, for example, while its own thread does not come to run.
    const bool in_vain = ready_waits_ >= kReadyInVain;
    ++polling_;
    guard.unlock();
    poll(fds.data(), static_cast<nfds_t>(count) + 1, timeout_ms);
    short events = 0;
    for (int i = 1; i <= count; ++i)
        events = static_cast<short>(events | fds[static_cast<size_t>(i)].revents);
    const bool broken = (events & (POLLERR | POLLNVAL | POLLHUP)) != 0;
    // The next transfer normally reports an error. Where it does not, this pause keeps the caller from spinning, which
    // at real-time priority would stop the whole machine.
    if (broken || (events != 0 && in_vain))
        poll(fds.data(), 1, broken ? kErrorPauseMs : kInVainPauseMs);
    guard.lock();
    if (events != 0 && !in_vain)
        ++ready_waits_;
    if (count > 0)
        pcm->ready(&fds[1], count);
    if (--polling_ == 0)
        pthread_cond_broadcast(&idle_);
}

void PollGate::evict(mutex_guard& guard)
{
    const uint64_t one = 1;
    ++evicting_;
    while (polling_ > 0) {
        (void)!::write(wake_fd_, &one, sizeof(one));
        guard.wait(idle_);
    }
    uint64_t count = 0;
    (void)!::read(wake_fd_, &count, sizeof(count));
    if (--evicting_ == 0)
        pthread_cond_broadcast(&free_);
}

} // namespace hdmi_linux
