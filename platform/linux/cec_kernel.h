// SPDX-License-Identifier: MIT
/**
 * @file
 * The audio return channel on the kernel's CEC interface (linux/cec.h): one
 * adapter, and the thread that carries messages between it and the protocol of
 * cec_arc.h.
 *
 * The kernel acknowledges polls and answers what every device must (its
 * physical address, its version, its name). As a follower this side receives
 * the rest, and then the kernel leaves the rest unanswered: see
 * cec_arc::TvSide::attach().
 */
#pragma once

#include <linux/cec.h>
#include <pthread.h>

#include <atomic>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "cec_arc.h"
#include "hdmi_linux.h"
#include "internal/locks.h"

namespace hdmi_linux
{

/// The system calls, so that tests can stand in for an adapter. Results as theirs, with errno.
class CecSystem
{
public:
    virtual ~CecSystem() = default;
    /// The adapters' device files, in the order of their numbers.
    virtual std::vector<std::string> devices();
    virtual int open(const char* path);
    virtual void close(int fd);
    /// Whether @p fd has the device's advisory lock now, until it is closed (flock(2)).
    virtual bool lock(int fd);
    virtual int ioctl(int fd, unsigned long request, void* argument);
};

struct CecAdapter;

/// Calls of start(), open_arc() and stop() come one at a time; stats() and messages() at any time.
class CecLink
{
public:
    explicit CecLink(CecSystem* system) : system_(system) {}
    ~CecLink() { stop(); }
    CecLink(const CecLink&) = delete;
    CecLink& operator=(const CecLink&) = delete;

    /**
     * Takes the adapter @p device, or the first one that is a TV's when that is empty. Where nobody has configured it,
     * that is begun here; it ends when the bus allows.
     * @param source what named @p device, for messages.
     * @param load_edid the physical address that an adapter has is replaced as well, where it leaves that to programs.
     * @return 0, or a negative errno.
     */
    int start(const std::string& device, const std::string& source, bool load_edid);
    int open_arc();
    /// Closes the channel and gives the adapter back, within kStopMs; harmless without start().
    void stop();

    CecStats stats() const;
    std::vector<CecMessage> messages() const;

    /// Closing the channel and giving the adapter back together: what hdmi_cec.h allows.
    static constexpr int64_t kStopMs = 3000;

private:
    struct InFlight {
        cec_arc::Message message;
        uint32_t sequence;
        int64_t deadline;
    };

    static void* run(void* link);
    void loop();
    void await_events(int64_t now);
    void service(int64_t now);
    void wake();
    void release();

    int take_adapter();
    int choose_and_open(std::string* refused);
    int choose_adapter(std::string* refused);
    bool may_be_the_lost(const std::string& path, const CecAdapter& adapter) const;
    int open_adapter();
    bool lock_adapter();
    bool configure(bool first);
    bool claim();
    std::string cannot_use(int error) const;
    void listen(bool on);
    void give_back_adapter();
    void lose_adapter();
    void find_again(int64_t now);
    void claim_again(int64_t now);
    void detach();

    void read_events(int64_t now);
    void state_changed(const cec_event& event, int64_t now);
    void explain(const cec_event_state_change& state);
    void read_messages(int64_t now);
    void handle(const cec_msg& message, int64_t now);
    void send_messages(int64_t now);
    void settle(cec_arc::Delivery delivery, int64_t now);

    void record(const cec_arc::Message& message, bool sent, bool delivered);
    void publish();
    void report(cec_arc::Notice notice);
    void say(const std::string& note, bool fault);

    CecSystem* const system_;
    std::string device_; ///< the one that was asked for; empty: any
    std::string source_;
    bool load_edid_ = false;
    pthread_t thread_ = 0;
    int wake_ = -1;                    ///< eventfd
    std::atomic<bool> running_{false}; ///< between start() and stop(); set by the calling side
    std::atomic<bool> arc_wanted_{false};
    std::atomic<bool> stopping_{false};

    // Of the thread, from its start to its end.
    std::string path_;
    std::string lost_path_; ///< of the adapter that was unplugged
    int fd_ = -1;
    bool listening_ = false; ///< receives messages; otherwise the kernel answers them
    bool configured_here_ = false;
    bool addressable_ = false;               ///< the physical address is for programs to set
    std::string driver_;                     ///< the kernel's, of the adapter that was used last
    std::optional<uint16_t> former_address_; ///< the physical address was set here, and what it was before
    uint16_t physical_address_ = CEC_PHYS_ADDR_INVALID;
    bool attached_ = false;
    bool busy_ = false; ///< the last message was not taken: another program keeps the adapter busy
    bool close_begun_ = false;
    int64_t stop_deadline_ = cec_arc::kNever;
    int64_t reopen_at_ = cec_arc::kNever;
    int64_t claim_failed_at_ = cec_arc::kNever; ///< while there is a physical address and no logical one
    std::optional<InFlight> in_flight_;
    cec_arc::TvSide arc_;

    mutable mutex_t mutex_;
    CecStats stats_ GUARDED_BY(mutex_);
    std::deque<CecMessage> log_ GUARDED_BY(mutex_);
};

} // namespace hdmi_linux
