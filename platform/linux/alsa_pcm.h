// SPDX-License-Identifier: MIT
/**
 * @file
 * One open PCM of alsa-lib: 16-bit interleaved, never blocking in a transfer.
 *
 * Not for two threads at a time: its owner holds a mutex around every call. Only
 * poll() on its descriptors runs without.
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
    int start_periods = 1;               ///< playback starts when this many periods are queued
    bool resample = false;               ///< the named PCM may convert the rate
    std::optional<ChannelStatus> status; ///< for the control of a digital output's card
};

/// Adds the channel status to @p request for a digital output: its rate, and whether it carries coded data. Does
/// nothing if the PCM's name already carries AES parameters.
void apply_channel_status(PcmRequest* request, bool non_audio);

/// Why a transfer moved no frame.
enum class StreamError {
    none,      ///< no error: there is no room, or no data
    xrun,      ///< restart() recovers
    suspended, ///< resume() recovers
    lost,      ///< only a new opening recovers
};

/// The kernel's numbers of a PCM's card and device; -1: the PCM belongs to no card, but to a sound server, for example.
struct CardDevice {
    int card = -1;
    int device = -1;
};
CardDevice card_device(snd_pcm_t* pcm);

/// Frames in a PCM's buffer, and when that was so (CLOCK_MONOTONIC).
struct PcmStamp {
    int64_t ns;
    int frames; ///< written and not played yet, or captured and not read yet
};

class Pcm
{
public:
    /// Opens and configures; capture also starts. @return 0, or an error code with its reason in @p why.
    int open(const PcmRequest& request, std::string* why);
    /// Discards what is queued. Returns within half a second, even while a sound server does not answer.
    void close();
    bool is_open() const { return handle_ != nullptr; }

    /// @return frames moved, or a negative error code for classify().
    int write(const uint8_t* data, int frames);
    int read(uint8_t* data, int frames);
    /// What error code @p result of a transfer means.
    StreamError classify(int result) const;

    /// After an xrun: makes the device ready for data, and starts capture. @return 0, or an error code: it is lost.
    int restart();
    /// After a suspend; discards what was queued. @return 0, -EAGAIN while the hardware wakes up, or an error code.
    int resume();

    /// Frames that were written and are not heard yet, or captured and not read yet; negative when unknown.
    int delay();
    /**
     * For the estimate of the device's clock. A card's count is that of its last interrupt, with the time of that
     * interrupt, and so is exact however late this thread is. A transfer, and delay(), replace it by one of their own
     * time, which is less exact where a driver counts in steps of milliseconds: ask before them.
     * @return nothing while the device does not run, and until the first interrupt after such a call
     */
    std::optional<PcmStamp> stamp();
    bool running() const;
    /// Whether it is open but not started.
    bool prepared() const;

    static constexpr int kMaxDescriptors = 8;
    int descriptors(struct pollfd* fds);
    /// To be called after each poll(). @return whether a transfer can move frames or report an error.
    bool ready(struct pollfd* fds, int count);

    int period_frames() const { return period_frames_; }
    int buffer_frames() const { return buffer_frames_; }
    /// The kernel's numbers, as card_device().
    int card() const { return place_.card; }
    int device() const { return place_.device; }
    /// Whether a control of the card was set to the request's channel status.
    bool status_set() const { return status_set_; }

private:
    struct Closer {
        int card; ///< as CardDevice
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
    int64_t touched_ns_ = 0; ///< after the last call that had the kernel look at the device
    bool status_set_ = false;
};

/// Records what was requested and obtained. @return the same in words.
std::string note_opening(const PcmRequest& request, const Pcm& pcm, DeviceStats* stats);

/// Opens a Pcm on a thread of its own, because an open blocks while a sound server does not answer.
class PcmOpener
{
public:
    /// Begins to open, or asks for the result of the opening that began before. Does not wait.
    /// @return 0: @p pcm is open; -EINPROGRESS: not yet; another error code: it cannot be opened.
    int attempt(const PcmRequest& request, Pcm* pcm);
    /// Gives up the opening that began before; a Pcm that it still opens is closed.
    void abandon() { opening_ = nullptr; }

private:
    struct Opening;
    static void run(const std::shared_ptr<Opening>& opening);
    std::shared_ptr<Opening> opening_;
    std::string last_refusal_; ///< why a device that is back could not be opened, as it was logged
};

/**
 * Lets threads wait for a Pcm without the stream's mutex. Before a Pcm is
 * closed, evict() ends these waits: the number of a closed descriptor may belong
 * to another file by the time that poll() uses it.
 */
class PollGate
{
public:
    PollGate();
    ~PollGate();
    PollGate(const PollGate&) = delete;
    PollGate& operator=(const PollGate&) = delete;

    /// Waits until @p pcm is ready (null: no Pcm), evict() is called or @p timeout_ms have passed.
    void wait(mutex_guard& guard, Pcm* pcm, int timeout_ms) NO_THREAD_SAFETY_ANALYSIS;
    /// A transfer moved frames: the waits before it were not in vain. With the mutex held.
    void moved() { ready_waits_ = 0; }
    /// Ends all waits. Returns when no thread polls, with the mutex held, so that none can begin.
    void evict(mutex_guard& guard) NO_THREAD_SAFETY_ANALYSIS;

private:
    int wake_fd_;
    int polling_ = 0;
    int evicting_ = 0;
    int ready_waits_ = 0;                            ///< that found the Pcm ready, since frames were moved
    pthread_cond_t idle_ = PTHREAD_COND_INITIALIZER; ///< polling_ is 0
    pthread_cond_t free_ = PTHREAD_COND_INITIALIZER; ///< evicting_ is 0
};

} // namespace hdmi_linux
