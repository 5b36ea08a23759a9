// SPDX-License-Identifier: MIT
/**
 * @file
 * Variable-rate resamplers side by side, as rate matching uses them: blocks of 20 ms of stereo at 48 kHz, a ratio that
 * moves between -200 and +200 ppm by 20 ppm a second. docs/sync.md has the table.
 *
 *     resampler_bench          all candidates that the build found
 *     resampler_bench NAME N   converts N blocks and nothing else, to count instructions; or of the reference
 *
 * THD+N: 997 Hz at -1 dBFS, 20 Hz to 20 kHz, without the 40 Hz on either side of the tone in which the moving ratio
 * puts it; of the floating-point result, and of that in 16 bits with dither. Ripple: 20 Hz to 20 kHz at +200 ppm.
 * Delay: input frames that are inside after a block. CPU: the best of many runs of 20 blocks, by turns; of the one that
 * is used the whole of rate matching.
 */
#ifdef WITH_SAMPLERATE
#include <samplerate.h>
#endif
#ifdef WITH_SOXR
#include <soxr.h>
#endif
#ifdef WITH_ZITA
#include <zita-resampler/vresampler.h>
#endif
#include <time.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include "rate_matcher.h"

namespace
{

constexpr int kRate = 48000;
constexpr int kBlock = 960;
constexpr int kRoom = 2 * kBlock;
constexpr double kPi = 3.14159265358979323846;
constexpr double kPpm = 1e-6;

/// Two channels of interleaved floats; the ratio is output by input.
class Candidate
{
public:
    virtual ~Candidate() = default;
    virtual void set_ratio(double ratio) = 0;
    /// @return output frames
    virtual int process(const float* in, int frames, float* out) = 0;
};

#ifdef WITH_ZITA
class Zita : public Candidate
{
public:
    explicit Zita(unsigned half_length) { resampler_.setup(1.0, 2, half_length); }
    void set_ratio(double ratio) override { resampler_.set_rratio(ratio); }
    int process(const float* in, int frames, float* out) override
    {
        resampler_.inp_count = static_cast<unsigned>(frames);
        resampler_.inp_data = const_cast<float*>(in);
        resampler_.out_count = kRoom;
        resampler_.out_data = out;
        resampler_.process();
        return kRoom - static_cast<int>(resampler_.out_count);
    }

private:
    VResampler resampler_;
};
#endif

#ifdef WITH_SAMPLERATE
class Samplerate : public Candidate
{
public:
    explicit Samplerate(int converter)
    {
        int error = 0;
        state_ = src_new(converter, 2, &error);
    }
    ~Samplerate() override { src_delete(state_); }
    void set_ratio(double ratio) override { ratio_ = ratio; }
    int process(const float* in, int frames, float* out) override
    {
        SRC_DATA data = {};
        data.data_in = in;
        data.data_out = out;
        data.input_frames = frames;
        data.output_frames = kRoom;
        data.src_ratio = ratio_;
        src_process(state_, &data);
        return static_cast<int>(data.output_frames_gen);
    }

private:
    SRC_STATE* state_;
    double ratio_ = 1;
};
#endif

#ifdef WITH_SOXR
class Soxr final : public Candidate
{
public:
    explicit Soxr(unsigned long recipe)
    {
        const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
        const soxr_quality_spec_t quality = soxr_quality_spec(recipe, SOXR_VR);
        // The largest ratio that it may be set to.
        state_ = soxr_create(1.01, 1, 2, nullptr, &io, &quality, nullptr);
        set_ratio(1);
    }
    ~Soxr() override { soxr_delete(state_); }
    void set_ratio(double ratio) override { soxr_set_io_ratio(state_, 1 / ratio, 0); }
    int process(const float* in, int frames, float* out) override
    {
        size_t done = 0, produced = 0;
        soxr_process(state_, in, static_cast<size_t>(frames), &done, out, kRoom, &produced);
        return static_cast<int>(produced);
    }

private:
    soxr_t state_;
};
#endif

/// swr_set_compensation().
class Swr : public Candidate
{
public:
    Swr(int filter_size, bool linear)
    {
        AVChannelLayout stereo;
        av_channel_layout_default(&stereo, 2);
        swr_alloc_set_opts2(&state_, &stereo, AV_SAMPLE_FMT_FLT, kRate, &stereo, AV_SAMPLE_FMT_FLT, kRate, 0, nullptr);
        av_opt_set_int(state_, "flags", SWR_FLAG_RESAMPLE, 0);
        av_opt_set_int(state_, "exact_rational", 0, 0);
        av_opt_set_int(state_, "filter_size", filter_size, 0);
        av_opt_set_int(state_, "linear_interp", linear, 0);
        swr_init(state_);
    }
    ~Swr() override { swr_free(&state_); }
    void set_ratio(double ratio) override
    {
        constexpr int kDistance = 1000000000;
        swr_set_compensation(state_, static_cast<int>(std::lround(kDistance * (1 - 1 / ratio))), kDistance);
    }
    int process(const float* in, int frames, float* out) override
    {
        const auto* from = reinterpret_cast<const uint8_t*>(in);
        auto* to = reinterpret_cast<uint8_t*>(out);
        return swr_convert(state_, &to, kRoom, &from, frames);
    }

private:
    SwrContext* state_ = nullptr;
};

/// The one that is used, 16 bits on both sides.
class Used : public Candidate
{
public:
    Used() : in_(2 * kBlock), out_(2 * kRoom) { resampler_.open(kRate, 2); }
    void set_ratio(double ratio) override { resampler_.set_step(1 / ratio); }
    int process(const float* in, int frames, float* out) override
    {
        std::transform(in, in + 2 * frames, in_.begin(),
                       [](float sample) { return static_cast<int16_t>(std::lrint(sample * 32768.0f)); });
        const int made = resampler_.convert(in_.data(), frames, out_.data());
        std::transform(out_.begin(), out_.begin() + 2 * made, out,
                       [](int16_t sample) { return static_cast<float>(sample) / 32768.0f; });
        return made;
    }

private:
    clocks::RatioResampler resampler_;
    std::vector<int16_t> in_, out_;
};

constexpr const char* kUsed = "used";

struct Entry {
    const char* name;
    std::function<std::unique_ptr<Candidate>()> make;
};

template <typename Type, typename... Args> std::function<std::unique_ptr<Candidate>()> maker(Args... args)
{
    return [args...] { return std::make_unique<Type>(args...); };
}

const std::vector<Entry>& entries()
{
    static const std::vector<Entry> all = {
#ifdef WITH_ZITA
        {"zita-24", maker<Zita>(24u)},
        {"zita-32", maker<Zita>(32u)},
        {"zita-48", maker<Zita>(48u)},
#endif
#ifdef WITH_SAMPLERATE
        {"samplerate-fastest", maker<Samplerate>(SRC_SINC_FASTEST)},
        {"samplerate-medium", maker<Samplerate>(SRC_SINC_MEDIUM_QUALITY)},
        {"samplerate-best", maker<Samplerate>(SRC_SINC_BEST_QUALITY)},
#endif
#ifdef WITH_SOXR
        {"soxr-low", maker<Soxr>(SOXR_LQ)},
        {"soxr-high", maker<Soxr>(SOXR_HQ)},
#endif
        {"swr-32", maker<Swr>(32, false)},
        {"swr-32-linear", maker<Swr>(32, true)},
        {"swr-64-linear", maker<Swr>(64, true)},
        {kUsed, maker<Used>()},
    };
    return all;
}

// --- Signals ------------------------------------------------------------------

/// Rectangular dither of one step on 16 bits, twice: high-pass triangular.
std::vector<float> to_int16(const std::vector<float>& in)
{
    std::vector<float> out(in.size());
    uint32_t seed = 1;
    float before = 0;
    for (size_t i = 0; i < in.size(); i++) {
        seed = seed * 1664525 + 1013904223;
        const float next = static_cast<float>(seed) * (1.0f / 4294967296.0f);
        out[i] = std::nearbyint(in[i] * 32768.0f + next - before) / 32768.0f;
        before = next;
    }
    return out;
}

double moving_ratio(int block)
{
    // A triangle of 40 s.
    const double seconds = static_cast<double>(block) * kBlock / kRate;
    const double phase = std::fmod(seconds, 40.0);
    return 1 + kPpm * (phase < 20 ? -200 + 20 * phase : 600 - 20 * phase);
}

/// The left channel of a tone after the conversion.
std::vector<float> convert_tone(Candidate& candidate, double hertz, double level, int blocks, double fixed_ppm,
                                bool moving)
{
    std::vector<float> in(2 * kBlock), out(2 * kRoom), left;
    for (int block = 0; block < blocks; block++) {
        for (int i = 0; i < kBlock; i++) {
            const double t = static_cast<double>(block) * kBlock + i;
            in[2 * i] = in[2 * i + 1] = static_cast<float>(level * std::sin(2 * kPi * hertz * t / kRate));
        }
        candidate.set_ratio(moving ? moving_ratio(block) : 1 + kPpm * fixed_ppm);
        const int frames = candidate.process(in.data(), kBlock, out.data());
        for (int i = 0; i < frames; i++)
            left.push_back(out[2 * i]);
    }
    return left;
}

// --- Measures -----------------------------------------------------------------

void fft(std::vector<std::complex<double>>& x)
{
    const size_t n = x.size();
    for (size_t i = 1, j = 0; i < n; i++) {
        size_t bit = n >> 1;
        for (; j & bit; bit >>= 1)
            j ^= bit;
        j ^= bit;
        if (i < j)
            std::swap(x[i], x[j]);
    }
    for (size_t len = 2; len <= n; len <<= 1) {
        for (size_t k = 0; k < len / 2; k++) {
            const std::complex<double> w =
                std::polar(1.0, -2 * kPi * static_cast<double>(k) / static_cast<double>(len));
            for (size_t i = k; i < n; i += len) {
                const auto a = x[i], b = x[i + len / 2] * w;
                x[i] = a + b;
                x[i + len / 2] = a - b;
            }
        }
    }
}

/// The worst of windows of 1.4 s.
double thd_n_db(const std::vector<float>& samples, double hertz)
{
    constexpr size_t kSize = 1 << 16;
    constexpr double kBeta = 20;
    const double bin = static_cast<double>(kRate) / kSize;
    double worst = -300;
    for (size_t start = kRate / 2; start + kSize <= samples.size(); start += kSize) {
        std::vector<std::complex<double>> x(kSize);
        for (size_t i = 0; i < kSize; i++) {
            const double u = 2.0 * static_cast<double>(i) / (kSize - 1) - 1;
            x[i] = samples[start + i] * std::cyl_bessel_i(0.0, kBeta * std::sqrt(1 - u * u)) /
                   std::cyl_bessel_i(0.0, kBeta);
        }
        fft(x);
        double tone = 0, rest = 0;
        for (auto i = static_cast<size_t>(20 / bin); i < static_cast<size_t>(20000 / bin); i++)
            (std::fabs(static_cast<double>(i) * bin - hertz) < 40 ? tone : rest) += std::norm(x[i]);
        worst = std::max(worst, 10 * std::log10(rest / tone));
    }
    return worst;
}

double amplitude_db(const std::vector<float>& samples, double hertz)
{
    // After the onset, a Hann window.
    const size_t start = kRate / 4, size = kRate / 2;
    std::complex<double> sum = 0;
    double weight = 0;
    for (size_t i = 0; i < size; i++) {
        const double w = 0.5 - 0.5 * std::cos(2 * kPi * static_cast<double>(i) / size);
        sum += w * samples[start + i] * std::polar(1.0, -2 * kPi * hertz * static_cast<double>(i) / kRate);
        weight += w;
    }
    return 20 * std::log10(2 * std::abs(sum) / weight);
}

double ripple_db(const Entry& entry)
{
    double low = 1e9, high = -1e9;
    for (const double hertz : {20., 100., 997., 4000., 8000., 12000., 14000., 16000., 17000., 18000., 18500., 19000.,
                               19250., 19500., 19750., 20000.}) {
        const auto candidate = entry.make();
        const auto out = convert_tone(*candidate, hertz, 0.5, 60, 200, false);
        const double level = amplitude_db(out, hertz / (1 + 200 * kPpm)) - 20 * std::log10(0.5);
        low = std::min(low, level);
        high = std::max(high, level);
    }
    return std::max(std::fabs(low), std::fabs(high));
}

/// Frames between what went in and what has come out, at the end of a block.
double delay_frames(const Entry& entry)
{
    const auto candidate = entry.make();
    const auto out = convert_tone(*candidate, 0.5, 1.0, 100, 0, false);
    return 100.0 * kBlock - static_cast<double>(out.size());
}

double cpu_us()
{
    timespec t = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

// --- Load -------------------------------------------------------------------------

/// Converts so many blocks.
using Load = std::function<void(int blocks)>;

Load load_of(const Entry& entry)
{
    struct State {
        std::unique_ptr<Candidate> candidate;
        std::vector<float> in = std::vector<float>(2 * kBlock), out = std::vector<float>(2 * kRoom);
        int count = 0;
    };
    auto state = std::make_shared<State>();
    state->candidate = entry.make();
    for (size_t i = 0; i < state->in.size(); i++)
        state->in[i] = 0.5f * std::sin(0.01f * static_cast<float>(i));
    return [state](int blocks) {
        for (int i = 0; i < blocks; i++) {
            state->candidate->set_ratio(moving_ratio(state->count++));
            state->candidate->process(state->in.data(), kBlock, state->out.data());
        }
    };
}

std::vector<int16_t> tone_block()
{
    std::vector<int16_t> in(2 * kBlock);
    for (size_t i = 0; i < in.size(); i++)
        in[i] = static_cast<int16_t>(std::lrint(16000 * std::sin(0.01 * static_cast<double>(i))));
    return in;
}

/// All that a platform does for a block of 16 bits, with clocks that are 200 ppm apart.
Load whole_matcher()
{
    struct State {
        clocks::RateMatcher matcher;
        std::vector<int16_t> in = tone_block(), out = std::vector<int16_t>(2 * kRoom);
        int64_t frames = 0;
    };
    auto state = std::make_shared<State>();
    state->matcher.capture_started(kRate);
    state->matcher.playback_started(kRate, 2);
    return [state](int blocks) {
        for (int i = 0; i < blocks; i++) {
            const int64_t now = state->frames * 1000000000 / kRate;
            state->matcher.captured(now, state->frames);
            state->matcher.played(now, state->frames - state->frames / 5000);
            state->frames += state->matcher.convert(now, state->in.data(), kBlock, state->out.data());
            state->matcher.delay(4 * kBlock);
        }
    };
}

/// swr_convert of 44.1 to 48 kHz, 16 bits on both sides, as many output frames.
Load reference()
{
    constexpr int kInputRate = 44100;
    AVChannelLayout stereo;
    av_channel_layout_default(&stereo, 2);
    SwrContext* context = nullptr;
    swr_alloc_set_opts2(&context, &stereo, AV_SAMPLE_FMT_S16, kRate, &stereo, AV_SAMPLE_FMT_S16, kInputRate, 0,
                        nullptr);
    swr_init(context);
    const std::shared_ptr<SwrContext> state(context, [](SwrContext* last) { swr_free(&last); });
    return [state, in = tone_block(), out = std::vector<int16_t>(2 * kRoom)](int blocks) mutable {
        for (int i = 0; i < blocks; i++) {
            const auto* from = reinterpret_cast<const uint8_t*>(in.data());
            auto* to = reinterpret_cast<uint8_t*>(out.data());
            swr_convert(state.get(), &to, kRoom, &from, kBlock * kInputRate / kRate);
        }
    };
}

std::vector<double> best_us(std::vector<Load>& loads)
{
    constexpr int kRounds = 60;
    constexpr int kBlocks = 20;
    constexpr int kWarmUpBlocks = 250; // until the clocks are known
    std::vector<double> best(loads.size(), 1e9);
    for (const Load& load : loads)
        load(kWarmUpBlocks);
    for (int round = 0; round < kRounds; round++) {
        for (size_t i = 0; i < loads.size(); i++) {
            const double before = cpu_us();
            loads[i](kBlocks);
            best[i] = std::min(best[i], (cpu_us() - before) / kBlocks);
        }
    }
    return best;
}

void print_table()
{
    std::vector<Load> loads;
    for (const Entry& entry : entries())
        loads.push_back(entry.name == kUsed ? whole_matcher() : load_of(entry));
    loads.push_back(reference());
    const std::vector<double> best = best_us(loads);
    const size_t count = entries().size();
    printf("%-20s %8s %8s %8s %8s %8s %6s\n", "", "THD+N", "16 bit", "ripple", "delay", "us/block", "x ref");
    for (size_t i = 0; i < count; i++) {
        const Entry& entry = entries()[i];
        const auto candidate = entry.make();
        const auto tone = convert_tone(*candidate, 997, 0.891, 50 * 45, 0, true);
        printf("%-20s %8.1f %8.1f %8.3f %8.1f %8.1f %6.2f\n", entry.name, thd_n_db(tone, 997),
               thd_n_db(entry.name == kUsed ? tone : to_int16(tone), 997), ripple_db(entry), delay_frames(entry),
               best[i], best[i] / best.back());
        fflush(stdout);
    }
    printf("%-20s %44.1f %6.2f\n", "swr 44.1 -> 48", best.back(), 1.0);
}

int run_one(const std::string& name, int blocks)
{
    if (name == "reference")
        return reference()(blocks), 0;
    if (name == kUsed)
        return whole_matcher()(blocks), 0;
    for (const Entry& entry : entries()) {
        if (name == entry.name)
            return load_of(entry)(blocks), 0;
    }
    fprintf(stderr, "no candidate \"%s\"\n", name.c_str());
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3)
        return run_one(argv[1], atoi(argv[2]));
    print_table();
    return 0;
}
