// SPDX-License-Identifier: MIT
// The TV's side of the audio return channel control, without a device: messages and times in, messages out.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <memory>
#include <random>

#include "cec/cec_arc.h"
#include "support/cec_text.h"

namespace
{

using cec_arc::Delivery;
using cec_arc::Notice;
using cec_arc::State;
using cec_arc::TvSide;
using Bytes = std::vector<uint8_t>;

constexpr uint16_t kRoot = 0x0000;
constexpr int64_t kResponseMs = 1000; // of the standard
constexpr char kAddressReport[] = "5f:84:10:00:05";

// The TV's side on a simulated bus. Messages are acknowledged unless a test says otherwise.
struct Bus {
    void hear(const std::string& text) { hear(parsed(text)); }
    // Passes a copy of the exact size, so that a sanitizer finds reads past its end.
    void hear(const Bytes& message)
    {
        const std::unique_ptr<uint8_t[]> copy(new uint8_t[message.size()]);
        std::copy(message.begin(), message.end(), copy.get());
        arc.received(copy.get(), message.size(), now);
    }
    // What it sends at once when it hears @p text.
    std::string answer(const std::string& text, Delivery delivery = Delivery::acknowledged)
    {
        hear(text);
        return said(delivery);
    }
    std::string said_at_deadline()
    {
        pass_to_deadline();
        return said();
    }
    // Until it waits for nothing any more.
    void pass_all()
    {
        while (arc.deadline() != cec_arc::kNever) {
            said();
            pass_to_deadline();
        }
    }
    // The messages that it sends now, separated by blanks.
    std::string said(Delivery delivery = Delivery::acknowledged)
    {
        std::string all;
        while (const auto message = arc.next_message()) {
            all += (all.empty() ? "" : " ") + printed(message->bytes, message->length);
            arc.delivered(*message, delivery, now);
        }
        return all;
    }
    std::vector<Notice> notices()
    {
        std::vector<Notice> notices;
        while (const auto notice = arc.next_notice())
            notices.push_back(*notice);
        return notices;
    }
    void pass(int64_t milliseconds)
    {
        now += milliseconds;
        arc.elapsed(now);
    }
    // Advances to its next deadline.
    void pass_to_deadline()
    {
        ASSERT_NE(cec_arc::kNever, arc.deadline());
        pass(arc.deadline() - now);
    }

    TvSide arc;
    int64_t now = 1000;
};

enum Stage { kAttached, kOpening, kAsking, kRequesting, kActive, kTerminated, kClosing };

Bus at(Stage stage, bool only_follower = true)
{
    Bus bus;
    bus.arc.attach(kRoot, only_follower, bus.now);
    if (stage == kAttached)
        return bus;
    bus.arc.open(bus.now);
    if (stage == kOpening)
        return bus;
    EXPECT_EQ("05:83", bus.said());
    if (stage == kAsking)
        return bus;
    EXPECT_EQ("05:c3", bus.answer(kAddressReport));
    EXPECT_LE(bus.arc.deadline(), bus.now + kResponseMs);
    if (stage == kRequesting)
        return bus;
    EXPECT_EQ("05:c1", bus.answer("50:c0"));
    EXPECT_EQ(State::active, bus.arc.state());
    EXPECT_EQ(std::vector<Notice>{Notice::opened}, bus.notices());
    if (stage == kTerminated)
        bus.hear("50:c5");
    if (stage == kClosing)
        bus.arc.close(bus.now);
    EXPECT_EQ(stage == kTerminated ? "05:c2" : stage == kClosing ? "05:c4" : "", bus.said());
    return bus;
}

TEST(CecArc, OnlyADeviceOnAConnectorOfTheTvIsAdjacent)
{
    for (const int port : {1, 2, 15})
        EXPECT_TRUE(cec_arc::adjacent(kRoot, static_cast<uint16_t>(port << 12))) << port;
    for (const int other : {0x0000, 0x1100, 0x1110, 0x1111, 0x0100, 0x1010, 0xFFFF})
        EXPECT_FALSE(cec_arc::adjacent(kRoot, static_cast<uint16_t>(other))) << std::hex << other;
    EXPECT_TRUE(cec_arc::adjacent(0x1000, 0x1200));
    EXPECT_FALSE(cec_arc::adjacent(0x1000, 0x2200));
    EXPECT_FALSE(cec_arc::adjacent(0x1000, 0x1000));
    EXPECT_FALSE(cec_arc::adjacent(0x1111, 0x1111));
    EXPECT_FALSE(cec_arc::adjacent(0xFFFF, 0xFFFF));
}

TEST(CecArc, OpensTheChannelOnceAskedAndAttached)
{
    Bus unasked = at(kAttached);
    EXPECT_EQ("05:00:c0:01", unasked.answer("50:c0")) << "not ready";
    EXPECT_EQ(State::idle, unasked.arc.state());

    Bus bus;
    bus.arc.open(bus.now);
    EXPECT_EQ("", bus.said());
    EXPECT_EQ(State::idle, bus.arc.state());
    bus.arc.attach(kRoot, true, bus.now);
    EXPECT_EQ("05:83", bus.said());
    EXPECT_EQ(State::requested, bus.arc.state());
    bus.arc.open(bus.now);
    EXPECT_EQ("", bus.said()) << "asked for twice";
    EXPECT_EQ(cec_arc::kNever, at(kActive).arc.deadline()) << "an open channel needs no attention";

    // The audio system opens the channel while the request is queued, or before its acknowledgement is known.
    Bus queued = at(kAsking);
    queued.hear(kAddressReport);
    Bus under_way = queued;
    EXPECT_EQ("05:c1", queued.answer("50:c0"));
    const auto request = under_way.arc.next_message();
    ASSERT_TRUE(request);
    under_way.hear("50:c0");
    EXPECT_EQ(State::requested, under_way.arc.state()) << "not before it was confirmed";
    under_way.arc.delivered(*request, Delivery::acknowledged, under_way.now);
    EXPECT_EQ("05:c1", under_way.said());
    EXPECT_EQ(State::active, under_way.arc.state());
}

TEST(CecArc, FollowsWhatTheAudioSystemDoesLater)
{
    Bus bus = at(kTerminated);
    EXPECT_EQ(std::vector<Notice>{Notice::closed_by_peer}, bus.notices());
    EXPECT_EQ("05:c2", bus.answer("50:c5")) << "every time";
    EXPECT_EQ("05:c1", bus.answer("50:c0"));
    EXPECT_EQ(State::active, bus.arc.state());
    EXPECT_EQ("05:c1", bus.answer("50:c0")) << "every time";
    EXPECT_EQ(State::active, bus.arc.state());
    EXPECT_EQ(std::vector<Notice>{Notice::opened}, bus.notices()) << "once";
    // All before the bus was free: the last one counts.
    bus.hear("50:c5");
    bus.hear("50:c0");
    EXPECT_EQ("05:c2 05:c1 05:c2", bus.answer("50:c5"));
    EXPECT_EQ(State::terminated, bus.arc.state());
}

TEST(CecArc, RefusesWhatIsMalformedOrComesFromElsewhere)
{
    for (const char* opcode : {"c0", "c5"}) {
        const std::string op = opcode;
        const std::vector<std::pair<std::string, std::string>> cases = {
            {"50:" + op + ":00", "05:00:" + op + ":03"},
            {"50:" + op + ":00:01:02:03:04:05:06:07:08:09:0a:0b:0c:0d", "05:00:" + op + ":03"},
            {"40:" + op, "04:00:" + op + ":04"},
            {"e0:" + op, "0e:00:" + op + ":04"},
            {"f0:" + op, ""},
            {"5f:" + op, ""},
            {"51:" + op, ""},
            {"00:" + op, ""},
        };
        for (const auto& [message, answer] : cases)
            for (Bus bus : {at(kRequesting), at(kActive), at(kTerminated)}) {
                const State before = bus.arc.state();
                EXPECT_EQ(answer, bus.answer(message)) << message;
                EXPECT_EQ(before, bus.arc.state()) << message;
            }
    }
    for (const char* opcode : {"c1", "c2", "c3", "c4"}) { // of the other role
        Bus bus = at(kActive);
        EXPECT_EQ(std::string("05:00:") + opcode + ":00", bus.answer(std::string("50:") + opcode));
    }
}

TEST(CecArc, AnAudioSystemBehindAnotherDeviceIsRefused)
{
    Bus bus = at(kAsking);
    EXPECT_EQ("", bus.answer("5f:84:11:00:05"));
    EXPECT_EQ(std::vector<Notice>{Notice::not_adjacent}, bus.notices());
    for (const char* opcode : {"c0", "c5"}) {
        EXPECT_EQ(std::string("05:00:") + opcode + ":04", bus.answer(std::string("50:") + opcode));
    }
    EXPECT_EQ(State::idle, bus.arc.state());
    bus.hear(kAddressReport); // Plugged in directly now.
    EXPECT_EQ("05:c3", bus.said());
    bus = at(kActive);
    bus.hear("5f:84:11:00:05");
    EXPECT_EQ(State::idle, bus.arc.state());
}

TEST(CecArc, WaitsForTheAddressBeforeItAnswers)
{
    Bus bus = at(kOpening);
    EXPECT_EQ("05:83", bus.said(Delivery::not_acknowledged)); // Switched on a little later,
    bus.hear("50:c0");                                        // it opens the channel by itself.
    EXPECT_EQ("05:83", bus.said());
    Bus other = bus;
    Bus silent = bus;
    EXPECT_EQ("05:c1", bus.answer(kAddressReport));
    EXPECT_EQ(State::active, bus.arc.state());
    EXPECT_EQ("05:00:c0:04", other.answer("5f:84:12:00:05"));
    silent.pass(kResponseMs);
    EXPECT_EQ("05:00:c0:04 05:83", silent.said());
    for (Bus* answered : {&bus, &silent}) {
        EXPECT_EQ("05:c3", answered->answer(kAddressReport)) << "that message was answered already";
    }
    // It reported its address before the question was sent, which then is not sent.
    for (const auto& [message, answer, state] :
         {std::tuple("50:c0", "05:c1", State::active), std::tuple("50:c5", "05:c2", State::terminated)}) {
        Bus unasked = at(kOpening);
        unasked.hear(message);
        EXPECT_EQ(answer, unasked.answer(kAddressReport));
        EXPECT_EQ(state, unasked.arc.state());
    }
    // The bus is busy with answers to others when the report comes.
    const auto expect_request_after_flood = [](Bus flooded) {
        for (int i = 0; i < 20; ++i)
            flooded.hear("40:8f");
        EXPECT_EQ("05:c3", flooded.answer(kAddressReport).substr(16 * sizeof("04:00:8f:00")));
    };
    Bus flooded = at(kAsking);
    flooded.hear("50:c0");
    expect_request_after_flood(flooded);
    flooded = at(kOpening);
    flooded.hear("50:00:83:00"); // It refuses to report its address: given up until it opens the channel by itself.
    flooded.pass_all();
    EXPECT_EQ("05:83", flooded.answer("50:c0"));
    expect_request_after_flood(flooded);
    // Reports that do not count: from another device, not broadcast, too short.
    for (const char* report : {"4f:84:10:00:04", "50:84:10:00:05", "5f:84:10:00"}) {
        Bus waiting = at(kAsking);
        EXPECT_EQ("", waiting.answer(report)) << report;
    }
}

// Three attempts, one notice, then no more messages.
void expect_attempts(Bus bus, const char* message, Delivery delivery, Notice notice)
{
    int attempts = 0;
    std::string all;
    do {
        const std::string said = bus.said(delivery);
        attempts += said.empty() ? 0 : 1;
        all += said.empty() || !all.empty() ? "" : said;
        if (bus.arc.deadline() != cec_arc::kNever)
            bus.pass_to_deadline();
    } while (attempts < 10 && bus.arc.deadline() != cec_arc::kNever);
    EXPECT_EQ(message, all);
    EXPECT_EQ(3, attempts);
    EXPECT_EQ(std::vector<Notice>{notice}, bus.notices());
    EXPECT_EQ(State::idle, bus.arc.state());
    EXPECT_LT(bus.now, 8000);
    // It asks again when the audio system appears, and accepts a channel that this opens by itself.
    EXPECT_EQ("05:c3", bus.answer(kAddressReport));
    bus.pass_to_deadline();
    EXPECT_EQ("05:c3", bus.said_at_deadline());
    EXPECT_EQ("05:c1", bus.answer("50:c0"));
    EXPECT_EQ(State::active, bus.arc.state());
}

TEST(CecArc, GivesUpAfterSomeAttemptsAndSaysWhy)
{
    Bus bus = at(kOpening);
    expect_attempts(bus, "05:83", Delivery::not_acknowledged, Notice::no_audio_system);
    expect_attempts(bus, "05:83", Delivery::failed, Notice::no_answer);
    expect_attempts(bus, "05:83", Delivery::acknowledged, Notice::no_address);
    bus = at(kAsking);
    bus.hear(kAddressReport);
    expect_attempts(bus, "05:c3", Delivery::acknowledged, Notice::no_answer);
    expect_attempts(bus, "05:c3", Delivery::failed, Notice::no_answer);
    // A channel that it opens by itself afterwards is confirmed with the same number of attempts.
    bus.pass_all();
    EXPECT_EQ("05:c1", bus.answer("50:c0", Delivery::failed));
    EXPECT_EQ(State::requested, bus.arc.state());
    EXPECT_EQ("05:c3", bus.said_at_deadline());
}

TEST(CecArc, TakesARefusalAsFinalUnlessItMayPass)
{
    for (const char* reason : {"00", "03", "04", "05", "ff"}) {
        Bus bus = at(kRequesting);
        bus.hear(std::string("50:00:c3:") + reason);
        EXPECT_EQ(State::idle, bus.arc.state());
        EXPECT_EQ(cec_arc::kNever, bus.arc.deadline());
        EXPECT_EQ(std::vector<Notice>{Notice::refused}, bus.notices());
    }
    Bus bus = at(kRequesting);
    bus.hear("50:00:c3:01"); // in standby
    EXPECT_EQ("05:c3", bus.said_at_deadline());
    for (const char* nothing : {"40:00:c3:04", "50:00:c3", "50:00", "5f:00:c3:04", "50:00:c1:04"})
        bus.hear(nothing);
    EXPECT_EQ(State::requested, bus.arc.state());
    EXPECT_EQ("", bus.said()) << "a Feature Abort is never answered";
    bus = at(kAsking);
    bus.hear("50:00:83:00");
    EXPECT_EQ("05:83", bus.said_at_deadline());
}

TEST(CecArc, ConfirmationThatDoesNotArriveIsNoOpenChannel)
{
    Bus bus = at(kRequesting);
    EXPECT_EQ("05:c1", bus.answer("50:c0", Delivery::not_acknowledged));
    EXPECT_EQ(State::requested, bus.arc.state());
    EXPECT_EQ("05:83", bus.said_at_deadline()) << "it has gone: begun again";
}

TEST(CecArc, WhatWasGrantedIsTakenBackWhateverCameOfAskingAgain)
{
    Bus bus = at(kActive);
    bus.hear(kAddressReport);
    bus.pass_all();
    EXPECT_EQ(State::idle, bus.arc.state());
    bus.notices();
    bus.arc.close(bus.now);
    EXPECT_EQ("05:c4", bus.said());

    bus = at(kActive);
    EXPECT_EQ("05:c3", bus.answer(kAddressReport));
    bus.hear("50:00:c3:04");
    EXPECT_EQ(State::active, bus.arc.state()) << "it refuses what is open";
    EXPECT_TRUE(bus.notices().empty());

    bus = at(kRequesting);
    EXPECT_EQ("05:c1", bus.answer("50:c0", Delivery::failed));
    EXPECT_EQ("05:c3", bus.said_at_deadline());
    bus.hear("50:00:c3:04");
    EXPECT_EQ(State::idle, bus.arc.state()) << "it never knew that it is open";
}

TEST(CecArc, AsksAgainWhenTheLinkOrTheAudioSystemComesBack)
{
    for (Bus bus : {at(kAsking), at(kRequesting), at(kActive), at(kTerminated)}) {
        bus.hear("40:c0"); // Its answer is not sent any more.
        bus.arc.detach();
        EXPECT_EQ(State::idle, bus.arc.state());
        EXPECT_EQ(cec_arc::kNever, bus.arc.deadline());
        EXPECT_EQ("", bus.answer("50:c0"));
        bus.arc.attach(0x1000, true, bus.now);
        EXPECT_EQ("05:83", bus.said());
        EXPECT_EQ("05:c3", bus.answer("5f:84:13:00:05"));
    }
    Bus bus = at(kActive);
    bus.hear(kAddressReport); // Only the audio system was away.
    EXPECT_EQ("05:c3", bus.said());
    EXPECT_EQ("", bus.answer(kAddressReport)) << "once for each time";
    bus = at(kTerminated);
    bus.arc.open(bus.now);
    EXPECT_EQ("05:c3", bus.said()) << "the host may ask again";
}

TEST(CecArc, ClosesWithinItsTime)
{
    Bus bus = at(kClosing);
    EXPECT_EQ("05:00:c0:01", bus.answer("50:c0"));
    bus.hear("50:c5");
    EXPECT_FALSE(bus.arc.closed());
    EXPECT_EQ("05:c2", bus.said());
    EXPECT_TRUE(bus.arc.closed());
    EXPECT_EQ(State::terminated, bus.arc.state());
    bus.arc.attach(kRoot, true, bus.now);
    bus.arc.open(bus.now);
    EXPECT_EQ("", bus.answer("50:c0")) << "closed for good";

    const std::vector<std::function<void(Bus&)>> ends = {
        [](Bus& b) { b.pass(TvSide::kCloseMs); },
        [](Bus& b) { b.hear("50:00:c4:00"); },
        [](Bus& b) { b.arc.detach(); },
        [](Bus& b) { b.arc.attach(0x2000, true, b.now); },
    };
    for (const auto& end : ends) {
        bus = at(kClosing);
        end(bus);
        EXPECT_TRUE(bus.arc.closed());
    }
    bus = at(kActive);
    bus.hear("40:c0");
    bus.arc.close(bus.now);
    Bus faster = bus;
    EXPECT_EQ("05:c4", bus.said());
    EXPECT_EQ("05:c2", faster.answer("50:c5"));
    EXPECT_TRUE(faster.arc.closed());
    bus = at(kActive); // A disturbed bus: again, while there is time.
    bus.arc.close(bus.now);
    EXPECT_EQ("05:c4", bus.said(Delivery::failed));
    EXPECT_FALSE(bus.arc.closed());
    EXPECT_EQ("", bus.said()) << "not at once";
    Bus disturbed = bus;
    EXPECT_EQ("05:c4", bus.said_at_deadline());
    EXPECT_EQ("05:c2", bus.answer("50:c5"));
    EXPECT_TRUE(bus.arc.closed());
    const int64_t end = disturbed.now + TvSide::kCloseMs;
    while (!disturbed.arc.closed() && disturbed.now <= end) {
        disturbed.pass_to_deadline();
        disturbed.said(Delivery::failed);
    }
    EXPECT_TRUE(disturbed.arc.closed());
    EXPECT_EQ(end, disturbed.now);
    bus = at(kRequesting); // What was asked for is taken back.
    bus.arc.close(bus.now);
    EXPECT_EQ("05:c4", bus.said(Delivery::not_acknowledged));
    EXPECT_TRUE(bus.arc.closed());
    for (Bus quiet : {Bus(), at(kAttached), at(kAsking), at(kTerminated)}) {
        quiet.arc.close(quiet.now);
        EXPECT_TRUE(quiet.arc.closed());
        EXPECT_EQ("", quiet.said());
    }
}

TEST(CecArc, AnswersOthersOnlyWhereNobodyElseDoes)
{
    Bus alone = at(kAttached, true);
    Bus shared = at(kAttached, false);
    for (const char* message : {"40:8f", "80:89:01:02", "50:ff", "40:44:41", "40:45", "f0:8f", "4f:8f", "40"}) {
        alone.hear(message);
        shared.hear(message);
    }
    EXPECT_EQ("04:00:8f:00 08:00:89:00 05:00:ff:00 04:00:44:00", alone.said());
    EXPECT_EQ(4, alone.arc.refusals());
    EXPECT_EQ("", shared.said());
}

TEST(CecArc, AFloodIsNotAnsweredFasterThanTheBusCarries)
{
    Bus bus = at(kActive);
    for (int i = 0; i < 1000; ++i)
        for (const char* message : {"50:c0", "40:c0", "40:8f", "5f:84:20:00:05", "50:c5", kAddressReport})
            bus.hear(message);
    const std::string said = bus.said();
    EXPECT_LT(said.size(), 20 * sizeof("05:00:c0:04"));
    EXPECT_NE(std::string::npos, said.find("05:c2"));
    EXPECT_EQ(State::requested, bus.arc.state()) << "its own request finds room all the same";
    EXPECT_EQ("05:c3", said.substr(said.size() - 5));
}

// Any message gets at most one answer, from the TV to the initiator. A broadcast or a message from a device without an
// address gets none. Only the audio system's messages change the state.
void expect_manners(const Bus& before, const Bytes& message)
{
    Bus bus = before;
    bus.hear(message);
    const auto text = [&message] { return printed(message.data(), message.size()); };
    const bool directed = message.size() > 1 && (message[0] & 0xF) == cec_arc::kTv;
    const int from = message.empty() ? -1 : message[0] >> 4;
    if (from != cec_arc::kAudioSystem) {
        ASSERT_EQ(before.arc.state(), bus.arc.state()) << text();
    }
    const bool address = message.size() > 1 && from == cec_arc::kAudioSystem && message[1] == 0x84;
    for (int answers = 0; const auto answer = bus.arc.next_message(); ++answers) {
        ASSERT_EQ(0, answers) << text();
        ASSERT_TRUE(directed || address) << text();
        ASSERT_EQ(address ? cec_arc::kAudioSystem : from, answer->bytes[0]) << text();
        ASSERT_NE(cec_arc::kUnregistered, from) << text();
        ASSERT_NE(cec_arc::kFeatureAbort, message[1]) << text();
        if (answer->opcode() == cec_arc::kFeatureAbort) {
            ASSERT_EQ(4, answer->length);
            ASSERT_EQ(message[1], answer->bytes[2]) << text();
        } else {
            ASSERT_EQ(2, answer->length) << text();
        }
    }
}

TEST(CecArc, EveryMessageOfEveryLengthFindsItWellBehaved)
{
    for (const Bus& bus :
         {Bus(), at(kAttached), at(kAsking), at(kRequesting), at(kActive), at(kTerminated), at(kClosing)})
        for (const size_t length : {0, 1, 2, 3, 4, 5, 16, 40})
            for (int from = 0; from < 16; ++from)
                for (int to = 0; to < 16; ++to)
                    for (int opcode = 0; opcode < (length > 1 ? 256 : 1); ++opcode) {
                        Bytes message(length, 0x10);
                        if (length > 0)
                            message[0] = static_cast<uint8_t>(from << 4 | to);
                        if (length > 1)
                            message[1] = static_cast<uint8_t>(opcode);
                        ASSERT_NO_FATAL_FAILURE(expect_manners(bus, message));
                    }
}

TEST(CecArc, NoSequenceOfEventsLeavesItStuck)
{
    std::mt19937 random(4);
    const auto any = [&random](int limit) { return static_cast<int>(random() % static_cast<unsigned>(limit)); };
    const std::array<uint8_t, 10> opcodes = {0x00, 0x83, 0x84, 0xC0, 0xC0, 0xC1, 0xC2, 0xC3, 0xC4, 0xC5};
    for (int run = 0; run < 400; ++run) {
        Bus bus = at(kAttached, any(2) == 0);
        bus.arc.open(bus.now);
        for (int step = 0; step < 200; ++step) {
            const int event = any(20);
            if (event == 0)
                bus.arc.detach();
            else if (event < 3)
                bus.arc.attach(static_cast<uint16_t>(any(3) << 12), any(2) == 0, bus.now);
            else if (event < 6)
                bus.said(static_cast<Delivery>(any(3)));
            else if (event < 9)
                bus.pass(any(3000));
            else {
                Bytes message = {static_cast<uint8_t>(any(4) == 0 ? any(256) : 0x50 | any(2) * 0xF),
                                 opcodes[static_cast<size_t>(any(10))], static_cast<uint8_t>(any(4) * 0x61),
                                 static_cast<uint8_t>(any(6)), 5};
                message.resize(static_cast<size_t>(any(6)));
                bus.hear(message);
            }
            const bool waits = bus.arc.state() == State::requested && bus.arc.deadline() == cec_arc::kNever;
            ASSERT_TRUE(!waits || !Bus(bus).said().empty()) << run << ": for nothing, for ever";
        }
        // From now on the audio system behaves: the channel opens.
        bus.arc.attach(kRoot, true, bus.now);
        bus.notices();
        bus.said();
        bus.hear(kAddressReport);
        ASSERT_EQ("05:c3", bus.said()) << run;
        bus.hear("50:c0");
        ASSERT_EQ("05:c1", bus.said()) << run;
        ASSERT_EQ(State::active, bus.arc.state()) << run;
        bus.arc.close(bus.now);
        bus.pass(TvSide::kCloseMs);
        ASSERT_TRUE(bus.arc.closed()) << run;
    }
}

} // namespace
