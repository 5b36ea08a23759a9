// SPDX-License-Identifier: MIT
/**
 * @file
 * The playback device on ALSA.
 *
 * A ring keeps what the player writes until it has been heard. When the player
 * moves to another device, or a lost one comes back, the frames that were not
 * heard yet are queued again. While there is no device, time passes as with one:
 * writes take as long and the delay falls as fast. So the video keeps its audio
 * clock, and the sound comes back in sync.
 *
 * Where the capture device has another clock, the ring holds what was resampled for this one. Positions are frames of
 * the ring; the player's frames are counted in stats_ only, and in what delay() tells.
 */
#pragma once

#include <memory>

#include "alsa_matching.h"
#include "alsa_pcm.h"
#include "alsa_volume.h"
#include "config.h"
#include "hdmi_linux.h"
#include "internal/locks.h"
#include "output_reserve.h"
#include "sound_ring.h"

namespace hdmi_linux
{

class Playback
{
public:
    /// @p config is a valid_playback().
    int open(const audio_config_t& config);
    int close();
    int write(const uint8_t* data, int size);
    int delay(int* frames);
    /// The two are a valid_output().
    int reselect(int device_id, int output_fmt);
    int set_volume(int percent);
    int set_direct_volume(int value);
    int set_mute(bool mute);
    bool is_open();
    DeviceStats stats();
    /// Tells of the capture device. From its thread; does not wait.
    void captured(const CaptureClock& clock) NO_THREAD_SAFETY_ANALYSIS { matching_.captured(clock); }

    /// If it plays on output @p device: closes the PCM and goes on without one until reclaim_output(), reselect() or
    /// close().
    void yield_output(int device);
    void reclaim_output();

private:
    enum class State {
        closed,
        working,
        suspended, ///< the PCM is open and wakes up
        lost,      ///< there is no PCM; it is opened again at retry_ns_
        yielded,   ///< there is no PCM; another stream has the output
    };

    PcmRequest request_for(const Config& config, int device) const REQUIRES(mutex_);
    void begin(const audio_config_t& config) REQUIRES(mutex_);
    void install(Pcm pcm, const PcmRequest& request, const Config& config) REQUIRES(mutex_);
    void select(int device_id) REQUIRES(mutex_);
    int move_to(mutex_guard& guard, int device_id) REQUIRES(mutex_);

    // The flow of frames, counted from open(): ring_.end() were put into the ring, sent_ of them passed to the device,
    // heard() of those played.
    int64_t heard(int64_t now) const REQUIRES(mutex_);
    int device_delay(int64_t now) REQUIRES(mutex_);
    int queued(int64_t now) REQUIRES(mutex_);
    void note_heard(int64_t now) REQUIRES(mutex_);
    void note_clock(int64_t now) REQUIRES(mutex_);
    void freeze_heard(int64_t now) REQUIRES(mutex_);
    int room(int64_t now) const REQUIRES(mutex_);
    bool taken() const REQUIRES(mutex_);
    int keep_reserve(int frames, int64_t now) REQUIRES(mutex_);
    int accept(const uint8_t* data, int frames, int64_t now) REQUIRES(mutex_);
    void pump(int64_t now) REQUIRES(mutex_);
    int send(SoundRing::Piece piece, int64_t now) REQUIRES(mutex_);
    void wait(mutex_guard& guard, int64_t now) REQUIRES(mutex_);

    // Errors and recovery.
    void handle_error(StreamError error, int err, int64_t now) REQUIRES(mutex_);
    void recover_xrun(int64_t now) REQUIRES(mutex_);
    void lose(int err, int64_t now) REQUIRES(mutex_);
    void give_up_pcm(State state, int64_t now) REQUIRES(mutex_);
    void give_up_working_pcm(State state) REQUIRES(mutex_);
    void recover(int64_t now) REQUIRES(mutex_);
    void recover_suspend(int64_t now) REQUIRES(mutex_);
    void recover_loss(int64_t now) REQUIRES(mutex_);
    void requeue_from(int64_t position, int64_t now) REQUIRES(mutex_);
    void resume_flow(int64_t position, int64_t now) REQUIRES(mutex_);

    mutex_t mutex_;
    PollGate gate_;
    State state_ GUARDED_BY(mutex_) = State::closed;
    uint64_t
        opening_ GUARDED_BY(mutex_) = 0; ///< number of the present opening; a call that began in an earlier one ends
    audio_config_t config_ GUARDED_BY(mutex_) = {};
    PcmRequest request_ GUARDED_BY(mutex_);
    Pcm pcm_ GUARDED_BY(mutex_);
    PcmOpener opener_ GUARDED_BY(mutex_);
    Matching matching_ GUARDED_BY(mutex_); ///< but for captured()
    clocks::OutputReserve reserve_ GUARDED_BY(mutex_);
    Volume volume_ GUARDED_BY(mutex_);
    GainRamp gain_ GUARDED_BY(mutex_);
    std::unique_ptr<int16_t[]> scaled_ GUARDED_BY(mutex_); ///< one period, scaled for the device
    SoundRing ring_ GUARDED_BY(mutex_);
    int64_t sent_ GUARDED_BY(mutex_) = 0;
    int64_t heard_ GUARDED_BY(mutex_) = 0; ///< at heard_ns_; it goes on from there if moving_
    int64_t heard_ns_ GUARDED_BY(mutex_) = 0;
    bool moving_ GUARDED_BY(mutex_) = false;
    int64_t started_at_ GUARDED_BY(mutex_) = 0; ///< heard_ when the device last started
    int64_t started_ns_ GUARDED_BY(mutex_) = 0;
    int64_t progress_ns_ GUARDED_BY(mutex_) = 0; ///< when the device last took a frame
    int64_t retry_ns_ GUARDED_BY(mutex_) = 0;
    int64_t failed_ns_ GUARDED_BY(mutex_) = 0; ///< when the device was lost or suspended
    int64_t back_ns_ GUARDED_BY(mutex_) = 0;   ///< when it last recovered
    int64_t lost_at_ GUARDED_BY(mutex_) = 0;   ///< heard_ at that time
    int64_t xrun_log_ns_ GUARDED_BY(mutex_) = 0;
    std::string last_refusal_ GUARDED_BY(mutex_);
    std::string last_report_ GUARDED_BY(mutex_);
    DeviceStats stats_ GUARDED_BY(mutex_);
};

} // namespace hdmi_linux
