// SPDX-License-Identifier: MIT
/**
 * @file
 * What the Linux platform offers programs beyond the three seams: a check of its
 * configuration before the player is opened, and counters to read while it runs.
 *
 * The configuration is the file /etc/hdmiplayer/linux.conf, or the one that
 * HDMIPLAYER_LINUX_CONFIG names. Environment variables override it, and so does
 * hdmi_linux_set_device(); docs/linux.md lists the keys. It is read again whenever
 * a device is opened or selected. All functions may be called from any thread.
 */
#ifndef HDMI_LINUX_H
#define HDMI_LINUX_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* --- The receiver's driver ----------------------------------------------------- */

/**
 * The player learns what its input receives from the driver of an HDMI receiver,
 * which an ordinary capture card does not have. This stands in for that driver:
 * it finds the format and the rate by the card's controls and by the sound that
 * is captured, announces them to the player of this process, and follows every
 * change. One call, at the start of main(); it listens to the card (hdmi_in of
 * the configuration) for at most half a second. On a machine with such a driver
 * it announces nothing, and only notes events.
 *
 * Without a change to the host: `hdmi-player-run -- HOST ARGUMENTS`, or
 * HDMIPLAYER_LINUX_RECEIVER=1 in the environment of a host on this platform.
 *
 * The player's library must be loaded, and it must be a shared library or a part
 * of a program that is linked dynamically with the C library.
 * @param error receives one line of at most @p size bytes, empty on success; may be null
 * @return 0, also while it follows already; -1 on failure
 */
int hdmi_linux_receiver_start(char* error, size_t size);
/** Announces nothing more. Harmless when not started. */
void hdmi_linux_receiver_stop(void);

/** What the stand-in announced, or found wrong. */
typedef struct hdmi_linux_receiver_event {
    int64_t time_ns; /**< CLOCK_MONOTONIC */
    bool announced;  /**< the text is the state announced; false: a line about a source that is not at that rate */
    char text[119];
} hdmi_linux_receiver_event_t;
/**
 * Copies the last @p count events, oldest first; at most 256 are kept.
 * @return how many are kept
 */
int hdmi_linux_receiver_events(hdmi_linux_receiver_event_t* events, int count);

/* --- Configuration and counters, as hosts in C read them -------------------------- */

/**
 * Names the PCM of a device, before what the environment and the file name: for
 * a host that finds its devices itself, or lets its user choose. It counts from
 * the next opening or selection of the device on.
 * @param key as in the file: "speaker", "hdmi_in", ...
 * @param pcm ALSA's name; null or empty: the environment and the file count again
 * @return 0; -1 for an unknown key
 */
int hdmi_linux_set_device(const char* key, const char* pcm);
/**
 * Whether the configuration can be used as it is; see hdmi_linux::check_config().
 * @param error receives one line for each fault, as far as @p size goes; may be null
 */
bool hdmi_linux_check_config(char* error, size_t size);

/** Counters of one direction's device since the library was loaded. */
typedef struct hdmi_linux_device {
    bool open;
    bool lost;           /**< open, but the device behind it is gone and has not come back yet */
    int64_t opens;       /**< by the player */
    int64_t frames;      /**< written by the player, or read by it */
    int64_t xruns;       /**< underruns of the playback device, overruns of the capture device */
    int64_t suspends;    /**< times that the device was found suspended */
    int64_t losses;      /**< times that the device went away or stopped taking sound */
    int64_t recoveries;  /**< times that it came back */
    int64_t recovery_us; /**< how long the last recovery took */
    int64_t frames_lost; /**< frames whose time passed in silence while there was no device */
    int rate;            /**< Hz */
    int period_frames;
    int period_count;
    char pcm[108];       /**< ALSA's name */
    bool matched;        /**< playback: what is played is resampled from the capture device's clock */
    double matching_ppm; /**< by how much that clock is faster, as the ratio has it; 0 while it is not known */
} hdmi_linux_device_t;
hdmi_linux_device_t hdmi_linux_playback(void);
hdmi_linux_device_t hdmi_linux_capture(void);

/** Raw pass-through to a digital output. */
typedef struct hdmi_linux_bypass {
    bool active;
    bool lost;       /**< the output is not there: captured frames are dropped */
    int64_t frames;  /**< passed to the output */
    int64_t dropped; /**< not passed on */
    int64_t xruns;
    int64_t slips; /**< times that stuffing was left out or inserted because the two clocks differ */
    int rate;      /**< Hz */
    char pcm[108];
} hdmi_linux_bypass_t;
hdmi_linux_bypass_t hdmi_linux_bypass(void);

/** The audio return channel. */
typedef struct hdmi_linux_arc {
    bool adapter;        /**< a CEC adapter is taken */
    bool lost;           /**< taken, but the device is gone */
    bool active;         /**< the channel is open */
    int64_t activations; /**< times that it was opened */
    int64_t received;    /**< messages */
    int64_t sent;        /**< messages that were acknowledged */
    int64_t undelivered; /**< messages that were not */
    char device[32];     /**< such as "/dev/cec0" */
    char note[128];      /**< the last message about the channel; empty: none yet */
} hdmi_linux_arc_t;
hdmi_linux_arc_t hdmi_linux_arc(void);

#ifdef __cplusplus
}

#include <string>
#include <vector>

#pragma GCC visibility push(default)

namespace hdmi_linux
{

/**
 * Whether the configuration can be used as it is: no unknown key, no value of
 * a wrong type, every device, mixer and mixer control that it names is there.
 * A device that is busy is there. Opens the named devices for a moment.
 *
 * The devices themselves are more lenient: they ignore a faulty line and log it
 * once. An interactive program calls this first and shows the faults.
 * @param error receives one line for each fault, "file:line: key: what is wrong"; may be null.
 */
bool check_config(std::string* error);

/// Counters of one direction's device since the library was loaded. The last nine fields belong to the present or last
/// opening.
struct DeviceStats {
    bool open = false;       ///< between a successful aio_device_open and aio_device_close
    bool lost = false;       ///< open, but the device behind it is gone and has not come back yet
    int64_t opens = 0;       ///< by aio_device_open
    int64_t frames = 0;      ///< written by the player, or read by it
    int64_t xruns = 0;       ///< underruns of the playback device, overruns of the capture device
    int64_t suspends = 0;    ///< times that the device was found suspended
    int64_t losses = 0;      ///< times that the device went away or stopped taking sound
    int64_t recoveries = 0;  ///< times that it came back after a suspend or loss
    int64_t recovery_us = 0; ///< how long the last recovery took, from the failure to the device at work again
    int64_t frames_lost = 0; ///< frames whose time passed in silence while there was no device
    int64_t left_out = 0;    ///< written frames that were not played: they came too late after an underrun
    int64_t refilled = 0;    ///< frames of silence that were played beside the written ones after an underrun
    int64_t reselects = 0;   ///< moves to another device
    int64_t queued = 0;      ///< frames written by the player and not heard yet, by the latest write and the time since
    int64_t waiting = 0;     ///< frames captured and not read yet when the latest read ended: how old its sound was
    /// Capture, where the stand-in follows it: link frames for each sample, by the bursts seen last; 4 for E-AC-3.
    int frames_per_sample = 1;
    bool matched = false;    ///< playback: what is played is resampled from the capture device's clock
    double matching_ppm = 0; ///< by how much that clock is faster, as the ratio has it; 0 while it is not known
    std::string pcm;         ///< ALSA's name
    int rate = 0;            ///< Hz
    int period_frames = 0;   ///< obtained
    int period_count = 0;    ///< obtained
    int asked_period_frames = 0;
    int asked_period_count = 0;
};
DeviceStats playback_stats();
DeviceStats capture_stats();

/// Raw pass-through: a capture device opened with bypass mode TO_RAW feeds S/PDIF or ARC by itself.
struct BypassStats {
    bool active = false;
    bool lost = false;      ///< the output is not there: captured frames are dropped
    int64_t frames = 0;     ///< passed to the output
    int64_t dropped = 0;    ///< not passed on: there was no output, or it took frames more slowly than they came
    int64_t xruns = 0;      ///< of the output
    int64_t slips = 0;      ///< times that stuffing was left out or inserted because the two clocks differ
    int64_t recoveries = 0; ///< of the output
    std::string pcm;        ///< ALSA's name, with its status bits
    int rate = 0;           ///< Hz
};
BypassStats bypass_stats();

/// The audio return channel, as this side knows it.
enum class ArcState {
    idle,       ///< not asked for, no link, or the attempts to open it are over
    requested,  ///< asked for, and the audio system has not opened it yet
    active,     ///< open
    terminated, ///< was closed, by the audio system or by vendor_hdmi_cec_deinit
};

/// The CEC adapter between vendor_hdmi_cec_init and vendor_hdmi_cec_deinit, and afterwards as it was at the end.
struct CecStats {
    bool open = false;     ///< taken
    bool lost = false;     ///< taken, but the device is gone; it is looked for every second
    bool attached = false; ///< has the TV's logical address and a physical one: messages can pass
    ArcState arc = ArcState::idle;
    std::string device;            ///< such as "/dev/cec0"
    std::string note;              ///< the last message about the channel; empty: none yet
    int64_t activations = 0;       ///< times that the channel was opened
    int64_t received = 0;          ///< messages
    int64_t sent = 0;              ///< messages that were acknowledged
    int64_t undelivered = 0;       ///< messages that were not
    int64_t refusals = 0;          ///< messages answered with <Feature Abort>
    int physical_address = 0xFFFF; ///< four digits of four bits; 0xFFFF: none
};
CecStats cec_stats();

/// A message that was received or sent.
struct CecMessage {
    int64_t time_ns;   ///< CLOCK_MONOTONIC: when it was received, or when the result of sending it was known
    bool sent;         ///< by this program
    bool delivered;    ///< acknowledged
    uint8_t length;    ///< in bytes
    uint8_t bytes[16]; ///< initiator and destination, opcode, operands
};
/// The last messages, at most 256, oldest first.
std::vector<CecMessage> cec_messages();

} // namespace hdmi_linux

#pragma GCC visibility pop

#endif

#endif
