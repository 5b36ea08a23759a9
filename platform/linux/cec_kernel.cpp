// SPDX-License-Identifier: MIT
#include "cec_kernel.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "alsa_clock.h"
#include "config.h"
#include "hdmi_cec.h"
#include "internal/common.h"

#define CEC_EXPORT __attribute__((visibility("default")))

namespace hdmi_linux
{
namespace
{

/// The name that this side gives an adapter which it configures, and knows it by.
constexpr char kOsdName[] = "hdmiplayer";
/// Longer than the protocol waits for the fate of a message: the kernel lost it.
constexpr int64_t kFateMs = 6000;
/// How often an adapter that was unplugged is looked for.
constexpr int64_t kReopenMs = 1000;
/// Claiming an address takes some 340 ms; the kernel refuses to take back a configuration meanwhile.
constexpr int64_t kClaimMs = 1000;
constexpr int64_t kClaimPollMs = 20;
constexpr int kLockAttempts = 3;
constexpr int kLockPauseMs = 5;
static_assert(cec_arc::TvSide::kCloseMs + kClaimMs + kClaimPollMs < CecLink::kStopMs, "the last calls take time too");
/// A claim that has not ended by then has failed, or nearly so; the kernel does not repeat it.
constexpr int64_t kClaimFailedMs = 4000;
constexpr int kMessagesPerRound = 64;
constexpr size_t kLogMessages = 256;

int64_t now_ms() { return now_ns() / kNsPerMs; }

// What an adapter is good for here, the best first.
enum class Fitness { tv, root, unconnected, unfit };

} // namespace

struct CecAdapter {
    /// Whether its physical address is for programs to set.
    bool addressable() const { return (capabilities & CEC_CAP_PHYS_ADDR) != 0; }

    uint32_t capabilities = 0;
    std::string driver;
    uint16_t physical_address = CEC_PHYS_ADDR_INVALID;
    cec_log_addrs logical = {};
    bool of_output = false; ///< belongs to a connector to which this machine sends pictures
};

namespace
{

bool inspect(CecSystem* system, int fd, CecAdapter* adapter)
{
    cec_caps caps = {};
    if (system->ioctl(fd, CEC_ADAP_G_CAPS, &caps) != 0 ||
        system->ioctl(fd, CEC_ADAP_G_PHYS_ADDR, &adapter->physical_address) != 0 ||
        system->ioctl(fd, CEC_ADAP_G_LOG_ADDRS, &adapter->logical) != 0)
        return false;
    adapter->capabilities = caps.capabilities;
    adapter->driver.assign(caps.driver, strnlen(caps.driver, sizeof(caps.driver)));
    cec_connector_info connector = {};
    adapter->of_output = (caps.capabilities & CEC_CAP_CONNECTOR_INFO) != 0 &&
                         system->ioctl(fd, CEC_ADAP_G_CONNECTOR_INFO, &connector) == 0 &&
                         connector.type == CEC_CONNECTOR_TYPE_DRM;
    return true;
}

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

Fitness unasked_fitness(const CecAdapter& adapter)
{
    if ((adapter.capabilities & CEC_CAP_TRANSMIT) == 0)
        return Fitness::unfit;
    const bool used = adapter.logical.num_log_addrs != 0;
    if (used ? !configured_as_tv(adapter.logical)
             : (adapter.capabilities & CEC_CAP_LOG_ADDRS) == 0 || adapter.of_output)
        return Fitness::unfit;
    if (adapter.physical_address == 0)
        return used ? Fitness::tv : Fitness::root;
    return adapter.physical_address == CEC_PHYS_ADDR_INVALID ? Fitness::unconnected : Fitness::unfit;
}

// @p meant: a user named this adapter, so that one that seems to be another device's will do, as long as nobody uses
// it as such.
Fitness fitness(const CecAdapter& adapter, bool meant)
{
    const Fitness fit = unasked_fitness(adapter);
    constexpr uint32_t kNeeded = CEC_CAP_TRANSMIT | CEC_CAP_LOG_ADDRS;
    const bool usable = (adapter.capabilities & kNeeded) == kNeeded &&
                        (adapter.logical.num_log_addrs == 0 || configured_as_tv(adapter.logical));
    return meant && usable && fit == Fitness::unfit ? Fitness::unconnected : fit;
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

cec_arc::Delivery delivery_of(uint8_t tx_status)
{
    if ((tx_status & CEC_TX_STATUS_OK) != 0)
        return cec_arc::Delivery::acknowledged;
    return (tx_status & CEC_TX_STATUS_NACK) != 0 ? cec_arc::Delivery::not_acknowledged : cec_arc::Delivery::failed;
}

ArcState exported(cec_arc::State state)
{
    switch (state) {
    case cec_arc::State::requested: return ArcState::requested;
    case cec_arc::State::active: return ArcState::active;
    case cec_arc::State::terminated: return ArcState::terminated;
    default: return ArcState::idle;
    }
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

std::string physical(uint16_t address)
{
    std::string text;
    for (int shift = 12; shift >= 0; shift -= 4)
        text += (text.empty() ? "" : ".") + std::to_string(address >> shift & 0xF);
    return text;
}

} // namespace

std::vector<std::string> CecSystem::devices()
{
    std::vector<int> numbers;
    if (DIR* folder = opendir("/dev")) {
        while (const dirent* entry = readdir(folder)) {
            char* end = nullptr;
            if (strncmp(entry->d_name, "cec", 3) != 0 || entry->d_name[3] == '\0')
                continue;
            const long number = strtol(entry->d_name + 3, &end, 10);
            if (*end == '\0')
                numbers.push_back(static_cast<int>(number));
        }
        closedir(folder);
    }
    std::sort(numbers.begin(), numbers.end());
    std::vector<std::string> paths;
    for (const int number : numbers)
        paths.push_back("/dev/cec" + std::to_string(number));
    return paths;
}

int CecSystem::open(const char* path) { return ::open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC); }
void CecSystem::close(int fd) { ::close(fd); }
bool CecSystem::lock(int fd) { return flock(fd, LOCK_EX | LOCK_NB) == 0; }
int CecSystem::ioctl(int fd, unsigned long request, void* argument) { return ::ioctl(fd, request, argument); }

int CecLink::start(const std::string& device, const std::string& source, bool load_edid)
{
    if (running_)
        return -EALREADY;
    device_ = device;
    source_ = source;
    load_edid_ = load_edid;
    arc_wanted_ = false;
    stopping_ = false;
    physical_address_ = CEC_PHYS_ADDR_INVALID;
    attached_ = close_begun_ = busy_ = false;
    stop_deadline_ = reopen_at_ = claim_failed_at_ = cec_arc::kNever;
    lost_path_.clear();
    in_flight_.reset();
    arc_ = cec_arc::TvSide();
    {
        mutex_guard guard(mutex_);
        stats_ = CecStats();
        log_.clear();
    }
    if (const int result = take_adapter(); result != 0)
        return result;
    wake_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    int error = wake_ < 0 ? errno : 0;
    running_ = true;
    publish();
    if (error == 0)
        error = pthread_create(&thread_, nullptr, run, this);
    if (error == 0)
        return 0;
    running_ = false;
    release();
    say(std::string("no thread for CEC: ") + strerror(error), true);
    return -error;
}

int CecLink::open_arc()
{
    if (!running_)
        return -ENODEV;
    arc_wanted_ = true;
    wake();
    return 0;
}

void CecLink::stop()
{
    if (!running_)
        return;
    stopping_ = true;
    wake();
    pthread_join(thread_, nullptr);
    running_ = false;
    release();
}

// What the thread, or a start that failed, leaves.
void CecLink::release()
{
    give_back_adapter();
    if (wake_ >= 0)
        ::close(wake_);
    wake_ = -1;
    publish();
}

void CecLink::wake()
{
    const uint64_t one = 1;
    // A counter that is full wakes as well.
    if (write(wake_, &one, sizeof(one)) < 0)
        return;
}

CecStats CecLink::stats() const
{
    mutex_guard guard(mutex_);
    return stats_;
}

std::vector<CecMessage> CecLink::messages() const
{
    mutex_guard guard(mutex_);
    return {log_.begin(), log_.end()};
}

// --- The adapter ------------------------------------------------------------

int CecLink::take_adapter()
{
    std::string refused;
    int error = 0;
    for (int attempt = 1; (error = choose_and_open(&refused)) != 0; ++attempt) {
        // Another player may have looked at it just now, or have been faster: then the next best will do.
        if (error != EBUSY || attempt == kLockAttempts)
            break;
        ::poll(nullptr, 0, kLockPauseMs);
    }
    if (error == 0)
        return 0;
    say(refused + "; the audio return channel stays closed", true);
    return -error;
}

std::string CecLink::cannot_use(int error) const
{
    const char* why = error == EBUSY    ? "another player or program has it"
                      : error == ENODEV ? "it is no TV's"
                                        : strerror(error);
    return named(path_, source_) + " cannot be used: " + why;
}

// 0 or errno, then with what to say of it.
int CecLink::choose_and_open(std::string* refused)
{
    int error = choose_adapter(refused);
    if (error == 0 && (error = open_adapter()) != 0)
        *refused = cannot_use(error);
    return error;
}

// Sets path_ to the best adapter that may be taken. 0 or errno, then with what to say of it. One that another player
// has, which holds its lock, is none. After an unplug, one without a cable only if it is the same.
int CecLink::choose_adapter(std::string* refused)
{
    refused->clear();
    int error = ENODEV;
    Fitness best = Fitness::unfit;
    std::vector<std::string> candidates(1, device_);
    if (device_.empty())
        candidates = system_->devices();
    for (const std::string& path : candidates) {
        const int fd = system_->open(path.c_str());
        if (fd < 0) {
            error = errno;
            *refused = cannot_open(path, source_, error);
            continue;
        }
        CecAdapter adapter;
        const Fitness fit = inspect(system_, fd, &adapter) ? fitness(adapter, !device_.empty()) : Fitness::unfit;
        const bool better = fit < best && (fit != Fitness::unconnected || may_be_the_lost(path, adapter));
        const bool ours = better && system_->lock(fd);
        system_->close(fd);
        if (ours) {
            best = fit;
            path_ = path;
        } else if (better) {
            error = EBUSY;
            *refused = named(path, source_) + " cannot be used: another player has it";
        }
    }
    if (best != Fitness::unfit)
        return 0;
    if (refused->empty())
        *refused = device_.empty() ? "no CEC adapter of a TV" : named(device_, source_) + " is no CEC adapter of a TV";
    return error;
}

// Without a cable it may be anybody's: after an unplug only the same one is taken. One that leaves its place to
// programs never has a cable before, and may return under another number.
bool CecLink::may_be_the_lost(const std::string& path, const CecAdapter& adapter) const
{
    return lost_path_.empty() || path == lost_path_ || (adapter.addressable() && adapter.driver == driver_);
}

// Opens the adapter of path_ and sets it up; waits for nothing. 0 or errno.
int CecLink::open_adapter()
{
    fd_ = system_->open(path_.c_str());
    if (fd_ < 0)
        return errno;
    configured_here_ = listening_ = false;
    former_address_.reset();
    uint32_t mode = CEC_MODE_INITIATOR | CEC_MODE_FOLLOWER;
    if (lock_adapter() && system_->ioctl(fd_, CEC_S_MODE, &mode) == 0 && configure(true)) {
        listening_ = true;
        mutex_guard guard(mutex_);
        stats_.device = path_;
        return 0;
    }
    const int error = errno;
    give_back_adapter();
    return error;
}

// One player for an adapter: two would answer everything twice. Sets errno.
bool CecLink::lock_adapter()
{
    const bool ours = system_->lock(fd_);
    if (!ours)
        errno = EBUSY;
    return ours;
}

// A TV is the root of the addresses: where the driver does not know its place, it is 0.0.0.0. What another program has
// configured stays as it is; what a player left that did not come to its end is taken over. @p first: since the
// opening. Sets errno.
bool CecLink::configure(bool first)
{
    CecAdapter adapter;
    if (!inspect(system_, fd_, &adapter))
        return false;
    // Another program may have taken it since it was chosen.
    errno = adapter.logical.num_log_addrs != 0 ? EBUSY : ENODEV;
    if (fitness(adapter, !device_.empty()) == Fitness::unfit)
        return false;
    addressable_ = adapter.addressable();
    driver_ = adapter.driver;
    configured_here_ = configured_here(adapter.logical);
    if (adapter.logical.num_log_addrs != 0) {
        if (first && configured_here_ && addressable_ && adapter.physical_address == 0)
            former_address_ = CEC_PHYS_ADDR_INVALID;
        if (!configured_here_ || adapter.logical.log_addr_mask != 0)
            return true;
    }
    uint16_t root = 0;
    if (addressable_ && adapter.physical_address != root &&
        (load_edid_ || adapter.physical_address == CEC_PHYS_ADDR_INVALID)) {
        if (system_->ioctl(fd_, CEC_ADAP_S_PHYS_ADDR, &root) != 0)
            return false;
        if (!former_address_)
            former_address_ = adapter.physical_address;
    }
    return claim();
}

// Begins to claim the TV's logical address, unless that is under way. Sets errno.
bool CecLink::claim()
{
    cec_log_addrs tv = tv_configuration();
    const bool begun = system_->ioctl(fd_, CEC_ADAP_S_LOG_ADDRS, &tv) == 0;
    configured_here_ = configured_here_ || begun;
    return configured_here_;
}

// Leaves the adapter as it was found; what another program has made of it meanwhile stays.
void CecLink::give_back_adapter()
{
    if (fd_ < 0)
        return;
    cec_log_addrs logical = {};
    const auto still_configured_here = [&] {
        return system_->ioctl(fd_, CEC_ADAP_G_LOG_ADDRS, &logical) == 0 && configured_here(logical);
    };
    const int64_t deadline = now_ms() + kClaimMs;
    while (configured_here_ && still_configured_here()) {
        cec_log_addrs none = {};
        if (system_->ioctl(fd_, CEC_ADAP_S_LOG_ADDRS, &none) == 0)
            break;
        if (errno != EBUSY || now_ms() >= deadline) {
            say(path_ + " keeps the configuration of a TV: " + strerror(errno), true);
            break;
        }
        ::poll(nullptr, 0, kClaimPollMs);
    }
    uint16_t address = 0;
    if (former_address_ && system_->ioctl(fd_, CEC_ADAP_G_LOG_ADDRS, &logical) == 0 && logical.num_log_addrs == 0 &&
        system_->ioctl(fd_, CEC_ADAP_G_PHYS_ADDR, &address) == 0 && address == 0)
        system_->ioctl(fd_, CEC_ADAP_S_PHYS_ADDR, &*former_address_);
    system_->close(fd_);
    fd_ = -1;
    attached_ = false;
}

void CecLink::lose_adapter()
{
    system_->close(fd_);
    fd_ = -1;
    detach();
    claim_failed_at_ = cec_arc::kNever;
    lost_path_ = path_;
    reopen_at_ = now_ms() + kReopenMs;
    say(path_ + " is gone; the audio return channel waits for it", true);
}

void CecLink::detach()
{
    in_flight_.reset();
    attached_ = false;
    physical_address_ = CEC_PHYS_ADDR_INVALID;
    arc_.detach();
}

// --- The thread -------------------------------------------------------------

void* CecLink::run(void* link)
{
    pthread_setname_np(pthread_self(), "hdmi_cec");
    static_cast<CecLink*>(link)->loop();
    return nullptr;
}

void CecLink::loop()
{
    for (int64_t now = now_ms(); !(close_begun_ && (arc_.closed() || now >= stop_deadline_)); now = now_ms()) {
        await_events(now);
        service(now_ms());
        publish();
    }
}

void CecLink::await_events(int64_t now)
{
    int64_t deadline = std::min({arc_.deadline(), stop_deadline_, reopen_at_, claim_failed_at_});
    if (in_flight_)
        deadline = std::min(deadline, in_flight_->deadline);
    pollfd fds[] = {{wake_, POLLIN, 0}, {fd_, POLLIN | POLLPRI, 0}};
    // Bounded for poll()'s int; to wake early does no harm.
    const int64_t timeout = deadline == cec_arc::kNever ? -1 : std::clamp<int64_t>(deadline - now, 0, 3600000);
    if (poll(fds, 2, static_cast<int>(timeout)) <= 0)
        return;
    uint64_t wakes;
    if ((fds[0].revents & POLLIN) != 0 && read(wake_, &wakes, sizeof(wakes)) < 0)
        return;
    if (fd_ >= 0 && (fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0)
        lose_adapter();
}

void CecLink::service(int64_t now)
{
    if (stopping_ && !close_begun_) {
        close_begun_ = true;
        stop_deadline_ = now + cec_arc::TvSide::kCloseMs;
        arc_.close(now);
    }
    if (arc_wanted_.exchange(false))
        arc_.open(now);
    if (fd_ >= 0)
        read_events(now);
    else if (now >= reopen_at_)
        find_again(now);
    if (fd_ >= 0)
        read_messages(now);
    if (now >= claim_failed_at_)
        claim_again(now);
    if (in_flight_ && now >= in_flight_->deadline)
        settle(cec_arc::Delivery::failed, now);
    arc_.elapsed(now);
    send_messages(now);
    while (const std::optional<cec_arc::Notice> notice = arc_.next_notice())
        report(*notice);
}

void CecLink::find_again(int64_t now)
{
    reopen_at_ = now + kReopenMs;
    std::string refused;
    const int error = choose_and_open(&refused);
    if (error == 0) {
        reopen_at_ = cec_arc::kNever;
        say(path_ == lost_path_ ? path_ + " is back" : path_ + " takes the place of " + lost_path_, false);
        lost_path_.clear();
    } else if (error != ENOENT && error != ENODEV && error != ENXIO) {
        say(refused, true);
    }
}

// The claim of the address has failed, or another program has taken the configuration back.
void CecLink::claim_again(int64_t now)
{
    claim_failed_at_ = now + kClaimFailedMs;
    if (configure(false))
        say(path_ + " gets no CEC address; the audio return channel waits for it", true);
    else
        say(cannot_use(errno), true);
}

void CecLink::read_events(int64_t now)
{
    cec_event event = {};
    while (fd_ >= 0 && system_->ioctl(fd_, CEC_DQEVENT, &event) == 0)
        if (event.event == CEC_EVENT_STATE_CHANGE)
            state_changed(event, now);
    if (errno == ENODEV)
        lose_adapter();
}

// The kernel keeps one state event only: one that tells nothing new says that the link was down in between.
void CecLink::state_changed(const cec_event& event, int64_t now)
{
    const cec_event_state_change& state = event.state_change;
    if (state.phys_addr == CEC_PHYS_ADDR_INVALID || !cec_has_tv(state.log_addr_mask)) {
        explain(state);
        detach();
        claim_failed_at_ = cec_arc::kNever;
        if (state.log_addr_mask == 0 && (state.phys_addr != CEC_PHYS_ADDR_INVALID || addressable_))
            claim_failed_at_ = now + kClaimFailedMs;
        listen(state.log_addr_mask == 0);
        return;
    }
    claim_failed_at_ = cec_arc::kNever;
    listen(true);
    const bool known = attached_ && physical_address_ == state.phys_addr;
    if (known && (event.flags & CEC_EVENT_FL_INITIAL_STATE) != 0)
        return;
    in_flight_.reset();
    attached_ = true;
    physical_address_ = state.phys_addr;
    cec_log_addrs logical = {};
    const bool alone =
        configured_here_ && system_->ioctl(fd_, CEC_ADAP_G_LOG_ADDRS, &logical) == 0 && configured_here(logical);
    arc_.attach(physical_address_, alone, now);
}

// Why there is no audio return channel now. Without an address while one is claimed: that ends soon.
void CecLink::explain(const cec_event_state_change& state)
{
    if (state.phys_addr == CEC_PHYS_ADDR_INVALID)
        say(attached_ ? "the CEC link is down" : "no CEC link; the audio return channel waits for it", false);
    else if (state.log_addr_mask == 0 && attached_)
        say(path_ + " has lost its CEC address", false);
    else if (state.log_addr_mask != 0 && state.phys_addr != 0)
        say(path_ + " is at " + physical(state.phys_addr) + ", no TV's place; the audio return channel stays closed",
            true);
    else if (state.log_addr_mask == CEC_LOG_ADDR_MASK_SPECIFIC)
        say("another TV has the CEC address 0; the audio return channel stays closed", true);
    else if (state.log_addr_mask != 0)
        say(path_ + " is no longer a TV's; the audio return channel stays closed", true);
}

// With an address that is not a TV's, nothing is listened to, so that the kernel answers what comes.
void CecLink::listen(bool on)
{
    uint32_t mode = CEC_MODE_INITIATOR | (on ? CEC_MODE_FOLLOWER : CEC_MODE_NO_FOLLOWER);
    if (on != listening_ && system_->ioctl(fd_, CEC_S_MODE, &mode) == 0)
        listening_ = on;
}

void CecLink::read_messages(int64_t now)
{
    for (int i = 0; i < kMessagesPerRound && fd_ >= 0; ++i) {
        cec_msg message = {};
        if (system_->ioctl(fd_, CEC_RECEIVE, &message) != 0) {
            if (errno == ENODEV)
                lose_adapter();
            return;
        }
        handle(message, now);
    }
}

void CecLink::handle(const cec_msg& message, int64_t now)
{
    if (cec_msg_recv_is_tx_result(&message)) {
        if (in_flight_ && in_flight_->sequence == message.sequence)
            settle(delivery_of(message.tx_status), now);
        return;
    }
    if ((message.rx_status & CEC_RX_STATUS_OK) == 0)
        return;
    cec_arc::Message received;
    received.length = static_cast<uint8_t>(std::min<uint32_t>(message.len, CEC_MAX_MSG_SIZE));
    std::copy_n(message.msg, received.length, received.bytes);
    record(received, false, true);
    arc_.received(received.bytes, received.length, now);
}

void CecLink::send_messages(int64_t now)
{
    while (fd_ >= 0 && !in_flight_) {
        const std::optional<cec_arc::Message> next = arc_.next_message();
        if (!next)
            return;
        cec_msg message = {};
        message.len = next->length;
        std::copy_n(next->bytes, next->length, message.msg);
        const bool taken = system_->ioctl(fd_, CEC_TRANSMIT, &message) == 0;
        const int error = taken ? 0 : errno;
        in_flight_ = InFlight{*next, message.sequence, now + kFateMs};
        busy_ = error == EBUSY;
        if (taken)
            return;
        settle(cec_arc::Delivery::failed, now);
        if (error == ENODEV)
            lose_adapter();
        else if (busy_)
            say(path_ + " is busy: another program sends alone, or too much", true);
    }
}

void CecLink::settle(cec_arc::Delivery delivery, int64_t now)
{
    const cec_arc::Message message = in_flight_->message;
    in_flight_.reset();
    record(message, true, delivery == cec_arc::Delivery::acknowledged);
    arc_.delivered(message, delivery, now);
}

// --- What others see --------------------------------------------------------

void CecLink::record(const cec_arc::Message& message, bool sent, bool delivered)
{
    CecMessage entry = {now_ns(), sent, delivered, message.length, {}};
    std::copy_n(message.bytes, message.length, entry.bytes);
    mutex_guard guard(mutex_);
    ++(!sent ? stats_.received : delivered ? stats_.sent : stats_.undelivered);
    log_.push_back(entry);
    if (log_.size() > kLogMessages)
        log_.pop_front();
}

void CecLink::publish()
{
    mutex_guard guard(mutex_);
    stats_.open = running_;
    stats_.lost = running_ && fd_ < 0;
    stats_.attached = attached_;
    stats_.arc = exported(arc_.state());
    stats_.refusals = arc_.refusals();
    stats_.physical_address = physical_address_;
}

void CecLink::report(cec_arc::Notice notice)
{
    switch (notice) {
    case cec_arc::Notice::opened: {
        say("the audio return channel is open", false);
        mutex_guard guard(mutex_);
        ++stats_.activations;
        return;
    }
    case cec_arc::Notice::closed_by_peer: say("the audio system closed the audio return channel", false); return;
    case cec_arc::Notice::no_audio_system: say("no audio system on the CEC bus", true); return;
    case cec_arc::Notice::no_address: say("the audio system does not tell its physical address", true); return;
    case cec_arc::Notice::not_adjacent:
        say("the audio system is behind another device: no audio return channel from there", true);
        return;
    case cec_arc::Notice::no_answer:
        if (!busy_)
            say("the audio system does not open the audio return channel", true);
        return;
    case cec_arc::Notice::refused: say("the audio system refuses the audio return channel", true); return;
    }
}

// One message for each change.
void CecLink::say(const std::string& note, bool fault)
{
    {
        mutex_guard guard(mutex_);
        if (stats_.note == note)
            return;
        stats_.note = note;
    }
    log_as("cec", fault ? LOG_LEVEL_W : LOG_LEVEL_I, "%s\n", note.c_str());
}

// --- The platform's functions -----------------------------------------------

namespace
{

// Never destroyed: a thread of a host that ends without deinit may still be at work in it.
struct Cec {
    mutex_t mutex; ///< one call at a time
    CecSystem system;
    CecLink link{&system};
};

Cec& cec()
{
    static auto* instance = new Cec;
    return *instance;
}

} // namespace

CecStats cec_stats() { return cec().link.stats(); }
std::vector<CecMessage> cec_messages() { return cec().link.messages(); }

} // namespace hdmi_linux

extern "C" {

CEC_EXPORT int vendor_hdmi_cec_init(hdmi_cec_config_t* config)
{
    const hdmi_linux::Config settings = hdmi_linux::current_config();
    if (settings.cec == "none")
        return -ENODEV;
    hdmi_linux::Cec& cec = hdmi_linux::cec();
    mutex_guard guard(cec.mutex);
    return cec.link.start(settings.cec, settings.cec_source, config != nullptr && config->load_edid);
}

CEC_EXPORT int vendor_hdmi_cec_open_arc(void)
{
    hdmi_linux::Cec& cec = hdmi_linux::cec();
    mutex_guard guard(cec.mutex);
    return cec.link.open_arc();
}

CEC_EXPORT int vendor_hdmi_cec_deinit(void)
{
    hdmi_linux::Cec& cec = hdmi_linux::cec();
    mutex_guard guard(cec.mutex);
    cec.link.stop();
    return 0;
}

} // extern "C"
