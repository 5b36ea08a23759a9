// SPDX-License-Identifier: MIT
// The Linux platform's sound devices on the kernel's cards, inside the virtual machine: loopbacks for the sound, a
// dummy card for the mixer. Runs as root. Cards that go and come back are the check "disturb"'s.
#include <gtest/gtest.h>
#include <sched.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>

#include "aio_device.h"
#include "hdmi_linux.h"
#include "sound_fixture.h"

namespace
{

using hdmi_linux::capture_stats;

/// A control that the dummy card has for one test.
class Control
{
public:
    using Add = int (*)(snd_ctl_t* ctl, const snd_ctl_elem_id_t* id);

    Control(snd_ctl_elem_iface_t interface, const char* name, Add add)
    {
        EXPECT_EQ(snd_ctl_open(&ctl_, "hw:Dummy", 0), 0);
        EXPECT_EQ(snd_ctl_elem_id_malloc(&id_), 0);
        EXPECT_EQ(snd_ctl_elem_value_malloc(&value_), 0);
        snd_ctl_elem_id_set_interface(id_, interface);
        snd_ctl_elem_id_set_name(id_, name);
        EXPECT_GE(add(ctl_, id_), 0);
        // Others may write it only then.
        EXPECT_GE(snd_ctl_elem_unlock(ctl_, id_), 0);
    }
    ~Control()
    {
        snd_ctl_elem_remove(ctl_, id_);
        snd_ctl_elem_value_free(value_);
        snd_ctl_elem_id_free(id_);
        snd_ctl_close(ctl_);
    }
    Control(const Control&) = delete;
    Control& operator=(const Control&) = delete;

    snd_aes_iec958_t status() const
    {
        snd_aes_iec958_t status = {};
        snd_ctl_elem_value_get_iec958(read(), &status);
        return status;
    }
    /// Of both channels.
    std::vector<long> values() const
    {
        const snd_ctl_elem_value_t* value = read();
        return {snd_ctl_elem_value_get_integer(value, 0), snd_ctl_elem_value_get_integer(value, 1)};
    }

private:
    const snd_ctl_elem_value_t* read() const
    {
        snd_ctl_elem_value_set_id(value_, id_);
        EXPECT_GE(snd_ctl_elem_read(ctl_, value_), 0);
        return value_;
    }

    snd_ctl_t* ctl_ = nullptr;
    snd_ctl_elem_id_t* id_ = nullptr;
    snd_ctl_elem_value_t* value_ = nullptr;
};

using SoundProbe = AudioDevices;

TEST_F(SoundProbe, TheOldestIsLostToALateReaderAndCaptureGoesOn)
{
    const Feeder link("hw:Cable,0");
    ASSERT_EQ(aio_device_open(&capture_), 0);
    std::vector<int16_t> left;
    ASSERT_EQ(read_block(&left), kBlockBytes);
    const int64_t xruns = capture_stats().xruns;
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    for (int block = 0; block < 20; ++block)
        ASSERT_EQ(read_block(&left), kBlockBytes);
    EXPECT_GT(capture_stats().xruns, xruns);
}

TEST_F(SoundProbe, ASourceThatChangesItsRateIsFoundAtTheNewOne)
{
    auto link = std::make_unique<Feeder>("hw:Cable,0");
    ASSERT_EQ(aio_device_open(&capture_), 0);
    std::vector<int16_t> left;
    ASSERT_EQ(read_block(&left), kBlockBytes);
    link.reset();
    ASSERT_EQ(aio_device_close(&capture_), 0);
    link = std::make_unique<Feeder>("hw:Cable,0", 44100);
    EXPECT_LT(aio_device_open(&capture_), 0) << "the link runs at another rate";
    capture_.sample_rate = 44100;
    capture_.period_frames = 896;
    ASSERT_EQ(aio_device_open(&capture_), 0);
    EXPECT_EQ(read_block(&left), kBlockBytes);
}

TEST_F(SoundProbe, VolumeAndMuteAreTheMixersWhereThereIsOne)
{
    setenv("HDMIPLAYER_ALSA_SPEAKER", "hw:Dummy", 1);
    ASSERT_EQ(aio_device_open(&playback_), 0);
    snd_mixer_t* mixer = nullptr;
    ASSERT_EQ(snd_mixer_open(&mixer, 0), 0);
    ASSERT_EQ(snd_mixer_attach(mixer, "hw:Dummy"), 0);
    ASSERT_EQ(snd_mixer_selem_register(mixer, nullptr, nullptr), 0);
    ASSERT_EQ(snd_mixer_load(mixer), 0);
    snd_mixer_elem_t* element = snd_mixer_first_elem(mixer);
    while (std::string(snd_mixer_selem_get_name(element)) != "Master")
        element = snd_mixer_elem_next(element);
    const auto decibels = [&] {
        long value = 0;
        snd_mixer_handle_events(mixer);
        EXPECT_EQ(snd_mixer_selem_get_playback_dB(element, SND_MIXER_SCHN_FRONT_LEFT, &value), 0);
        return value;
    };
    long min = 0;
    long max = 0;
    ASSERT_EQ(snd_mixer_selem_get_playback_dB_range(element, &min, &max), 0);
    ASSERT_EQ(aio_device_set_volume(&playback_, 100), 0);
    EXPECT_EQ(decibels(), max);
    ASSERT_EQ(aio_device_set_volume(&playback_, 50), 0);
    const long half = decibels();
    EXPECT_LT(half, max - 1200);
    EXPECT_GT(half, max - 1800);
    ASSERT_EQ(aio_device_set_mute(&playback_, true), 0);
    EXPECT_EQ(decibels(), min) << "it has no switch";
    ASSERT_EQ(aio_device_set_mute(&playback_, false), 0);
    EXPECT_EQ(decibels(), half);
    EXPECT_NE(aio_device_set_volume_direct(&playback_, 100000), 0);
    EXPECT_EQ(aio_device_set_volume_direct(&playback_, 0), 0);
    EXPECT_NE(decibels(), half);
    snd_mixer_close(mixer);
    setenv("HDMIPLAYER_ALSA_SPEAKER", "hw:Speaker,0", 1);
}

TEST_F(SoundProbe, MuteIsTheMixersSwitchAndPercentsAreEvenWithoutDecibels)
{
    const Control volume(SND_CTL_ELEM_IFACE_MIXER, "Headphone Playback Volume",
                         [](auto* ctl, auto* id) { return snd_ctl_elem_add_integer(ctl, id, 2, 10, 210, 1); });
    const Control sounding(SND_CTL_ELEM_IFACE_MIXER, "Headphone Playback Switch",
                           [](auto* ctl, auto* id) { return snd_ctl_elem_add_boolean(ctl, id, 2); });
    playback_.device_id = E_AUDIO_IO_DEV_HEADPHONE;
    playback_.pcm_name = "hw:Dummy";
    ASSERT_EQ(aio_device_open(&playback_), 0);
    const auto expect = [&](long level, long sounds, const char* what) {
        EXPECT_EQ(volume.values(), (std::vector<long>{level, level})) << what;
        EXPECT_EQ(sounding.values(), (std::vector<long>{sounds, sounds})) << what;
    };
    ASSERT_EQ(aio_device_set_mute(&playback_, false), 0);
    for (const auto& [percent, level] : {std::pair(100, 210L), {0, 10L}, {50, 110L}}) {
        ASSERT_EQ(aio_device_set_volume(&playback_, percent), 0);
        expect(level, 1, "even");
    }
    ASSERT_EQ(aio_device_set_mute(&playback_, true), 0);
    expect(110, 0, "the switch does it");
    ASSERT_EQ(aio_device_set_volume(&playback_, 25), 0);
    expect(60, 0, "still muted");
    ASSERT_EQ(aio_device_set_mute(&playback_, false), 0);
    expect(60, 1, "sounds again");
}

TEST_F(SoundProbe, ADigitalOutputsControlSaysWhatItCarries)
{
    constexpr unsigned char kSound = 0x04;
    constexpr unsigned char kData = 0x06;
    const Control carries(SND_CTL_ELEM_IFACE_PCM, "IEC958 Playback Default", snd_ctl_elem_add_iec958);
    setenv("HDMIPLAYER_ALSA_SPDIF", "hw:Dummy", 1);
    playback_.device_id = E_AUDIO_IO_DEV_SPDIF;
    playback_.sample_rate = 32000;
    ASSERT_EQ(aio_device_open(&playback_), 0);
    EXPECT_EQ(carries.status().status[0], kSound);
    EXPECT_EQ(carries.status().status[3], 0x03) << "32 kHz";
    ASSERT_EQ(aio_device_close(&playback_), 0);

    const Feeder link("hw:Cable,0", kRate, kPeriod / 10);
    capture_.in_bypass_mode = E_AUDIO_IN_BYPASS_MODE_TO_RAW;
    const int64_t passed = hdmi_linux::bypass_stats().frames;
    ASSERT_EQ(aio_device_open(&capture_), 0);
    EXPECT_TRUE(eventually([&] { return hdmi_linux::bypass_stats().frames > passed + kRate / 2; }));
    EXPECT_EQ(carries.status().status[0], kData);
    EXPECT_EQ(carries.status().status[3], 0x02) << "48 kHz";
    ASSERT_EQ(aio_device_close(&capture_), 0);
    EXPECT_EQ(carries.status().status[0], kSound) << "for others that play there";
    unsetenv("HDMIPLAYER_ALSA_SPDIF");
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    // As the player's threads do.
    struct sched_param priority = {};
    priority.sched_priority = 50;
    sched_setscheduler(0, SCHED_RR, &priority);
    setenv("HDMIPLAYER_ALSA_SPEAKER", "hw:Speaker,0", 1);
    setenv("HDMIPLAYER_ALSA_HDMI_IN", "hw:Cable,1", 1);
    return RUN_ALL_TESTS();
}
