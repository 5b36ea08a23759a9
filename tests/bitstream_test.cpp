// SPDX-License-Identifier: MIT
// Compressed input through the whole player, on the simulated platform: what a host hears of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

#include "coded_audio.h"
#include "eventually.h"
#include "hdmi_sim.h"
#include "locked.h"
#include "packed_audio.h"
#include "player_host.h"
#include "processor_waits.h"
#include "wav_file.h"

using namespace std::chrono_literals;
using coded_audio::Bytes;
using hdmi_sim::Bitstream;
using hdmi_sim::BurstOptions;
using hdmi_sim::Coding;
using hdmi_sim::Op;

namespace
{

constexpr auto kPromptClose = 3s;
constexpr int kBurstSamples = 1536;
constexpr int kOverlapSamples = 256; ///< of the coder's blocks: incomplete where nothing precedes
constexpr int64_t kSecond = 1'000'000'000;

// --- What the source sends: every kind of sound has a pitch of its own ------------------

enum class Kind { silence, ac3, eac3, pcm, other };

constexpr double kAc3Hz = 300;
constexpr double kEac3Hz = 2000;
constexpr double kPcmHz = 8000;
constexpr size_t kStreamBursts = 32;

const coded_audio::Format kAc3 = {AV_CODEC_ID_AC3, 48000, 2, 192000, kAc3Hz};
const coded_audio::Format kEac3 = {AV_CODEC_ID_EAC3, 48000, 2, 256000, kEac3Hz};

// A stream that is sent in rounds, and what a decoder makes of them.
struct Programme {
    Bitstream stream;
    Bytes link;                     ///< of one round, from an independent muxer
    std::vector<int16_t> reference; ///< of several rounds, interleaved stereo
};

Programme make_programme(const coded_audio::Format& format)
{
    const std::vector<Bytes> packets = coded_audio::encode(format, kStreamBursts);
    std::vector<Bytes> rounds;
    for (int i = 0; i < 4; ++i)
        rounds.insert(rounds.end(), packets.begin(), packets.end());
    return {pack(format, packets), coded_audio::mux_bursts(format, packets), coded_audio::decode(format, rounds, 2)};
}

const Programme& programme(Kind kind)
{
    static const Programme ac3 = make_programme(kAc3);
    static const Programme eac3 = make_programme(kEac3);
    return kind == Kind::ac3 ? ac3 : eac3;
}

hdmi_sim::Signal pcm_signal()
{
    hdmi_sim::Signal signal;
    signal.generate = [](int64_t first, int16_t* words, int frames) {
        for (int i = 0; i < frames; ++i)
            words[2 * i] = words[2 * i + 1] =
                static_cast<int16_t>(8000 * std::sin(2 * M_PI * kPcmHz * static_cast<double>(first + i) / 48000 + 0.1));
    };
    return signal;
}

BurstOptions rounds(int phase_bytes = -1)
{
    BurstOptions options;
    options.repeat = true;
    options.phase_bytes = phase_bytes;
    return options;
}

hdmi_sim::Signal signal_of(Kind kind)
{
    return kind == Kind::pcm ? pcm_signal() : hdmi_sim::bitstream_signal(programme(kind).stream, rounds());
}

// By the zero crossings of the first channel.
Kind kind_of(const std::vector<int16_t>& pcm)
{
    size_t crossings = 0;
    bool silent = true;
    for (size_t i = 2; i < pcm.size(); i += 2) {
        silent = silent && pcm[i] == 0;
        crossings += (pcm[i - 2] < 0) != (pcm[i] < 0);
    }
    if (silent)
        return Kind::silence;
    const double hz = static_cast<double>(crossings) / static_cast<double>(pcm.size()) * 48000;
    for (const auto& [kind, pitch] : {std::pair(Kind::ac3, kAc3Hz), {Kind::eac3, kEac3Hz}, {Kind::pcm, kPcmHz}}) {
        if (hz > 0.7 * pitch && hz < 1.3 * pitch)
            return kind;
    }
    return Kind::other;
}

// --- A host ------------------------------------------------------------------------------

struct Block {
    int64_t taken_ns;
    bool written;
    std::vector<int16_t> pcm;
};

// Takes, plays and keeps the sound; renders 60 frames a second, or none.
class Host : Locked
{
public:
    explicit Host(bool video, hdmi_player_ao_dev_e device = E_HDMI_PLAYER_AO_DEV_SPEAKER) : video_(video)
    {
        forget_callbacks();
        hdmi_player_config_t config = player_config();
        config.ao_dev = device;
        if (hdmi_player_open(config) != 0)
            throw std::runtime_error("open");
        hdmi_player_hotplug_status_changed(E_HDMI_HOTPLUG_STATUS_IN);
        audio_ = std::thread([this] { audio(); });
        render_ = std::thread([this] { render(); });
    }
    ~Host() { close(); }

    void close()
    {
        if (done_.exchange(true))
            return;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(hdmi_player_close(), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - start, kPromptClose);
        audio_.join();
        render_.join();
    }
    /// Waits for ten more flips.
    static bool picture_goes_on()
    {
        return eventually([flipped = g_flipped.load()] { return g_flipped > flipped + 10; });
    }

    std::vector<Block> blocks()
    {
        return locked([this] { return blocks_; });
    }
    void forget()
    {
        locked([this] { blocks_.clear(); });
    }
    std::vector<int16_t> pcm()
    {
        std::vector<int16_t> all;
        for (const Block& block : blocks())
            all.insert(all.end(), block.pcm.begin(), block.pcm.end());
        return all;
    }
    /// When sound of this kind first went to the output after @p since_ns; 0: not yet.
    int64_t heard(Kind kind, int64_t since_ns)
    {
        for (const Block& block : blocks()) {
            if (block.written && block.taken_ns >= since_ns && kind_of(block.pcm) == kind)
                return block.taken_ns;
        }
        return 0;
    }
    bool hears(Kind kind, int64_t since_ns = 0)
    {
        return eventually([&] { return heard(kind, since_ns) != 0; });
    }

private:
    void audio()
    {
        int resets = 0;
        int32_t waiting_for = video_ ? INT32_MIN : -1; // the serial after this one; INT32_MIN: no reset yet
        int32_t last = -1;
        while (!done_) {
            hdmi_player_audio_frame_t* frame = nullptr;
            if (hdmi_player_get_pcm(&frame, 100) != 0)
                continue;
            if (g_resets != resets) {
                resets = g_resets;
                waiting_for = last;
            }
            const bool play = waiting_for != INT32_MIN && frame->serial != waiting_for;
            if (play)
                waiting_for = -1;
            last = frame->serial;
            const auto* samples = reinterpret_cast<const int16_t*>(frame->data);
            locked([&] { blocks_.push_back({hdmi_sim::now_ns(), play, {samples, samples + frame->size / 2}}); });
            if (play)
                hdmi_player_write_pcm(frame);
            hdmi_player_put_pcm(frame);
        }
    }

    void render()
    {
        auto next = std::chrono::steady_clock::now();
        for (uintptr_t number = 1; video_ && !done_; ++number) {
            render_frame(number);
            next += 16667us;
            std::this_thread::sleep_until(next);
        }
    }

    const bool video_;
    std::atomic<bool> done_{false};
    std::vector<Block> blocks_;
    std::thread audio_;
    std::thread render_;
};

// Where the end of @p pcm stands last in the reference, and how far back they are equal.
struct Match {
    size_t samples = 0; ///< per channel
    size_t first = 0;   ///< sample of the reference
};

Match match_end(const std::vector<int16_t>& pcm, const std::vector<int16_t>& reference)
{
    constexpr size_t kProbe = 2048; // words
    Match match;
    if (pcm.size() < kProbe)
        return match;
    const auto found = std::find_end(reference.begin(), reference.end(), pcm.end() - kProbe, pcm.end());
    if (found == reference.end())
        return match;
    const auto mine = std::make_reverse_iterator(pcm.end());
    const auto theirs = std::make_reverse_iterator(found + kProbe);
    const auto differ = std::mismatch(mine, pcm.rend(), theirs, reference.rend());
    match.first = static_cast<size_t>(reference.rend() - differ.second + 1) / 2;
    match.samples = static_cast<size_t>(differ.first - mine) / 2;
    return match;
}

// At least @p bursts of sound are the reference's, from 256 samples after a burst's beginning on, to the end.
bool is_exact(const std::vector<int16_t>& pcm, const Programme& sent, size_t bursts, bool from_burst = true)
{
    const Match match = match_end(pcm, sent.reference);
    return match.samples >= bursts * kBurstSamples &&
           (!from_burst || match.first % kBurstSamples <= static_cast<size_t>(kOverlapSamples));
}

class BitstreamTest : public testing::Test
{
protected:
    void SetUp() override
    {
        hdmi_sim::reset();
        programme(Kind::ac3); // made before anything is timed
    }
};

// Before the player opens.
void send(const hdmi_sim::Signal& signal, bool compressed = true)
{
    ASSERT_TRUE(hdmi_sim::write_state_file(hdmi_sim::announce_text(compressed, 48000)));
    hdmi_sim::receiver_connect(signal);
}
void send(Kind kind) { send(signal_of(kind), kind != Kind::pcm); }
// While it is open.
void change_to(Kind kind)
{
    ASSERT_TRUE(hdmi_sim::announce(hdmi_sim::announce_text(kind != Kind::pcm, 48000)));
    hdmi_sim::receiver_connect(signal_of(kind));
}

bool bypass_is_exact(const Programme& programme, int64_t frames)
{
    const std::vector<hdmi_sim::BypassRun> runs = hdmi_sim::bypass_recording();
    if (runs.empty() || static_cast<int64_t>(runs.back().words.size()) < 2 * frames)
        return false;
    return std::all_of(runs.begin(), runs.end(), [&programme](const hdmi_sim::BypassRun& run) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(run.words.data());
        size_t at = static_cast<size_t>(run.first_frame) * 4;
        return std::all_of(bytes, bytes + run.words.size() * 2,
                           [&](uint8_t byte) { return byte == programme.link[at++ % programme.link.size()]; });
    });
}

} // namespace

TEST_F(BitstreamTest, DecodedSoundIsExactAtEveryChunkPhase)
{
    const Programme with_7_1 = make_programme({AV_CODEC_ID_EAC3, 48000, 6, 384000, kEac3Hz, true});
    for (const Programme* sent : {&programme(Kind::ac3), &programme(Kind::eac3), &with_7_1}) {
        for (const int phase : {0, 5 * 768, 4 * 961, 4, -1}) {
            SCOPED_TRACE(testing::Message() << hdmi_sim::link_rate(sent->stream) << " " << phase);
            send(hdmi_sim::bitstream_signal(sent->stream, rounds(phase)));
            Host host(false);
            EXPECT_TRUE(eventually([&] { return is_exact(host.pcm(), *sent, 10); }));
        }
    }
}

// Also on S/PDIF, whose selection the player knows before the format.
TEST_F(BitstreamTest, RawPassesTheBurstsFromASelectionOrAnAnnouncementOnAndGoesBackToDecoding)
{
    send(Kind::pcm);
    Host host(true, E_HDMI_PLAYER_AO_DEV_SPDIF);
    ASSERT_EQ(hdmi_player_select_audio_output_format(E_HDMI_PLAYER_AO_FORMAT_RAW), 0);
    ASSERT_TRUE(host.hears(Kind::pcm));
    // By announcement the output stays open until the next selection.
    change_to(Kind::eac3);
    EXPECT_TRUE(eventually([] { return bypass_is_exact(programme(Kind::eac3), 96000); }));
    EXPECT_TRUE(hdmi_sim::playback_stats().open);
    ASSERT_EQ(hdmi_player_select_audio_output_device(E_HDMI_PLAYER_AO_DEV_HDMI_ARC), 0);
    EXPECT_FALSE(hdmi_sim::playback_stats().open);
    const auto decodes = [&](auto select) {
        const int64_t since = hdmi_sim::now_ns();
        ASSERT_EQ(select(), 0);
        EXPECT_TRUE(eventually([] { return hdmi_sim::playback_stats().open; }));
        EXPECT_TRUE(host.hears(Kind::eac3, since));
        EXPECT_EQ(hdmi_sim::receiver_stats().bypass_mode, -1);
        EXPECT_TRUE(eventually([&] { return is_exact(host.pcm(), programme(Kind::eac3), 5, false); }));
    };
    decodes([] { return hdmi_player_select_audio_output_device(E_HDMI_PLAYER_AO_DEV_SPEAKER); });
    // By selection it is closed at once.
    const size_t runs = hdmi_sim::bypass_recording().size();
    ASSERT_EQ(hdmi_player_select_audio_output_device(E_HDMI_PLAYER_AO_DEV_SPDIF), 0);
    EXPECT_FALSE(hdmi_sim::playback_stats().open);
    EXPECT_TRUE(eventually([=] { return hdmi_sim::bypass_recording().size() > runs; }));
    EXPECT_TRUE(eventually([] { return bypass_is_exact(programme(Kind::eac3), 96000); }));
    EXPECT_EQ(hdmi_sim::bypass_recording().size(), runs + 1) << "interrupted";
    EXPECT_TRUE(host.picture_goes_on());
    decodes([] { return hdmi_player_select_audio_output_format(E_HDMI_PLAYER_AO_FORMAT_PCM); });
}

// Zeros on the link are played sample by sample, four times as long as they lasted. What was written of them stays
// ahead of the sound; what was not is discarded.
TEST_F(BitstreamTest, SilenceOnAFasterLinkPilesUpAndTheFirstBurstFlushesTheQueues)
{
    BurstOptions options = rounds();
    const int silence_s = 1;
    options.lead_frames = silence_s * 192000;
    hdmi_sim::Signal signal = hdmi_sim::bitstream_signal(programme(Kind::eac3).stream, options);
    signal.start_ns = hdmi_sim::now_ns();
    send(signal);
    Host host(true);
    ASSERT_TRUE(host.hears(Kind::eac3));
    const int64_t delay_ns = host.heard(Kind::eac3, 0) - (signal.start_ns + silence_s * kSecond);
    size_t samples = 0;
    for (const Block& block : host.blocks())
        samples += block.written && kind_of(block.pcm) == Kind::silence ? block.pcm.size() / 2 : 0;
    EXPECT_GT(samples, 2U * 48000);
    EXPECT_LT(delay_ns, kSecond);
}

// What a source at fault sends, then good bursts for a while, in rounds.
TEST_F(BitstreamTest, TheNextGoodBurstsBringTheSoundBack)
{
    std::mt19937 random(11);
    const auto below = [&random](size_t limit) { return std::uniform_int_distribution<size_t>(0, limit - 1)(random); };
    for (const Kind kind : {Kind::ac3, Kind::eac3}) {
        const Bitstream good = programme(kind).stream;
        Bitstream damaged = good;
        damaged.bursts.insert(damaged.bursts.end(), good.bursts.begin(), good.bursts.end());
        for (size_t i = 0; i < kStreamBursts; ++i) {
            hdmi_sim::Burst& burst = damaged.bursts[i];
            switch (i % 6) {
            case 0: burst.pc = static_cast<uint16_t>(random()); break;
            case 1: burst.pd = static_cast<uint16_t>(random()); break;
            case 2: burst.payload.resize(below(burst.payload.size())); break;
            case 3: burst.payload[below(burst.payload.size())] ^= 0x10; break;
            case 4: std::generate(burst.payload.begin(), burst.payload.end(), std::ref(random)); break;
            default:
                burst.pc = 11; // the decoder goes, and comes back
                burst.pd = 0xFFFF;
                burst.payload.assign(24568, 0xA5);
            }
        }
        send(hdmi_sim::bitstream_signal(damaged, rounds(kind == Kind::ac3 ? 768 : 4 * 333)));
        Host host(true);
        EXPECT_TRUE(eventually([&] { return is_exact(host.pcm(), programme(kind), 6, false); }));
    }
}

TEST_F(BitstreamTest, ADecoderThatFailsStallsNothingElse)
{
    using hdmi_sim::FaultKind;
    const std::tuple<Op, FaultKind, int> faults[] = {
        {Op::decoder_init, FaultKind::fail, 0},      {Op::decoder_write, FaultKind::fail, -5},
        {Op::decoder_write, FaultKind::fail, 0},                                             // never takes a byte
        {Op::decoder_write, FaultKind::withhold, 0}, {Op::decoder_read, FaultKind::fail, 0}, // never has output
        {Op::decoder_read, FaultKind::fail, -5},
    };
    for (const auto& [op, kind, result] : faults) {
        SCOPED_TRACE(testing::Message() << static_cast<int>(op) << " " << result);
        send(Kind::ac3);
        hdmi_sim::set_fault(op, {kind, result});
        {
            Host host(true);
            EXPECT_TRUE(eventually([op = op] { return hdmi_sim::fault_hits(op) > 0; }));
            EXPECT_EQ(eventually([] { return g_unsupported > 0; }, op == Op::decoder_init ? 10s : 0s),
                      op == Op::decoder_init);
            EXPECT_TRUE(host.picture_goes_on());
            const int64_t now = hdmi_sim::now_ns();
            change_to(Kind::pcm);
            EXPECT_TRUE(host.hears(Kind::pcm, now));
            change_to(Kind::ac3);
        } // the close is prompt with the fault in force
        hdmi_sim::clear_fault(op);
    }
}

// --- Bursts that never come ---------------------------------------------------------------------

namespace
{

constexpr double kSampleMs = 1000.0 / 48000;
constexpr double kPauseMs = 5;
/// A new beginning places the sound by the phases of bursts and chunks: half a burst and half a chunk to either side.
constexpr double kNewBeginningMs = 26;

// What happens to a stream from a burst on. The sound is looked at half a second after its end: so far it may be moved
// then, on an AC-3 link and on the faster one of E-AC-3. Of what leaves zeros behind there, the player makes four times
// as much silence as it lasted, and then begins anew.
struct Loss {
    const char* name;
    double moved_ms, moved_eac3_ms;
    size_t bursts;      ///< that are lost
    double pause_s = 0; ///< of pause bursts, instead
    void (*damage)(hdmi_sim::Burst* burst) = nullptr;
};

// Of the stuffing nothing is left: the player takes chunks of zeros for silence and begins anew. And nothing in it can
// be taken for a preamble.
void fill(hdmi_sim::Burst* burst) { burst->payload.resize(24568, 0xA5); }

void flag(hdmi_sim::Burst* burst)
{
    fill(burst);
    burst->pc |= 0x80;
}

void change_type(hdmi_sim::Burst* burst)
{
    fill(burst);
    burst->pc = 0x5C;
}

void garble(hdmi_sim::Burst* burst)
{
    burst->payload.assign(burst->payload.size(), 0x5A);
    fill(burst);
}

void state_too_much(hdmi_sim::Burst* burst) { burst->pd = 0xFFFF; }

const Loss kLosses[] = {
    {"error flag", kSampleMs, kSampleMs, 1, 0, flag},
    {"unknown types", kSampleMs, kSampleMs, 10, 0, change_type},
    {"no sound in it", kSampleMs, kSampleMs, 1, 0, garble},
    {"100 flags", kSampleMs, kSampleMs, 100, 0, flag},
    {"a length that lies", kSampleMs, kNewBeginningMs, 1, 0, state_too_much},
    {"pause of 0.1 s", kPauseMs, kNewBeginningMs, 0, 0.1},
    {"pause of 0.7 s", kPauseMs, kNewBeginningMs, 0, 0.7123},
    {"pause of 2 s", kPauseMs, kNewBeginningMs, 0, 2.0},
};

/// On an E-AC-3 link: of a length that lies, and of two pauses.
constexpr int kNewBeginnings = 3;

// A stream in which bursts are lost again and again, and where its sound is measured.
struct LossyStream {
    Bitstream stream;
    BurstOptions options;
    std::vector<int16_t> sound; ///< of all bursts, as if none were lost
    std::vector<size_t> at;     ///< the burst with which a loss begins
    std::vector<size_t> after;  ///< the one half a second behind it
};

LossyStream make_lossy(const coded_audio::Format& format, const std::vector<Loss>& losses)
{
    constexpr int64_t kPauseFrames = 3;
    constexpr size_t kSettled = 70;
    constexpr size_t kHalfASecond = 16;
    constexpr size_t kMeasured = 16;
    LossyStream lossy;
    size_t end = kSettled;
    for (const Loss& loss : losses) {
        lossy.at.push_back(end);
        lossy.after.push_back(end + loss.bursts + kHalfASecond);
        end = lossy.after.back() + kMeasured;
    }
    const std::vector<Bytes> packets = coded_audio::encode(format, static_cast<int>(end + 2));
    lossy.sound = coded_audio::decode(format, packets, 2);
    lossy.stream = pack(format, packets);
    const int rate = hdmi_sim::link_rate(lossy.stream);
    for (size_t i = 0; i < losses.size(); ++i) {
        for (size_t lost = 0; lost < losses[i].bursts; ++lost)
            losses[i].damage(&lossy.stream.bursts[lossy.at[i] + lost]);
        const auto pause = static_cast<int64_t>(losses[i].pause_s * rate);
        if (pause > 0)
            lossy.options.gaps.push_back({static_cast<int64_t>(lossy.at[i]), pause, kPauseFrames});
    }
    return lossy;
}

// What the sound device played.
struct Recording {
    int resets = 0;           ///< after the start
    bool stood_still = false; ///< the machine did, for longer than the sound in hand lasts
    std::vector<int16_t> pcm;
    std::vector<hdmi_sim::PlayedBlock> blocks;

    /// When sample @p frame of the file was heard.
    int64_t heard_ns(int64_t frame) const
    {
        for (const hdmi_sim::PlayedBlock& block : blocks) {
            if (frame >= block.first_frame && frame < block.first_frame + block.frames)
                return block.heard_ns + (frame - block.first_frame) * kSecond / 48000;
        }
        return 0;
    }
};

// A decoder that reads so much late does not fill in silence in time, and the output runs dry.
constexpr auto kHeldUp = 12ms;

// Plays the stream to its end, with a picture.
Recording play(const LossyStream& lossy)
{
    const TemporaryWav wav("bitstream_test.wav");
    hdmi_sim::playback_configure({wav.path, 0});
    hdmi_sim::Signal signal = hdmi_sim::bitstream_signal(lossy.stream, lossy.options);
    signal.start_ns = hdmi_sim::now_ns();
    send(signal);
    const auto wait_for = [&](size_t burst) {
        const int64_t frame = hdmi_sim::burst_start(lossy.stream, lossy.options, static_cast<int64_t>(burst));
        const int64_t left_ns = signal.start_ns + frame * kSecond / signal.rate - hdmi_sim::now_ns();
        std::this_thread::sleep_for(std::chrono::nanoseconds(left_ns));
    };
    Recording recording;
    {
        // What begins late stays late until the next beginning.
        const ProcessorWaits waits;
        Host host(true);
        wait_for(lossy.at[0] - 10);
        const int at_start = g_resets;
        wait_for(lossy.after.back() + 15);
        recording.stood_still = waits.longest() > kHeldUp;
        if (recording.stood_still)
            printf("the machine let a thread wait for %.0f ms\n", static_cast<double>(waits.longest().count()) / 1e6);
        recording.resets = g_resets - at_start;
        hdmi_sim::playback_finish_recording();
    }
    recording.pcm = wav.samples();
    recording.blocks = hdmi_sim::playback_blocks();
    // From here on, times are those of the stream.
    for (hdmi_sim::PlayedBlock& block : recording.blocks)
        block.heard_ns -= signal.start_ns;
    return recording;
}

// From a burst's beginning on the link to its sound; negative where it was not heard as it was sent.
double latency_ms(const LossyStream& lossy, const Recording& recording, size_t burst)
{
    constexpr size_t kFirst = 600;
    constexpr size_t kWords = 512;
    const auto probe = lossy.sound.begin() + static_cast<ptrdiff_t>((burst * kBurstSamples + kFirst) * 2);
    const auto found = std::search(recording.pcm.begin(), recording.pcm.end(), probe, probe + kWords);
    if (found == recording.pcm.end())
        return -1;
    const int64_t heard =
        recording.heard_ns((found - recording.pcm.begin()) / 2) - static_cast<int64_t>(kFirst) * kSecond / 48000;
    const int64_t sent = hdmi_sim::burst_start(lossy.stream, lossy.options, static_cast<int64_t>(burst)) * kSecond /
                         hdmi_sim::link_rate(lossy.stream);
    return static_cast<double>(heard - sent) / 1e6;
}

const coded_audio::Format kDenseAc3 = {AV_CODEC_ID_AC3, 48000, 2, 640000, kAc3Hz};

} // namespace

TEST_F(BitstreamTest, HalfASecondAfterLostBurstsAndPausesTheSoundIsWhereItWas)
{
    bool held_up = false;
    for (const bool eac3 : {false, true}) {
        // A long silence on the faster link takes longer than is looked at.
        const LossyStream lossy =
            make_lossy(eac3 ? kEac3 : kDenseAc3, {std::begin(kLosses), std::end(kLosses) - (eac3 ? 1 : 0)});
        const Recording recording = play(lossy);
        held_up = held_up || recording.stood_still;
        if (recording.stood_still)
            continue;
        const int new_beginnings = eac3 ? kNewBeginnings : 0;
        EXPECT_EQ(recording.resets, new_beginnings);
        EXPECT_LE(hdmi_sim::playback_stats().underruns, new_beginnings) << "one for each";
        double before = latency_ms(lossy, recording, lossy.at[0] - 2);
        EXPECT_GT(before, 0);
        for (size_t i = 0; i < lossy.at.size(); ++i) {
            const double after = latency_ms(lossy, recording, lossy.after[i]);
            const double limit = eac3 ? kLosses[i].moved_eac3_ms : kLosses[i].moved_ms;
            printf("%s: sound %.2f ms after its burst, before %.2f\n", kLosses[i].name, after, before);
            EXPECT_NEAR(after, before, limit) << kLosses[i].name;
            before = limit < kNewBeginningMs ? after : before;
        }
    }
    if (held_up)
        GTEST_SKIP() << "the machine stood still meanwhile";
}

// The control of the one above.
TEST_F(BitstreamTest, ADecoderThatCountsFramesOnlyMovesTheSoundAheadByEachLoss)
{
    const LossyStream lossy = make_lossy(kDenseAc3, {kLosses[0]});
    hdmi_sim::decoder_fills_losses(false);
    const Recording recording = play(lossy);
    if (recording.stood_still)
        GTEST_SKIP() << "the machine stood still meanwhile";
    const double before = latency_ms(lossy, recording, lossy.at[0] - 2);
    EXPECT_NEAR(latency_ms(lossy, recording, lossy.after[0]), before - 32, kSampleMs);
}

// --- Formats that change under way ------------------------------------------------------------

namespace
{

enum class Announcement { before, after, without };

struct Change {
    Kind to; ///< Kind::other: DTS, whose sound is its report
    Announcement announcement;
    std::chrono::milliseconds apart, pause;
};

// First every kind of change, then changes at any time: before the new sound has settled, now and then.
std::vector<Change> make_changes(size_t at_random, unsigned seed)
{
    std::vector<Change> all;
    for (const Announcement given : {Announcement::before, Announcement::after}) {
        for (const Kind to : {Kind::ac3, Kind::eac3, Kind::other, Kind::eac3, Kind::ac3, Kind::other, Kind::pcm}) {
            const bool goes_without = all.size() % 7 == 1 || all.size() % 7 == 2;
            all.push_back({to, goes_without ? Announcement::without : given, 150ms, 0ms});
        }
    }
    std::mt19937 random(seed);
    while (at_random-- > 0) {
        const Kind kinds[] = {Kind::pcm, Kind::ac3, Kind::eac3, Kind::other};
        Kind to = all.back().to;
        while (to == all.back().to)
            to = kinds[random() % 4];
        const bool needs_announcement = (to == Kind::pcm) != (all.back().to == Kind::pcm);
        const auto announcement = static_cast<Announcement>(random() % (needs_announcement ? 2 : 3));
        all.push_back({to, announcement, random() % 200 * 1ms, random() % 250 * 1ms});
    }
    return all;
}

// Makes the change; how long it takes from its first burst or block to its sound.
std::chrono::nanoseconds change(Host& host, const Change& c)
{
    static size_t others = 0;
    static bool last_unsupported = false; // of the compressed ones: another such type is no change to the player
    const bool compressed = c.to != Kind::pcm;
    const int reported = g_unsupported;
    if (c.announcement == Announcement::before) {
        EXPECT_TRUE(hdmi_sim::announce(hdmi_sim::announce_text(compressed, 48000)));
        std::this_thread::sleep_for(c.apart);
    }
    const int64_t since = hdmi_sim::now_ns();
    const Coding types[] = {Coding::dts1, Coding::dts2, Coding::dts3};
    hdmi_sim::receiver_connect(
        c.to != Kind::other
            ? signal_of(c.to)
            : hdmi_sim::bitstream_signal(hdmi_sim::dts_bitstream(types[others++ % 3], 48000, 20, 9), rounds()));
    if (c.announcement == Announcement::after) {
        std::this_thread::sleep_for(c.apart);
        EXPECT_TRUE(hdmi_sim::announce(hdmi_sim::announce_text(compressed, 48000)));
    }
    if (c.to == Kind::other) {
        EXPECT_TRUE(last_unsupported || eventually([&] { return g_unsupported > reported; }));
        last_unsupported = true;
        EXPECT_TRUE(host.picture_goes_on());
        return 0ns;
    }
    last_unsupported = last_unsupported && !compressed;
    EXPECT_TRUE(host.hears(c.to, since));
    return std::chrono::nanoseconds(host.heard(c.to, since) - since);
}

int number_of(const char* variable, int otherwise)
{
    const char* asked = getenv(variable);
    return asked != nullptr ? atoi(asked) : otherwise;
}

} // namespace

TEST_F(BitstreamTest, FormatsFollowEachOtherInAnyOrderAtAnyTime)
{
    const std::vector<Change> changes = make_changes(static_cast<size_t>(number_of("HDMIPLAYER_FORMAT_CHANGES", 10)),
                                                     static_cast<unsigned>(number_of("HDMIPLAYER_FORMAT_SEED", 1)));
    std::chrono::nanoseconds worst{};
    std::unique_ptr<Host> host;
    for (size_t done = 0; done < changes.size() && !HasFailure(); ++done) {
        SCOPED_TRACE(testing::Message() << "change " << done << " to " << static_cast<int>(changes[done].to)
                                        << " announced " << static_cast<int>(changes[done].announcement));
        if (done % 20 == 0) { // the player closes and opens now and then, in whatever format
            host.reset();
            const Kind now = done == 0 ? Kind::pcm : changes[done - 1].to;
            send(now == Kind::other ? Kind::ac3 : now);
            host = std::make_unique<Host>(true);
            ASSERT_TRUE(eventually([&] { return !host->blocks().empty(); }));
        }
        worst = std::max(worst, change(*host, changes[done]));
        EXPECT_LT(worst, 1s);
        std::this_thread::sleep_for(changes[done].pause);
        host->forget();
    }
    printf("%zu changes of format, sound back after %lld ms at most\n", changes.size(),
           static_cast<long long>(worst / 1ms));
}

int main(int argc, char** argv)
{
    setenv("debug_hdmiplayer_log_level", "0", 0);
    return run_in_namespaces(argc, argv);
}
