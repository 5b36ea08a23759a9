// SPDX-License-Identifier: MIT
#include "cec/cec_arc.h"

#include <algorithm>

namespace cec_arc
{
namespace
{

/// The maximum response time of the CEC standard.
constexpr int64_t kResponseMs = 1000;
/// The kernel reports the result of a message within this time, even after four attempts on a busy bus.
constexpr int64_t kDeliveryMs = 5000;
/// Enough for an audio system that takes some seconds to switch on.
constexpr int kAttempts = 3;
constexpr int64_t kFirstPauseMs = 1000; ///< before the second attempt; doubled before the third
/// Pause between two attempts to close the channel on a disturbed bus, or while another program keeps it busy.
constexpr int64_t kClosePauseMs = 200;

/// Answers that may wait for the bus, which carries some twenty messages a second. Messages beyond that get no answer.
constexpr size_t kOutboxMax = 16;
/// More notices than several events can cause.
constexpr size_t kNoticesMax = 16;

constexpr size_t kPhysicalAddressDigits = 4;

int digit(uint16_t address, size_t index) { return address >> (4 * (kPhysicalAddressDigits - 1 - index)) & 0xF; }

size_t depth(uint16_t address)
{
    size_t digits = 0;
    while (digits < kPhysicalAddressDigits && digit(address, digits) != 0)
        ++digits;
    return digits;
}

} // namespace

bool adjacent(uint16_t own, uint16_t other)
{
    const size_t own_depth = depth(own);
    if (own == kNoPhysicalAddress || other == kNoPhysicalAddress || own_depth == kPhysicalAddressDigits)
        return false;
    for (size_t i = 0; i < kPhysicalAddressDigits; ++i)
        if (i == own_depth ? digit(other, i) == 0 : digit(other, i) != digit(own, i))
            return false;
    return true;
}

Message::Message(LogicalAddress to, Opcode opcode, std::initializer_list<uint8_t> operands)
    : length(static_cast<uint8_t>(2 + operands.size()))
{
    bytes[0] = static_cast<uint8_t>(kTv << 4 | to);
    bytes[1] = opcode;
    std::copy(operands.begin(), operands.end(), bytes + 2);
}

void TvSide::attach(uint16_t physical_address, bool only_follower, int64_t now)
{
    detach();
    if (phase_ == Phase::closed)
        return;
    own_address_ = physical_address;
    only_follower_ = only_follower;
    enter(Phase::quiet);
    if (wanted_)
        begin(now);
}

void TvSide::detach()
{
    outbox_.clear();
    deferred_.reset();
    peer_address_.reset();
    granted_ = confirmed_ = false;
    inquiry_deadline_ = kNever;
    enter(in_close() ? Phase::closed : Phase::detached);
}

void TvSide::open(int64_t now)
{
    if (in_close())
        return;
    wanted_ = true;
    if (phase_ == Phase::quiet || phase_ == Phase::terminated)
        begin(now);
}

void TvSide::close(int64_t now)
{
    if (in_close())
        return;
    wanted_ = false;
    was_active_ = phase_ == Phase::active;
    outbox_.clear();
    // A request may still be granted, so it is taken back as well. A channel that was granted stays open even if a
    // later request for it failed.
    if (!granted_ && phase_ != Phase::requesting) {
        enter(Phase::closed);
        return;
    }
    close_deadline_ = now + kCloseMs;
    request_end();
}

void TvSide::request_end()
{
    enter(Phase::closing, close_deadline_);
    send(Message(kAudioSystem, kRequestArcTermination));
}

void TvSide::received(const uint8_t* bytes, size_t length, int64_t now)
{
    // One byte is a poll, which the adapter acknowledges.
    if (phase_ == Phase::detached || phase_ == Phase::closed || length < 2)
        return;
    const uint8_t from = bytes[0] >> 4;
    const uint8_t to = bytes[0] & 0xF;
    const uint8_t opcode = bytes[1];
    if (opcode == kReportPhysicalAddress) {
        if (from == kAudioSystem && to == kBroadcast && length >= 5)
            address_reported(static_cast<uint16_t>(bytes[2] << 8 | bytes[3]), now);
        return;
    }
    if (to != kTv || from == kTv)
        return;
    switch (opcode) {
    case kFeatureAbort:
        if (from == kAudioSystem && length >= 4)
            aborted(bytes[2], bytes[3], now);
        return;
    case kInitiateArc:
    case kTerminateArc: arc_message(from, static_cast<Opcode>(opcode), length, now); return;
    case kReportArcInitiated:
    case kReportArcTerminated:
    case kRequestArcInitiation:
    case kRequestArcTermination: refuse(from, opcode, kUnrecognizedOpcode); return;
    case kUserControlReleased: return; // Of a key whose press was answered.
    default:
        if (only_follower_)
            refuse(from, opcode, kUnrecognizedOpcode);
    }
}

void TvSide::arc_message(uint8_t from, Opcode opcode, size_t length, int64_t now)
{
    if (from != kAudioSystem)
        refuse(from, opcode, kRefused); // NOLINT(bugprone-branch-clone): the order of the questions decides the reason
    else if (length != 2)
        refuse(from, opcode, kInvalidOperand);
    else if ((phase_ == Phase::closing || phase_ == Phase::closing_pausing) && opcode == kTerminateArc) {
        forget_requests();
        enter(Phase::closing_confirmed, close_deadline_);
        send(Message(kAudioSystem, kReportArcTerminated));
    } else if (!wanted_)
        refuse(from, opcode, kIncorrectMode);
    else if (!peer_address_) {
        deferred_ = opcode;
        ask_address(now);
    } else if (!adjacent(own_address_, *peer_address_))
        refuse(from, opcode, kRefused);
    else if (outbox_.size() < kOutboxMax)
        answer(opcode, now);
}

void TvSide::answer(Opcode opcode, int64_t now)
{
    forget_requests();
    if (opcode == kInitiateArc) {
        granted_ = true;
        if (!in_attempt() && phase_ != Phase::pausing)
            attempts_ = 0;
        send(Message(kAudioSystem, kReportArcInitiated));
        if (phase_ != Phase::active)
            enter(Phase::confirming, now + kDeliveryMs);
        return;
    }
    granted_ = confirmed_ = false;
    send(Message(kAudioSystem, kReportArcTerminated));
    if (phase_ == Phase::active || phase_ == Phase::pausing || in_attempt())
        notify(Notice::closed_by_peer);
    enter(Phase::terminated);
}

void TvSide::aborted(uint8_t opcode, uint8_t reason, int64_t now)
{
    if (opcode == kGivePhysicalAddress && inquiry_deadline_ != kNever)
        address_unknown(Notice::no_address, now);
    else if (opcode == kRequestArcInitiation && phase_ == Phase::requesting) {
        // The audio system may be in standby and accept later.
        if (reason == kIncorrectMode)
            attempt_failed(Notice::refused, now);
        else
            give_up(Notice::refused);
    } else if (opcode == kRequestArcTermination && phase_ == Phase::closing)
        enter(Phase::closed);
}

void TvSide::refuse(uint8_t from, uint8_t opcode, AbortReason reason)
{
    // No device owns that address, which as a destination is the broadcast address.
    if (from == kUnregistered || outbox_.size() >= kOutboxMax)
        return;
    send(Message(static_cast<LogicalAddress>(from), kFeatureAbort, {opcode, static_cast<uint8_t>(reason)}));
    ++refusals_;
}

void TvSide::delivered(const Message& message, Delivery delivery, int64_t now)
{
    const bool arrived = delivery == Delivery::acknowledged;
    const Notice cause = delivery == Delivery::not_acknowledged ? Notice::no_audio_system : Notice::no_answer;
    switch (message.opcode()) {
    case kGivePhysicalAddress:
        if (inquiry_deadline_ == kNever)
            return;
        if (arrived)
            inquiry_deadline_ = now + kResponseMs;
        else
            address_unknown(cause, now);
        return;
    case kRequestArcInitiation:
        if (phase_ != Phase::requesting)
            return;
        if (arrived)
            enter(Phase::requesting, now + kResponseMs);
        else
            attempt_failed(cause, now);
        return;
    case kReportArcInitiated:
        if (phase_ != Phase::confirming)
            return;
        if (arrived) {
            confirmed_ = true;
            enter(Phase::active);
            notify(Notice::opened);
        } else {
            attempt_failed(cause, now);
        }
        return;
    case kRequestArcTermination:
        if (phase_ == Phase::closing && delivery == Delivery::not_acknowledged)
            enter(Phase::closed);
        else if (phase_ == Phase::closing && delivery == Delivery::failed)
            enter(Phase::closing_pausing, std::min(now + kClosePauseMs, close_deadline_));
        return;
    case kReportArcTerminated:
        if (phase_ == Phase::closing_confirmed)
            enter(Phase::closed);
        return;
    default: return;
    }
}

void TvSide::elapsed(int64_t now)
{
    if (now >= inquiry_deadline_)
        address_unknown(Notice::no_address, now);
    if (now < phase_deadline_)
        return;
    switch (phase_) {
    case Phase::pausing: attempt(now); return;
    case Phase::closing_pausing:
        if (now < close_deadline_)
            request_end();
        else
            enter(Phase::closed);
        return;
    case Phase::closing:
    case Phase::closing_confirmed: enter(Phase::closed); return;
    default: attempt_failed(Notice::no_answer, now); return; // requesting, confirming: no other has a deadline
    }
}

void TvSide::begin(int64_t now)
{
    attempts_ = 0;
    forget_requests();
    attempt(now);
}

void TvSide::attempt(int64_t now)
{
    ++attempts_;
    if (peer_address_) {
        request(now);
        return;
    }
    enter(Phase::asking_address);
    ask_address(now);
}

void TvSide::request(int64_t now)
{
    if (!adjacent(own_address_, *peer_address_)) {
        give_up(Notice::not_adjacent);
        return;
    }
    enter(Phase::requesting, now + kDeliveryMs);
    send(Message(kAudioSystem, kRequestArcInitiation));
}

void TvSide::attempt_failed(Notice cause, int64_t now)
{
    if (cause == Notice::no_audio_system) {
        peer_address_.reset();
        granted_ = confirmed_ = false;
    }
    if (attempts_ >= kAttempts)
        give_up(cause);
    else
        enter(Phase::pausing, now + (kFirstPauseMs << std::max(0, attempts_ - 1)));
}

void TvSide::give_up(Notice cause)
{
    // The request was repeated because the audio system reported its address. It refuses, since the channel is open.
    if (confirmed_ && cause == Notice::refused) {
        enter(Phase::active);
        return;
    }
    enter(Phase::quiet);
    notify(cause);
}

void TvSide::ask_address(int64_t now)
{
    if (inquiry_deadline_ != kNever)
        return;
    inquiry_deadline_ = now + kDeliveryMs;
    send(Message(kAudioSystem, kGivePhysicalAddress));
}

void TvSide::address_unknown(Notice cause, int64_t now)
{
    inquiry_deadline_ = kNever;
    if (deferred_)
        refuse(kAudioSystem, *deferred_, kRefused);
    deferred_.reset();
    if (phase_ == Phase::asking_address)
        attempt_failed(cause, now);
}

// Audio systems report their address when they are asked for it, and after they were connected or switched on. In the
// second case an open channel is gone.
void TvSide::address_reported(uint16_t address, int64_t now)
{
    const bool moved = peer_address_ != address;
    peer_address_ = address;
    inquiry_deadline_ = kNever;
    if (!wanted_)
        return;
    if (deferred_) {
        const Opcode opcode = *deferred_;
        deferred_.reset();
        // Without room in the outbox the deferred message gets no answer.
        const bool room = outbox_.size() < kOutboxMax;
        arc_message(kAudioSystem, opcode, 2, now);
        if (room && adjacent(own_address_, address))
            return;
    }
    if (phase_ == Phase::asking_address)
        request(now);
    else if (moved || !in_attempt())
        begin(now);
}

bool TvSide::in_attempt() const
{
    return phase_ == Phase::asking_address || phase_ == Phase::requesting || phase_ == Phase::confirming;
}

bool TvSide::in_close() const
{
    return phase_ == Phase::closing || phase_ == Phase::closing_pausing || phase_ == Phase::closing_confirmed ||
           phase_ == Phase::closed;
}

void TvSide::forget_requests()
{
    const auto is_request = [this](const Message& message) {
        return (message.opcode() == kGivePhysicalAddress && inquiry_deadline_ == kNever) ||
               message.opcode() == kRequestArcInitiation || message.opcode() == kRequestArcTermination;
    };
    outbox_.erase(std::remove_if(outbox_.begin(), outbox_.end(), is_request), outbox_.end());
}

void TvSide::notify(Notice notice)
{
    notices_.push_back(notice);
    if (notices_.size() > kNoticesMax)
        notices_.pop_front();
}

void TvSide::enter(Phase phase, int64_t deadline)
{
    phase_ = phase;
    phase_deadline_ = deadline;
}

std::optional<Message> TvSide::next_message()
{
    if (outbox_.empty())
        return std::nullopt;
    const Message message = outbox_.front();
    outbox_.pop_front();
    return message;
}

std::optional<Notice> TvSide::next_notice()
{
    if (notices_.empty())
        return std::nullopt;
    const Notice notice = notices_.front();
    notices_.pop_front();
    return notice;
}

State TvSide::state() const
{
    switch (phase_) {
    case Phase::asking_address:
    case Phase::requesting:
    case Phase::pausing:
    case Phase::confirming: return State::requested;
    case Phase::active: return State::active;
    case Phase::terminated: return State::terminated;
    case Phase::closing:
    case Phase::closing_pausing:
    case Phase::closing_confirmed:
    case Phase::closed: return was_active_ ? State::terminated : State::idle;
    default: return State::idle;
    }
}

} // namespace cec_arc
