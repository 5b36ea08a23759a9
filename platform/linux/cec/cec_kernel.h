// SPDX-License-Identifier: MIT
/**
 * @file
 * The audio return channel on the kernel's CEC interface (linux/cec.h): the
 * thread that carries messages between the adapter of cec_adapter.h and the
 * protocol of cec_arc.h.
 *
 * The kernel acknowledges polls and answers the questions that every device must
 * answer (physical address, version, name). This side is a follower, which
 * receives all other messages. The kernel does not answer those then: see
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

#include "cec/cec_adapter.h"
#include "cec/cec_arc.h"
#include "hdmi_linux.h"
#include "internal/locks.h"

namespace hdmi_linux
{

/// One thread at a time calls start(), open_arc() and stop(). Any thread may call stats() and messages().
class CecLink
{
public:
    explicit CecLink(CecSystem* system) : adapter_(system) {}
    ~CecLink() { stop(); }
    CecLink(const CecLink&) = delete;
    CecLink& operator=(const CecLink&) = delete;

    /// Takes the adapter of @p choice and starts the thread. @return 0, or a negative errno.
    int start(const CecChoice& choice);
    int open_arc();
    /// Closes the channel and gives the adapter back, within kStopMs; harmless without start().
    void stop();

    CecStats stats() const;
    std::vector<CecMessage> messages() const;

    /// Limit of stop(), from hdmi_cec.h.
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
    void report_notice(cec_arc::Notice notice);
    void report(const std::string& note, bool fault);

    pthread_t thread_ = 0;
    int wake_ = -1;                    ///< eventfd
    std::atomic<bool> running_{false}; ///< between start() and stop(), which set it
    std::atomic<bool> arc_wanted_{false};
    std::atomic<bool> stopping_{false};

    // While the thread runs, only the thread uses these.
    CecAdapter adapter_;
    uint16_t physical_address_ = CEC_PHYS_ADDR_INVALID;
    bool attached_ = false;
    bool busy_ = false; ///< another program keeps the adapter busy: it did not take the last message
    bool close_begun_ = false;
    int64_t stop_deadline_ = cec_arc::kNever;
    int64_t reopen_at_ = cec_arc::kNever;
    int64_t claim_failed_at_ = cec_arc::kNever; ///< when the present claim of a logical address counts as failed
    std::optional<InFlight> in_flight_;
    cec_arc::TvSide arc_;

    mutable mutex_t mutex_;
    CecStats stats_ GUARDED_BY(mutex_);
    std::deque<CecMessage> log_ GUARDED_BY(mutex_);
};

} // namespace hdmi_linux
