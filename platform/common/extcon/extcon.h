// SPDX-License-Identifier: MIT
/**
 * @file
 * Stands in for the driver of the HDMI receiver, which announces what the source
 * sends: its state file, and a uevent at each change. There are two ways for an
 * announcement to reach the player:
 *
 * - Private namespaces: a real file, and the kernel's netlink. The whole process
 *   leaves the machine's mounts and network, which not every machine permits.
 * - In the process: the player's own calls that open the file and the socket are
 *   answered here. It needs no permission, and touches nothing but the player.
 *
 * All functions may be called from any thread.
 */
#pragma once

#include <memory>
#include <string>

namespace extcon
{

constexpr char kStateFile[] = "/sys/class/extcon/hdmirx_aud/state";

/// Where announcements go.
class Channel
{
public:
    virtual ~Channel() = default;
    /// What a reader of the state file finds from now on: the old or the new text, never a part.
    virtual bool write_state(const std::string& text) = 0;
    virtual bool send(const std::string& message) = 0;
};

/// Both return null with one line in @p error. What is private stays so for the rest of the process's life.
std::unique_ptr<Channel> open_namespaces(std::string* error);
std::unique_ptr<Channel> open_process(std::string* error);

/**
 * The way by which this process announces. Each may be called again, and then
 * does nothing; the first that succeeded stays.
 * @return false with one line in @p error
 */
bool use_namespaces(std::string* error);
bool use_process(std::string* error);
/// Namespaces where the machine permits them, else in the process.
bool use_either(std::string* error);

/// The driver's name of a state, e.g. state_text(true, 44100) is "HEADDONE_COMP_44=1"; empty for other rates.
std::string state_text(bool compressed, int sample_rate);

// They fail with errno EPERM while there is no way yet.

/// Writes the state file only.
bool write_state(const std::string& text);
/// Writes the state file and sends the uevent, as the driver does at a change.
bool announce(const std::string& state);
/// Sends one uevent: NUL-separated strings as they are.
bool send_uevent(const std::string& message);

} // namespace extcon
