// SPDX-License-Identifier: MIT
// The parts of the Linux platform's sound that need no device.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include "alsa_matching.h"
#include "alsa_pcm.h"
#include "alsa_time.h"
#include "alsa_volume.h"
#include "burst_follower.h"
#include "config.h"
#include "hdmi_linux.h"
#include "iec958.h"
#include "support/blocked_call.h"

namespace
{

// The controls of a card that the tests make up, in the place of alsa-lib's.
struct Element {
    const char* name;
    snd_ctl_elem_iface_t interface;
    unsigned device, index;
    snd_aes_iec958_t value = {};
    int fails = 0; ///< 1: reads, 2: writes
};
struct Card {
    std::vector<Element> elements;
    int opened = 0;
    int list_result = 0;
} g_card;

Element& element(unsigned at) { return g_card.elements[at]; }

} // namespace

extern "C" {
#define WRAPPED(result, name, parameters)    \
    result __wrap_snd_ctl_##name parameters; \
    result __wrap_snd_ctl_##name parameters
WRAPPED(int, open, (snd_ctl_t * *ctl, const char* name, int))
{
    if (std::string(name) != "hw:5")
        return -ENODEV;
    ++g_card.opened;
    *ctl = reinterpret_cast<snd_ctl_t*>(&g_card);
    return 0;
}
WRAPPED(int, close, (snd_ctl_t*)) { return --g_card.opened; }
WRAPPED(int, elem_list, (snd_ctl_t*, snd_ctl_elem_list_t*)) { return g_card.list_result; }
WRAPPED(unsigned, elem_list_get_count, (const snd_ctl_elem_list_t*))
{
    return static_cast<unsigned>(g_card.elements.size());
}
WRAPPED(unsigned, elem_list_get_used, (const snd_ctl_elem_list_t*))
{
    return static_cast<unsigned>(g_card.elements.size());
}
WRAPPED(const char*, elem_list_get_name, (const snd_ctl_elem_list_t*, unsigned at)) { return element(at).name; }
WRAPPED(snd_ctl_elem_iface_t, elem_list_get_interface, (const snd_ctl_elem_list_t*, unsigned at))
{
    return element(at).interface;
}
WRAPPED(unsigned, elem_list_get_device, (const snd_ctl_elem_list_t*, unsigned at)) { return element(at).device; }
WRAPPED(unsigned, elem_list_get_index, (const snd_ctl_elem_list_t*, unsigned at)) { return element(at).index; }
WRAPPED(unsigned, elem_list_get_numid, (const snd_ctl_elem_list_t*, unsigned at)) { return at + 1; }
WRAPPED(int, elem_read, (snd_ctl_t*, snd_ctl_elem_value_t* value))
{
    Element& read = element(snd_ctl_elem_value_get_numid(value) - 1);
    snd_ctl_elem_value_set_iec958(value, &read.value);
    return read.fails == 1 ? -EIO : 0;
}
WRAPPED(int, elem_write, (snd_ctl_t*, snd_ctl_elem_value_t* value))
{
    Element& written = element(snd_ctl_elem_value_get_numid(value) - 1);
    if (written.fails != 0)
        return -EIO;
    snd_ctl_elem_value_get_iec958(value, &written.value);
    return 1;
}
}

namespace
{

TEST(Iec958, TheStatusControlOfTheDeviceIsFoundAndOnlyItsStatusIsWritten)
{
    constexpr char kName[] = "IEC958 Playback Default";
    const hdmi_linux::ChannelStatus data = hdmi_linux::channel_status(48000, true);
    const auto written = [&data](unsigned at) {
        return std::equal(data.begin(), data.end(), element(at).value.status);
    };
    g_card = {};
    g_card.elements = {{"IEC958 Playback Mask", SND_CTL_ELEM_IFACE_PCM, 3, 0},
                       {kName, SND_CTL_ELEM_IFACE_PCM, 7, 0},
                       {kName, SND_CTL_ELEM_IFACE_PCM, 3, 1},
                       {kName, SND_CTL_ELEM_IFACE_MIXER, 0, 1}};
    element(2).value.subcode[5] = 77;
    EXPECT_TRUE(hdmi_linux::set_status_control(5, 3, data));
    EXPECT_TRUE(written(2) && !written(0) && !written(1) && !written(3)) << "by the number of the device";
    EXPECT_EQ(element(2).value.subcode[5], 77) << "the rest stays";
    EXPECT_FALSE(hdmi_linux::set_status_control(5, 4, data));
    g_card.elements.push_back({kName, SND_CTL_ELEM_IFACE_MIXER, 0, 0});
    EXPECT_TRUE(hdmi_linux::set_status_control(5, 4, data));
    EXPECT_TRUE(written(4)) << "of an older driver";
    for (const int step : {1, 2}) {
        g_card.elements = {{kName, SND_CTL_ELEM_IFACE_PCM, 3, 0, {}, step}};
        EXPECT_FALSE(hdmi_linux::set_status_control(5, 3, data));
    }
    g_card.list_result = -ENOMEM;
    EXPECT_FALSE(hdmi_linux::set_status_control(5, 3, data));
    EXPECT_FALSE(hdmi_linux::set_status_control(6, 3, data)) << "no such card";
    EXPECT_FALSE(hdmi_linux::set_status_control(-1, 3, data));
    EXPECT_EQ(g_card.opened, 0);
}

TEST(Iec958, StatusGoesIntoNamesThatTakeIt)
{
    const hdmi_linux::ChannelStatus data = hdmi_linux::channel_status(32000, true);
    using hdmi_linux::with_channel_status;
    EXPECT_EQ(with_channel_status("iec958", data), "iec958:AES0=0x06,AES1=0x82,AES2=0x00,AES3=0x03");
    EXPECT_EQ(with_channel_status("hdmi:CARD=PCH,DEV=1", data),
              "hdmi:CARD=PCH,DEV=1,AES0=0x06,AES1=0x82,AES2=0x00,AES3=0x03");
    EXPECT_EQ(with_channel_status("spdif:{CARD 1}", data), "spdif:{CARD 1 AES0 0x06 AES1 0x82 AES2 0x00 AES3 0x03 }");
    for (const char* other : {"hw:1,3", "iec958:AES0=0x02", "iec958_out"})
        EXPECT_EQ(with_channel_status(other, data), other);
    const std::pair<int, int> rates[] = {{22050, 4},  {24000, 6},   {32000, 3},   {44100, 0},  {48000, 2}, {88200, 8},
                                         {96000, 10}, {176400, 12}, {192000, 14}, {768000, 9}, {8000, 1}};
    for (const auto& [rate, code] : rates)
        EXPECT_EQ(hdmi_linux::channel_status(rate, false)[3], code) << rate;
}

TEST(Iec958, OnlyWhatFollowsAPayloadIsStuffing)
{
    for (const auto& [type, length] : {std::pair<int16_t, int16_t>{1, 30 * 16}, {21, 30 * 2}}) { // in bits, in bytes
        hdmi_linux::BurstFollower follower;
        std::vector<int16_t> words(2 * 40);
        EXPECT_EQ(follower.find_stuffing(words.data(), 40, 5), -1) << "perhaps of a payload whose start was not seen";
        // Two frames of preamble, 15 of payload, all zeros, and stuffing from frame 17 on.
        const int16_t preamble[] = {static_cast<int16_t>(0xF872), 0x4E1F, type, length};
        std::copy(std::begin(preamble), std::end(preamble), words.begin());
        EXPECT_EQ(follower.find_stuffing(words.data(), 40, 5), 17);
        EXPECT_EQ(follower.find_stuffing(words.data(), 10, 5), -1) << "the payload goes on in what follows";
        EXPECT_EQ(follower.find_stuffing(words.data() + 2 * 10, 11, 5), -1) << "too short";
        EXPECT_EQ(follower.find_stuffing(words.data() + 2 * 21, 19, 5), 0);
    }
}

TEST(AlsaTime, IsReadAsAlsaLibWroteItWithSecondsOfEitherSize)
{
    hdmi_linux::AlsaTime whole, half;
    *whole.to_fill() = {3000, 999999999};
    EXPECT_EQ(whole.ns(), 3000999999999);
    if (sizeof(time_t) < sizeof(int64_t))
        GTEST_SKIP() << "seconds have 32 bits here";
    const int32_t written[] = {3000, 999999999};
    memcpy(half.to_fill(), written, sizeof(written));
    EXPECT_EQ(half.ns(), 3000999999999);
}

TEST(PollGate, WhoPollsAgainAtOnceDoesNotKeepOutWhoClosesTheDevice)
{
    mutex_t mutex;
    hdmi_linux::PollGate gate;
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        mutex_guard guard(mutex);
        while (!stop)
            gate.wait(guard, nullptr, 100);
    });
    BlockedCall<bool> closing([&] {
        for (int round = 0; round < 20; ++round) {
            mutex_guard guard(mutex);
            gate.evict(guard);
        }
        return true;
    });
    EXPECT_TRUE(eventually([&] { return closing.returned(); }));
    stop = true;
    writer.join();
}

TEST(PollGate, WhoWaitsForADeviceThatIsReadyAndTransfersNothingPausesUntilItTransfers)
{
    using std::chrono::steady_clock;
    constexpr std::chrono::milliseconds kPause{1};
    mutex_t mutex;
    hdmi_linux::PollGate gate;
    hdmi_linux::Pcm pcm;
    hdmi_linux::PcmRequest request;
    request.name = "null"; // always ready
    request.stream = SND_PCM_STREAM_CAPTURE;
    std::string why;
    ASSERT_EQ(pcm.open(request, &why), 0) << why;
    mutex_guard guard(mutex);
    const auto wait = [&] {
        const auto begin = steady_clock::now();
        gate.wait(guard, &pcm, 100);
        return steady_clock::now() - begin;
    };
    // The shortest of many: on a busy machine, too, one of them is not held up.
    const auto shortest = [&](bool transfers) {
        auto least = steady_clock::duration::max();
        for (int i = 0; i < 100; ++i) {
            least = std::min(least, wait());
            if (transfers)
                gate.moved();
        }
        return least;
    };
    for (int round = 0; round < 2; ++round) {
        EXPECT_LT(shortest(true), kPause);
        for (int i = 0; i < 10; ++i)
            wait();
        EXPECT_GE(shortest(false), kPause);
        gate.moved();
    }
}

TEST(LinuxConfig, ALineAtFaultIsNamedAndCountsAsMissing)
{
    hdmi_linux::Config config;
    std::vector<std::string> errors;
    hdmi_linux::parse_config("# outputs\n"
                             "speaker = hw:0,0   # the amplifier\n"
                             "speaker.mixer=Digital\n"
                             "  spdif.resample = maybe\n"
                             "loudspeaker = hw:1\n"
                             "hdmi_in.mixer = Capture\n"
                             "hdmi_arc =\n"
                             "mic01\n"
                             "start_periods = 8x\n"
                             "start_periods = 3\n"
                             "raw_output = speaker\r\n"
                             "speaker = hw:2\n"
                             "hdmi_in.periods = 1\n"
                             "i2s_txa.periods = 16\n"
                             "headphone.resample = no\n"
                             "rate_matching = always",
                             "a.conf", &config, &errors);
    const std::vector<std::string> expected = {
        "a.conf:4: spdif.resample: 'maybe' is neither yes nor no",
        "a.conf:5: loudspeaker: unknown key",
        "a.conf:6: hdmi_in.mixer: unknown key",
        "a.conf:7: hdmi_arc: no value",
        "a.conf:8: mic01: no value",
        "a.conf:9: start_periods: '8x' is not a number from 1 to 7",
        "a.conf:10: start_periods: set in line 9 already",
        "a.conf:11: raw_output: 'speaker' is neither spdif nor hdmi_arc",
        "a.conf:12: speaker: set in line 2 already",
        "a.conf:13: hdmi_in.periods: '1' is not a number from 2 to 64",
        "a.conf:16: rate_matching: 'always' is none of auto, on, off",
    };
    EXPECT_EQ(errors, expected);
    EXPECT_EQ(config.audio[E_AUDIO_IO_DEV_SPEAKER].pcm, "hw:0,0");
    EXPECT_EQ(config.audio[E_AUDIO_IO_DEV_SPEAKER].mixer, "Digital");
    EXPECT_EQ(config.audio[E_AUDIO_IO_DEV_HDMI_ARC].pcm, "hdmi");
    EXPECT_FALSE(config.audio[E_AUDIO_IO_DEV_HEADPHONE].resample);
    EXPECT_EQ(config.audio[E_AUDIO_IO_DEV_I2S_TXA].periods, 16);
    EXPECT_EQ(config.start_periods, 2);
}

TEST(LinuxConfig, WhatTheHostNamesGoesBeforeTheEnvironment)
{
    const auto pcm = [](int device) { return hdmi_linux::current_config().audio[device].pcm; };
    setenv("HDMIPLAYER_ALSA_SPEAKER", "hw:1", 1);
    EXPECT_EQ(hdmi_linux_set_device("speaker", "hw:2"), 0);
    EXPECT_EQ(pcm(E_AUDIO_IO_DEV_AUTO), "hw:2");
    EXPECT_EQ(hdmi_linux_set_device("speaker", nullptr), 0);
    EXPECT_EQ(pcm(E_AUDIO_IO_DEV_SPEAKER), "hw:1");
    EXPECT_EQ(hdmi_linux_set_device("speaker.mixer", "Digital"), -1);
    EXPECT_EQ(hdmi_linux_set_device(nullptr, "hw:2"), -1);
    unsetenv("HDMIPLAYER_ALSA_SPEAKER");
}

TEST(AlsaVolume, AChangePassesEveryLevelBetween)
{
    hdmi_linux::GainRamp ramp;
    const std::vector<int16_t> level(2 * 960, 16000);
    std::vector<int16_t> scaled(level.size());
    std::vector<int16_t> heard = {16000};
    for (const float gain : {0.0f, 0.2f}) {
        ramp.set(gain);
        // In parts, as a device takes them.
        for (int frames = 1; frames < 400; frames *= 2) {
            ramp.apply(reinterpret_cast<const uint8_t*>(level.data()), scaled.data(), frames, 2);
            ramp.advance(frames);
            for (int frame = 0; frame < frames; ++frame)
                heard.push_back(scaled[2 * frame + 1]);
        }
        EXPECT_EQ(heard.back(), std::lround(16000 * gain)) << "some milliseconds later";
    }
    for (size_t at = 1; at < heard.size(); ++at)
        ASSERT_LE(std::abs(heard[at] - heard[at - 1]), 100) << at;
}

TEST(AlsaVolume, PercentIsEvenToTheEar)
{
    using hdmi_linux::volume_decibels;
    // With a small range, in proportion to the decibels.
    EXPECT_EQ(volume_decibels(50, -2000, 400), -800);
    // With a large range, or one that ends in silence, in proportion to the cube root of the amplitude.
    EXPECT_EQ(volume_decibels(50, SND_CTL_TLV_DB_GAIN_MUTE, 0), -1806);
    EXPECT_EQ(volume_decibels(50, -6000, 0), -1558);
    for (const long min : {-9000L, -2400L, static_cast<long>(SND_CTL_TLV_DB_GAIN_MUTE)}) {
        EXPECT_EQ(volume_decibels(0, min, 600), min);
        EXPECT_EQ(volume_decibels(100, min, 600), 600);
    }
}

// --- Rate matching ------------------------------------------------------------------

TEST(AlsaMatching, PassesSoundBitForBitWhereBothDevicesAreOneCard)
{
    using hdmi_linux::RateMatching;
    constexpr int kRate = 48000;
    constexpr int kPeriod = 960;
    constexpr int kPeriods = 100;
    struct Case {
        RateMatching policy;
        int capture_card, playback_card; ///< -1: no card
        bool bit_for_bit;
    };
    for (const Case& c : {Case{RateMatching::automatic, 3, 3, true}, Case{RateMatching::automatic, 3, 4, false},
                          Case{RateMatching::automatic, -1, -1, false}, Case{RateMatching::off, 3, 4, true},
                          Case{RateMatching::on, 3, 3, false}}) {
        SCOPED_TRACE(testing::Message() << "cards " << c.capture_card << " and " << c.playback_card);
        hdmi_linux::Matching matching;
        hdmi_linux::SoundRing ring(kRate * 4, 4);
        std::vector<uint8_t> written;
        matching.open(kRate, 2, kPeriod);
        matching.attach(c.policy, c.playback_card);
        for (int period = 0; period < kPeriods; ++period) {
            const int64_t now = (period + 1) * INT64_C(20'000'000);
            matching.captured({1, 0, c.capture_card, kRate, now, int64_t{period + 1} * kPeriod});
            for (int i = 0; i < 4 * kPeriod; ++i)
                written.push_back(static_cast<uint8_t>((i + period) * 7919 >> 3));
            matching.append(written.data() + period * 4 * kPeriod, kPeriod, now, &ring);
            EXPECT_EQ(matching.at_work(), !c.bit_for_bit);
        }
        const auto heard = ring.piece(0, kPeriods * kPeriod);
        EXPECT_EQ(heard.frames == kPeriods * kPeriod && memcmp(heard.data, written.data(), written.size()) == 0,
                  c.bit_for_bit);
    }
}

} // namespace
