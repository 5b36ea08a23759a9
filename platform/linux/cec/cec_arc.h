// SPDX-License-Identifier: MIT
/**
 * @file
 * The TV's side of the audio return channel control of HDMI 1.4.
 *
 * The TV asks (<Request ARC Initiation>), the audio system opens the channel
 * (<Initiate ARC>) and the TV confirms (<Report ARC Initiated>); likewise with
 * <Request ARC Termination>, <Terminate ARC>, <Report ARC Terminated>. The audio
 * system also opens and closes the channel by itself. Only a device on the TV's
 * own connector can return sound. So the TV asks for the audio system's physical
 * address first.
 *
 * Pure: received messages, the results of sent ones and the time are arguments;
 * messages to be sent and notices are results.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <initializer_list>
#include <limits>
#include <optional>

namespace cec_arc
{

constexpr int64_t kNever = std::numeric_limits<int64_t>::max();
constexpr uint16_t kNoPhysicalAddress = 0xFFFF;
constexpr size_t kMessageBytesMax = 16;

enum LogicalAddress : uint8_t { kTv = 0, kAudioSystem = 5, kUnregistered = 15, kBroadcast = 15 };

enum Opcode : uint8_t {
    kFeatureAbort = 0x00,
    kUserControlReleased = 0x45,
    kGivePhysicalAddress = 0x83,
    kReportPhysicalAddress = 0x84,
    kInitiateArc = 0xC0,
    kReportArcInitiated = 0xC1,
    kReportArcTerminated = 0xC2,
    kRequestArcInitiation = 0xC3,
    kRequestArcTermination = 0xC4,
    kTerminateArc = 0xC5,
};

enum AbortReason : uint8_t { kUnrecognizedOpcode = 0, kIncorrectMode = 1, kInvalidOperand = 3, kRefused = 4 };

/// As on the bus: initiator and destination in the first byte, then the opcode, then operands.
struct Message {
    Message() = default;
    Message(LogicalAddress to, Opcode opcode, std::initializer_list<uint8_t> operands = {});
    uint8_t opcode() const { return length > 1 ? bytes[1] : 0; }

    uint8_t length = 0;
    uint8_t bytes[kMessageBytesMax] = {};
};

enum class State {
    idle,       ///< not asked for, no link, or the attempts are over
    requested,  ///< asked for, and the audio system has not opened it yet
    active,     ///< open
    terminated, ///< was open or asked for, and was closed by one of the two
};

/// The result of sending a message.
enum class Delivery { acknowledged, not_acknowledged, failed };

/// For the user.
enum class Notice {
    opened,          ///< the channel is open
    closed_by_peer,  ///< the audio system closed it
    no_audio_system, ///< no device has the audio system's address
    no_address,      ///< there is one, but it does not report its physical address
    not_adjacent,    ///< there is one, behind another device
    no_answer,       ///< it does not open the channel
    refused,         ///< it refuses to open the channel
};

/// Whether a physical address belongs to a device on a connector of the device with the address @p own.
bool adjacent(uint16_t own, uint16_t other);

/**
 * The protocol. Messages are to be sent one at a time, in the order in which
 * next_message() gives them, and delivered() called before the next one is
 * asked for. `now` is in milliseconds and never decreases.
 */
class TvSide
{
public:
    /**
     * The adapter has the TV's logical address now, or another physical address.
     * @param only_follower no other program receives messages for the TV. Then all messages that are not ARC's are
     *                      answered with <Feature Abort>, so that no initiator waits for an answer in vain.
     */
    void attach(uint16_t physical_address, bool only_follower, int64_t now);
    /// The adapter has lost its address: the cable was unplugged, or another program took the address back.
    void detach();

    /// Opens the channel as soon as possible, and again whenever an audio system appears. A second call asks once more
    /// if the attempts are over or the audio system closed the channel.
    void open(int64_t now);
    /// Closes it. Lasts at most kCloseMs; see closed().
    void close(int64_t now);
    bool closed() const { return phase_ == Phase::closed; }

    /// A message from the bus, of any content and length.
    void received(const uint8_t* bytes, size_t length, int64_t now);
    void delivered(const Message& message, Delivery delivery, int64_t now);
    /// To be called at deadline(); harmless before.
    void elapsed(int64_t now);

    std::optional<Message> next_message();
    std::optional<Notice> next_notice();
    int64_t deadline() const { return phase_deadline_ < inquiry_deadline_ ? phase_deadline_ : inquiry_deadline_; }
    State state() const;
    /// Messages that were answered with <Feature Abort>.
    int64_t refusals() const { return refusals_; }

    /// Longest time from close() to closed(): the response time of the standard, and two messages.
    static constexpr int64_t kCloseMs = 1500;

private:
    enum class Phase {
        detached,
        quiet,
        asking_address,
        requesting,
        pausing,
        confirming,
        active,
        terminated,
        closing,
        closing_pausing,
        closing_confirmed,
        closed
    };

    void begin(int64_t now);
    void attempt(int64_t now);
    void request(int64_t now);
    void request_end();
    void attempt_failed(Notice cause, int64_t now);
    void give_up(Notice cause);
    void ask_address(int64_t now);
    void address_unknown(Notice cause, int64_t now);
    void address_reported(uint16_t address, int64_t now);
    void arc_message(uint8_t from, Opcode opcode, size_t length, int64_t now);
    void answer(Opcode opcode, int64_t now);
    void aborted(uint8_t opcode, uint8_t reason, int64_t now);
    void refuse(uint8_t from, uint8_t opcode, AbortReason reason);
    void send(const Message& message) { outbox_.push_back(message); }
    void forget_requests();
    void notify(Notice notice);
    void enter(Phase phase, int64_t deadline = kNever);
    bool in_attempt() const;
    bool in_close() const;

    Phase phase_ = Phase::detached;
    int64_t phase_deadline_ = kNever;
    int64_t close_deadline_ = kNever;
    bool wanted_ = false;
    bool was_active_ = false;
    bool granted_ = false;   ///< the audio system opened the channel, and neither side has closed it since
    bool confirmed_ = false; ///< <Report ARC Initiated> was acknowledged
    bool only_follower_ = false;
    uint16_t own_address_ = kNoPhysicalAddress;
    std::optional<uint16_t> peer_address_;
    int64_t inquiry_deadline_ = kNever; ///< for the answer to <Give Physical Address>; kNever: not asked
    std::optional<Opcode> deferred_;    ///< message of the audio system, to be answered once its address is known
    int attempts_ = 0;
    int64_t refusals_ = 0;
    std::deque<Message> outbox_;
    std::deque<Notice> notices_;
};

} // namespace cec_arc
