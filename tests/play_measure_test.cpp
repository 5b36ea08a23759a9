// SPDX-License-Identifier: MIT
// The play program's measurements, on scenes made up so that the right figures are known.
#include <gtest/gtest.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>

#include "coded_audio.h"
#include "config/config_faults.h"
#include "display/flip_gate.h"
#include "display/frame_pool.h"
#include "host/algorithm.h"
#include "host/trace.h"
#include "made_up_scenes.h"
#include "measure/fidelity.h"
#include "measure/measure.h"
#include "measure/passage.h"
#include "measure/punctuality.h"
#include "measure/raw_check.h"
#include "screen/screen.h"
#include "signal/correlate.h"
#include "signal/onset.h"
#include "signal/rate_conversion.h"
#include "signal/recording.h"
#include "source/coded_programme.h"
#include "source/picture.h"
#include "source/programme.h"
#include "source/reference.h"

using namespace display;
using namespace play;

namespace
{

constexpr int64_t kMs = 1'000'000;
constexpr int64_t kSecond = 1000 * kMs;

std::vector<int16_t> sound_of(const Source& source, int64_t first, int frames)
{
    std::vector<int16_t> stereo(static_cast<size_t>(2 * frames));
    source.audio(first, stereo.data(), frames);
    return stereo;
}

std::unique_ptr<CodedProgramme> coded_programme(Coding coding, int64_t ns)
{
    std::string error;
    auto coded = CodedProgramme::make(coding, Programme(48000, {60, 1}, ns), ns, CodedProgramme::kBitRate, &error);
    EXPECT_NE(coded, nullptr) << error;
    return coded;
}

/// The frames in the source's bursts from number @p first on.
std::vector<coded_audio::Bytes> payloads(const Source& source, int64_t first, int count)
{
    constexpr size_t kPreambleWords = 4;
    const int64_t period = burst_link_frames(source.coding());
    std::vector<coded_audio::Bytes> frames;
    std::vector<int16_t> words(static_cast<size_t>(2 * period));
    for (int64_t burst = first; burst < first + count; burst++) {
        source.link(burst * period, words.data(), static_cast<int>(period));
        const auto length = static_cast<uint16_t>(words[kPreambleWords - 1]);
        coded_audio::Bytes& bytes = frames.emplace_back();
        for (size_t i = 0; i < (source.coding() == Coding::eac3 ? length : length / 8u); i++) {
            const auto word = static_cast<uint16_t>(words[kPreambleWords + i / 2]);
            bytes.push_back(static_cast<uint8_t>(i % 2 == 0 ? word >> 8 : word));
        }
    }
    return frames;
}

/// A recording of given samples, heard from @p heard_ns on.
class PlayMeasure : public testing::Test
{
protected:
    ~PlayMeasure() override { unlink(path_.c_str()); }

    void record(const std::vector<int16_t>& stereo, int rate, std::vector<HeardBlock> blocks)
    {
        record(stereo, rate, std::move(blocks), &recording);
    }
    void record(const std::vector<int16_t>& stereo, int rate, std::vector<HeardBlock> blocks, Recording* into)
    {
        path_ = testing::TempDir() + "play_measure_" + std::to_string(getpid()) + ".wav";
        unlink(path_.c_str());
        SF_INFO info = {};
        info.channels = 2;
        info.samplerate = rate;
        info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
        SNDFILE* file = sf_open(path_.c_str(), SFM_WRITE, &info);
        ASSERT_NE(file, nullptr);
        sf_writef_short(file, stereo.data(), static_cast<sf_count_t>(stereo.size() / 2));
        sf_close(file);
        std::string error;
        ASSERT_TRUE(into->open(path_, std::move(blocks), &error)) << error;
    }

    void record(const std::vector<int16_t>& stereo, int rate, int64_t heard_ns)
    {
        record(stereo, rate, {{0, static_cast<int64_t>(stereo.size() / 2), heard_ns, false}});
    }
    /// @p stereo is captured from 0 on, and heard 110 ms later at half the volume.
    void pass(std::vector<int16_t> stereo)
    {
        const auto frames = static_cast<int64_t>(stereo.size() / 2);
        record(stereo, 48000, {{0, frames, 0, false}}, &captured);
        for (int16_t& sample : stereo)
            sample = static_cast<int16_t>(sample / 2);
        record(stereo, 48000, 110 * kMs);
    }
    Recording captured;

    RawCheck bursts_in(const std::vector<int16_t>& words, const Source& source)
    {
        record(words, source.link_rate(), 100 * kMs);
        return check_bursts(recording, source);
    }

    Recording recording;

private:
    std::string path_;
};

std::vector<Sighting> watch(Programme* programme, int64_t latency_ns)
{
    Screen screen;
    VideoFrame frame;
    while (programme->next_video(&frame))
        screen.refresh(frame.picture, frame.source_ns + latency_ns);
    return screen.sightings();
}

} // namespace

TEST(Picture, CarriesItsNumberAndItsFlashUnlessItIsDamaged)
{
    Picture picture;
    for (int64_t number : {int64_t{0}, int64_t{1}, int64_t{1199}, int64_t{0x5A5A5A}, kPictureNumberLimit - 1}) {
        write_number(&picture, number);
        fill_field(&picture, number % 2 != 0 ? Picture::kWhite : Picture::kBlack);
        EXPECT_EQ(read_number(picture), number);
        EXPECT_EQ(is_flash(picture), number % 2 != 0);
    }
    // Plain or damaged, it is none.
    for (uint8_t plain : {Picture::kBlack, Picture::kWhite}) {
        picture.luma.fill(plain);
        EXPECT_EQ(read_number(picture), -1);
    }
    write_number(&picture, 77);
    for (int row = 0; row < 8; row++) // the lowest bit's block
        for (int column = 0; column < 4; column++)
            picture.luma[static_cast<size_t>(row) * Picture::kWidth + column] = Picture::kBlack;
    EXPECT_EQ(read_number(picture), -1);
}

TEST(OnsetDetector, FindsEachBeepAtItsFirstSampleInBlocksOfAnySize)
{
    Programme programme(48000, {60, 1}, 3 * kSecond + kSecond / 2);
    std::vector<int16_t> sound = sound_of(programme, 0, 48000 * 7 / 2);
    for (int chunk : {1, 977, 48000}) {
        OnsetDetector detector(48000, Programme::kBeepPeak);
        for (int done = 0; done < 48000 * 7 / 2; done += chunk)
            detector.feed(sound.data() + 2 * done, std::min(chunk, 48000 * 7 / 2 - done));
        EXPECT_EQ(detector.onsets(), (std::vector<int64_t>{48000, 96000, 144000}));
    }
}

TEST(Programme, FlashAndBeepMarkTheSameInstantAtEveryFrameRate)
{
    for (Rational fps : {Rational{24, 1}, Rational{25, 1}, Rational{30000, 1001}, Rational{60000, 1001}}) {
        Programme programme(44100, fps, 4 * kSecond);
        OnsetDetector detector(44100, Programme::kBeepPeak);
        std::vector<int16_t> sound = sound_of(programme, 0, 44100 * 4);
        detector.feed(sound.data(), 44100 * 4);
        std::vector<int64_t> flashes;
        bool was_flash = false;
        for (const Sighting& seen : watch(&programme, 0)) {
            if (seen.flash && !was_flash)
                flashes.push_back(seen.seen_ns);
            was_flash = seen.flash;
        }
        ASSERT_GE(flashes.size(), 3u);
        for (size_t i = 0; i < 3; i++) {
            EXPECT_EQ(flashes[i], programme.marks()[i]);
            EXPECT_NEAR(static_cast<double>(detector.onsets()[i]) / 44100, static_cast<double>(flashes[i]) / 1e9,
                        1.0 / 44100);
        }
    }
}

TEST(CodedProgramme, IsHeardWhenItsBurstsPass)
{
    for (Coding coding : {Coding::ac3, Coding::eac3}) {
        auto coded = coded_programme(coding, 2 * kSecond + kSecond / 2);
        // The sound is in its place, although the coder delays it.
        Programme plain(48000, {60, 1}, 2 * kSecond + kSecond / 2);
        ASSERT_EQ(coded->onsets().size(), plain.onsets().size());
        for (size_t i = 0; i < plain.onsets().size(); i++)
            EXPECT_NEAR(static_cast<double>(coded->onsets()[i]), static_cast<double>(plain.onsets()[i]), 16);
        // Each burst begins where its first sample belongs, and ends with zeros.
        EXPECT_EQ(coded->link_rate(), coding == Coding::eac3 ? 192000 : 48000);
        int64_t frames = burst_link_frames(coding);
        for (int64_t burst : {0, 1, 31}) {
            int16_t words[6] = {};
            coded->link(burst * frames - 1, words, 3);
            EXPECT_EQ(words[0], 0);
            EXPECT_EQ(static_cast<uint16_t>(words[2]), 0xF872);
            EXPECT_EQ(static_cast<uint16_t>(words[3]), 0x4E1F);
            EXPECT_EQ(words[4], coding == Coding::eac3 ? 21 : 1);
        }
    }
}

TEST(CodedProgramme, GoesOnFromMinuteToMinuteWithoutASeam)
{
    constexpr int64_t kBurstsPerMinute = 60 * 48000 / kBurstSamples;
    constexpr int kBursts = 8;
    for (Coding coding : {Coding::ac3, Coding::eac3}) {
        auto coded = coded_programme(coding, 200 * kSecond);
        coded_audio::Format format;
        format.codec = coding == Coding::ac3 ? AV_CODEC_ID_AC3 : AV_CODEC_ID_EAC3;
        for (int64_t minute : {1, 2, 3}) {
            const int64_t first = minute * kBurstsPerMinute - kBursts / 2;
            const std::vector<int16_t> heard = sound_of(*coded, first * kBurstSamples, kBursts * kBurstSamples);
            std::vector<int16_t> decoded = coded_audio::decode(format, payloads(*coded, first, kBursts), 2);
            ASSERT_EQ(decoded.size(), heard.size());
            // The first burst of a decoder has nothing to overlap with.
            std::copy_n(heard.begin(), 2 * kBurstSamples, decoded.begin());
            EXPECT_EQ(decoded, heard) << "minute " << minute;
        }
        ASSERT_EQ(coded->onsets().size(), 200u);
        for (size_t second : {119u, 120u, 121u, 200u})
            EXPECT_NEAR(static_cast<double>(coded->onsets()[second - 1]), static_cast<double>(48000 * second), 16);
        EXPECT_EQ(sound_of(*coded, coded->coded_end(), 480), std::vector<int16_t>(960)) << "it ends";
    }
}

TEST_F(PlayMeasure, DecodedSoundIsComparedFromTheFirstWholeBurstOn)
{
    auto coded = coded_programme(Coding::ac3, 3 * kSecond);
    constexpr int64_t kFirst = 1000; // in the middle of a burst
    std::vector<int16_t> out = sound_of(*coded, kFirst, 48000 * 2);
    std::fill_n(out.begin(), 2 * (kBurstSamples - kFirst + 256), int16_t{99});
    record(out, 48000, kFirst * kSecond / 48000 + 100 * kMs);
    auto matches = match_beeps(recording, *coded, {0, 0});
    int64_t end = kFirst + 48000 * 2;
    EXPECT_TRUE(check_samples(recording, *coded, matches, {end}).passed());
    EXPECT_FALSE(check_samples(recording, *coded, matches, {end + 2 * kBurstSamples}).passed()); // the end is missing
    out[2 * (kBurstSamples - kFirst + 256)] ^= 1;
    record(out, 48000, kFirst * kSecond / 48000 + 100 * kMs);
    EXPECT_EQ(check_samples(recording, *coded, matches, {end}).mismatches, 1);
}

TEST_F(PlayMeasure, WhatWasCapturedIsFoundAgainByItsBeepsOrByItsWaveform)
{
    Programme programme(48000, {60, 1}, 5 * kSecond + kSecond / 2);
    const std::vector<Sighting> seen = watch(&programme, 150 * kMs);
    pass(sound_of(programme, 0, 5 * 48000));
    const Passages beeps = find_passages(captured, recording);
    EXPECT_TRUE(beeps.beeps);
    ASSERT_EQ(beeps.all.size(), 4u);
    for (const Offset& offset : measure_passages(beeps.all, seen, programme, {})) {
        EXPECT_NEAR(offset.sound_ms, 110, 0.1);
        EXPECT_NEAR(offset.picture_ms, 150, 0.1);
    }
    // The second flash came in 20 ms before its beep; the third was never seen.
    std::vector<Sighting> without_180 = seen;
    without_180.erase(without_180.begin() + 180);
    const Chain chain =
        measure_chain(beeps, {{120, 2 * kSecond - 20 * kMs}, {180, 3 * kSecond}}, without_180, SourceClock{});
    EXPECT_EQ(chain.count, 1);
    EXPECT_NEAR(chain.captured_ms, -20, 0.1);
    EXPECT_NEAR(chain.shown_ms, 40, 0.1);

    std::mt19937 random(1);
    std::vector<int16_t> noise(size_t{2} * 3 * 48000);
    for (int16_t& sample : noise)
        sample = static_cast<int16_t>(random() % 20000 - 10000);
    pass(noise);
    const Passages seconds = find_passages(captured, recording);
    EXPECT_FALSE(seconds.beeps);
    ASSERT_EQ(seconds.all.size(), 2u);
    EXPECT_EQ(seconds.all[1].heard_ns - seconds.all[1].captured_ns, 110 * kMs);
    EXPECT_EQ(find_passages(captured, Recording()).all.size(), 0u);
}

TEST(Brightness, OfAllThePictureOrOfASpot)
{
    std::vector<uint32_t> pixels(100 * 50, 0x101010);
    for (int y = 20; y < 30; y++)
        std::fill_n(pixels.begin() + y * 100 + 70, 20, 0xFFFFFF);
    const Canvas canvas = {reinterpret_cast<uint8_t*>(pixels.data()), 100, 50, 400};
    EXPECT_NEAR(brightness(canvas, {}), 0.063 + 0.04 * 0.937, 0.005);
    EXPECT_NEAR(brightness(canvas, Spot{0.8, 0.5}), 1, 0.001);
    EXPECT_NEAR(brightness(canvas, Spot{1, 1}), 0.063, 0.001);
}

TEST_F(PlayMeasure, BurstsAtAnOutputAreTheSourcesInItsOrder)
{
    for (Coding coding : {Coding::ac3, Coding::eac3}) {
        auto coded = coded_programme(coding, 3 * kSecond);
        int64_t period = burst_link_frames(coding);
        const int64_t first = period / 2 + 31 * period; // inside of a burst, and of the programme's silence
        std::vector<int16_t> sent(static_cast<size_t>(2 * 40 * period));
        coded->link(first, sent.data(), static_cast<int>(40 * period));
        auto burst = [&](int64_t number) { return sent.begin() + 2 * (number * period + period - period / 2); };
        auto checked = [&](const std::vector<int16_t>& words) { return bursts_in(words, *coded); };

        RawCheck check = checked(sent);
        EXPECT_EQ(check.bursts, 40) << "cut off, yet with its whole payload, is the last one";
        EXPECT_EQ(check.different, 0);
        EXPECT_EQ(check.gaps, 0);
        EXPECT_EQ(check.began_ns, 100 * kMs + (period - period / 2) * kSecond / coded->link_rate());

        // Two clocks: stuffing put in and left out.
        auto at = [&](int64_t number) { return burst(number) - sent.begin(); };
        std::vector<int16_t> words = sent;
        words.insert(words.begin() + at(9), 8, int16_t{0});
        words.erase(words.begin() + at(4) - 8, words.begin() + at(4));
        check = checked(words);
        EXPECT_EQ(check.different + check.gaps, 0);

        words = sent;
        words.erase(words.begin() + at(20), words.begin() + at(22));
        EXPECT_EQ(checked(words).gaps, 1);
        words = sent;
        words.insert(words.begin() + at(20), burst(19), burst(20));
        EXPECT_GE(checked(words).gaps, 1) << "one that comes twice";

        words = sent;
        words[static_cast<size_t>(at(20)) + 100] ^= 1;
        check = checked(words);
        EXPECT_GT(check.different, 0);
        EXPECT_LE(check.different, period);

        // The end of the passing on cuts a payload, or a device that stops repeats a piece of its buffer.
        for (int64_t last : {at(39), at(38)}) {
            words = sent;
            std::copy_n(sent.begin() + last, 200, words.begin() + at(39));
            std::fill(words.begin() + at(39) + 200, words.end(), int16_t{0});
            check = checked(words);
            EXPECT_EQ(check.bursts, 39);
            EXPECT_EQ(check.different + check.gaps, 0);
        }
        words[static_cast<size_t>(at(39)) + 100] ^= 1;
        EXPECT_GT(checked(words).different, 0) << "cut off, and not the source's";
        words = sent;
        std::fill_n(words.begin() + at(38) + 200, 300, int16_t{0});
        EXPECT_GT(checked(words).different, 0) << "cut short, and not the last";
    }
    EXPECT_EQ(bursts_in(std::vector<int16_t>(2 * 48000), *coded_programme(Coding::ac3, kSecond)).bursts, 0);
}

namespace
{

/// Coded sound with a hole: zeros pass on the link for whole bursts, which count as bursts do.
class WithHole : public Programme
{
public:
    WithHole(const Source& coded, int64_t at, int64_t bursts)
        : Programme(48000, {60, 1}, 3 * kSecond), coded_(coded), at_(at * burst_link_frames(coded.coding())),
          frames_(bursts * burst_link_frames(coded.coding()))
    {
    }

    Coding coding() const override { return coded_.coding(); }
    int64_t coded_end() const override { return coded_.coded_end() + frames_ / link_frames_per_sample(coding()); }
    void link(int64_t first, int16_t* words, int frames) const override
    {
        for (int done = 0, next = 0; done < frames; done = next) {
            int64_t frame = first + done;
            int64_t end = frame < at_ ? at_ : frame < at_ + frames_ ? at_ + frames_ : first + frames;
            next = static_cast<int>(std::min(end, first + frames) - first);
            if (frame >= at_ && frame < at_ + frames_)
                std::fill(words + 2 * done, words + 2 * next, int16_t{0});
            else
                coded_.link(frame < at_ ? frame : frame - frames_, words + 2 * done, next - done);
        }
        reads++;
    }

    mutable int64_t reads = 0;

private:
    const Source& coded_;
    const int64_t at_;
    const int64_t frames_;
};

} // namespace

TEST_F(PlayMeasure, HoleInAFilmsSoundIsNoGapAtTheOutput)
{
    auto coded = coded_programme(Coding::ac3, 3 * kSecond);
    WithHole film(*coded, 35, 10); // where a beep sounds: no two bursts are equal
    std::vector<int16_t> words(size_t{2} * 70 * kBurstSamples);
    film.link(0, words.data(), 70 * kBurstSamples);
    RawCheck check = bursts_in(words, film);
    EXPECT_EQ(check.bursts, 60);
    EXPECT_EQ(check.different + check.gaps, 0);

    // What is left out behind it is one.
    words.erase(words.begin() + 2 * 45 * kBurstSamples, words.begin() + 2 * 46 * kBurstSamples);
    EXPECT_EQ(bursts_in(words, film).gaps, 1);
}

TEST_F(PlayMeasure, StrangersBurstsAreNotLookedForInAllOfTheSourceForEver)
{
    auto coded = coded_programme(Coding::ac3, 20 * kSecond);
    WithHole source(*coded, 0, 0);
    const int64_t bursts = source.coded_end() / kBurstSamples;
    std::vector<int16_t> words(static_cast<size_t>(2 * bursts * kBurstSamples));
    coded->link(0, words.data(), static_cast<int>(bursts * kBurstSamples));
    for (size_t burst = 0; burst < static_cast<size_t>(bursts); burst++)
        words[burst * 2 * kBurstSamples + 100] ^= 1;
    RawCheck check = bursts_in(words, source);
    EXPECT_EQ(check.bursts, bursts);
    EXPECT_GT(check.different, 0);
    EXPECT_LE(source.reads, 9 * bursts);

    // One that is the source's again is found where it belongs, behind more strangers than are looked for everywhere.
    auto different_without = [&](size_t burst) {
        words[burst * 2 * kBurstSamples + 100] ^= 1;
        return bursts_in(words, source).different;
    };
    int64_t first_good = different_without(0);
    EXPECT_LT(first_good, check.different);
    EXPECT_LT(different_without(200), first_good);
}

TEST_F(PlayMeasure, SilenceBehindTheLastBurstIsNoSoundTooMuch)
{
    auto coded = coded_programme(Coding::eac3, 2 * kSecond);
    int64_t samples = coded->coded_end();
    std::vector<int16_t> out = sound_of(*coded, 0, static_cast<int>(samples));
    out.resize(out.size() + 2 * 4 * 960);
    record(out, 48000, 100 * kMs);
    auto matches = match_beeps(recording, *coded, {0, 0});
    int64_t link_end = samples * link_frames_per_sample(Coding::eac3);
    EXPECT_TRUE(check_samples(recording, *coded, matches, {link_end}).passed());
    out.back() = 1;
    record(out, 48000, 100 * kMs);
    EXPECT_FALSE(check_samples(recording, *coded, matches, {link_end}).passed()) << "but it must be silence";
}

TEST_F(PlayMeasure, WhatADeviceThatWasOpenedAgainPlayedBeforeIsNotJudged)
{
    Programme programme(48000, {60, 1}, 3 * kSecond);
    std::vector<int16_t> out(2 * 4000, int16_t{0});
    std::vector<int16_t> sound = sound_of(programme, 12000, 48000 * 2);
    out.insert(out.end(), sound.begin(), sound.end());
    record(out, 48000, {{0, 4000, 100 * kMs, false}, {4000, 48000 * 2, 400 * kMs, false}});
    EXPECT_EQ(recording.last_opening(), 4000);
    EXPECT_EQ(recording.gaps(0, 2 * kSecond), 1) << "a pause of the device is one";
    EXPECT_EQ(recording.gaps(200 * kMs, 2 * kSecond), 0);
    std::vector<SoundMatch> matches = {{48000, 4000 + 36000}};
    EXPECT_TRUE(check_samples(recording, programme, matches, {12000 + 48000 * 2}).passed());
    record(out, 48000, 100 * kMs);
    EXPECT_FALSE(check_samples(recording, programme, matches, {12000 + 48000 * 2}).passed());
}

TEST_F(PlayMeasure, OffsetIsTheDifferenceOfTheTwoLatencies)
{
    Programme programme(48000, {60, 1}, 3 * kSecond + kSecond / 2);
    SourceClock clock{1000 * kSecond, 0};
    // The recording begins with source sample 4800, and what was sent at 0.1 s is heard 120 ms later.
    record(sound_of(programme, 4800, 48000 * 3), 48000, clock.start_ns + 220 * kMs);
    std::vector<SoundMatch> matches = match_beeps(recording, programme, clock);
    ASSERT_EQ(matches.size(), 3u);
    std::vector<Sighting> sightings = watch(&programme, clock.start_ns + 90 * kMs);
    for (const Offset& offset : measure_offsets(matches, recording, sightings, programme, clock, true)) {
        EXPECT_NEAR(offset.sound_ms, 120, 0.05);
        EXPECT_NEAR(offset.picture_ms, 90, 0.05);
        EXPECT_NEAR(offset.ms(), -30, 0.1); // the sound is late
    }
}

TEST_F(PlayMeasure, SoundThatIsWholeSecondsLateIsNotTakenForPunctual)
{
    auto coded = coded_programme(Coding::ac3, 26 * kSecond);
    Programme plain(48000, {60, 1}, 26 * kSecond);
    for (const Source* source : {static_cast<const Source*>(coded.get()), static_cast<const Source*>(&plain)}) {
        for (int64_t late : {0, 1, 10}) {
            record(sound_of(*source, 0, 48000 * 26), 48000, late * kSecond + 20 * kMs);
            std::vector<SoundMatch> matches = match_beeps(recording, *source, {0, 0});
            EXPECT_EQ(matches.size(), 25U);
            for (const SoundMatch& match : matches)
                EXPECT_EQ(match.position, match.source_sample);
        }
    }
    // What is left of a beep that was cut off has no pitch, and is none.
    std::vector<int16_t> out = sound_of(plain, 0, 48000 * 3);
    std::fill_n(out.begin() + 2 * 48000, 2 * 1200, int16_t{0});
    record(out, 48000, 20 * kMs);
    EXPECT_EQ(match_beeps(recording, plain, {0, 0}).size(), 1U);
}

TEST_F(PlayMeasure, WaveformsAreFoundAsBeepsAre)
{
    Programme programme(44100, {25, 1}, 5 * kSecond);
    SourceClock clock{50 * kSecond, 0};
    std::vector<int16_t> out = convert_rate(sound_of(programme, 0, 44100 * 5), 44100, 48000);
    record(out, 48000, clock.start_ns + 150 * kMs);
    std::vector<SoundMatch> matches = match_waveform(recording, programme, clock, 4 * kSecond);
    ASSERT_EQ(matches.size(), 3u);
    for (const SoundMatch& match : matches)
        EXPECT_NEAR(static_cast<double>(match.position), static_cast<double>(match.source_sample) * 48000 / 44100, 1);
    std::vector<Sighting> sightings = watch(&programme, clock.start_ns + 170 * kMs);
    std::vector<Offset> found = measure_offsets(matches, recording, sightings, programme, clock, false);
    ASSERT_EQ(found.size(), 3u);
    EXPECT_NEAR(found[2].ms(), 20, 0.1);
}

TEST(Correlation, GivesUpOnSilenceAndOnSteadyTones)
{
    std::vector<float> tone(48000);
    EXPECT_FALSE(find_in(tone, std::vector<float>(4800)));
    for (size_t i = 0; i < tone.size(); i++)
        tone[i] = 8000 * std::sin(static_cast<float>(i % 480) * 2 * static_cast<float>(M_PI) / 480);
    EXPECT_FALSE(find_in(tone, std::vector<float>(tone.begin() + 9600, tone.begin() + 14400)));
}

TEST(OffsetStatistics, WeighEachSideByItsOwnLimitAndLetOneInTwentyBeOutside)
{
    // -50 is within 60 ms on its side, +45 is beyond 40 on the other: the smaller figure is the worse one.
    OffsetStatistics statistics = summarise(offsets({-50, 45, 0, 0}));
    EXPECT_DOUBLE_EQ(statistics.worst_ms, 45);
    EXPECT_FALSE(statistics.p95_inside_r37());
    EXPECT_DOUBLE_EQ(statistics.mean_ms, -1.25);
    EXPECT_TRUE(summarise(offsets({-59.9, 39.9})).p95_inside_r37());
    EXPECT_FALSE(summarise(offsets({-60.1})).p95_inside_r37());
    EXPECT_FALSE(summarise({}).p95_inside_r37());
    // One in twenty may be outside of p95.
    std::vector<Offset> list(19, {0, 100, 90});
    list.push_back(offsets({200})[0]);
    statistics = summarise(list);
    EXPECT_DOUBLE_EQ(statistics.p95_ms, -10);
    EXPECT_DOUBLE_EQ(statistics.worst_ms, 200);
    EXPECT_EQ(statistics.undetectable, 19);
    EXPECT_EQ(statistics.unacceptable, 1);
    list.push_back({0, 100, 300});
    EXPECT_FALSE(summarise(list).p95_inside_r37());
}

TEST(Cadence, WhatTheRatesDictateIsNoFault)
{
    EXPECT_EQ(measure_cadence(shown({{0, 2}, {1, 3}, {2, 2}, {3, 3}}), {0, 3}, 2.5).excess(), 0); // 24 on 60
    EXPECT_EQ(measure_cadence(shown({{0, 1}, {1, 1}, {3, 1}, {4, 1}, {5, 1}, {7, 1}}), {0, 7}, 50.0 / 60).excess_unseen,
              0);
    EXPECT_EQ(measure_cadence(shown({{7, 1}, {8, 2}, {9, 1}}), {8, 8}, 60 / 59.94).excess(), 0);
}

TEST(Cadence, WhatTheyDoNotDictateIs)
{
    Cadence swapped = measure_cadence(shown({{0, 1}, {2, 2}, {3, 1}}), {0, 3}, 1); // one superseded, the next held
    EXPECT_EQ(swapped.excess_unseen, 1);
    EXPECT_EQ(swapped.excess_repeats, 1);
    EXPECT_DOUBLE_EQ(swapped.excess(), 0.5);
    // Uneven, none lost.
    EXPECT_EQ(measure_cadence(shown({{0, 2}, {1, 3}, {2, 1}, {3, 2}}), {0, 3}, 2).excess_repeats, 1);
    EXPECT_EQ(measure_cadence({}, {0, 3}, 1).excess(), 1);
    // Those before the first seen and after the last are missed too.
    EXPECT_EQ(measure_cadence(shown({{4, 1}, {5, 1}}), {2, 9}, 1).excess_unseen, 6);
}

TEST_F(PlayMeasure, EqualSamplesPassAndOneDifferentOneDoesNot)
{
    Programme programme(48000, {60, 1}, 3 * kSecond);
    std::vector<int16_t> out = sound_of(programme, 1234, 48000 * 2);
    record(out, 48000, 0);
    std::vector<SoundMatch> matches = {{48000, 48000 - 1234}};
    int64_t end = 1234 + 48000 * 2;
    EXPECT_TRUE(check_samples(recording, programme, matches, {end}).passed());
    EXPECT_FALSE(check_samples(recording, programme, matches, {end + 2000}).passed()); // the end is missing

    out[2 * 70000] ^= 1;
    std::swap(out[10], out[11]); // left for right, once
    record(out, 48000, 0);
    SampleCheck check = check_samples(recording, programme, matches, {end});
    EXPECT_EQ(check.mismatches, 2);
    EXPECT_EQ(check.first_mismatch, 5);
    // Of a capture whose end is not known, no more than up to the last match.
    EXPECT_EQ(check_samples(recording, programme, matches, {-1}).mismatches, 1);
    // A device in software may have changed them, but not lost a block.
    EXPECT_TRUE(check_samples(recording, programme, matches, {end, false}).passed());
    matches.push_back({48000 + 24000, 48000 - 1234 + 24000 - 960});
    EXPECT_FALSE(check_samples(recording, programme, matches, {-1, false}).passed());

    // What a reset at the start cut off is not judged, what comes behind is.
    const std::vector<int16_t> cut_off(out.begin(), out.begin() + 2 * 1536);
    out.insert(out.begin(), cut_off.begin(), cut_off.end());
    record(out, 48000, 0);
    const std::vector<SoundMatch> later = {{48000, 48000 - 1234 + 1536}};
    CapturePath path = {end};
    EXPECT_GT(check_samples(recording, programme, later, path).mismatches, 1000);
    path.cut_off = 1536;
    EXPECT_EQ(check_samples(recording, programme, later, path).mismatches, 2);
}

TEST_F(PlayMeasure, BeepsAreFoundAfterResamplingAndALostBlockIsNoticed)
{
    Programme programme(44100, {60, 1}, 4 * kSecond);
    std::vector<int16_t> out = convert_rate(sound_of(programme, 0, 44100 * 7 / 2), 44100, 48000);
    record(out, 48000, 0);
    std::vector<SoundMatch> matches = match_beeps(recording, programme, {0, 0});
    EXPECT_TRUE(check_samples(recording, programme, matches, {44100 * 7 / 2}).passed());
    ASSERT_EQ(matches.size(), 3u);
    for (size_t i = 0; i < matches.size(); i++)
        EXPECT_NEAR(static_cast<double>(matches[i].position), static_cast<double>(48000 * (i + 1)), 2);
    out.erase(out.begin() + 2 * 70000, out.begin() + 2 * 70960);
    record(out, 48000, 200 * kMs);
    SampleCheck check = check_samples(recording, programme, match_beeps(recording, programme, {0, 0}), {44100 * 7 / 2});
    EXPECT_FALSE(check.passed());
    EXPECT_NEAR(check.worst_place, 960, 4);
}

TEST_F(PlayMeasure, SilencesOfTheDeviceAreGapsUnlessTheSoundIsOver)
{
    Programme programme(48000, {60, 1}, 3 * kSecond);
    std::vector<int16_t> out = sound_of(programme, 0, 48000);
    std::vector<int16_t> gap(2 * 4800);
    out.insert(out.begin() + 2 * 24000, gap.begin(), gap.end());
    out.insert(out.end(), gap.begin(), gap.end());
    record(out, 48000,
           {{0, 24000, 0, false},
            {24000, 4800, 500 * kMs, true},
            {28800, 24000, 600 * kMs, false},
            {52800, 4800, 1100 * kMs, true}});
    EXPECT_EQ(recording.gaps(0, 2 * kSecond), 1);
    EXPECT_EQ(recording.gaps(0, 500 * kMs), 0);
    EXPECT_EQ(recording.gaps(501 * kMs, 2 * kSecond), 0);
    EXPECT_EQ(recording.written(), 48000);
    EXPECT_EQ(recording.written_before(30000), 25200);
    EXPECT_EQ(recording.heard_ns(28848), 601 * kMs);
    EXPECT_EQ(recording.heard_ns(60000), -1);
    EXPECT_EQ(recording.position_at(601 * kMs), 28848);
    EXPECT_EQ(check_samples(recording, programme, {{0, 0}}, {48000}).mismatches, 0);
}

TEST(DelayLine, DelaysRealSamplesAndMovesTheirStampsWithThem)
{
    DelayLine line(10);
    std::vector<int16_t> in(2 * 441);
    std::vector<int16_t> out;
    int64_t pts = -1;
    line.start(0, 44100);
    for (size_t i = 0; i < in.size(); i++)
        in[i] = static_cast<int16_t>(i);
    line.push(in.data(), 441);
    EXPECT_EQ(line.pop(&out, &pts), 0); // 10 ms are held, nothing is made up
    line.push(in.data(), 441);
    EXPECT_EQ(line.pop(&out, &pts), 441);
    EXPECT_EQ(pts, 0);
    EXPECT_EQ(out, in);
    line.push(in.data(), 100);
    EXPECT_EQ(line.pop(&out, &pts), 100);
    EXPECT_EQ(pts, 10'000);
    line.start(0, 44100); // a new sequence starts empty
    line.push(in.data(), 441);
    EXPECT_EQ(line.pop(&out, &pts), 0);
    line.drain();
    EXPECT_EQ(line.pop(&out, &pts), 441);
    EXPECT_EQ(pts, 0);
}

TEST(FramePool, TellsFramesThatWerePassedLongAgoFromThoseStillQueued)
{
    display::FramePool<display::FrameBuffer> pool(4);
    for (int64_t turn : {3, 90, 91, 92}) {
        display::FrameBuffer* buffer = pool.acquire();
        ASSERT_NE(buffer, nullptr);
        buffer->turn = turn;
        if (turn != 91)
            display::pass(buffer, Owner::host, Owner::player);
    }
    EXPECT_EQ(pool.count(Owner::player), 3);
    EXPECT_EQ(pool.count(Owner::player, 90), 1);
}

TEST(TickRecord, TellsHowLateOneTickInAHundredWasAndTheWorst)
{
    TickRecord record;
    for (int i = 0; i < 197; i++)
        record.add(i % 2 != 0 ? 40'000 : -1);
    TickRecord other;
    for (int64_t late_ms : {9, 30, 250})
        other.add(late_ms * kMs);
    record.add(other);
    Punctuality figures = record.figures(8.4);
    EXPECT_EQ(figures.ticks, 200);
    EXPECT_EQ(figures.late, 3);
    EXPECT_NEAR(figures.p99_ms, 9, 0.11);
    EXPECT_DOUBLE_EQ(figures.worst_ms, 250);
    EXPECT_EQ(record.figures(100).late, 1);
}

TEST(Grid, ErrorIsTheDistanceFromWholeRefreshesHoweverManyPassed)
{
    std::vector<Sighting> sightings;
    for (int64_t number = 0; number < 200; number++)
        sightings.push_back({number, false, kSecond + number * 40 * kMs, 2});
    EXPECT_LT(measure_grid(sightings, 50).worst_us, 0.001);
    sightings[100].seen_ns += 3 * kMs; // two of the 199 distances
    EXPECT_NEAR(measure_grid(sightings, 50).worst_us, 3000, 0.001);
    EXPECT_LT(measure_grid(sightings, 50).p99_us, 0.001);
    sightings[50].seen_ns += 20 * kMs; // late by a refresh, but not off the grid
    sightings.resize(101);
    EXPECT_NEAR(measure_grid(sightings, 50).p99_us, 0, 0.001);
    EXPECT_EQ(measure_grid({}, 50).worst_us, 0);
}

TEST(FlipGate, BlanksOfADisplayThatStoodStillForHoursAreWrittenDownAtOnce)
{
    Trace trace(10, 50);
    FlipGate gate(50, &trace.vblanks);
    gate.vblank(0);
    gate.vblank(4'000'000 * kSecond, int64_t{1} << 50);
    EXPECT_EQ(trace.vblanks.events().size(), 1 + 50u); // those of the last second
}

TEST(ConfigFaults, ConcernARunThatUsesTheDeviceAndEveryRunIfTheFileIsWrong)
{
    const ConfigUse speaker = {"speaker", false, false};
    const ConfigUse captures = {"", true, true};
    const struct {
        std::string fault;
        bool of_speaker;
        bool of_captures;
    } faults[] = {
        {"/etc/linux.conf:3: speaker: 'hw:9' cannot be opened", true, false},
        {"/etc/linux.conf:3: speaker.frames: unknown key", true, false},
        {"/etc/linux.conf:3: speaker.mixer: 'hw:0' has no volume control 'Digital'", false, false},
        {"/etc/linux.conf:3: speaker.mixer_card: 'hw:9' cannot be opened", false, false},
        {"/etc/linux.conf:3: headphone: no value", false, false},
        {"/etc/linux.conf:3: hdmi_in: 'hw:9' cannot be opened", false, true},
        {"/etc/linux.conf:3: cec: '/dev/cec7' is not there: none", false, true},
        {"/etc/linux.conf:3: mic01: 'hw:9' cannot be opened", false, false},
        {"/etc/linux.conf:3: speeker: unknown key", true, true},
        {"/etc/linux.conf:3: : no value", true, true},
        {"/etc/linux.conf:3: start_periods: '9' is not a number from 1 to 7", true, true},
        {"/etc/linux.conf: cannot be read: Permission denied", true, true},
        {"HDMIPLAYER_ALSA_SPEAKER: 'hw:9' cannot be opened", true, false},
        {"HDMIPLAYER_ALSA_HDMI_IN: 'hw:9' cannot be opened", false, true},
        {"HDMIPLAYER_CEC_DEVICE: '/dev/cec7' is not there", false, true},
    };
    for (const auto& [fault, of_speaker, of_captures] : faults) {
        EXPECT_EQ(concerns(fault, speaker), of_speaker) << fault;
        EXPECT_EQ(concerns(fault, captures), of_captures) << fault;
    }
    // A name that cannot be told from a fault is one.
    EXPECT_TRUE(concerns("/etc/a: b/linux.conf:3: headphone: no value", speaker));
}

TEST(FlipGate, HoldsBackBurstsButNotPairsAtTheEdgeOfAVerticalBlank)
{
    FlipGate gate(50);
    gate.vblank(kSecond);
    EXPECT_TRUE(gate.admit(kSecond + 1 * kMs));
    EXPECT_FALSE(gate.admit(kSecond + 2 * kMs)); // the same vertical blank
    EXPECT_TRUE(gate.admit(kSecond + 19 * kMs)); // early for the next one
    EXPECT_TRUE(gate.admit(kSecond + 21 * kMs)); // after it, whether the display has told of it yet or not
    EXPECT_FALSE(gate.admit(kSecond + 22 * kMs));
    gate.vblank(kSecond + 40 * kMs);
    EXPECT_TRUE(gate.admit(kSecond + 39 * kMs)); // seen from the vertical blank after it
    EXPECT_TRUE(gate.admit(kSecond + 41 * kMs));
}

TEST_F(PlayMeasure, ComparisonFindsItsPlaceAgainBehindAnUnderrun)
{
    constexpr int kRate = 48000;
    constexpr int kSourceRate = 44100;
    constexpr int kBeginS = 6;
    Programme programme(kSourceRate, {60, 1}, 24 * kSecond, true);
    Reference reference(programme, (kBeginS - 1) * kSourceRate, kRate);
    std::vector<int16_t> whole;
    for (int i = 0; i < 9 * kRate; i++) {
        ASSERT_TRUE(reference.reach(kRate + i, kRate + i + 1));
        for (float value : reference.at(kRate + i))
            whole.push_back(static_cast<int16_t>(std::lrint(value)));
    }
    constexpr std::ptrdiff_t kAt = 2 * 35 * kRate / 10;
    for (int lost_ms : {-120, 120, 700}) {
        std::vector<int16_t> sound = whole;
        const int lost = lost_ms * kRate / 1000;
        const std::ptrdiff_t values = 2 * std::ptrdiff_t{lost};
        if (lost < 0)
            sound.insert(sound.begin() + kAt, static_cast<size_t>(-values), 0);
        else
            sound.erase(sound.begin() + kAt, sound.begin() + kAt + values);
        record(sound, kRate, kSecond);
        std::vector<SoundMatch> matches;
        for (int second = 1; second < 8; second++)
            if (second < 4 || second * 1000 > 3500 + lost_ms)
                matches.push_back({(kBeginS + second) * kSourceRate, second * kRate - (second < 4 ? 0 : lost) + 3});
        Fidelity found = compare_sound(recording, programme, matches, {1, kBeginS + 1, kBeginS + 7.5, true});
        EXPECT_GE(found.windows, 50) << lost_ms;
        EXPECT_GE(found.disturbed, 1) << lost_ms;
        EXPECT_LE(found.disturbed, 4) << lost_ms << " at " << found.first_disturbed_s;
        EXPECT_NEAR(found.worst_jump, std::abs(lost), 1) << lost_ms;
    }
}

TEST_F(PlayMeasure, WhatWasAddedToTonesIsFound)
{
    constexpr double kClocks = 1.0002;
    constexpr int kRate = 48000;
    constexpr int kBegin = 7 * kRate; // the tone, and from 10 s on the sweep
    constexpr int kFrames = 8 * kRate;
    Programme programme(kRate, {60, 1}, 24 * kSecond, true);
    // Resampled by a clock that is 200 ppm fast, half a sample beside the source's.
    Reference reference(programme, kBegin - kRate, kRate);
    std::vector<int16_t> whole;
    for (int i = 0; i < kFrames; i++) {
        double place = kRate + 0.5 + i / kClocks;
        ASSERT_TRUE(reference.reach(place, place + 1));
        for (float value : reference.at(place))
            whole.push_back(static_cast<int16_t>(std::lrint(value)));
    }
    constexpr ptrdiff_t kAt = 2 * 543 * kRate / 100;
    auto repeat = [](std::vector<int16_t>* sound) {
        sound->insert(sound->begin() + kAt, {(*sound)[kAt], (*sound)[kAt]});
    };
    auto lose = [](std::vector<int16_t>* sound) { sound->erase(sound->begin() + kAt, sound->begin() + kAt + 2); };
    auto click = [](std::vector<int16_t>* sound) { (*sound)[kAt + 1] ^= 0x200; };
    // In the tone; what follows is too faint for a click.
    auto break_up = [](std::vector<int16_t>* sound) {
        constexpr size_t kTone = 2 * size_t{243} * kRate / 100 + 1;
        (*sound)[kTone] ^= 0x200;
        for (size_t i = 0; i < 40; i++)
            (*sound)[kTone + kRate / 5 + 2 * i] += i % 2 == 0 ? 20 : -20;
    };
    auto distort = [](std::vector<int16_t>* sound) {
        for (size_t i = 0; i < sound->size() / 2; i++)
            (*sound)[2 * i + 1] =
                static_cast<int16_t>((*sound)[2 * i + 1] + std::lrint(3 * std::sin(0.9 * static_cast<double>(i))));
    };
    // As converters leave it of a source at 44.1 kHz; beside the tone, until the sweep begins.
    auto leave_image = [](std::vector<int16_t>* sound) {
        for (size_t i = 0; i < 3 * kRate; i++)
            (*sound)[2 * i + 1] = static_cast<int16_t>(
                (*sound)[2 * i + 1] + std::lrint(600 * std::sin(2 * M_PI * 23900 / kRate * static_cast<double>(i))));
    };
    auto quieten = [](std::vector<int16_t>* sound) {
        for (size_t i = sound->size() * 3 / 4; i < sound->size(); i++)
            (*sound)[i] = static_cast<int16_t>((*sound)[i] * 98 / 100);
    };
    struct Case {
        const char* what;
        std::function<void(std::vector<int16_t>*)> edit;
        bool disturbed;
        double jump, noise_db, least_db;
    };
    for (const Case& c :
         {Case{"whole", [](auto*) {}, false, 0, -97.2, 0}, Case{"one sample twice", repeat, true, 1, -97.2, 0},
          Case{"one sample lost", lose, true, 1, -97.2, 0}, Case{"a click", click, true, 0, -97.2, 0},
          Case{"a click, and a rest of it", break_up, true, 0, -97.2, 0},
          Case{"distorted by 3 of 29196", distort, false, 0, -79.5, 0},
          Case{"an image above 20 kHz", leave_image, false, 0, -94.6, 0},
          Case{"quieter towards the end", quieten, true, 0, -97.2, -0.175}}) {
        std::vector<int16_t> sound = whole;
        c.edit(&sound);
        record(sound, kRate, kSecond);
        // As an onset is found.
        constexpr int64_t kBeside = 4;
        std::vector<SoundMatch> matches = {{kBegin + kRate, std::llround(kRate * kClocks) + kBeside}};
        Fidelity found = compare_sound(recording, programme, matches, {kClocks, 8, 14, true});
        EXPECT_EQ(found.windows, 58) << c.what;
        EXPECT_EQ(found.disturbed > 0, c.disturbed) << c.what << " at " << found.first_disturbed_s;
        EXPECT_NEAR(found.worst_jump, c.jump, 0.1) << c.what;
        EXPECT_NEAR(found.noise_db, c.noise_db, 1.5) << c.what;
        EXPECT_NEAR(found.least_db, c.least_db, 0.01) << c.what;
    }
}
