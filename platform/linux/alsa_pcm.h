// SPDX-License-Identifier: MIT
/**
 * @file
 * One open PCM of alsa-lib: 16-bit interleaved, never blocking in a transfer.
 *
 * Not for two threads at a time: the stream that owns it holds its mutex around
 * every call, and only poll() runs without.
 */
#pragma once

#include <poll.h>

#include <array>
#include <memory>
#include <optional>
#include <string>

#include "alsa_messages.h"
#include "hdmi_linux.h"
#include "iec958.h"
#include "internal/locks.h"

namespace hdmi_linux
{

constexpr int kBytesPerSample = 2;

struct PcmRequest {
    std::string name;
    snd_pcm_stream_t stream = SND_PCM_STREAM_PLAYBACK;
    int channels = 2;
    int rate = 48000;
    int period_frames = 960;
    int period_count = 4;
    int start_periods = 1;               ///< playback: starts by itself with so many periods queued
    bool resample = false;               ///< a conversion of the rate inside the named PCM is welcome
    std::optional<ChannelStatus> status; ///< of a digital output, for its card's control
};

/// Lets @p request for a digital output say its rate, and whether it carries data, unless its name does already.
void say_status(PcmRequest* request, bool non_audio);

/// What became of a transfer that did not move a frame.
enum class Trouble {
    none,      ///< there is just no room, or no data
    xrun,      ///< restart() mends it
    suspended, ///< resume() mends it
    lost,      ///< only a new opening can mend it
};

/// Where the kernel has a PCM; -1: it is no card's, such as a sound server's.
struct CardDevice {
    int card = -1;
    int device = -1;
};
CardDevice card_device(snd_pcm_t* pcm);

class Pcm
{
public:
    /// Opens and configures; capture also starts. @return 0, or an error code with its reason in @p why.
    int open(const PcmRequest& request, std::string* why);
    /// What is queued is discarded. Returns soon, even while a sound server holds the call up.
    void close();
    bool is_open() const { return handle_ != nullptr; }

    /// @return frames moved, or a negative error code: -EAGAIN, or one for trouble().
    int write(const uint8_t* data, int frames);
    int read(uint8_t* data, int frames);
    /// What error code @p result of a transfer means.
    Trouble trouble(int result) const;

    /// After an xrun: ready for data, capture runs again. @return 0, or an error code: the device is lost.
    int restart();
    /// After a suspend; what was queued is gone. @return 0, -EAGAIN while the hardware wakes up, or an error code.
    int resume();

    /// Frames between the application and the ear, or the microphone; negative when unknown.
    int delay();
    bool running() const;
    /// Waits for its first frames.
    bool prepared() const;

    static constexpr int kMaxDescriptors = 8;
    int descriptors(struct pollfd* fds);
    /// To be told after each poll(). @return whether a transfer, or a look at its error, is due.
    bool ready(struct pollfd* fds, int count);

    int period_frames() const { return period_frames_; }
    int buffer_frames() const { return buffer_frames_; }
    /// The kernel's numbers, as card_device().
    int card() const { return place_.card; }
    int device() const { return place_.device; }
    /// Whether the card has a control that says the request's channel status.
    bool status_set() const { return status_set_; }

private:
    struct Closer {
        int card; ///< the kernel's number; negative: it is no card's
        void operator()(snd_pcm_t* handle) const;
    };
    int set_hardware(const PcmRequest& request, std::string* why);
    int set_software(const PcmRequest& request);
    int configure(const PcmRequest& request, std::string* why);

    std::unique_ptr<snd_pcm_t, Closer> handle_{nullptr, Closer{-1}};
    bool capture_ = false;
    int period_frames_ = 0;
    int buffer_frames_ = 0;
    CardDevice place_;
    bool status_set_ = false;
};

/// Records what was asked for and what was obtained. @return the same in words
std::string note_opening(const PcmRequest& request, const Pcm& pcm, DeviceStats* stats);

/// Opens a Pcm on a thread of its own: a sound server that does not answer holds an opening up for long.
class PcmOpener
{
public:
    /// Begins to open, or looks after what began before; does not wait.
    /// @return 0: @p pcm is open; -EINPROGRESS: not yet; another error code: it cannot be opened.
    int attempt(const PcmRequest& request, Pcm* pcm);
    /// What began is of no use any more: what comes of it is closed.
    void abandon() { opening_ = nullptr; }

private:
    struct Opening;
    static void run(const std::shared_ptr<Opening>& opening);
    std::shared_ptr<Opening> opening_;
    std::string told_; ///< why a device that is back was refused
};

/**
 * Lets threads wait for a Pcm with the stream's mutex released, and whoever is
 * about to close that Pcm send them back first: a closed descriptor in poll()
 * could be another file's by then.
 */
class PollGate
{
public:
    PollGate();
    ~PollGate();
    PollGate(const PollGate&) = delete;
    PollGate& operator=(const PollGate&) = delete;

    /// Waits until @p pcm is ready (null: for the time alone), evict() is called or @p timeout_ms have passed.
    void wait(mutex_guard& guard, Pcm* pcm, int timeout_ms) NO_THREAD_SAFETY_ANALYSIS;
    /// Returns when nobody polls; with the mutex held, so that nobody can begin to. Also wakes who waits for the time.
    void evict(mutex_guard& guard) NO_THREAD_SAFETY_ANALYSIS;

private:
    int wake_fd_;
    int polling_ = 0;
    int evicting_ = 0;
    pthread_cond_t idle_ = PTHREAD_COND_INITIALIZER; ///< nobody polls
    pthread_cond_t free_ = PTHREAD_COND_INITIALIZER; ///< nobody evicts
};

} // namespace hdmi_linux
