// SPDX-License-Identifier: MIT
#include "cec/cec_kernel.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "alsa_clock.h"
#include "config.h"
#include "contained.h"
#include "hdmi_cec.h"
#include "internal/common.h"

#define CEC_EXPORT __attribute__((visibility("default")))

namespace hdmi_linux
{
namespace
{

/// Without a result for this long, the kernel has lost a message. The protocol waits less.
constexpr int64_t kFateMs = 6000;
/// Pause between two searches for an adapter that was unplugged.
constexpr int64_t kReopenMs = 1000;
static_assert(cec_arc::TvSide::kCloseMs + CecAdapter::kGiveBackMs < CecLink::kStopMs, "the last calls take time too");
/// A claim that takes this long has failed. The kernel does not repeat it.
constexpr int64_t kClaimFailedMs = 4000;
constexpr int kMessagesPerRound = 64;
constexpr size_t kLogMessages = 256;

int64_t now_ms() { return now_ns() / kNsPerMs; }

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

std::string address_text(uint16_t address)
{
    std::string text;
    for (int shift = 12; shift >= 0; shift -= 4)
        text += (text.empty() ? "" : ".") + std::to_string(address >> shift & 0xF);
    return text;
}

} // namespace

int CecLink::start(const CecChoice& choice)
{
    if (running_)
        return -EALREADY;
    arc_wanted_ = false;
    stopping_ = false;
    physical_address_ = CEC_PHYS_ADDR_INVALID;
    attached_ = close_begun_ = busy_ = false;
    stop_deadline_ = reopen_at_ = claim_failed_at_ = cec_arc::kNever;
    in_flight_.reset();
    arc_ = cec_arc::TvSide();
    {
        mutex_guard guard(mutex_);
        stats_ = CecStats();
        log_.clear();
    }
    std::string refused;
    if (const int taken = adapter_.take(choice, &refused); taken != 0) {
        report(refused + "; the audio return channel stays closed", true);
        return -taken;
    }
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
    report(std::string("no thread for CEC: ") + strerror(error), true);
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

// The teardown of stop() and of a failed start().
void CecLink::release()
{
    if (const std::string fault = adapter_.give_back(); !fault.empty())
        report(fault, true);
    attached_ = false;
    if (wake_ >= 0)
        ::close(wake_);
    wake_ = -1;
    publish();
}

void CecLink::wake()
{
    const uint64_t one = 1;
    // The write fails only if the counter is full: then the thread wakes anyway.
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

void CecLink::lose_adapter()
{
    adapter_.lose();
    detach();
    claim_failed_at_ = cec_arc::kNever;
    reopen_at_ = now_ms() + kReopenMs;
    report(adapter_.path() + " is gone; the audio return channel waits for it", true);
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
        // Without memory a message is lost, as on a bus.
        contained([this] { return service(now_ms()), publish(), 0; }, 0);
    }
}

void CecLink::await_events(int64_t now)
{
    int64_t deadline = std::min({arc_.deadline(), stop_deadline_, reopen_at_, claim_failed_at_});
    if (in_flight_)
        deadline = std::min(deadline, in_flight_->deadline);
    pollfd fds[] = {{wake_, POLLIN, 0}, {adapter_.fd(), POLLIN | POLLPRI, 0}};
    // Limited, because poll() takes an int. To wake early does no harm.
    const int64_t timeout = deadline == cec_arc::kNever ? -1 : std::clamp<int64_t>(deadline - now, 0, 3600000);
    if (poll(fds, 2, static_cast<int>(timeout)) <= 0)
        return;
    uint64_t wakes;
    if ((fds[0].revents & POLLIN) != 0 && read(wake_, &wakes, sizeof(wakes)) < 0)
        return;
    if (adapter_.is_open() && (fds[1].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0)
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
    if (adapter_.is_open())
        read_events(now);
    else if (now >= reopen_at_)
        find_again(now);
    if (adapter_.is_open())
        read_messages(now);
    if (now >= claim_failed_at_)
        claim_again(now);
    if (in_flight_ && now >= in_flight_->deadline)
        settle(cec_arc::Delivery::failed, now);
    arc_.elapsed(now);
    send_messages(now);
    while (const std::optional<cec_arc::Notice> notice = arc_.next_notice())
        report_notice(*notice);
}

void CecLink::find_again(int64_t now)
{
    reopen_at_ = now + kReopenMs;
    std::string refused;
    const int error = adapter_.take_again(&refused);
    if (error == 0) {
        reopen_at_ = cec_arc::kNever;
        const std::string& path = adapter_.path();
        report(path == adapter_.lost_path() ? path + " is back" : path + " takes the place of " + adapter_.lost_path(),
               false);
    } else if (error != ENOENT && error != ENODEV && error != ENXIO) {
        report(refused, true);
    }
}

// Either the claim of the address has failed, or another program has removed the configuration.
void CecLink::claim_again(int64_t now)
{
    claim_failed_at_ = now + kClaimFailedMs;
    if (const int error = adapter_.configure_again(); error != 0)
        report(adapter_.cannot_use(error), true);
    else
        report(adapter_.path() + " gets no CEC address; the audio return channel waits for it", true);
}

void CecLink::read_events(int64_t now)
{
    cec_event event = {};
    while (adapter_.is_open() && adapter_.ioctl(CEC_DQEVENT, &event) == 0)
        if (event.event == CEC_EVENT_STATE_CHANGE)
            state_changed(event, now);
    if (errno == ENODEV)
        lose_adapter();
}

// The kernel keeps only the latest state event. So an event with the known state means that the link was down
// meanwhile.
void CecLink::state_changed(const cec_event& event, int64_t now)
{
    const cec_event_state_change& state = event.state_change;
    if (state.phys_addr == CEC_PHYS_ADDR_INVALID || !cec_has_tv(state.log_addr_mask)) {
        explain(state);
        detach();
        claim_failed_at_ = cec_arc::kNever;
        if (state.log_addr_mask == 0 && (state.phys_addr != CEC_PHYS_ADDR_INVALID || adapter_.is_addressable()))
            claim_failed_at_ = now + kClaimFailedMs;
        adapter_.listen(state.log_addr_mask == 0);
        return;
    }
    claim_failed_at_ = cec_arc::kNever;
    adapter_.listen(true);
    const bool known = attached_ && physical_address_ == state.phys_addr;
    if (known && (event.flags & CEC_EVENT_FL_INITIAL_STATE) != 0)
        return;
    in_flight_.reset();
    attached_ = true;
    physical_address_ = state.phys_addr;
    arc_.attach(physical_address_, adapter_.is_configured_here(), now);
}

// Reports why there is no audio return channel now. Says nothing during the claim of an address, which ends soon.
void CecLink::explain(const cec_event_state_change& state)
{
    if (state.phys_addr == CEC_PHYS_ADDR_INVALID)
        report(attached_ ? "the CEC link is down" : "no CEC link; the audio return channel waits for it", false);
    else if (state.log_addr_mask == 0 && attached_)
        report(adapter_.path() + " has lost its CEC address", false);
    else if (state.log_addr_mask != 0 && state.phys_addr != 0)
        report(adapter_.path() + " is at " + address_text(state.phys_addr) +
                   ", no TV's place; the audio return channel stays closed",
               true);
    else if (state.log_addr_mask == CEC_LOG_ADDR_MASK_SPECIFIC)
        report("another TV has the CEC address 0; the audio return channel stays closed", true);
    else if (state.log_addr_mask != 0)
        report(adapter_.path() + " is no longer a TV's; the audio return channel stays closed", true);
}

void CecLink::read_messages(int64_t now)
{
    for (int i = 0; i < kMessagesPerRound && adapter_.is_open(); ++i) {
        cec_msg message = {};
        if (adapter_.ioctl(CEC_RECEIVE, &message) != 0) {
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
    while (adapter_.is_open() && !in_flight_) {
        const std::optional<cec_arc::Message> next = arc_.next_message();
        if (!next)
            return;
        cec_msg message = {};
        message.len = next->length;
        std::copy_n(next->bytes, next->length, message.msg);
        const bool taken = adapter_.ioctl(CEC_TRANSMIT, &message) == 0;
        const int error = taken ? 0 : errno;
        in_flight_ = InFlight{*next, message.sequence, now + kFateMs};
        busy_ = error == EBUSY;
        if (taken)
            return;
        settle(cec_arc::Delivery::failed, now);
        if (error == ENODEV)
            lose_adapter();
        else if (busy_)
            report(adapter_.path() + " is busy: another program sends alone, or too much", true);
    }
}

void CecLink::settle(cec_arc::Delivery delivery, int64_t now)
{
    const cec_arc::Message message = in_flight_->message;
    in_flight_.reset();
    record(message, true, delivery == cec_arc::Delivery::acknowledged);
    arc_.delivered(message, delivery, now);
}

// --- Counters and messages --------------------------------------------------

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
    if (adapter_.is_open())
        stats_.device = adapter_.path();
    stats_.lost = running_ && !adapter_.is_open();
    stats_.attached = attached_;
    stats_.arc = exported(arc_.state());
    stats_.refusals = arc_.refusals();
    stats_.physical_address = physical_address_;
}

void CecLink::report_notice(cec_arc::Notice notice)
{
    switch (notice) {
    case cec_arc::Notice::opened: {
        report("the audio return channel is open", false);
        mutex_guard guard(mutex_);
        ++stats_.activations;
        return;
    }
    case cec_arc::Notice::closed_by_peer: report("the audio system closed the audio return channel", false); return;
    case cec_arc::Notice::no_audio_system: report("no audio system on the CEC bus", true); return;
    case cec_arc::Notice::no_address: report("the audio system does not tell its physical address", true); return;
    case cec_arc::Notice::not_adjacent:
        report("the audio system is behind another device: no audio return channel from there", true);
        return;
    case cec_arc::Notice::no_answer:
        if (!busy_)
            report("the audio system does not open the audio return channel", true);
        return;
    case cec_arc::Notice::refused: report("the audio system refuses the audio return channel", true); return;
    }
}

// Logs only changes.
void CecLink::report(const std::string& note, bool fault)
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

// Never destroyed: if the host exits without deinit, its threads may still use it.
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

int start_link(const hdmi_cec_config_t* config)
{
    const Config settings = current_config();
    if (settings.cec == "none")
        return -ENODEV;
    mutex_guard guard(cec().mutex);
    return cec().link.start({settings.cec, settings.cec_source, config != nullptr && config->load_edid});
}

} // namespace

CecStats cec_stats() { return cec().link.stats(); }
std::vector<CecMessage> cec_messages() { return cec().link.messages(); }

} // namespace hdmi_linux

extern "C" {

CEC_EXPORT int vendor_hdmi_cec_init(hdmi_cec_config_t* config)
{
    return hdmi_linux::contained([config] { return hdmi_linux::start_link(config); }, -ENOMEM);
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
