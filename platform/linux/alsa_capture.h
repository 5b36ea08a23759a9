// SPDX-License-Identifier: MIT
/**
 * @file
 * The capture device on ALSA.
 *
 * Normally the player's reads go to the PCM. In raw pass-through a thread of
 * this class reads the PCM at the link's pace, sends the data to the digital
 * output and keeps the latest part for the player, whether it reads or not.
 */
#pragma once

#include <thread>
#include <vector>

#include "aio_device.h"
#include "alsa_matching.h"
#include "alsa_pcm.h"
#include "hdmi_linux.h"
#include "internal/locks.h"
#include "sound_ring.h"

namespace hdmi_linux
{

class Output;

class Capture
{
public:
    explicit Capture(Output& output) : output_(output) {}
    int open(const audio_config_t& config);
    int close();
    int read(uint8_t* data, int size);
    DeviceStats stats();

private:
    enum class State { closed, working, suspended, lost };

    void report_opening(const audio_config_t& config, const PcmRequest& request, int err, const std::string& why)
        REQUIRES(mutex_);
    void install(Pcm pcm, const PcmRequest& request) REQUIRES(mutex_);
    int fetch(mutex_guard& guard, uint8_t* data, int frames) REQUIRES(mutex_);
    void tell_clock() REQUIRES(mutex_);
    void note_clock() REQUIRES(mutex_);
    void end_clock() REQUIRES(mutex_);
    int fill_silence(uint8_t* data, int frames, int64_t due) REQUIRES(mutex_);
    int64_t silence_due(int64_t now) REQUIRES(mutex_);
    void note_silence(int64_t now) REQUIRES(mutex_);
    int take_forwarded(mutex_guard& guard, uint8_t* data, int frames) REQUIRES(mutex_);
    void forward(uint64_t opening, std::vector<uint8_t> period);
    bool start_forwarding(const audio_config_t& config, int rate, uint64_t opening) REQUIRES(control_);
    void end_forwarding() REQUIRES(control_);

    void handle_error(StreamError error, int err) REQUIRES(mutex_);
    void recover_xrun() REQUIRES(mutex_);
    void note_overrun() REQUIRES(mutex_);
    void lose(int err) REQUIRES(mutex_);
    int recover() REQUIRES(mutex_);
    int recover_suspend() REQUIRES(mutex_);
    int recover_loss() REQUIRES(mutex_);
    void recovered() REQUIRES(mutex_);

    Output& output_; ///< where pass-through sends

    mutex_t control_; ///< one open or close at a time; before mutex_ and the output's
    std::thread forwarder_ GUARDED_BY(control_);

    mutex_t mutex_;
    PollGate gate_;
    pthread_cond_t arrived_ = PTHREAD_COND_INITIALIZER; ///< the ring has new frames, or state_ changed
    State state_ GUARDED_BY(mutex_) = State::closed;
    uint64_t
        opening_ GUARDED_BY(mutex_) = 0; ///< number of the present opening; a call that began in an earlier one ends
    bool forwarding_ GUARDED_BY(mutex_) = false;
    int frame_bytes_ GUARDED_BY(mutex_) = 1;
    PcmRequest request_ GUARDED_BY(mutex_);
    Pcm pcm_ GUARDED_BY(mutex_);
    PcmOpener opener_ GUARDED_BY(mutex_);
    CaptureClock clock_ GUARDED_BY(mutex_); ///< of the present PCM
    int64_t clocks_ GUARDED_BY(mutex_) = 0; ///< PCMs so far
    int64_t taken_ GUARDED_BY(mutex_) = 0;  ///< frames read from the present PCM
    SoundRing ring_ GUARDED_BY(mutex_);     ///< the latest forwarded frames, for the player
    int64_t position_ GUARDED_BY(mutex_) = 0;
    int64_t retry_ns_ GUARDED_BY(mutex_) = 0;
    int64_t failed_ns_ GUARDED_BY(mutex_) = 0;
    int64_t back_ns_ GUARDED_BY(mutex_) = 0;  ///< when it last recovered
    int64_t moved_ns_ GUARDED_BY(mutex_) = 0; ///< when the last frame came from the device
    int64_t silent_ GUARDED_BY(mutex_) = 0;   ///< frames of silence since then
    int64_t
        owed_ GUARDED_BY(mutex_) = 0; ///< frames of silence to deliver before the first frame of a device that is back
    int64_t xrun_log_ns_ GUARDED_BY(mutex_) = 0;
    std::string last_refusal_ GUARDED_BY(mutex_);
    std::string last_report_ GUARDED_BY(mutex_);
    DeviceStats stats_ GUARDED_BY(mutex_);
};

Capture& capture();

} // namespace hdmi_linux
