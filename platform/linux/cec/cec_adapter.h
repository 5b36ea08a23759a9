// SPDX-License-Identifier: MIT
/**
 * @file
 * The CEC adapter that the TV's side uses: which one it is, how it is set up,
 * and how it is given back.
 */
#pragma once

#include <linux/cec.h>
#include <sys/ioctl.h>

#include <cstdint>
#include <optional>
#include <string>

#include "cec/cec_system.h"

namespace hdmi_linux
{

/// What a user asks for.
struct CecChoice {
    std::string device;     ///< empty: the first adapter that is a TV's
    std::string source;     ///< what named @ref device, for messages
    bool load_edid = false; ///< replaces an adapter's physical address, where it leaves that to programs
};

/// Not for two threads at a time. Functions that return an errno return 0 for success.
class CecAdapter
{
public:
    explicit CecAdapter(CecSystem* system) : system_(system) {}

    /**
     * Takes the adapter of @p choice. Where nobody has configured it, begins to configure it as a TV; that ends when
     * the bus allows. @return an errno, with the reason in @p refused.
     */
    int take(const CecChoice& choice, std::string* refused);
    /// After lose(): takes the adapter again, or one in its place. Does not wait. @return as take().
    int take_again(std::string* refused);
    /// The adapter of the last lose().
    const std::string& lost_path() const { return lost_path_; }
    /// The address was lost, or the claim has failed: claims it again. @return an errno.
    int configure_again();
    /// Leaves the adapter as it was found, but keeps what another program has changed meanwhile. Harmless when not
    /// open. @return what could not be undone; empty: all of it was.
    std::string give_back();
    /// The device is gone.
    void lose();

    /// Receives messages, or leaves them to the kernel, which answers them: for an address that is not a TV's.
    void listen(bool on);
    /// Whether this side configured the adapter, and no other program has changed that since.
    bool is_configured_here() const;

    bool is_open() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    const std::string& path() const { return path_; }
    /// Whether its physical address is for programs to set.
    bool is_addressable() const { return addressable_; }
    int ioctl(unsigned long request, void* argument) const { return system_->ioctl(fd_, request, argument); }
    /// A message that it cannot be used because of errno @p error.
    std::string cannot_use(int error) const;

    /// give_back() takes no longer.
    static constexpr int64_t kGiveBackMs = 1020;

private:
    struct Properties;

    static bool inspect(CecSystem* system, int fd, Properties* properties);
    int choose_and_open(std::string* refused);
    int choose(std::string* refused);
    bool may_be_the_lost(const std::string& path, const Properties& properties) const;
    int open_chosen(std::string* refused);
    bool lock();
    bool configure(bool first);
    bool claim();

    CecSystem* const system_;
    CecChoice choice_;
    std::string path_;
    std::string lost_path_; ///< of the adapter that was unplugged; empty: none was
    int fd_ = -1;
    bool listening_ = false; ///< as listen() has set it
    bool configured_here_ = false;
    bool addressable_ = false;
    std::string driver_;                     ///< the kernel driver of the adapter used last
    std::optional<uint16_t> former_address_; ///< the physical address to give back; empty: it was not changed
};

} // namespace hdmi_linux
