// SPDX-License-Identifier: MIT
/**
 * @file
 * What the Linux platform offers programs beyond the three seams: a look at its
 * configuration before the player is opened, and counters to read while it runs.
 *
 * The configuration is the file /etc/hdmiplayer/linux.conf, or the one that
 * HDMIPLAYER_LINUX_CONFIG names, with environment variables over it; docs/linux.md
 * lists the keys. It is read again whenever a device is opened. All functions
 * may be called from any thread.
 */
#pragma once

#include <cstdint>
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
 * The devices themselves are more lenient: a line at fault counts as missing,
 * and they say so in one message. A program with a user in front of it calls
 * this first and ends with status 2.
 * @param error receives one line for each fault, "file:line: key: what is wrong"; may be null.
 */
bool check_config(std::string* error);

/// One direction's device since the library was loaded. The last six fields are those of the present or last opening.
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
    int64_t frames_lost = 0; ///< while there was no device: their time passed in silence
    int64_t reselects = 0;   ///< moves to another device
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
    bool lost = false;      ///< the output is not there: what is captured goes nowhere
    int64_t frames = 0;     ///< handed to the output
    int64_t dropped = 0;    ///< not handed on: no output, or it took them more slowly than they came
    int64_t xruns = 0;      ///< of the output
    int64_t slips = 0;      ///< corrections of the queue for two clocks: stuffing left out or put in
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
    std::string note;              ///< what was last said of the channel, in words; empty: nothing yet
    int64_t activations = 0;       ///< times that the channel was opened
    int64_t received = 0;          ///< messages
    int64_t sent = 0;              ///< messages that were acknowledged
    int64_t undelivered = 0;       ///< messages that were not
    int64_t refusals = 0;          ///< messages answered with <Feature Abort>
    int physical_address = 0xFFFF; ///< four digits of four bits; 0xFFFF: none
};
CecStats cec_stats();

/// A message that passed the adapter, in or out.
struct CecMessage {
    int64_t time_ns;   ///< CLOCK_MONOTONIC: when it was received, or when its fate was known
    bool sent;         ///< by this program
    bool delivered;    ///< acknowledged
    uint8_t length;    ///< in bytes
    uint8_t bytes[16]; ///< initiator and destination, opcode, operands
};
/// The last messages, at most 256, oldest first.
std::vector<CecMessage> cec_messages();

} // namespace hdmi_linux

#pragma GCC visibility pop
