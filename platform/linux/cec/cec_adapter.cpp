// SPDX-License-Identifier: MIT
#include "cec/cec_adapter.h"

#include <grp.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "alsa_clock.h"

namespace hdmi_linux
{
namespace
{

/// The name that this side gives to an adapter which it configures; it recognises its configuration by that name.
constexpr char kOsdName[] = "hdmiplayer";
/// Claiming an address takes some 340 ms; the kernel refuses to take back a configuration meanwhile.
constexpr int64_t kClaimMs = 1000;
constexpr int64_t kClaimPollMs = 20;
static_assert(kClaimMs + kClaimPollMs <= CecAdapter::kGiveBackMs);
constexpr int kLockAttempts = 3;
constexpr int kLockPauseMs = 5;

/// How well an adapter serves as a TV's, the best first.
enum class Fitness { tv, root, unconnected, unfit };

int64_t now_ms() { return now_ns() / kNsPerMs; }

bool configured_as_tv(const cec_log_addrs& logical)
{
    const auto* end = logical.log_addr_type + std::min<size_t>(logical.num_log_addrs, CEC_MAX_LOG_ADDRS);
    return std::find(logical.log_addr_type, end, CEC_LOG_ADDR_TYPE_TV) != end;
}

bool configured_here(const cec_log_addrs& logical)
{
    return logical.num_log_addrs == 1 && configured_as_tv(logical) &&
           strncmp(logical.osd_name, kOsdName, sizeof(logical.osd_name)) == 0;
}

cec_log_addrs tv_configuration()
{
    cec_log_addrs tv = {};
    tv.cec_version = CEC_OP_CEC_VERSION_1_4;
    tv.num_log_addrs = 1;
    tv.vendor_id = CEC_VENDOR_ID_NONE;
    tv.log_addr_type[0] = CEC_LOG_ADDR_TYPE_TV;
    tv.primary_device_type[0] = CEC_OP_PRIM_DEVTYPE_TV;
    tv.all_device_types[0] = CEC_OP_ALL_DEVTYPE_TV;
    tv.features[0][1] = CEC_OP_FEAT_DEV_SINK_HAS_ARC_TX;
    std::copy(std::begin(kOsdName), std::end(kOsdName), tv.osd_name);
    return tv;
}

std::string named(const std::string& path, const std::string& source)
{
    return source.empty() ? path : source + ": " + path;
}

std::string cannot_open(const std::string& path, const std::string& source, int error)
{
    std::string text = named(path, source) + " cannot be opened: " + strerror(error);
    struct stat status = {};
    if (error != EACCES || stat(path.c_str(), &status) != 0)
        return text;
    char buffer[1024];
    group entry = {};
    group* found = nullptr;
    getgrgid_r(status.st_gid, &entry, buffer, sizeof(buffer), &found);
    return text + "; it is for group " + (found != nullptr ? found->gr_name : std::to_string(status.st_gid));
}

} // namespace

struct CecAdapter::Properties {
    bool addressable() const { return (capabilities & CEC_CAP_PHYS_ADDR) != 0; }
    Fitness unasked_fitness() const;
    /// @p named: the user named this adapter. Then it may look like another device's, but must not be used as such.
    Fitness fitness(bool named) const;

    uint32_t capabilities = 0;
    std::string driver;
    uint16_t physical_address = CEC_PHYS_ADDR_INVALID;
    cec_log_addrs logical = {};
    bool of_output = false; ///< belongs to a connector of this machine's own display
};

Fitness CecAdapter::Properties::unasked_fitness() const
{
    if ((capabilities & CEC_CAP_TRANSMIT) == 0)
        return Fitness::unfit;
    const bool used = logical.num_log_addrs != 0;
    if (used ? !configured_as_tv(logical) : (capabilities & CEC_CAP_LOG_ADDRS) == 0 || of_output)
        return Fitness::unfit;
    if (physical_address == 0)
        return used ? Fitness::tv : Fitness::root;
    return physical_address == CEC_PHYS_ADDR_INVALID ? Fitness::unconnected : Fitness::unfit;
}

Fitness CecAdapter::Properties::fitness(bool named) const
{
    const Fitness fit = unasked_fitness();
    constexpr uint32_t kNeeded = CEC_CAP_TRANSMIT | CEC_CAP_LOG_ADDRS;
    const bool usable =
        (capabilities & kNeeded) == kNeeded && (logical.num_log_addrs == 0 || configured_as_tv(logical));
    return named && usable && fit == Fitness::unfit ? Fitness::unconnected : fit;
}

// Sets errno.
bool CecAdapter::inspect(CecSystem* system, int fd, Properties* properties)
{
    cec_caps caps = {};
    if (system->ioctl(fd, CEC_ADAP_G_CAPS, &caps) != 0 ||
        system->ioctl(fd, CEC_ADAP_G_PHYS_ADDR, &properties->physical_address) != 0 ||
        system->ioctl(fd, CEC_ADAP_G_LOG_ADDRS, &properties->logical) != 0)
        return false;
    properties->capabilities = caps.capabilities;
    properties->driver.assign(caps.driver, strnlen(caps.driver, sizeof(caps.driver)));
    cec_connector_info connector = {};
    properties->of_output = (caps.capabilities & CEC_CAP_CONNECTOR_INFO) != 0 &&
                            system->ioctl(fd, CEC_ADAP_G_CONNECTOR_INFO, &connector) == 0 &&
                            connector.type == CEC_CONNECTOR_TYPE_DRM;
    return true;
}

// --- Choosing ---------------------------------------------------------------

int CecAdapter::take(const CecChoice& choice, std::string* refused)
{
    choice_ = choice;
    lost_path_.clear();
    int error = 0;
    for (int attempt = 1; (error = choose_and_open(refused)) != 0; ++attempt) {
        // Another player may be inspecting the adapter at this moment, or has taken it. Then the next best is tried.
        if (error != EBUSY || attempt == kLockAttempts)
            break;
        ::poll(nullptr, 0, kLockPauseMs);
    }
    return error;
}

int CecAdapter::take_again(std::string* refused) { return choose_and_open(refused); }

std::string CecAdapter::cannot_use(int error) const
{
    const char* why = error == EBUSY    ? "another player or program has it"
                      : error == ENODEV ? "it is no TV's"
                                        : strerror(error);
    return named(path_, choice_.source) + " cannot be used: " + why;
}

int CecAdapter::choose_and_open(std::string* refused)
{
    const int error = choose(refused);
    return error == 0 ? open_chosen(refused) : error;
}

// Sets path_ to the best adapter that may be taken. Another player holds the lock of the adapter that it uses: such an
// adapter is left out.
int CecAdapter::choose(std::string* refused)
{
    refused->clear();
    int error = ENODEV;
    Fitness best = Fitness::unfit;
    std::vector<std::string> candidates(1, choice_.device);
    if (choice_.device.empty())
        candidates = system_->devices();
    for (const std::string& path : candidates) {
        const int fd = system_->open(path.c_str());
        if (fd < 0) {
            error = errno;
            *refused = cannot_open(path, choice_.source, error);
            continue;
        }
        Properties found;
        const Fitness fit = inspect(system_, fd, &found) ? found.fitness(!choice_.device.empty()) : Fitness::unfit;
        const bool better = fit < best && (fit != Fitness::unconnected || may_be_the_lost(path, found));
        const bool ours = better && system_->lock(fd);
        system_->close(fd);
        if (ours) {
            best = fit;
            path_ = path;
        } else if (better) {
            error = EBUSY;
            *refused = named(path, choice_.source) + " cannot be used: another player has it";
        }
    }
    if (best != Fitness::unfit)
        return 0;
    if (refused->empty())
        *refused = choice_.device.empty() ? "no CEC adapter of a TV"
                                          : named(choice_.device, choice_.source) + " is no CEC adapter of a TV";
    return error;
}

// An adapter without a cable is accepted only if it is the one that was lost. Where programs set the physical address,
// an adapter has none before it is configured: it is recognised by its driver, as it may return under another number.
bool CecAdapter::may_be_the_lost(const std::string& path, const Properties& properties) const
{
    return lost_path_.empty() || path == lost_path_ || (properties.addressable() && properties.driver == driver_);
}

// --- Setting up -------------------------------------------------------------

// Opens the adapter of path_ and sets it up. Does not wait.
int CecAdapter::open_chosen(std::string* refused)
{
    fd_ = system_->open(path_.c_str());
    if (fd_ < 0) {
        const int error = errno;
        *refused = cannot_use(error);
        return error;
    }
    configured_here_ = listening_ = false;
    former_address_.reset();
    uint32_t mode = CEC_MODE_INITIATOR | CEC_MODE_FOLLOWER;
    if (lock() && ioctl(CEC_S_MODE, &mode) == 0 && configure(true)) {
        listening_ = true;
        return 0;
    }
    const int error = errno;
    const std::string fault = give_back();
    *refused = cannot_use(error) + (fault.empty() ? "" : "; " + fault);
    return error;
}

// Two players on one adapter would both answer every message. Sets errno.
bool CecAdapter::lock()
{
    const bool ours = system_->lock(fd_);
    if (!ours)
        errno = EBUSY;
    return ours;
}

int CecAdapter::configure_again() { return configure(false) ? 0 : errno; }

// A TV has the physical address 0.0.0.0, which is set here where the driver does not know it. Another program's
// configuration stays as it is. One that a killed player left is taken over. @p first: the first call after the
// opening. Sets errno.
bool CecAdapter::configure(bool first)
{
    Properties found;
    if (!inspect(system_, fd_, &found))
        return false;
    // Another program may have taken it since it was chosen.
    errno = found.logical.num_log_addrs != 0 ? EBUSY : ENODEV;
    if (found.fitness(!choice_.device.empty()) == Fitness::unfit)
        return false;
    addressable_ = found.addressable();
    driver_ = found.driver;
    configured_here_ = configured_here(found.logical);
    if (found.logical.num_log_addrs != 0) {
        if (first && configured_here_ && addressable_ && found.physical_address == 0)
            former_address_ = CEC_PHYS_ADDR_INVALID;
        if (!configured_here_ || found.logical.log_addr_mask != 0)
            return true;
    }
    uint16_t root = 0;
    if (addressable_ && found.physical_address != root &&
        (choice_.load_edid || found.physical_address == CEC_PHYS_ADDR_INVALID)) {
        if (ioctl(CEC_ADAP_S_PHYS_ADDR, &root) != 0)
            return false;
        if (!former_address_)
            former_address_ = found.physical_address;
    }
    return claim();
}

// Begins to claim the TV's logical address, unless that is under way. Sets errno.
bool CecAdapter::claim()
{
    cec_log_addrs tv = tv_configuration();
    const bool begun = ioctl(CEC_ADAP_S_LOG_ADDRS, &tv) == 0;
    configured_here_ = configured_here_ || begun;
    return configured_here_;
}

bool CecAdapter::is_configured_here() const
{
    cec_log_addrs logical = {};
    return configured_here_ && ioctl(CEC_ADAP_G_LOG_ADDRS, &logical) == 0 && configured_here(logical);
}

void CecAdapter::listen(bool on)
{
    uint32_t mode = CEC_MODE_INITIATOR | (on ? CEC_MODE_FOLLOWER : CEC_MODE_NO_FOLLOWER);
    if (on != listening_ && ioctl(CEC_S_MODE, &mode) == 0)
        listening_ = on;
}

// --- Giving back ------------------------------------------------------------

std::string CecAdapter::give_back()
{
    std::string fault;
    if (fd_ < 0)
        return fault;
    const int64_t deadline = now_ms() + kClaimMs;
    while (is_configured_here()) {
        cec_log_addrs none = {};
        if (ioctl(CEC_ADAP_S_LOG_ADDRS, &none) == 0)
            break;
        if (errno != EBUSY || now_ms() >= deadline) {
            fault = path_ + " keeps the configuration of a TV: " + strerror(errno);
            break;
        }
        ::poll(nullptr, 0, kClaimPollMs);
    }
    cec_log_addrs logical = {};
    uint16_t address = 0;
    if (former_address_ && ioctl(CEC_ADAP_G_LOG_ADDRS, &logical) == 0 && logical.num_log_addrs == 0 &&
        ioctl(CEC_ADAP_G_PHYS_ADDR, &address) == 0 && address == 0)
        ioctl(CEC_ADAP_S_PHYS_ADDR, &*former_address_);
    system_->close(fd_);
    fd_ = -1;
    return fault;
}

void CecAdapter::lose()
{
    system_->close(fd_);
    fd_ = -1;
    lost_path_ = path_;
}

} // namespace hdmi_linux
